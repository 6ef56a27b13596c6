// Layer type "SOFTMAX".
#include "custom_ops/vek_softmax.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/transpose.h"
#include "custom_ops/vek_common.h"
#include "math/exact_math.h"
#include "simd/simd.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::Fits;
using detail::Saturating;

const std::string VekSoftmax::k_expected_attr_ = "axis";

bool VekSoftmax::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  if (attrs.empty()) {
    VEK_LOG_INFO("'axis' attribute not defined, using default (%d)", AsInt(axis_));
  } else {
    VEK_REQUIRE(attrs.size() == 1, "expected 1 attribute, but got %zu", attrs.size());
    const std::string* axis = detail::Find(attrs, k_expected_attr_);
    VEK_REQUIRE(axis != nullptr, "expected attribute: %s, got: %s", k_expected_attr_.c_str(),
                attrs.begin()->first.c_str());
    // Deliberate: a rejected axis stays stored.
    axis_ = detail::ToUnsigned(*axis);
    VEK_REQUIRE(axis_ <= 3, "axis = %d, but should be in range [0..3]", AsInt(axis_));
  }

  VEK_REQUIRE(inputs.size() == 1 && outputs.size() == 1,
              "expected one input and one output, got: %d inputs, %d outputs", AsInt(inputs.size()),
              AsInt(outputs.size()));
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  VEK_REQUIRE_FORMAT(detail::IsPlanarFloat(in.GetMemFormat()), "unexpected input buffer format",
                     in.GetMemFormat());
  VEK_REQUIRE_FORMAT(detail::IsPlanarFloat(out.GetMemFormat()), "unexpected output buffer format",
                     out.GetMemFormat());

  const std::vector<unsigned> in_dims = in.GetDims();
  const std::vector<unsigned> out_dims = out.GetDims();
  VEK_REQUIRE(axis_ < in_dims.size(), "There are %zu dims, but axis is set to %d", in_dims.size(),
              AsInt(axis_));

  const std::uint64_t in_bytes = detail::Elements64(in_dims) * sizeof(float);
  VEK_REQUIRE(in_bytes <= in.GetSize(), "Input buf size should be at least %llu, but is %d",
              AsULongLong(in_bytes), AsInt(in.GetSize()));
  const std::uint64_t out_bytes = detail::Elements64(out_dims) * sizeof(float);
  VEK_REQUIRE(out_bytes <= out.GetSize(), "Output buf size should be at least %llu, but is %d",
              AsULongLong(out_bytes), AsInt(out.GetSize()));

  VEK_REQUIRE(!in.IsStrided(), "strided data detected on input of Softmax, this is not supported.");
  VEK_REQUIRE(!in.IsInterleaved(), "interleaved data detected on input of Softmax, this is not supported.");
  VEK_REQUIRE(!out.IsStrided(), "strided data detected on output of Softmax, this is not supported.");
  VEK_REQUIRE(!out.IsInterleaved(), "interleaved data detected on output of Softmax, this is not supported.");

  VEK_REQUIRE(in_dims.size() >= 4, "Softmax expects input buf dims >= 4, but got %zu", in_dims.size());
  VEK_REQUIRE(out_dims.size() >= 4, "Softmax expects output buf dims >= 4, but got %zu", out_dims.size());

  in_attrs_ = in.Clone();
  out_attrs_ = out.Clone();
  configured_ = true;
  return true;
}

bool VekSoftmax::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffer is NULL");
  VEK_REQUIRE(out_buffers != nullptr, "Output buffer is NULL");
  VEK_REQUIRE(in_attrs_ != nullptr, "input buffer attrs are NULL");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");

  const std::uint32_t in_count = detail::Elements32(in_attrs_->GetDims());
  const std::uint32_t out_count = detail::Elements32(out_attrs_->GetDims());
  VEK_REQUIRE(Softmax_v1(*in_attrs_, axis_, static_cast<float*>(in_buffers[0]), in_count,
                         static_cast<float*>(out_buffers[0]), out_count),
              "can't calculate Softmax");
  return true;
}

namespace {

using detail::Floats;
constexpr std::size_t kWidth = detail::kFloatLanes;

// One softmax of `len` values, `step` elements apart, from position `p` on. Positions wrap at 32 bits.
void SoftmaxVector(const float* in, float* out, unsigned p, unsigned len, unsigned step) {
  float max = in[p];
  for (unsigned k = 1; k < len; ++k) {
    const float value = in[p + k * step];
    if (value > max) max = value;
  }
  float sum = 0.0F;
  for (unsigned k = 0; k < len; ++k) {
    const float e = detail::PlainExp(in[p + k * step] - max);
    out[p + k * step] = e;
    sum += e;
  }
  const float reciprocal = 1.0F / sum;
  for (unsigned k = 0; k < len; ++k) out[p + k * step] *= reciprocal;
}

// The same for many softmaxes at once, each a vector lane, so that each sum keeps its order. Two things differ,
// neither of which shows: a maximum is found in any order, and where a NaN is among the values it may be any of
// them, since every result is then NaN.

// Which lanes of a vector exist in memory: all, or the first `count`.
struct AllOfThem {
  static Floats Load(const float* src) { return detail::Load<Floats>(src); }
  static void Store(float* dst, Floats value) { detail::Store(dst, value); }
};
struct SomeOfThem {
  Floats Load(const float* src) const { return detail::LoadSome(src, count); }
  void Store(float* dst, Floats value) const { detail::StoreSome(dst, value, count); }
  std::size_t count;
};

// `vectors` vectors of softmaxes that lie side by side.
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

// `count` softmaxes that lie side by side.
void SoftmaxColumns(const float* in, float* out, std::size_t len, std::size_t step, std::size_t count) {
  std::size_t i = 0;
  for (; i + 4 * kWidth <= count; i += 4 * kWidth)
    SoftmaxSideBySide<4>(in + i, out + i, len, step, AllOfThem{});
  for (; i + kWidth <= count; i += kWidth) SoftmaxSideBySide<1>(in + i, out + i, len, step, AllOfThem{});
  if (i < count) SoftmaxSideBySide<1>(in + i, out + i, len, step, SomeOfThem{count - i});
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
      // Two such steps transpose four by four.
      detail::ZipHalves<float>(tile);
      detail::ZipHalves<float>(tile);
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

// One row of at least one vector. Each vector's values are added while the next one's are computed.
void SoftmaxRow(const float* in, float* out, std::size_t len) {
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

// `count` short softmaxes, at most `kPackedCount`, of which `step` lie side by side at a time.
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

// All softmaxes of `count` values: blocks of `step` that lie side by side, `len` values each.
void Softmaxes(const float* in, float* out, std::size_t len, std::size_t step, std::size_t count) {
  const std::size_t block = len * step;
  if (step == 1 && len > kPackedLen) {
    std::size_t p = 0;
    for (; p + 8 * len <= count; p += 8 * len) SoftmaxRows<2>(in + p, out + p, len);
    for (; p + 4 * len <= count; p += 4 * len) SoftmaxRows<1>(in + p, out + p, len);
    for (; p < count; p += len) SoftmaxRow(in + p, out + p, len);
  } else if (step < kWidth && len <= kPackedLen) {
    // Whole blocks.
    const std::size_t at_once = kPackedCount / step * step;
    for (std::size_t i = 0; i < count / len; i += at_once) {
      SoftmaxPacked(in + i * len, out + i * len, len, step, std::min(at_once, count / len - i));
    }
  } else {
    for (std::size_t p = 0; p < count; p += block) SoftmaxColumns(in + p, out + p, len, step, step);
  }
}

}  // namespace

bool Softmax_v1(const zeb::PuxDnnBufAttrs& attrs, unsigned axis, float* in, unsigned in_size, float* out,
                unsigned out_size) {
  VEK_REQUIRE(in != nullptr, "Softmax_v1 input buffer is null");
  VEK_REQUIRE(out != nullptr, "Softmax_v1 output buffer is null");
  VEK_REQUIRE(in_size == out_size, "Softmax_v1: in_size != out_size, (%d != %d)", AsInt(in_size),
              AsInt(out_size));

  const unsigned N = attrs.GetBatch();
  const unsigned C = attrs.GetChannels();
  const unsigned H = attrs.GetHeight();
  const unsigned W = attrs.GetWidth();

  unsigned len = 0;      // values of one softmax
  unsigned step = 0;     // elements between them
  unsigned inner = 0;    // softmaxes per outer block
  unsigned outer = 1;    // outer blocks
  unsigned advance = 1;  // elements from the start of one softmax to the next
  switch (axis) {
    case 0:
      len = N;
      step = C * H * W;
      inner = C * H * W;
      break;
    case 1:
      len = C;
      step = H * W;
      inner = H * W;
      outer = N;
      break;
    case 2:
      len = H;
      step = W;
      inner = C * W;
      outer = N;
      break;
    case 3:
      len = W;
      step = 1;
      inner = C * H;
      outer = N;
      advance = W;
      break;
    default:
      VEK_REQUIRE(false, "Softmax_v1: axis parameter = %d, should be in range [0..3]", AsInt(axis));
  }
  if (len == 0 || inner == 0) return true;

  if (Fits(Saturating(N) * C * H * W) && N * C * H * W <= in_size) {
    Softmaxes(in, out, len, step, N * C * H * W);
    return true;
  }

  for (unsigned o = 0; o < outer; ++o) {
    unsigned start = o * inner * len;
    for (unsigned i = 0; i < inner; ++i) {
      VEK_REQUIRE(out_size >= len * step,
                  "Softmax_v1 tries to access outside of allocated output buffer size");
      SoftmaxVector(in, out, start, len, step);
      start += advance;
      if (axis == 2 && (i + 1) % W == 0) start += H * W - W;
    }
  }
  return true;
}

}  // namespace zeb_custom_ops
