// Concat: slabs of several inputs, one behind another, at each outer position.
#pragma once

#include <cstdint>
#include <span>

namespace zeb_custom_ops::kernels {

// One input: `count` elements of it go to each outer position, those behind each other in the input.
template <typename T>
struct Slab {
  const T* data;
  unsigned count;
};

// Where slabs go, in elements: `outer` rows, `row` apart, in each of which the first slab starts at `offset`.
struct ConcatRows {
  std::uint64_t outer;
  unsigned row;
  unsigned offset;
};

// The formula. Takes every shape: positions wrap at 32 bits. No rows or empty slabs write nothing. The data must not
// overlap.
template <typename T>
void PlainConcat(T* out, std::span<const Slab<T>> slabs, const ConcatRows& rows);

// The same where the slabs fit into a row behind `offset`, and outer * row fits 32 bits.
template <typename T>
void Concat(T* out, std::span<const Slab<T>> slabs, const ConcatRows& rows);

}  // namespace zeb_custom_ops::kernels
