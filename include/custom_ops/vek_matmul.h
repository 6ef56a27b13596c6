/// \file
/// Layer type "MATMUL".
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Products of batches of float matrices. Each batch item of a buffer is one matrix: its rows are the
/// channels, a row is the H x W values of a channel.
///
///     out[n, i, j] = sum over k of A[n, i, k] * B[n, k, j]     two inputs A and B; or one input A, and B = A
///     out[n, i, j] = sum over k of A[n, i, k] * A[n, j, k]     one input, "trans_b" = "1"
///
/// - Formats: 32-bit float, planar, of any rank; the matrices are what the four accessors say, taken as
///   dense.
/// - Attributes: "trans_b", mandatory; set by the text "1" alone, any other text clears it. Two inputs in
///   different buffers make it irrelevant; two inputs in the same buffer count as one.
/// - Buffers: one or two inputs, one output. The output must overlap no input.
/// - Refused in `Configure`: other attributes, other buffer counts, a buffer with fewer bytes than elements,
///   any other format. Whether the matrices fit each other and the output is not checked: the host answers
///   for it. A refused `Configure` may leave new descriptions behind.
/// - Scratch: none.
class ZEB_EXPORT VekMatmul : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  static const std::string k_expected_attr_;  ///< "trans_b"

 protected:
  bool trans_b_ = false;
  std::uint32_t num_inputs_ = 0;
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> in2_attrs_;  ///< of input 1; of input 0 when there is no other
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
};

/// The kernel of A x B. Each product is rounded to single precision, widened and added, in increasing k, to a
/// sum in double precision that starts at 0; the sum is rounded once. Instance: `float`.
///
/// \param out      output data, N x M x P; must not overlap the inputs.
/// \param a        data of A, N x M x K.
/// \param a_attrs  A's shape: N = batch, M = channels, K = height * width.
/// \param b        data of B, read as K rows of P values per batch item.
/// \param b_attrs  B's shape: P = height * width; its channels * P are the step from item to item. Its batch
///                 is not looked at.
/// Nothing is written when N, M or P is 0; zeros are written when K is 0.
template <typename T>
ZEB_EXPORT void AB(T* out, T* a, const zeb::PuxDnnBufAttrs& a_attrs, T* b,
                   const zeb::PuxDnnBufAttrs& b_attrs);

/// The kernel of A times its transpose; the same arithmetic. Each pair of rows is multiplied once and stored
/// on both sides of the diagonal. Instance: `float`.
///
/// \param out      output data, N x M x M; must not overlap the input.
/// \param a        data of A, N x M x K.
/// \param a_attrs  A's shape: N = batch, M = channels, K = height * width.
/// Nothing is written when N or M is 0; zeros are written when K is 0.
template <typename T>
ZEB_EXPORT void AAT(T* out, T* a, const zeb::PuxDnnBufAttrs& a_attrs);

extern template void AB<float>(float*, float*, const zeb::PuxDnnBufAttrs&, float*,
                               const zeb::PuxDnnBufAttrs&);
extern template void AAT<float>(float*, float*, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
