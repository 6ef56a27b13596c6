// NORMALIZE.
#pragma once

#include "model/model.h"

namespace vek_model {

// `scales` holds one value, or one per channel.
void L2Norm(const Shape& shape, bool across_spatial, bool channel_shared, const std::vector<float>& scales,
            Memory& in, Memory& out);

std::unique_ptr<Model> MakeL2Norm();

}  // namespace vek_model
