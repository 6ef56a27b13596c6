// From a format or a bit depth to the type that carries elements of that width.
#pragma once

#include "zeb/pux_dnn_buf_attrs.h"

namespace zeb_custom_ops::detail {

// Calls `kernel` with a value of the type for 16, 32 or 8-bit elements, `otherwise` for any other bit depth.
// Both return bool; `otherwise` logs the operator's own text.
template <typename T32 = int, typename T16 = short, typename T8 = char, typename Kernel, typename Otherwise>
bool DispatchWidth(int bitdepth, Kernel&& kernel, Otherwise&& otherwise) {
  switch (bitdepth) {
    case 16:
      return kernel(T16{});
    case 32:
      return kernel(T32{});
    case 8:
      return kernel(T8{});
    default:
      return otherwise();
  }
}

// The same by a whole format: a float, whatever its bit depth says, else 8 or 16 bits.
template <typename Kernel, typename Otherwise>
bool DispatchElement(const zeb::PuxDnnBufAttrsMemFormat& format, Kernel&& kernel, Otherwise&& otherwise) {
  using Word8 = unsigned char;
  using Word16 = unsigned short;
  if (format.float_) return kernel(float{});
  if (format.bitdepth == 8) return kernel(Word8{});
  if (format.bitdepth == 16) return kernel(Word16{});
  return otherwise();
}

}  // namespace zeb_custom_ops::detail
