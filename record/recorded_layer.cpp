#include "record/recorded_layer.h"

#include <cxxabi.h>

#include <chrono>
#include <cstdlib>
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

// What is said of a call when it is over.
template <typename Outcome>
std::string Members(const Outcome& outcome, const char* done, const char* failed, const std::string& indent) {
  const std::string what = !outcome.threw.empty() ? "threw " + outcome.threw : outcome.result ? done : failed;
  return OutcomeMembers(what, outcome.nanoseconds, outcome.threshold,
                        outcome.is_log_whole ? &outcome.log : nullptr, indent);
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
    head = LayerHead(type, real.path, real.file.bytes, real.file.hash);
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
  Recording::WriteText(folder_ + "/layer.json", LayerText(head_, configures_));
}

void RecordedLayer::Begin(void** in_buffers, Execution& execution) const {
  char number[32];
  std::snprintf(number, sizeof number, "/call-%04llu", static_cast<unsigned long long>(executed_));
  execution.stem = folder_ + number;
  const std::uint64_t json_bytes = 1024 + 256 * (input_bytes_.size() + output_bytes_.size());  // about
  Recording::Take(json_bytes);
  execution.taken_bytes = json_bytes;
  execution.files.push_back(execution.stem + ".json");
  execution.head = CallHead(executed_, configures_.size());
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
    items.push_back(TensorItem(reinterpret_cast<std::uintptr_t>(addresses[i]), sizes[i], dump.bytes,
                               dump.hash, file.empty() ? file : file.substr(folder_.size() + 1)));
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
