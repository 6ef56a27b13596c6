/// \file
/// How long a layer takes, beside a copy of as many bytes.
#pragma once

#include <string>
#include <vector>

#include "guarded_run.h"
#include "timing.h"

namespace vekrun {

struct TimedResult {
  std::string failure;        ///< what happened instead, without the layer's name; empty where all went well
  std::vector<Times> layers;  ///< one for each plug-in
  Times copy;                 ///< of a memcpy that reads and writes as many bytes as the layer
};

/// Times a layer that has passed its guarded run, on aligned buffers without guards, for each of the plug-ins in turns.
TimedResult RunTimed(const std::vector<vek_host::Plugin>& plugins, const LayerCall& call,
                     const TimingRequest& request);

}  // namespace vekrun
