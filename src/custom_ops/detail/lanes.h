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

inline constexpr int kFloatLanes = kVectorBytes / 4;
inline constexpr int kDoubleLanes = kVectorBytes / 8;

typedef float Floats __attribute__((vector_size(kVectorBytes)));
typedef std::int32_t Ints __attribute__((vector_size(kVectorBytes)));
typedef std::uint32_t Words __attribute__((vector_size(kVectorBytes)));
typedef double Doubles __attribute__((vector_size(kVectorBytes)));
typedef std::uint64_t LongWords __attribute__((vector_size(kVectorBytes)));

// Vectors in memory, of any alignment.
template <typename V = Floats, typename T>
V Load(const T* src) {
  V value;
  std::memcpy(&value, src, sizeof value);
  return value;
}
template <typename V, typename T>
void Store(T* dst, V value) {
  std::memcpy(dst, &value, sizeof value);
}

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

// Of a comparison's result: true when it holds in every lane, in at least one.
inline bool AllLanes(Ints holds) {
#if defined(__aarch64__)
  return vminvq_u32(reinterpret_cast<uint32x4_t>(holds)) != 0;
#elif defined(__AVX2__)
  return _mm256_movemask_ps(reinterpret_cast<__m256>(holds)) == 0xFF;
#else
  return (holds[0] & holds[1] & holds[2] & holds[3]) != 0;
#endif
}
inline bool AnyLane(Ints holds) { return !AllLanes(~holds); }

#if VEK_HAS_VECTOR_FMA

// The lower and the upper half of a vector's lanes, in twice the width.
template <typename V>
struct Halves {
  V low;
  V high;
};

// The nearest integer as a double, and as an integer of which the low 51 bits count.
struct Rounded {
  Doubles value;
  LongWords integer;
};

#if defined(__aarch64__)

inline Halves<Doubles> Widen(Floats v) { return {vcvt_f64_f32(vget_low_f32(v)), vcvt_high_f64_f32(v)}; }
inline Halves<Doubles> Widen(Ints v) {
  return {vcvtq_f64_s64(vmovl_s32(vget_low_s32(v))), vcvtq_f64_s64(vmovl_high_s32(v))};
}
inline Halves<LongWords> Widen(Words v) {
  return {reinterpret_cast<LongWords>(vmovl_u32(vget_low_u32(v))),
          reinterpret_cast<LongWords>(vmovl_high_u32(v))};
}
inline Floats Narrow(Halves<Doubles> v) { return vcvt_high_f32_f64(vcvt_f32_f64(v.low), v.high); }
inline Words LowWords(Halves<LongWords> v) {
  return vuzp1q_u32(reinterpret_cast<uint32x4_t>(v.low), reinterpret_cast<uint32x4_t>(v.high));
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return vfmaq_f64(c, a, b); }

// `v`, but `lowest` where that is greater; a NaN stays.
inline Floats AtLeast(Floats lowest, Floats v) { return vmaxq_f32(lowest, v); }

// As the target's C library rounds: halves away from zero.
inline Rounded Round(Doubles v) { return {vrndaq_f64(v), reinterpret_cast<LongWords>(vcvtaq_s64_f64(v))}; }

// table[index], lane by lane.
inline LongWords LookUp(const std::uint64_t* table, LongWords index) {
  return LongWords{table[index[0]], table[index[1]]};
}

#else

inline Halves<Doubles> Widen(Floats v) {
  return {_mm256_cvtps_pd(_mm256_castps256_ps128(v)), _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1))};
}
inline Halves<Doubles> Widen(Ints v) {
  const auto words = reinterpret_cast<__m256i>(v);
  return {_mm256_cvtepi32_pd(_mm256_castsi256_si128(words)),
          _mm256_cvtepi32_pd(_mm256_extracti128_si256(words, 1))};
}
inline Halves<LongWords> Widen(Words v) {
  const auto words = reinterpret_cast<__m256i>(v);
  return {reinterpret_cast<LongWords>(_mm256_cvtepu32_epi64(_mm256_castsi256_si128(words))),
          reinterpret_cast<LongWords>(_mm256_cvtepu32_epi64(_mm256_extracti128_si256(words, 1)))};
}
inline Floats Narrow(Halves<Doubles> v) {
  return _mm256_set_m128(_mm256_cvtpd_ps(v.high), _mm256_cvtpd_ps(v.low));
}
inline Words LowWords(Halves<LongWords> v) {
  return __builtin_shufflevector(reinterpret_cast<Words>(v.low), reinterpret_cast<Words>(v.high), 0, 2, 4, 6,
                                 8, 10, 12, 14);
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return _mm256_fmadd_pd(a, b, c); }

// `v`, but `lowest` where that is greater; a NaN stays.
inline Floats AtLeast(Floats lowest, Floats v) { return _mm256_max_ps(lowest, v); }

// As the target's C library rounds: halves to the even neighbour.
inline Rounded Round(Doubles v) {
  constexpr double kIntegersFromHere = 0x1.8p52;
  const Doubles shifted = v + kIntegersFromHere;
  return {shifted - kIntegersFromHere, reinterpret_cast<LongWords>(shifted)};
}

// table[index], lane by lane.
inline LongWords LookUp(const std::uint64_t* table, LongWords index) {
  return LongWords{table[index[0]], table[index[1]], table[index[2]], table[index[3]]};
}

#endif
#endif  // VEK_HAS_VECTOR_FMA

// As many sums in double precision as a vector has floats.
struct WideSums {
#if defined(__AVX512F__)
  __m512d sums;

  void Load(const double* src) { sums = _mm512_loadu_pd(src); }
  void Store(double* dst) const { _mm512_storeu_pd(dst, sums); }
  void Add(Floats v) { sums += _mm512_maskz_cvtps_pd(0xFF, v); }
#else
  Doubles low;
  Doubles high;

  void Load(const double* src) {
    low = detail::Load<Doubles>(src);
    high = detail::Load<Doubles>(src + kDoubleLanes);
  }
  void Store(double* dst) const {
    detail::Store(dst, low);
    detail::Store(dst + kDoubleLanes, high);
  }
  // Widens the lanes and adds them.
  void Add(Floats v) {
#if VEK_HAS_VECTOR_FMA
    const Halves<Doubles> wide = Widen(v);
    low += wide.low;
    high += wide.high;
#elif defined(__SSE2__)
    low += _mm_cvtps_pd(v);
    high += _mm_cvtps_pd(_mm_movehl_ps(v, v));
#else
    for (int i = 0; i < kDoubleLanes; ++i) {
      low[i] += static_cast<double>(v[i]);
      high[i] += static_cast<double>(v[i + kDoubleLanes]);
    }
#endif
  }
#endif
};

}  // namespace zeb_custom_ops::detail
