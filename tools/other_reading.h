/// \file
/// Finds the layout in which a tensor would agree with another one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "element_values.h"
#include "tolerance.h"

namespace vekrun {

/// A way of reading one side that makes the two equal, or far more equal.
struct OtherReading {
  std::string text;               ///< such as "A is read as pack=16"
  std::uint64_t compared = 0;     ///< elements that it reaches; the memory may hold fewer than it asks for
  std::uint64_t differences = 0;  ///< beyond the tolerance among them
};

/// Tries likely other layouts and orders of either side, and of shapes that differ permutations.
/// \return the best one that leaves at most a tenth of the differences, or nothing.
std::optional<OtherReading> FindOtherReading(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance,
                                             std::uint64_t differences);

}  // namespace vekrun
