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
inline constexpr std::size_t kInterleavedVectors =
    7;  // four by structure loads and stores, beyond by look-up
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

// Instructions look up in one to four vectors; beyond them is 0, or what a vector has.
template <std::size_t n>
inline Vec<std::uint8_t> LookUpBytes(const Vec<std::uint8_t>* table, Vec<std::uint8_t> index) {
  static_assert(n >= 1 && n <= 8);
  if constexpr (n == 1) {
    return vqtbl1q_u8(table[0], index);
  } else if constexpr (n == 2) {
    return vqtbl2q_u8({{table[0], table[1]}}, index);
  } else if constexpr (n == 3) {
    return vqtbl3q_u8({{table[0], table[1], table[2]}}, index);
  } else if constexpr (n == 4) {
    return vqtbl4q_u8({{table[0], table[1], table[2], table[3]}}, index);
  } else {
    const Vec<std::uint8_t> found = LookUpBytes<4>(table, index);
    const Vec<std::uint8_t> behind = index - static_cast<std::uint8_t>(4 * kVecBytes);
    if constexpr (n == 5) {
      return vqtbx1q_u8(found, table[4], behind);
    } else if constexpr (n == 6) {
      return vqtbx2q_u8(found, {{table[4], table[5]}}, behind);
    } else if constexpr (n == 7) {
      return vqtbx3q_u8(found, {{table[4], table[5], table[6]}}, behind);
    } else {
      return vqtbx4q_u8(found, {{table[4], table[5], table[6], table[7]}}, behind);
    }
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

namespace internal {

// Where each byte of k vectors comes from when their elements, of `width` bytes, go to memory in which they alternate, and
// back.
template <std::size_t width, std::size_t k>
struct Interleaving {
  std::uint8_t to_memory[k * kVecBytes];
  std::uint8_t from_memory[k * kVecBytes];

  constexpr Interleaving() : to_memory(), from_memory() {
    for (std::size_t byte = 0; byte < k * kVecBytes; ++byte) {
      const std::size_t element = byte / width;
      const std::size_t in_vectors = element % k * kVecBytes + element / k * width + byte % width;
      to_memory[byte] = static_cast<std::uint8_t>(in_vectors);
      from_memory[in_vectors] = static_cast<std::uint8_t>(byte);
    }
  }
};
template <std::size_t width, std::size_t k>
inline constexpr Interleaving<width, k> kInterleaving;

}  // namespace internal

template <typename T, std::size_t k>
inline void StoreInterleaved(std::byte* dst, const Vec<T> (&v)[k]) {
  if constexpr (k <= 4) {
    internal::StoreStructure(reinterpret_cast<T*>(dst), v);
  } else {
    Vec<std::uint8_t> bytes[k];
    for (std::size_t i = 0; i < k; ++i) bytes[i] = reinterpret_cast<Vec<std::uint8_t>>(v[i]);
    for (std::size_t at = 0; at < k * kVecBytes; at += kVecBytes) {
      const auto index = Load<Vec<std::uint8_t>>(internal::kInterleaving<sizeof(T), k>.to_memory + at);
      Store(dst + at, LookUpBytes<k>(bytes, index));
    }
  }
}
template <typename T, std::size_t k>
inline void LoadInterleaved(Vec<T> (&v)[k], const std::byte* src) {
  if constexpr (k <= 4) {
    internal::LoadStructure(v, reinterpret_cast<const T*>(src));
  } else {
    Vec<std::uint8_t> bytes[k];
    for (std::size_t i = 0; i < k; ++i) bytes[i] = Load<Vec<std::uint8_t>>(src + i * kVecBytes);
    for (std::size_t i = 0; i < k; ++i) {
      const auto index =
          Load<Vec<std::uint8_t>>(internal::kInterleaving<sizeof(T), k>.from_memory + i * kVecBytes);
      v[i] = reinterpret_cast<Vec<T>>(LookUpBytes<k>(bytes, index));
    }
  }
}

}  // namespace zeb_custom_ops::detail
