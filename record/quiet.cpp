#include "record/quiet.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>

namespace vek_record {
namespace {

constexpr int kSignals[] = {SIGXFSZ,
                            SIGPIPE};  // a file beyond RLIMIT_FSIZE; standard error that nobody reads

}  // namespace

Quiet::Quiet() : errno_(errno) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kSignals) sigaddset(&signals, signal);
  sigpending(&pending_before_);
  blocks_ = pthread_sigmask(SIG_BLOCK, &signals, &mask_before_) == 0;
}

Quiet::~Quiet() {
  if (blocks_) {
    // A write raises its signal in the thread that writes, so what is pending now and was not before is ours.
    for (const int signal : kSignals) {
      sigset_t pending;
      sigpending(&pending);
      if (sigismember(&pending, signal) == 0 || sigismember(&pending_before_, signal) != 0) continue;
      sigset_t one;
      sigemptyset(&one);
      sigaddset(&one, signal);
      const timespec at_once{};
      sigtimedwait(&one, nullptr, &at_once);
    }
    pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
  }
  int ignored = 0;
  pthread_setcancelstate(cancel_state_, &ignored);
  errno = errno_;
}

}  // namespace vek_record
