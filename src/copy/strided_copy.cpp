// The body of the strided copy, in bytes: brings its loops into the order of the target, as few as they can be, and
// chooses what moves the most at a time for the innermost ones.
#include "copy/strided_copy.h"

#include <cstdint>
#include <type_traits>

#include "copy/interleave.h"
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
  const Loop& outer = loops.front();
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

  // Puts the loop where its target step belongs. One that runs backwards in the target starts at its other end.
  void Insert(Loop loop) {
    if (loop.extent == 1) return;
    if (loop.dst_step < 0) {
      dst_start += Offset(loop.extent - 1, loop.dst_step);
      src_start += Offset(loop.extent - 1, loop.src_step);
      loop.dst_step = -loop.dst_step;
      loop.src_step = -loop.src_step;
    }
    std::size_t i = rank++;
    for (; i > 0 && loops[i - 1].dst_step < loop.dst_step; --i) loops[i] = loops[i - 1];
    loops[i] = loop;
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

  std::span<const Loop> Rest() const { return {loops, rank}; }
};

// Calls `body` with an extent from 2 to 4 as a constant.
template <typename Body>
void WithFew(std::size_t extent, const Body& body) {
  if (extent == 2) return body(std::integral_constant<std::size_t, 2>{});
  if (extent == 3) return body(std::integral_constant<std::size_t, 3>{});
  body(std::integral_constant<std::size_t, 4>{});
}

// Planes whose unit step lies along `d` in the target and along `s` in the source, where one of the two is two to
// four elements long and nothing lies between its runs; false for others.
template <typename T>
bool CopyInterleaved(std::byte* dst, const std::byte* src, LoopNest& nest, const Loop& d, const Loop& s) {
  constexpr std::ptrdiff_t kUnit = sizeof(T);
  if (sizeof(T) == 1 && !kShufflesBytes && (d.extent == 3 || s.extent == 3)) return false;
  if (d.extent <= 4 && s.dst_step == Offset(d.extent, kUnit)) {
    WithFew(d.extent, [&](auto k) {
      const Loop rows = nest.TakeLast();
      ForEach(dst, src, nest.Rest(), [&](std::byte* to, const std::byte* from) {
        InterleaveRows<T, k>(to, from, rows, d.src_step, s.extent);
      });
    });
    return true;
  }
  if (s.extent <= 4 && d.src_step == Offset(s.extent, kUnit)) {
    WithFew(s.extent, [&](auto k) {
      const Loop rows = nest.TakeLast();
      ForEach(dst, src, nest.Rest(), [&](std::byte* to, const std::byte* from) {
        DeinterleaveRows<T, k>(to, from, rows, s.dst_step, d.extent);
      });
    });
    return true;
  }
  return false;
}

}  // namespace

template <typename T>
void StridedCopyBytes(std::byte* dst, const std::byte* src, std::span<const Loop> loops) {
  LoopNest nest;
  for (const Loop& loop : loops) {
    if (loop.extent == 0) return;
    nest.Insert(loop);
  }
  nest.Fuse();
  dst += nest.dst_start;
  src += nest.src_start;

  constexpr std::ptrdiff_t kUnit = sizeof(T);
  const Loop inner = nest.TakeLast();
  if (inner.extent == 1) return Store(dst, Load<T>(src));
  if (inner.dst_step == kUnit) {
    if (inner.src_step == kUnit) {
      const Loop rows = nest.TakeLast();
      return ForEach(dst, src, nest.Rest(), [&](std::byte* to, const std::byte* from) {
        CopyRows(to, from, rows, inner.extent * sizeof(T));
      });
    }
    if (inner.src_step == 0) {
      const Loop rows = nest.TakeLast();
      return ForEach(dst, src, nest.Rest(), [&](std::byte* to, const std::byte* from) {
        RepeatRows<T>(to, from, rows, inner.extent);
      });
    }
    for (std::size_t i = 0; i < nest.rank; ++i) {
      if (nest.loops[i].src_step != kUnit) continue;
      const Loop across = nest.Take(i);
      if (CopyInterleaved<T>(dst, src, nest, inner, across)) return;
      return ForEach(dst, src, nest.Rest(), [&](std::byte* to, const std::byte* from) {
        TransposePlane<T>(to, from, inner, across);
      });
    }
  }
  const Loop rows = nest.TakeLast();
  ForEach(dst, src, nest.Rest(),
          [&](std::byte* to, const std::byte* from) { CopyPlane<T>(to, from, rows, inner); });
}

template void StridedCopyBytes<std::uint8_t>(std::byte*, const std::byte*, std::span<const Loop>);
template void StridedCopyBytes<std::uint16_t>(std::byte*, const std::byte*, std::span<const Loop>);
template void StridedCopyBytes<std::uint32_t>(std::byte*, const std::byte*, std::span<const Loop>);

}  // namespace zeb_custom_ops::detail::internal
