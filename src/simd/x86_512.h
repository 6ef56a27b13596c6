// x86-64 with AVX-512: floats in 32 bytes, so that their doubles fill 64. What each name means is in simd.h.
//
// The forms of the intrinsics with a mask, all ones: those without make GCC 12 warn of what they leave undefined.
#pragma once

#include "simd/x86_floats256.h"

namespace zeb_custom_ops::detail {

inline constexpr ProductTile kProductTile = {.rows = 4, .vectors = 2, .loads_ahead = false};

inline Wide<Doubles> Widen(Floats v) { return {{_mm512_maskz_cvtps_pd(0xFF, v)}}; }
inline Wide<Doubles> Widen(Ints v) {
  return {{_mm512_maskz_cvtepi32_pd(0xFF, reinterpret_cast<__m256i>(v))}};
}
inline Floats Narrow(Wide<Doubles> v) { return _mm512_maskz_cvtpd_ps(0xFF, v.part[0]); }
inline UInts LowWords(Wide<ULongs> v) {
  return reinterpret_cast<UInts>(_mm512_maskz_cvtepi64_epi32(0xFF, reinterpret_cast<__m512i>(v.part[0])));
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return _mm512_fmadd_pd(a, b, c); }

// A table is in registers: 16 rows take two.
inline __m512i LookUpLow4Bits(const std::uint64_t* table, __m512i index) {
  return _mm512_permutex2var_epi64(_mm512_loadu_si512(table), index, _mm512_loadu_si512(table + 8));
}
inline ULongs LookUp32(const std::uint64_t* table, ULongs index) {
  const auto i = reinterpret_cast<__m512i>(index);
  const __mmask8 is_upper = _mm512_test_epi64_mask(i, _mm512_set1_epi64(16));
  return reinterpret_cast<ULongs>(
      _mm512_mask_blend_epi64(is_upper, LookUpLow4Bits(table, i), LookUpLow4Bits(table + 16, i)));
}
inline Wide<ULongs> LookUp16(const std::uint64_t* table, UInts index) {
  const __m512i wide = _mm512_maskz_cvtepu32_epi64(0xFF, reinterpret_cast<__m256i>(index));
  return {{reinterpret_cast<ULongs>(LookUpLow4Bits(table, wide))}};
}

}  // namespace zeb_custom_ops::detail

#include "simd/x86_shared.h"
