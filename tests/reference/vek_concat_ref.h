// The formulas of SWCONCAT, element by element.
#pragma once

#include <string>

#include "reference/element_moves.h"

namespace vek_test::reference {

struct Joined {
  bool ok = true;
  std::string complaint;  // empty: none
  Moves moves;
};

// `dims` holds the dims of every input: all of four, or of any length where the first has five.
inline Joined Concat(const std::vector<std::vector<std::uint32_t>>& dims, std::uint32_t axis) {
  const auto refuse = [](const std::string& complaint) { return Joined{false, complaint, {}}; };
  Joined joined;
  std::uint32_t position = 0;
  const auto copy = [&](std::size_t i, std::uint32_t start, std::uint32_t count) {
    for (std::uint32_t k = 0; k < count; ++k) {
      joined.moves.FromInput(position++, start + k, static_cast<int>(i));
    }
  };
  const std::vector<std::uint32_t>& d = dims[0];

  if (d.size() == 5) {
    for (std::size_t i = 1; i < dims.size(); ++i) {
      if (dims[i].size() != dims[i - 1].size()) {
        return refuse("All tensors must have the same number of dimensions");
      }
      for (std::size_t k = 0; k < dims[i].size(); ++k) {
        if (k != axis && dims[i][k] != dims[i - 1][k]) {
          return refuse("All tensors must have the same dimensions (except for the concat dimension)");
        }
      }
    }
    if (axis > 4) return refuse("");
    std::uint32_t outer = 1;
    std::uint32_t inner = 1;
    for (std::size_t k = 0; k < 5; ++k) {
      if (k < axis) outer *= d[k];
      if (k > axis) inner *= d[k];
    }
    for (std::uint32_t o = 0; o < outer; ++o) {
      for (std::size_t i = 0; i < dims.size(); ++i) copy(i, o * dims[i][axis] * inner, dims[i][axis] * inner);
    }
    return joined;
  }

  for (std::size_t i = 1; i < dims.size(); ++i) {
    if (dims[i][0] != d[0]) return refuse("Incompatible concat batch dims");
    const auto differs = [&](std::size_t k) { return dims[i][k] != dims[i - 1][k]; };
    if (axis == 0 && (differs(3) || differs(2) || differs(1))) {
      return refuse("All tensors must have the same width, channels, height for batch-concat");
    }
    if (axis == 1 && (differs(2) || differs(3) || differs(0))) {
      return refuse("All tensors must have the same height, width, batch for channel-concat");
    }
    if (axis == 2 && (differs(3) || differs(1) || differs(0))) {
      return refuse("All tensors must have the same width, channels, batch for height-concat");
    }
    if (axis == 3 && (differs(2) || differs(1) || differs(0))) {
      return refuse("All tensors must have the same height, channels, batch for width-concat");
    }
  }
  switch (axis) {
    case 0:
      for (std::size_t i = 0; i < dims.size(); ++i) copy(i, 0, dims[i][0] * d[1] * d[2] * d[3]);
      return joined;
    case 1:
      for (std::uint32_t b = 0; b < d[0]; ++b) {
        for (std::size_t i = 0; i < dims.size(); ++i) {
          copy(i, b * dims[i][1] * d[2] * d[3], dims[i][1] * d[2] * d[3]);
        }
      }
      return joined;
    case 2:
      for (std::uint32_t b = 0; b < d[0]; ++b) {
        for (std::uint32_t c = 0; c < d[1]; ++c) {
          for (std::size_t i = 0; i < dims.size(); ++i) {
            copy(i, (b * d[1] + c) * dims[i][2] * d[3], dims[i][2] * d[3]);
          }
        }
      }
      return joined;
    case 3:
      for (std::uint32_t b = 0; b < d[0]; ++b) {
        for (std::uint32_t c = 0; c < d[1]; ++c) {
          for (std::uint32_t h = 0; h < d[2]; ++h) {
            for (std::size_t i = 0; i < dims.size(); ++i) {
              copy(i, ((b * d[1] + c) * d[2] + h) * dims[i][3], dims[i][3]);
            }
          }
        }
      }
      return joined;
    default:
      return refuse("");
  }
}

}  // namespace vek_test::reference
