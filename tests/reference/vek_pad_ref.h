// The formulas of PAD, element by element: the interior copies and the border kernels as they run, and what a
// well-formed result must be at each coordinate.
#pragma once

#include <array>
#include <cmath>
#include <optional>

#include "reference/element_moves.h"

namespace vek_test::reference {

struct Tensor {
  std::array<std::uint32_t, 4> dims;  // N, C, H, W
  std::uint32_t line;                 // elements from row to row
  std::uint32_t plane;                // elements from plane to plane
  std::uint32_t pack = 1;             // channels interleaved in a plane

  static Tensor Dense(const std::array<std::uint32_t, 4>& dims) { return {dims, dims[3], dims[2] * dims[3]}; }

  // With as many planes in a batch item as there are channels or groups of them.
  std::uint32_t At(std::uint32_t n, std::uint32_t c, std::uint32_t h, std::uint32_t w) const {
    const std::uint32_t groups = (dims[1] + pack - 1) / pack;
    return n * groups * plane + c / pack * plane + h * line + w * pack + c % pack;
  }
};

struct Pad {
  Tensor in;
  Tensor out;
  std::array<std::uint32_t, 8> p;
  Moves moves;

  // Both buffers dense.
  void CopyDense() {
    std::uint32_t src = 0;
    for (std::uint32_t n = 0; n < in.dims[0]; ++n) {
      for (std::uint32_t c = 0; c < in.dims[1]; ++c) {
        for (std::uint32_t h = 0; h < in.dims[2]; ++h) {
          for (std::uint32_t w = 0; w < in.dims[3]; ++w) {
            moves.FromInput(out.At(n + p[0], c + p[2], h + p[4], p[6] + w), src++);
          }
        }
      }
    }
  }

  // Through the strides; p0 counts planes.
  void CopyStrided() {
    const std::uint32_t groups = (in.dims[1] + in.pack - 1) / in.pack;
    for (std::uint32_t n = 0; n < in.dims[0]; ++n) {
      for (std::uint32_t g = 0; g < groups; ++g) {
        for (std::uint32_t h = 0; h < in.dims[2]; ++h) {
          for (std::uint32_t w = 0; w < in.dims[3]; ++w) {
            for (std::uint32_t i = 0; i < in.pack; ++i) {
              const std::uint32_t c = g * in.pack + i;
              if (c >= in.dims[1]) continue;
              moves.FromInput((p[0] + p[2] + c) * out.plane + n * out.dims[1] * out.plane +
                                  (p[4] + h) * out.line + p[6] + w,
                              in.At(n, c, h, w));
            }
          }
        }
      }
    }
  }

  // The border of one axis from its units: `copy(dst, src)` and `fill(dst)`, in the order of the modes' rules.
  template <typename Copy, typename Fill>
  void Units(int mode, std::uint32_t before, std::uint32_t extent, std::uint32_t after, Copy copy,
             Fill fill) {
    if (mode == 4) {
      for (std::uint32_t k = 0; k < before; ++k) fill(k);
      for (std::uint32_t k = 0; k < after; ++k) fill(before + extent + k);
    } else if (mode == 2) {
      for (std::uint32_t k = 0; k < before; ++k) copy(k, before);
      for (std::uint32_t k = 0; k < after; ++k) copy(before + extent + k, before + extent - 1);
    } else {
      const std::uint32_t r = mode == 1 ? 1 : 0;
      for (std::uint32_t k = 0; k < before; ++k) {
        if (r + k < extent) {
          copy(before - 1 - k, before + r + k);
        } else {
          fill(before - 1 - k);
        }
      }
      for (std::uint32_t k = 0; k < after; ++k) {
        if (r + k < extent) {
          copy(before + extent + k, before + extent - 1 - r - k);
        } else {
          fill(before + extent + k);
        }
      }
    }
  }

  // The border kernels, on the output alone.
  void Border(int mode) {
    if (mode < 1 || mode > 4) return;
    const auto [N, C, H, W] = in.dims;
    const std::uint32_t C_out = out.dims[1];
    const std::uint32_t H_out = out.dims[2];
    const std::uint32_t W_out = out.dims[3];
    for (std::uint32_t n = p[0]; n < N + p[0]; ++n) {
      for (std::uint32_t c = p[2]; c < C + p[2]; ++c) {
        for (std::uint32_t h = p[4]; h < H + p[4]; ++h) {
          Units(
              mode, p[6], W, p[7],
              [&](std::uint32_t dst, std::uint32_t src) {
                moves.FromOutput(out.At(n, c, h, dst), out.At(n, c, h, src));
              },
              [&](std::uint32_t dst) { moves.Fill(out.At(n, c, h, dst)); });
        }
        Units(
            mode, p[4], H, p[5],
            [&](std::uint32_t dst, std::uint32_t src) {
              for (std::uint32_t w = 0; w < W_out; ++w) {
                moves.FromOutput(out.At(n, c, dst, w), out.At(n, c, src, w));
              }
            },
            [&](std::uint32_t dst) {
              for (std::uint32_t w = 0; w < W_out; ++w) moves.Fill(out.At(n, c, dst, w));
            });
      }
      Units(
          mode, p[2], C, p[3],
          [&](std::uint32_t dst, std::uint32_t src) {
            for (std::uint32_t h = 0; h < H_out; ++h) {
              for (std::uint32_t w = 0; w < W_out; ++w) {
                moves.FromOutput(out.At(n, dst, h, w), out.At(n, src, h, w));
              }
            }
          },
          [&](std::uint32_t dst) {
            for (std::uint32_t h = 0; h < H_out; ++h) {
              for (std::uint32_t w = 0; w < W_out; ++w) moves.Fill(out.At(n, dst, h, w));
            }
          });
    }
    Units(
        mode, p[0], N, p[1],
        [&](std::uint32_t dst, std::uint32_t src) {
          for (std::uint32_t c = 0; c < C_out; ++c) {
            for (std::uint32_t h = 0; h < H_out; ++h) {
              for (std::uint32_t w = 0; w < W_out; ++w) {
                moves.FromOutput(out.At(dst, c, h, w), out.At(src, c, h, w));
              }
            }
          }
        },
        [&](std::uint32_t dst) {
          for (std::uint32_t c = 0; c < C_out; ++c) {
            for (std::uint32_t h = 0; h < H_out; ++h) {
              for (std::uint32_t w = 0; w < W_out; ++w) moves.Fill(out.At(dst, c, h, w));
            }
          }
        });
  }
};

// The interior coordinate whose element belongs at coordinate `i` of a padded axis; none: the fill value.
inline std::optional<std::uint32_t> PadSource(int mode, std::uint32_t i, std::uint32_t before,
                                              std::uint32_t extent) {
  const auto at = static_cast<std::int64_t>(i) - before;
  const auto last = static_cast<std::int64_t>(extent) - 1;
  if (at >= 0 && at <= last) return static_cast<std::uint32_t>(at);
  std::int64_t source = -1;
  if (mode == 1) source = at < 0 ? -at : 2 * last - at;
  if (mode == 3) source = at < 0 ? -at - 1 : 2 * last - at + 1;
  if (mode == 2 && last >= 0) source = at < 0 ? 0 : last;
  if (source < 0 || source > last) return std::nullopt;
  return static_cast<std::uint32_t>(source);
}

// The element, as 32 bits of which an element keeps the low ones, that stands for `value` in fixed point.
inline std::uint32_t FixedPointFill(std::uint32_t value, std::int32_t exp, bool is_unsigned) {
  std::int64_t factor = 1;
  for (std::int64_t shift = ((-std::int64_t{exp}) % 32 + 32) % 32; shift > 0; --shift) factor *= 2;
  if (factor == std::int64_t{1} << 31) factor = -factor;
  const double product = std::trunc(static_cast<float>(factor * std::int64_t{value}));
  const double low = is_unsigned ? 0.0 : -2147483648.0;
  const double high = is_unsigned ? 4294967295.0 : 2147483647.0;
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(std::fmin(std::fmax(product, low), high)));
}

}  // namespace vek_test::reference
