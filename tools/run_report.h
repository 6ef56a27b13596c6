/// \file
/// What is told of a run, to people and as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "guarded_run.h"
#include "layer_advice.h"
#include "timed_run.h"

namespace vekrun {

/// \return a table of the buffers, what the layer takes, and the advice; lines that each end with a line feed.
std::string RefusalText(const LayerCall& call, const std::vector<Advice>& advice);

/// \return "SOFTMAX 1x4x1x1 float32: median 0.08 us, ..." of one plug-in's times.
std::string TimesText(const LayerCall& call, const Times& times, const Times& copy);

nlohmann::ordered_json ToJson(const Operand& operand);
nlohmann::ordered_json ToJson(const Times& times);
/// \return the plug-in's lines, each with level, file, line and text, or as text alone where it has no such form.
nlohmann::ordered_json LogToJson(const std::string& log);

}  // namespace vekrun
