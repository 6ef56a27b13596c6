/// \file
/// Calls that may crash, in a process of their own.
#pragma once

#include <functional>
#include <string>

namespace vek_guard {

enum class Access { kUnknown, kRead, kWrite };

/// How a contained call ended, and what it printed.
struct Ending {
  bool returned = false;  ///< it returned, and this is what:
  bool value = false;
  bool threw = false;  ///< it let an exception through, of this text:
  std::string exception;
  int signal = 0;                 ///< it was ended by this signal, or 0
  int code = 0;                   ///< the signal's si_code
  const void* address = nullptr;  ///< of a fault: what was accessed
  Access access = Access::kUnknown;
  int status = 0;      ///< it left the process with this status
  std::string output;  ///< what it printed to standard output
};

/// Calls a function in a child process, which shares only what is mapped as shared. Faults and other signals end the
/// child, not the caller. What it prints to standard output passes through as it comes when `show` is set.
/// Throws `std::runtime_error` where no process can be made.
Ending CallContained(const std::function<bool()>& call, bool show);

}  // namespace vek_guard
