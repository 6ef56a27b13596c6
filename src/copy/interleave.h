// Interleaving: a few planes to and from elements that lie next to each other. For up to four planes the structure loads
// and stores of arm64 do it on the way; elsewhere it is shuffles. From five to fifteen it is a transpose in registers, in
// which the planes that are missing to a power of two hold anything.
#pragma once

#include <cstddef>
#include <cstring>

#include "copy/loop.h"
#include "copy/transpose.h"
#include "simd/simd.h"

namespace zeb_custom_ops::detail {

// Interleaves `count` elements, at least a vector, of k planes, `plane` bytes apart, for each of the rows.
template <typename T, std::size_t k>
void InterleaveRows(std::byte* dst, const std::byte* src, const Loop& rows, std::ptrdiff_t plane,
                    std::size_t count) {
  const auto vec = [plane](std::byte* to, const std::byte* from) {
    Vec<T> v[k];
    for (std::size_t i = 0; i < k; ++i) v[i] = Load<Vec<T>>(from + Offset(i, plane));
    StoreInterleaved<T, k>(to, v);
  };
  for (std::size_t row = rows.extent; row > 0; --row, dst += rows.dst_step, src += rows.src_step) {
    std::size_t at = 0;
    for (; at + kLanes<T> <= count; at += kLanes<T>) vec(dst + at * k * sizeof(T), src + at * sizeof(T));
    if (at == count) continue;
    at = count - kLanes<T>;
    vec(dst + at * k * sizeof(T), src + at * sizeof(T));
  }
}

// Undoes InterleaveRows; the planes lie in the target.
template <typename T, std::size_t k>
void DeinterleaveRows(std::byte* dst, const std::byte* src, const Loop& rows, std::ptrdiff_t plane,
                      std::size_t count) {
  const auto vec = [plane](std::byte* to, const std::byte* from) {
    Vec<T> v[k];
    LoadInterleaved<T, k>(v, from);
    for (std::size_t i = 0; i < k; ++i) Store(to + Offset(i, plane), v[i]);
  };
  for (std::size_t row = rows.extent; row > 0; --row, dst += rows.dst_step, src += rows.src_step) {
    std::size_t at = 0;
    for (; at + kLanes<T> <= count; at += kLanes<T>) vec(dst + at * sizeof(T), src + at * k * sizeof(T));
    if (at == count) continue;
    at = count - kLanes<T>;
    vec(dst + at * sizeof(T), src + at * k * sizeof(T));
  }
}

// The same for `k` planes, more than half of m, a power of two, and fewer than m. Vectors of each plane become groups of m elements of which the first
// k count: what lies behind them, less than a group, is written over by the next group. The last vectors go through a buffer, where there is
// room behind them. `count` is at least a vector.
template <typename T, std::size_t m>
void InterleaveManyRows(std::byte* dst, const std::byte* src, const Loop& rows, std::ptrdiff_t plane,
                        std::size_t count, std::size_t k) {
  const std::size_t group = k * sizeof(T);
  const RowSteps groups(static_cast<std::ptrdiff_t>(group));
  const auto vec = [&](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
    Vec<T> v[m];
    for (std::size_t i = 0; i < m; ++i) v[i] = Load<Vec<T>>(from + Offset(std::min(i, k - 1), plane));
    internal::TransposeVectors<T, m, kLanes<T>>(v);
    internal::StoreRows<T, m * sizeof(T)>(to, groups, v);
  };
  for (std::size_t row = rows.extent; row > 0; --row, dst += rows.dst_step, src += rows.src_step) {
    for (std::size_t at = 0; at + kLanes<T> < count; at += kLanes<T>)
      vec(dst + at * group, src + at * sizeof(T));
    const std::size_t last = count - kLanes<T>;
    std::byte buffer[(kLanes<T> + 1) * m * sizeof(T)];
    vec(buffer, src + last * sizeof(T));
    std::memcpy(dst + last * group, buffer, kLanes<T> * group);
  }
}

// Undoes InterleaveManyRows; the planes lie in the target.
template <typename T, std::size_t m>
void DeinterleaveManyRows(std::byte* dst, const std::byte* src, const Loop& rows, std::ptrdiff_t plane,
                          std::size_t count, std::size_t k) {
  const std::size_t group = k * sizeof(T);
  const RowSteps groups(static_cast<std::ptrdiff_t>(group));
  const auto vec = [&](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
    Vec<T> v[m];
    internal::LoadRows<T, m * sizeof(T)>(v, from, groups);
    internal::TransposeVectors<T, kLanes<T>, m>(v);
    for (std::size_t i = 0; i < k; ++i) Store(to + Offset(i, plane), v[i]);
  };
  for (std::size_t row = rows.extent; row > 0; --row, dst += rows.dst_step, src += rows.src_step) {
    for (std::size_t at = 0; at + kLanes<T> < count; at += kLanes<T>)
      vec(dst + at * sizeof(T), src + at * group);
    const std::size_t last = count - kLanes<T>;
    std::byte buffer[(kLanes<T> + 1) * m * sizeof(T)];
    std::memcpy(buffer, src + last * group, kLanes<T> * group);
    vec(dst + last * sizeof(T), buffer);
  }
}

}  // namespace zeb_custom_ops::detail
