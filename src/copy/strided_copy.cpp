// Walks over bytes: the loops of a copy, brought into the form that moves the most at a time.
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

// Calls `body` for each position of nested loops, outermost axis first.
template <typename Body>
void ForEach(std::byte* dst, const std::byte* src, std::span<const Loop> axes, const Body& body) {
  if (axes.empty()) return body(dst, src);
  const Loop& axis = axes.front();
  for (std::size_t i = 0; i < axis.extent; ++i) {
    ForEach(dst + Offset(i, axis.dst_step), src + Offset(i, axis.src_step), axes.subspan(1), body);
  }
}

// The loops of a walk in the order of the target, as few as they can be.
struct Loops {
  Loop axes[kMaxRank];
  std::size_t rank = 0;
  std::ptrdiff_t dst_start = 0;
  std::ptrdiff_t src_start = 0;

  // Puts the axis where its target step belongs.
  void Insert(Loop axis) {
    if (axis.extent == 1) return;
    if (axis.dst_step < 0) {
      dst_start += Offset(axis.extent - 1, axis.dst_step);
      src_start += Offset(axis.extent - 1, axis.src_step);
      axis.dst_step = -axis.dst_step;
      axis.src_step = -axis.src_step;
    }
    std::size_t place = rank++;
    for (; place > 0 && axes[place - 1].dst_step < axis.dst_step; --place) axes[place] = axes[place - 1];
    axes[place] = axis;
  }

  // Makes one loop of neighbours that follow each other without a gap on both sides.
  void Fuse() {
    std::size_t kept = 0;
    for (std::size_t i = 1; i < rank; ++i) {
      Loop& outer = axes[kept];
      const Loop& inner = axes[i];
      if (outer.src_step == Offset(inner.extent, inner.src_step) &&
          outer.dst_step == Offset(inner.extent, inner.dst_step)) {
        outer = {outer.extent * inner.extent, inner.src_step, inner.dst_step};
      } else {
        axes[++kept] = inner;
      }
    }
    if (rank > 0) rank = kept + 1;
  }

  // Takes the axis out and returns it; a loop of one step where there is none.
  Loop Take(std::size_t i) {
    const Loop taken = axes[i];
    for (--rank; i < rank; ++i) axes[i] = axes[i + 1];
    return taken;
  }
  Loop TakeLast() { return rank > 0 ? axes[--rank] : Loop{1, 0, 0}; }

  std::span<const Loop> Rest() const { return {axes, rank}; }
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
bool CopyInterleaved(std::byte* dst, const std::byte* src, Loops& loops, const Loop& d, const Loop& s) {
  constexpr std::ptrdiff_t kUnit = sizeof(T);
  if (sizeof(T) == 1 && !kShufflesBytes && (d.extent == 3 || s.extent == 3)) return false;
  if (d.extent <= 4 && s.dst_step == Offset(d.extent, kUnit)) {
    WithFew(d.extent, [&](auto k) {
      const Loop rows = loops.TakeLast();
      ForEach(dst, src, loops.Rest(), [&](std::byte* to, const std::byte* from) {
        InterleaveRows<T, k>(to, from, rows, d.src_step, s.extent);
      });
    });
    return true;
  }
  if (s.extent <= 4 && d.src_step == Offset(s.extent, kUnit)) {
    WithFew(s.extent, [&](auto k) {
      const Loop rows = loops.TakeLast();
      ForEach(dst, src, loops.Rest(), [&](std::byte* to, const std::byte* from) {
        DeinterleaveRows<T, k>(to, from, rows, s.dst_step, d.extent);
      });
    });
    return true;
  }
  return false;
}

}  // namespace

template <typename T>
void StridedCopyBytes(std::byte* dst, const std::byte* src, std::span<const Loop> axes) {
  Loops loops;
  for (const Loop& axis : axes) {
    if (axis.extent == 0) return;
    loops.Insert(axis);
  }
  loops.Fuse();
  dst += loops.dst_start;
  src += loops.src_start;

  constexpr std::ptrdiff_t kUnit = sizeof(T);
  const Loop inner = loops.TakeLast();
  if (inner.extent == 1) return Store(dst, Load<T>(src));
  if (inner.dst_step == kUnit) {
    if (inner.src_step == kUnit) {
      const Loop rows = loops.TakeLast();
      return ForEach(dst, src, loops.Rest(), [&](std::byte* to, const std::byte* from) {
        CopyRows(to, from, rows, inner.extent * sizeof(T));
      });
    }
    if (inner.src_step == 0) {
      const Loop rows = loops.TakeLast();
      return ForEach(dst, src, loops.Rest(), [&](std::byte* to, const std::byte* from) {
        RepeatRows<T>(to, from, rows, inner.extent);
      });
    }
    for (std::size_t i = 0; i < loops.rank; ++i) {
      if (loops.axes[i].src_step != kUnit) continue;
      const Loop across = loops.Take(i);
      if (CopyInterleaved<T>(dst, src, loops, inner, across)) return;
      return ForEach(dst, src, loops.Rest(), [&](std::byte* to, const std::byte* from) {
        TransposePlane<T>(to, from, inner, across);
      });
    }
  }
  const Loop rows = loops.TakeLast();
  ForEach(dst, src, loops.Rest(),
          [&](std::byte* to, const std::byte* from) { CopyPlane<T>(to, from, rows, inner); });
}

template void StridedCopyBytes<std::uint8_t>(std::byte*, const std::byte*, std::span<const Loop>);
template void StridedCopyBytes<std::uint16_t>(std::byte*, const std::byte*, std::span<const Loop>);
template void StridedCopyBytes<std::uint32_t>(std::byte*, const std::byte*, std::span<const Loop>);

}  // namespace zeb_custom_ops::detail::internal
