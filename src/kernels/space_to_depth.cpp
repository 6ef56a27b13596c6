#include "kernels/space_to_depth.h"

#include <algorithm>
#include <cstddef>

#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

template <typename T>
void PlainSpaceToDepth(T* out, const T* in, const SpaceToDepthShape& shape) {
  const auto [N, C, H, W, C_out, H_out, W_out, b] = shape;
  if (b == 0) return;
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned h = 0; h < H; ++h) {
      for (unsigned w = 0; w < W; ++w) {
        const unsigned group = h % b * b + w % b;
        for (unsigned c = 0; c < C; ++c) {
          const unsigned c_out = group * C + c;
          out[((n * C_out + c_out) * H_out + h / b) * W_out + w / b] = in[((n * C + c) * H + h) * W + w];
        }
      }
    }
  }
}

template <typename T>
void SpaceToDepth(T* out, const T* in, const SpaceToDepthShape& shape) {
  const auto [N, C, H, W, C_out, H_out, W_out, b] = shape;
  const unsigned G = C * H_out;  // rows of one group of channels
  // A few rows of every group at a time: neighbours in the input are read while they are in the cache.
  constexpr unsigned kChunkBytes = 65536;
  const std::size_t chunk = std::max<std::size_t>(1, kChunkBytes / (std::size_t{b} * b * W_out * sizeof(T)));
  for (std::size_t row = 0; row < G; row += chunk) {
    detail::StridedCopy(out + row * W_out, in + row * b * W,
                        {
                            {N, G * b * W, b * b * G * W_out},
                            {std::min<std::size_t>(chunk, G - row), b * W, W_out},
                            {b, W, b * G * W_out},  // bh
                            {b, 1, G * W_out},      // bw
                            {W_out, b, 1},
                        });
  }
}

template void PlainSpaceToDepth<int>(int*, const int*, const SpaceToDepthShape&);
template void PlainSpaceToDepth<short>(short*, const short*, const SpaceToDepthShape&);
template void PlainSpaceToDepth<char>(char*, const char*, const SpaceToDepthShape&);
template void SpaceToDepth<int>(int*, const int*, const SpaceToDepthShape&);
template void SpaceToDepth<short>(short*, const short*, const SpaceToDepthShape&);
template void SpaceToDepth<char>(char*, const char*, const SpaceToDepthShape&);

}  // namespace zeb_custom_ops::kernels
