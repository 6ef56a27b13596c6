// SOFTMAX.
#pragma once

#include "model/model.h"

namespace vek_model {

// False where the walk would leave the output.
bool Softmax(const Shape& shape, u32 axis, Memory& in, u32 count, Memory& out);

std::unique_ptr<Model> MakeSoftmax();

}  // namespace vek_model
