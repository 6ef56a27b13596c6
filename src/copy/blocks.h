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
  // The columns that are not frame in any sub-grid of a row of the block.
  IndexRange SharedColumns() const { return {Columns(0).begin, Columns(block_width - 1).end}; }

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

// Covers what the planes and their sub-grids have in common, for some of the planes, by strided copies: calls
// copy(plane_offset, sub_grid_offset, loops), where the loops have the planes' steps as `src_step`, the sub-grids' as
// `dst_step`.
//
// The sub-grids of one row of the block go together, so that whole rows of a plane are touched at once; where the
// frame ends inside a block, the sub-grids differ by one column on that side, and these columns go one by one.
template <typename Copy>
void ForEachPatch(const BlockGrid& grid, std::size_t first_plane, std::size_t plane_count, Copy&& copy) {
  const auto step = [](std::size_t elements) { return static_cast<std::ptrdiff_t>(elements); };
  const std::size_t sub_grid_step = grid.SubGridOffset(0, 1, 0);
  const IndexRange shared = grid.SharedColumns();
  for (std::size_t bh = 0; bh < grid.block_height; ++bh) {
    const IndexRange rows = grid.Rows(bh);
    if (rows.empty()) continue;
    const auto patch = [&](std::size_t first_bw, std::size_t sub_grids, IndexRange columns) {
      if (columns.empty()) return;
      const std::size_t h = rows.begin * grid.block_height + bh - grid.top;
      const std::size_t w = columns.begin * grid.block_width + first_bw - grid.left;
      const std::array<Loop, 4> loops = {{
          {plane_count, step(grid.H * grid.W), step(grid.H_sub * grid.W_sub)},
          {rows.count(), step(grid.block_height * grid.W), step(grid.W_sub)},
          {sub_grids, 1, step(sub_grid_step)},
          {columns.count(), step(grid.block_width), 1},
      }};
      copy((first_plane * grid.H + h) * grid.W + w,
           grid.SubGridOffset(bh, first_bw, first_plane) + rows.begin * grid.W_sub + columns.begin,
           std::span<const Loop>(loops));
    };
    patch(0, grid.block_width, shared);
    for (std::size_t bw = 0; bw < grid.block_width; ++bw) {
      const IndexRange own = grid.Columns(bw);
      const IndexRange done = shared.empty() ? IndexRange{own.end, own.end} : shared;
      patch(bw, 1, {own.begin, done.begin});
      patch(bw, 1, {done.end, own.end});
    }
  }
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
    return grid.block_width > 1 && copied < row && grid.W >= 2 * grid.block_width &&
           row * width <= kShortBytes && grid.planes * grid.H * grid.W >= kManyElements;
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
