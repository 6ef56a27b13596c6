// BATCHTOSPACE.
#pragma once

#include "model/model.h"

namespace vek_model {

struct Crop {
  u32 block_height, block_width, top, left;
};

// Elements of `width` bytes.
void BatchToSpace(u32 width, const Crop& crop, const Shape& in_shape, const Shape& out_shape, Memory& in,
                  Memory& out);

std::unique_ptr<Model> MakeBatchToSpace();

}  // namespace vek_model
