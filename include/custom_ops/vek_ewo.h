/// \file
/// Layer type "ELTWISE".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// One element-wise function of float tensors. With A for input 0, B for input 1:
///
///     method 0:  out[n, c, h, w] = A[n, c, h, w] * B[n, c, h, w]     either operand may be broadcast
///     method 6:  out[n, c, h, w] = A[n, c, h, w] / B[n, c, h, w]     likewise
///     method 1:  out[i] = A[i] + k
///     method 7:  out[i] = powf(A[i], k), or 1 / A[i] when k is exactly -1
///
/// - Formats: 32-bit float, planar, unpadded, of any rank; N, C, H and W are what the accessors of input 0
///   say (of the full operand, where the other holds one value per plane).
/// - Attributes: "method", mandatory, one of 0, 1, 6, 7. "has_k", 1 when "k" gives the constant (1.0 on a new
///   layer). "broadcast_A", 1 when "word_A" says along which dimensions A has the extent 1 and is broadcast:
///   bit 3 for N, 2 for C, 1 for H, 0 for W, in decimal, hexadecimal ("0x3") or octal ("03") digits;
///   "broadcast_B" and "word_B" likewise. What an attribute does not set keeps its value from an earlier
///   `Configure`.
/// - Buffers: two inputs for methods 0 and 6, one for 1 and 7; one output. An input that is not broadcast may
///   be the output. The shapes of the buffers are not compared.
/// - Refused in `Configure`: other buffer counts, a missing or unknown method, a missing "k", "word_A" or
///   "word_B", any other format, padding, a short buffer. Every `Configure` that has an input and one output,
///   refused or not, appends to the descriptions that the layer keeps; `Execute` wants a data pointer for
///   each of them, and the first ones given stay A and B.
/// - Scratch: none; methods 0 and 6 hand their kernel a vector of the two data pointers.
class ZEB_EXPORT VekEwo : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  /// Where the operands of the output element (n, c, h, w) lie.
  ///
  /// \param attrs       the shape of the output, read through `GetChannels` to `GetWidth`.
  /// \param n, c, h, w  the output element.
  /// \return the index into A in the low half, the index into B in the high half, in elements.
  std::uint64_t calculate_broadcast_indexes(const zeb::PuxDnnBufAttrs& attrs, unsigned n, unsigned c,
                                            unsigned h, unsigned w);

  /// The product and the quotient of two tensors, either of which may be broadcast. Instance: `float`.
  ///
  /// \param in     the data of A and B.
  /// \param out    output data, dense N x C x H x W; may be an operand that is not broadcast.
  /// \param attrs  the shape of the output, read through `GetBatch` to `GetWidth`.
  /// \return true. Nothing is written where an extent is 0.
  template <typename T>
  bool Mul(const std::vector<T*>& in, T* out, const zeb::PuxDnnBufAttrs& attrs);
  template <typename T>
  bool Div(const std::vector<T*>& in, T* out, const zeb::PuxDnnBufAttrs& attrs);

  /// The product of a tensor with one value per channel plane. Instance: `float`.
  ///
  /// \param full         data of the tensor, dense N x C x H x W.
  /// \param per_channel  the N x C values.
  /// \param out          output data; may be `full`.
  /// \param full_attrs   the tensor's shape, read through `GetBatch` to `GetWidth`.
  /// \return true. Nothing is written where an extent is 0.
  template <typename T>
  bool Mul_NCHW_x_NC11(T* full, T* per_channel, T* out, const zeb::PuxDnnBufAttrs& full_attrs);

  static const std::string k_expected_attr_method_;       ///< "method"
  static const std::string k_expected_attr_has_k_;        ///< "has_k"
  static const std::string k_expected_attr_k_;            ///< "k"
  static const std::string k_expected_attr_broadcast_A_;  ///< "broadcast_A"
  static const std::string k_expected_attr_word_A_;       ///< "word_A"
  static const std::string k_expected_attr_broadcast_B_;  ///< "broadcast_B"
  static const std::string k_expected_attr_word_B_;       ///< "word_B"

 protected:
  std::vector<std::unique_ptr<zeb::PuxDnnBufAttrs>> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
  int method_ = 0;
  float k_ = 1.0F;
  bool broadcast_A_ = false;
  bool broadcast_B_ = false;
  bool A_repeats_along_[4] = {};  ///< N, C, H, W
  bool B_repeats_along_[4] = {};  ///< N, C, H, W
};

extern template bool VekEwo::Mul<float>(const std::vector<float*>&, float*, const zeb::PuxDnnBufAttrs&);
extern template bool VekEwo::Div<float>(const std::vector<float*>&, float*, const zeb::PuxDnnBufAttrs&);
extern template bool VekEwo::Mul_NCHW_x_NC11<float>(float*, float*, float*, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
