// 64-bit Arm: 16 bytes everywhere. What each name means is in simd.h.
#pragma once

#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

#include "simd/types.h"

namespace zeb_custom_ops::detail {

inline constexpr std::size_t kBlockBytes = 16;
inline constexpr bool kShufflesBytes = true;
inline constexpr std::size_t kLookUpVectors = 8;
inline constexpr bool kHasFma = true;
inline constexpr ProductTile kProductTile = {.rows = 3, .vectors = 2, .loads_ahead = true};
inline constexpr std::size_t kMapVectors = 4;  // loads and stores of pairs

inline Floats Splat(float value) { return vdupq_n_f32(value); }
inline Floats Sqrt(Floats v) { return vsqrtq_f32(v); }
inline Floats Max(Floats a, Floats b) { return vmaxq_f32(a, b); }
inline float MaxLane(Floats v) { return vmaxvq_f32(v); }
inline bool AllLanes(Ints holds) { return vminvq_u32(reinterpret_cast<uint32x4_t>(holds)) != 0; }

inline Wide<Doubles> Widen(Floats v) { return {{vcvt_f64_f32(vget_low_f32(v)), vcvt_high_f64_f32(v)}}; }
inline Wide<Doubles> Widen(Ints v) {
  return {{vcvtq_f64_s64(vmovl_s32(vget_low_s32(v))), vcvtq_f64_s64(vmovl_high_s32(v))}};
}
inline Floats Narrow(Wide<Doubles> v) { return vcvt_high_f32_f64(vcvt_f32_f64(v.part[0]), v.part[1]); }
inline UInts LowWords(Wide<ULongs> v) {
  return vuzp1q_u32(reinterpret_cast<uint32x4_t>(v.part[0]), reinterpret_cast<uint32x4_t>(v.part[1]));
}

inline Doubles Fma(Doubles a, Doubles b, Doubles c) { return vfmaq_f64(c, a, b); }
inline Floats Fma(Floats a, Floats b, Floats c) { return vfmaq_f32(c, a, b); }

inline ULongs LookUp32(const std::uint64_t* table, ULongs index) {
  const auto bytes = reinterpret_cast<uint8x16_t>(index);
  return ULongs{table[bytes[0]], table[bytes[8]]};
}
inline Wide<ULongs> LookUp16(const std::uint64_t* table, UInts index) {
  const auto bytes = reinterpret_cast<uint8x16_t>(index);
  return {{ULongs{table[bytes[0]], table[bytes[4]]}, ULongs{table[bytes[8]], table[bytes[12]]}}};
}

// Instructions look up in one to four vectors; beyond them is 0, or what `otherwise` has.
template <std::size_t n>
inline Vec<std::uint8_t> LookUpBytes(const Vec<std::uint8_t>* table, Vec<std::uint8_t> index,
                                     Vec<std::uint8_t> otherwise = Vec<std::uint8_t>{}) {
  static_assert(n >= 1 && n <= 8);
  if constexpr (n == 1) {
    return vqtbx1q_u8(otherwise, table[0], index);
  } else if constexpr (n == 2) {
    return vqtbx2q_u8(otherwise, {{table[0], table[1]}}, index);
  } else if constexpr (n == 3) {
    return vqtbx3q_u8(otherwise, {{table[0], table[1], table[2]}}, index);
  } else if constexpr (n == 4) {
    return vqtbx4q_u8(otherwise, {{table[0], table[1], table[2], table[3]}}, index);
  } else {
    return LookUpBytes<n - 4>(table + 4, index - 64, LookUpBytes<4>(table, index));
  }
}

// Of two integers that are as near, the one away from zero is taken.
inline Split SplitAtInteger(Doubles z) {
  return {reinterpret_cast<ULongs>(vcvtaq_s64_f64(z)), z - static_cast<Doubles>(vrndaq_f64(z))};
}

inline Floats LoadFours(const float* const* rows, std::size_t i, std::size_t k) {
  return Load<Floats>(rows[i] + k);
}

namespace internal {

#define VEK_STRUCTURE(k, word, vec, suffix)                                               \
  inline void StoreStructure(word* dst, const Vec<word>(&v)[k]) {                         \
    vec##x##k##_t all;                                                                    \
    for (std::size_t i = 0; i < (k); ++i) all.val[i] = reinterpret_cast<vec##_t>(v[i]);   \
    vst##k##q_##suffix(dst, all);                                                         \
  }                                                                                       \
  inline void LoadStructure(Vec<word>(&v)[k], const word* src) {                          \
    const vec##x##k##_t all = vld##k##q_##suffix(src);                                    \
    for (std::size_t i = 0; i < (k); ++i) v[i] = reinterpret_cast<Vec<word>>(all.val[i]); \
  }
VEK_STRUCTURE(2, std::uint8_t, uint8x16, u8)
VEK_STRUCTURE(3, std::uint8_t, uint8x16, u8)
VEK_STRUCTURE(4, std::uint8_t, uint8x16, u8)
VEK_STRUCTURE(2, std::uint16_t, uint16x8, u16)
VEK_STRUCTURE(3, std::uint16_t, uint16x8, u16)
VEK_STRUCTURE(4, std::uint16_t, uint16x8, u16)
VEK_STRUCTURE(2, std::uint32_t, uint32x4, u32)
VEK_STRUCTURE(3, std::uint32_t, uint32x4, u32)
VEK_STRUCTURE(4, std::uint32_t, uint32x4, u32)
#undef VEK_STRUCTURE

}  // namespace internal

template <typename T, std::size_t k>
inline void StoreInterleaved(std::byte* dst, const Vec<T> (&v)[k]) {
  internal::StoreStructure(reinterpret_cast<T*>(dst), v);
}
template <typename T, std::size_t k>
inline void LoadInterleaved(Vec<T> (&v)[k], const std::byte* src) {
  internal::LoadStructure(v, reinterpret_cast<const T*>(src));
}

}  // namespace zeb_custom_ops::detail
