#include "fault_text.h"

#include <csignal>
#include <cstdio>
#include <cstring>

namespace vekrun {

std::string OverrunText(Access access, const std::string& buffer, std::ptrdiff_t offset, std::size_t bytes) {
  const char* const verb = access == Access::kRead    ? "read"
                           : access == Access::kWrite ? "wrote"
                                                      : "touched memory";
  return std::string(verb) + (offset < 0 ? " ahead of " : " beyond ") + buffer + ": byte " +
         (offset < 0 ? std::to_string(-offset) + " before its start"
                     : std::to_string(static_cast<std::size_t>(offset) - bytes) + " behind its end");
}

std::string SignalText(const Ending& ending) {
  char address[32];
  std::snprintf(address, sizeof address, "%p", ending.address);
  switch (ending.signal) {
    case SIGSEGV:
    case SIGBUS:
      if (ending.code == SI_KERNEL) return "crashed: it used an address that is none";
      return std::string(ending.access == Access::kRead    ? "read"
                         : ending.access == Access::kWrite ? "wrote"
                                                           : "touched") +
             " address " + address + ", which is in none of its buffers" +
             (ending.address < reinterpret_cast<const void*>(4096) ? ": a null pointer" : "");
    case SIGFPE:
      return "crashed: division by zero";
    case SIGILL:
      return "crashed: an instruction that this processor does not have";
    case SIGABRT:
      return "aborted";
    default:
      return std::string("was ended by a signal: ") + strsignal(ending.signal);
  }
}

}  // namespace vekrun
