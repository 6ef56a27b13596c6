// Runs a configured layer on random data in guarded buffers of exactly the bytes that its moves touch, and
// compares every byte with the moves carried out one by one.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "reference/element_moves.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"
#include "support/random.h"

namespace vek_test {

inline Guard AnyGuard(Random& random) { return random.OneIn(2) ? Guard::kBefore : Guard::kAfter; }

// Elements of type `T`; `execute(inputs, output)` gets the data pointers. `more` elements lie behind those that
// are touched, in every buffer.
template <typename T, typename Execute>
void ExpectMoves(const reference::Moves& moves, std::size_t inputs, T fill, Random& random,
                 const Execute& execute, std::size_t more = 0) {
  using reference::Move;
  std::vector<GuardedBuffer> in;
  std::vector<std::vector<T>> in_values;
  std::vector<void*> in_data;
  for (std::size_t i = 0; i < inputs; ++i) {
    in.emplace_back((moves.Reach(static_cast<int>(i)) + more) * sizeof(T), AnyGuard(random));
    in.back().FillRandom(random);
    in_values.push_back(in.back().Get<T>());
    in_data.push_back(in.back().data());
  }
  GuardedBuffer out((moves.Reach(Move::kOutput) + more) * sizeof(T), AnyGuard(random));
  out.FillRandom(random);
  std::vector<T> expected = out.Get<T>();
  moves.CarryOut(expected, in_values, fill);

  execute(in_data, out.data());
  const std::vector<T> got = out.Get<T>();
  for (std::size_t i = 0; i < expected.size(); ++i) {
    ASSERT_EQ(got[i], expected[i]) << "element " << i << " of " << expected.size();
  }
  for (std::size_t i = 0; i < inputs; ++i)
    ASSERT_EQ(in[i].Get<T>(), in_values[i]) << "an input was written to";
}

// The same for elements of 8, 16 or 32 bits; `fill` keeps its low bits.
template <typename Execute>
void ExpectMovesOf(unsigned bits, const reference::Moves& moves, std::size_t inputs, std::uint32_t fill,
                   Random& random, const Execute& execute, std::size_t more = 0) {
  if (bits == 8) {
    ExpectMoves<std::uint8_t>(moves, inputs, static_cast<std::uint8_t>(fill), random, execute, more);
  } else if (bits == 16) {
    ExpectMoves<std::uint16_t>(moves, inputs, static_cast<std::uint16_t>(fill), random, execute, more);
  } else {
    ExpectMoves<std::uint32_t>(moves, inputs, fill, random, execute, more);
  }
}

// Executes through the plug-in's door and expects success without a word.
inline auto ExecuteQuietly(Layer& layer) {
  return [&layer](std::vector<void*>& in, void* out) {
    EXPECT_TRUE(layer.Execute(in, {out}));
    EXPECT_EQ(layer.log, Log{});
  };
}

}  // namespace vek_test
