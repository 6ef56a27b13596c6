// ARGMAX.
#pragma once

#include "model/model.h"

namespace vek_model {

struct ArgmaxSettings {
  i32 axis = 0;
  bool has_axis = true;  // else: whole items
  u32 top_k = 1;
  bool out_max_val = false;
};

// How many searches there are, and how often all of them are repeated.
struct Searches {
  Searches(const Shape& shape, const ArgmaxSettings& settings);
  u32 len, stride, slices, outer;
};

void Argmax(const Shape& shape, const ArgmaxSettings& settings, Memory& in, Memory& out);

std::unique_ptr<Model> MakeArgmax();

}  // namespace vek_model
