// The extents of a 4-D tensor.
#pragma once

#include "zeb/pux_dnn_buf_attrs.h"

namespace zeb_custom_ops::detail {

// What the four accessors of a description answer, asked once, in this order.
struct Shape {
  unsigned N;
  unsigned C;
  unsigned H;
  unsigned W;

  explicit Shape(const zeb::PuxDnnBufAttrs& attrs)
      : N(attrs.GetBatch()), C(attrs.GetChannels()), H(attrs.GetHeight()), W(attrs.GetWidth()) {}
};

}  // namespace zeb_custom_ops::detail
