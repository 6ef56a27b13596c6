// Batch to space: batch items become the sub-grids of planes that are cropped.
#pragma once

namespace zeb_custom_ops::kernels {

// The input's C x H x W, the output N_out x C_out x H_out x W_out, the block and the crop in front, in elements. Both
// are dense; the crop behind follows from the output's extents, and the input's batch is not looked at.
struct BatchToSpaceShape {
  unsigned C, H, W;
  unsigned N_out, C_out, H_out, W_out;
  unsigned block_height, block_width;
  unsigned crop_top, crop_left;
};

// The formula. Takes every shape: positions wrap at 32 bits, and nothing holds them inside the input. Nothing is
// written where an extent of the output or of the block is 0. The data must not overlap.
template <typename T>
void PlainBatchToSpace(T* out, const T* in, const BatchToSpaceShape& shape);

// The same where C_out is C, no extent of the output is 0, crop_top + H_out is not above H * block_height nor
// crop_left + W_out above W * block_width, and what the output's items need of the input fits 32 bits.
template <typename T>
void BatchToSpace(T* out, const T* in, const BatchToSpaceShape& shape);

}  // namespace zeb_custom_ops::kernels
