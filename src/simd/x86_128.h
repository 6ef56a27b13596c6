// x86-64 with SSE2, its baseline: 16 bytes everywhere, no fused multiply-adds. What each name means is in simd.h.
#pragma once

#include <immintrin.h>

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "simd/types.h"

namespace zeb_custom_ops::detail {

inline constexpr std::size_t kBlockBytes = 16;
#if defined(__SSSE3__)
inline constexpr bool kShufflesBytes = true;
inline constexpr std::size_t kLookUpVectors = 2;
#else
inline constexpr bool kShufflesBytes = false;
inline constexpr std::size_t kLookUpVectors = 0;
#endif
inline constexpr bool kHasFma = false;
inline constexpr ProductTile kProductTile = {.rows = 4, .vectors = 1, .loads_ahead = false};

inline Floats Splat(float value) { return _mm_set1_ps(value); }
inline Floats Sqrt(Floats v) { return _mm_sqrt_ps(v); }
inline bool AllLanes(Ints holds) { return (holds[0] & holds[1] & holds[2] & holds[3]) != 0; }

inline Wide<Doubles> Widen(Floats v) { return {{_mm_cvtps_pd(v), _mm_cvtps_pd(_mm_movehl_ps(v, v))}}; }
inline Wide<Doubles> Widen(Ints v) {
  const auto words = reinterpret_cast<__m128i>(v);
  return {{_mm_cvtepi32_pd(words), _mm_cvtepi32_pd(_mm_unpackhi_epi64(words, words))}};
}
inline Floats Narrow(Wide<Doubles> v) {
  return _mm_movelh_ps(_mm_cvtpd_ps(v.part[0]), _mm_cvtpd_ps(v.part[1]));
}
inline UInts LowWords(Wide<ULongs> v) {
  return __builtin_shufflevector(reinterpret_cast<UInts>(v.part[0]), reinterpret_cast<UInts>(v.part[1]), 0, 2,
                                 4, 6);
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) {
  return Doubles{std::fma(a[0], b[0], c[0]), std::fma(a[1], b[1], c[1])};
}
inline Floats Fma(Floats a, Floats b, Floats c) {
  return Floats{std::fma(a[0], b[0], c[0]), std::fma(a[1], b[1], c[1]), std::fma(a[2], b[2], c[2]),
                std::fma(a[3], b[3], c[3])};
}

inline ULongs LookUp32(const std::uint64_t* table, ULongs index) {
  return ULongs{table[index[0] & 31], table[index[1] & 31]};
}
inline Wide<ULongs> LookUp16(const std::uint64_t* table, UInts index) {
  return {{ULongs{table[index[0]], table[index[1]]}, ULongs{table[index[2]], table[index[3]]}}};
}

inline Floats LoadFours(const float* const* rows, std::size_t i, std::size_t k) {
  return Load<Floats>(rows[i] + k);
}

}  // namespace zeb_custom_ops::detail

#include "simd/x86_shared.h"
