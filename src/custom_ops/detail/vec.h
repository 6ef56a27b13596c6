// 128-bit vectors that both architectures have, in the compilers' portable vector types, and the few shuffles
// that data movement needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace zeb_custom_ops::detail {

inline constexpr std::size_t kVecBytes = 16;

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

// Loads and stores of words or vectors at any address.
template <typename V>
inline V Load(const std::byte* src) {
  V value;
  std::memcpy(&value, src, sizeof value);
  return value;
}

template <typename V>
inline void Store(std::byte* dst, V value) {
  std::memcpy(dst, &value, sizeof value);
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

}  // namespace zeb_custom_ops::detail
