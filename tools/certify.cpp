#include "certify.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

// The hash, whole in its header.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "certify_cases.h"
#include "host/plugin.h"
#include "layer_catalog.h"
#include "run.h"
#include "usage_error.h"

namespace vekrun {
namespace {

// What goes into a hash.
class Record {
 public:
  void Bytes(const std::byte* data, std::size_t bytes) { bytes_.insert(bytes_.end(), data, data + bytes); }
  void Number(std::uint64_t number) {  // the lowest byte first, on every machine
    for (int i = 0; i < 8; ++i, number >>= 8) bytes_.push_back(static_cast<std::byte>(number & 0xFF));
  }
  void Text(const std::string& text) {
    Number(text.size());
    Bytes(reinterpret_cast<const std::byte*>(text.data()), text.size());
  }
  std::uint64_t Hash() const { return XXH64(bytes_.data(), bytes_.size(), 0); }

 private:
  std::vector<std::byte> bytes_;
};

// While it lives, what goes to standard output goes to a file, from which `Take` reads what is new.
class OutputCapture {
 public:
  OutputCapture() : file_(std::tmpfile(), std::fclose) {
    std::fflush(stdout);
    stdout_ = dup(STDOUT_FILENO);
    if (file_ == nullptr || stdout_ < 0 || dup2(fileno(file_.get()), STDOUT_FILENO) < 0) {
      throw UsageError(std::string("cannot capture the log: ") + std::strerror(errno));
    }
  }
  ~OutputCapture() {
    std::fflush(stdout);
    dup2(stdout_, STDOUT_FILENO);
    close(stdout_);
  }
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  std::string Take() {
    std::fflush(stdout);
    std::string text;
    std::array<char, 4096> part;
    for (ssize_t bytes; (bytes = pread(fileno(file_.get()), part.data(), part.size(), taken_)) > 0;
         taken_ += bytes) {
      text.append(part.data(), static_cast<std::size_t>(bytes));
    }
    return text;
  }

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
  int stdout_;
  off_t taken_ = 0;
};

// A log without its line numbers: "[LEVEL] file:123: text" becomes "[LEVEL] file: text". Other lines stay.
std::string WithoutLineNumbers(const std::string& log) {
  std::string result;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line); result += line + "\n") {
    const std::size_t file = line.find("] ");
    if (line[0] != '[' || file == std::string::npos) continue;
    const std::size_t colon = line.find(':', file);
    const std::size_t number_end = line.find_first_not_of("0123456789", colon + 1);
    if (colon == std::string::npos || number_end == std::string::npos) continue;
    line.erase(colon, number_end - colon);
  }
  return result;
}

// All NaN are one: which of two a sum keeps, and with what sign, is the processor's choice.
void MakeNansEqual(std::vector<std::byte>* memory) {
  for (std::size_t i = 0; i + sizeof(std::uint32_t) <= memory->size(); i += sizeof(std::uint32_t)) {
    std::uint32_t word;
    std::memcpy(&word, memory->data() + i, sizeof word);
    if ((word & 0x7FFFFFFFU) <= 0x7F800000U) continue;
    word = 0x7FC00000U;
    std::memcpy(memory->data() + i, &word, sizeof word);
  }
}

bool Computes(const std::string& type) {
  static const std::set<std::string> types = {"SOFTMAX", "ARGMAX", "NORMALIZE", "MATMUL", "ELTWISE"};
  return types.count(type) != 0;
}

using Memory = std::vector<std::byte>;

// Memory of a buffer; there is some even for no elements, so that its address is never null.
Memory MemoryOf(const vek_host::BufAttrs& attrs) {
  constexpr std::byte kUntouched{0xA5};
  return Memory(std::max<std::size_t>(attrs.Bytes(), 1), kUntouched);
}

std::vector<std::unique_ptr<zeb::PuxDnnBufAttrs>> Clones(const std::vector<vek_host::BufAttrs>& buffers) {
  std::vector<std::unique_ptr<zeb::PuxDnnBufAttrs>> list;
  for (const vek_host::BufAttrs& buffer : buffers) list.push_back(buffer.Clone());
  return list;
}

// One layer's life: what a host sees of it goes into the record.
class Life {
 public:
  Life(const vek_host::Plugin& plugin, const std::string& type, OutputCapture* output)
      : computes_(Computes(type)), layer_(plugin.MakeLayer(type)), output_(output) {
    if (layer_ == nullptr) throw UsageError("the plug-in has no layer type " + type);
  }

  void Run(const CertificateCase& c) {
    bool is_configured = false;
    for (const AttrMap& attrs : c.configurations) {
      const auto in = Clones(c.inputs);
      const auto out = Clones(c.outputs);
      is_configured |= Call([&] { return layer_->Configure(attrs, in, out); });
    }
    if (is_configured && c.is_spoilt) return;

    std::vector<Memory> inputs;
    for (const vek_host::BufAttrs& attrs : c.inputs) {
      Memory& memory = inputs.emplace_back(MemoryOf(attrs));
      const std::uint64_t seed = c.seed + inputs.size();
      if (c.indices_below != 0 && inputs.size() == 2) {
        FillIndices(seed, c.indices_below, c.has_bad_index, memory.data(), attrs.Bytes());
      } else {
        FillContents(c.contents, seed, memory.data(), attrs.Bytes());
      }
    }
    std::vector<Memory> outputs;
    for (const vek_host::BufAttrs& attrs : c.outputs) outputs.push_back(MemoryOf(attrs));
    std::vector<void*> in;
    for (Memory& memory : inputs) in.push_back(c.is_one_input ? inputs[0].data() : memory.data());
    std::vector<void*> out;
    for (Memory& memory : outputs) out.push_back(memory.data());
    if (c.is_in_place) out[0] = in[0];
    // Never an empty list, whose address may be null.
    in.push_back(nullptr);
    out.push_back(nullptr);

    if (c.is_called_with_nulls) {
      Call([&] { return layer_->Execute(nullptr, out.data()); });
      Call([&] { return layer_->Execute(in.data(), nullptr); });
    }
    for (unsigned int i = 0; i < c.executions; ++i) {
      Call([&] { return layer_->Execute(in.data(), out.data()); });
      for (Memory memory : c.is_in_place ? inputs : outputs) {
        if (computes_) MakeNansEqual(&memory);
        record_.Bytes(memory.data(), memory.size());
      }
    }
  }

  std::uint64_t Hash() const { return record_.Hash(); }
  /// A letter for each call: t true, f false, x an exception.
  const std::string& Results() const { return results_; }

 private:
  template <typename Function>
  bool Call(const Function& function) {
    bool result = false;
    bool threw = false;
    try {
      result = function();
    } catch (const std::exception&) {  // a number conversion's
      threw = true;
    }
    results_ += threw ? 'x' : result ? 't' : 'f';
    record_.Number(static_cast<unsigned char>(results_.back()));
    record_.Text(WithoutLineNumbers(output_->Take()));
    return result;
  }

  bool computes_;
  vek_host::Plugin::Layer layer_;
  OutputCapture* output_;
  Record record_;
  std::string results_;
};

struct CaseResult {
  std::string text;
  std::string results;  // of its calls
  std::uint64_t hash;
};

std::vector<CaseResult> RunCases(const vek_host::Plugin& plugin, const std::string& type) {
  OutputCapture output;
  std::vector<CaseResult> results;
  for (const CertificateCase& c : CertificateCases(type)) {
    Life life(plugin, type, &output);
    life.Run(c);
    results.push_back({CaseText(c), life.Results(), life.Hash()});
  }
  return results;
}

// A line of a certificate.
struct Entry {
  std::uint64_t calls = 0;
  std::string hash;  // 16 hexadecimal digits

  bool operator==(const Entry&) const = default;
};

std::string HexText(std::uint64_t number) {
  std::array<char, 17> text{};
  std::snprintf(text.data(), text.size(), "%016" PRIx64, number);
  return text.data();
}

constexpr const char* kAll = "all";

std::vector<std::pair<std::string, Entry>> MakeCertificate(const vek_host::Plugin& plugin,
                                                           const std::vector<std::string>& types) {
  std::vector<std::pair<std::string, Entry>> certificate;
  Record all;
  std::uint64_t all_calls = 0;
  for (const LayerInfo& layer : LayerCatalog()) {
    if (!types.empty() && std::find(types.begin(), types.end(), layer.type) == types.end()) continue;
    Record hashes;
    std::uint64_t calls = 0;
    for (const CaseResult& result : RunCases(plugin, layer.type)) {
      hashes.Number(result.hash);
      calls += result.results.size();
    }
    all.Number(hashes.Hash());
    all_calls += calls;
    certificate.push_back({layer.type, {calls, HexText(hashes.Hash())}});
  }
  if (types.empty()) certificate.push_back({kAll, {all_calls, HexText(all.Hash())}});
  return certificate;
}

// The file next to the tool, or in the data folder of its installation.
std::string DefaultRecord() {
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  const std::filesystem::path next = folder / "certificate.txt";
  if (std::filesystem::exists(next, error)) return next.string();
  return (folder / ".." / VEK_DATADIR / "vekcustom" / "certificate.txt").string();
}

// Lines of a name, a number of calls and a hash; those that begin with # are comments.
std::map<std::string, Entry> ReadRecord(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw UsageError("cannot read the recorded certificate " + path);
  std::map<std::string, Entry> record;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string name;
    Entry entry;
    if (!(fields >> name >> entry.calls >> entry.hash))
      throw UsageError(path + " is no certificate: " + line);
    record[name] = entry;
  }
  return record;
}

void PrintEntry(const std::string& name, const Entry& entry, const std::string& verdict) {
  std::printf("%-16s %6" PRIu64 "  %s%s%s\n", name.c_str(), entry.calls, entry.hash.c_str(),
              verdict.empty() ? "" : "  ", verdict.c_str());
}

std::string Verdict(const Entry& entry, const std::map<std::string, Entry>& record, const std::string& name) {
  const auto recorded = record.find(name);
  if (recorded == record.end()) return "not recorded";
  if (recorded->second == entry) return "equal";
  return "differs, recorded " + recorded->second.hash +
         (recorded->second.calls == entry.calls ? ""
                                                : " of " + std::to_string(recorded->second.calls) + " calls");
}

}  // namespace

bool Certify(const CertifyRequest& request) {
  const vek_host::Plugin plugin = LoadPlugin(request.plugin);
  plugin.SetLogThreshold("INFO");
  std::vector<std::string> named = request.types;
  if (!request.cases.empty()) named.push_back(request.cases);
  for (const std::string& type : named) {
    if (FindLayer(type) == nullptr) throw UsageError("there is no layer type " + type);
  }
  if (!request.cases.empty()) {
    std::size_t i = 0;
    for (const CaseResult& result : RunCases(plugin, request.cases)) {
      std::printf("%3zu  %s  %-4s  %s\n", i++, HexText(result.hash).c_str(), result.results.c_str(),
                  result.text.c_str());
    }
    return true;
  }
  if (request.print) {
    std::puts(
        "# What vekrun certify compares with: layer type, calls, hash. Written by vekrun certify --print.");
    for (const auto& [name, entry] : MakeCertificate(plugin, request.types)) PrintEntry(name, entry, "");
    return true;
  }
  const std::map<std::string, Entry> record =
      ReadRecord(request.record.empty() ? DefaultRecord() : request.record);
  bool is_equal = true;
  std::printf("%-16s %6s  %s\n", "layer", "calls", "hash");
  for (const auto& [name, entry] : MakeCertificate(plugin, request.types)) {
    const std::string verdict = Verdict(entry, record, name);
    is_equal = is_equal && verdict == "equal";
    PrintEntry(name, entry, verdict);
  }
  return is_equal;
}

}  // namespace vekrun
