/// \file
/// Layer type "BATCHTOSPACE".
#pragma once

#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Batch to space, the inverse of space to batch: groups of batch items become spatial blocks, which are then
/// cropped.
///
///     out[n, c, h, w] = in[(bh * block_width + bw) * N_out + n, c, hu / block_height, wu / block_width]
///     where hu = h + top, bh = hu % block_height, wu = w + left, bw = wu % block_width
///
/// - Formats: 8, 16 or 32-bit elements of any kind, the same on both sides; bit patterns are moved.
/// - Layouts: planar, unpadded.
/// - Attributes, both mandatory lists: "block_shape" [block height, block width], at least 1 each, "crops"
///   [top, bottom, left, right] in elements. Surplus entries are ignored.
/// - Buffers: one input N x C x H x W, one output (N / (block_height * block_width)) x C x
///   (H * block_height - top - bottom) x (W * block_width - left - right). Items of the input beyond a
///   multiple of the block are not read.
/// - Refused in `Configure`: any other count of buffers or attributes, lists that do not parse or are too
///   short, blocks of 0, an output of another shape, different bit depths, padding, interleaving, short
///   buffers. Refused in `Execute`: an unknown bit depth.
/// - State: a refused `Configure` leaves the clones of the new descriptions, and the lists that it read, in
///   place; a layer that was configured before then runs on them.
/// - Scratch: none.
class ZEB_EXPORT VekBatchToSpace : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  /// The kernel: both sides dense, N, C, H, W. Instances: `int`, `short`, `char`, by the width of the
  /// elements.
  ///
  /// \param in_attrs      the input's shape, read through `GetChannels` to `GetWidth`; nothing checks that
  ///                      the positions read lie inside.
  /// \param out_attrs     the output's shape, with the batch; it decides how much is cropped at the bottom
  ///                      and at the right. Nothing is written where an extent is 0, or where a crop and an
  ///                      extent add up to more than 32 bits hold.
  /// \param in            input data.
  /// \param out           output data; must not overlap the input.
  /// \param block_height  rows of a block. Nothing is written where it is 0.
  /// \param block_width   columns of a block. Nothing is written where it is 0.
  /// \param crop_top      rows left out above.
  /// \param crop_left     columns left out before.
  template <typename T>
  ZEB_EXPORT void batchtospace(const zeb::PuxDnnBufAttrs& in_attrs, const zeb::PuxDnnBufAttrs& out_attrs,
                               T* in, T* out, unsigned block_height, unsigned block_width, unsigned crop_top,
                               unsigned crop_left);

  static const std::string k_expected_attr_block_shape_;  ///< "block_shape"
  static const std::string k_expected_attr_crops_;        ///< "crops"

 protected:
  unsigned block_height_ = 1;
  unsigned block_width_ = 1;
  unsigned crop_top_ = 0;
  unsigned crop_bottom_ = 0;
  unsigned crop_left_ = 0;
  unsigned crop_right_ = 0;
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
};

extern template void VekBatchToSpace::batchtospace<int>(const zeb::PuxDnnBufAttrs&,
                                                        const zeb::PuxDnnBufAttrs&, int*, int*, unsigned,
                                                        unsigned, unsigned, unsigned);
extern template void VekBatchToSpace::batchtospace<short>(const zeb::PuxDnnBufAttrs&,
                                                          const zeb::PuxDnnBufAttrs&, short*, short*,
                                                          unsigned, unsigned, unsigned, unsigned);
extern template void VekBatchToSpace::batchtospace<char>(const zeb::PuxDnnBufAttrs&,
                                                         const zeb::PuxDnnBufAttrs&, char*, char*, unsigned,
                                                         unsigned, unsigned, unsigned);

}  // namespace zeb_custom_ops
