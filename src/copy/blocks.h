// The correspondence behind space to batch and batch to space: a plane, and the sub-grids of its blocks.
//
// A plane with a frame of padding (or crop) around it is cut into blocks of block_height x block_width elements. The
// elements that have the same position (bh, bw) in their blocks, one of each block, make up sub-grid (bh, bw), which is
// a small plane of its own. With blocks of 2 x 3, each element here shows the sub-grid it belongs to:
//
//     00 01 02 00 01 02
//     10 11 12 10 11 12     sub-grid 12 is the last column of each block, second row:
//     00 01 02 00 01 02     2 x 2 elements here
//     10 11 12 10 11 12
//
// Element (h, w) of sub-grid (bh, bw) is element (h * block_height + bh, w * block_width + bw) of the framed plane.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "copy/strided_copy.h"

namespace zeb_custom_ops::detail {

// The indices from `begin` up to, not including, `end`.
struct IndexRange {
  std::size_t begin;
  std::size_t end;

  bool empty() const { return begin >= end; }
  std::size_t count() const { return end - begin; }  // of a range that is not empty
};

// The indices k below `count` for which start + k * step lies in [first, last).
inline IndexRange IndicesInside(std::size_t start, std::size_t step, std::size_t count, std::size_t first,
                                std::size_t last) {
  const auto first_index_from = [&](std::size_t position) {
    return position <= start ? 0 : std::min(count, (position - start + step - 1) / step);
  };
  return {first_index_from(first), first_index_from(last)};
}

// Some dense planes, and their sub-grids: one sub-grid of all planes after another, row by row of the block.
struct BlockGrid {
  std::size_t planes;  // batch items times channels
  std::size_t block_height;
  std::size_t block_width;
  std::size_t top;    // rows of the frame above a plane
  std::size_t left;   // columns of the frame to its left
  std::size_t H;      // rows of a plane, without the frame
  std::size_t W;      // columns of a plane
  std::size_t H_sub;  // rows of a sub-grid
  std::size_t W_sub;  // columns of a sub-grid

  // The rows and columns of a sub-grid that are not frame.
  IndexRange Rows(std::size_t bh) const { return IndicesInside(bh, block_height, H_sub, top, top + H); }
  IndexRange Columns(std::size_t bw) const { return IndicesInside(bw, block_width, W_sub, left, left + W); }

  // The first element of a plane in a sub-grid.
  std::size_t SubGridOffset(std::size_t bh, std::size_t bw, std::size_t plane) const {
    return ((bh * block_width + bw) * planes + plane) * H_sub * W_sub;
  }
};

// Calls body(first_plane, plane_count) for a few planes at a time: neighbours in a plane belong to sub-grids that lie
// far apart, and so all of them stay in the cache.
template <typename Body>
void ForPlanes(const BlockGrid& grid, std::size_t width, Body&& body) {
  constexpr std::size_t kChunkBytes = 65536;
  const std::size_t chunk =
      std::max<std::size_t>(1, kChunkBytes / std::max<std::size_t>(1, grid.H * grid.W * width));
  for (std::size_t plane = 0; plane < grid.planes; plane += chunk) {
    body(plane, std::min(chunk, grid.planes - plane));
  }
}

// Calls body(first, sub_grids, range) for what the sub-grids along one axis of the block have that is no frame: first for
// the indices that all of them share, then for those that single ones have before and behind. range_of(b) is what sub-grid b
// has, of `count` indices.
template <typename RangeOf, typename Body>
void ForEachPart(std::size_t block, std::size_t count, const RangeOf& range_of, const Body& body) {
  const IndexRange shared = {range_of(0).begin, range_of(block - 1).end};
  if (!shared.empty()) {
    body(0, block, shared);
    if (shared.count() == count) return;
  }
  for (std::size_t b = 0; b < block; ++b) {
    const IndexRange own = range_of(b);
    const IndexRange done = shared.empty() ? IndexRange{own.end, own.end} : shared;
    if (own.begin < done.begin) body(b, 1, IndexRange{own.begin, done.begin});
    if (done.end < own.end) body(b, 1, IndexRange{done.end, own.end});
  }
}

// Covers what the planes and their sub-grids have in common, for some of the planes, by strided copies: calls
// copy(plane_offset, sub_grid_offset, loops), where the loops have the planes' steps as `src_step`, the sub-grids' as
// `dst_step`.
//
// The sub-grids go together, so that whole planes are touched at once; where the frame ends inside a block, they differ by
// a row or a column on that side, and these go one by one.
template <typename Copy>
void ForEachPatch(const BlockGrid& grid, std::size_t first_plane, std::size_t plane_count, Copy&& copy) {
  const auto step = [](std::size_t elements) { return static_cast<std::ptrdiff_t>(elements); };
  const std::ptrdiff_t next_row_of_block = step(grid.SubGridOffset(1, 0, 0));
  const std::ptrdiff_t next_in_row = step(grid.SubGridOffset(0, 1, 0));
  const auto rows_of = [&](std::size_t bh) { return grid.Rows(bh); };
  const auto columns_of = [&](std::size_t bw) { return grid.Columns(bw); };
  ForEachPart(grid.block_height, grid.H_sub, rows_of, [&](std::size_t bh, std::size_t bhs, IndexRange rows) {
    ForEachPart(grid.block_width, grid.W_sub, columns_of,
                [&](std::size_t bw, std::size_t bws, IndexRange columns) {
                  const std::size_t h = rows.begin * grid.block_height + bh - grid.top;
                  const std::size_t w = columns.begin * grid.block_width + bw - grid.left;
                  const std::array<Loop, 5> loops = {{
                      {plane_count, step(grid.H * grid.W), step(grid.H_sub * grid.W_sub)},
                      {bhs, step(grid.W), next_row_of_block},
                      {rows.count(), step(grid.block_height * grid.W), step(grid.W_sub)},
                      {bws, 1, next_in_row},
                      {columns.count(), step(grid.block_width), 1},
                  }};
                  copy((first_plane * grid.H + h) * grid.W + w,
                       grid.SubGridOffset(bh, bw, first_plane) + rows.begin * grid.W_sub + columns.begin,
                       std::span<const Loop, 5>(loops));
                });
  });
}

// Short rows of which the frame takes a part: whole blocks of them, frame included, go through scratch, so that what a
// sub-grid has of them is one run.
//
// Scratch holds rows of W_sub * block_width elements. Those of a plane that are in row bh of their blocks lie one behind the
// other there, for a few planes.
struct FramedRows {
  static constexpr std::size_t kBytes = 8192;
  static constexpr std::size_t kShortBytes = 64;
  static constexpr std::size_t kManyElements = 256;

  std::size_t row;     // elements of a framed row
  std::size_t left;    // of these, the first that is no frame
  std::size_t copied;  // how many are none

  explicit FramedRows(const BlockGrid& grid)
      : row(grid.W_sub * grid.block_width),
        left(std::min(grid.left, row)),
        copied(std::min(grid.W, row - left)) {}

  // Whether scratch pays for elements of this width. Chosen by the instructions of random shapes.
  bool Pays(const BlockGrid& grid, std::size_t width) const {
    return grid.block_width > 1 && copied < row && grid.W > grid.block_width && row * width <= kShortBytes &&
           grid.planes * grid.H * grid.W >= kManyElements;
  }
};

// Calls body(bh, plane, planes, rows): for each row of the block and a few planes at a time, the rows of their sub-grids that
// are not frame, as many as scratch holds.
template <typename Body>
void ForEachBand(const BlockGrid& grid, std::size_t rows_in_scratch, const Body& body) {
  for (std::size_t bh = 0; bh < grid.block_height; ++bh) {
    const IndexRange all = grid.Rows(bh);
    if (all.empty()) continue;
    const std::size_t at_once = std::min(all.count(), rows_in_scratch);
    const std::size_t planes_at_once = rows_in_scratch / at_once;
    for (std::size_t plane = 0; plane < grid.planes; plane += planes_at_once) {
      const std::size_t planes = std::min(planes_at_once, grid.planes - plane);
      for (std::size_t row = all.begin; row < all.end; row += at_once) {
        body(bh, plane, planes, IndexRange{row, std::min(row + at_once, all.end)});
      }
    }
  }
}

}  // namespace zeb_custom_ops::detail
