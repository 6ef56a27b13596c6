// The kernel of layer type "DEPTHTOSPACE".
#include "contract/log.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/strided_copy.h"
#include "custom_ops/vek_depthtospace.h"

namespace zeb_custom_ops {

using detail::Fits;
using detail::Saturating;

template <typename T>
void depthtospace(T* out, T* in, int block_size, const zeb::PuxDnnBufAttrs& in_attrs,
                  const zeb::PuxDnnBufAttrs& out_attrs) {
  const unsigned N = in_attrs.GetBatch();
  const unsigned C = in_attrs.GetChannels();
  const unsigned H = in_attrs.GetHeight();
  const unsigned W = in_attrs.GetWidth();
  const unsigned C_out = out_attrs.GetChannels();
  const unsigned in_count = N * C * H * W;
  const int out_count =
      static_cast<int>(out_attrs.GetBatch() * C_out * out_attrs.GetHeight() * out_attrs.GetWidth());
  const unsigned b = static_cast<unsigned>(block_size);
  const unsigned G = C_out * H;  // rows of one phase of the blocks

  // Every channel has its place, and every place lies inside the output.
  if (Fits(Saturating(C_out) * b * b) && C == C_out * b * b && Fits(Saturating(N) * C * H * W) &&
      static_cast<int>(in_count) >= 0 && static_cast<int>(in_count) <= out_count) {
    detail::StridedCopy(out, in,
                        {
                            {N, b * b * G * W, G * b * W * b},
                            {G, W, b * W * b},
                            {b, b * G * W, W * b},  // bh
                            {b, G * W, 1},          // bw
                            {W, 1, b},
                        });
    return;
  }

  if (G == 0 || b * b == 0) return;
  for (unsigned i = 0; i < in_count; ++i) {
    const unsigned w = i % W;
    const unsigned a = i / W / G;  // the phase, counted through the batch
    const unsigned r = i / W % G;
    const unsigned bw = a % b;
    const unsigned bh = a / b % b;
    const unsigned n = a / (b * b);
    // Deliberate: the comparison is signed.
    const int place = static_cast<int>(bw + b * (w + W * (bh + b * (r + n * G))));
    if (place < out_count) {
      out[place] = in[i];
    } else {
      VEK_LOG_WARNING("buffer overflow attempt");
    }
  }
}

template void depthtospace<int>(int*, int*, int, const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&);
template void depthtospace<short>(short*, short*, int, const zeb::PuxDnnBufAttrs&,
                                  const zeb::PuxDnnBufAttrs&);
template void depthtospace<char>(char*, char*, int, const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
