// Vectors as wide as the build's target has them, in the compilers' portable vector types. What those types
// do not spell, and what the compilers lower badly (conversions between widths), is written with intrinsics.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__aarch64__)
#include <arm_neon.h>
#elif defined(__SSE2__)
#include <immintrin.h>
#endif

// The target has fused multiply-adds, and this file its conversions between vectors of floats and doubles.
#if defined(__aarch64__) || (defined(__AVX2__) && defined(__FMA__))
#define VEK_HAS_VECTOR_FMA 1
#else
#define VEK_HAS_VECTOR_FMA 0
#endif

namespace zeb_custom_ops::detail {

#if defined(__AVX2__)
inline constexpr int kVectorBytes = 32;
#else
inline constexpr int kVectorBytes = 16;
#endif

// Where the target has vectors of 64 bytes, they hold a whole vector of floats in double precision.
#if defined(__AVX512F__)
inline constexpr int kWideBytes = 2 * kVectorBytes;
#else
inline constexpr int kWideBytes = kVectorBytes;
#endif

inline constexpr int kFloatLanes = kVectorBytes / 4;
inline constexpr int kDoubleLanes = kWideBytes / 8;

typedef float Floats __attribute__((vector_size(kVectorBytes)));
typedef std::int32_t Ints __attribute__((vector_size(kVectorBytes)));
typedef std::uint32_t Words __attribute__((vector_size(kVectorBytes)));
typedef double Doubles __attribute__((vector_size(kWideBytes)));
typedef std::uint64_t LongWords __attribute__((vector_size(kWideBytes)));

// The lanes of a vector of floats or words in twice their width, in order.
inline constexpr int kWideParts = kFloatLanes / kDoubleLanes;
template <typename V>
struct Wide {
  V part[kWideParts];
};

// Vectors in memory, of any alignment.
inline Floats Load(const float* src) {
  Floats value;
  std::memcpy(&value, src, sizeof value);
  return value;
}
inline void Store(float* dst, Floats value) { std::memcpy(dst, &value, sizeof value); }

// The first `count` lanes from memory, fewer than a vector has; the others are 0.
inline Floats LoadSome(const float* src, std::size_t count) {
  Floats value = {};
  for (std::size_t i = 0; i < count; ++i) value[i] = src[i];
  return value;
}
inline void StoreSome(float* dst, Floats value, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) dst[i] = value[i];
}

// The same value in all lanes.
inline Floats Splat(float value) {
#if defined(__aarch64__)
  return vdupq_n_f32(value);
#elif defined(__AVX2__)
  return _mm256_set1_ps(value);
#elif defined(__SSE2__)
  return _mm_set1_ps(value);
#else
  Floats lanes;
  for (int i = 0; i < kFloatLanes; ++i) lanes[i] = value;
  return lanes;
#endif
}

// The greater of both, lane by lane. A NaN in `b` stays; one in `a` may give either.
inline Floats Max(Floats a, Floats b) {
#if defined(__aarch64__)
  return vmaxq_f32(a, b);
#else
  return a > b ? a : b;
#endif
}

// The greatest lane; of lanes among which there is a NaN, any.
inline float MaxLane(Floats v) {
#if defined(__aarch64__)
  return vmaxvq_f32(v);
#else
  float max = v[0];
  for (int i = 1; i < kFloatLanes; ++i) max = v[i] > max ? v[i] : max;
  return max;
#endif
}

// Of a comparison's result: true when it holds in every lane.
inline bool AllLanes(Ints holds) {
#if defined(__aarch64__)
  return vminvq_u32(reinterpret_cast<uint32x4_t>(holds)) != 0;
#elif defined(__AVX2__)
  return _mm256_movemask_ps(reinterpret_cast<__m256>(holds)) == 0xFF;
#else
  return (holds[0] & holds[1] & holds[2] & holds[3]) != 0;
#endif
}

// Conversions of floats to doubles and back, rounded to nearest.
#if defined(__aarch64__)

inline Wide<Doubles> Widen(Floats v) { return {{vcvt_f64_f32(vget_low_f32(v)), vcvt_high_f64_f32(v)}}; }
inline Floats Narrow(Wide<Doubles> v) { return vcvt_high_f32_f64(vcvt_f32_f64(v.part[0]), v.part[1]); }

#elif defined(__AVX512F__)

// The forms with a mask, all ones: those without make GCC 12 warn of what they leave undefined.
inline Wide<Doubles> Widen(Floats v) { return {{_mm512_maskz_cvtps_pd(0xFF, v)}}; }
inline Floats Narrow(Wide<Doubles> v) { return _mm512_maskz_cvtpd_ps(0xFF, v.part[0]); }

#elif defined(__AVX2__)

inline Wide<Doubles> Widen(Floats v) {
  return {{_mm256_cvtps_pd(_mm256_castps256_ps128(v)), _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1))}};
}
inline Floats Narrow(Wide<Doubles> v) {
  return _mm256_set_m128(_mm256_cvtpd_ps(v.part[1]), _mm256_cvtpd_ps(v.part[0]));
}

#elif defined(__SSE2__)

inline Wide<Doubles> Widen(Floats v) { return {{_mm_cvtps_pd(v), _mm_cvtps_pd(_mm_movehl_ps(v, v))}}; }
inline Floats Narrow(Wide<Doubles> v) {
  return _mm_movelh_ps(_mm_cvtpd_ps(v.part[0]), _mm_cvtpd_ps(v.part[1]));
}

#else

inline Wide<Doubles> Widen(Floats v) {
  Wide<Doubles> wide;
  for (int i = 0; i < kFloatLanes; ++i)
    wide.part[i / kDoubleLanes][i % kDoubleLanes] = static_cast<double>(v[i]);
  return wide;
}
inline Floats Narrow(Wide<Doubles> v) {
  Floats narrow;
  for (int i = 0; i < kFloatLanes; ++i)
    narrow[i] = static_cast<float>(v.part[i / kDoubleLanes][i % kDoubleLanes]);
  return narrow;
}

#endif

// As many sums in double precision as a vector has floats. Not a Wide: GCC keeps members in registers that it
// spills as an array.
struct WideSums {
#if defined(__AVX512F__)
  Doubles sums;

  void Load(const double* src) { std::memcpy(&sums, src, sizeof sums); }
  void Store(double* dst) const { std::memcpy(dst, &sums, sizeof sums); }
  void Add(Floats v) { sums += Widen(v).part[0]; }
  Floats Rounded() const { return Narrow({{sums}}); }
#else
  Doubles low;
  Doubles high;

  void Load(const double* src) {
    std::memcpy(&low, src, sizeof low);
    std::memcpy(&high, src + kDoubleLanes, sizeof high);
  }
  void Store(double* dst) const {
    std::memcpy(dst, &low, sizeof low);
    std::memcpy(dst + kDoubleLanes, &high, sizeof high);
  }
  // Widens the lanes and adds them.
  void Add(Floats v) {
    const Wide<Doubles> wide = Widen(v);
    low += wide.part[0];
    high += wide.part[1];
  }
  Floats Rounded() const { return Narrow({{low, high}}); }
#endif
};

// What `expf` and `powf` need beside: products added in one rounding, and words in and out of twice their width.
// LookUp32 gives table[index modulo 32], lane by lane, of a table that is there eight times over, so that where
// addresses are formed a byte of the index will do; LookUp16 gives table[index], which is below 16.
#if VEK_HAS_VECTOR_FMA
#if defined(__aarch64__)

inline Wide<Doubles> Widen(Ints v) {
  return {{vcvtq_f64_s64(vmovl_s32(vget_low_s32(v))), vcvtq_f64_s64(vmovl_high_s32(v))}};
}
inline Words LowWords(Wide<LongWords> v) {
  return vuzp1q_u32(reinterpret_cast<uint32x4_t>(v.part[0]), reinterpret_cast<uint32x4_t>(v.part[1]));
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return vfmaq_f64(c, a, b); }
inline Floats Fma(Floats a, Floats b, Floats c) { return vfmaq_f32(c, a, b); }

inline LongWords LookUp32(const std::uint64_t* table, LongWords index) {
  const auto bytes = reinterpret_cast<uint8x16_t>(index);
  return LongWords{table[bytes[0]], table[bytes[8]]};
}
inline Wide<LongWords> LookUp16(const std::uint64_t* table, Words index) {
  const auto bytes = reinterpret_cast<uint8x16_t>(index);
  return {{LongWords{table[bytes[0]], table[bytes[4]]}, LongWords{table[bytes[8]], table[bytes[12]]}}};
}

#else

inline Floats Fma(Floats a, Floats b, Floats c) { return _mm256_fmadd_ps(a, b, c); }

#if defined(__AVX512F__)

inline Wide<Doubles> Widen(Ints v) {
  return {{_mm512_maskz_cvtepi32_pd(0xFF, reinterpret_cast<__m256i>(v))}};
}
inline Words LowWords(Wide<LongWords> v) {
  return reinterpret_cast<Words>(_mm512_maskz_cvtepi64_epi32(0xFF, reinterpret_cast<__m512i>(v.part[0])));
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return _mm512_fmadd_pd(a, b, c); }

// A table lies in registers: 16 rows take two.
inline __m512i LookUpLow4Bits(const std::uint64_t* table, __m512i index) {
  return _mm512_permutex2var_epi64(_mm512_loadu_si512(table), index, _mm512_loadu_si512(table + 8));
}
inline LongWords LookUp32(const std::uint64_t* table, LongWords index) {
  const auto i = reinterpret_cast<__m512i>(index);
  const __mmask8 is_upper = _mm512_test_epi64_mask(i, _mm512_set1_epi64(16));
  return reinterpret_cast<LongWords>(
      _mm512_mask_blend_epi64(is_upper, LookUpLow4Bits(table, i), LookUpLow4Bits(table + 16, i)));
}
inline Wide<LongWords> LookUp16(const std::uint64_t* table, Words index) {
  const __m512i wide = _mm512_maskz_cvtepu32_epi64(0xFF, reinterpret_cast<__m256i>(index));
  return {{reinterpret_cast<LongWords>(LookUpLow4Bits(table, wide))}};
}

#else

inline Wide<Doubles> Widen(Ints v) {
  const auto words = reinterpret_cast<__m256i>(v);
  return {{_mm256_cvtepi32_pd(_mm256_castsi256_si128(words)),
           _mm256_cvtepi32_pd(_mm256_extracti128_si256(words, 1))}};
}
inline Words LowWords(Wide<LongWords> v) {
  return __builtin_shufflevector(reinterpret_cast<Words>(v.part[0]), reinterpret_cast<Words>(v.part[1]), 0, 2,
                                 4, 6, 8, 10, 12, 14);
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return _mm256_fmadd_pd(a, b, c); }

inline LongWords LookUp32(const std::uint64_t* table, LongWords index) {
  index &= 255U;
  return LongWords{table[index[0]], table[index[1]], table[index[2]], table[index[3]]};
}
inline Wide<LongWords> LookUp16(const std::uint64_t* table, Words index) {
  return {{LongWords{table[index[0]], table[index[1]], table[index[2]], table[index[3]]},
           LongWords{table[index[4]], table[index[5]], table[index[6]], table[index[7]]}}};
}

#endif
#endif
#endif  // VEK_HAS_VECTOR_FMA

}  // namespace zeb_custom_ops::detail
