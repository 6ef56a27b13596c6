// MATMUL.
#pragma once

#include "model/model.h"

namespace vek_model {

void AB(Memory& out, Memory& a, const Shape& a_shape, Memory& b, const Shape& b_shape);
void AAT(Memory& out, Memory& a, const Shape& a_shape);

std::unique_ptr<Model> MakeMatmul();

}  // namespace vek_model
