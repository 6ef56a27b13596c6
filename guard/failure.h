/// \file
/// What is told of a contained call that crashed or wrote outside of its buffers.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "guard/contained_call.h"
#include "guard/guarded_memory.h"

namespace vek_guard {

/// A buffer, and what messages call it: "input 1 (B.npy, 1x64x1x1 float32, 256 bytes)".
struct NamedMemory {
  const GuardedMemory* memory;
  std::string text;
};

struct Failure {
  std::string text;                   ///< "read beyond input 1 (...): byte 0 behind its end"
  std::optional<std::size_t> memory;  ///< which one it was, if it was one
};

/// \return what ended a call that did not return.
Failure FailureOf(const Ending& ending, const std::vector<NamedMemory>& memories);

/// \return a write to the rest of a buffer's pages, which does not fault; nothing where there was none.
std::optional<std::string> SpoiledRest(const std::vector<NamedMemory>& memories);

}  // namespace vek_guard
