// The kernel of layer type "SPACETODEPTH".
#include "contract/positions.h"
#include "contract/shape.h"
#include "custom_ops/vek_spacetodepth.h"
#include "kernels/space_to_depth.h"

namespace zeb_custom_ops {

using detail::Fits;
using detail::Saturating;
using detail::Shape;

template <typename T>
void spacetodepth(const zeb::PuxDnnBufAttrs& in_attrs, const zeb::PuxDnnBufAttrs& out_attrs, T* in, T* out,
                  int block_size) {
  const auto [N, C, H, W] = Shape(in_attrs);
  const auto [N_out, C_out, H_out, W_out] = Shape(out_attrs);
  const unsigned b = static_cast<unsigned>(block_size);
  if (N == 0 || H == 0 || W == 0 || C == 0 || b == 0) return;
  const kernels::SpaceToDepthShape shape = {N, C, H, W, C_out, H_out, W_out, b};

  // The output has exactly the channels, rows and columns that the blocks need, and no position wraps.
  if (Saturating(C) * b * b == C_out && Saturating(H_out) * b == H && Saturating(W_out) * b == W &&
      Fits(Saturating(N) * C * H * W)) {
    kernels::SpaceToDepth(out, in, shape);
  } else {
    kernels::PlainSpaceToDepth(out, in, shape);
  }
}

template void spacetodepth<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, int*, int*, int);
template void spacetodepth<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, short*, short*,
                                  int);
template void spacetodepth<char>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, char*, char*, int);

}  // namespace zeb_custom_ops
