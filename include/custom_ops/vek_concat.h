/// \file
/// Layer type "SWCONCAT".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Joins tensors end to end along one axis. With i and k the input and the position in it that a position
/// along the axis belongs to:
///
///     out[outer, position, inner] = in[i][outer, k, inner]
///
/// - Formats: 32-bit float, 16-bit and 8-bit elements, planar and unpadded, 4-D or 5-D; the first input's
///   format counts, bit patterns are moved.
/// - Attributes: "axis", from 0 for the outermost dimension; mandatory.
/// - Buffers: any number of inputs above 0, one output; the output must not overlap an input.
/// - Refused in `Configure`: no input, any other number of dims, an axis beyond them, a first input and an
///   output of different bit depths, short buffers, inputs that occupy more bytes than the output, padding,
///   interleaving. Refused in `Execute`: 32-bit integers, a null data pointer, extents that differ outside
///   the axis; 4-D inputs of different batch sizes on every axis.
/// - `Configure` is meant to be called once: every success appends its inputs to the stored ones.
class ZEB_EXPORT VekConcat : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  /// The kernel: N x C x H x W tensors, dense; where the first input has five dims the call goes to
  /// `concat_5d`. Instances: `float`, `unsigned char`, `unsigned short`.
  ///
  /// \param in        one data pointer per input.
  /// \param out       output data, written in order; must not overlap an input.
  /// \param in_attrs  the inputs' shapes, read through `GetBatch` to `GetWidth`; along axis 0 from `GetDims`.
  /// \param axis      0 to 3.
  /// \return false, after an ERROR line, where the batch sizes or two neighbours' extents outside the axis
  /// differ; false for any other axis.
  template <typename T>
  bool concat(std::vector<T*> in, T* out, const BufAttrsList& in_attrs, unsigned axis);

  /// The kernel for five dims, which are read from `GetDims`. Parameters, result and instances as for
  /// `concat`, with axis 0 to 4; along axis 0 the batch sizes may differ.
  template <typename T>
  bool concat_5d(std::vector<T*> in, T* out, const BufAttrsList& in_attrs, unsigned axis);

  static const std::string k_expected_attr_;  ///< "axis"

 protected:
  int axis_ = 0;
  BufAttrsList in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
};

extern template bool VekConcat::concat<float>(std::vector<float*>, float*, const BufAttrsList&, unsigned);
extern template bool VekConcat::concat<unsigned char>(std::vector<unsigned char*>, unsigned char*,
                                                      const BufAttrsList&, unsigned);
extern template bool VekConcat::concat<unsigned short>(std::vector<unsigned short*>, unsigned short*,
                                                       const BufAttrsList&, unsigned);
extern template bool VekConcat::concat_5d<float>(std::vector<float*>, float*, const BufAttrsList&, unsigned);
extern template bool VekConcat::concat_5d<unsigned char>(std::vector<unsigned char*>, unsigned char*,
                                                         const BufAttrsList&, unsigned);
extern template bool VekConcat::concat_5d<unsigned short>(std::vector<unsigned short*>, unsigned short*,
                                                          const BufAttrsList&, unsigned);

}  // namespace zeb_custom_ops
