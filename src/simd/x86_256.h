// x86-64 with AVX2 and FMA: 32 bytes everywhere. What each name means is in simd.h.
#pragma once

#include "simd/x86_floats256.h"

namespace zeb_custom_ops::detail {

inline constexpr ProductTile kProductTile = {.rows = 4, .vectors = 1, .loads_ahead = false};

inline Wide<Doubles> Widen(Floats v) {
  return {{_mm256_cvtps_pd(_mm256_castps256_ps128(v)), _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1))}};
}
inline Wide<Doubles> Widen(Ints v) {
  const auto words = reinterpret_cast<__m256i>(v);
  return {{_mm256_cvtepi32_pd(_mm256_castsi256_si128(words)),
           _mm256_cvtepi32_pd(_mm256_extracti128_si256(words, 1))}};
}
inline Floats Narrow(Wide<Doubles> v) {
  return _mm256_set_m128(_mm256_cvtpd_ps(v.part[1]), _mm256_cvtpd_ps(v.part[0]));
}
inline UInts LowWords(Wide<ULongs> v) {
  return __builtin_shufflevector(reinterpret_cast<UInts>(v.part[0]), reinterpret_cast<UInts>(v.part[1]), 0, 2,
                                 4, 6, 8, 10, 12, 14);
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return _mm256_fmadd_pd(a, b, c); }

inline ULongs LookUp32(const std::uint64_t* table, ULongs index) {
  index &= 255U;
  return ULongs{table[index[0]], table[index[1]], table[index[2]], table[index[3]]};
}
inline Wide<ULongs> LookUp16(const std::uint64_t* table, UInts index) {
  return {{ULongs{table[index[0]], table[index[1]], table[index[2]], table[index[3]]},
           ULongs{table[index[4]], table[index[5]], table[index[6]], table[index[7]]}}};
}

}  // namespace zeb_custom_ops::detail

#include "simd/x86_shared.h"
