// The loops that walks are made of.
#pragma once

#include <cstddef>

namespace zeb_custom_ops::detail {

// One loop of a walk: `extent` steps, each moving `src_step` on in the source and `dst_step` in the target.
struct Loop {
  std::size_t extent;
  std::ptrdiff_t src_step;
  std::ptrdiff_t dst_step;
};

// `i` steps of an axis, as an offset.
inline std::ptrdiff_t Offset(std::size_t i, std::ptrdiff_t step) {
  return static_cast<std::ptrdiff_t>(i) * step;
}

}  // namespace zeb_custom_ops::detail
