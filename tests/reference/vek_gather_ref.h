// The formulas of GATHER, element by element.
#pragma once

#include <string>

#include "reference/element_moves.h"

namespace vek_test::reference {

struct Gathered {
  bool ok = true;
  std::string complaint;  // empty: none
  Moves moves;
};

// The axis is one of `dims`.
inline Gathered Gather(const std::vector<std::uint32_t>& dims, const std::vector<std::uint32_t>& indices,
                       std::size_t axis, std::uint64_t capacity) {
  std::uint64_t outer = 1;
  std::uint64_t inner = 1;
  for (std::size_t d = 0; d < axis; ++d) outer *= dims[d];
  for (std::size_t d = axis + 1; d < dims.size(); ++d) inner *= dims[d];
  Gathered gathered;
  std::uint64_t position = 0;
  for (std::uint64_t o = 0; o < outer; ++o) {
    for (const std::uint32_t index : indices) {
      if (index >= dims[axis]) {
        gathered.ok = false;
        gathered.complaint = "Operation broken (in_idx >= axis Size, " +
                             std::to_string(static_cast<std::int32_t>(index)) + ", " +
                             std::to_string(dims[axis]) + ")";
        return gathered;
      }
      if (position + inner > capacity) {
        gathered.ok = false;
        gathered.complaint = "Operation broken (avoiding memory corruption)";
        return gathered;
      }
      for (std::uint64_t k = 0; k < inner; ++k) {
        gathered.moves.FromInput(static_cast<std::uint32_t>(position + k),
                                 static_cast<std::uint32_t>((o * dims[axis] + index) * inner + k));
      }
      position += inner;
    }
  }
  return gathered;
}

}  // namespace vek_test::reference
