// What a data-movement layer does to its output, as a list of moves in the order in which they happen. The
// formulas of the layers write such lists; the tests measure how far one reaches and carry it out.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace vek_test::reference {

// One element of the output: from an input, from the output itself (kOutput), or the fill value (kFill).
struct Move {
  static constexpr int kOutput = -1;
  static constexpr int kFill = -2;

  std::uint32_t dst;
  int from;
  std::uint32_t src;
};

struct Moves {
  std::vector<Move> list;
  bool too_many = false;  // more than a test wants to carry out; the list is cut

  void Add(std::uint32_t dst, int from, std::uint32_t src) {
    constexpr std::size_t kLimit = 1 << 20;
    if (list.size() == kLimit) too_many = true;
    if (!too_many) list.push_back({dst, from, src});
  }
  void FromInput(std::uint32_t dst, std::uint32_t src, int input = 0) { Add(dst, input, src); }
  void FromOutput(std::uint32_t dst, std::uint32_t src) { Add(dst, Move::kOutput, src); }
  void Fill(std::uint32_t dst) { Add(dst, Move::kFill, 0); }

  // Elements of a buffer that the moves touch: an input, or kOutput.
  std::size_t Reach(int buffer) const {
    std::size_t reach = 0;
    for (const Move& move : list) {
      if (move.from == buffer) reach = std::max(reach, std::size_t{move.src} + 1);
      if (buffer == Move::kOutput) reach = std::max(reach, std::size_t{move.dst} + 1);
    }
    return reach;
  }

  template <typename T>
  void CarryOut(std::vector<T>& out, const std::vector<std::vector<T>>& in, T fill = 0) const {
    for (const Move& move : list) {
      out[move.dst] = move.from == Move::kFill     ? fill
                      : move.from == Move::kOutput ? out[move.src]
                                                   : in[static_cast<std::size_t>(move.from)][move.src];
    }
  }
};

}  // namespace vek_test::reference
