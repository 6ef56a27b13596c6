// SOFTMAX, value by value.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>

namespace vek_test {

// Along one axis of a dense N x C x H x W tensor.
inline void SoftmaxRef(const float* in, float* out, const std::array<unsigned, 4>& shape, unsigned axis) {
  const auto position = [&](const std::array<unsigned, 4>& at) {
    return ((std::size_t{at[0]} * shape[1] + at[1]) * shape[2] + at[2]) * shape[3] + at[3];
  };
  std::array<unsigned, 4> starts = shape;
  starts[axis] = shape[axis] == 0 ? 0 : 1;
  std::array<unsigned, 4> at{};
  for (at[0] = 0; at[0] < starts[0]; ++at[0]) {
    for (at[1] = 0; at[1] < starts[1]; ++at[1]) {
      for (at[2] = 0; at[2] < starts[2]; ++at[2]) {
        for (at[3] = 0; at[3] < starts[3]; ++at[3]) {
          const auto along = [&](unsigned k) {
            std::array<unsigned, 4> moved = at;
            moved[axis] = k;
            return position(moved);
          };
          float max = in[along(0)];
          for (unsigned k = 0; k < shape[axis]; ++k) {
            if (in[along(k)] > max) max = in[along(k)];
          }
          float sum = 0.0F;
          for (unsigned k = 0; k < shape[axis]; ++k) {
            const float e = expf(in[along(k)] - max);
            out[along(k)] = e;
            sum += e;
          }
          const float reciprocal = 1.0F / sum;
          for (unsigned k = 0; k < shape[axis]; ++k) out[along(k)] *= reciprocal;
        }
      }
    }
  }
}

}  // namespace vek_test
