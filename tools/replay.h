/// \file
/// The command that repeats recorded calls and tells whether they do the same here.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace vekrun {

struct ReplayRequest {
  std::vector<std::string> folders;  ///< recordings, or folders of single layers in them
  std::string plugin;                ///< path; empty for the default one
  std::string against;               ///< path of a plug-in that is right, for `shrink`; empty for none
  std::string shrink;                ///< folder for the smallest calls that still go wrong; empty for none
  std::string json;                  ///< path of a report; empty for none
  std::string html;                  ///< path of a page; empty for none
};

/// Adds `vekrun replay`.
/// \return it.
CLI::App* AddReplay(CLI::App* app, ReplayRequest* request);
/// Repeats the calls and prints a table of them.
/// \return whether all were as recorded. Throws `UsageError`.
bool Replay(const ReplayRequest& request);

}  // namespace vekrun
