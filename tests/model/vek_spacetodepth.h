// SPACETODEPTH.
#pragma once

#include "model/model.h"

namespace vek_model {

// Elements of `width` bytes.
void SpaceToDepth(u32 width, i32 block, const Shape& in_shape, const Shape& out_shape, Memory& in,
                  Memory& out);

std::unique_ptr<Model> MakeSpaceToDepth();

}  // namespace vek_model
