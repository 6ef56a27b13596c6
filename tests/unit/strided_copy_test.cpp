// The strided copy against plain nested loops: every width, rank and kind of layout, with the data against unmapped
// pages and every byte between the target's elements watched.
#include "copy/strided_copy.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/guarded_buffer.h"
#include "support/random.h"
#include "support/room_headers.h"

namespace vek_test::strided_copy {
namespace {

namespace detail = zeb_custom_ops::detail;
using detail::Loop;

// The first and last element that one side of a copy touches.
struct Range {
  std::ptrdiff_t first = 0;
  std::ptrdiff_t last = 0;
  std::size_t count() const { return static_cast<std::size_t>(last - first + 1); }
};

Range RangeOf(const std::vector<Loop>& loops, std::ptrdiff_t Loop::*step) {
  Range range;
  for (const Loop& loop : loops) {
    if (loop.extent == 0) continue;
    const std::ptrdiff_t reach = (static_cast<std::ptrdiff_t>(loop.extent) - 1) * loop.*step;
    (reach < 0 ? range.first : range.last) += reach;
  }
  return range;
}

void PlainCopy(std::size_t width, std::uint8_t* dst, const std::uint8_t* src, const std::vector<Loop>& loops,
               std::size_t depth = 0) {
  if (depth == loops.size()) {
    for (std::size_t i = 0; i < width; ++i) dst[i] = src[i];
    return;
  }
  const auto bytes = static_cast<std::ptrdiff_t>(width);
  for (std::size_t i = 0; i < loops[depth].extent; ++i) {
    const auto at = static_cast<std::ptrdiff_t>(i);
    PlainCopy(width, dst + at * loops[depth].dst_step * bytes, src + at * loops[depth].src_step * bytes,
              loops, depth + 1);
  }
}

std::string Text(std::size_t width, const std::vector<Loop>& loops) {
  std::string text = std::to_string(width) + " bytes:";
  for (const Loop& loop : loops) {
    text += " {" + std::to_string(loop.extent) + ", " + std::to_string(loop.src_step) + ", " +
            std::to_string(loop.dst_step) + "}";
  }
  return text;
}

// Runs one strided copy with both buffers exactly as large as what it touches, or `slack` bytes larger (which also
// misaligns them), and compares all bytes of the target.
template <typename T>
void Check(const std::vector<Loop>& loops, Guard guard, std::size_t slack, Random& random) {
  const Range from = RangeOf(loops, &Loop::src_step);
  const Range to = RangeOf(loops, &Loop::dst_step);
  GuardedBuffer src(from.count() * sizeof(T) + slack, guard);
  GuardedBuffer dst(to.count() * sizeof(T) + slack, guard);
  src.FillRandom(random);
  dst.Fill(0xA5);
  std::vector<std::uint8_t> expected = dst.Get();
  const std::size_t shift = guard == Guard::kBefore ? slack : 0;
  const std::ptrdiff_t src_origin = -from.first * static_cast<std::ptrdiff_t>(sizeof(T));
  const std::ptrdiff_t dst_origin = -to.first * static_cast<std::ptrdiff_t>(sizeof(T));
  std::uint8_t* const src_data = src.as<std::uint8_t>() + shift + src_origin;
  std::uint8_t* const dst_data = dst.as<std::uint8_t>() + shift + dst_origin;
  PlainCopy(sizeof(T), expected.data() + shift + dst_origin, src_data, loops);
  detail::StridedCopy(reinterpret_cast<T*>(dst_data), reinterpret_cast<const T*>(src_data),
                      std::span<const Loop>(loops));
  ASSERT_EQ(dst.Get(), expected) << Text(sizeof(T), loops);
}

void CheckWidths(const std::vector<Loop>& loops, Random& random) {
  const Guard guard = random.OneIn(2) ? Guard::kBefore : Guard::kAfter;
  const std::size_t slack = random.OneIn(3) ? random.Between(1, 3) : 0;
  ASSERT_NO_FATAL_FAILURE(Check<std::uint8_t>(loops, guard, slack, random));
  ASSERT_NO_FATAL_FAILURE(Check<std::uint16_t>(loops, guard, slack, random));
  ASSERT_NO_FATAL_FAILURE(Check<std::uint32_t>(loops, guard, slack, random));
}

// The steps of a tensor with the given order of dims (innermost last), rows that may be padded, and elements
// that may lie apart.
std::vector<std::ptrdiff_t> Steps(const std::vector<std::size_t>& extents,
                                  const std::vector<std::size_t>& order, bool padded, std::ptrdiff_t unit,
                                  Random& random) {
  std::vector<std::ptrdiff_t> steps(extents.size());
  std::ptrdiff_t step = unit;
  for (std::size_t i = order.size(); i-- > 0;) {
    steps[order[i]] = step;
    step *= static_cast<std::ptrdiff_t>(extents[order[i]] == 0 ? 1 : extents[order[i]]);
    if (padded && random.OneIn(2)) step += random.Between(1, 5);
  }
  return steps;
}

std::vector<std::size_t> RandomOrder(std::size_t rank, Random& random) {
  std::vector<std::size_t> order(rank);
  for (std::size_t i = 0; i < rank; ++i) order[i] = i;
  for (std::size_t i = rank; i > 1; --i)
    std::swap(order[i - 1], order[random.Between(0, static_cast<unsigned>(i) - 1)]);
  return order;
}

constexpr unsigned kExtents[] = {0, 1, 2, 3, 4, 5, 7, 8, 15, 16, 17, 31, 33, 64, 65};

TEST(StridedCopy, TransposesEveryPlane) {
  Random random(1);
  for (const std::size_t rows : kExtents) {
    for (const std::size_t columns : kExtents) {
      for (const std::ptrdiff_t pad : {0, 1, 3}) {
        const auto H = static_cast<std::ptrdiff_t>(rows);
        const auto W = static_cast<std::ptrdiff_t>(columns);
        ASSERT_NO_FATAL_FAILURE(CheckWidths({{rows, W + pad, 1}, {columns, 1, H}}, random));
        ASSERT_NO_FATAL_FAILURE(CheckWidths({{columns, 1, H + pad}, {rows, W, 1}}, random));
      }
    }
  }
}

TEST(StridedCopy, CopiesRowsOfEveryLength) {
  Random random(2);
  for (std::size_t width = 1; width <= 150; ++width) {
    const auto W = static_cast<std::ptrdiff_t>(width);
    ASSERT_NO_FATAL_FAILURE(CheckWidths({{5, W, W + 3}, {width, 1, 1}}, random));
    ASSERT_NO_FATAL_FAILURE(CheckWidths({{3, W + 1, W}, {width, 1, 1}}, random));
    ASSERT_NO_FATAL_FAILURE(CheckWidths({{4, 0, W}, {width, 1, 1}}, random));
  }
}

// Short planes that go on behind each other on one side and lie apart on the other, and blocks that are whole on both
// sides: they go through scratch, and by tables.
TEST(StridedCopy, MovesManyShortPlanes) {
  Random random(10);
  for (std::ptrdiff_t d = 2; d <= 17; ++d) {
    for (std::ptrdiff_t s = random.Between(2, 4); s <= 17; s += random.Between(2, 6)) {
      const auto D = static_cast<std::size_t>(d);
      const auto S = static_cast<std::size_t>(s);
      const std::size_t planes = random.Between(2, 40);
      const std::size_t groups = random.Between(1, 20);
      const auto run = static_cast<std::ptrdiff_t>(planes) * s;
      const auto apart = static_cast<std::ptrdiff_t>(random.OneIn(2) ? d * s : d * s + random.Between(1, 9));
      const std::ptrdiff_t row = random.OneIn(3) ? d + 1 : d;
      const std::ptrdiff_t there = row == d ? apart : row * s;
      const auto group = static_cast<std::ptrdiff_t>(planes) * there;
      std::vector<Loop> loops = {{groups, run * d, group}, {planes, s, there}, {S, 1, row}, {D, run, 1}};
      ASSERT_NO_FATAL_FAILURE(CheckWidths(loops, random));
      for (Loop& loop : loops) std::swap(loop.src_step, loop.dst_step);
      ASSERT_NO_FATAL_FAILURE(CheckWidths(loops, random));
      const auto block = static_cast<std::ptrdiff_t>(D * S);
      ASSERT_NO_FATAL_FAILURE(CheckWidths({{groups, block, block + 1}, {D, s, 1}, {S, 1, d}}, random));
      ASSERT_NO_FATAL_FAILURE(CheckWidths({{planes + 30, block, block}, {D, s, 1}, {S, 1, d}}, random));
      ASSERT_NO_FATAL_FAILURE(CheckWidths(
          {{planes + 30, 2 * block, 2 * block}, {2, s, block}, {D, 2 * s, 1}, {S, 1, d}}, random));
    }
  }
}

// Touching rows that repeat, so many that the pattern outgrows the piece that is copied on and on.
TEST(StridedCopy, RepeatsTouchingRowsOfEveryLength) {
  Random random(9);
  for (std::size_t width = 1; width <= 150; width += width < 20 ? 1 : 13) {
    const auto W = static_cast<std::ptrdiff_t>(width);
    ASSERT_NO_FATAL_FAILURE(CheckWidths({{20000 / width, 0, W}, {width, 1, 1}}, random));
    ASSERT_NO_FATAL_FAILURE(CheckWidths({{20000 / width, 0, W + 1}, {width, 1, 1}}, random));
  }
}

TEST(StridedCopy, RepeatsElementsAlongRowsOfEveryLength) {
  Random random(3);
  for (std::size_t width = 1; width <= 150; ++width) {
    const auto W = static_cast<std::ptrdiff_t>(width);
    ASSERT_NO_FATAL_FAILURE(CheckWidths({{5, 1, W}, {width, 0, 1}}, random));
    ASSERT_NO_FATAL_FAILURE(CheckWidths({{3, 2, W + 2}, {width, 0, 1}}, random));
    ASSERT_NO_FATAL_FAILURE(CheckWidths({{width, 0, 1}}, random));
  }
}

TEST(StridedCopy, InterleavesAndDeinterleavesFewPlanes) {
  Random random(4);
  for (const std::size_t planes : {2U, 3U, 4U, 5U, 6U, 7U, 8U, 12U, 16U}) {
    for (std::size_t width = 1; width <= 70; ++width) {
      const auto W = static_cast<std::ptrdiff_t>(width);
      const auto P = static_cast<std::ptrdiff_t>(planes);
      for (const std::ptrdiff_t pad : {0, 2}) {
        ASSERT_NO_FATAL_FAILURE(
            CheckWidths({{2, P * (W + pad), P * W}, {width, 1, P}, {planes, W + pad, 1}}, random));
        ASSERT_NO_FATAL_FAILURE(
            CheckWidths({{2, P * W, P * (W + pad)}, {planes, 1, W + pad}, {width, P, 1}}, random));
      }
    }
  }
}

TEST(StridedCopy, TakesEveryKthElement) {
  Random random(5);
  for (const std::ptrdiff_t step : {-3, -2, -1, 2, 3, 4, 5, 8}) {
    for (std::size_t width = 1; width <= 70; ++width) {
      const auto W = static_cast<std::ptrdiff_t>(width);
      ASSERT_NO_FATAL_FAILURE(CheckWidths({{3, W * 9, W}, {width, step, 1}}, random));
      ASSERT_NO_FATAL_FAILURE(CheckWidths({{3, W, W * 9}, {width, 1, step}}, random));
    }
  }
}

TEST(StridedCopy, CopiesOneElementWithoutLoops) {
  Random random(6);
  ASSERT_NO_FATAL_FAILURE(CheckWidths({}, random));
  ASSERT_NO_FATAL_FAILURE(CheckWidths({{1, 7, 9}, {1, 0, 0}}, random));
}

// So few elements that they are copied one by one: dense, padded and reversed layouts of up to five loops, and loops of
// one round between them.
TEST(StridedCopy, CopiesAFewElementsAsTheLoopsSay) {
  vek_test::ForRandomCases(500, [](Random& random) {
    const std::size_t rank = random.Between(1, 6);
    std::vector<std::size_t> extents(rank);
    std::size_t count = 1;
    for (std::size_t& extent : extents) {
      extent = random.OneIn(3) ? 1 : random.Between(2, 5);
      if (count * extent > 40) extent = 1;
      count *= extent;
    }
    const auto src_steps = Steps(extents, RandomOrder(rank, random), random.OneIn(2), 1, random);
    const auto dst_steps = Steps(extents, RandomOrder(rank, random), random.OneIn(2), 1, random);
    std::vector<Loop> loops(rank);
    for (std::size_t i = 0; i < rank; ++i) {
      loops[i] = {extents[i], src_steps[i] * (random.OneIn(6) ? -1 : 1),
                  dst_steps[i] * (random.OneIn(6) ? -1 : 1)};
    }
    ASSERT_NO_FATAL_FAILURE(CheckWidths(loops, random));
  });
}

TEST(StridedCopy, TakesMoreThanSixLoops) {
  Random random(7);
  ASSERT_NO_FATAL_FAILURE(CheckWidths(
      {{2, 1, 192}, {2, 2, 96}, {2, 4, 48}, {2, 8, 24}, {3, 16, 8}, {2, 48, 4}, {2, 96, 2}, {2, 192, 1}},
      random));
}

TEST(StridedCopy, AgreesWithNestedLoopsOnRandomLayouts) {
  ForRandomCases(4000, [](Random& random) {
    const std::size_t rank = random.Between(0, 6);
    std::vector<std::size_t> extents(rank);
    std::size_t count = 1;
    for (std::size_t& extent : extents) {
      extent = random.OneIn(2) ? random.Between(1, 5)
                               : random.OneOf(std::vector<unsigned>(kExtents + 1, kExtents + 15));
      if (random.OneIn(40)) extent = 0;
      if (count * extent > 40000) extent = 1 + extent % 3;
      count *= extent == 0 ? 1 : extent;
    }
    const bool padded = random.OneIn(2);
    const std::ptrdiff_t src_unit = random.OneIn(4) ? random.Between(2, 4) : 1;
    const std::ptrdiff_t dst_unit = random.OneIn(6) ? random.Between(2, 4) : 1;
    const auto src_steps = Steps(extents, RandomOrder(rank, random), padded, src_unit, random);
    const auto dst_steps = Steps(extents, RandomOrder(rank, random), padded, dst_unit, random);
    std::vector<Loop> loops(rank);
    for (std::size_t i = 0; i < rank; ++i) {
      loops[i] = {extents[i], src_steps[i], dst_steps[i]};
      if (random.OneIn(12)) loops[i].src_step = 0;
      if (random.OneIn(20)) loops[i].src_step = -loops[i].src_step;
      if (random.OneIn(20)) loops[i].dst_step = -loops[i].dst_step;
    }
    ASSERT_NO_FATAL_FAILURE(CheckWidths(loops, random));
  });
}

template <typename T>
void CheckFill(T value) {
  for (std::size_t count = 0; count <= 200; ++count) {
    for (const Guard guard : {Guard::kBefore, Guard::kAfter}) {
      for (const std::size_t slack : {0U, 1U}) {
        GuardedBuffer buffer(count * sizeof(T) + slack, guard);
        buffer.Fill(0xA5);
        std::uint8_t* const data = buffer.as<std::uint8_t>() + (guard == Guard::kBefore ? slack : 0);
        std::vector<std::uint8_t> expected = buffer.Get();
        for (std::size_t i = 0; i < count * sizeof(T); ++i) {
          expected[i + (guard == Guard::kBefore ? slack : 0)] =
              reinterpret_cast<const std::uint8_t*>(&value)[i % sizeof(T)];
        }
        room::FillRun(reinterpret_cast<T*>(data), value, count);
        ASSERT_EQ(buffer.Get(), expected) << count;
      }
    }
  }
}

TEST(StridedCopy, FillsRunsOfEveryLength) {
  CheckFill<std::uint8_t>(0x71);
  CheckFill<std::uint16_t>(0x1234);
  CheckFill<std::uint16_t>(0x3333);
  CheckFill<std::int32_t>(-2);
  CheckFill<std::int32_t>(0x12345678);
  CheckFill<float>(0.1F);
}

}  // namespace
}  // namespace vek_test::strided_copy
