#include "kernels/depth_to_space.h"

#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

template <typename T>
unsigned PlainDepthToSpace(T* out, const T* in, const DepthToSpaceShape& shape, int out_count) {
  const auto [N, C, H, W, C_out, b] = shape;
  const unsigned in_count = N * C * H * W;
  const unsigned G = C_out * H;  // rows of one group of channels
  if (G == 0 || b * b == 0) return 0;
  unsigned left_out = 0;
  for (unsigned i = 0; i < in_count; ++i) {
    const unsigned w = i % W;
    const unsigned a = i / W / G;  // the group, counted through the batch
    const unsigned r = i / W % G;
    const unsigned bw = a % b;
    const unsigned bh = a / b % b;
    const unsigned n = a / (b * b);
    // Deliberate: the comparison is signed.
    const int position = static_cast<int>(bw + b * (w + W * (bh + b * (r + n * G))));
    if (position < out_count) {
      out[position] = in[i];
    } else {
      ++left_out;
    }
  }
  return left_out;
}

template <typename T>
void DepthToSpace(T* out, const T* in, const DepthToSpaceShape& shape) {
  const auto [N, C, H, W, C_out, b] = shape;
  const unsigned G = C_out * H;
  detail::StridedCopy(out, in,
                      {
                          {N, b * b * G * W, G * b * W * b},
                          {G, W, b * W * b},
                          {b, b * G * W, W * b},  // bh
                          {b, G * W, 1},          // bw
                          {W, 1, b},
                      });
}

template unsigned PlainDepthToSpace<int>(int*, const int*, const DepthToSpaceShape&, int);
template unsigned PlainDepthToSpace<short>(short*, const short*, const DepthToSpaceShape&, int);
template unsigned PlainDepthToSpace<char>(char*, const char*, const DepthToSpaceShape&, int);
template void DepthToSpace<int>(int*, const int*, const DepthToSpaceShape&);
template void DepthToSpace<short>(short*, const short*, const DepthToSpaceShape&);
template void DepthToSpace<char>(char*, const char*, const DepthToSpaceShape&);

}  // namespace zeb_custom_ops::kernels
