// Interleaving: a few planes to and from elements that lie next to each other. The structure loads and stores of arm64
// do it on the way; elsewhere it is shuffles.
#pragma once

#include <cstddef>

#include "copy/loop.h"
#include "simd/simd.h"

namespace zeb_custom_ops::detail {

// Interleaves `count` elements of k planes, `plane` bytes apart, for each of the rows.
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
