// Positions in a tensor are unsigned 32-bit numbers that wrap. A fast path asks here first whether they do.
#pragma once

#include <cstdint>
#include <initializer_list>

namespace zeb_custom_ops::detail {

// `extent` positions, `step` elements apart.
struct Reach {
  std::uint64_t extent;
  std::uint64_t step;
};

// True when the last position of the nested loops is below 2^32, so that none of them wraps.
constexpr bool FitsIn32(std::initializer_list<Reach> reaches) {
  for (const Reach& reach : reaches) {
    if (reach.extent == 0) return true;
  }
  std::uint64_t last = 0;
  for (const Reach& reach : reaches) {
    if (reach.extent == 1) continue;
    if (reach.extent > UINT32_MAX || reach.step > UINT32_MAX) return false;
    last += (reach.extent - 1) * reach.step;
    if (last > UINT32_MAX) return false;
  }
  return true;
}

}  // namespace zeb_custom_ops::detail
