/// \file
/// Layer type "SPACETOBATCH".
#pragma once

#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Space to batch: pads the rows and columns, then moves the positions in every spatial block to the batch.
///
///     out[(bh * block_width + bw) * N + n, c, h, w]
///         = padded[n, c, h * block_height + bh, w * block_width + bw]
///
/// - Formats: 8, 16 or 32-bit elements of any kind, the same on both sides; bit patterns are moved. The
///   padding holds the input format's zero: `q8a_zero` shifted by its exponent where `q8a` is set, else 0.
/// - Layouts: planar, unpadded.
/// - Attributes, both mandatory lists: "block_shape" [block height, block width], "paddings" [top, bottom,
///   left, right] in elements. Surplus entries are ignored.
/// - Buffers: one input N x C x H x W, one output (block_height * block_width * N) x C x
///   ((top + H + bottom) / block_height) x ((left + W + right) / block_width).
/// - Refused in `Configure`: any other count of buffers or attributes, lists that do not parse or are too
///   short, blocks that do not divide the padded height and width, an output of another shape, different bit
///   depths, padding, interleaving, short buffers. Refused in `Execute`: an unknown bit depth.
/// - State: a refused `Configure` leaves the clones of the new descriptions, and the lists that it read, in
///   place; a layer that was configured before then runs on them.
/// - Scratch: none.
class ZEB_EXPORT VekSpaceToBatch : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  /// The kernel: both sides dense, N, C, H, W. Instances: `int`, `short`, `char`, by the width of the
  /// elements.
  ///
  /// \param in_attrs      the input's shape, read through `GetBatch` to `GetWidth`, and the exponent of its
  ///                      format. Nothing is written where the batch is 0.
  /// \param out_attrs     the output's shape, likewise; it decides how much is padded at the bottom and at
  ///                      the right. Nothing is written where an extent is 0.
  /// \param in            input data.
  /// \param out           output data; must not overlap the input.
  /// \param block_height  rows of a block.
  /// \param block_width   columns of a block. Nothing is written where it is 0.
  /// \param pad_top       rows of padding above the input.
  /// \param pad_left      columns of padding before the input.
  /// \param zero_point    the value of the padding, before the exponent.
  template <typename T>
  ZEB_EXPORT void spacetobatch(const zeb::PuxDnnBufAttrs& in_attrs, const zeb::PuxDnnBufAttrs& out_attrs,
                               T* in, T* out, unsigned block_height, unsigned block_width, unsigned pad_top,
                               unsigned pad_left, unsigned zero_point);

  static const std::string k_expected_attr_block_shape_;  ///< "block_shape"
  static const std::string k_expected_attr_paddings_;     ///< "paddings"

 protected:
  unsigned block_height_ = 1;
  unsigned block_width_ = 1;
  unsigned pad_top_ = 0;
  unsigned pad_bot_ = 0;
  unsigned pad_left_ = 0;
  unsigned pad_right_ = 0;
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
};

extern template void VekSpaceToBatch::spacetobatch<int>(const zeb::PuxDnnBufAttrs&,
                                                        const zeb::PuxDnnBufAttrs&, int*, int*, unsigned,
                                                        unsigned, unsigned, unsigned, unsigned);
extern template void VekSpaceToBatch::spacetobatch<short>(const zeb::PuxDnnBufAttrs&,
                                                          const zeb::PuxDnnBufAttrs&, short*, short*,
                                                          unsigned, unsigned, unsigned, unsigned, unsigned);
extern template void VekSpaceToBatch::spacetobatch<char>(const zeb::PuxDnnBufAttrs&,
                                                         const zeb::PuxDnnBufAttrs&, char*, char*, unsigned,
                                                         unsigned, unsigned, unsigned, unsigned);

}  // namespace zeb_custom_ops
