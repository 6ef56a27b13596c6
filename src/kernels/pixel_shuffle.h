// The pixel shuffle: each group of r * r channels becomes one channel, its elements blocks of r x r.
#pragma once

namespace zeb_custom_ops::kernels {

// The input N x C x H x W and the factor; the output is N x (C / r^2) x (r * H) x (r * W). Both are dense.
struct PixelShuffleShape {
  unsigned N, C, H, W;
  unsigned r;
};

// The formula. Takes every shape: positions wrap at 32 bits, and channels may be no multiple of r * r. Where N and C
// are not 0, r * r must not be 0 in 32 bits. An extent of 0 writes nothing. The data must not overlap.
template <typename T>
void PlainPixelShuffle(T* out, const T* in, const PixelShuffleShape& shape);

// The same where C is a multiple of r * r, and r * r and N * C * H * W fit 32 bits.
template <typename T>
void PixelShuffle(T* out, const T* in, const PixelShuffleShape& shape);

}  // namespace zeb_custom_ops::kernels
