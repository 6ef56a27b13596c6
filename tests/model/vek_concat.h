// SWCONCAT.
#pragma once

#include "model/model.h"

namespace vek_model {

// Tensors of these dims, of elements of `width` bytes, end to end along an axis.
void Concat(u32 width, const std::vector<Dims>& dims, u32 axis, const std::vector<Memory*>& in, Memory& out);

std::unique_ptr<Model> MakeConcat();

}  // namespace vek_model
