#include "kernels/l2norm.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "copy/transpose.h"
#include "math/elementwise.h"
#include "math/square_sums.h"
#include "simd/simd.h"

namespace zeb_custom_ops::kernels {

namespace {

void PlainNormalizeRow(const float* in, float* out, unsigned start, unsigned length) {
  float sum = 0.0F;
  for (unsigned i = 0; i < length; ++i) sum = std::fma(in[start + i], in[start + i], sum);
  const float norm = std::sqrt(sum);
  for (unsigned i = 0; i < length; ++i) {
    out[start + i] = norm != 0.0F ? in[start + i] / norm : in[start + i];
  }
}

void Scale(float* out, unsigned start, unsigned length, float scale) {
  if (scale == 1.0F) return;
  for (unsigned i = 0; i < length; ++i) out[start + i] *= scale;
}

// The scales of item n, whose values start at `start`.
void ScaleItem(float* out, unsigned start, const NormShape& s, std::span<const float> scales) {
  if (s.channel_shared) {
    if (!scales.empty()) Scale(out, start, s.C * s.plane, scales[0]);
  } else {
    for (unsigned c = 0; c < s.C; ++c) Scale(out, start + c * s.plane, s.plane, scales[c]);
  }
}

}  // namespace

void PlainNormalize(const float* in, float* out, NormShape s, std::span<const float> scales) {
  const unsigned item = s.C * s.plane;
  for (unsigned n = 0; n < s.N; ++n) {
    const unsigned start = n * item;
    if (s.across_spatial) {
      PlainNormalizeRow(in, out, start, item);
    } else {
      for (unsigned c = 0; c < s.C; ++c) PlainNormalizeRow(in, out, start + c * s.plane, s.plane);
    }
    ScaleItem(out, start, s, scales);
  }
}

namespace {

// Values whose norm is 0 are copied. The norm of a NaN is a NaN, which is not 0: it divides.
void DivideByNorm(const float* in, float* out, std::size_t count, float sum_of_squares) {
  const float norm = std::sqrt(sum_of_squares);
  if (norm == 0.0F) {
    if (out != in) std::copy_n(in, count, out);
    return;
  }
  // From the end to the start: what the sum has read last is still in the cache.
  constexpr std::size_t kBlock = 4096;
  for (std::size_t end = count; end != 0;) {
    const std::size_t block = (end - 1) % kBlock + 1;
    end -= block;
    detail::MapRun(in + end, out + end, block,
                   [divisor = detail::Splat(norm)](detail::Floats x) { return x / divisor; });
  }
}

detail::Floats DivisorOf(detail::Floats sum) {
  const detail::Floats norm = detail::Sqrt(sum);
  return norm == 0.0F ? detail::Splat(1.0F) : norm;  // a quotient by 1 is a copy
}

// Rows of up to kShortRow values, several vectors of them at once: they become columns, so that a lane is a row.
constexpr std::size_t kShortRow = 15;
constexpr std::size_t kPackedRows = 4 * detail::kFloatLanes;

// `rows` rows, at most kPackedRows.
void NormalizeShortRows(const float* in, float* out, std::size_t rows, std::size_t length) {
  float packed[kShortRow * kPackedRows];
  std::fill_n(packed, length * kPackedRows, 0.0F);
  constexpr auto kUnit = static_cast<std::ptrdiff_t>(sizeof(float));
  const auto step = [&](std::size_t values) { return static_cast<std::ptrdiff_t>(values) * kUnit; };
  const bool transposes = rows > 1 && length > 1;
  if (transposes) {
    detail::TransposePlane<std::uint32_t>(reinterpret_cast<std::byte*>(packed),
                                          reinterpret_cast<const std::byte*>(in), {rows, step(length), kUnit},
                                          {length, kUnit, step(kPackedRows)});
  } else {
    for (std::size_t i = 0; i < rows * length; ++i) packed[i / length + i % length * kPackedRows] = in[i];
  }
  for (std::size_t column = 0; column < rows; column += detail::kFloatLanes) {
    detail::Floats sum = {};
    for (std::size_t k = 0; k < length; ++k) {
      const auto x = detail::Load<detail::Floats>(packed + k * kPackedRows + column);
      sum = detail::Fma(x, x, sum);
    }
    const detail::Floats divisor = DivisorOf(sum);
    for (std::size_t k = 0; k < length; ++k) {
      float* const at = packed + k * kPackedRows + column;
      detail::Store(at, detail::Load<detail::Floats>(at) / divisor);
    }
  }
  if (transposes) {
    detail::TransposePlane<std::uint32_t>(reinterpret_cast<std::byte*>(out),
                                          reinterpret_cast<const std::byte*>(packed),
                                          {length, step(kPackedRows), kUnit}, {rows, kUnit, step(length)});
  } else {
    for (std::size_t i = 0; i < rows * length; ++i) out[i] = packed[i / length + i % length * kPackedRows];
  }
}

// Rows of at most `most` values that alternate in memory as vectors do, a vector of rows at once. Returns how many rows it has
// done, of the first ones: none of longer rows.
template <std::size_t most = detail::kInterleavedVectors>
[[gnu::noinline]] std::size_t NormalizeInterleavedRows(const float* in, float* out, std::size_t rows,
                                                       std::size_t length) {
  std::size_t row = 0;
  if constexpr (most > 1 && detail::kFloatsBytes == detail::kVecBytes) {
    if (length < most) return NormalizeInterleavedRows<most - 1>(in, out, rows, length);
    if (length > most) return 0;
    using Words = detail::Vec<std::uint32_t>;
    for (; row + detail::kFloatLanes <= rows; row += detail::kFloatLanes) {
      Words values[most];
      detail::LoadInterleaved<std::uint32_t, most>(values,
                                                   reinterpret_cast<const std::byte*>(in + row * most));
      detail::Floats sum = {};
      for (const Words& value : values) {
        const auto x = reinterpret_cast<detail::Floats>(value);
        sum = detail::Fma(x, x, sum);
      }
      const detail::Floats divisor = DivisorOf(sum);
      for (Words& value : values)
        value = reinterpret_cast<Words>(reinterpret_cast<detail::Floats>(value) / divisor);
      detail::StoreInterleaved<std::uint32_t, most>(reinterpret_cast<std::byte*>(out + row * most), values);
    }
  }
  return row;
}

// Normalises rows of `length` consecutive values each.
void NormalizeRows(const float* in, float* out, std::size_t rows, std::size_t length) {
  // From this length on a few rows are faster one by one than side by side with themselves.
  constexpr std::size_t kLongRow = 1024;
  if (length == 1) {
    return detail::MapRun(
        in, out, rows, [](detail::Floats x) { return x / DivisorOf(detail::Fma(x, x, detail::Floats{})); });
  }
  if (length <= kShortRow && rows > 1) {
    for (std::size_t row = NormalizeInterleavedRows(in, out, rows, length); row < rows; row += kPackedRows) {
      NormalizeShortRows(in + row * length, out + row * length, std::min(kPackedRows, rows - row), length);
    }
    return;
  }
  for (std::size_t row = 0; row < rows;) {
    const std::size_t left = rows - row;
    if (left == 1 || (left < detail::kFloatLanes && length >= kLongRow)) {
      DivideByNorm(in, out, length, detail::SumSquares(in, length));
      ++row;
      in += length;
      out += length;
      continue;
    }
    // All sums before the first quotient: the output may be the input. Missing rows are
    // replaced by the last one.
    const std::size_t group = std::min<std::size_t>(left, detail::kSideBySide);
    const float* side_by_side[detail::kSideBySide];
    for (std::size_t i = 0; i < detail::kSideBySide; ++i) {
      side_by_side[i] = in + std::min(i, group - 1) * length;
    }
    float sums[detail::kSideBySide];
    detail::SumSquaresSideBySide(side_by_side, length, sums);
    for (std::size_t i = group; i-- > 0;) DivideByNorm(in + i * length, out + i * length, length, sums[i]);
    row += group;
    in += group * length;
    out += group * length;
  }
}

// Values of which each has a scale of its own.
[[gnu::noinline]] void ScaleValues(float* values, std::span<const float> scales) {
  detail::ZipRun(values, scales.data(), values, scales.size(),
                 [](detail::Floats x, detail::Floats scale) { return scale == 1.0F ? x : x * scale; });
}

}  // namespace

void Normalize(const float* in, float* out, NormShape s, std::span<const float> scales) {
  const unsigned item = s.C * s.plane;
  if (s.across_spatial) {
    NormalizeRows(in, out, s.N, item);
  } else {
    NormalizeRows(in, out, std::size_t{s.N} * s.C, s.plane);
  }
  const bool scales_values = s.plane == 1 && !s.channel_shared && s.C != 0;
  for (unsigned n = 0; n < s.N; ++n) {
    scales_values ? ScaleValues(out + n * item, scales.first(s.C)) : ScaleItem(out, n * item, s, scales);
  }
}

}  // namespace zeb_custom_ops::kernels
