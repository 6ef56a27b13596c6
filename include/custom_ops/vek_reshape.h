/// \file
/// Layer type "RESHAPE".
#pragma once

#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Reshape (factor 1: the elements keep their order) or pixel shuffle (any other factor r):
///
///     out[n, oc, h * r + dy, w * r + dx] = in[n, (oc * r + dy) * r + dx, h, w]
///
/// - Formats: 8, 16 or 32-bit elements of any kind, the same on both sides; bit patterns are moved.
/// - Attributes: "pixelshuffler", the factor r; mandatory, at least 1 and no multiple of 65536.
/// - Buffers: one input, one output of as many elements. A plain reshape may run in place.
/// - Refused in `Configure`: a buffer with fewer bytes than elements, another factor. Refused in `Execute`:
///   different bit depths, different element counts, an unknown bit depth, a factor that a refused
///   `Configure` left behind.
/// - Scratch: none.
class ZEB_EXPORT VekReshape : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  static const std::string k_expected_attr_;  ///< "pixelshuffler"

 protected:
  int pixelshuffler_ = 1;  ///< the factor r
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
};

/// The kernel of the pixel shuffle: planar N x C x H x W to planar N x (C / r^2) x (r * H) x (r * W), both
/// dense. Instances: `int`, `short`, `char`, by the width of the elements.
///
/// \param out       output data; must not overlap the input.
/// \param in        input data, read in its own order.
/// \param factor    r; at least 1 and no multiple of 65536.
/// \param in_attrs  the input's shape, read through `GetBatch` to `GetWidth`. A channel count that is no
///                  multiple of r * r is copied all the same. Nothing is written where an extent is 0.
template <typename T>
ZEB_EXPORT void pixelshuffle(T* out, T* in, int factor, const zeb::PuxDnnBufAttrs& in_attrs);

extern template void pixelshuffle<int>(int*, int*, int, const zeb::PuxDnnBufAttrs&);
extern template void pixelshuffle<short>(short*, short*, int, const zeb::PuxDnnBufAttrs&);
extern template void pixelshuffle<char>(char*, char*, int, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
