/// \file
/// Runs one layer from files to a file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "compare.h"
#include "host/plugin.h"
#include "layer_catalog.h"
#include "timing.h"

namespace vekrun {

struct RunRequest {
  std::string type;
  std::vector<AttrMap> configurations;  ///< the attributes of each `Configure`, in order; at least one
  std::vector<std::string> inputs;      ///< FILE[,option=value]..., where {} stands for a shape of `shapes`
  std::vector<std::string> outputs;     ///< likewise; none where the layer is only timed
  std::vector<std::string> shapes;      ///< runs once for each of them; empty: once
  std::vector<std::string>
      plugins;            ///< paths; empty for the default one. Further ones are compared with the first
  std::string log_level;  ///< empty: as the plug-in has it
  std::optional<TimingRequest> timing;
  std::string json;          ///< path of a report, "-" for standard output, or empty
  std::string expected;      ///< FILE[,option=value]... that the output is compared with, or empty
  ReportRequest comparison;  ///< how
  std::string record;        ///< folder that a recording of the calls is written into, or empty
};

/// Loads the plug-in at that path, or the default one where it is empty. Throws `UsageError`.
vek_host::Plugin LoadPlugin(const std::string& path);

/// Runs the layer and writes its outputs. Throws `UsageError`; nothing is written then.
/// \return false when the layer refused, crashed or wrote outside of its buffers, or when an output is not as expected;
/// what happened is told.
bool Run(const RunRequest& request);

}  // namespace vekrun
