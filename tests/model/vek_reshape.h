// RESHAPE.
#pragma once

#include "model/model.h"

namespace vek_model {

// Elements of `width` bytes; the shape is the input's.
void PixelShuffle(u32 width, u32 factor, const Shape& shape, Memory& in, Memory& out);

std::unique_ptr<Model> MakeReshape();

}  // namespace vek_model
