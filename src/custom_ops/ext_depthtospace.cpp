// The kernel of layer type "DEPTHTOSPACE".
#include "contract/log.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "custom_ops/vek_depthtospace.h"
#include "kernels/depth_to_space.h"

namespace zeb_custom_ops {

using detail::Saturating;
using detail::Shape;

template <typename T>
void depthtospace(T* out, T* in, int block_size, const zeb::PuxDnnBufAttrs& in_attrs,
                  const zeb::PuxDnnBufAttrs& out_attrs) {
  const auto [N, C, H, W] = Shape(in_attrs);
  const Shape out_shape(out_attrs);
  const unsigned b = static_cast<unsigned>(block_size);
  const kernels::DepthToSpaceShape shape = {N, C, H, W, out_shape.C, b};
  const int out_count = static_cast<int>(out_shape.N * out_shape.C * out_shape.H * out_shape.W);

  // Every channel has its position in a block, and no element lies beyond the output.
  if (Saturating(out_shape.C) * b * b == C && out_count >= 0 &&
      Saturating(N) * C * H * W <= static_cast<unsigned>(out_count)) {
    kernels::DepthToSpace(out, in, shape);
    return;
  }
  for (unsigned left_out = kernels::PlainDepthToSpace(out, in, shape, out_count); left_out > 0; --left_out) {
    VEK_LOG_WARNING("buffer overflow attempt");
  }
}

template void depthtospace<int>(int*, int*, int, const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&);
template void depthtospace<short>(short*, short*, int, const zeb::PuxDnnBufAttrs&,
                                  const zeb::PuxDnnBufAttrs&);
template void depthtospace<char>(char*, char*, int, const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
