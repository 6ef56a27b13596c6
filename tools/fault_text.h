/// \file
/// What a contained call did wrong, in words.
#pragma once

#include <cstddef>
#include <string>

#include "contained_call.h"

namespace vekrun {

/// \return "read beyond input 1 (B.npy, 1x64x1x1 float32, 256 bytes): byte 0 behind its end".
/// \param buffer  what the buffer is called.
/// \param offset  of the access, from the buffer's first byte; outside of its `bytes`.
std::string OverrunText(Access access, const std::string& buffer, std::ptrdiff_t offset, std::size_t bytes);

/// \return what ended a call that a signal ended, such as "crashed: division by zero".
std::string SignalText(const Ending& ending);

}  // namespace vekrun
