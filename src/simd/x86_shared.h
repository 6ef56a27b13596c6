// What the widths of x86-64 have in common.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simd/shuffles.h"
#include "simd/types.h"

namespace zeb_custom_ops::detail {

inline constexpr std::size_t kMapVectors = 1;

inline Floats Max(Floats a, Floats b) { return a > b ? a : b; }
inline float MaxLane(Floats v) {
  float max = v[0];
  for (std::size_t i = 1; i < kFloatLanes; ++i) max = v[i] > max ? v[i] : max;
  return max;
}

// A number so large is added that the sum has no fraction. Of two integers that are as near, the even one is taken.
inline constexpr double kNoFractionFromHere = 0x1.8p52;
inline Split SplitAtInteger(Doubles z) {
  const Doubles shifted = z + kNoFractionFromHere;
  return {reinterpret_cast<ULongs>(shifted), z - (shifted - kNoFractionFromHere)};
}

template <typename T, std::size_t k>
inline void StoreInterleaved(std::byte* dst, const Vec<T> (&v)[k]) {
  StoreInterleavedByShuffles<T, k>(dst, v);
}
template <typename T, std::size_t k>
inline void LoadInterleaved(Vec<T> (&v)[k], const std::byte* src) {
  LoadInterleavedByShuffles<T, k>(v, src);
}

}  // namespace zeb_custom_ops::detail
