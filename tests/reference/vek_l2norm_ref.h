// NORMALIZE, value by value.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace vek_test {

// One norm over `count` values from position `start` on.
inline void NormalizeRef(const float* in, float* out, std::uint32_t start, std::uint32_t count) {
  float sum = 0.0F;
  for (std::uint32_t i = 0; i < count; ++i) sum = std::fmaf(in[start + i], in[start + i], sum);
  const float norm = std::sqrt(sum);
  for (std::uint32_t i = 0; i < count; ++i) {
    out[start + i] = norm != 0.0F ? in[start + i] / norm : in[start + i];
  }
}

// `scales` holds one value, or one per channel.
inline void L2NormRef(const float* in, float* out, std::uint32_t N, std::uint32_t C, std::uint32_t H,
                      std::uint32_t W, bool across_spatial, bool channel_shared,
                      const std::vector<float>& scales) {
  for (std::uint32_t n = 0; n < N; ++n) {
    if (across_spatial) {
      NormalizeRef(in, out, n * C * H * W, C * H * W);
    } else {
      for (std::uint32_t c = 0; c < C; ++c) NormalizeRef(in, out, n * C * H * W + c * H * W, H * W);
    }
    if (!channel_shared) {
      for (std::uint32_t c = 0; c < C; ++c) {
        if (scales[c] == 1.0F) continue;
        for (std::uint32_t i = 0; i < H * W; ++i) out[n * C * H * W + c * H * W + i] *= scales[c];
      }
    } else if (scales[0] != 1.0F) {
      for (std::uint32_t i = 0; i < C * H * W; ++i) out[n * C * H * W + i] *= scales[0];
    }
  }
}

}  // namespace vek_test
