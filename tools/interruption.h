/// \file
/// What happens when the tool is interrupted, or a step takes long.
#pragma once

#include <string>

namespace vekrun {

/// From now on, a signal that ends the process (INT, TERM, HUP, PIPE) first removes the files that are not finished, and
/// so does a mapped file that loses its end; a file that grows beyond the limit is an error of its write.
void CatchInterruptions();

/// While a file is registered, an interruption removes it.
/// \return a slot to give back, or -1 where there is none left.
int RegisterUnfinished(const std::string& path);
void ForgetUnfinished(int slot);

/// Tells on a terminal what is being done, from the second on, as long as it lasts; nothing where standard error is none.
class Step {
 public:
  explicit Step(const std::string& text);
  ~Step();
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;
};

}  // namespace vekrun
