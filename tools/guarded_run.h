/// \file
/// One run of a layer on guarded buffers, twice over, so that nothing that it does outside of them stays unseen.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "guard/guarded_memory.h"
#include "host/plugin.h"
#include "layer_catalog.h"
#include "operand.h"

namespace vekrun {

/// What is run, and on what.
struct LayerCall {
  std::string type;
  std::vector<AttrMap> configurations;  ///< the attributes of each `Configure`, in order; at least one
  std::vector<Operand> inputs;
  std::vector<Operand> outputs;
};

struct GuardedResult {
  enum class Kind { kDone, kRefused, kFailed };
  Kind kind = Kind::kFailed;
  std::string failure;  ///< of kFailed: the line that tells what happened, without the layer's name
  std::optional<std::size_t> input;    ///< the input that was overrun, if it was one
  std::string log;                     ///< what the plug-in printed
  std::vector<std::string> unwritten;  ///< for each output that has some, which elements were never written
  std::vector<vek_guard::GuardedMemory> outputs;  ///< of kDone
};

/// Makes the layer, configures it and executes it in a process of its own: first with the buffers' ends at unmapped
/// pages, then with their starts there and the log silent. An output starts as zeros.
/// Throws `UsageError` where there is no memory.
GuardedResult RunGuarded(const vek_host::Plugin& plugin, const LayerCall& call);

/// Configures a layer and executes it.
/// \return what the first call that fails returns, or true.
bool Execute(zeb::PuxDnnCustomLayer* layer, const LayerCall& call, void** inputs, void** outputs);

}  // namespace vekrun
