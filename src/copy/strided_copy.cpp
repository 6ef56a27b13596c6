// The body of the strided copy, in bytes: brings its loops into the order of the target, as few as they can be, and
// chooses what moves the most at a time for the innermost ones.
#include "copy/strided_copy.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

#include "copy/interleave.h"
#include "copy/shuffle_blocks.h"
#include "copy/transpose.h"

namespace zeb_custom_ops::detail::internal {

namespace {

// A plane of any two steps.
template <typename T>
inline void CopyPlane(std::byte* dst, const std::byte* src, const Loop& rows, const Loop& columns) {
  for (std::size_t i = 0; i < rows.extent; ++i) {
    ForRows(dst + Offset(i, rows.dst_step), columns.dst_step,
            SteppedRows{src + Offset(i, rows.src_step), columns.src_step}, columns.extent,
            [](std::byte* to, const std::byte* from) { Store(to, Load<T>(from)); });
  }
}

// Calls `body` for each position of nested loops, outermost loop first.
template <typename Body>
void ForEach(std::byte* dst, const std::byte* src, std::span<const Loop> loops, const Body& body) {
  if (loops.empty()) return body(dst, src);
  const Loop outer = loops.front();
  if (loops.size() == 1) {
    for (std::size_t i = outer.extent; i > 0; --i, dst += outer.dst_step, src += outer.src_step)
      body(dst, src);
    return;
  }
  for (std::size_t i = 0; i < outer.extent; ++i) {
    ForEach(dst + Offset(i, outer.dst_step), src + Offset(i, outer.src_step), loops.subspan(1), body);
  }
}

// The loops of a strided copy in the order of the target: the one with the largest step there is outermost.
struct LoopNest {
  Loop loops[kMaxRank];
  std::size_t rank = 0;
  std::ptrdiff_t dst_start = 0;
  std::ptrdiff_t src_start = 0;

  void Push(const Loop& innermost) { loops[rank++] = innermost; }
  // The same of a loop that may have one round, and is dropped then.
  void PushIfMany(const Loop& innermost) {
    if (innermost.extent != 1) Push(innermost);
  }

  // Puts the loops where their target steps belong. One that runs backwards in the target starts at its other end.
  void Sort() {
    for (std::size_t sorted = 0; sorted < rank; ++sorted) {
      Loop& next = loops[sorted];
      if (next.dst_step < 0) {
        dst_start += Offset(next.extent - 1, next.dst_step);
        src_start += Offset(next.extent - 1, next.src_step);
        next.dst_step = -next.dst_step;
        next.src_step = -next.src_step;
      }
      if (sorted == 0 || loops[sorted - 1].dst_step >= next.dst_step) continue;
      const Loop loop = next;
      std::size_t i = sorted;
      for (; i > 0 && loops[i - 1].dst_step < loop.dst_step; --i) loops[i] = loops[i - 1];
      loops[i] = loop;
    }
  }

  // Makes one loop of neighbours where the outer one goes on, on both sides, where the inner one ends.
  void Fuse() {
    std::size_t kept = 0;
    for (std::size_t i = 1; i < rank; ++i) {
      Loop& outer = loops[kept];
      const Loop& inner = loops[i];
      if (outer.src_step == Offset(inner.extent, inner.src_step) &&
          outer.dst_step == Offset(inner.extent, inner.dst_step)) {
        outer = {outer.extent * inner.extent, inner.src_step, inner.dst_step};
      } else {
        loops[++kept] = inner;
      }
    }
    if (rank > 0) rank = kept + 1;
  }

  // Takes a loop out and returns it.
  Loop Take(std::size_t i) {
    const Loop taken = loops[i];
    for (--rank; i < rank; ++i) loops[i] = loops[i + 1];
    return taken;
  }
  // The same of the innermost one; a loop of one round where there is none.
  Loop TakeLast() { return rank > 0 ? loops[--rank] : Loop{1, 0, 0}; }

  // The same of the longest one.
  Loop TakeLongest() {
    std::size_t longest = 0;
    for (std::size_t i = 1; i < rank; ++i) longest = loops[i].extent > loops[longest].extent ? i : longest;
    return rank > 0 ? Take(longest) : Loop{1, 0, 0};
  }
  // The same of the two innermost ones, the outer one first. Where the inner one has few rounds they change places, so
  // that many rounds follow each other without a loop around them, if what they touch stays in the nearest cache.
  std::array<Loop, 2> TakeLastTwo() {
    const Loop inner = TakeLast();
    const Loop outer = TakeLast();
    constexpr std::size_t kFew = 8;
    constexpr std::size_t kCached = 32768;
    const auto reach = static_cast<std::size_t>(std::max(std::abs(outer.src_step), outer.dst_step));
    if (inner.extent < kFew && inner.extent < outer.extent && outer.extent * reach <= kCached) {
      return {inner, outer};
    }
    return {outer, inner};
  }

  // The number of the loop with this step, or `rank` where there is none.
  std::size_t Find(std::ptrdiff_t Loop::*step, std::ptrdiff_t value) const {
    std::size_t i = 0;
    while (i < rank && loops[i].*step != value) ++i;
    return i;
  }

  std::span<const Loop> Rest() const { return {loops, rank}; }
};

// Calls `body` with a number from 2 to `most` as a constant.
template <std::size_t most, typename Body>
void WithFew(std::size_t number, const Body& body) {
  if constexpr (most > 2) {
    if (number < most) return WithFew<most - 1>(number, body);
  }
  body(std::integral_constant<std::size_t, most>{});
}

// Runs of `bytes` bytes for all positions of the nest.
void CopyRuns(std::byte* dst, const std::byte* src, LoopNest& nest, std::size_t bytes) {
  if (nest.rank <= 1) return CopyRows(dst, src, nest.TakeLast(), bytes);
  const auto [planes, rows] = nest.TakeLastTwo();
  ForEach(dst, src, nest.Rest(), [&, planes = planes, rows = rows](std::byte* to, const std::byte* from) {
    CopyPlanesOfRows(to, from, planes, rows, bytes);
  });
}

// Below, the unit step lies along `d` in the target and along `s` in the source.

// Calls `few` with a number of planes that vectors interleave as they are, or `many` with the power of two to which vectors
// fill it up; false for other numbers.
template <typename T, typename Few, typename Many>
bool WithPlanes(std::size_t planes, const Few& few, const Many& many) {
  if (planes <= kInterleavedVectors && (sizeof(T) > 1 || kShufflesBytes || planes != 3)) {
    WithFew<kInterleavedVectors>(planes, few);
  } else if (planes > 4 && planes < 8) {
    if constexpr (kInterleavedVectors < 7) many(std::integral_constant<std::size_t, 8>{});
  } else if (sizeof(T) == 1 && planes > 8 && planes < 16) {
    many(std::integral_constant<std::size_t, 16>{});
  } else {
    return false;
  }
  return true;
}

// Planes that vectors interleave as they are.
template <typename T>
bool InterleavesFew(const Loop& d, const Loop& s) {
  constexpr std::ptrdiff_t kUnit = sizeof(T);
  return (d.extent <= kInterleavedVectors && s.dst_step == Offset(d.extent, kUnit) &&
          s.extent >= kLanes<T>) ||
         (s.extent <= kInterleavedVectors && d.src_step == Offset(s.extent, kUnit) && d.extent >= kLanes<T>);
}

// Copies planes where one of the two has few elements and nothing lies between its runs, and the other one fills a vector;
// false for others. `rows` and `planes` of these are two loops more.
template <typename T>
bool CopyInterleaved(std::byte* dst, const std::byte* src, std::span<const Loop> outer, const Loop& planes,
                     const Loop& rows, const Loop& d, const Loop& s) {
  constexpr std::ptrdiff_t kUnit = sizeof(T);
  const auto for_each = [&](const auto& body) { ForEach(dst, src, outer, body); };
  const auto interleave = [&](auto k) {
    for_each([&](std::byte* to, const std::byte* from) {
      InterleaveRows<T, k>(to, from, planes, rows, d.src_step, s.extent);
    });
  };
  const auto interleave_many = [&](auto m) {
    for_each([&](std::byte* to, const std::byte* from) {
      InterleaveManyRows<T, m>(to, from, planes, rows, d.src_step, s.extent, d.extent);
    });
  };
  const auto deinterleave = [&](auto k) {
    for_each([&](std::byte* to, const std::byte* from) {
      DeinterleaveRows<T, k>(to, from, planes, rows, s.dst_step, d.extent);
    });
  };
  const auto deinterleave_many = [&](auto m) {
    for_each([&](std::byte* to, const std::byte* from) {
      DeinterleaveManyRows<T, m>(to, from, planes, rows, s.dst_step, d.extent, s.extent);
    });
  };
  return (s.dst_step == Offset(d.extent, kUnit) && s.extent >= kLanes<T> &&
          WithPlanes<T>(d.extent, interleave, interleave_many)) ||
         (d.src_step == Offset(s.extent, kUnit) && d.extent >= kLanes<T> &&
          WithPlanes<T>(s.extent, deinterleave, deinterleave_many));
}

template <typename T>
void CopyTransposed(std::byte* dst, const std::byte* src, LoopNest& nest, const Loop& d, const Loop& s) {
  const auto [planes, rows] = nest.TakeLastTwo();
  if (CopyInterleaved<T>(dst, src, nest.Rest(), planes, rows, d, s)) return;
  ForEach(dst, src, nest.Rest(), [&, planes = planes, rows = rows](std::byte* to, const std::byte* from) {
    TransposePlanes<T>(to, from, planes, rows, d, s);
  });
}

// What is kept of a copy in steps: small enough for the nearest cache, and the stack.
constexpr std::size_t kScratch = 8192;  // bytes
// A side of a plane that two vectors cover: shorter ones leave them partly empty, or the copy much else to do.
constexpr std::size_t kShortBytes = 2 * kVecBytes;

// Calls `body` for parts of a loop of at most `at_once` rounds.
template <typename Body>
void ForParts(std::byte* dst, const std::byte* src, const Loop& loop, std::size_t at_once, const Body& body) {
  for (std::size_t i = 0; i < loop.extent; i += at_once) {
    body(dst + Offset(i, loop.dst_step), src + Offset(i, loop.src_step), std::min(at_once, loop.extent - i));
  }
}

// Planes of which a side is short, while there are many of them that go on where it ends, on one of the two sides: a few
// planes at a time become one with a long side, in scratch memory. Returns false for others.
//
//   s is short, and `next` goes on behind it in the source: these planes are transposed into scratch as one; from there
//   rows of d's elements, or whole planes, go to their places.
//   d is short, and `next` goes on behind it in the target: rows of s's elements, or whole planes, are collected in
//   scratch; from there they are transposed as one.
//
// Where there is room, several such planes are in scratch, those of the loop `more`.
template <typename T>
bool CopyShortPlanes(std::byte* dst, const std::byte* src, LoopNest nest, std::size_t s_loop) {
  constexpr std::ptrdiff_t kUnit = sizeof(T);
  const Loop s = nest.Take(s_loop);
  const Loop d = nest.TakeLast();
  const std::size_t plane_bytes = d.extent * s.extent * sizeof(T);
  const std::ptrdiff_t d_bytes = Offset(d.extent, kUnit);
  const std::ptrdiff_t s_bytes = Offset(s.extent, kUnit);
  if (2 * plane_bytes > kScratch) return false;
  if (std::has_single_bit(d.extent) && std::has_single_bit(s.extent) && plane_bytes >= kVecBytes &&
      std::min(d.extent, s.extent) > 4) {
    return false;
  }
  const auto find_behind = [&](const Loop& side, std::ptrdiff_t Loop::*step) {
    const std::size_t side_bytes = side.extent * sizeof(T);
    if (side_bytes >= kShortBytes) return nest.rank;
    const std::size_t i = nest.Find(step, static_cast<std::ptrdiff_t>(side_bytes));
    return i < nest.rank && nest.loops[i].extent * side_bytes >= kShortBytes ? i : nest.rank;
  };
  std::size_t behind_s = find_behind(s, &Loop::src_step);
  std::size_t behind_d = find_behind(d, &Loop::dst_step);
  if (behind_s < nest.rank && behind_d < nest.rank) {
    // Where planes are whole on one side, they move in one piece; else the longer rows are better.
    const bool collects = d.src_step == s_bytes || (s.dst_step != d_bytes && s.extent > d.extent);
    (collects ? behind_s : behind_d) = nest.rank;
  }
  if (behind_s == nest.rank && behind_d == nest.rank) return false;

  const bool collects = behind_s == nest.rank;
  const Loop next = nest.Take(collects ? behind_d : behind_s);
  const std::size_t at_once = std::min(next.extent, kScratch / plane_bytes);
  const Loop more = nest.TakeLongest();
  const std::size_t more_at_once = at_once < next.extent ? 1 : kScratch / (plane_bytes * next.extent);
  const auto plane_step = static_cast<std::ptrdiff_t>(plane_bytes);
  std::byte scratch[kScratch];
  ForEach(dst, src, nest.Rest(), [&](std::byte* all_to, const std::byte* all_from) {
    ForParts(all_to, all_from, more, more_at_once,
             [&](std::byte* more_to, const std::byte* more_from, std::size_t groups) {
               ForParts(
                   more_to, more_from, next, at_once,
                   [&](std::byte* to, const std::byte* from, std::size_t planes) {
                     const std::ptrdiff_t group_step = Offset(planes, plane_step);
                     LoopNest runs;
                     LoopNest transposed;
                     if (collects) {
                       runs.PushIfMany({groups, more.src_step, group_step});
                       runs.PushIfMany({planes, next.src_step, plane_step});
                       runs.PushIfMany({d.extent, d.src_step, s_bytes});
                       runs.PushIfMany({s.extent, kUnit, kUnit});
                       runs.Sort();
                       runs.Fuse();
                       CopyRuns(scratch, from, runs, runs.TakeLast().extent * sizeof(T));
                       transposed.PushIfMany({groups, group_step, more.dst_step});
                       CopyTransposed<T>(to, scratch, transposed, {planes * d.extent, s_bytes, kUnit}, s);
                     } else {
                       transposed.PushIfMany({groups, more.src_step, group_step});
                       CopyTransposed<T>(scratch, from, transposed, d, {planes * s.extent, kUnit, d_bytes});
                       runs.PushIfMany({groups, group_step, more.dst_step});
                       runs.PushIfMany({planes, plane_step, next.dst_step});
                       runs.PushIfMany({s.extent, d_bytes, s.dst_step});
                       runs.PushIfMany({d.extent, kUnit, kUnit});
                       runs.Sort();
                       runs.Fuse();
                       CopyRuns(to, scratch, runs, runs.TakeLast().extent * sizeof(T));
                     }
                   });
             });
  });
  return true;
}

// Many blocks of a few elements that are whole on both sides, and in which elements change places in any way: a table says
// where each byte comes from. Returns false for others.
bool CopySmallBlocks(std::byte* dst, const std::byte* src, const LoopNest& nest, std::ptrdiff_t unit) {
  if (kMostShuffledBytes == 0) return false;
  // The innermost loops that make up a block.
  std::size_t first = nest.rank;
  std::ptrdiff_t bytes = unit;
  std::ptrdiff_t src_last = 0;
  for (std::size_t i = nest.rank; i-- > 0;) {
    const Loop& loop = nest.loops[i];
    if (loop.dst_step != bytes || loop.src_step < unit) break;
    bytes = Offset(loop.extent, bytes);
    if (bytes > std::ptrdiff_t{kMostShuffledBytes}) break;
    src_last += Offset(loop.extent - 1, loop.src_step);
    if (src_last == bytes - unit) first = i;
  }
  const std::size_t inner = nest.rank - first;
  if (inner < 2) return false;

  LoopNest outer = nest;
  outer.rank = first;
  const std::span<const Loop> block(nest.loops + first, inner);
  std::size_t block_bytes = static_cast<std::size_t>(unit);
  for (const Loop& loop : block) block_bytes *= loop.extent;
  Loop blocks = outer.TakeLast();
  // Blocks that touch on both sides fill vectors together.
  std::size_t together = 1;
  const auto step = static_cast<std::ptrdiff_t>(block_bytes);
  if (blocks.src_step == step && blocks.dst_step == step) {
    together =
        std::min(blocks.extent, kMostShuffledBytes / 2 / std::min(block_bytes, kMostShuffledBytes / 2));
  }
  // A table costs as much as moving some blocks one by one.
  constexpr std::size_t kWorthATable = 16;
  std::size_t rounds = blocks.extent / together;
  for (const Loop& loop : outer.Rest()) rounds *= loop.extent;
  if (together * block_bytes < kVecBytes || rounds < kWorthATable) return false;

  ByteTable table;
  std::size_t behind = 0;
  for (std::size_t k = 0; k < together; ++k) {
    ForEach(nullptr, nullptr, block, [&](const std::byte*, const std::byte* from) {
      for (std::ptrdiff_t byte = 0; byte < unit; ++byte) {
        table.source[behind++] = static_cast<std::uint8_t>(
            k * block_bytes + reinterpret_cast<std::uintptr_t>(from) + std::size_t(byte));
      }
    });
  }
  const std::size_t last = blocks.extent - together;  // the last ones may be copied twice
  const Loop groups = {(blocks.extent + together - 1) / together, Offset(together, blocks.src_step),
                       Offset(together, blocks.dst_step)};
  ForEach(dst, src, outer.Rest(), [&](std::byte* to, const std::byte* from) {
    ShuffleBlocks(to, from, {groups.extent - 1, groups.src_step, groups.dst_step}, table,
                  together * block_bytes);
    ShuffleBlocks(to + Offset(last, blocks.dst_step), from + Offset(last, blocks.src_step), {1, 0, 0}, table,
                  together * block_bytes);
  });
  return true;
}

// Copies by what the innermost loops have in common; false where that is nothing.
template <typename T>
bool CopyByKind(std::byte* dst, const std::byte* src, LoopNest& nest, bool is_much) {
  constexpr std::ptrdiff_t kUnit = sizeof(T);
  const Loop& inner = nest.loops[nest.rank - 1];
  if (inner.dst_step != kUnit) return false;
  if (inner.src_step == kUnit) {
    CopyRuns(dst, src, nest, nest.TakeLast().extent * sizeof(T));
    return true;
  }
  if (inner.src_step == 0) {
    const std::size_t repeats = nest.TakeLast().extent;
    const Loop rows = nest.TakeLast();
    ForEach(dst, src, nest.Rest(),
            [&](std::byte* to, const std::byte* from) { RepeatRows<T>(to, from, rows, repeats); });
    return true;
  }
  if (inner.src_step == -kUnit && (sizeof(T) > 1 || kShufflesBytes)) {
    const std::size_t count = nest.TakeLast().extent;
    const Loop rows = nest.TakeLast();
    ForEach(dst, src, nest.Rest(),
            [&](std::byte* to, const std::byte* from) { ReverseRows<T>(to, from, rows, count); });
    return true;
  }
  const std::size_t i = nest.Find(&Loop::src_step, kUnit);
  if (i == nest.rank) return false;
  if (is_much && !InterleavesFew<T>(inner, nest.loops[i])) {
    if (CopySmallBlocks(dst, src, nest, kUnit)) return true;
    if (CopyShortPlanes<T>(dst, src, nest, i)) return true;
  }
  const Loop s = nest.Take(i);
  const Loop d = nest.TakeLast();
  CopyTransposed<T>(dst, src, nest, d, s);
  return true;
}

// A few elements, in the order of the loops: a look at what the loops have in common would cost more than it saves.
template <typename T>
void CopyFew(std::byte* dst, const std::byte* src, std::span<const Loop> loops) {
  if (loops.size() > 3) {
    const Loop outer = loops.front();
    for (std::size_t i = outer.extent; i > 0; --i, dst += outer.dst_step, src += outer.src_step) {
      CopyFew<T>(dst, src, loops.subspan(1));
    }
    return;
  }
  const auto loop = [&](std::size_t from_inside) {
    return from_inside < loops.size() ? loops[loops.size() - 1 - from_inside] : Loop{1, 0, 0};
  };
  const Loop columns = loop(0);
  const Loop rows = loop(1);
  const Loop planes = loop(2);
  for (std::size_t i = planes.extent; i > 0; --i, dst += planes.dst_step, src += planes.src_step) {
    std::byte* row_to = dst;
    const std::byte* row_from = src;
    for (std::size_t j = rows.extent; j > 0; --j, row_to += rows.dst_step, row_from += rows.src_step) {
      std::byte* to = row_to;
      const std::byte* from = row_from;
      for (std::size_t k = columns.extent; k > 0; --k, to += columns.dst_step, from += columns.src_step) {
        Store(to, Load<T>(from));
      }
    }
  }
}

}  // namespace

template <typename T>
void StridedCopyWords(std::byte* dst, const std::byte* src, std::span<const Loop> loops) {
  constexpr std::ptrdiff_t kUnit = sizeof(T);
  // Chosen by the instructions of small calls.
  constexpr std::size_t kFewElements = 32;
  // The least for what prepares scratch or tables.
  constexpr std::size_t kManyBytes = 1024;
  LoopNest nest;
  std::size_t count = 1;
  for (const Loop& loop : loops) {
    if (loop.extent == 1) continue;
    count *= loop.extent;
    nest.Push({loop.extent, loop.src_step * kUnit, loop.dst_step * kUnit});
  }
  if (count == 0) return;
  if (count <= kFewElements) return CopyFew<T>(dst, src, nest.Rest());
  nest.Sort();
  nest.Fuse();
  dst += nest.dst_start;
  src += nest.src_start;
  if (CopyByKind<T>(dst, src, nest, count * sizeof(T) >= kManyBytes)) return;
  const auto [rows, columns] = nest.TakeLastTwo();
  ForEach(dst, src, nest.Rest(),
          [&](std::byte* to, const std::byte* from) { CopyPlane<T>(to, from, rows, columns); });
}

template void StridedCopyWords<std::uint8_t>(std::byte*, const std::byte*, std::span<const Loop>);
template void StridedCopyWords<std::uint16_t>(std::byte*, const std::byte*, std::span<const Loop>);
template void StridedCopyWords<std::uint32_t>(std::byte*, const std::byte*, std::span<const Loop>);

}  // namespace zeb_custom_ops::detail::internal
