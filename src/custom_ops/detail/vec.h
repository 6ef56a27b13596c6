// 128-bit vectors that both architectures have, in the compilers' portable vector types, and the few shuffles
// that data movement needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace zeb_custom_ops::detail {

inline constexpr std::size_t kVecBytes = 16;

// Whether the target shuffles single bytes freely: all do but the baseline of x86-64.
#if defined(__SSE2__) && !defined(__SSSE3__)
inline constexpr bool kShufflesBytes = false;
#else
inline constexpr bool kShufflesBytes = true;
#endif

// The unsigned integer of a width in bytes: elements move as these, whatever they mean.
template <std::size_t width>
struct WordOf;
template <>
struct WordOf<1> {
  using Type = std::uint8_t;
};
template <>
struct WordOf<2> {
  using Type = std::uint16_t;
};
template <>
struct WordOf<4> {
  using Type = std::uint32_t;
};
template <>
struct WordOf<8> {
  using Type = std::uint64_t;
};
template <std::size_t width>
using Word = typename WordOf<width>::Type;

template <typename T>
struct VecOf {
  using Type __attribute__((vector_size(kVecBytes))) = T;
};
template <typename T>
using Vec = typename VecOf<T>::Type;

template <typename T>
inline constexpr std::size_t kLanes = kVecBytes / sizeof(T);

namespace internal {
// A word or vector as it lies in memory: at any address, beside objects of any type.
template <typename V>
struct UnalignedOf {
  typedef V Type __attribute__((aligned(1), may_alias));
};
}  // namespace internal

// Loads and stores of words and vectors at any address. (Through memcpy GCC would move vectors as 128-bit
// integers, which have fewer addressing modes.)
template <typename V>
inline V Load(const std::byte* src) {
  return *reinterpret_cast<const typename internal::UnalignedOf<V>::Type*>(src);
}

template <typename V>
inline void Store(std::byte* dst, V value) {
  *reinterpret_cast<typename internal::UnalignedOf<V>::Type*>(dst) = value;
}

template <typename T>
inline Vec<T> Broadcast(T value) {
  return Vec<T>{} + value;
}

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

// Zips the first half of `count` vectors with the second half. Numbering all lanes through, element p moves to
// place 2p: the bits of its number rotate to the left by one.
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

}  // namespace zeb_custom_ops::detail
