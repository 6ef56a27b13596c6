// The kernel of layer type "SPACETODEPTH".
#include <algorithm>
#include <cstddef>

#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/strided_copy.h"
#include "custom_ops/vek_spacetodepth.h"

namespace zeb_custom_ops {

using detail::Fits;
using detail::Saturating;

template <typename T>
void spacetodepth(const zeb::PuxDnnBufAttrs& in_attrs, const zeb::PuxDnnBufAttrs& out_attrs, T* in, T* out,
                  int block_size) {
  const unsigned N = in_attrs.GetBatch();
  const unsigned C = in_attrs.GetChannels();
  const unsigned H = in_attrs.GetHeight();
  const unsigned W = in_attrs.GetWidth();
  const unsigned C_out = out_attrs.GetChannels();
  const unsigned H_out = out_attrs.GetHeight();
  const unsigned W_out = out_attrs.GetWidth();
  const unsigned b = static_cast<unsigned>(block_size);
  if (N == 0 || H == 0 || W == 0 || C == 0 || b == 0) return;

  // The output has exactly the places that the blocks need.
  if (Fits(Saturating(C) * b * b) && C_out == C * b * b && H % b == 0 && H_out == H / b && W % b == 0 &&
      W_out == W / b && Fits(Saturating(N) * C * H * W)) {
    const unsigned G = C * H_out;  // rows of one phase of the blocks
    // A few rows of every phase at a time: what lies side by side in the input is read while it is in the cache.
    constexpr unsigned kChunkBytes = 65536;
    const std::size_t chunk =
        std::max<std::size_t>(1, kChunkBytes / (std::size_t{b} * b * W_out * sizeof(T)));
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
    return;
  }

  for (unsigned n = 0; n < N; ++n) {
    for (unsigned h = 0; h < H; ++h) {
      for (unsigned w = 0; w < W; ++w) {
        const unsigned phase = h % b * b + w % b;
        for (unsigned c = 0; c < C; ++c) {
          const unsigned c_out = phase * C + c;
          out[((n * C_out + c_out) * H_out + h / b) * W_out + w / b] = in[((n * C + c) * H + h) * W + w];
        }
      }
    }
  }
}

template void spacetodepth<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, int*, int*, int);
template void spacetodepth<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, short*, short*,
                                  int);
template void spacetodepth<char>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, char*, char*, int);

}  // namespace zeb_custom_ops
