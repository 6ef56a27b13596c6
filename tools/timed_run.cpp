#include "timed_run.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "guard/contained_call.h"
#include "usage_error.h"

namespace vekrun {
namespace {

constexpr std::size_t kAlignment = 4096;

using Memory = std::unique_ptr<std::byte, void (*)(void*)>;

Memory Allocate(std::size_t bytes) {
  const std::size_t rounded = (bytes + kAlignment) / kAlignment * kAlignment;
  Memory memory(static_cast<std::byte*>(std::aligned_alloc(kAlignment, rounded)), std::free);
  if (memory == nullptr) throw std::bad_alloc();
  std::memset(memory.get(), 0, rounded);
  return memory;
}

std::size_t TotalBytes(const std::vector<Operand>& operands) {
  std::size_t bytes = 0;
  for (const Operand& operand : operands) bytes += operand.attrs.Bytes();
  return bytes;
}

// Runs in the contained process; `times` has one more entry than there are plug-ins.
bool Measure(const std::vector<vek_host::Plugin>& plugins, const LayerCall& call,
             const TimingRequest& request, Times* times) {
  std::vector<Memory> memories;
  std::vector<void*> inputs;
  std::vector<void*> outputs;
  for (const Operand& input : call.inputs) {
    memories.push_back(Allocate(input.attrs.Bytes()));
    Load(*input.stored, memories.back().get());
    inputs.push_back(memories.back().get());
  }
  for (const Operand& output : call.outputs) {
    memories.push_back(Allocate(output.attrs.Bytes()));
    outputs.push_back(memories.back().get());
  }
  const auto in_attrs = Descriptions(call.inputs);
  const auto out_attrs = Descriptions(call.outputs);
  std::vector<vek_host::Plugin::Layer> layers;
  std::vector<std::function<bool()>> calls;
  for (const vek_host::Plugin& plugin : plugins) {
    plugin.SetLogThreshold("NONE");
    layers.push_back(plugin.MakeLayer(call.type));
    zeb::PuxDnnCustomLayer* const layer = layers.back().get();
    for (const AttrMap& attrs : call.configurations) {
      if (!layer->Configure(attrs, in_attrs, out_attrs)) return false;
    }
    calls.emplace_back([&inputs, &outputs, layer] { return layer->Execute(inputs.data(), outputs.data()); });
  }
  const std::size_t half = (TotalBytes(call.inputs) + TotalBytes(call.outputs)) / 2;
  const Memory from = Allocate(half);
  const Memory to = Allocate(half);
  calls.emplace_back([&] {
    std::memcpy(to.get(), from.get(), half);
    __asm__ volatile("" : : "r"(to.get()) : "memory");  // The copy is not left out.
    return true;
  });
  return MeasureTimes(calls, request, times);
}

}  // namespace

TimedResult RunTimed(const std::vector<vek_host::Plugin>& plugins, const LayerCall& call,
                     const TimingRequest& request) {
  const std::size_t bytes = (plugins.size() + 1) * sizeof(Times);
  void* const shared = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) throw UsageError("no memory for the times");
  auto* const times = static_cast<Times*>(shared);
  const vek_guard::Ending ending =
      vek_guard::CallContained([&] { return Measure(plugins, call, request, times); }, /*show=*/true);
  TimedResult result;
  result.layers.assign(times, times + plugins.size());
  result.copy = times[plugins.size()];
  munmap(shared, bytes);
  if (ending.returned && !ending.value) result.failure = "refused when it was run again to be timed";
  if (!ending.returned) {
    result.failure =
        ending.threw ? "threw an exception when it was timed: " + ending.exception
                     : std::string("was ended when it was timed, by the signal: ") + strsignal(ending.signal);
  }
  return result;
}

}  // namespace vekrun
