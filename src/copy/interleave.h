// Interleaving: a few planes to and from elements that lie next to each other. Up to kInterleavedVectors planes do so on
// their way to and from memory. From there to fifteen it is a transpose in registers, in which the planes that are missing
// to a power of two hold anything.
#pragma once

#include <cstddef>
#include <cstring>

#include "copy/loop.h"
#include "copy/transpose.h"
#include "simd/simd.h"

namespace zeb_custom_ops::detail {

namespace internal {

// Calls `vec` with the places of each vector of `count` elements, at least a vector, for all rows of all planes, and `last`
// with that of the last one, which ends where the row ends. Elements are `dst_bytes` and `src_bytes` apart.
template <typename T, typename Vector, typename Last>
[[gnu::always_inline]] inline void ForVectors(std::byte* dst, std::size_t dst_bytes, const std::byte* src,
                                              std::size_t src_bytes, const Loop& planes, const Loop& rows,
                                              std::size_t count, const Vector& vec, const Last& last) {
  const Loop inner = rows;
  for (std::size_t plane = planes.extent; plane > 0;
       --plane, dst += planes.dst_step, src += planes.src_step) {
    std::byte* to = dst;
    const std::byte* from = src;
    for (std::size_t row = inner.extent; row > 0; --row, to += inner.dst_step, from += inner.src_step) {
      for (std::size_t at = 0; at + kLanes<T> < count; at += kLanes<T>)
        vec(to + at * dst_bytes, from + at * src_bytes);
      const std::size_t at = count - kLanes<T>;
      last(to + at * dst_bytes, from + at * src_bytes);
    }
  }
}

}  // namespace internal

// Interleaves `count` elements, at least a vector, of k planes, `step` bytes apart, for rows of planes.
template <typename T, std::size_t k>
void InterleaveRows(std::byte* dst, const std::byte* src, const Loop& planes, const Loop& rows,
                    std::ptrdiff_t step, std::size_t count) {
  const auto vec = [step](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
    Vec<T> v[k];
    for (std::size_t i = 0; i < k; ++i) v[i] = Load<Vec<T>>(from + Offset(i, step));
    StoreInterleaved<T, k>(to, v);
  };
  internal::ForVectors<T>(dst, k * sizeof(T), src, sizeof(T), planes, rows, count, vec, vec);
}

// Undoes InterleaveRows.
template <typename T, std::size_t k>
void DeinterleaveRows(std::byte* dst, const std::byte* src, const Loop& planes, const Loop& rows,
                      std::ptrdiff_t step, std::size_t count) {
  const auto vec = [step](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
    Vec<T> v[k];
    LoadInterleaved<T, k>(v, from);
    for (std::size_t i = 0; i < k; ++i) Store(to + Offset(i, step), v[i]);
  };
  internal::ForVectors<T>(dst, sizeof(T), src, k * sizeof(T), planes, rows, count, vec, vec);
}

// The same for `k`, more than half of m, a power of two, and fewer than m. Vectors of each of the k become groups of m
// elements of which the first k count: what lies behind them, less than a group, is written over by the next group. The last
// vectors go through a buffer, where there is room behind them.
template <typename T, std::size_t m>
void InterleaveManyRows(std::byte* dst, const std::byte* src, const Loop& planes, const Loop& rows,
                        std::ptrdiff_t step, std::size_t count, std::size_t k) {
  const std::size_t group = k * sizeof(T);
  const RowSteps groups(static_cast<std::ptrdiff_t>(group));
  const auto vec = [&](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
    Vec<T> v[m];
    for (std::size_t i = 0; i < m; ++i) v[i] = Load<Vec<T>>(from + Offset(std::min(i, k - 1), step));
    internal::TransposeVectors<T, m, kLanes<T>>(v);
    internal::StoreRows<T, m * sizeof(T)>(to, groups, v);
  };
  internal::ForVectors<T>(dst, group, src, sizeof(T), planes, rows, count, vec,
                          [&](std::byte* to, const std::byte* from) {
                            std::byte buffer[(kLanes<T> + 1) * m * sizeof(T)];
                            vec(buffer, from);
                            std::memcpy(to, buffer, kLanes<T> * group);
                          });
}

// Undoes InterleaveManyRows.
template <typename T, std::size_t m>
void DeinterleaveManyRows(std::byte* dst, const std::byte* src, const Loop& planes, const Loop& rows,
                          std::ptrdiff_t step, std::size_t count, std::size_t k) {
  const std::size_t group = k * sizeof(T);
  const RowSteps groups(static_cast<std::ptrdiff_t>(group));
  const auto vec = [&](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
    Vec<T> v[m];
    internal::LoadRows<T, m * sizeof(T)>(v, from, groups);
    internal::TransposeVectors<T, kLanes<T>, m>(v);
    for (std::size_t i = 0; i < k; ++i) Store(to + Offset(i, step), v[i]);
  };
  internal::ForVectors<T>(dst, sizeof(T), src, group, planes, rows, count, vec,
                          [&](std::byte* to, const std::byte* from) {
                            std::byte buffer[(kLanes<T> + 1) * m * sizeof(T)];
                            std::memcpy(buffer, from, kLanes<T> * group);
                            vec(to, buffer);
                          });
}

}  // namespace zeb_custom_ops::detail
