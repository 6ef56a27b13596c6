#include "record/description.h"

#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace vek_record {
namespace {

using zeb::PuxDnnBufAttrs;
using zeb::PuxDnnCustomLayer;

std::string Numbers(const std::vector<unsigned>& numbers) {
  std::vector<std::string> items;
  for (const unsigned number : numbers) items.push_back(std::to_string(number));
  return List(items);
}

const char* Truth(bool value) { return value ? "true" : "false"; }

std::string Format(const zeb::PuxDnnBufAttrsMemFormat& format) {
  std::string text = "{\"bitdepth\": " + std::to_string(format.bitdepth);
  text += ", \"plane_pack\": " + std::to_string(format.plane_pack);
  text += ", \"exp\": " + std::to_string(format.exp);
  text += std::string(", \"signed\": ") + Truth(format.signed_);
  text += std::string(", \"float\": ") + Truth(format.float_);
  text += std::string(", \"q8a\": ") + Truth(format.q8a);
  text += ", \"q8a_zero\": " + std::to_string(unsigned{format.q8a_zero});
  // For readers, and for those who need the very bits: JSON has neither infinity nor NaN.
  char scale[32] = "null";
  if (std::isfinite(format.q8a_scale)) {
    std::snprintf(scale, sizeof scale, "%.9g", static_cast<double>(format.q8a_scale));
  }
  text += std::string(", \"q8a_scale\": ") + scale;
  text += ", \"q8a_scale_bits\": \"" + Hexadecimal(std::bit_cast<std::uint32_t>(format.q8a_scale), 8) + "\"}";
  return text;
}

std::string Buffer(const PuxDnnBufAttrs& attrs) {
  std::string text = "{\"dims\": " + Numbers(attrs.GetDims());
  text += ", \"num_dims\": " + std::to_string(attrs.GetNumDims());
  text += ", \"size\": " + std::to_string(attrs.GetSize());
  text += ", \"format\": " + Format(attrs.GetMemFormat());
  text +=
      ", \"nchw\": " + Numbers({attrs.GetBatch(), attrs.GetChannels(), attrs.GetHeight(), attrs.GetWidth()});
  text += ", \"line_stride\": " + std::to_string(attrs.GetLineStride());
  text += ", \"plane_stride\": " + std::to_string(attrs.GetPlaneStride());
  text += ", \"strides\": " + Numbers(attrs.GetStrides());
  text += std::string(", \"strided\": ") + Truth(attrs.IsStrided());
  text += std::string(", \"interleaved\": ") + Truth(attrs.IsInterleaved()) + "}";
  return text;
}

constexpr const char* kIndent = "      ";

std::string Buffers(const PuxDnnCustomLayer::BufAttrsList& list, std::vector<std::uint32_t>& bytes) {
  std::vector<std::string> items;
  for (const auto& attrs : list) {
    items.push_back(attrs == nullptr ? "null" : Buffer(*attrs));
    bytes.push_back(attrs == nullptr ? 0 : attrs->GetSize());
  }
  return List(items, kIndent);
}

std::string Now() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

#if defined(__aarch64__)
constexpr const char* kMachine = "aarch64";
#else
constexpr const char* kMachine = "x86_64";
#endif

}  // namespace

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (byte >= 0x20 && byte < 0x7f) {
      quoted += c;
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", unsigned{byte});
      quoted += escape;
    }
  }
  return quoted + "\"";
}

std::string QuotedLines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.push_back(Quoted(text.substr(0, end)));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return List(lines);
}

std::string Hexadecimal(std::uint64_t number, int digits) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%0*llx", digits, static_cast<unsigned long long>(number));
  return text;
}

std::string List(const std::vector<std::string>& items, const std::string& indent) {
  std::string text = "[";
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) text += indent.empty() ? ", " : ",";
    if (!indent.empty()) text += "\n" + indent + "  ";
    text += items[i];
  }
  if (!indent.empty() && !items.empty()) text += "\n" + indent;
  return text + "]";
}

Description::Description(const PuxDnnCustomLayer::AttrMap& attrs,
                         const PuxDnnCustomLayer::BufAttrsList& inputs,
                         const PuxDnnCustomLayer::BufAttrsList& outputs) {
  std::vector<std::string> pairs;  // in the order of the map, which a refusal may tell of
  for (const auto& [key, value] : attrs) pairs.push_back("[" + Quoted(key) + ", " + Quoted(value) + "]");
  members = kIndent + ("\"attributes\": " + List(pairs)) + ",\n";
  members += kIndent + ("\"inputs\": " + Buffers(inputs, input_bytes)) + ",\n";
  members += kIndent + ("\"outputs\": " + Buffers(outputs, output_bytes)) + ",\n";
}

std::string LayerHead(std::string_view type, const char* library, std::uint64_t library_bytes,
                      std::uint64_t library_hash) {
  std::string head = "{\n  \"format\": \"vekrecord 1\",\n";
  head += "  \"type\": " + Quoted(type) + ",\n";
  head += "  \"library\": {\"path\": " + Quoted(library) + ", \"bytes\": " + std::to_string(library_bytes) +
          ", \"xxh64\": \"" + Hexadecimal(library_hash, 16) + "\"},\n";
  head += std::string("  \"machine\": \"") + kMachine + "\",\n";
  head += "  \"process\": " + std::to_string(getpid()) + ",\n";
  head += "  \"created\": \"" + Now() + "\",\n";
  return head;
}

std::string LayerText(const std::string& head, const std::vector<std::string>& configures) {
  return head + "  \"configures\": " + List(configures, "  ") + "\n}\n";
}

std::string CallHead(std::uint64_t call, std::uint64_t configures) {
  return "{\n  \"call\": " + std::to_string(call) + ",\n  \"configures\": " + std::to_string(configures) +
         ",\n";
}

std::string OutcomeMembers(const std::string& what, std::uint64_t nanoseconds, std::int32_t threshold,
                           const std::string* log, const std::string& indent) {
  std::string text = indent + "\"outcome\": " + Quoted(what) + ",\n";
  text += indent + "\"nanoseconds\": " + std::to_string(nanoseconds) + ",\n";
  text += indent + "\"threshold\": " + std::to_string(threshold) + ",\n";
  text += indent + "\"log\": " + (log != nullptr ? QuotedLines(*log) : "null") + "\n";
  return text;
}

std::string TensorItem(std::uint64_t address, std::uint64_t size, std::uint64_t bytes, std::uint64_t hash,
                       const std::string& file) {
  std::string item = "{\"address\": \"" + Hexadecimal(address, 1) + "\"";
  item += ", \"size\": " + std::to_string(size);
  item += ", \"bytes\": " + std::to_string(bytes);
  item += ", \"xxh64\": \"" + Hexadecimal(hash, 16) + "\"";
  item += ", \"file\": " + (file.empty() ? "null" : Quoted(file)) + "}";
  return item;
}

}  // namespace vek_record
