#include "guard/failure.h"

#include <csignal>
#include <cstdio>
#include <cstring>

namespace vek_guard {
namespace {

std::string BytesText(std::ptrdiff_t offset, std::size_t bytes) {
  return offset < 0 ? "byte " + std::to_string(-offset) + " before its start"
                    : "byte " + std::to_string(static_cast<std::size_t>(offset) - bytes) + " behind its end";
}

// "read beyond input 1 (B.npy, 1x64x1x1 float32, 256 bytes): byte 0 behind its end".
std::string Overrun(Access access, const NamedMemory& buffer, std::ptrdiff_t offset) {
  const char* const verb = access == Access::kRead    ? "read"
                           : access == Access::kWrite ? "wrote"
                                                      : "touched memory";
  return std::string(verb) + (offset < 0 ? " ahead of " : " beyond ") + buffer.text + ": " +
         BytesText(offset, buffer.memory->Bytes());
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

}  // namespace

Failure FailureOf(const Ending& ending, const std::vector<NamedMemory>& memories) {
  if (ending.threw) return {"threw an exception: " + ending.exception, {}};
  if (ending.signal == 0) return {"ended the process with status " + std::to_string(ending.status), {}};
  if (ending.signal == SIGSEGV || ending.signal == SIGBUS) {
    for (std::size_t i = 0; i < memories.size(); ++i) {
      const auto offset = memories[i].memory->OffsetOf(ending.address);
      if (offset) return {Overrun(ending.access, memories[i], *offset), i};
    }
  }
  return {SignalText(ending), {}};
}

std::optional<std::string> SpoiledRest(const std::vector<NamedMemory>& memories) {
  for (const NamedMemory& one : memories) {
    const auto offset = one.memory->SpoiledRest();
    if (offset) return Overrun(Access::kWrite, one, *offset);
  }
  return std::nullopt;
}

}  // namespace vek_guard
