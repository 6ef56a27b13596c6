// ARGMAX, search by search.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace vek_test {

struct ArgmaxSettings {
  int axis = 0;
  bool has_axis = true;
  std::uint32_t top_k = 1;
  bool out_max_val = false;
};

// Everything that is written. Positions wrap at 32 bits.
inline std::vector<float> ArgmaxRef(const float* in, std::uint32_t N, std::uint32_t C, std::uint32_t H,
                                    std::uint32_t W, const ArgmaxSettings& settings) {
  std::uint32_t len = C * H * W;
  std::uint32_t stride = 1;
  std::uint32_t slices = N;
  std::uint32_t outer = N;
  if (settings.has_axis) {
    switch (settings.axis) {
      case 0:
        len = N, stride = C * H * W, slices = C * H * W, outer = 1;
        break;
      case 1:
        len = C, stride = H * W, slices = N * H * W;
        break;
      case 2:
        len = H, stride = W, slices = N * C * W;
        break;
      default:
        len = W, stride = 1, slices = N * C * H;
    }
  }

  std::vector<float> out;
  for (std::uint32_t o = 0; o < outer; ++o) {
    std::uint32_t base = 0;
    for (std::uint32_t i = 0; i < slices; ++i) {
      using Pair = std::pair<float, std::uint32_t>;
      std::vector<Pair> pairs(len);
      for (std::uint32_t k = 0; k < len; ++k) pairs[k] = {in[base + k * stride], k};
      if (settings.top_k == 1) {
        Pair best = len == 0 ? Pair{} : pairs[0];
        for (const Pair& pair : pairs) {
          if (best.first <= pair.first) best = pair;
        }
        pairs.assign(1, best);
      } else {
        const std::uint32_t ranks = std::min(settings.top_k, len);
        std::partial_sort(pairs.begin(), pairs.begin() + ranks, pairs.end(),
                          [](const Pair& a, const Pair& b) {
                            if (b.first < a.first) return true;
                            if (a.first < b.first) return false;
                            return b.second < a.second;
                          });
        pairs.resize(ranks);
      }
      for (const Pair& pair : pairs) {
        if (!settings.out_max_val || !settings.has_axis) out.push_back(static_cast<float>(pair.second));
        if (settings.out_max_val) out.push_back(pair.first);
      }
      if (!settings.has_axis) {
        base += len;
      } else if (settings.axis == 3) {
        base += W;
      } else {
        base += 1;
        if (settings.axis == 2 && (i + 1) % W == 0) base += H * W - W;
      }
    }
  }
  return out;
}

}  // namespace vek_test
