/// \file
/// What a user can get wrong: the command line and the files it names.
#pragma once

#include <stdexcept>
#include <string>

namespace vekrun {

/// Wrong usage or an unreadable file; the text is the one line that the user sees.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace vekrun
