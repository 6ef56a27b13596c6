// The types that vectors are made of, and their way in and out of memory.
//
// Two kinds, both in the compilers' portable vector types, so that +, *, <, ?: and [] work on them. `Vec<T>` is 16
// bytes of any element, on every target: data movement shuffles it. `Floats` and its kin are as wide as the target
// computes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zeb_custom_ops::detail {

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

inline constexpr std::size_t kVecBytes = 16;

template <typename T>
struct VecOf {
  using Type __attribute__((vector_size(kVecBytes))) = T;
};
template <typename T>
using Vec = typename VecOf<T>::Type;

template <typename T>
inline constexpr std::size_t kLanes = kVecBytes / sizeof(T);

namespace internal {
// A word or vector as it lies in memory: at any address, next to objects of any type.
template <typename V>
struct UnalignedOf {
  typedef V Type __attribute__((aligned(1), may_alias));
};
}  // namespace internal

// Loads and stores of words and vectors at any address. (Through memcpy GCC would move vectors as 128-bit
// integers, which have fewer addressing modes.)
template <typename V>
inline V Load(const void* src) {
  return *static_cast<const typename internal::UnalignedOf<V>::Type*>(src);
}

template <typename V>
inline void Store(void* dst, V value) {
  *static_cast<typename internal::UnalignedOf<V>::Type*>(dst) = value;
}

// Where the target has vectors of 64 bytes, they hold a whole vector of floats in double precision.
#if defined(__AVX512F__) && defined(__FMA__)
inline constexpr int kFloatsBytes = 32;
inline constexpr int kDoublesBytes = 64;
#elif defined(__AVX2__) && defined(__FMA__)
inline constexpr int kFloatsBytes = 32;
inline constexpr int kDoublesBytes = 32;
#else
inline constexpr int kFloatsBytes = 16;
inline constexpr int kDoublesBytes = 16;
#endif

typedef float Floats __attribute__((vector_size(kFloatsBytes)));
typedef std::int32_t Ints __attribute__((vector_size(kFloatsBytes)));
typedef std::uint32_t UInts __attribute__((vector_size(kFloatsBytes)));
typedef double Doubles __attribute__((vector_size(kDoublesBytes)));
typedef std::uint64_t ULongs __attribute__((vector_size(kDoublesBytes)));

inline constexpr std::size_t kFloatLanes = kFloatsBytes / sizeof(float);
inline constexpr std::size_t kDoubleLanes = kDoublesBytes / sizeof(double);

// The lanes of a vector of floats or of 32-bit integers in twice their width, in order.
inline constexpr std::size_t kWideParts = kFloatLanes / kDoubleLanes;
template <typename V>
struct Wide {
  V part[kWideParts];
};

// The nearest integer, of which the low 51 bits count, and what is left to it.
struct Split {
  ULongs integer;
  Doubles rest;
};

// Sums of a matrix product that stay in registers while it runs along k, with room for the products of one step:
// rows times vectors. `loads_ahead`: a step's values are loaded while the products of the one before are added.
struct ProductTile {
  std::size_t rows;
  std::size_t vectors;
  bool loads_ahead;
};

}  // namespace zeb_custom_ops::detail
