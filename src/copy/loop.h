// The loops that strided copies are made of.
#pragma once

#include <cstddef>

namespace zeb_custom_ops::detail {

// One loop of a strided copy: `extent` rounds, each `src_step` further in the source and `dst_step` further in the
// target. Steps are elements where operators write them, and bytes below StridedCopy.
struct Loop {
  std::size_t extent;
  std::ptrdiff_t src_step;
  std::ptrdiff_t dst_step;
};

// The offset of round `i`.
inline std::ptrdiff_t Offset(std::size_t i, std::ptrdiff_t step) {
  return static_cast<std::ptrdiff_t>(i) * step;
}

}  // namespace zeb_custom_ops::detail
