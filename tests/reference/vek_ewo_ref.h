// ELTWISE, element by element.
#pragma once

#include <cmath>
#include <cstdint>

namespace vek_test {

// An operand that may repeat: bits 3 to 0 of `word` for N, C, H, W.
struct OperandRef {
  const float* data;
  bool broadcast;
  unsigned word;

  std::uint32_t Index(std::uint32_t C, std::uint32_t H, std::uint32_t W, std::uint32_t n, std::uint32_t c,
                      std::uint32_t h, std::uint32_t w) const {
    if (!broadcast) return n * C * H * W + c * H * W + h * W + w;
    const std::uint32_t C1 = (word & 4) != 0 ? 1 : C;
    const std::uint32_t H1 = (word & 2) != 0 ? 1 : H;
    const std::uint32_t W1 = (word & 1) != 0 ? 1 : W;
    std::uint32_t index = 0;
    if ((word & 8) == 0) index += n * C1 * H1 * W1;
    if ((word & 4) == 0) index += c * H1 * W1;
    if ((word & 2) == 0) index += h * W1;
    if ((word & 1) == 0) index += w;
    return index;
  }
};

template <typename Op>
void BroadcastRef(const OperandRef& a, const OperandRef& b, float* out, std::uint32_t N, std::uint32_t C,
                  std::uint32_t H, std::uint32_t W, Op op) {
  for (std::uint32_t n = 0; n < N; ++n) {
    for (std::uint32_t c = 0; c < C; ++c) {
      for (std::uint32_t h = 0; h < H; ++h) {
        for (std::uint32_t w = 0; w < W; ++w) {
          out[n * C * H * W + c * H * W + h * W + w] =
              op(a.data[a.Index(C, H, W, n, c, h, w)], b.data[b.Index(C, H, W, n, c, h, w)]);
        }
      }
    }
  }
}

inline void MulPerPlaneRef(const float* full, const float* per_channel, float* out, std::uint32_t N,
                           std::uint32_t C, std::uint32_t H, std::uint32_t W) {
  for (std::uint32_t i = 0; i < N * C * H * W; ++i) {
    out[i] = per_channel[H * W == 0 ? 0 : i / (H * W)] * full[i];
  }
}

inline void AddRef(const float* in, float k, float* out, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) out[i] = in[i] + k;
}

inline void PowRef(const float* in, float k, float* out, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) out[i] = k != -1.0F ? powf(in[i], k) : -k / in[i];
}

}  // namespace vek_test
