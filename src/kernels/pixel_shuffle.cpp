#include "kernels/pixel_shuffle.h"

#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

template <typename T>
void PlainPixelShuffle(T* out, const T* in, const PixelShuffleShape& shape) {
  const auto [N, C, H, W, r] = shape;
  unsigned src = 0;
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned c = 0; c < C; ++c) {
      const unsigned C_out =
          C / (r * r);  // NOLINT(clang-analyzer-core.DivideZero): callers refuse such a factor
      const unsigned oc = c / (r * r);
      const unsigned dy = c / r % r;
      const unsigned dx = c % (r * r) % r;
      for (unsigned h = 0; h < H; ++h) {
        unsigned dst = dx + ((n * C_out + oc) * (r * H) + h * r + dy) * (r * W);
        for (unsigned w = 0; w < W; ++w, dst += r) out[dst] = in[src++];
      }
    }
  }
}

template <typename T>
void PixelShuffle(T* out, const T* in, const PixelShuffleShape& shape) {
  const auto [N, C, H, W, r] = shape;
  const unsigned C_out = C / (r * r);
  detail::StridedCopy(out, in,
                      {
                          {N * C_out, r * r * H * W, r * H * r * W},
                          {H, W, r * r * W},
                          {r, r * H * W, r * W},  // dy
                          {r, H * W, 1},          // dx
                          {W, 1, r},
                      });
}

template void PlainPixelShuffle<int>(int*, const int*, const PixelShuffleShape&);
template void PlainPixelShuffle<short>(short*, const short*, const PixelShuffleShape&);
template void PlainPixelShuffle<char>(char*, const char*, const PixelShuffleShape&);
template void PixelShuffle<int>(int*, const int*, const PixelShuffleShape&);
template void PixelShuffle<short>(short*, const short*, const PixelShuffleShape&);
template void PixelShuffle<char>(char*, const char*, const PixelShuffleShape&);

}  // namespace zeb_custom_ops::kernels
