// What the widths of x86-64 have in common.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simd/shuffles.h"
#include "simd/types.h"

namespace zeb_custom_ops::detail {

inline constexpr std::size_t kMapVectors = 1;
inline constexpr std::size_t kInterleavedVectors = 4;

inline Floats Max(Floats a, Floats b) { return a > b ? a : b; }
inline float MaxLane(Floats v) {
  float max = v[0];
  for (std::size_t i = 1; i < kFloatLanes; ++i) max = v[i] > max ? v[i] : max;
  return max;
}

#if defined(__SSSE3__)
// A shuffle gives 0 for an index whose highest bit is set, as that of every other vector's is here.
template <std::size_t n>
inline Vec<std::uint8_t> LookUpBytes(const Vec<std::uint8_t>* table, Vec<std::uint8_t> index) {
  __m128i found = _mm_setzero_si128();
  for (std::size_t i = 0; i < n; ++i) {
    const auto within = reinterpret_cast<__m128i>(index - static_cast<std::uint8_t>(i * kVecBytes));
    const __m128i lanes = _mm_adds_epu8(within, _mm_set1_epi8(0x70));
    found = _mm_or_si128(found, _mm_shuffle_epi8(reinterpret_cast<__m128i>(table[i]), lanes));
  }
  return reinterpret_cast<Vec<std::uint8_t>>(found);
}
#endif

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
