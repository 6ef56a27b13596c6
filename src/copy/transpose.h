// Transposes in registers, and planes of any size made of them.
//
// Number the elements of a few vectors through: vector 0 lane 0, lane 1, ..., vector 1 lane 0, ... Zipping
// the first half of the vectors with the second half sends element p to position 2p: it rotates the bits of the
// number to the left by one. A tile of m rows with n elements numbers its elements i * n + j; after log2(m)
// such steps the number is j * m + i, which is the transposed tile. Unzipping rotates to the right: log2(n)
// steps do the same. This holds whether a row fills a vector or several rows share one.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <type_traits>

#include "copy/loop.h"
#include "simd/simd.h"

namespace zeb_custom_ops::detail {

// The distances from a row to the four below it, in bytes.
struct RowSteps {
  explicit constexpr RowSteps(std::ptrdiff_t stride)
      : one(stride), two(2 * stride), three(3 * stride), four(4 * stride) {}
  std::ptrdiff_t one, two, three, four;
};

namespace internal {

// Row `i` of a tile. Every fourth row is a base, and the others lie at three distances from theirs: on arm64
// that is one addition for four loads or stores.
template <typename Byte>
[[gnu::always_inline]] inline Byte* Row(Byte* base, const RowSteps& steps, std::size_t i) {
  base += Offset(i / 4, steps.four);
  return i % 4 == 0 ? base : base + (i % 4 == 1 ? steps.one : i % 4 == 2 ? steps.two : steps.three);
}

// `count` vectors of rows of `row` bytes; rows shorter than a vector share one, longer ones take several.
template <typename T, std::size_t row, std::size_t count>
[[gnu::always_inline]] inline void LoadRows(Vec<T> (&v)[count], const std::byte* src, const RowSteps& steps) {
  if constexpr (row >= kVecBytes) {
    constexpr std::size_t vecs = row / kVecBytes;
    for (std::size_t i = 0; i < count; ++i)
      v[i] = Load<Vec<T>>(Row(src, steps, i / vecs) + i % vecs * kVecBytes);
  } else {
    constexpr std::size_t rows = kVecBytes / row;
    for (std::size_t i = 0; i < count; ++i) {
      Vec<Word<row>> shared = {};
      for (std::size_t k = 0; k < rows; ++k) shared[k] = Load<Word<row>>(Row(src, steps, i * rows + k));
      v[i] = reinterpret_cast<Vec<T>>(shared);
    }
  }
}

// The same to the target.
template <typename T, std::size_t row, std::size_t count>
[[gnu::always_inline]] inline void StoreRows(std::byte* dst, const RowSteps& steps,
                                             const Vec<T> (&v)[count]) {
  if constexpr (row >= kVecBytes) {
    constexpr std::size_t vecs = row / kVecBytes;
    for (std::size_t i = 0; i < count; ++i) Store(Row(dst, steps, i / vecs) + i % vecs * kVecBytes, v[i]);
  } else {
    constexpr std::size_t rows = kVecBytes / row;
    for (std::size_t i = 0; i < count; ++i) {
      const auto shared = reinterpret_cast<Vec<Word<row>>>(v[i]);
      for (std::size_t k = 0; k < rows; ++k) Store<Word<row>>(Row(dst, steps, i * rows + k), shared[k]);
    }
  }
}

constexpr std::size_t Log2(std::size_t power) { return static_cast<std::size_t>(std::bit_width(power)) - 1; }

// Transposes m rows of n elements, numbered through in the vectors.
template <typename T, std::size_t m, std::size_t n, std::size_t count>
[[gnu::always_inline]] inline void TransposeVectors(Vec<T> (&v)[count]) {
  static_assert(m * n == count * kLanes<T>);
  if constexpr (m <= n) {
    for (std::size_t step = 0; step < Log2(m); ++step) ZipHalves<T>(v);
  } else {
    for (std::size_t step = 0; step < Log2(n); ++step) UnzipPairs<T>(v);
  }
}

}  // namespace internal

// Transposes m rows of n elements into n rows of m, plainly.
template <typename T, std::size_t m, std::size_t n>
inline void PlainTransposeTile(std::byte* dst, const RowSteps& dst_rows, const std::byte* src,
                               const RowSteps& src_rows) {
  for (std::size_t i = 0; i < m; ++i) {
    for (std::size_t j = 0; j < n; ++j) {
      const std::byte* from = internal::Row(src, src_rows, i) + j * sizeof(T);
      Store(internal::Row(dst, dst_rows, j) + i * sizeof(T), Load<T>(from));
    }
  }
}

// The same in registers; m and n are powers of two, and n elements fill at most a vector. Rows that follow each
// other without a gap (`src_dense`, `dst_dense`) move as whole vectors.
template <typename T, std::size_t m, std::size_t n, bool src_dense = false, bool dst_dense = false>
[[gnu::always_inline]] inline void TransposeTile(std::byte* dst, const RowSteps& dst_rows,
                                                 const std::byte* src, const RowSteps& src_rows) {
  constexpr std::size_t count = m * n / kLanes<T>;
  if constexpr (count < 1 || (count == 1 && sizeof(T) == 1 && !kShufflesBytes)) {
    PlainTransposeTile<T, m, n>(dst, dst_rows, src, src_rows);
  } else if constexpr (count == 1) {
    Vec<T> v[1];
    internal::LoadRows<T, src_dense ? kVecBytes : n * sizeof(T)>(v, src, src_rows);
    v[0] = TransposedWithin<T, m, n>(v[0]);
    internal::StoreRows<T, dst_dense ? kVecBytes : m * sizeof(T)>(dst, dst_rows, v);
  } else {
    constexpr RowSteps kDense(kVecBytes);
    Vec<T> v[count];
    internal::LoadRows<T, src_dense ? kVecBytes : n * sizeof(T)>(v, src, src_dense ? kDense : src_rows);
    internal::TransposeVectors<T, m, n>(v);
    internal::StoreRows<T, dst_dense ? kVecBytes : m * sizeof(T)>(dst, dst_dense ? kDense : dst_rows, v);
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

// Transposes a grid of whole tiles. Not inlined: the loops around it would take its registers.
template <typename T, std::size_t m, std::size_t n, bool src_dense, bool dst_dense>
[[gnu::noinline]] void TransposeGrid(std::byte* dst, const RowSteps& dst_steps, const std::byte* src,
                                     const RowSteps& src_steps, std::size_t m_tiles, std::size_t n_tiles) {
  // Copies, which no store can change.
  const RowSteps dst_rows = dst_steps;
  const RowSteps src_rows = src_steps;
  for (; n_tiles > 0; --n_tiles) {
    std::byte* to = dst;
    const std::byte* from = src;
    for (std::size_t tile = m_tiles; tile > 0; --tile) {
      TransposeTile<T, m, n, src_dense, dst_dense>(to, dst_rows, from, src_rows);
      to += m * sizeof(T);
      from += m < 4 ? src_rows.two : Offset(m / 4, src_rows.four);
    }
    dst += n < 4 ? dst_rows.two : Offset(n / 4, dst_rows.four);
    src += n * sizeof(T);
  }
}

// Covers an extent with blocks of up to `per_block` whole tiles, and a last tile that overlaps its neighbour
// where they do not fill it.
template <typename Body>
inline void ForBlocks(std::size_t extent, std::size_t tile, std::size_t per_block, const Body& body) {
  const std::size_t tiles = extent / tile;
  for (std::size_t i = 0; i < tiles; i += per_block) body(i * tile, std::min(per_block, tiles - i));
  if (tiles * tile < extent) body(extent - tile, 1);
}

// Transposes planes of a few tiles each, one tile at a time; where they do not fill a plane, the last ones overlap their
// neighbours.
template <typename T, std::size_t m, std::size_t n, bool src_dense, bool dst_dense>
[[gnu::noinline]] void TransposeSmallPlanes(std::byte* dst, const std::byte* src, const Loop& outer,
                                            const Loop& planes, const Loop& d, const Loop& s) {
  const RowSteps dst_rows(s.dst_step), src_rows(d.src_step);
  const std::size_t last_row = d.extent - m;
  const std::size_t last_column = s.extent - n;
  const Loop inner = planes;
  for (std::size_t i = 0; i < outer.extent; ++i) {
    std::byte* plane_to = dst + Offset(i, outer.dst_step);
    const std::byte* plane_from = src + Offset(i, outer.src_step);
    for (std::size_t left = inner.extent; left > 0;
         --left, plane_to += inner.dst_step, plane_from += inner.src_step) {
      for (std::size_t column = 0;; column = std::min(column + n, last_column)) {
        std::byte* const to = plane_to + Offset(column, dst_rows.one);
        const std::byte* const from = plane_from + column * sizeof(T);
        for (std::size_t row = 0;; row = std::min(row + m, last_row)) {
          TransposeTile<T, m, n, src_dense, dst_dense>(to + row * sizeof(T), dst_rows,
                                                       from + Offset(row, src_rows.one), src_rows);
          if (row == last_row) break;
        }
        if (column == last_column) break;
      }
    }
  }
}

// Transposes d_extent rows of s_extent elements in blocks of a cache line of 32 or 64 rows of the target, or as many
// more bytes of as many fewer rows: its lines are written whole, and what they take from the source, two lines of a
// row at most, is still at hand.
template <typename T, std::size_t m, std::size_t n, bool src_dense, bool dst_dense>
void TransposeBlocks(std::byte* dst, std::ptrdiff_t dst_stride, const std::byte* src,
                     std::ptrdiff_t src_stride, std::size_t d_extent, std::size_t s_extent) {
  constexpr std::size_t kLineBytes = 64;
  constexpr std::size_t kLines = std::min<std::size_t>(64, 2 * kLineBytes / sizeof(T));
  const std::size_t block_rows = kLineBytes / sizeof(T) * std::max<std::size_t>(1, kLines / s_extent);
  const RowSteps dst_rows(dst_stride), src_rows(src_stride);
  ForBlocks(s_extent, n, m < kLanes<T> ? s_extent : kLines / n, [&](std::size_t column, std::size_t n_tiles) {
    ForBlocks(d_extent, m, block_rows / m, [&](std::size_t row, std::size_t m_tiles) {
      TransposeGrid<T, m, n, src_dense, dst_dense>(
          dst + row * sizeof(T) + Offset(column, dst_stride), dst_rows,
          src + column * sizeof(T) + Offset(row, src_stride), src_rows, m_tiles, n_tiles);
    });
  });
}

}  // namespace internal

// Transposes planes of planes whose unit step lies along `s` in the source and along `d` in the target. Both have two
// elements or more; steps are bytes.
template <typename T>
inline void TransposePlanes(std::byte* dst, const std::byte* src, const Loop& outer, const Loop& planes,
                            const Loop& d, const Loop& s) {
  constexpr std::size_t kMostRows = sizeof(T) == 4 ? 2 * kLanes<T> : kLanes<T>;
  // Beyond it the cost of a block is little. Chosen by the instructions of random shapes.
  constexpr std::size_t kSmallPlane = 1024 / sizeof(T);
  internal::WithTileExtent<kMostRows>(d.extent, [&](auto m) {
    internal::WithTileExtent<kLanes<T>>(s.extent, [&](auto n) {
      const auto tiles = [&](auto src_dense, auto dst_dense) {
        if (d.extent * s.extent <= kSmallPlane) {
          return internal::TransposeSmallPlanes<T, m, n, src_dense, dst_dense>(dst, src, outer, planes, d, s);
        }
        for (std::size_t i = 0; i < outer.extent; ++i) {
          std::byte* to = dst + Offset(i, outer.dst_step);
          const std::byte* from = src + Offset(i, outer.src_step);
          for (std::size_t j = 0; j < planes.extent; ++j, to += planes.dst_step, from += planes.src_step) {
            internal::TransposeBlocks<T, m, n, src_dense, dst_dense>(to, s.dst_step, from, d.src_step,
                                                                     d.extent, s.extent);
          }
        }
      };
      if (m < kLanes<T> && s.dst_step == Offset(m, sizeof(T))) {
        tiles(std::false_type{}, std::true_type{});
      } else if (n < kLanes<T> && d.src_step == Offset(n, sizeof(T))) {
        tiles(std::true_type{}, std::false_type{});
      } else {
        tiles(std::false_type{}, std::false_type{});
      }
    });
  });
}

// The same of one plane.
template <typename T>
inline void TransposePlane(std::byte* dst, const std::byte* src, const Loop& d, const Loop& s) {
  TransposePlanes<T>(dst, src, {1, 0, 0}, {1, 0, 0}, d, s);
}

}  // namespace zeb_custom_ops::detail
