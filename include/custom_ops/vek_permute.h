/// \file
/// Layer type "PERMUTE".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Reorders the dimensions of a tensor: output dimension i is input dimension `axes[i]`.
///
///     out[i0, i1, ...] = in[j0, j1, ...]     where j[axes[d]] = i[d]
///
/// The order in use is the attribute's, to which the dims that it does not name are appended in increasing
/// order: [0,2] on a 4-D tensor is 0, 2, 1, 3.
///
/// - Formats: 8, 16 or 32-bit elements of any kind, the same width on both sides; bit patterns are moved.
/// - Layouts: floats, planar and unpadded on both sides, of any rank; everything else has four dims and may
///   be padded and interleaved.
/// - Attributes: "axes", a list such as "[0,2,3,1]"; mandatory. Each `Configure` appends to the axes of the
///   last one.
/// - Buffers: one input, one output. They must not overlap, except where data goes through scratch. The
///   output's dims are not compared with the permutation.
/// - Refused in `Configure`: another attribute, text that is no list, different bit depths, short buffers.
///   Refused in `Execute`: other formats and layouts, an axis that the tensor does not have, a plane pack
///   below 1 unless the tensor is empty.
/// - Scratch: two buffers as large as the input's elements, allocated when `DirectAcessPermute` first runs
///   and kept for the life of the layer.
class ZEB_EXPORT VekPermute : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  /// \return the product of v[start] to the last entry, modulo 2^32; 1 where there is none.
  unsigned int Product(const std::vector<unsigned int>& v, int start);

  /// Compares the output's dims with the permuted input's. `Configure` and `Execute` do not ask for it.
  /// \return false, after an ERROR line, at the first difference or at an axis that either tensor does not
  /// have.
  bool VerifyOutDimensions(const std::vector<unsigned int>& axes, const zeb::PuxDnnBufAttrs& in,
                           const zeb::PuxDnnBufAttrs& out);

  /// Allocates `size` bytes for `buf`, unless it already holds memory, of whatever size, and adds them to the
  /// total that was asked for. \return whether `buf` holds memory.
  bool LazyBufAlloc(std::unique_ptr<signed char[]>& buf, unsigned int size);

  /// Permutes dense data of any rank, in the order of the output. Instances: `float`, `short`, `char`.
  ///
  /// Elements beyond the product of the dims are written too, from where the same index equation leads.
  ///
  /// \param in         the input's shape, read through `GetDims`.
  /// \param in_data    input data; must not overlap the output.
  /// \param in_count   elements of `in_data`.
  /// \param out_data   output data.
  /// \param out_count  elements of `out_data`; must equal `in_count`.
  /// \return false, after an ERROR line, for a null buffer, unequal counts or an axis that the input does not
  /// have; true otherwise.
  template <typename T>
  bool Permute_v1(const zeb::PuxDnnBufAttrs& in, T* in_data, unsigned int in_count, T* out_data,
                  unsigned int out_count);

  /// Permutes four-dimensional data in any layout: makes a dense planar copy of the input in the first
  /// scratch buffer, permutes it into the second, and converts that to the output's layout. A side that is
  /// dense already does without its copy, unless input and output overlap. Instances: `float`,
  /// `short`, `char`.
  ///
  /// \param in         the input's shape and layout.
  /// \param in_data    input data; may overlap the output, which is written when all of it has been read.
  /// \param in_bytes   bytes of `in_data`.
  /// \param out        the output's shape and layout. A dense output gets as many elements as the input has,
  ///                   whatever its own shape.
  /// \param out_data   output data.
  /// \param out_bytes  bytes of `out_data`.
  /// \return false, after an ERROR line, where scratch cannot be had or a step refuses, or where shapes that
  /// do not fit together would lead a step outside the scratch, as a padded or interleaved output of more
  /// elements than the input does; the output may then be partly written.
  template <typename T>
  bool DirectAcessPermute(const zeb::PuxDnnBufAttrs& in, signed char* in_data, unsigned int in_bytes,
                          const zeb::PuxDnnBufAttrs& out, signed char* out_data, unsigned int out_bytes);

  /// Channel-first, padded or interleaved, to dense channel-last. Instances: `int`, `short`, `char`.
  ///
  /// \param in        the input's shape and layout: four dims; plane pack at least 1 unless an extent is 0.
  /// \param in_data   input data; must not overlap the output.
  /// \param out_data  output data. Nothing is written where an extent is 0.
  template <typename T>
  void UnpackToNhwc(const zeb::PuxDnnBufAttrs& in, T* in_data, T* out_data);

  /// Channel-last, dense or with padded rows, to channel-first, padded or interleaved. Padding and the unused
  /// slots of pixels keep their bytes. Instances: `int`, `short`, `char`.
  ///
  /// \param in        the input's shape and layout.
  /// \param in_data   input data; must not overlap the output.
  /// \param out       the output's shape and layout.
  /// \param out_data  output data. Nothing is written where an extent is 0.
  /// \return false, after an ERROR line, for an input of fewer than three dims or an output of fewer than
  /// four, an output line stride that is no multiple of the element (8-bit elements aside) or a plane pack
  /// below 1 of an output that is not empty; true otherwise.
  template <typename T>
  bool PackToNchw(const zeb::PuxDnnBufAttrs& in, T* in_data, const zeb::PuxDnnBufAttrs& out, T* out_data);

  static const std::string k_expected_attr_axes_;  ///< "axes"

 protected:
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
  std::vector<unsigned int> axes_;          ///< the attribute's elements, of all calls of `Configure`
  std::unique_ptr<signed char[]> aux_in_;   ///< the dense input
  std::unique_ptr<signed char[]> aux_out_;  ///< the dense output
  unsigned int aux_bytes_ = 0;              ///< scratch bytes asked for, in total

 private:
  unsigned int aux_in_capacity_ = 0;   // bytes that `aux_in_` holds
  unsigned int aux_out_capacity_ = 0;  // bytes that `aux_out_` holds
};

extern template bool VekPermute::Permute_v1<float>(const zeb::PuxDnnBufAttrs&, float*, unsigned int, float*,
                                                   unsigned int);
extern template bool VekPermute::Permute_v1<short>(const zeb::PuxDnnBufAttrs&, short*, unsigned int, short*,
                                                   unsigned int);
extern template bool VekPermute::Permute_v1<char>(const zeb::PuxDnnBufAttrs&, char*, unsigned int, char*,
                                                  unsigned int);
extern template bool VekPermute::DirectAcessPermute<float>(const zeb::PuxDnnBufAttrs&, signed char*,
                                                           unsigned int, const zeb::PuxDnnBufAttrs&,
                                                           signed char*, unsigned int);
extern template bool VekPermute::DirectAcessPermute<short>(const zeb::PuxDnnBufAttrs&, signed char*,
                                                           unsigned int, const zeb::PuxDnnBufAttrs&,
                                                           signed char*, unsigned int);
extern template bool VekPermute::DirectAcessPermute<char>(const zeb::PuxDnnBufAttrs&, signed char*,
                                                          unsigned int, const zeb::PuxDnnBufAttrs&,
                                                          signed char*, unsigned int);
extern template void VekPermute::UnpackToNhwc<int>(const zeb::PuxDnnBufAttrs&, int*, int*);
extern template void VekPermute::UnpackToNhwc<short>(const zeb::PuxDnnBufAttrs&, short*, short*);
extern template void VekPermute::UnpackToNhwc<char>(const zeb::PuxDnnBufAttrs&, char*, char*);
extern template bool VekPermute::PackToNchw<int>(const zeb::PuxDnnBufAttrs&, int*, const zeb::PuxDnnBufAttrs&,
                                                 int*);
extern template bool VekPermute::PackToNchw<short>(const zeb::PuxDnnBufAttrs&, short*,
                                                   const zeb::PuxDnnBufAttrs&, short*);
extern template bool VekPermute::PackToNchw<char>(const zeb::PuxDnnBufAttrs&, char*,
                                                  const zeb::PuxDnnBufAttrs&, char*);

}  // namespace zeb_custom_ops
