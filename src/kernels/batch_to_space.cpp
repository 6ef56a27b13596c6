#include "kernels/batch_to_space.h"

#include <array>
#include <cstddef>
#include <span>

#include "copy/blocks.h"
#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

using detail::BlockGrid;
using detail::Loop;

template <typename T>
void PlainBatchToSpace(T* out, const T* in, const BatchToSpaceShape& shape) {
  const auto [C, H, W, N_out, C_out, H_out, W_out, block_height, block_width, crop_top, crop_left] = shape;
  if (block_height == 0 || block_width == 0) return;
  // Deliberate: the ends wrap like every position; a crop near 2^32 leaves nothing to do.
  const unsigned h_end = crop_top + H_out;
  const unsigned w_end = crop_left + W_out;
  for (unsigned n = 0; n < N_out; ++n) {
    for (unsigned h = crop_top; h < h_end; ++h) {
      for (unsigned w = crop_left; w < w_end; ++w) {
        const unsigned sub_grid = h % block_height * block_width + w % block_width;
        for (unsigned c = 0; c < C_out; ++c) {
          out[((n * C_out + c) * H_out + (h - crop_top)) * W_out + (w - crop_left)] =
              in[((sub_grid * N_out + n) * C + c) * H * W + h / block_height * W + w / block_width];
        }
      }
    }
  }
}

template <typename T>
void BatchToSpace(T* out, const T* in, const BatchToSpaceShape& shape) {
  const BlockGrid grid = {
      .planes = std::size_t{shape.N_out} * shape.C,
      .block_height = shape.block_height,
      .block_width = shape.block_width,
      .top = shape.crop_top,
      .left = shape.crop_left,
      .H = shape.H_out,
      .W = shape.W_out,
      .H_sub = shape.H,
      .W_sub = shape.W,
  };
  detail::ForPlanes(grid, sizeof(T), [&](std::size_t plane, std::size_t planes) {
    detail::ForEachPatch(
        grid, plane, planes,
        [&](std::size_t plane_offset, std::size_t sub_grid_offset, std::span<const Loop, 5> loops) {
          std::array<Loop, 5> back;
          std::transform(loops.begin(), loops.end(), back.begin(), [](const Loop& loop) {
            return Loop{loop.extent, loop.dst_step, loop.src_step};
          });
          detail::StridedCopy(out + plane_offset, in + sub_grid_offset, std::span<const Loop>(back));
        });
  });
}

template void PlainBatchToSpace<int>(int*, const int*, const BatchToSpaceShape&);
template void PlainBatchToSpace<short>(short*, const short*, const BatchToSpaceShape&);
template void PlainBatchToSpace<char>(char*, const char*, const BatchToSpaceShape&);
template void BatchToSpace<int>(int*, const int*, const BatchToSpaceShape&);
template void BatchToSpace<short>(short*, const short*, const BatchToSpaceShape&);
template void BatchToSpace<char>(char*, const char*, const BatchToSpaceShape&);

}  // namespace zeb_custom_ops::kernels
