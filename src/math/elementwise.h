// Element-wise functions over runs of floats, and over nested loops in which an operand may repeat. The functions take
// vectors: a lane is an element, so every element has its own operations and no others. The output may be an operand
// that is laid out as the output is.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "simd/simd.h"

namespace zeb_custom_ops::detail {

namespace internal {

// Computes out[i] for i below `count`, which is at least a vector: at(i) is the vector of results i, i + 1, ... Where
// whole vectors do not fill `out`, the last one starts early, so that it ends with `out`; where stores are aligned, the
// first one ends late, behind the first aligned element. What such a vector shares with its neighbour is stored twice,
// the same values. They are computed before anything is stored, because `out` may be an operand, whose elements are
// results afterwards.
template <typename At>
inline void StoreRun(float* out, std::size_t count, At at) {
  std::size_t i = 0;
  Floats first = {};
  if constexpr (kFloatsBytes > 16) {  // aligned, since wide stores across cache lines are slow
    i = -(reinterpret_cast<std::uintptr_t>(out) / sizeof(float)) % kFloatLanes;
    if (i != 0) first = at(0);
  }
  const std::size_t begin = i;
  Floats last = {};
  const bool overlaps = (count - begin) % kFloatLanes != 0;
  if (overlaps) last = at(count - kFloatLanes);
  if constexpr (kMapVectors > 1) {
    for (; i + kMapVectors * kFloatLanes <= count; i += kMapVectors * kFloatLanes) {
      Floats results[kMapVectors];
      for (std::size_t v = 0; v < kMapVectors; ++v) results[v] = at(i + v * kFloatLanes);
      for (std::size_t v = 0; v < kMapVectors; ++v) Store(out + i + v * kFloatLanes, results[v]);
    }
  }
  for (; i + kFloatLanes <= count; i += kFloatLanes) Store(out + i, at(i));
  if (overlaps) Store(out + count - kFloatLanes, last);
  if (begin != 0) Store(out, first);
}

}  // namespace internal

// out[i] = op(in[i])
template <typename Op>
inline void MapRun(const float* in, float* out, std::size_t count, Op op) {
  if (count < kFloatLanes) {
    if (count != 0) StoreSome(out, op(LoadSome(in, count)), count);
    return;
  }
  internal::StoreRun(out, count, [in, op](std::size_t i) { return op(Load<Floats>(in + i)); });
}

// out[i] = op(a[i], b[i]), for at least one element
template <typename Op>
inline void ZipRun(const float* a, const float* b, float* out, std::size_t count, Op op) {
  if (count < kFloatLanes) {
    StoreSome(out, op(LoadSome(a, count), LoadSome(b, count)), count);
    return;
  }
  internal::StoreRun(out, count,
                     [a, b, op](std::size_t i) { return op(Load<Floats>(a + i), Load<Floats>(b + i)); });
}

// out[i] = in[i] + k
inline void AddInto(const float* in, float* out, std::size_t count, float k) {
  MapRun(in, out, count, [k = Splat(k)](Floats x) { return x + k; });
}

// out[i] = k / in[i]
inline void DivideInto(const float* in, float* out, std::size_t count, float k) {
  MapRun(in, out, count, [k = Splat(k)](Floats x) { return k / x; });
}

// One loop over two operands: `extent` steps, each moving so many elements on in a and in b; a step of 0 repeats. (The
// `Loop` of the strided copies has a source and a target in their place. Here the target is dense: it needs no step.)
struct ZipLoop {
  std::size_t extent;
  std::size_t a_step;
  std::size_t b_step;
};

namespace internal {

// Rows shorter than this are laid side by side, so that vectors run over several of them.
inline constexpr std::size_t kShortRow = 4 * kFloatLanes;
inline constexpr std::size_t kRowBlock = 512;  // elements laid out at a time

// One operand of rows: `step` elements from value to value, `row_step` from row to row.
struct RowOperand {
  const float* data;
  std::size_t row_step;
  std::size_t step;

  bool IsDense(std::size_t length) const { return step == 1 && row_step == length; }

  // Writes `rows` rows from row `first` on, one behind the other. Whole vectors are written, each row's over
  // the end of the row before, and up to kShortRow elements behind the last.
  void LayOut(float* dst, std::size_t first, std::size_t rows, std::size_t length) const {
    for (std::size_t row = 0; row < rows; ++row, dst += length) {
      const float* src = data + (first + row) * row_step;
      if (step == 0) {
        for (std::size_t i = 0; i < length; i += kFloatLanes) Store(dst + i, Splat(*src));
      } else {
        for (std::size_t i = 0; i < length; ++i) dst[i] = src[i];
      }
    }
  }
};

template <typename Op>
void ZipShortRows(RowOperand a, RowOperand b, float* out, std::size_t rows, std::size_t length, Op op) {
  float a_block[kRowBlock + kShortRow];
  float b_block[kRowBlock + kShortRow];
  const std::size_t rows_per_block = std::min(rows, kRowBlock / length);
  // An operand that repeats its row is the same in every block.
  if (a.row_step == 0) a.LayOut(a_block, 0, rows_per_block, length);
  if (b.row_step == 0) b.LayOut(b_block, 0, rows_per_block, length);
  for (std::size_t row = 0; row < rows; row += rows_per_block) {
    const std::size_t block_rows = std::min(rows_per_block, rows - row);
    const bool a_dense = a.IsDense(length);
    const bool b_dense = b.IsDense(length);
    if (!a_dense && a.row_step != 0) a.LayOut(a_block, row, block_rows, length);
    if (!b_dense && b.row_step != 0) b.LayOut(b_block, row, block_rows, length);
    ZipRun(a_dense ? a.data + row * length : a_block, b_dense ? b.data + row * length : b_block,
           out + row * length, block_rows * length, op);
  }
}

template <typename Op>
void ZipRow(const float* a, const float* b, float* out, const ZipLoop& loop, Op op) {
  if (loop.a_step != 0 && loop.b_step != 0) {
    ZipRun(a, b, out, loop.extent, op);
  } else if (loop.a_step != 0) {
    MapRun(a, out, loop.extent, [op, y = Splat(*b)](Floats x) { return op(x, y); });
  } else if (loop.b_step != 0) {
    MapRun(b, out, loop.extent, [op, x = Splat(*a)](Floats y) { return op(x, y); });
  } else {
    std::fill_n(out, loop.extent, op(Splat(*a), Splat(*b))[0]);
  }
}

// Outer loops, down to the last one or two. Returns where the next element goes.
template <typename Op>
float* ZipNested(const float* a, const float* b, float* out, std::span<const ZipLoop> loops, Op op) {
  const ZipLoop& loop = loops[0];
  if (loops.size() == 1) {
    ZipRow(a, b, out, loop, op);
    return out + loop.extent;
  }
  if (loops.size() == 2 && loops[1].extent < kShortRow) {
    ZipShortRows({a, loop.a_step, loops[1].a_step}, {b, loop.b_step, loops[1].b_step}, out, loop.extent,
                 loops[1].extent, op);
    return out + loop.extent * loops[1].extent;
  }
  for (std::size_t i = 0; i < loop.extent; ++i) {
    out = ZipNested(a + i * loop.a_step, b + i * loop.b_step, out, loops.subspan(1), op);
  }
  return out;
}

}  // namespace internal

// out = op(a, b) over the elements of nested loops, outermost first. An operand's innermost step is 0 or 1,
// that of any other loop 0 or the number of values it has inside. `loops` is scratch: loops of one step are
// dropped, and neighbours that are one loop for both operands become one.
template <typename Op>
void ZipStrided(const float* a, const float* b, float* out, std::span<ZipLoop> loops, Op op) {
  std::size_t first = loops.size();  // the loops that remain are at the end of `loops`
  for (std::size_t i = loops.size(); i-- > 0;) {
    const ZipLoop loop = loops[i];
    if (loop.extent == 0) return;
    if (loop.extent == 1) continue;
    if (first < loops.size() && loop.a_step == loops[first].extent * loops[first].a_step &&
        loop.b_step == loops[first].extent * loops[first].b_step) {
      loops[first].extent *= loop.extent;
    } else {
      loops[--first] = loop;
    }
  }
  if (first == loops.size()) loops[--first] = {1, 1, 1};
  internal::ZipNested(a, b, out, std::span<const ZipLoop>(loops).subspan(first), op);
}

}  // namespace zeb_custom_ops::detail
