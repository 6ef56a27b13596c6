// Shuffles of `Vec<T>` that move rows into columns, and interleaving by them.
#pragma once

#include <cstddef>
#include <utility>

#include "simd/types.h"

namespace zeb_custom_ops::detail {

namespace internal {

template <typename T, std::size_t first, std::size_t... i>
inline Vec<T> Zip(Vec<T> a, Vec<T> b, std::index_sequence<i...>) {
  return __builtin_shufflevector(a, b, (first + i / 2 + i % 2 * kLanes<T>)...);
}

template <typename T, std::size_t first, std::size_t... i>
inline Vec<T> Unzip(Vec<T> a, Vec<T> b, std::index_sequence<i...>) {
  return __builtin_shufflevector(a, b, (first + i * 2)...);
}

}  // namespace internal

// a0 b0 a1 b1 ... of the lower halves.
template <typename T>
inline Vec<T> ZipLow(Vec<T> a, Vec<T> b) {
  return internal::Zip<T, 0>(a, b, std::make_index_sequence<kLanes<T>>{});
}

// The same of the upper halves.
template <typename T>
inline Vec<T> ZipHigh(Vec<T> a, Vec<T> b) {
  return internal::Zip<T, kLanes<T> / 2>(a, b, std::make_index_sequence<kLanes<T>>{});
}

// a0 a2 ... b0 b2 ...
template <typename T>
inline Vec<T> UnzipEven(Vec<T> a, Vec<T> b) {
  return internal::Unzip<T, 0>(a, b, std::make_index_sequence<kLanes<T>>{});
}

// a1 a3 ... b1 b3 ...
template <typename T>
inline Vec<T> UnzipOdd(Vec<T> a, Vec<T> b) {
  return internal::Unzip<T, 1>(a, b, std::make_index_sequence<kLanes<T>>{});
}

namespace internal {

template <typename T, std::size_t m, std::size_t n, std::size_t... i>
inline Vec<T> TransposedWithin(Vec<T> v, std::index_sequence<i...>) {
  return __builtin_shufflevector(v, v, (i % m * n + i / m)...);
}

}  // namespace internal

// m rows of n elements that fill one vector, transposed.
template <typename T, std::size_t m, std::size_t n>
inline Vec<T> TransposedWithin(Vec<T> v) {
  return internal::TransposedWithin<T, m, n>(v, std::make_index_sequence<kLanes<T>>{});
}

// Zips the first half of `count` vectors with the second half. Numbering all lanes through, element p moves to
// position 2p: the bits of its number rotate to the left by one.
template <typename T, std::size_t count>
inline void ZipHalves(Vec<T> (&v)[count]) {
  Vec<T> out[count];
  for (std::size_t i = 0; i < count / 2; ++i) {
    out[2 * i] = ZipLow<T>(v[i], v[i + count / 2]);
    out[2 * i + 1] = ZipHigh<T>(v[i], v[i + count / 2]);
  }
  for (std::size_t i = 0; i < count; ++i) v[i] = out[i];
}

// Undoes ZipHalves: the bits rotate to the right.
template <typename T, std::size_t count>
inline void UnzipPairs(Vec<T> (&v)[count]) {
  Vec<T> out[count];
  for (std::size_t i = 0; i < count / 2; ++i) {
    out[i] = UnzipEven<T>(v[2 * i], v[2 * i + 1]);
    out[i + count / 2] = UnzipOdd<T>(v[2 * i], v[2 * i + 1]);
  }
  for (std::size_t i = 0; i < count; ++i) v[i] = out[i];
}

namespace internal {

// Zip within each group of four lanes of a vector of any width: `first` is 0 for the lower two of four, 2 for the upper.
template <std::size_t first, typename V, std::size_t... lane>
inline V ZipFours(V a, V b, std::index_sequence<lane...> lanes) {
  return __builtin_shufflevector(a, b, (lane / 4 * 4 + first + lane % 4 / 2 + lane % 2 * lanes.size())...);
}

}  // namespace internal

// Transposes 4 x 4 elements of four bytes: lane j of rows[i] becomes lane i of rows[j]. A wider vector holds several
// such tiles, a group of four lanes each.
template <typename V>
inline void Transpose4x4(V (&rows)[4]) {
  constexpr auto lanes = std::make_index_sequence<sizeof(V) / 4>{};
  const V even_low = internal::ZipFours<0>(rows[0], rows[2], lanes);
  const V odd_low = internal::ZipFours<0>(rows[1], rows[3], lanes);
  const V even_high = internal::ZipFours<2>(rows[0], rows[2], lanes);
  const V odd_high = internal::ZipFours<2>(rows[1], rows[3], lanes);
  rows[0] = internal::ZipFours<0>(even_low, odd_low, lanes);
  rows[1] = internal::ZipFours<2>(even_low, odd_low, lanes);
  rows[2] = internal::ZipFours<0>(even_high, odd_high, lanes);
  rows[3] = internal::ZipFours<2>(even_high, odd_high, lanes);
}

namespace internal {

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

}  // namespace internal

// Writes v[0][0] v[1][0] ... v[0][1] v[1][1] ...
template <typename T, std::size_t k>
inline void StoreInterleavedByShuffles(std::byte* dst, const Vec<T> (&v)[k]) {
  Vec<T> out[k];
  if constexpr (k == 3) {
    constexpr auto lanes = std::make_index_sequence<kLanes<T>>{};
    out[0] = internal::Interleave3<T, 0>(v, lanes);
    out[1] = internal::Interleave3<T, 1>(v, lanes);
    out[2] = internal::Interleave3<T, 2>(v, lanes);
  } else {
    for (std::size_t i = 0; i < k; ++i) out[i] = v[i];
    for (std::size_t planes = k; planes > 1; planes /= 2) ZipHalves<T>(out);
  }
  for (std::size_t i = 0; i < k; ++i) Store(dst + i * kVecBytes, out[i]);
}

// Reads what StoreInterleavedByShuffles writes.
template <typename T, std::size_t k>
inline void LoadInterleavedByShuffles(Vec<T> (&v)[k], const std::byte* src) {
  Vec<T> in[k];
  for (std::size_t i = 0; i < k; ++i) in[i] = Load<Vec<T>>(src + i * kVecBytes);
  if constexpr (k == 3) {
    constexpr auto lanes = std::make_index_sequence<kLanes<T>>{};
    v[0] = internal::Deinterleave3<T, 0>(in, lanes);
    v[1] = internal::Deinterleave3<T, 1>(in, lanes);
    v[2] = internal::Deinterleave3<T, 2>(in, lanes);
  } else {
    for (std::size_t planes = k; planes > 1; planes /= 2) UnzipPairs<T>(in);
    for (std::size_t i = 0; i < k; ++i) v[i] = in[i];
  }
}

}  // namespace zeb_custom_ops::detail
