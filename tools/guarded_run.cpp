#include "guarded_run.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "contained_call.h"
#include "fault_text.h"
#include "host/layout.h"
#include "unwritten.h"

namespace vekrun {
namespace {

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

// Fills in a result whose run did not return.
void TellFailure(const Ending& ending, const LayerCall& call, const Buffers& buffers, GuardedResult* result) {
  if (ending.threw) {
    result->failure = "threw an exception: " + ending.exception;
    return;
  }
  if (ending.signal == 0) {
    result->failure = "ended the process with status " + std::to_string(ending.status);
    return;
  }
  result->failure = SignalText(ending);
  if (ending.signal != SIGSEGV && ending.signal != SIGBUS) return;
  const auto find = [&](const std::vector<GuardedMemory>& memories, const std::vector<Operand>& operands) {
    for (std::size_t i = 0; i < memories.size(); ++i) {
      const auto offset = memories[i].OffsetOf(ending.address);
      if (!offset) continue;
      result->failure = OverrunText(ending.access, Text(operands[i]), *offset, memories[i].Bytes());
      return static_cast<std::ptrdiff_t>(i);
    }
    return std::ptrdiff_t{-1};
  };
  find(buffers.outputs, call.outputs);
  const std::ptrdiff_t input = find(buffers.inputs, call.inputs);
  if (input >= 0) result->input = static_cast<std::size_t>(input);
}

// A write to the rest of a buffer's pages, which does not fault.
bool TellSpoiledRest(const std::vector<GuardedMemory>& memories, const std::vector<Operand>& operands,
                     GuardedResult* result) {
  for (std::size_t i = 0; i < memories.size(); ++i) {
    const auto offset = memories[i].SpoiledRest();
    if (!offset) continue;
    result->failure = OverrunText(Access::kWrite, Text(operands[i]), *offset, memories[i].Bytes());
    return true;
  }
  return false;
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
    TellFailure(ending, call, buffers, result);
    return false;
  }
  if (!ending.value) {
    result->kind = GuardedResult::Kind::kRefused;
    return false;
  }
  return !TellSpoiledRest(buffers.outputs, call.outputs, result) &&
         !TellSpoiledRest(buffers.inputs, call.inputs, result);
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
