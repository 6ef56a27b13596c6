/// \file
/// Layer type "DEPTHTOSPACE".
#pragma once

#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Depth to space: blocks of channels become spatial blocks of b x b, in depth-column-row order.
///
///     out[n, c, h * b + bh, w * b + bw] = in[n, (bh * b + bw) * C_out + c, h, w]
///
/// - Formats: 8, 16 or 32-bit elements of any kind, the same on both sides; bit patterns are moved.
/// - Layouts: planar, unpadded.
/// - Attributes: "block_size", the block size b; mandatory, at least 1.
/// - Buffers: one input N x C x H x W, one output N x (C / b^2) x (H * b) x (W * b).
/// - Refused in `Configure`: any other count of buffers or attributes, a block size that does not divide the
///   channels, an output of another shape, different bit depths, padding, interleaving, short buffers.
///   Refused in `Execute`: an unknown bit depth.
/// - State: a refused `Configure` leaves the clones of the new descriptions, and a block size that it read,
///   in place; a layer that was configured before then runs on them.
/// - Scratch: none.
class ZEB_EXPORT VekDepthToSpace : public zeb::PuxDnnCustomLayer {
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

/// The kernel of "DEPTHTOSPACE": both sides dense, N, C, H, W. Instances: `int`, `short`, `char`, by the
/// width of the elements.
///
/// \param out         output data; must not overlap the input, but may be the input where `block_size` is 1.
/// \param in          input data.
/// \param block_size  b. Nothing is written where b * b is 0 in 32 bits.
/// \param in_attrs    the input's shape, read through `GetBatch` to `GetWidth`. Nothing is written where an
///                    extent is 0.
/// \param out_attrs   the output's shape, likewise. An element whose position lies beyond the product of
///                    these extents is left out, with a WARNING line each; nothing is written where there are
///                    no channels.
template <typename T>
ZEB_EXPORT void depthtospace(T* out, T* in, int block_size, const zeb::PuxDnnBufAttrs& in_attrs,
                             const zeb::PuxDnnBufAttrs& out_attrs);

extern template void depthtospace<int>(int*, int*, int, const zeb::PuxDnnBufAttrs&,
                                       const zeb::PuxDnnBufAttrs&);
extern template void depthtospace<short>(short*, short*, int, const zeb::PuxDnnBufAttrs&,
                                         const zeb::PuxDnnBufAttrs&);
extern template void depthtospace<char>(char*, char*, int, const zeb::PuxDnnBufAttrs&,
                                        const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
