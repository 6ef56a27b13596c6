/// \file
/// Layer type "SPACETODEPTH".
#pragma once

#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Space to depth, the inverse of depth to space: spatial blocks of b x b become blocks of channels.
///
///     out[n, (bh * b + bw) * C + c, h, w] = in[n, c, h * b + bh, w * b + bw]
///
/// - Formats: 8, 16 or 32-bit elements of any kind, the same on both sides; bit patterns are moved.
/// - Layouts: planar, unpadded.
/// - Attributes: "block_size", the block size b; mandatory, at least 1.
/// - Buffers: one input N x C x H x W, one output N x (C * b^2) x (H / b) x (W / b).
/// - Refused in `Configure`: any other count of buffers or attributes, a block size that does not divide
///   width and height, an output of another shape, different bit depths, padding, interleaving, short
///   buffers. Refused in `Execute`: an unknown bit depth.
/// - State: a refused `Configure` leaves the clones of the new descriptions, and a block size that it read,
///   in place; a layer that was configured before then runs on them.
/// - Scratch: none.
class ZEB_EXPORT VekSpaceToDepth : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  static const std::string k_expected_attr_block_size_;  ///< "block_size"

 protected:
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
  int block_size_ = 1;  ///< b
};

/// The kernel of "SPACETODEPTH": both sides dense, N, C, H, W. Instances: `int`, `short`, `char`, by the
/// width of the elements.
///
/// \param in_attrs    the input's shape, read through `GetBatch` to `GetWidth`. Nothing is written where an
///                    extent is 0.
/// \param out_attrs   the output's shape, likewise without the batch; it gives the positions, and nothing
///                    checks that they lie inside the output.
/// \param in          input data.
/// \param out         output data; must not overlap the input, but may be the input where `block_size` is 1.
/// \param block_size  b. Nothing is written where it is 0.
template <typename T>
ZEB_EXPORT void spacetodepth(const zeb::PuxDnnBufAttrs& in_attrs, const zeb::PuxDnnBufAttrs& out_attrs, T* in,
                             T* out, int block_size);

extern template void spacetodepth<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, int*, int*,
                                       int);
extern template void spacetodepth<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, short*,
                                         short*, int);
extern template void spacetodepth<char>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, char*, char*,
                                        int);

}  // namespace zeb_custom_ops
