// The recorder must not disturb the host: what it does on the side leaves no trace in the calling thread.
#pragma once

#include <csignal>

namespace vek_record {

// While it lives, the thread cannot be cancelled, and a write beyond a limit or into a closed pipe is an error instead of
// a signal that ends the process. Afterwards errno, signals and cancellation are as they were.
class Quiet {
 public:
  Quiet();
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;
  ~Quiet();

 private:
  int errno_;
  int cancel_state_ = 0;
  bool blocks_ = false;     // the signals, by us
  sigset_t mask_before_{};  // of the thread
  sigset_t pending_before_{};
};

}  // namespace vek_record
