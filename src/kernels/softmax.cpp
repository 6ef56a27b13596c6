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

// Which lanes of a vector are in memory: all, or the first `count`.
struct AllLanes {
  static Floats Load(const float* src) { return detail::Load<Floats>(src); }
  static void Store(float* dst, Floats value) { detail::Store(dst, value); }
};
struct FirstLanes {
  Floats Load(const float* src) const { return detail::LoadSome(src, count); }
  void Store(float* dst, Floats value) const { detail::StoreSome(dst, value, count); }
  std::size_t count;
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

// `count` softmaxes that start at neighbouring elements.
void SoftmaxColumns(const float* in, float* out, std::size_t len, std::size_t step, std::size_t count) {
  std::size_t i = 0;
  for (; i + 4 * kWidth <= count; i += 4 * kWidth)
    SoftmaxSideBySide<4>(in + i, out + i, len, step, AllLanes{});
  for (; i + kWidth <= count; i += kWidth) SoftmaxSideBySide<1>(in + i, out + i, len, step, AllLanes{});
  if (i < count) SoftmaxSideBySide<1>(in + i, out + i, len, step, FirstLanes{count - i});
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

// The longest softmax, and the number of them, that are packed into columns on the stack.
constexpr std::size_t kPackedLen = 16;
constexpr std::size_t kPackedCount = 4 * kWidth;

// `count` short softmaxes, at most `kPackedCount`: groups of `step` that start at neighbouring elements.
void SoftmaxPacked(const float* in, float* out, std::size_t len, std::size_t step, std::size_t count) {
  float packed[kPackedLen * kPackedCount];
  std::fill_n(packed, len * kPackedCount, 0.0F);
  const auto for_each = [&](const auto& body) {
    std::size_t p = 0;
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t k = 0; k < len; ++k) body(packed[k * kPackedCount + i], p + k * step);
      ++p;
      if ((i + 1) % step == 0) p += len * step - step;
    }
  };
  for_each([&](float& column, std::size_t at) { column = in[at]; });
  SoftmaxColumns(packed, packed, len, kPackedCount, (count + kWidth - 1) / kWidth * kWidth);
  for_each([&](const float& column, std::size_t at) { out[at] = column; });
}

}  // namespace

void Softmax(const float* in, float* out, SoftmaxShape s) {
  const std::size_t len = s.len;
  const std::size_t step = s.step;
  const std::size_t count = s.outer * s.inner * len;  // elements
  if (count == 0) return;
  if (step == 1 && len > kPackedLen) {
    std::size_t p = 0;
    for (; p + 8 * len <= count; p += 8 * len) SoftmaxRows<2>(in + p, out + p, len);
    for (; p + 4 * len <= count; p += 4 * len) SoftmaxRows<1>(in + p, out + p, len);
    for (; p < count; p += len) SoftmaxRow(in + p, out + p, len);
  } else if (step < kWidth && len <= kPackedLen) {
    // Whole groups.
    const std::size_t at_once = kPackedCount / step * step;
    for (std::size_t i = 0; i < count / len; i += at_once) {
      SoftmaxPacked(in + i * len, out + i * len, len, step, std::min(at_once, count / len - i));
    }
  } else {
    for (std::size_t p = 0; p < count; p += len * step) SoftmaxColumns(in + p, out + p, len, step, step);
  }
}

}  // namespace zeb_custom_ops::kernels
