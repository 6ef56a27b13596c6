/// \file
/// Layer type "PAD".
#pragma once

#include <array>
#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Copies a 4-D tensor into the interior of a larger one and fills the border around it:
///
///     out[n + p0, c + p2, h + p4, w + p6] = in[n, c, h, w]
///
/// - Formats: a planar output in the order [0,1,2,3] takes the direct path: 8, 16 or 32-bit elements of any
///   kind, padded rows and planes on both sides, channels of the input interleaved or not. Everything else
///   takes the dense path: both buffers are read and written as dense 32-bit floats, whatever their
///   descriptions say.
/// - Attributes, all mandatory:
///   "pad_mode": 1 reflect (mirror, the edge element not repeated), 2 edge, 3 symmetric (mirror, the edge
///   element repeated first), 4 constant; with any other number the border keeps what it held. "pad": the
///   constant, as an unsigned number. "pad_shape": p0 to p7, the elements before and after along N, C, H and
///   W. "format": [0,1,2,3] or [0,2,3,1], which are treated alike on the dense path.
/// - The constant: on the direct path converted to the output's fixed point (its exponent counts); on the
///   dense path a float. An input with `q8a` on the dense path replaces the stored constant by
///   (constant - q8a_zero) * q8a_scale on every `Execute`.
/// - Buffers: one input, one output; they must not overlap.
/// - Refused in `Configure`: fewer than four attributes, lists that are too short, a buffer with fewer bytes
///   than elements. Refused in `Execute`: any other format, an unknown bit depth, a null data pointer, on
///   the direct path a plane_pack below 1 of an input that is not empty. Nothing checks that the extents and
///   pads agree with the output.
/// - Scratch: none.
class ZEB_EXPORT VekPad : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  static const std::string k_expected_attr_pad_mode_;   ///< "pad_mode"
  static const std::string k_expected_attr_pad_;        ///< "pad"
  static const std::string k_expected_attr_pad_shape_;  ///< "pad_shape"
  static const std::string k_expected_attr_format_;     ///< "format"

 protected:
  int pad_mode_ = 0;
  unsigned pad_ = 0;
  std::array<unsigned, 8> pad_shape_{};  ///< p0 to p7
  std::array<unsigned, 4> format_{};
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
};

/// Copies dense N x C x H x W floats into the interior of a dense, larger tensor.
///
/// \param in, out         the shapes, read through `GetBatch` to `GetWidth`.
/// \param p0, p2, p4, p6  elements before the interior along N, C, H and W.
/// \param in_data         input data.
/// \param out_data        output data; must not overlap the input.
/// \return false, after an ERROR line, for a null buffer.
ZEB_EXPORT bool CopyBuffer_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                              unsigned p2, unsigned p4, unsigned p6, float* in_data, float* out_data);

/// Fills the border around the interior of a dense tensor with its mirror image, in place: rows first, then
/// whole rows, planes and batches, so that the corners are mirrored twice. Border elements farther out than
/// the interior reaches become 0.
///
/// \param in, out  the shapes of the interior and of the whole tensor.
/// \param p0, p1, p2, p3, p4, p5, p6, p7  elements before and after the interior along N, C, H and W.
/// \param reflect  true: the edge element is not repeated.
/// \param out_data  the tensor.
/// \return false, after an ERROR line, for a null buffer.
ZEB_EXPORT bool Pad_reflectsymm_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                                   unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5,
                                   unsigned p6, unsigned p7, bool reflect, float* out_data);

/// The same on integers, addressed through the line and plane stride of `out`; padding of lines and planes is
/// left alone. Instances: `int`, `short`.
template <typename T>
ZEB_EXPORT bool Pad_reflectsymm_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                                   unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5,
                                   unsigned p6, unsigned p7, bool reflect, T* out_data);

extern template bool Pad_reflectsymm_v1<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, unsigned,
                                             unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
                                             unsigned, bool, int*);
extern template bool Pad_reflectsymm_v1<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&,
                                               unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
                                               unsigned, unsigned, bool, short*);

/// Fills the border around the interior of a dense tensor with the nearest interior element, in place.
/// Parameters and result as for `Pad_reflectsymm_v1`.
ZEB_EXPORT bool Pad_edge_repli_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                                  unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5,
                                  unsigned p6, unsigned p7, float* out_data);

/// Fills the border around the interior of a dense tensor with `pad`, converted to float. Other parameters
/// and result as for `Pad_reflectsymm_v1`.
ZEB_EXPORT bool Pad_const_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned pad,
                             unsigned p0, unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5,
                             unsigned p6, unsigned p7, float* out_data);

}  // namespace zeb_custom_ops
