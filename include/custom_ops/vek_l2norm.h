/// \file
/// Layer type "NORMALIZE".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Division of a float tensor by its Euclidean norm, taken over each batch item or over each channel plane.
///
///     out[i] = in[i] / sqrt(sum over j of in[j]^2)     for i, j within one item or one plane
///
/// - Formats: 32-bit float, planar, unpadded, of any rank; N, C, H and W are what the accessors say.
/// - Attributes: "across_spatial", 1 for a norm over each item (the default), any other value for one over
///   each plane; "channel_shared", 1 for one scale (the default), any other value for one per channel. An
///   absent attribute leaves its flag as it was. No attribute sets the scales: they are all 1.
/// - Buffers: one input, one output of as many elements; the same buffer may serve as both.
/// - Refused in `Configure`: other buffer counts, any other format, padding, a short buffer. Refused in
///   `Execute`: null data, different element counts.
/// - Scratch: none.
class ZEB_EXPORT VekL2Norm : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  /// The kernel: dense N x C x H x W floats.
  ///
  /// The squares are added in memory order, in single precision, with one fused multiply-add each, from 0.
  /// The norm is the root of that sum, and every value is divided by it; nothing is added to either. Values
  /// whose norm is 0 are copied. Then the values of a channel are multiplied by its scale, unless that is 1.
  ///
  /// \param in_attrs   the shape, read through `GetBatch` to `GetWidth`.
  /// \param in         input data.
  /// \param in_count   elements of `in`.
  /// \param out        output data; may be `in`, must not overlap it otherwise.
  /// \param out_count  elements of `out`; must equal `in_count`.
  /// \return false, after an ERROR line, for a null buffer, unequal counts, or scales that are not one per
  /// channel although they are not shared; true otherwise. Nothing is written where an extent is 0.
  bool L2norm_v1(const zeb::PuxDnnBufAttrs& in_attrs, float* in, unsigned in_count, float* out,
                 unsigned out_count);

  static const std::string k_expected_attr_across_spatial_;  ///< "across_spatial"
  static const std::string k_expected_attr_channel_shared_;  ///< "channel_shared"

 protected:
  bool configured_ = false;
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool across_spatial_ = true;  ///< one norm per batch item, else one per channel plane
  bool channel_shared_ = true;  ///< one scale for all channels, else one per channel
  std::vector<float> scales_;
};

}  // namespace zeb_custom_ops
