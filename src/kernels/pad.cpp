#include "kernels/pad.h"

#include <algorithm>

#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

using detail::Loop;

namespace {

// --- The border of one axis, in units: elements of a row, rows of a plane, planes of an item, or items.

// `copied` units, the first from `src` to `dst` and the others that many steps on, then `filled` units from
// `fill_dst` on.
struct Side {
  unsigned copied = 0;
  unsigned dst = 0;
  unsigned src = 0;
  int dst_step = 0;
  int src_step = 0;
  unsigned filled = 0;
  unsigned fill_dst = 0;
};
using Sides = std::array<Side, 2>;  // before and after the interior

Sides SidesOf(int mode, unsigned before, unsigned extent, unsigned after) {
  const unsigned behind = before + extent;
  if (mode == kConstant) return {Side{0, 0, 0, 0, 0, before, 0}, Side{0, 0, 0, 0, 0, after, behind}};
  if (mode == kEdge)
    return {Side{before, 0, before, 1, 0, 0, 0}, Side{after, behind, behind - 1, 1, 0, 0, 0}};
  // Mirrored as far as the interior reaches; what lies farther out becomes 0.
  const unsigned skipped = mode == kReflect ? 1 : 0;
  const unsigned supply = extent > skipped ? extent - skipped : 0;
  const unsigned left = std::min(supply, before);
  const unsigned right = std::min(supply, after);
  return {Side{left, before - 1, before + skipped, -1, 1, before - left, 0},
          Side{right, behind, behind - 1 - skipped, 1, -1, after - right, behind + right}};
}

template <typename T>
Sides Columns(const Border<T>& b) {
  return SidesOf(b.mode, b.pads[6], b.interior.W, b.pads[7]);
}
template <typename T>
Sides Rows(const Border<T>& b) {
  return SidesOf(b.mode, b.pads[4], b.interior.H, b.pads[5]);
}
template <typename T>
Sides Channels(const Border<T>& b) {
  return SidesOf(b.mode, b.pads[2], b.interior.C, b.pads[3]);
}
template <typename T>
Sides Batches(const Border<T>& b) {
  return SidesOf(b.mode, b.pads[0], b.interior.N, b.pads[1]);
}

template <typename T>
T Fill(const Border<T>& b) {
  return b.mode == kConstant ? b.constant : T{0};
}

// Loops inside a unit, outermost first; those that are not given take one step.
using UnitLoops = std::array<Loop, 3>;

Loop InPlace(std::uint64_t extent, std::uint64_t step) { return MakeLoop(extent, step, step); }

constexpr Loop kOnce = {1, 0, 0};

}  // namespace

// --- The formulas.

template <typename T>
void PlainCopyInterior(const Interior<T>& i) {
  const auto [N, C, H, W] = i.extents;
  const unsigned pack = i.in_layout.pack;
  const unsigned groups = i.Groups();
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned g = 0; g < groups; ++g) {
      const unsigned c = g * pack;
      const unsigned channels = std::min(pack, C - c);
      for (unsigned h = 0; h < H; ++h) {
        const unsigned src_row = i.in_layout.Position(n, g, h);
        const auto dst_row =
            static_cast<unsigned>(i.out_layout.Position(n + i.p0, c + i.p2, h + i.p4) + i.p6);
        for (unsigned w = 0; w < W; ++w) {
          for (unsigned k = 0; k < channels; ++k) {
            i.out[dst_row + i.out_layout.Position(0, k, 0) + w] = i.in[src_row + w * pack + k];
          }
        }
      }
    }
  }
}

namespace {

// `origin` is where unit 0 of the axis starts, `step` leads to the next one.
template <typename T>
void PlainPadAxis(const Border<T>& b, unsigned origin, std::uint64_t step, const Sides& sides,
                  const UnitLoops& loops) {
  const auto unit = [&](unsigned i) { return static_cast<unsigned>(origin + i * step); };
  const auto offset = [](std::size_t i, const Loop& loop) {
    return static_cast<unsigned>(i) * static_cast<unsigned>(loop.dst_step);
  };
  const auto for_elements = [&](auto body) {
    for (std::size_t i = 0; i < loops[0].extent; ++i) {
      for (std::size_t j = 0; j < loops[1].extent; ++j) {
        for (std::size_t k = 0; k < loops[2].extent; ++k) {
          body(offset(i, loops[0]) + offset(j, loops[1]) + offset(k, loops[2]));
        }
      }
    }
  };
  const T fill = Fill(b);
  for (const Side& side : sides) {
    for (unsigned i = 0; i < side.copied; ++i) {
      const unsigned dst = unit(side.dst + i * static_cast<unsigned>(side.dst_step));
      const unsigned src = unit(side.src + i * static_cast<unsigned>(side.src_step));
      for_elements([&](unsigned at) { b.data[dst + at] = b.data[src + at]; });
    }
    for (unsigned i = 0; i < side.filled; ++i) {
      const unsigned dst = unit(side.fill_dst + i);
      for_elements([&](unsigned at) { b.data[dst + at] = fill; });
    }
  }
}

}  // namespace

template <typename T>
void PlainPad(const Border<T>& b) {
  const TensorLayout& layout = b.layout;
  const Loop planes = InPlace(b.whole.C, layout.plane);
  const Loop rows = InPlace(b.whole.H, layout.line);
  const Loop columns = InPlace(b.whole.W, 1);
  for (unsigned n = 0; n < b.interior.N; ++n) {
    const unsigned item = layout.Position(std::uint64_t{n} + b.pads[0], 0, 0);
    for (unsigned c = 0; c < b.interior.C; ++c) {
      const unsigned plane = item + layout.Position(0, std::uint64_t{c} + b.pads[2], 0);
      for (unsigned h = 0; h < b.interior.H; ++h) {
        const unsigned row = plane + layout.Position(0, 0, std::uint64_t{h} + b.pads[4]);
        PlainPadAxis(b, row, 1, Columns(b), {kOnce, kOnce, kOnce});
      }
      PlainPadAxis(b, plane, layout.line, Rows(b), {columns, kOnce, kOnce});
    }
    PlainPadAxis(b, item, layout.plane, Channels(b), {rows, columns, kOnce});
  }
  PlainPadAxis(b, 0, layout.batch, Batches(b), {planes, rows, columns});
}

// --- By strided copies.

namespace {

// Batch items that are treated alike, `count` of them from number `first` on.
struct Items {
  unsigned first;
  unsigned count;
};

// Groups `first` to before `last` of each item, which have as many channels each.
template <typename T>
void CopyEqualGroups(const Interior<T>& i, const Items& items, unsigned first, unsigned last,
                     unsigned channels) {
  if (first >= last) return;
  const unsigned pack = i.in_layout.pack;
  const std::uint64_t c = std::uint64_t{first} * pack;
  const auto dst_at = static_cast<unsigned>(i.out_layout.Position(items.first + i.p0, c + i.p2, i.p4) + i.p6);
  detail::StridedCopy(
      i.out + dst_at, i.in + i.in_layout.Position(items.first, first, 0),
      {MakeLoop(items.count, i.in_layout.batch, i.out_layout.batch),
       MakeLoop(last - first, i.in_layout.plane, pack * i.out_layout.plane),
       MakeLoop(channels, 1, i.out_layout.plane), MakeLoop(i.extents.H, i.in_layout.line, i.out_layout.line),
       MakeLoop(i.extents.W, pack, 1)});
}

// Groups of channels of each item become planes.
template <typename T>
void CopyGroups(const Interior<T>& i, const Items& items, unsigned first, unsigned last) {
  const unsigned pack = i.in_layout.pack;
  const unsigned filled = std::min(last, i.extents.C / pack);
  CopyEqualGroups(i, items, first, filled, pack);
  CopyEqualGroups(i, items, filled, last, i.extents.C % pack);
}

// As `PlainPadAxis`; the loops may also run around a unit, where rows are taken together.
template <typename T>
void PadAxis(const Border<T>& b, unsigned origin, std::uint64_t step, const Sides& sides,
             const UnitLoops& loops, const Loop& items = kOnce) {
  const auto signed_step = static_cast<std::ptrdiff_t>(step);
  const auto from_one = [](const Loop& loop) { return Loop{loop.extent, 0, loop.dst_step}; };
  const T fill = Fill(b);
  for (const Side& side : sides) {
    if (side.copied != 0) {
      detail::StridedCopy(b.data + (origin + side.dst * step), b.data + (origin + side.src * step),
                          {items,
                           {side.copied, side.src_step * signed_step, side.dst_step * signed_step},
                           loops[0],
                           loops[1],
                           loops[2]});
    }
    if (side.filled != 0) {
      detail::StridedCopy(b.data + (origin + side.fill_dst * step), &fill,
                          {from_one(items),
                           {side.filled, 0, signed_step},
                           from_one(loops[0]),
                           from_one(loops[1]),
                           from_one(loops[2])});
    }
  }
}

// Where channel c of the interior is in the first of the items.
template <typename T>
unsigned PlaneOf(const Border<T>& b, const Items& items, unsigned c) {
  return b.layout.Position(std::uint64_t{items.first} + b.pads[0], std::uint64_t{c} + b.pads[2], 0);
}

// Columns and rows of planes of several channels, taken together.
template <typename T>
void PadPlanes(const Border<T>& b, const Items& items, unsigned c, unsigned planes) {
  const TensorLayout& layout = b.layout;
  const unsigned plane = PlaneOf(b, items, c);
  const unsigned row = plane + layout.Position(0, 0, b.pads[4]);
  const Loop each_item = InPlace(items.count, layout.batch);
  const Loop each_plane = InPlace(planes, layout.plane);
  PadAxis(b, row, 1, Columns(b), {each_plane, InPlace(b.interior.H, layout.line), kOnce}, each_item);
  PadAxis(b, plane, layout.line, Rows(b), {each_plane, InPlace(b.whole.W, 1), kOnce}, each_item);
}

// The same planes, whole.
template <typename T>
void FillPlanes(const Border<T>& b, const Items& items, unsigned c, unsigned planes) {
  const TensorLayout& layout = b.layout;
  detail::StridedCopy(b.data + PlaneOf(b, items, c), &b.constant,
                      {MakeLoop(items.count, 0, layout.batch), MakeLoop(planes, 0, layout.plane),
                       MakeLoop(b.whole.H, 0, layout.line), MakeLoop(b.whole.W, 0, 1)});
}

// Columns and rows of such planes that are filled, where rows touch: one run up to the first interior row, one from each of
// these to the next, one behind the last. There is an interior row.
template <typename T>
void FillFrames(const Border<T>& b, const Items& items, unsigned c, unsigned planes) {
  const TensorLayout& layout = b.layout;
  const std::uint64_t row = layout.line;
  const std::uint64_t first = b.pads[4] * row + b.pads[6];
  const std::uint64_t behind = first + (b.interior.H - 1) * row + b.interior.W;
  T* const plane = b.data + PlaneOf(b, items, c);
  const auto fill = [&](T* dst, std::uint64_t rows, std::uint64_t count) {
    detail::StridedCopy(dst, &b.constant,
                        {MakeLoop(items.count, 0, layout.batch), MakeLoop(planes, 0, layout.plane),
                         MakeLoop(rows, 0, row), MakeLoop(count, 0, 1)});
  };
  fill(plane, 1, first);
  fill(plane + (first + b.interior.W), b.interior.H - 1, row - b.interior.W);
  fill(plane + behind, 1, b.whole.H * row - behind);
}

template <typename T>
void PadChannels(const Border<T>& b, const Items& items) {
  PadAxis(b, b.layout.Position(std::uint64_t{items.first} + b.pads[0], 0, 0), b.layout.plane, Channels(b),
          {InPlace(b.whole.H, b.layout.line), InPlace(b.whole.W, 1), kOnce},
          InPlace(items.count, b.layout.batch));
}

template <typename T>
void PadBatches(const Border<T>& b) {
  PadAxis(b, 0, b.layout.batch, Batches(b),
          {InPlace(b.whole.C, b.layout.plane), InPlace(b.whole.H, b.layout.line), InPlace(b.whole.W, 1)});
}

}  // namespace

template <typename T>
void CopyInterior(const Interior<T>& i) {
  CopyGroups(i, {0, i.extents.N}, 0, i.Groups());
}

template <typename T>
void Pad(const Border<T>& b) {
  const Items all = {0, b.interior.N};
  PadPlanes(b, all, 0, b.interior.C);
  PadChannels(b, all);
  PadBatches(b);
}

template <typename T>
void CopyAndPad(const Interior<T>& i, const Border<T>& b) {
  // Planes that nothing is padded between are those of one item.
  if (i.extents.N > 1 && i.in_layout.pack == 1 && b.pads[2] == 0 && b.pads[3] == 0 &&
      i.in_layout.batch == i.extents.C * i.in_layout.plane &&
      b.layout.batch == i.extents.C * b.layout.plane) {
    Interior<T> all = i;
    Border<T> around = b;
    all.extents.C = around.interior.C = around.whole.C = i.extents.N * i.extents.C;
    all.extents.N = around.interior.N = around.whole.N = 1;
    all.out += i.p0 * b.layout.batch;
    around.data += b.pads[0] * b.layout.batch;
    all.p0 = around.pads[0] = around.pads[1] = 0;
    CopyAndPad(all, around);
    return PadBatches(b);
  }
  // Short rows are filled whole before the interior comes over them: that takes less than their two ends.
  constexpr std::uint64_t kShortRowBytes = 64;
  const bool fills = b.mode == kConstant && b.interior.H != 0;
  const bool fills_first = fills && b.whole.W * sizeof(T) <= kShortRowBytes;
  const auto pad_planes = fills && b.layout.line == b.whole.W ? FillFrames<T> : PadPlanes<T>;
  // As many groups of channels of an item, or as many items, as the nearest cache holds.
  constexpr std::uint64_t kCachedBytes = 16384;
  const unsigned pack = i.in_layout.pack;
  const unsigned groups = i.Groups();
  const std::uint64_t group_bytes = std::max<std::uint64_t>(1, pack * b.layout.plane * sizeof(T));
  const std::uint64_t groups_at_once = std::max<std::uint64_t>(1, kCachedBytes / group_bytes);
  const std::uint64_t items_at_once = std::max<std::uint64_t>(1, groups_at_once / std::max(1U, groups));
  for (std::uint64_t n = 0; n < i.extents.N; n += items_at_once) {
    const Items items = {static_cast<unsigned>(n),
                         static_cast<unsigned>(std::min(items_at_once, i.extents.N - n))};
    for (std::uint64_t at = 0; at < groups; at += groups_at_once) {
      const auto g = static_cast<unsigned>(at);
      const unsigned end = g + static_cast<unsigned>(std::min(groups_at_once, groups - at));
      const unsigned c = g * pack;
      const unsigned planes = end == groups ? i.extents.C - c : (end - g) * pack;
      if (fills_first) FillPlanes(b, items, c, planes);
      CopyGroups(i, items, g, end);
      if (!fills_first) pad_planes(b, items, c, planes);
    }
    PadChannels(b, items);
  }
  PadBatches(b);
}

template void PlainCopyInterior<float>(const Interior<float>&);
template void PlainCopyInterior<int>(const Interior<int>&);
template void PlainCopyInterior<short>(const Interior<short>&);
template void PlainCopyInterior<char>(const Interior<char>&);
template void PlainPad<float>(const Border<float>&);
template void PlainPad<int>(const Border<int>&);
template void PlainPad<short>(const Border<short>&);
template void PlainPad<char>(const Border<char>&);
template void CopyInterior<float>(const Interior<float>&);
template void CopyInterior<int>(const Interior<int>&);
template void CopyInterior<short>(const Interior<short>&);
template void CopyInterior<char>(const Interior<char>&);
template void Pad<float>(const Border<float>&);
template void Pad<int>(const Border<int>&);
template void Pad<short>(const Border<short>&);
template void Pad<char>(const Border<char>&);
template void CopyAndPad<float>(const Interior<float>&, const Border<float>&);
template void CopyAndPad<int>(const Interior<int>&, const Border<int>&);
template void CopyAndPad<short>(const Interior<short>&, const Border<short>&);
template void CopyAndPad<char>(const Interior<char>&, const Border<char>&);

}  // namespace zeb_custom_ops::kernels
