// PAD.
#pragma once

#include <array>

#include "model/model.h"

namespace vek_model {

using Pads = std::array<u32, 8>;  // p0 to p7: before and after, of N, C, H and W

// Elements from one batch item, plane and line to the next.
struct Steps {
  static Steps Dense(const Shape& shape) { return {shape.c * shape.h * shape.w, shape.h * shape.w, shape.w}; }
  static Steps Strided(u32 width, const Buf& buf, u32 planes) {
    return {buf.plane_stride / width * planes, buf.plane_stride / width, buf.line_stride / width};
  }
  u32 At(u32 n, u32 c, u32 h, u32 w) const { return n * batch + c * plane + h * line + w; }

  u32 batch, plane, line;
};

// The interior of dense floats.
void CopyDenseInterior(const Pads& pads, const Shape& in_shape, const Shape& out_shape, Memory& in,
                       Memory& out);
// The interior of elements of `width` bytes through both layouts; p0 counts planes.
void CopyStridedInterior(u32 width, const Pads& pads, const Buf& in_buf, const Buf& out_buf, Memory& in,
                         Memory& out);
// The border, in place: mode 1 reflects, 2 repeats the edge, 3 mirrors, 4 fills; any other leaves it as it is.
void PadBorder(u32 width, int mode, const Pads& pads, const Shape& interior, const Shape& whole,
               const Steps& steps, u32 fill, Memory& out);

std::unique_ptr<Model> MakePad();

}  // namespace vek_model
