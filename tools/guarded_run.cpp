#include "guarded_run.h"

#include <algorithm>

#include "guard/contained_call.h"
#include "guard/failure.h"
#include "host/layout.h"
#include "unwritten.h"

namespace vekrun {
namespace {

using vek_guard::CallContained;
using vek_guard::Ending;
using vek_guard::Failure;
using vek_guard::GuardedMemory;
using vek_guard::NamedMemory;
using Against = GuardedMemory::Against;

struct Buffers {
  std::vector<GuardedMemory> inputs;
  std::vector<GuardedMemory> outputs;
};

std::vector<void*> Pointers(const std::vector<GuardedMemory>& memories) {
  std::vector<void*> list;
  for (const GuardedMemory& memory : memories) list.push_back(memory.Data());
  return list;
}

std::vector<GuardedMemory> Allocate(const std::vector<Operand>& operands) {
  std::vector<GuardedMemory> memories;
  for (const Operand& operand : operands)
    memories.emplace_back(operand.attrs.Bytes(), operand.attrs.ElementBytes());
  return memories;
}

// The buffers as failures name them: the outputs first.
std::vector<NamedMemory> Names(const LayerCall& call, const Buffers& buffers) {
  std::vector<NamedMemory> names;
  for (std::size_t i = 0; i < buffers.outputs.size(); ++i)
    names.push_back({&buffers.outputs[i], Text(call.outputs[i])});
  for (std::size_t i = 0; i < buffers.inputs.size(); ++i)
    names.push_back({&buffers.inputs[i], Text(call.inputs[i])});
  return names;
}

// One pass in a process of its own; true when it went well.
bool Pass(const vek_host::Plugin& plugin, const LayerCall& call, const Buffers& buffers, bool first,
          GuardedResult* result) {
  const Ending ending = CallContained(
      [&] {
        if (!first) plugin.SetLogThreshold("NONE");
        const vek_host::Plugin::Layer layer = plugin.MakeLayer(call.type);
        return Execute(layer.get(), call, Pointers(buffers.inputs).data(), Pointers(buffers.outputs).data());
      },
      /*show=*/first);
  if (first) result->log = ending.output;
  if (!ending.returned) {
    const Failure failure = FailureOf(ending, Names(call, buffers));
    result->failure = failure.text;
    if (failure.memory && *failure.memory >= call.outputs.size())
      result->input = *failure.memory - call.outputs.size();
    return false;
  }
  if (!ending.value) {
    result->kind = GuardedResult::Kind::kRefused;
    return false;
  }
  const std::optional<std::string> spoiled = SpoiledRest(Names(call, buffers));
  if (spoiled) result->failure = *spoiled;
  return !spoiled;
}

}  // namespace

bool Execute(zeb::PuxDnnCustomLayer* layer, const LayerCall& call, void** inputs, void** outputs) {
  const auto in_attrs = Descriptions(call.inputs);
  const auto out_attrs = Descriptions(call.outputs);
  for (const AttrMap& attrs : call.configurations) {
    if (!layer->Configure(attrs, in_attrs, out_attrs)) return false;
  }
  return layer->Execute(inputs, outputs);
}

GuardedResult RunGuarded(const vek_host::Plugin& plugin, const LayerCall& call) {
  GuardedResult result;
  Buffers buffers{Allocate(call.inputs), Allocate(call.outputs)};
  for (std::size_t i = 0; i < call.inputs.size(); ++i) Load(*call.inputs[i].stored, buffers.inputs[i].Data());

  std::vector<Unwritten> unwritten;
  for (std::size_t i = 0; i < call.outputs.size(); ++i) {
    std::fill_n(buffers.outputs[i].Data(), buffers.outputs[i].Bytes(), Unwritten::kFirstFill);
    unwritten.emplace_back(call.outputs[i].attrs);
  }
  if (!Pass(plugin, call, buffers, /*first=*/true, &result)) return result;
  for (std::size_t i = 0; i < call.outputs.size(); ++i) unwritten[i].AfterFirst(buffers.outputs[i].Data());

  for (GuardedMemory& memory : buffers.inputs) memory.Place(Against::kFront);
  for (GuardedMemory& memory : buffers.outputs) {
    memory.Place(Against::kFront);
    std::fill_n(memory.Data(), memory.Bytes(), std::byte{0});
  }
  if (!Pass(plugin, call, buffers, /*first=*/false, &result)) return result;
  for (std::size_t i = 0; i < call.outputs.size(); ++i) {
    unwritten[i].AfterSecond(buffers.outputs[i].Data());
    if (unwritten[i].Elements() == 0) continue;
    result.unwritten.push_back("left " + std::to_string(unwritten[i].Elements()) + " of " +
                               std::to_string(ElementCount(call.outputs[i].attrs.GetDims())) +
                               " elements of " + call.outputs[i].role + " unwritten, the first at " +
                               unwritten[i].First() + "; they read as 0");
  }
  result.kind = GuardedResult::Kind::kDone;
  result.outputs = std::move(buffers.outputs);
  return result;
}

}  // namespace vekrun
