/// \file
/// Layer type "SOFTMAX".
#pragma once

#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Softmax of a float tensor along one axis.
///
///     out[k] = exp(in[k] - max) * (1 / sum over j of exp(in[j] - max))     for k, j along the axis
///
/// - Formats: 32-bit float, planar, unpadded; at least four dims, of which the accessors say N, C, H and W.
/// - Attributes: "axis", 0 to 3 for N, C, H, W; without it the stored axis stays (1 on a new layer).
/// - Buffers: one input, one output of as many elements; the same buffer may serve as both.
/// - Refused in `Configure`: any other format, padding, interleaving, a short buffer, an axis beyond the
/// dims.
/// - Scratch: none.
class ZEB_EXPORT VekSoftmax : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  static const std::string k_expected_attr_;  ///< "axis"

 protected:
  unsigned axis_ = 1;  ///< 0 = N, 1 = C, 2 = H, 3 = W
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
};

/// The kernel of "SOFTMAX": dense N x C x H x W floats, normalised along `axis`.
///
/// Single precision throughout, in this order: maximum, `expf` of the difference, sum in increasing index,
/// product with the reciprocal of the sum.
///
/// \param attrs     shape of input and output, read through `GetBatch` to `GetWidth`.
/// \param axis      0 to 3.
/// \param in        input data.
/// \param in_size   elements of `in`.
/// \param out       output data; may be `in`, must not overlap it otherwise.
/// \param out_size  elements of `out`; must equal `in_size`.
/// \return false, after an ERROR line, for a null buffer, unequal sizes, an axis above 3, or a shape that
/// leads beyond `out_size`; true otherwise. Nothing is written where an extent is 0.
ZEB_EXPORT bool Softmax_v1(const zeb::PuxDnnBufAttrs& attrs, unsigned axis, float* in, unsigned in_size,
                           float* out, unsigned out_size);

}  // namespace zeb_custom_ops
