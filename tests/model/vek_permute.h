// PERMUTE.
#pragma once

#include "model/model.h"

namespace vek_model {

// The axes, then the dims that they do not name.
Dims CompletedOrder(const Dims& axes, std::size_t rank);

// Elements of `width` bytes in all of them. False where the order names a dim that there is not.
bool PermuteDense(u32 width, const Dims& dims, const Dims& order, Memory& in, Memory& out, u32 count);
void UnpackToNhwc(u32 width, const Buf& in, Memory& in_data, Memory& out_data);
// The text of its refusal, empty for none.
std::string PackToNchw(u32 width, const Buf& in, Memory& in_data, const Buf& out, Memory& out_data);

// How an Execute ends: what it says, if anything, and the file that says it.
struct PermuteResult {
  std::string refusal = {};
  std::string file = "vek_permute.cpp";
};
PermuteResult PermuteThroughScratch(u32 width, const Dims& order, const Buf& in, Memory& in_data,
                                    const Buf& out, Memory& out_data);

std::unique_ptr<Model> MakePermute();

}  // namespace vek_model
