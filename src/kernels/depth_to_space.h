// Depth to space: b * b groups of channels become blocks of b x b elements.
#pragma once

namespace zeb_custom_ops::kernels {

// The input N x C x H x W, the output's channels and the block size b; the output is N x C_out x (H * b) x (W * b).
// Both are dense.
struct DepthToSpaceShape {
  unsigned N, C, H, W;
  unsigned C_out;
  unsigned b;
};

// The formula. Takes every shape: positions wrap at 32 bits, and an element whose position is not below `out_count`,
// both taken as signed, is left out. Returns how many were. Nothing is written where an extent or, in 32 bits, b * b
// is 0. The data must not overlap.
template <typename T>
unsigned PlainDepthToSpace(T* out, const T* in, const DepthToSpaceShape& shape, int out_count);

// The same where C is C_out * b * b, and N * C * H * W is neither above `out_count` nor 2^31 or more.
template <typename T>
void DepthToSpace(T* out, const T* in, const DepthToSpaceShape& shape);

}  // namespace zeb_custom_ops::kernels
