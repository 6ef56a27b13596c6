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

#if defined(__aarch64__)

inline Halves<Doubles> Widen(Floats v) { return {vcvt_f64_f32(vget_low_f32(v)), vcvt_high_f64_f32(v)}; }
inline Halves<Doubles> Widen(Ints v) {
  return {vcvtq_f64_s64(vmovl_s32(vget_low_s32(v))), vcvtq_f64_s64(vmovl_high_s32(v))};
}
inline Floats Narrow(Halves<Doubles> v) { return vcvt_high_f32_f64(vcvt_f32_f64(v.low), v.high); }
inline Words LowWords(Halves<LongWords> v) {
  return vuzp1q_u32(reinterpret_cast<uint32x4_t>(v.low), reinterpret_cast<uint32x4_t>(v.high));
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return vfmaq_f64(c, a, b); }
inline Floats Fma(Floats a, Floats b, Floats c) { return vfmaq_f32(c, a, b); }

// table[index modulo 256], lane by lane.
inline LongWords LookUp(const std::uint64_t* table, LongWords index) {
  const auto bytes = reinterpret_cast<uint8x16_t>(index);
  return LongWords{table[bytes[0]], table[bytes[8]]};
}
inline Halves<LongWords> LookUp(const std::uint64_t* table, Words index) {
  const auto bytes = reinterpret_cast<uint8x16_t>(index);
  return {LongWords{table[bytes[0]], table[bytes[4]]}, LongWords{table[bytes[8]], table[bytes[12]]}};
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
inline Floats Narrow(Halves<Doubles> v) {
  return _mm256_set_m128(_mm256_cvtpd_ps(v.high), _mm256_cvtpd_ps(v.low));
}
inline Words LowWords(Halves<LongWords> v) {
  return __builtin_shufflevector(reinterpret_cast<Words>(v.low), reinterpret_cast<Words>(v.high), 0, 2, 4, 6,
                                 8, 10, 12, 14);
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return _mm256_fmadd_pd(a, b, c); }
inline Floats Fma(Floats a, Floats b, Floats c) { return _mm256_fmadd_ps(a, b, c); }

// table[index modulo 256], lane by lane.
inline LongWords LookUp(const std::uint64_t* table, LongWords index) {
  index &= 255U;
  return LongWords{table[index[0]], table[index[1]], table[index[2]], table[index[3]]};
}
inline Halves<LongWords> LookUp(const std::uint64_t* table, Words index) {
  index &= 255U;
  return {LongWords{table[index[0]], table[index[1]], table[index[2]], table[index[3]]},
          LongWords{table[index[4]], table[index[5]], table[index[6]], table[index[7]]}};
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
  Floats Rounded() const { return _mm512_maskz_cvtpd_ps(0xFF, sums); }
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
  Floats Rounded() const {
#if VEK_HAS_VECTOR_FMA
    return Narrow({low, high});
#elif defined(__SSE2__)
    return _mm_movelh_ps(_mm_cvtpd_ps(low), _mm_cvtpd_ps(high));
#else
    Floats v;
    for (int i = 0; i < kDoubleLanes; ++i) {
      v[i] = static_cast<float>(low[i]);
      v[i + kDoubleLanes] = static_cast<float>(high[i]);
    }
    return v;
#endif
  }
#endif
};

}  // namespace zeb_custom_ops::detail
