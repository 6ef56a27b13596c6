// Interleaving: a few planes to and from elements that lie side by side. The structure loads and stores of arm64
// do it on the way; elsewhere it is shuffles.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#ifdef __ARM_NEON
#include <arm_neon.h>
#endif

#include "axis.h"
#include "vec.h"

namespace zeb_custom_ops::detail {

namespace internal {

#ifdef __ARM_NEON

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

// Writes v[0][0] v[1][0] ... v[0][1] v[1][1] ...
template <typename T, std::size_t k>
inline void StoreInterleaved(std::byte* dst, const Vec<T> (&v)[k]) {
  StoreStructure(reinterpret_cast<T*>(dst), v);
}

// Reads what StoreInterleaved writes.
template <typename T, std::size_t k>
inline void LoadInterleaved(Vec<T> (&v)[k], const std::byte* src) {
  LoadStructure(v, reinterpret_cast<const T*>(src));
}

#else

// Lane l of the three interleaved vectors number `out` is element (out * lanes + l) / 3 of plane
// (out * lanes + l) % 3. A shuffle takes two vectors, so planes 0 and 1 come first, then plane 2.
template <typename T, std::size_t out, std::size_t... l>
inline Vec<T> Interleave3(const Vec<T> (&v)[3], std::index_sequence<l...>) {
  constexpr std::size_t N = kLanes<T>;
  const Vec<T> two = __builtin_shufflevector(
      v[0], v[1], ((out * N + l) % 3 == 2 ? 0 : (out * N + l) % 3 * N + (out * N + l) / 3)...);
  return __builtin_shufflevector(two, v[2], ((out * N + l) % 3 == 2 ? N + (out * N + l) / 3 : l)...);
}

// Lane l of plane `out` is element l * 3 + out of the three vectors: from the first two, then the third.
template <typename T, std::size_t out, std::size_t... l>
inline Vec<T> Deinterleave3(const Vec<T> (&v)[3], std::index_sequence<l...>) {
  constexpr std::size_t N = kLanes<T>;
  const Vec<T> two = __builtin_shufflevector(v[0], v[1], (l * 3 + out < 2 * N ? l * 3 + out : 0)...);
  return __builtin_shufflevector(two, v[2], (l * 3 + out < 2 * N ? l : l * 3 + out - N)...);
}

template <typename T, std::size_t k>
inline void StoreInterleaved(std::byte* dst, const Vec<T> (&v)[k]) {
  Vec<T> out[k];
  if constexpr (k == 3) {
    constexpr auto lanes = std::make_index_sequence<kLanes<T>>{};
    out[0] = Interleave3<T, 0>(v, lanes);
    out[1] = Interleave3<T, 1>(v, lanes);
    out[2] = Interleave3<T, 2>(v, lanes);
  } else {
    for (std::size_t i = 0; i < k; ++i) out[i] = v[i];
    for (std::size_t planes = k; planes > 1; planes /= 2) ZipHalves<T>(out);
  }
  for (std::size_t i = 0; i < k; ++i) Store(dst + i * kVecBytes, out[i]);
}

template <typename T, std::size_t k>
inline void LoadInterleaved(Vec<T> (&v)[k], const std::byte* src) {
  Vec<T> in[k];
  for (std::size_t i = 0; i < k; ++i) in[i] = Load<Vec<T>>(src + i * kVecBytes);
  if constexpr (k == 3) {
    constexpr auto lanes = std::make_index_sequence<kLanes<T>>{};
    v[0] = Deinterleave3<T, 0>(in, lanes);
    v[1] = Deinterleave3<T, 1>(in, lanes);
    v[2] = Deinterleave3<T, 2>(in, lanes);
  } else {
    for (std::size_t planes = k; planes > 1; planes /= 2) UnzipPairs<T>(in);
    for (std::size_t i = 0; i < k; ++i) v[i] = in[i];
  }
}

#endif

}  // namespace internal

// Interleaves `count` elements of k planes, `plane` bytes apart, for each of the rows.
template <typename T, std::size_t k>
void InterleaveRows(std::byte* dst, const std::byte* src, const Axis& rows, std::ptrdiff_t plane,
                    std::size_t count) {
  const auto vec = [plane](std::byte* to, const std::byte* from) {
    Vec<T> v[k];
    for (std::size_t i = 0; i < k; ++i) v[i] = Load<Vec<T>>(from + Offset(i, plane));
    internal::StoreInterleaved<T, k>(to, v);
  };
  for (std::size_t row = rows.extent; row > 0; --row, dst += rows.dst_step, src += rows.src_step) {
    std::size_t at = 0;
    for (; at + kLanes<T> <= count; at += kLanes<T>) vec(dst + at * k * sizeof(T), src + at * sizeof(T));
    if (at == count) continue;
    if (at > 0) {
      at = count - kLanes<T>;
      vec(dst + at * k * sizeof(T), src + at * sizeof(T));
      continue;
    }
    for (; at < count; ++at) {
      for (std::size_t i = 0; i < k; ++i) {
        Store(dst + (at * k + i) * sizeof(T), Load<T>(src + at * sizeof(T) + Offset(i, plane)));
      }
    }
  }
}

// Undoes InterleaveRows; the planes lie in the target.
template <typename T, std::size_t k>
void DeinterleaveRows(std::byte* dst, const std::byte* src, const Axis& rows, std::ptrdiff_t plane,
                      std::size_t count) {
  const auto vec = [plane](std::byte* to, const std::byte* from) {
    Vec<T> v[k];
    internal::LoadInterleaved<T, k>(v, from);
    for (std::size_t i = 0; i < k; ++i) Store(to + Offset(i, plane), v[i]);
  };
  for (std::size_t row = rows.extent; row > 0; --row, dst += rows.dst_step, src += rows.src_step) {
    std::size_t at = 0;
    for (; at + kLanes<T> <= count; at += kLanes<T>) vec(dst + at * sizeof(T), src + at * k * sizeof(T));
    if (at == count) continue;
    if (at > 0) {
      at = count - kLanes<T>;
      vec(dst + at * sizeof(T), src + at * k * sizeof(T));
      continue;
    }
    for (; at < count; ++at) {
      for (std::size_t i = 0; i < k; ++i) {
        Store(dst + at * sizeof(T) + Offset(i, plane), Load<T>(src + (at * k + i) * sizeof(T)));
      }
    }
  }
}

}  // namespace zeb_custom_ops::detail
