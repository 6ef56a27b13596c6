#include "replayed_call.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace vekrun {
namespace {

ReplayedCall Differs(std::string text) {
  ReplayedCall call;
  call.is_equal = false;
  call.text = std::move(text);
  return call;
}

// In quotes, with what is no ASCII character as \xNN: what a layer prints goes to terminals and reports.
std::string QuotedLine(const std::string& line) {
  if (line.empty()) return "nothing";
  std::string quoted = "\"";
  for (const char c : line) {
    char escape[8] = {c};
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7f) std::snprintf(escape, sizeof escape, "\\x%02x", unsigned{byte});
    quoted += escape;
  }
  return quoted + "\"";
}

// What can be told of any call: null where all of it is as recorded.
std::optional<ReplayedCall> CompareOutcome(const RecordedOutcome& recorded, const RepeatedCall& here,
                                           bool may_be_unknown) {
  if (!here.is_repeated) return Differs("not repeated: the bytes of its inputs are not recorded");
  if (!here.failure.empty()) return Differs(here.failure);
  if (!recorded.what) {
    if (may_be_unknown) return std::nullopt;
    return Differs(here.what.value_or("") + ", but the recorded process died in this call");
  }
  if (here.what != recorded.what) return Differs(here.what.value_or("") + ", recorded: " + *recorded.what);
  if (!recorded.log) return std::nullopt;
  const std::vector<std::string> lines = LinesOf(here.log);
  for (std::size_t i = 0; i < std::max(lines.size(), recorded.log->size()); ++i) {
    const std::string ours = i < lines.size() ? WithoutLineNumber(lines[i]) : "";
    const std::string theirs = i < recorded.log->size() ? WithoutLineNumber((*recorded.log)[i]) : "";
    if (ours == theirs) continue;
    return Differs("log line " + std::to_string(i + 1) + ": " + QuotedLine(ours) +
                   ", recorded: " + QuotedLine(theirs));
  }
  return std::nullopt;
}

LaidOut Laid(const char* name, const vek_host::BufAttrs& attrs, const std::vector<std::byte>& bytes) {
  return {name, TypeOf(attrs.GetMemFormat()), attrs, bytes.data(), bytes.size()};
}

// Takes over ours where both are NaN.
void ForgiveNan(const LaidOut& here, std::vector<std::byte>* expected) {
  ForEachElement(Offsets(here.attrs), [&](const auto&, std::size_t offset) {
    const std::byte* const ours = here.memory + offset;
    std::byte* const theirs = expected->data() + offset;
    if (std::isnan(ReadElement<double>(here.type, ours)) &&
        std::isnan(ReadElement<double>(here.type, theirs)))
      std::memcpy(theirs, ours, ElementBytes(here.type));
  });
}

std::string ElementAt(const LaidOut& tensor, const std::vector<unsigned int>& index) {
  const OffsetTable offsets = Offsets(tensor.attrs);
  std::size_t offset = 0;
  for (std::size_t d = 0; d < index.size(); ++d) offset += offsets[d][index[d]];
  std::string text = ElementText(tensor.type, tensor.memory + offset);
  if (IsFloat(tensor.type)) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, tensor.memory + offset, sizeof bits);
    char hexadecimal[16];
    std::snprintf(hexadecimal, sizeof hexadecimal, " (0x%08x)", bits);
    text += hexadecimal;
  }
  return text;
}

// Compares one output's bytes; fills in what differs.
void CompareBytes(std::size_t number, const RecordedAttrs* attrs, bool same_machine,
                  std::vector<std::byte> expected, const RepeatedCall& here, ReplayedCall* call) {
  const std::vector<std::byte>& ours = here.over_ones[number];
  const std::vector<std::byte>& again = here.over_zeros[number];
  expected.resize(ours.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const bool is_written = ours[i] == again[i];
    if (is_written) ++call->compared_bytes;
    if (!is_written) expected[i] = ours[i];
  }
  const std::optional<vek_host::BufAttrs> layout = attrs == nullptr ? std::nullopt : LayoutOf(*attrs);
  const bool has_elements = layout && layout->Bytes() <= ours.size();
  if (has_elements && !same_machine && layout->GetMemFormat().float_)
    ForgiveNan(Laid("", *layout, ours), &expected);
  const auto at = std::mismatch(ours.begin(), ours.end(), expected.begin()).first;
  if (at == ours.end()) return;

  call->is_equal = false;
  call->text = "output " + std::to_string(number) + ": ";
  if (has_elements) {
    const LaidOut a = Laid("here", *layout, ours);
    const LaidOut b = Laid("recorded", *layout, expected);
    Tolerance bits;
    bits.bits = true;
    Comparison comparison = CompareElements(a, b, bits);
    if (comparison.beyond > 0) {
      call->text += std::to_string(comparison.beyond) + " of " + std::to_string(comparison.elements) +
                    " elements " + (comparison.beyond == 1 ? "differs" : "differ") + ", the first at " +
                    IndexText(comparison.first) + ": " + ElementAt(a, comparison.first) + ", recorded " +
                    ElementAt(b, comparison.first);
      const std::size_t rank = comparison.beyond_by_axis.size();
      for (std::size_t d = 0; d < rank && comparison.beyond > 1; ++d) {
        const std::vector<std::uint64_t>& counts = comparison.beyond_by_axis[d];
        if (counts.size() > 1) call->details.push_back(SpreadAlongAxis(rank, d, counts));
      }
      call->output = DifferingOutput{number, *layout, ours, std::move(expected), std::move(comparison)};
      return;
    }
  }
  const auto offset = static_cast<std::size_t>(at - ours.begin());
  char bytes[64];
  std::snprintf(bytes, sizeof bytes, "0x%02x, recorded 0x%02x", std::to_integer<unsigned>(*at),
                std::to_integer<unsigned>(expected[offset]));
  call->text += "byte " + std::to_string(offset) + (has_elements ? ", which is padding: " : ": ") + bytes;
}

// Compares by hash alone.
void CompareHash(std::size_t number, const RecordedTensor& recorded, const RepeatedCall& here,
                 ReplayedCall* call) {
  const std::size_t bytes = recorded.bytes;
  const std::vector<std::byte>& ours = here.over_ones[number];
  const std::vector<std::byte>& again = here.over_zeros[number];
  const bool is_equal =
      HashOf(ours.data(), bytes) == recorded.hash || HashOf(again.data(), bytes) == recorded.hash;
  std::uint64_t unwritten = 0;
  for (std::size_t i = 0; i < bytes; ++i) unwritten += ours[i] == again[i] ? 0U : 1U;
  if (is_equal) {
    call->compared_bytes += bytes - unwritten;
    return;
  }
  call->is_equal = false;
  call->text = "output " + std::to_string(number) + ": ";
  call->text += unwritten == 0
                    ? "its hash differs"
                    : "not known: " + std::to_string(unwritten) + " of its " + std::to_string(bytes) +
                          " bytes are not the layer's, and only its hash is recorded";
}

}  // namespace

const char* ThisMachine() {
#if defined(__aarch64__)
  return "aarch64";
#else
  return "x86_64";
#endif
}

std::vector<std::string> LinesOf(const std::string& log) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < log.size();) {
    const std::size_t end = std::min(log.find('\n', at), log.size());
    lines.push_back(log.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

std::string WithoutLineNumber(const std::string& line) {
  // "[ERROR] vek_softmax.cpp:61: text"
  const std::size_t bracket = line.starts_with('[') ? line.find("] ") : std::string::npos;
  const std::size_t colon = bracket == std::string::npos ? bracket : line.find(':', bracket);
  const std::size_t end =
      colon == std::string::npos ? colon : line.find_first_not_of("0123456789", colon + 1);
  if (end == std::string::npos || end == colon + 1 || line[end] != ':') return line;
  return line.substr(0, colon) + line.substr(end);
}

ReplayedCall CompareWithRecorded(const RecordedConfigure& recorded, const RepeatedCall& here) {
  // No outcome: recording may have stopped for another reason than the death of the process.
  return CompareOutcome(recorded.outcome, here, /*may_be_unknown=*/true).value_or(ReplayedCall{});
}

ReplayedCall CompareWithRecorded(const RecordedLayer& layer, const RecordedExecute& recorded,
                                 const RepeatedCall& here) {
  if (auto difference = CompareOutcome(recorded.outcome, here, /*may_be_unknown=*/false)) return *difference;
  ReplayedCall call;
  if (!recorded.outputs) return call;
  const RecordedConfigure* const configure = layer.ConfigureOf(recorded);
  for (std::size_t i = 0; i < recorded.outputs->size() && call.is_equal; ++i) {
    const RecordedTensor& output = (*recorded.outputs)[i];
    if (output.address == 0) continue;
    const std::optional<FileBytes> bytes = BytesOf(output);
    if (!bytes) {
      CompareHash(i, output, here, &call);
      continue;
    }
    const bool is_described = configure != nullptr && i < configure->outputs.size();
    std::vector<std::byte> expected(bytes->data.get(), bytes->data.get() + bytes->size);
    CompareBytes(i, is_described ? configure->outputs[i].get() : nullptr, layer.machine == ThisMachine(),
                 std::move(expected), here, &call);
  }
  return call;
}

}  // namespace vekrun
