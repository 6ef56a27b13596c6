// Space to batch: the sub-grids of padded planes become batch items.
#pragma once

namespace zeb_custom_ops::kernels {

// The input N x C x H x W, the output N_out x C_out x H_out x W_out, the block and the padding in front, in elements.
// Both are dense; the padding behind follows from the output's extents.
struct SpaceToBatchShape {
  unsigned N, C, H, W;
  unsigned N_out, C_out, H_out, W_out;
  unsigned block_height, block_width;
  unsigned pad_top, pad_left;
};

// The formula. Takes every shape: positions wrap at 32 bits, and nothing holds them inside the input. Nothing is
// written where an extent of the output, N or block_width is 0. The data must not overlap.
template <typename T>
void PlainSpaceToBatch(T* out, const T* in, const SpaceToBatchShape& shape, T padding);

// The same where N_out is block_height * block_width * N, C_out is C, no extent of the output is 0, and the extents
// of either side, H + pad_top and W + pad_left fit 32 bits.
template <typename T>
void SpaceToBatch(T* out, const T* in, const SpaceToBatchShape& shape, T padding);

}  // namespace zeb_custom_ops::kernels
