// GATHER.
#pragma once

#include "model/model.h"

namespace vek_model {

// Elements of `width` bytes. The complaint that ends it, empty for none.
std::string Gather(u32 width, const Dims& dims, u32 axis, Memory& params, Memory& indices, u32 count,
                   Memory& out, u32 capacity);

std::unique_ptr<Model> MakeGather();

}  // namespace vek_model
