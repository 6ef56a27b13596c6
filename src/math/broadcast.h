// Element-wise functions of two operands, either of which may be broadcast along dimensions of an N x C x H x W output.
// Each has its plain formula, for every shape, whose positions wrap at 32 bits, and a form in vectors for positions that
// all fit into 32 bits. The output is dense, and may be an operand that is not broadcast. Nothing is written where an
// extent is 0.
#pragma once

#include <cstddef>
#include <functional>

#include "math/elementwise.h"

namespace zeb_custom_ops::detail {

// Where an operand of a C x H x W output has its elements: the steps between them along N, C, H and W. Along a dimension
// in which the operand is broadcast, its extent is 1 and its step is 0.
struct BroadcastSteps {
  unsigned n_step, c_step, h_step, w_step;

  BroadcastSteps(const bool (&broadcast_along)[4], unsigned C, unsigned H, unsigned W) {
    const auto [along_n, along_c, along_h, along_w] = broadcast_along;
    const unsigned row = along_w ? 1 : W;
    const unsigned plane = (along_h ? 1 : H) * row;
    const unsigned item = (along_c ? 1 : C) * plane;
    n_step = along_n ? 0 : item;
    c_step = along_c ? 0 : plane;
    h_step = along_h ? 0 : row;
    w_step = along_w ? 0 : 1;
  }

  unsigned Index(unsigned n, unsigned c, unsigned h, unsigned w) const {
    return n * n_step + c * c_step + h * h_step + w * w_step;
  }
};

// out[n, c, h, w] = op(a[..], b[..])
template <typename Op>
void PlainZipBroadcast(const float* a, const BroadcastSteps& a_steps, const float* b,
                       const BroadcastSteps& b_steps, float* out, unsigned N, unsigned C, unsigned H,
                       unsigned W, Op op) {
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned c = 0; c < C; ++c) {
      for (unsigned h = 0; h < H; ++h) {
        for (unsigned w = 0; w < W; ++w) {
          out[n * C * H * W + c * H * W + h * W + w] =
              op(a[a_steps.Index(n, c, h, w)], b[b_steps.Index(n, c, h, w)]);
        }
      }
    }
  }
}

template <typename Op>
void ZipBroadcast(const float* a, const BroadcastSteps& a_steps, const float* b,
                  const BroadcastSteps& b_steps, float* out, unsigned N, unsigned C, unsigned H, unsigned W,
                  Op op) {
  ZipLoop loops[] = {{N, a_steps.n_step, b_steps.n_step},
                     {C, a_steps.c_step, b_steps.c_step},
                     {H, a_steps.h_step, b_steps.h_step},
                     {W, a_steps.w_step, b_steps.w_step}};
  ZipStrided(a, b, out, loops, op);
}

// out[i] = per_plane[i / plane] * full[i], for planes of `plane` elements
inline void PlainMulPlanes(const float* per_plane, const float* full, float* out, unsigned count,
                           unsigned plane) {
  for (unsigned i = 0; i < count; ++i) out[i] = per_plane[i / plane] * full[i];
}

inline void MulPlanes(const float* per_plane, const float* full, float* out, std::size_t planes,
                      std::size_t plane) {
  ZipLoop loops[] = {{planes, 1, plane}, {plane, 0, 1}};
  ZipStrided(per_plane, full, out, loops, std::multiplies<>());
}

}  // namespace zeb_custom_ops::detail
