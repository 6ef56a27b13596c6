// SPACETOBATCH.
#pragma once

#include "model/model.h"

namespace vek_model {

struct Padding {
  u32 block_height, block_width, top, left;
  u32 fill = 0;  // of which narrow elements keep the low bits
};

// Elements of `width` bytes.
void SpaceToBatch(u32 width, const Padding& padding, const Shape& in_shape, const Shape& out_shape,
                  Memory& in, Memory& out);

std::unique_ptr<Model> MakeSpaceToBatch();

}  // namespace vek_model
