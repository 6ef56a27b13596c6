#include "repeated_layer.h"

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <typeinfo>

#include "guard/contained_call.h"
#include "guard/failure.h"
#include "guard/guarded_memory.h"
#include "operand.h"
#include "usage_error.h"

namespace vekrun {
namespace {

using vek_guard::CallContained;
using vek_guard::Ending;
using vek_guard::Failure;
using vek_guard::GuardedMemory;
using vek_guard::NamedMemory;
using Against = GuardedMemory::Against;

constexpr std::array<std::byte, 2> kFills = {std::byte{0xFF}, std::byte{0}};

// Parts the calls in what the child prints; the plug-in's formats cannot print it.
constexpr char kEndOfCall = '\0';

// The buffers of one call of Execute, as far as there was memory for what was promised. Those that overlap in the
// recording do so here.
class CallBuffers {
 public:
  CallBuffers(const RecordedLayer& layer, const RecordedExecute& execute, const FindBytes& find) {
    const RecordedConfigure* const configure = layer.ConfigureOf(execute);
    if (execute.inputs) AddList("input", *execute.inputs, configure ? &configure->inputs : nullptr);
    const std::size_t inputs = buffers_.size();
    for (std::size_t i = 0; i < inputs && is_known_; ++i) {
      buffers_[i].bytes = find(*buffers_[i].tensor);
      is_known_ = buffers_[i].bytes.has_value();
    }
    if (execute.outputs) {
      AddList("output", *execute.outputs, configure ? &configure->outputs : nullptr);
    } else if (!execute.outcome.what && configure != nullptr) {
      // The recorded process died in the call: where its outputs lay is not told, only how large they were.
      for (const auto& attrs : configure->outputs) {
        promised_.emplace_back();
        promised_.back().size = promised_.back().bytes = attrs == nullptr ? 0 : attrs->GetSize();
      }
      for (std::size_t i = 0; i < promised_.size(); ++i)
        Add("output", i, promised_[i], configure->outputs[i].get());
    }
    if (is_known_) Allocate();
    has_inputs_ = execute.inputs.has_value();
    has_outputs_ = execute.outputs.has_value() || !execute.outcome.what;
    inputs_ = inputs;
  }

  bool AreKnown() const { return is_known_; }

  // Fills all with one byte and the inputs with theirs.
  void Load(std::byte fill, Against side) {
    for (GuardedMemory& memory : memories_) {
      memory.Place(side);
      std::fill_n(memory.Data(), memory.Bytes(), fill);
    }
    for (std::size_t i = 0; i < inputs_; ++i) {
      const Buffer& buffer = buffers_[i];
      if (buffer.memory == kNull) continue;
      std::copy_n(buffer.bytes->data.get(), buffer.bytes->size, Address(buffer));
    }
  }

  bool Execute(zeb::PuxDnnCustomLayer* layer) const {
    std::vector<void*> pointers;
    for (const Buffer& buffer : buffers_)
      pointers.push_back(buffer.memory == kNull ? nullptr : Address(buffer));
    // A layer that was configured anew may take more of them than are recorded. The host's were no null pointers.
    std::vector<void*> inputs(pointers.begin(), pointers.begin() + static_cast<std::ptrdiff_t>(inputs_));
    std::vector<void*> outputs(pointers.begin() + static_cast<std::ptrdiff_t>(inputs_), pointers.end());
    inputs.resize(inputs.size() + kMorePointers, reinterpret_cast<void*>(kNowhere));
    outputs.resize(outputs.size() + kMorePointers, reinterpret_cast<void*>(kNowhere));
    return layer->Execute(has_inputs_ ? inputs.data() : nullptr, has_outputs_ ? outputs.data() : nullptr);
  }

  std::vector<NamedMemory> Names() const {
    std::vector<NamedMemory> names;
    for (const Buffer& buffer : buffers_) {
      if (buffer.memory != kNull) names.push_back({&memories_[buffer.memory], buffer.text});
    }
    return names;
  }

  std::vector<std::vector<std::byte>> Outputs() const {
    std::vector<std::vector<std::byte>> outputs;
    for (std::size_t i = inputs_; i < buffers_.size(); ++i) {
      outputs.emplace_back();
      if (buffers_[i].memory == kNull) continue;
      const std::byte* const data = Address(buffers_[i]);
      outputs.back().assign(data, data + buffers_[i].tensor->bytes);
    }
    return outputs;
  }

 private:
  static constexpr std::size_t kNull = ~std::size_t{0};
  static constexpr std::size_t kMorePointers = 64;
  static constexpr std::uintptr_t kNowhere = 4096;  // where no system maps anything

  struct Buffer {
    const RecordedTensor* tensor;
    std::string text;
    std::size_t alignment;
    std::optional<FileBytes> bytes;  // of an input
    std::size_t memory = kNull;      // and where in it
    std::size_t offset = 0;
  };

  std::byte* Address(const Buffer& buffer) const { return memories_[buffer.memory].Data() + buffer.offset; }

  void AddList(const char* role, const std::vector<RecordedTensor>& tensors,
               const std::vector<std::shared_ptr<const RecordedAttrs>>* attrs) {
    for (std::size_t i = 0; i < tensors.size(); ++i) {
      const bool is_described = attrs != nullptr && i < attrs->size();
      Add(role, i, tensors[i], is_described ? (*attrs)[i].get() : nullptr);
    }
  }

  void Add(const std::string& role, std::size_t i, const RecordedTensor& tensor, const RecordedAttrs* attrs) {
    std::string text = role + " " + std::to_string(i) + " (";
    std::size_t alignment = 1;
    if (attrs != nullptr) {
      text += ShapeText(attrs->GetDims()) + ", ";
      const std::int32_t bits = attrs->GetMemFormat().bitdepth;
      alignment = bits == 32 ? 4 : bits == 16 ? 2 : 1;
    }
    text += std::to_string(tensor.size) + " bytes)";
    buffers_.push_back({&tensor, text, alignment, {}});
  }

  void Allocate() {
    std::vector<Buffer*> by_address;
    for (Buffer& buffer : buffers_) {
      const bool is_promised = !promised_.empty() && buffer.tensor >= promised_.data() &&
                               buffer.tensor < promised_.data() + promised_.size();
      if (is_promised) {
        buffer.memory = memories_.size();
        memories_.emplace_back(buffer.tensor->bytes, buffer.alignment);
      } else if (buffer.tensor->address != 0) {
        by_address.push_back(&buffer);
      }
    }
    std::sort(by_address.begin(), by_address.end(),
              [](const Buffer* a, const Buffer* b) { return a->tensor->address < b->tensor->address; });
    for (std::size_t i = 0; i < by_address.size();) {
      const std::uint64_t begin = by_address[i]->tensor->address;
      std::uint64_t end = begin;
      std::size_t alignment = 1;
      for (; i < by_address.size(); ++i) {
        Buffer& buffer = *by_address[i];
        const std::uint64_t address = buffer.tensor->address;
        if (address >= end && address != begin) break;
        end = std::max(end, address + buffer.tensor->bytes);
        alignment = std::max(alignment, buffer.alignment);
        buffer.memory = memories_.size();
        buffer.offset = address - begin;
      }
      memories_.emplace_back(end - begin, alignment);
    }
  }

  std::vector<RecordedTensor> promised_;
  std::vector<Buffer> buffers_;  // the inputs first
  std::vector<GuardedMemory> memories_;
  std::size_t inputs_ = 0;
  bool has_inputs_ = false;
  bool has_outputs_ = false;
  bool is_known_ = true;
};

// What the child tells of a call, in memory that it shares.
struct Note {
  bool has_begun;
  bool has_ended;
  bool result;
  std::array<char, 240> threw;  // an exception's type
  std::uint64_t nanoseconds;
};

// The exception that is being handled.
void NameException(std::array<char, 240>* name) {
  const std::type_info* const type = abi::__cxa_current_exception_type();
  int status = 0;
  char* const plain =
      type == nullptr ? nullptr : abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
  const char* const text = plain != nullptr ? plain : type != nullptr ? type->name() : "an exception";
  std::strncpy(name->data(), text, name->size() - 1);
  std::free(plain);
}

zeb::PuxDnnCustomLayer::BufAttrsList Clones(const std::vector<std::shared_ptr<const RecordedAttrs>>& list) {
  zeb::PuxDnnCustomLayer::BufAttrsList clones;
  for (const auto& attrs : list) clones.push_back(attrs == nullptr ? nullptr : attrs->Clone());
  return clones;
}

bool CallConfigure(zeb::PuxDnnCustomLayer* layer, const RecordedConfigure& configure) {
  zeb::PuxDnnCustomLayer::AttrMap attrs;
  // From last to first: the map has the recorded order then.
  for (auto pair = configure.attributes.rbegin(); pair != configure.attributes.rend(); ++pair)
    attrs.insert(*pair);
  return layer->Configure(attrs, Clones(configure.inputs), Clones(configure.outputs));
}

void SetThreshold(const vek_host::Plugin& plugin, std::int32_t threshold) {
  static constexpr std::array<const char*, 5> kLevels = {"NONE", "ERROR", "WARNING", "INFO", "DEBUG"};
  plugin.SetLogThreshold(kLevels[static_cast<std::size_t>(std::clamp(threshold, 0, 4))]);
}

class Repeater {
 public:
  Repeater(const vek_host::Plugin& plugin, const RecordedLayer& layer, const FindBytes& find)
      : plugin_(plugin), layer_(layer) {
    buffers_.reserve(layer.executes.size());
    std::size_t configures = 0;
    for (const RecordedExecute& execute : layer.executes) {
      buffers_.emplace_back(layer, execute, find);
      for (; configures < execute.configures; ++configures) AddConfigure(configures);
      steps_.push_back({&execute.outcome, nullptr, &buffers_.back(), !buffers_.back().AreKnown(), {}});
    }
    for (; configures < layer.configures.size(); ++configures) AddConfigure(configures);
    std::int32_t threshold = 2;  // where it is not recorded, as it was before
    for (Step& step : steps_) step.threshold = threshold = step.outcome->threshold.value_or(threshold);
  }

  RepeatedLayer Run() {
    for (std::size_t pass = 0; pass < kFills.size(); ++pass) {
      for (CallBuffers& buffers : buffers_) {
        if (buffers.AreKnown()) buffers.Load(kFills[pass], pass == 0 ? Against::kBack : Against::kFront);
      }
      std::size_t from = 0;
      while (from < steps_.size()) from = RunFrom(from, pass);
    }
    RepeatedLayer result;
    for (Step& step : steps_) {
      (step.configure != nullptr ? result.configures : result.executes).push_back(std::move(step.result));
    }
    return result;
  }

 private:
  struct Step {
    const RecordedOutcome* outcome;
    const RecordedConfigure* configure;  // or
    CallBuffers* buffers;                // of an Execute
    bool is_skipped;                     // it cannot be repeated, or it crashed before
    RepeatedCall result;
    std::int32_t threshold = 0;
  };

  void AddConfigure(std::size_t i) {
    steps_.push_back({&layer_.configures[i].outcome, &layer_.configures[i], nullptr, false, {}});
  }

  // Repeats the calls from that one on, behind the earlier ones of Configure. The step to go on with.
  std::size_t RunFrom(std::size_t from, std::size_t pass) {
    GuardedMemory shared(steps_.size() * sizeof(Note), alignof(Note));
    auto* const notes = reinterpret_cast<Note*>(shared.Data());
    const Ending ending = CallContained(
        [&] {
          const vek_host::Plugin::Layer layer = plugin_.MakeLayer(layer_.type);
          for (std::size_t i = 0; i < steps_.size(); ++i) {
            const Step& step = steps_[i];
            if (step.is_skipped || (i < from && step.buffers != nullptr)) continue;
            SetThreshold(plugin_, i < from ? 0 : step.threshold);
            notes[i].has_begun = true;
            Call(step, layer.get(), &notes[i]);
            notes[i].has_ended = true;
            if (i >= from) std::fputc(kEndOfCall, stdout);
          }
          return true;
        },
        /*show=*/false);
    std::size_t at = 0;  // in what was printed
    for (std::size_t i = 0; i < steps_.size(); ++i) {
      Step& step = steps_[i];
      if (step.is_skipped || (i < from && notes[i].has_ended)) continue;
      if (i < from && !notes[i].has_begun) continue;
      const std::size_t end = std::min(ending.output.find(kEndOfCall, at), ending.output.size());
      Take(step, notes[i], ending, ending.output.substr(at, end - at), pass);
      at = std::min(end + 1, ending.output.size());
      if (!notes[i].has_ended) return std::max(from, i + 1);
    }
    if (!ending.returned && steps_.back().result.failure.empty()) {
      steps_.back().result.failure = FailureOf(ending, {}).text + ", when the layer was destroyed";
    }
    return steps_.size();
  }

  static void Call(const Step& step, zeb::PuxDnnCustomLayer* layer, Note* note) {
    const auto begin = std::chrono::steady_clock::now();
    try {
      note->result =
          step.configure != nullptr ? CallConfigure(layer, *step.configure) : step.buffers->Execute(layer);
    } catch (...) {
      NameException(&note->threw);
    }
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    note->nanoseconds =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
  }

  // Keeps what came of a call. Of the second pass only what the first one could not tell.
  static void Take(Step& step, const Note& note, const Ending& ending, std::string log, std::size_t pass) {
    RepeatedCall& result = step.result;
    const std::vector<NamedMemory> names =
        step.buffers != nullptr ? step.buffers->Names() : std::vector<NamedMemory>{};
    if (pass == 0) {
      result.is_repeated = true;
      result.log = std::move(log);
      result.nanoseconds = note.nanoseconds;
    }
    if (!note.has_ended) {
      step.is_skipped = true;
      result.what.reset();
      result.failure = FailureOf(ending, names).text;
      return;
    }
    if (pass == 0) {
      const bool configures = step.configure != nullptr;
      result.what = note.threw[0] != '\0' ? "threw " + std::string(note.threw.data())
                    : note.result         ? (configures ? "accepted" : "done")
                                          : (configures ? "refused" : "failed");
    }
    if (step.buffers == nullptr) return;
    if (const auto spoiled = SpoiledRest(names); spoiled && result.failure.empty()) result.failure = *spoiled;
    (pass == 0 ? result.over_ones : result.over_zeros) = step.buffers->Outputs();
  }

  const vek_host::Plugin& plugin_;
  const RecordedLayer& layer_;
  std::vector<CallBuffers> buffers_;
  std::vector<Step> steps_;
};

}  // namespace

RepeatedLayer Repeat(const vek_host::Plugin& plugin, const RecordedLayer& layer, const FindBytes& find) {
  if (plugin.MakeLayer(layer.type) == nullptr) {
    throw UsageError(layer.folder + ": the plug-in has no layer type " + layer.type);
  }
  return Repeater(plugin, layer, find).Run();
}

}  // namespace vekrun
