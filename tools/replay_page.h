/// \file
/// The report of a replay as one page of HTML, which needs no other file and no script.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recorded_call.h"
#include "repeated_layer.h"
#include "replayed_call.h"

namespace vekrun {

/// Gathers calls as they are replayed.
class ReplayPage {
 public:
  void Begin(const RecordedLayer& layer);
  void Add(const RecordedConfigure& there, std::size_t number, const RepeatedCall& here,
           const ReplayedCall& call);
  /// \param command  how to repeat it, or empty.
  void Add(const RecordedLayer& layer, const RecordedExecute& there, const RepeatedCall& here,
           const ReplayedCall& call, const std::string& command);
  /// \return the whole page: a table of the calls, each with its log lines and how to repeat it; then, of each that
  /// differs, a map of the differences and their numbers by axis, the log lines, the layouts, and how to repeat it.
  std::string Text(const std::string& plugin) const;

 private:
  void AddRow(const std::string& function, const RecordedOutcome& there, const RepeatedCall& here,
              const ReplayedCall& call, const std::string& command);

  std::string rows_;
  std::string sections_;
  std::string name_;
  std::size_t calls_ = 0;
  std::size_t equal_ = 0;
};

}  // namespace vekrun
