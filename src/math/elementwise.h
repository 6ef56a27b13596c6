// Element-wise functions over runs of floats, and over the elements of nested loops in which an operand may
// stand still. The functions take vectors: a lane is an element, so every element has its own operations and
// no others. The output may be an operand that is laid out as the output is.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "simd/simd.h"

namespace zeb_custom_ops::detail {

namespace internal {

// Stores the vectors at(i) to out[i] ...; `count` is at least a vector's. Where it is no multiple of that, or
// the target not aligned, a vector overlaps the next one; it is computed before anything is written, since
// later the operands may be results.
template <typename At>
inline void StoreRun(float* out, std::size_t count, At at) {
  std::size_t i = 0;
  Floats first = {};
  if constexpr (kFloatsBytes > 16) {  // wide stores across cache lines are slow
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

// One loop over two operands and a dense output: `extent` steps, each moving so many elements on in a and in
// b; a step of 0 repeats.
struct ZipAxis {
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
void ZipRow(const float* a, const float* b, float* out, const ZipAxis& axis, Op op) {
  if (axis.a_step != 0 && axis.b_step != 0) {
    ZipRun(a, b, out, axis.extent, op);
  } else if (axis.a_step != 0) {
    MapRun(a, out, axis.extent, [op, y = Splat(*b)](Floats x) { return op(x, y); });
  } else if (axis.b_step != 0) {
    MapRun(b, out, axis.extent, [op, x = Splat(*a)](Floats y) { return op(x, y); });
  } else {
    std::fill_n(out, axis.extent, op(Splat(*a), Splat(*b))[0]);
  }
}

// Outer loops, down to the last one or two. Returns where the next element goes.
template <typename Op>
float* ZipLoops(const float* a, const float* b, float* out, std::span<const ZipAxis> axes, Op op) {
  const ZipAxis& axis = axes[0];
  if (axes.size() == 1) {
    ZipRow(a, b, out, axis, op);
    return out + axis.extent;
  }
  if (axes.size() == 2 && axes[1].extent < kShortRow) {
    ZipShortRows({a, axis.a_step, axes[1].a_step}, {b, axis.b_step, axes[1].b_step}, out, axis.extent,
                 axes[1].extent, op);
    return out + axis.extent * axes[1].extent;
  }
  for (std::size_t i = 0; i < axis.extent; ++i) {
    out = ZipLoops(a + i * axis.a_step, b + i * axis.b_step, out, axes.subspan(1), op);
  }
  return out;
}

}  // namespace internal

// out = op(a, b) over the elements of nested loops, outermost first. An operand's innermost step is 0 or 1,
// that of any other loop 0 or the number of values it has inside. `axes` is scratch: loops of one step are
// dropped, and neighbours that are one loop for both operands become one.
template <typename Op>
void ZipStrided(const float* a, const float* b, float* out, std::span<ZipAxis> axes, Op op) {
  std::size_t first = axes.size();  // the loops that remain stand at the end of `axes`
  for (std::size_t i = axes.size(); i-- > 0;) {
    const ZipAxis axis = axes[i];
    if (axis.extent == 0) return;
    if (axis.extent == 1) continue;
    if (first < axes.size() && axis.a_step == axes[first].extent * axes[first].a_step &&
        axis.b_step == axes[first].extent * axes[first].b_step) {
      axes[first].extent *= axis.extent;
    } else {
      axes[--first] = axis;
    }
  }
  if (first == axes.size()) axes[--first] = {1, 1, 1};
  internal::ZipLoops(a, b, out, std::span<const ZipAxis>(axes).subspan(first), op);
}

}  // namespace zeb_custom_ops::detail
