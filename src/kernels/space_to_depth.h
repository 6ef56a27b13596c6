// Space to depth: blocks of b x b elements become b * b groups of channels.
#pragma once

namespace zeb_custom_ops::kernels {

// The input N x C x H x W, the output N x C_out x H_out x W_out and the block size b. Both are dense.
struct SpaceToDepthShape {
  unsigned N, C, H, W;
  unsigned C_out, H_out, W_out;
  unsigned b;
};

// The formula. Takes every shape: positions wrap at 32 bits, and nothing holds them inside the output. Nothing is
// written where an extent of the input or b is 0. The data must not overlap.
template <typename T>
void PlainSpaceToDepth(T* out, const T* in, const SpaceToDepthShape& shape);

// The same where no extent of the input is 0, C_out is C * b * b, H is H_out * b, W is W_out * b, and N * C * H * W
// fits 32 bits.
template <typename T>
void SpaceToDepth(T* out, const T* in, const SpaceToDepthShape& shape);

}  // namespace zeb_custom_ops::kernels
