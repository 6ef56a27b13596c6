// The correspondence behind space to batch and batch to space: a picture, and the phases of its blocks.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "copy/strided_copy.h"

namespace zeb_custom_ops::detail {

// Steps `begin` to `end`, the latter not included.
struct Steps {
  std::size_t begin;
  std::size_t end;

  bool empty() const { return begin >= end; }
  std::size_t count() const { return end - begin; }  // where there are any
};

// The steps k below `count` for which phase + k * block lies in [first, last).
inline Steps StepsInside(std::size_t phase, std::size_t block, std::size_t count, std::size_t first,
                         std::size_t last) {
  const auto first_step_from = [&](std::size_t position) {
    return position <= phase ? 0 : std::min(count, (position - phase + block - 1) / block);
  };
  return {first_step_from(first), first_step_from(last)};
}

// A framed picture is cut into blocks of block_height x block_width elements. All elements that have the same
// place (bh, bw) in their block make up one phase, a small picture of its own. Element (h, w) of phase
// (bh, bw) is element (h * block_height + bh, w * block_width + bw) of the framed picture, whose first `top`
// rows and `left` columns are frame. The phases follow each other row by row, `planes` pictures each.
struct BlockGrid {
  std::size_t planes;  // pictures: batch items times channels
  std::size_t block_height;
  std::size_t block_width;
  std::size_t top;
  std::size_t left;
  std::size_t H;        // rows of a picture, without the frame
  std::size_t W;        // columns of a picture
  std::size_t H_phase;  // rows of a phase
  std::size_t W_phase;  // columns of a phase

  Steps Rows(std::size_t bh) const { return StepsInside(bh, block_height, H_phase, top, top + H); }
  Steps Columns(std::size_t bw) const { return StepsInside(bw, block_width, W_phase, left, left + W); }
  // The columns that lie inside the picture in every phase of a block row.
  Steps SharedColumns() const { return {Columns(0).begin, Columns(block_width - 1).end}; }

  // The first element of a plane in a phase.
  std::size_t PhaseOffset(std::size_t bh, std::size_t bw, std::size_t plane) const {
    return ((bh * block_width + bw) * planes + plane) * H_phase * W_phase;
  }
};

// Calls body(first_plane, plane_count) for a few planes at a time: rows that lie side by side in a picture belong
// to phases that lie far apart, and so all of them stay in the cache.
template <typename Body>
void ForPlanes(const BlockGrid& grid, std::size_t width, Body&& body) {
  constexpr std::size_t kChunkBytes = 65536;
  const std::size_t chunk =
      std::max<std::size_t>(1, kChunkBytes / std::max<std::size_t>(1, grid.H * grid.W * width));
  for (std::size_t plane = 0; plane < grid.planes; plane += chunk) {
    body(plane, std::min(chunk, grid.planes - plane));
  }
}

// Covers what the pictures and their phases have in common, for some of the planes, by walks: calls
// walk(picture_offset, phase_offset, axes), where the axes have the picture's steps as `src_step`, the
// phases' as `dst_step`.
//
// The phases of one block row go together, so that whole rows of the picture are touched at once; where the
// frame cuts through a block, the phases differ by one column at each side, which go separately.
template <typename Walk>
void ForEachPatch(const BlockGrid& grid, std::size_t first_plane, std::size_t plane_count, Walk&& walk) {
  const auto step = [](std::size_t elements) { return static_cast<std::ptrdiff_t>(elements); };
  const std::size_t phase_step = grid.PhaseOffset(0, 1, 0);
  const Steps shared = grid.SharedColumns();
  for (std::size_t bh = 0; bh < grid.block_height; ++bh) {
    const Steps rows = grid.Rows(bh);
    if (rows.empty()) continue;
    const auto patch = [&](std::size_t first_bw, std::size_t phases, Steps columns) {
      if (columns.empty()) return;
      const std::size_t h = rows.begin * grid.block_height + bh - grid.top;
      const std::size_t w = columns.begin * grid.block_width + first_bw - grid.left;
      const std::array<Loop, 4> axes = {{
          {plane_count, step(grid.H * grid.W), step(grid.H_phase * grid.W_phase)},
          {rows.count(), step(grid.block_height * grid.W), step(grid.W_phase)},
          {phases, 1, step(phase_step)},
          {columns.count(), step(grid.block_width), 1},
      }};
      walk((first_plane * grid.H + h) * grid.W + w,
           grid.PhaseOffset(bh, first_bw, first_plane) + rows.begin * grid.W_phase + columns.begin,
           std::span<const Loop>(axes));
    };
    patch(0, grid.block_width, shared);
    for (std::size_t bw = 0; bw < grid.block_width; ++bw) {
      const Steps own = grid.Columns(bw);
      const Steps done = shared.empty() ? Steps{own.end, own.end} : shared;
      patch(bw, 1, {own.begin, done.begin});
      patch(bw, 1, {done.end, own.end});
    }
  }
}

}  // namespace zeb_custom_ops::detail
