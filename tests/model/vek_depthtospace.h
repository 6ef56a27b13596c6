// DEPTHTOSPACE.
#pragma once

#include "model/model.h"

namespace vek_model {

// Elements of `width` bytes. How many were left out, as they would lie outside the output.
u64 DepthToSpace(u32 width, i32 block, const Shape& in_shape, const Shape& out_shape, Memory& in,
                 Memory& out);

std::unique_ptr<Model> MakeDepthToSpace();

}  // namespace vek_model
