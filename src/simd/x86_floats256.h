// x86-64 with AVX2 and FMA: floats and 32-bit integers in 32 bytes, whatever the doubles have.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "simd/types.h"

namespace zeb_custom_ops::detail {

inline constexpr std::size_t kBlockBytes = 32;
inline constexpr bool kShufflesBytes = true;
inline constexpr std::size_t kLookUpVectors = 2;
inline constexpr bool kHasFma = true;

inline Floats Splat(float value) { return _mm256_set1_ps(value); }
inline Floats Sqrt(Floats v) { return _mm256_sqrt_ps(v); }
inline bool AllLanes(Ints holds) { return _mm256_movemask_ps(reinterpret_cast<__m256>(holds)) == 0xFF; }
inline Floats Fma(Floats a, Floats b, Floats c) { return _mm256_fmadd_ps(a, b, c); }

// A vector holds two rows' fours: those of row i, then those of row i + 4.
inline Floats LoadFours(const float* const* rows, std::size_t i, std::size_t k) {
  return _mm256_loadu2_m128(rows[i + 4] + k, rows[i] + k);
}

}  // namespace zeb_custom_ops::detail
