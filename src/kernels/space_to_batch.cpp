#include "kernels/space_to_batch.h"

#include <cstddef>
#include <iterator>
#include <span>

#include "copy/blocks.h"
#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

using detail::BlockGrid;
using detail::FramedRows;
using detail::IndexRange;
using detail::Loop;

template <typename T>
void PlainSpaceToBatch(T* out, const T* in, const SpaceToBatchShape& shape, T padding) {
  const auto [N, C, H, W, N_out, C_out, H_out, W_out, block_height, block_width, pad_top, pad_left] = shape;
  if (N == 0 || block_width == 0) return;
  for (unsigned b = 0; b < N_out; ++b) {
    const unsigned n = b % N;
    const unsigned bh = b / N / block_width;
    const unsigned bw = b / N % block_width;
    for (unsigned h_out = 0; h_out < H_out; ++h_out) {
      const unsigned h = bh + h_out * block_height;
      for (unsigned w_out = 0; w_out < W_out; ++w_out) {
        const unsigned w = bw + w_out * block_width;
        const bool outside = h < pad_top || h >= H + pad_top || w < pad_left || w >= W + pad_left;
        for (unsigned c = 0; c < C_out; ++c) {
          out[((b * C_out + c) * H_out + h_out) * W_out + w_out] =
              outside ? padding : in[((n * C + c) * H + (h - pad_top)) * W + (w - pad_left)];
        }
      }
    }
  }
}

namespace {

// Fills what lies outside `rows` and `columns` of a plane of H x W elements: one run up to the first of them,
// one from the end of each row to the start of the next, one behind the last.
template <typename T>
void FillFrame(T* plane, std::size_t H, std::size_t W, IndexRange rows, IndexRange columns, T value) {
  if (rows.empty() || columns.empty()) return detail::FillRun(plane, value, H * W);
  T* const end = plane + H * W;
  T* gap = plane;
  for (std::size_t h = rows.begin; h < rows.end; ++h) {
    T* const row = plane + h * W;
    detail::FillRun(gap, value, static_cast<std::size_t>(row + columns.begin - gap));
    gap = row + columns.end;
  }
  detail::FillRun(gap, value, static_cast<std::size_t>(end - gap));
}

// Fills, in all planes of all sub-grids of a row of the block, the rows `rows`.
template <typename T>
void FillRows(T* out, const BlockGrid& grid, std::size_t bh, IndexRange rows, T value) {
  if (rows.empty()) return;
  const auto step = [](std::size_t elements) { return static_cast<std::ptrdiff_t>(elements); };
  detail::StridedCopy(out + grid.SubGridOffset(bh, 0, 0) + rows.begin * grid.W_sub, &value,
                      {{grid.block_width, 0, step(grid.SubGridOffset(0, 1, 0))},
                       {grid.planes, 0, step(grid.H_sub * grid.W_sub)},
                       {rows.count() * grid.W_sub, 0, 1}});
}

// Rows of the input are put between their padding in scratch, from where they go to the sub-grids.
template <typename T>
void CopyFramedRows(T* out, const T* in, const BlockGrid& grid, const FramedRows& framed, T padding) {
  const auto step = [](std::size_t elements) { return static_cast<std::ptrdiff_t>(elements); };
  T scratch[FramedRows::kBytes / sizeof(T)];
  detail::FillRun(scratch, padding, std::size(scratch));
  for (std::size_t bh = 0; bh < grid.block_height; ++bh) {
    const IndexRange rows = grid.Rows(bh);
    if (rows.empty()) {
      FillRows(out, grid, bh, {0, grid.H_sub}, padding);
    } else {
      FillRows(out, grid, bh, {0, rows.begin}, padding);
      FillRows(out, grid, bh, {rows.end, grid.H_sub}, padding);
    }
  }
  detail::ForEachBand(grid, std::size(scratch) / framed.row,
                      [&](std::size_t bh, std::size_t plane, std::size_t planes, IndexRange rows) {
                        const std::size_t h = rows.begin * grid.block_height + bh - grid.top;
                        const std::size_t count = rows.count();
                        detail::StridedCopy(scratch + framed.left, in + (plane * grid.H + h) * grid.W,
                                            {{planes, step(grid.H * grid.W), step(count * framed.row)},
                                             {count, step(grid.block_height * grid.W), step(framed.row)},
                                             {framed.copied, 1, 1}});
                        detail::StridedCopy(
                            out + grid.SubGridOffset(bh, 0, plane) + rows.begin * grid.W_sub, scratch,
                            {{planes, step(count * framed.row), step(grid.H_sub * grid.W_sub)},
                             {grid.block_width, 1, step(grid.SubGridOffset(0, 1, 0))},
                             {count * grid.W_sub, step(grid.block_width), 1}});
                      });
}

}  // namespace

template <typename T>
void SpaceToBatch(T* out, const T* in, const SpaceToBatchShape& shape, T padding) {
  const BlockGrid grid = {
      .planes = std::size_t{shape.N} * shape.C,
      .block_height = shape.block_height,
      .block_width = shape.block_width,
      .top = shape.pad_top,
      .left = shape.pad_left,
      .H = shape.H,
      .W = shape.W,
      .H_sub = shape.H_out,
      .W_sub = shape.W_out,
  };
  const bool padded = grid.top != 0 || grid.left != 0 || grid.H_sub * grid.block_height != grid.H ||
                      grid.W_sub * grid.block_width != grid.W;
  if (const FramedRows framed(grid); framed.Pays(grid, sizeof(T))) {
    return CopyFramedRows(out, in, grid, framed, padding);
  }
  // Short rows are padded whole before the input comes over them: that takes less than a gap per row.
  constexpr std::size_t kShortRowBytes = 64;
  const bool short_rows = grid.W_sub * sizeof(T) < kShortRowBytes;

  detail::ForPlanes(grid, sizeof(T), [&](std::size_t plane, std::size_t planes) {
    const auto for_sub_grids = [&](auto&& fill) {
      for (std::size_t bh = 0; bh < grid.block_height; ++bh) {
        for (std::size_t bw = 0; bw < grid.block_width; ++bw) {
          fill(out + grid.SubGridOffset(bh, bw, plane), bh, bw);
        }
      }
    };
    const std::size_t plane_size = grid.H_sub * grid.W_sub;
    if (padded && short_rows) {
      for_sub_grids(
          [&](T* sub, std::size_t, std::size_t) { detail::FillRun(sub, padding, planes * plane_size); });
    }
    detail::ForEachPatch(
        grid, plane, planes,
        [&](std::size_t plane_offset, std::size_t sub_grid_offset, std::span<const Loop, 5> loops) {
          detail::StridedCopy(out + sub_grid_offset, in + plane_offset, std::span<const Loop>(loops));
        });
    if (padded && !short_rows) {
      for_sub_grids([&](T* sub, std::size_t bh, std::size_t bw) {
        for (std::size_t p = 0; p < planes; ++p) {
          FillFrame(sub + p * plane_size, grid.H_sub, grid.W_sub, grid.Rows(bh), grid.Columns(bw), padding);
        }
      });
    }
  });
}

template void PlainSpaceToBatch<int>(int*, const int*, const SpaceToBatchShape&, int);
template void PlainSpaceToBatch<short>(short*, const short*, const SpaceToBatchShape&, short);
template void PlainSpaceToBatch<char>(char*, const char*, const SpaceToBatchShape&, char);
template void SpaceToBatch<int>(int*, const int*, const SpaceToBatchShape&, int);
template void SpaceToBatch<short>(short*, const short*, const SpaceToBatchShape&, short);
template void SpaceToBatch<char>(char*, const char*, const SpaceToBatchShape&, char);

}  // namespace zeb_custom_ops::kernels
