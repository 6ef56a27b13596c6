#include "record/recorded_layer.h"

#include <cxxabi.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <typeinfo>

#include "custom_ops/zeb_log.h"
#include "record/description.h"
#include "record/recording.h"

namespace vek_record {
namespace {

// Layers are made and destroyed by any thread.
constinit std::mutex g_layers_mutex;
constinit RecordedLayer* g_layers = nullptr;

std::string Now() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// The exception that is being handled.
std::string ExceptionType() {
  const std::type_info* type = abi::__cxa_current_exception_type();
  if (type == nullptr) return "an exception";
  int status = 0;
  char* plain = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
  if (plain == nullptr) return type->name();
  try {
    std::string name = plain;
    std::free(plain);
    return name;
  } catch (...) {
    std::free(plain);
    throw;
  }
}

#if defined(__aarch64__)
constexpr const char* kMachine = "aarch64";
#else
constexpr const char* kMachine = "x86_64";
#endif

// What is said of a call when it is over.
template <typename Outcome>
std::string Members(const Outcome& outcome, const char* done, const char* failed, const std::string& indent) {
  const std::string what = !outcome.threw.empty() ? "threw " + outcome.threw : outcome.result ? done : failed;
  std::string text = indent + "\"outcome\": " + Quoted(what) + ",\n";
  text += indent + "\"nanoseconds\": " + std::to_string(outcome.nanoseconds) + ",\n";
  text += indent + "\"threshold\": " + std::to_string(outcome.threshold) + ",\n";
  text += indent + "\"log\": " + (outcome.is_log_whole ? QuotedLines(outcome.log) : "null") + "\n";
  return text;
}

}  // namespace

RecordedLayer::RecordedLayer(const RealLibrary& real, zeb::PuxDnnCustomLayer* layer)
    : real_(real), layer_(layer) {
  const std::scoped_lock lock(g_layers_mutex);
  next_ = g_layers;
  if (next_ != nullptr) next_->previous_ = this;
  g_layers = this;
}

RecordedLayer::~RecordedLayer() {
  {
    const std::scoped_lock lock(g_layers_mutex);
    if (next_ != nullptr) next_->previous_ = previous_;
    (previous_ != nullptr ? previous_->next_ : g_layers) = next_;
  }
  real_.destroy_object(layer_);
}

RecordedLayer* RecordedLayer::Make(const RealLibrary& real, zeb::PuxDnnCustomLayer* layer,
                                   const std::string& type) {
  auto* made = new (std::nothrow) RecordedLayer(real, layer);
  if (made == nullptr) {
    Recording::Stop("out of memory");
    return nullptr;
  }
  Recording::Try([&] {
    std::string& head = made->head_;
    head = "{\n  \"format\": \"vekrecord 1\",\n";
    head += "  \"type\": " + Quoted(type) + ",\n";
    head += "  \"library\": {\"path\": " + Quoted(real.path) +
            ", \"bytes\": " + std::to_string(real.file.bytes) + ", \"xxh64\": \"" +
            Hexadecimal(real.file.hash, 16) + "\"},\n";
    head += std::string("  \"machine\": \"") + kMachine + "\",\n";
    head += "  \"process\": " + std::to_string(getpid()) + ",\n";
    head += "  \"created\": \"" + Now() + "\",\n";
    Recording::Take(head.size());
    made->folder_ = Recording::NewLayerFolder(type);
    made->WriteLayer();
  });
  return made;
}

RecordedLayer* RecordedLayer::Find(zeb::PuxDnnCustomLayer* layer) {
  const std::scoped_lock lock(g_layers_mutex);
  for (RecordedLayer* known = g_layers; known != nullptr; known = known->next_) {
    if (known == layer) return known;
  }
  return nullptr;
}

template <typename Call, typename After>
bool RecordedLayer::Run(const Call& call, const After& after) {
  Outcome outcome;
  outcome.threshold = __atomic_load_n(&libzeb_log_treshold, __ATOMIC_RELAXED);
  LogLines lines;
  const auto begin = std::chrono::steady_clock::now();
  const auto end = [&] {
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    lines.Stop();
    outcome.nanoseconds =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
    Recording::Try([&] {
      outcome.log = lines.Text();
      outcome.is_log_whole = real_.log_is_heard && !lines.IsSomeLost();
      after(outcome);
    });
  };
  try {
    outcome.result = call();
  } catch (...) {
    Recording::Try([&] { outcome.threw = ExceptionType(); });
    end();
    throw;
  }
  end();
  return outcome.result;
}

bool RecordedLayer::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  const auto call = [&] { return layer_->Configure(attrs, inputs, outputs); };
  if (!Recording::IsOn()) return call();
  std::string members;
  std::vector<std::uint32_t> input_bytes;
  std::vector<std::uint32_t> output_bytes;
  Recording::Try([&] {
    Description description(attrs, inputs, outputs);
    Recording::Take(description.members.size());
    members.swap(description.members);
    input_bytes.swap(description.input_bytes);
    output_bytes.swap(description.output_bytes);
    configures_.push_back("{\n" + members + "      \"outcome\": null\n    }");
    WriteLayer();
  });
  return Run(call, [&](const Outcome& outcome) {
    if (outcome.result) {
      input_bytes_.swap(input_bytes);
      output_bytes_.swap(output_bytes);
    }
    configures_.back() = "{\n" + members + Members(outcome, "accepted", "refused", "      ") + "    }";
    WriteLayer();
  });
}

bool RecordedLayer::Execute(void** in_buffers, void** out_buffers) {
  const auto call = [&] { return layer_->Execute(in_buffers, out_buffers); };
  if (!Recording::IsOn()) return call();
  ++executed_;
  if (recorded_ >= Recording::Chosen().calls) return call();
  Execution execution;
  Recording::Try([&] { Begin(in_buffers, execution); });
  return Run(call, [&](const Outcome& outcome) { Finish(out_buffers, outcome, execution); });
}

void RecordedLayer::WriteLayer() const {
  Recording::WriteText(folder_ + "/layer.json",
                       head_ + "  \"configures\": " + List(configures_, "  ") + "\n}\n");
}

void RecordedLayer::Begin(void** in_buffers, Execution& execution) const {
  char number[32];
  std::snprintf(number, sizeof number, "/call-%04llu", static_cast<unsigned long long>(executed_));
  execution.stem = folder_ + number;
  const std::uint64_t json_bytes = 1024 + 256 * (input_bytes_.size() + output_bytes_.size());  // about
  Recording::Take(json_bytes);
  execution.taken_bytes = json_bytes;
  execution.files.push_back(execution.stem + ".json");
  execution.head = "{\n  \"call\": " + std::to_string(executed_) + ",\n";
  execution.head += "  \"configures\": " + std::to_string(configures_.size()) + ",\n";
  execution.head += "  \"inputs\": " + Buffers("in", in_buffers, input_bytes_, execution) + ",\n";
  Recording::WriteText(execution.files[0], execution.head + "  \"outputs\": null,\n  \"outcome\": null\n}\n");
}

void RecordedLayer::Finish(void** out_buffers, const Outcome& outcome, Execution& execution) {
  if (outcome.result && Recording::Chosen().which == Recording::Which::kFailed) return;
  const std::string outputs = Buffers("out", out_buffers, output_bytes_, execution);
  Recording::WriteText(execution.files[0], execution.head + "  \"outputs\": " + outputs + ",\n" +
                                               Members(outcome, "done", "failed", "  ") + "}\n");
  execution.is_kept = true;
  ++recorded_;
}

// Writes the buffers' bytes, where they are kept; what is said of them.
std::string RecordedLayer::Buffers(const char* kind, void** buffers, const std::vector<std::uint32_t>& sizes,
                                   Execution& execution) const {
  if (buffers == nullptr) return "null";
  // The array, too, may be shorter than the description says.
  std::vector<void*> addresses(sizes.size());
  CopyMemory(buffers, sizes.size() * sizeof(void*), addresses.data());
  std::vector<std::string> items;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::string file;
    if (Recording::Chosen().keeps_bytes && addresses[i] != nullptr) {
      file = execution.stem + "-" + kind + std::to_string(i) + ".bin";
      execution.files.push_back(file);
    }
    const Dump dump = DumpMemory(addresses[i], sizes[i], file, execution.taken_bytes);
    std::string item =
        "{\"address\": \"" + Hexadecimal(reinterpret_cast<std::uintptr_t>(addresses[i]), 1) + "\"";
    item += ", \"size\": " + std::to_string(sizes[i]);
    item += ", \"bytes\": " + std::to_string(dump.bytes);
    item += ", \"xxh64\": \"" + Hexadecimal(dump.hash, 16) + "\"";
    item += ", \"file\": " + (file.empty() ? "null" : Quoted(file.substr(folder_.size() + 1))) + "}";
    items.push_back(std::move(item));
  }
  return List(items, "  ");
}

RecordedLayer::Execution::~Execution() {
  if (is_kept || files.empty()) return;
  const Quiet quiet;
  for (const std::string& file : files) Recording::Remove(file);
  Recording::GiveBack(taken_bytes);
}

}  // namespace vek_record
