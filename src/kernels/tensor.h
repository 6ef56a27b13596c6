// Channel-first tensors as the kernels see them: their extents, and how far apart their elements are.
#pragma once

#include <cstddef>
#include <cstdint>

#include "copy/loop.h"

namespace zeb_custom_ops::kernels {

struct Extents {
  unsigned N;
  unsigned C;
  unsigned H;
  unsigned W;

  bool empty() const { return N == 0 || C == 0 || H == 0 || W == 0; }
};

// Planes of `pack` channels, which alternate in the pixels of the plane. Steps are elements.
struct TensorLayout {
  unsigned pack;
  std::uint64_t line;   // from row to row
  std::uint64_t plane;  // from plane to plane
  std::uint64_t batch;  // from batch item to batch item

  // Where row h of a plane begins, modulo 2^32.
  unsigned Position(std::uint64_t n, std::uint64_t plane_index, std::uint64_t h) const {
    return static_cast<unsigned>(n * batch + plane_index * plane + h * line);
  }
};

// A loop of a strided copy whose steps do not wrap.
inline detail::Loop MakeLoop(std::uint64_t extent, std::uint64_t src_step, std::uint64_t dst_step) {
  return {extent, static_cast<std::ptrdiff_t>(src_step), static_cast<std::ptrdiff_t>(dst_step)};
}

}  // namespace zeb_custom_ops::kernels
