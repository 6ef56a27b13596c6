/// \file
/// vekrun run: its options.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "run.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace vekrun {

/// What the options of `vekrun run` are read into.
struct RunCommand {
  RunRequest request;
  TimingRequest timing;
  std::vector<std::string> attributes;
  const CLI::App* app = nullptr;
  const CLI::Option* attr = nullptr;
  const CLI::Option* then = nullptr;
};

/// Adds `vekrun run`.
/// \return it.
CLI::App* AddRun(CLI::App* app, RunCommand* command);

/// \return what is to be run. Throws `UsageError`.
RunRequest Finish(const RunCommand& command);

}  // namespace vekrun
