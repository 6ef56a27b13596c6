/// \file
/// Runs one layer from files to a file.
#pragma once

#include <string>
#include <vector>

#include "host/plugin.h"
#include "layer_catalog.h"

namespace vekrun {

struct RunRequest {
  std::string type;
  std::vector<AttrMap> configurations;  ///< the attributes of each `Configure`, in order; at least one
  std::vector<std::string> inputs;      ///< FILE[,option=value]...
  std::vector<std::string> outputs;
  std::string plugin;       ///< path; empty for the default one
  std::string log_level;    ///< empty: as the plug-in has it
  unsigned int repeat = 0;  ///< timed executions; 0 runs once, untimed
};

/// Loads the plug-in at that path, or the default one where it is empty. Throws `UsageError`.
vek_host::Plugin LoadPlugin(const std::string& path);

/// Runs the layer and writes its outputs. Throws `UsageError`; nothing is written then.
/// \return false when the layer refused; its own log lines have said why.
bool Run(const RunRequest& request);

}  // namespace vekrun
