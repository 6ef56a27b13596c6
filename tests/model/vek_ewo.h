// ELTWISE.
#pragma once

#include "model/model.h"

namespace vek_model {

// An operand of a product or quotient. The bits 8, 4, 2 and 1 of `word` stand for N, C, H and W.
struct Operand {
  bool repeats = false;
  u32 word = 0;  // stays when the attribute is 0 again, and then still chooses the kernel of products

  u32 Index(const Shape& shape, u32 n, u32 c, u32 h, u32 w) const;
};

void Add(u32 count, float k, Memory& in, Memory& out);
void Power(u32 count, float k, Memory& in, Memory& out);
void Multiply(const Shape& shape, const Operand& a, Memory& a_data, const Operand& b, Memory& b_data,
              Memory& out);
void Divide(const Shape& shape, const Operand& a, Memory& a_data, const Operand& b, Memory& b_data,
            Memory& out);
// One factor for each plane of `full`.
void MultiplyPlanes(const Shape& shape, Memory& full, Memory& per_plane, Memory& out);

std::unique_ptr<Model> MakeEwo();

}  // namespace vek_model
