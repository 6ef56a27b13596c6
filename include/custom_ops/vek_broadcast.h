/// \file
/// Layer type "BROADCAST".
#pragma once

#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Repeats a tensor along channels, rows and columns. With the flags C, H, W of the attribute:
///
///     out[0, c, h, w] = in[0, C ? 0 : c, H ? 0 : h, W ? w mod W_in : w]
///
/// - Formats: 8, 16 or 32-bit elements of any kind; bit patterns are moved. Planar; rows may be padded,
///   planes may not.
/// - Attributes: "size", a list of four integers for N, C, H, W; an entry above 0 repeats along its
///   dimension. Mandatory. Batches cannot be repeated, and only the first batch item is written. With all
///   four entries 0 or below nothing is written at all.
/// - Buffers: one input, one output, at least one of them 4-D; they must not overlap.
/// - Refused in `Configure`: an input extent that is neither the output's nor 1, interleaving, padded planes,
///   a buffer with fewer bytes than elements. Refused in `Execute`: a null data pointer, an unknown bit
///   depth. An entry of "size" that is no number leaves `Configure` as the exception of `std::stoi`.
/// - Scratch: none.
class ZEB_EXPORT VekBroadcast : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  static const std::string k_expected_attr_;  ///< "size"

 protected:
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
  bool bcast_n_ = false;  ///< repeat along the dimension, one flag for each of N, C, H, W
  bool bcast_c_ = false;
  bool bcast_h_ = false;
  bool bcast_w_ = false;
};

/// The kernel of "BROADCAST", over the first batch item. Instances: `int`, `short`, `char`, by the width of
/// the elements.
///
/// Rows inside a plane are the output's line stride apart, with two exceptions: with all three flags the
/// first repeated row starts right behind the first row's elements; and with `bcast_c` the first plane is
/// repeated as a dense block of H * W elements, whatever the line stride. With `bcast_h` the input holds one
/// row per channel, a line stride apart.
///
/// \param in        the input's shape and line stride.
/// \param out       the output's shape and line stride.
/// \param in_data   input data.
/// \param out_data  output data; must not overlap the input.
/// \param bcast_c, bcast_h, bcast_w  not 0: repeat along channels, rows, columns. With none, nothing is
///                                   written.
/// \return false, after an ERROR line, for a null buffer.
template <typename T>
ZEB_EXPORT bool Broadcast_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, T* in_data,
                             T* out_data, unsigned bcast_c, unsigned bcast_h, unsigned bcast_w);

extern template bool Broadcast_v1<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, int*, int*,
                                       unsigned, unsigned, unsigned);
extern template bool Broadcast_v1<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, short*,
                                         short*, unsigned, unsigned, unsigned);
extern template bool Broadcast_v1<char>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, char*, char*,
                                        unsigned, unsigned, unsigned);

}  // namespace zeb_custom_ops
