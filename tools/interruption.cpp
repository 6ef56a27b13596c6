#include "interruption.h"

#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace vekrun {
namespace {

// Read by signal handlers: an entry counts once its first byte is set.
std::array<std::array<char, PATH_MAX>, 16> unfinished;

void Say(const char* text) {
  if (write(STDERR_FILENO, text, std::strlen(text)) < 0) return;  // Nothing else can be done.
}

void RemoveUnfinished() {
  for (const auto& path : unfinished) {
    if (path[0] != '\0') unlink(path.data());
  }
}

void End(int signal) {
  RemoveUnfinished();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void EndAfterLostFile(int) {
  RemoveUnfinished();
  Say("vekrun: a file became shorter while it was read\n");
  _exit(2);
}

std::array<char, 256> step_line;
bool step_shown = false;

void ShowStep(int) {
  step_shown = true;
  Say(step_line.data());
}

void SetTimer(int seconds) {
  itimerval timer = {};
  timer.it_value.tv_sec = seconds;
  timer.it_interval.tv_sec = seconds;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

void CatchInterruptions() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // as under nohup
    std::signal(signal, End);
  }
  std::signal(SIGBUS, EndAfterLostFile);
  std::signal(SIGXFSZ, SIG_IGN);
}

int RegisterUnfinished(const std::string& path) {
  for (std::size_t i = 0; i < unfinished.size(); ++i) {
    if (unfinished[i][0] != '\0' || path.size() >= unfinished[i].size()) continue;
    std::memcpy(unfinished[i].data() + 1, path.c_str() + 1, path.size());
    unfinished[i][0] = path[0];
    return static_cast<int>(i);
  }
  return -1;
}

void ForgetUnfinished(int slot) {
  if (slot >= 0) unfinished[static_cast<std::size_t>(slot)][0] = '\0';
}

Step::Step(const std::string& text) {
  if (isatty(STDERR_FILENO) == 0) return;
  std::snprintf(step_line.data(), step_line.size(), "\r\033[Kvekrun: %s ...", text.c_str());
  struct sigaction action = {};
  action.sa_handler = ShowStep;
  action.sa_flags = SA_RESTART;
  sigaction(SIGALRM, &action, nullptr);
  SetTimer(1);
}

Step::~Step() {
  if (isatty(STDERR_FILENO) == 0) return;
  SetTimer(0);
  if (step_shown) Say("\r\033[K");
  step_shown = false;
}

}  // namespace vekrun
