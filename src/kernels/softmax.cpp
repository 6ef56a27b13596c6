#include "kernels/softmax.h"

#include <algorithm>
#include <cstddef>

#include "math/exact_math.h"
#include "simd/simd.h"

namespace zeb_custom_ops::kernels {

namespace {

// One softmax of `len` values, `step` elements apart, from position `start` on.
void PlainSoftmaxAt(const float* in, float* out, unsigned start, unsigned len, unsigned step) {
  float max = in[start];
  for (unsigned k = 1; k < len; ++k) {
    const float value = in[start + k * step];
    if (value > max) max = value;
  }
  float sum = 0.0F;
  for (unsigned k = 0; k < len; ++k) {
    const float e = detail::PlainExp(in[start + k * step] - max);
    out[start + k * step] = e;
    sum += e;
  }
  const float reciprocal = 1.0F / sum;
  for (unsigned k = 0; k < len; ++k) out[start + k * step] *= reciprocal;
}

}  // namespace

void PlainSoftmax(const float* in, float* out, SoftmaxShape s) {
  if (s.len == 0) return;
  for (unsigned o = 0; o < s.outer; ++o) {
    for (unsigned i = 0; i < s.inner; ++i) {
      const unsigned start = o * s.inner * s.len + i / s.step * s.len * s.step + i % s.step;
      PlainSoftmaxAt(in, out, start, s.len, s.step);
    }
  }
}

namespace {

using detail::Floats;
constexpr std::size_t kWidth = detail::kFloatLanes;

// Below, many softmaxes are computed at once, each in a vector lane, so that each sum keeps its order. Two things
// differ from the formula without changing a result: a maximum is found in any order, and where there is a NaN among
// the values it may be any of them, since every result is then NaN.

// Where the lanes of a vector lie in memory: next to each other, or each at a distance of its own.
struct AllLanes {
  static Floats Load(const float* src) { return detail::Load<Floats>(src); }
  static void Store(float* dst, Floats value) { detail::Store(dst, value); }
};
struct ScatteredLanes {
  Floats Load(const float* src) const {
    Floats value = {};
    for (std::size_t lane = 0; lane < kWidth; ++lane) value[lane] = src[at[lane]];
    return value;
  }
  void Store(float* dst, Floats value) const {
    for (std::size_t lane = 0; lane < kWidth; ++lane) dst[at[lane]] = value[lane];
  }
  std::size_t at[kWidth];
};

// `vectors` vectors of softmaxes that start at neighbouring elements.
template <std::size_t vectors, typename Lanes>
void SoftmaxSideBySide(const float* in, float* out, std::size_t len, std::size_t step, Lanes lanes) {
  Floats max[vectors];
  for (std::size_t v = 0; v < vectors; ++v) max[v] = lanes.Load(in + v * kWidth);
  for (std::size_t k = 1; k < len; ++k) {
    for (std::size_t v = 0; v < vectors; ++v)
      max[v] = detail::Max(lanes.Load(in + k * step + v * kWidth), max[v]);
  }
  Floats sum[vectors] = {};
  for (std::size_t k = 0; k < len; ++k) {
    for (std::size_t v = 0; v < vectors; ++v) {
      const std::size_t at = k * step + v * kWidth;
      const Floats e = detail::ExpNonPositive(lanes.Load(in + at) - max[v]);
      lanes.Store(out + at, e);
      sum[v] += e;
    }
  }
  for (std::size_t v = 0; v < vectors; ++v) sum[v] = 1.0F / sum[v];
  for (std::size_t k = 0; k < len; ++k) {
    for (std::size_t v = 0; v < vectors; ++v) {
      float* at = out + k * step + v * kWidth;
      lanes.Store(at, lanes.Load(at) * sum[v]);
    }
  }
}

// `count` softmaxes that start at neighbouring elements: as many vectors of them as there are. Returns how many they are.
std::size_t SoftmaxColumns(const float* in, float* out, std::size_t len, std::size_t step,
                           std::size_t count) {
  std::size_t i = 0;
  for (; i + 4 * kWidth <= count; i += 4 * kWidth)
    SoftmaxSideBySide<4>(in + i, out + i, len, step, AllLanes{});
  for (; i + kWidth <= count; i += kWidth) SoftmaxSideBySide<1>(in + i, out + i, len, step, AllLanes{});
  return i;
}

// Of every group of `step` softmaxes that start at neighbouring elements, those from number `first` on, a vector of them at
// a time, whatever group they are in. Missing ones are done as the last one is, twice.
void SoftmaxRests(const float* in, float* out, std::size_t len, std::size_t step, std::size_t first,
                  std::size_t groups) {
  const std::size_t rest = step - first;
  const std::size_t count = rest * groups;
  for (std::size_t i = 0; i < count; i += kWidth) {
    ScatteredLanes lanes;
    for (std::size_t lane = 0; lane < kWidth; ++lane) {
      const std::size_t number = std::min(i + lane, count - 1);
      lanes.at[lane] = number / rest * len * step + first + number % rest;
    }
    SoftmaxSideBySide<1>(in, out, len, step, lanes);
  }
}

// exp(in[i] - max) of the first `len` values, at least a vector, of each of `rows` rows. A row's last vector
// may overlap its neighbour: it is read before anything is written, since `out` may be `in`.
void ExpRows(const float* in, float* out, std::size_t len, std::size_t stride, const float* max,
             std::size_t rows) {
  for (std::size_t i = 0; i < rows; ++i, in += stride, out += stride) {
    const Floats last = detail::Load<Floats>(in + len - kWidth);
    const Floats maxima = detail::Splat(max[i]);
    std::size_t k = 0;
    for (; k + 2 * kWidth <= len; k += 2 * kWidth) {
      const Floats e0 = detail::ExpNonPositive(detail::Load<Floats>(in + k) - maxima);
      const Floats e1 = detail::ExpNonPositive(detail::Load<Floats>(in + k + kWidth) - maxima);
      detail::Store(out + k, e0);
      detail::Store(out + k + kWidth, e1);
    }
    if (k + kWidth < len)
      detail::Store(out + k, detail::ExpNonPositive(detail::Load<Floats>(in + k) - maxima));
    if (k < len) detail::Store(out + len - kWidth, detail::ExpNonPositive(last - maxima));
  }
}

// Multiplies a row of at least one vector.
void ScaleRow(float* row, std::size_t len, float factor) {
  const Floats last = detail::Load<Floats>(row + len - kWidth);
  const Floats factors = detail::Splat(factor);
  std::size_t k = 0;
  for (; k + 4 * kWidth <= len; k += 4 * kWidth) {
    for (std::size_t v = 0; v < 4; ++v) {
      float* at = row + k + v * kWidth;
      detail::Store(at, detail::Load<Floats>(at) * factors);
    }
  }
  for (; k + kWidth < len; k += kWidth) detail::Store(row + k, detail::Load<Floats>(row + k) * factors);
  if (k < len) detail::Store(row + len - kWidth, last * factors);
}

// The greatest value of a row of at least one vector.
float MaxOfRow(const float* row, std::size_t len) {
  Floats max[4];
  for (Floats& m : max) m = detail::Load<Floats>(row);
  std::size_t k = 0;
  for (; k + 4 * kWidth <= len; k += 4 * kWidth) {
    for (std::size_t v = 0; v < 4; ++v)
      max[v] = detail::Max(detail::Load<Floats>(row + k + v * kWidth), max[v]);
  }
  for (; k + kWidth <= len; k += kWidth) max[0] = detail::Max(detail::Load<Floats>(row + k), max[0]);
  max[1] = detail::Max(detail::Load<Floats>(row + len - kWidth), max[1]);
  return detail::MaxLane(detail::Max(detail::Max(max[0], max[1]), detail::Max(max[2], max[3])));
}

// Four floats, whatever the target's width: a value of each of four rows.
using Quad = detail::Vec<float>;

// Adds columns of rows that are `stride` elements apart, from left to right, four rows to a sum.
template <std::size_t quads>
void AddColumns(const float* rows, std::size_t stride, std::size_t count, Quad (&sum)[quads]) {
  std::size_t k = 0;
  for (; k + 4 <= count; k += 4) {
    for (std::size_t q = 0; q < quads; ++q) {
      Quad tile[4];
      for (std::size_t i = 0; i < 4; ++i) tile[i] = detail::Load<Quad>(rows + (4 * q + i) * stride + k);
      detail::Transpose4x4(tile);
      for (const Quad& column : tile) sum[q] += column;
    }
  }
  for (; k < count; ++k) {
    for (std::size_t q = 0; q < quads; ++q) {
      const float* row = rows + 4 * q * stride + k;
      sum[q] += Quad{row[0], row[stride], row[2 * stride], row[3 * stride]};
    }
  }
}

// Rows of at least one vector, `quads` times four of them. The columns are added while they are in the cache.
template <std::size_t quads>
void SoftmaxRows(const float* in, float* out, std::size_t len) {
  constexpr std::size_t kColumns = 64;
  constexpr std::size_t kRows = 4 * quads;
  float max[kRows];
  for (std::size_t i = 0; i < kRows; ++i) max[i] = MaxOfRow(in + i * len, len);
  Quad sum[quads] = {};
  for (std::size_t k = 0; k < len;) {
    const std::size_t columns = len - k < 2 * kColumns ? len - k : kColumns;
    ExpRows(in + k, out + k, columns, len, max, kRows);
    AddColumns<quads>(out + k, len, columns, sum);
    k += columns;
  }
  for (Quad& s : sum) s = 1.0F / s;
  for (std::size_t i = 0; i < kRows; ++i) ScaleRow(out + i * len, len, sum[i / 4][i % 4]);
}

// One row of at least one vector. Each vector's values are added while the next one's are computed. Not inlined: the
// loops around it would take its registers.
[[gnu::noinline]] void SoftmaxRow(const float* in, float* out, std::size_t len) {
  const float max = MaxOfRow(in, len);
  const Floats maxima = detail::Splat(max);
  const Floats last = detail::Load<Floats>(in + len - kWidth);
  Floats before = {};
  float sum = 0.0F;
  std::size_t k = 0;
  for (; k + kWidth <= len; k += kWidth) {
    const Floats e = detail::ExpNonPositive(detail::Load<Floats>(in + k) - maxima);
    detail::Store(out + k, e);
    for (std::size_t lane = 0; lane < kWidth; ++lane) sum += before[lane];
    before = e;
  }
  for (std::size_t lane = 0; lane < kWidth; ++lane) sum += before[lane];
  if (k < len) {
    detail::Store(out + len - kWidth, detail::ExpNonPositive(last - maxima));
    for (; k < len; ++k) sum += out[k];
  }
  ScaleRow(out, len, 1.0F / sum);
}

// The longest rows that are done as columns.
constexpr std::size_t kShortRow = 16;

}  // namespace

void Softmax(const float* in, float* out, SoftmaxShape s) {
  const std::size_t len = s.len;
  const std::size_t step = s.step;
  const std::size_t count = s.outer * s.inner * len;  // elements
  if (count == 0) return;
  const bool few_rows = count < kWidth / 2 * len && len >= kWidth;
  if (step == 1 && (len > kShortRow || few_rows)) {
    std::size_t p = 0;
    for (; p + 8 * len <= count; p += 8 * len) SoftmaxRows<2>(in + p, out + p, len);
    for (; p + 4 * len <= count; p += 4 * len) SoftmaxRows<1>(in + p, out + p, len);
    for (; p < count; p += len) SoftmaxRow(in + p, out + p, len);
    return;
  }
  std::size_t done = 0;
  if (step >= kWidth) {
    for (std::size_t p = 0; p < count; p += len * step)
      done = SoftmaxColumns(in + p, out + p, len, step, step);
  }
  if (done < step) SoftmaxRests(in, out, len, step, done, count / (len * step));
}

}  // namespace zeb_custom_ops::kernels
