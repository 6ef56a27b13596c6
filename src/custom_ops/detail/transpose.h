// Transposes in registers, and planes of any size made of them.
//
// Number the elements of a few vectors through: vector 0 lane 0, lane 1, ..., vector 1 lane 0, ... Zipping
// the first half of the vectors with the second half sends element p to place 2p: it rotates the bits of the
// number to the left by one. A tile of m rows with n elements numbers its elements i * n + j; after log2(m)
// such steps the number is j * m + i, which is the transposed tile. Unzipping rotates to the right: log2(n)
// steps do the same. This holds whether a row fills a vector or several rows share one.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <type_traits>

#include "vec.h"

namespace zeb_custom_ops::detail {

// One loop of a walk: `extent` steps, each moving `src_step` on in the source and `dst_step` in the target.
struct Axis {
  std::size_t extent;
  std::ptrdiff_t src_step;
  std::ptrdiff_t dst_step;
};

// `i` steps of an axis, as an offset.
inline std::ptrdiff_t Offset(std::size_t i, std::ptrdiff_t step) {
  return static_cast<std::ptrdiff_t>(i) * step;
}

namespace internal {

// `count` vectors of rows of `row` bytes; rows shorter than a vector share one.
template <typename T, std::size_t row, std::size_t count>
inline void LoadRows(Vec<T> (&v)[count], const std::byte* src, std::ptrdiff_t stride) {
  if constexpr (row >= kVecBytes) {
    for (std::size_t i = 0; i < count; ++i) v[i] = Load<Vec<T>>(src + Offset(i, stride));
  } else {
    constexpr std::size_t rows = kVecBytes / row;
    for (std::size_t i = 0; i < count; ++i) {
      Vec<Word<row>> shared = {};
      for (std::size_t k = 0; k < rows; ++k) shared[k] = Load<Word<row>>(src + Offset(i * rows + k, stride));
      v[i] = reinterpret_cast<Vec<T>>(shared);
    }
  }
}

template <typename T, std::size_t row, std::size_t count>
inline void StoreRows(std::byte* dst, std::ptrdiff_t stride, const Vec<T> (&v)[count]) {
  if constexpr (row >= kVecBytes) {
    for (std::size_t i = 0; i < count; ++i) Store(dst + Offset(i, stride), v[i]);
  } else {
    constexpr std::size_t rows = kVecBytes / row;
    for (std::size_t i = 0; i < count; ++i) {
      const auto shared = reinterpret_cast<Vec<Word<row>>>(v[i]);
      for (std::size_t k = 0; k < rows; ++k) Store<Word<row>>(dst + Offset(i * rows + k, stride), shared[k]);
    }
  }
}

// Rotates the element numbers of `count` vectors to the left by one bit.
template <typename T, std::size_t count>
inline void ZipHalves(Vec<T> (&v)[count]) {
  Vec<T> out[count];
  for (std::size_t i = 0; i < count / 2; ++i) {
    out[2 * i] = ZipLow<T>(v[i], v[i + count / 2]);
    out[2 * i + 1] = ZipHigh<T>(v[i], v[i + count / 2]);
  }
  for (std::size_t i = 0; i < count; ++i) v[i] = out[i];
}

// Rotates them to the right.
template <typename T, std::size_t count>
inline void UnzipPairs(Vec<T> (&v)[count]) {
  Vec<T> out[count];
  for (std::size_t i = 0; i < count / 2; ++i) {
    out[i] = UnzipEven<T>(v[2 * i], v[2 * i + 1]);
    out[i + count / 2] = UnzipOdd<T>(v[2 * i], v[2 * i + 1]);
  }
  for (std::size_t i = 0; i < count; ++i) v[i] = out[i];
}

constexpr std::size_t Log2(std::size_t power) { return static_cast<std::size_t>(std::bit_width(power)) - 1; }

}  // namespace internal

// Transposes m rows of n elements into n rows of m, plainly.
template <typename T, std::size_t m, std::size_t n>
inline void PlainTransposeTile(std::byte* dst, std::ptrdiff_t dst_stride, const std::byte* src,
                               std::ptrdiff_t src_stride) {
  for (std::size_t i = 0; i < m; ++i) {
    for (std::size_t j = 0; j < n; ++j) {
      const std::byte* from = src + Offset(i, src_stride) + j * sizeof(T);
      Store(dst + Offset(j, dst_stride) + i * sizeof(T), Load<T>(from));
    }
  }
}

// The same in registers; m and n are powers of two and no row is longer than a vector. Rows that follow each
// other without a gap (`src_dense`, `dst_dense`) move as whole vectors. Strides are bytes.
template <typename T, std::size_t m, std::size_t n, bool src_dense = false, bool dst_dense = false>
inline void TransposeTile(std::byte* dst, std::ptrdiff_t dst_stride, const std::byte* src,
                          std::ptrdiff_t src_stride) {
  constexpr std::size_t count = m * n / kLanes<T>;
  if constexpr (count < 2) {
    PlainTransposeTile<T, m, n>(dst, dst_stride, src, src_stride);
  } else {
    constexpr std::ptrdiff_t kDense = kVecBytes;
    Vec<T> v[count];
    internal::LoadRows<T, src_dense ? kVecBytes : n * sizeof(T)>(v, src, src_dense ? kDense : src_stride);
    if constexpr (m <= n) {
      for (std::size_t step = 0; step < internal::Log2(m); ++step) internal::ZipHalves<T>(v);
    } else {
      for (std::size_t step = 0; step < internal::Log2(n); ++step) internal::UnzipPairs<T>(v);
    }
    internal::StoreRows<T, dst_dense ? kVecBytes : m * sizeof(T)>(dst, dst_dense ? kDense : dst_stride, v);
  }
}

namespace internal {

// Calls `body` with the largest power of two, from 2 to `max`, that fits into `extent`.
template <std::size_t max, typename Body>
inline void WithTileExtent(std::size_t extent, const Body& body) {
  if constexpr (max > 2) {
    if (extent < max) return WithTileExtent<max / 2>(extent, body);
  }
  body(std::integral_constant<std::size_t, max>{});
}

// Where the blocks of `block` elements start that cover `extent`: the last one overlaps its neighbour.
inline std::size_t BlockStart(std::size_t i, std::size_t extent, std::size_t block) {
  return std::min(i, extent - block);
}

}  // namespace internal

// Transposes a plane whose unit step lies along `s` in the source and along `d` in the target. Both have two
// elements or more; steps are bytes.
template <typename T>
inline void TransposePlane(std::byte* dst, const std::byte* src, const Axis& d, const Axis& s) {
  internal::WithTileExtent<kLanes<T>>(d.extent, [&](auto m) {
    internal::WithTileExtent<kLanes<T>>(s.extent, [&](auto n) {
      const auto walk = [&](auto src_dense, auto dst_dense) {
        for (std::size_t i = 0; i < d.extent; i += m) {
          const std::size_t row = internal::BlockStart(i, d.extent, m);
          for (std::size_t j = 0; j < s.extent; j += n) {
            const std::size_t column = internal::BlockStart(j, s.extent, n);
            TransposeTile<T, m, n, src_dense, dst_dense>(
                dst + row * sizeof(T) + Offset(column, s.dst_step), s.dst_step,
                src + column * sizeof(T) + Offset(row, d.src_step), d.src_step);
          }
        }
      };
      if (m < kLanes<T> && s.dst_step == Offset(m, sizeof(T))) {
        walk(std::false_type{}, std::true_type{});
      } else if (n < kLanes<T> && d.src_step == Offset(n, sizeof(T))) {
        walk(std::true_type{}, std::false_type{});
      } else {
        walk(std::false_type{}, std::false_type{});
      }
    });
  });
}

}  // namespace zeb_custom_ops::detail
