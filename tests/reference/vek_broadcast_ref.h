// The formulas of BROADCAST, element by element.
#pragma once

#include "reference/element_moves.h"

namespace vek_test::reference {

// Extents of the output, extents of the input, line strides in elements.
struct Broadcast {
  std::uint32_t C, H, W;
  std::uint32_t H_in, W_in;
  std::uint32_t in_line, out_line;

  std::uint32_t Column(std::uint32_t x) const { return x - (W_in == 0 ? 0 : x / W_in) * W_in; }

  Moves operator()(bool c_flag, bool h_flag, bool w_flag) const {
    Moves moves;
    const std::uint32_t plane = H * W;
    const auto repeat_first_plane = [&] {
      for (std::uint32_t c = 1; c < C; ++c) {
        for (std::uint32_t i = 0; i < plane; ++i) moves.FromOutput(c * plane + i, i);
      }
    };
    if (c_flag && h_flag && w_flag) {
      for (std::uint32_t x = 0; x < W; ++x) moves.FromInput(x, Column(x));
      for (std::uint32_t h = 1; h < H; ++h) {
        for (std::uint32_t x = 0; x < W; ++x) moves.FromOutput(W + (h - 1) * out_line + x, x);
      }
      repeat_first_plane();
    } else if (c_flag && h_flag) {
      for (std::uint32_t h = 0; h < H; ++h) {
        for (std::uint32_t x = 0; x < W; ++x) moves.FromInput(h * out_line + x, x);
      }
      repeat_first_plane();
    } else if (c_flag && w_flag) {
      for (std::uint32_t h = 0; h < H; ++h) {
        for (std::uint32_t x = 0; x < W; ++x) moves.FromInput(h * out_line + x, h * in_line + Column(x));
      }
      repeat_first_plane();
    } else if (c_flag) {
      for (std::uint32_t c = 0; c < C; ++c) {
        for (std::uint32_t i = 0; i < plane; ++i) moves.FromInput(c * plane + i, i);
      }
    } else if (h_flag || w_flag) {
      for (std::uint32_t c = 0; c < C; ++c) {
        for (std::uint32_t h = 0; h < H; ++h) {
          for (std::uint32_t x = 0; x < W; ++x) {
            const std::uint32_t row = h_flag ? c * in_line : c * H_in * in_line + h * in_line;
            moves.FromInput(c * H * out_line + h * out_line + x, row + (w_flag ? Column(x) : x));
          }
        }
      }
    }
    return moves;
  }
};

}  // namespace vek_test::reference
