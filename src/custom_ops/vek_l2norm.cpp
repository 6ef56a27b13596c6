// Layer type "NORMALIZE".
#include "custom_ops/vek_l2norm.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "custom_ops/vek_common.h"
#include "math/elementwise.h"
#include "math/square_sums.h"
#include "simd/simd.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::Fits;
using detail::Saturating;

const std::string VekL2Norm::k_expected_attr_across_spatial_ = "across_spatial";
const std::string VekL2Norm::k_expected_attr_channel_shared_ = "channel_shared";

bool VekL2Norm::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(inputs.size() == 1, "wrong number of inputs, expected: 1, got: %zu", inputs.size());
  VEK_REQUIRE(outputs.size() == 1, "wrong number of outputs, expected: 1, got: %zu", outputs.size());
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  VEK_REQUIRE_FORMAT(detail::IsPlanarFloat(in.GetMemFormat()), "unexpected input buffer format",
                     in.GetMemFormat());
  VEK_REQUIRE_FORMAT(detail::IsPlanarFloat(out.GetMemFormat()), "unexpected output buffer format",
                     out.GetMemFormat());
  VEK_REQUIRE(!in.IsStrided(), "strided data detected on input, this is not supported.");
  VEK_REQUIRE(!out.IsStrided(), "strided data detected on output, this is not supported.");

  const std::uint64_t in_bytes = detail::BytesRoundedUp(in);
  VEK_REQUIRE(in_bytes <= in.GetSize(),
              "input buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
              AsInt(in.GetSize()), AsULongLong(in_bytes));
  const std::uint64_t out_bytes = detail::BytesRoundedUp(out);
  VEK_REQUIRE(out_bytes <= out.GetSize(),
              "output buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
              AsInt(out.GetSize()), AsULongLong(out_bytes));

  in_attrs_ = in.Clone();
  out_attrs_ = out.Clone();

  if (const std::string* text = detail::Find(attrs, k_expected_attr_across_spatial_)) {
    across_spatial_ = detail::ToFlag(*text);
  }
  if (const std::string* text = detail::Find(attrs, k_expected_attr_channel_shared_)) {
    channel_shared_ = detail::ToFlag(*text);
  }
  scales_.assign(channel_shared_ ? 1 : in.GetChannels(), 1.0F);
  configured_ = true;
  return true;
}

bool VekL2Norm::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "L2Norm custom layer not configured.");
  VEK_REQUIRE(in_buffers != nullptr, "in_buffers is NULL.");
  VEK_REQUIRE(out_buffers != nullptr, "out_buffers is NULL.");

  const std::uint32_t in_count = detail::Elements32(in_attrs_->GetDims());
  const std::uint32_t out_count = detail::Elements32(out_attrs_->GetDims());
  return L2norm_v1(*in_attrs_, static_cast<float*>(in_buffers[0]), in_count,
                   static_cast<float*>(out_buffers[0]), out_count);
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

// Normalises rows of `length` consecutive values each.
void NormalizeRows(const float* in, float* out, std::size_t rows, std::size_t length) {
  // From this length on a few rows are faster one by one than side by side with themselves.
  constexpr std::size_t kLongRow = 1024;
  for (std::size_t row = 0; row < rows;) {
    const std::size_t left = rows - row;
    if (left == 1 || (left < detail::kFloatLanes && length >= kLongRow)) {
      DivideByNorm(in, out, length, detail::SumSquares(in, length));
      ++row;
      in += length;
      out += length;
      continue;
    }
    // All sums before the first quotient: the output may be the input. Where rows are missing, the last one
    // stands in.
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

// The same for one row from position `start` on; positions wrap at 32 bits.
void NormalizeWrapping(const float* in, float* out, unsigned start, unsigned count) {
  float sum = 0.0F;
  for (unsigned i = 0; i < count; ++i) sum = std::fma(in[start + i], in[start + i], sum);
  const float norm = std::sqrt(sum);
  for (unsigned i = 0; i < count; ++i) {
    out[start + i] = norm != 0.0F ? in[start + i] / norm : in[start + i];
  }
}

void Scale(float* out, unsigned start, unsigned count, float scale) {
  if (scale == 1.0F) return;
  for (unsigned i = 0; i < count; ++i) out[start + i] *= scale;
}

}  // namespace

bool VekL2Norm::L2norm_v1(const zeb::PuxDnnBufAttrs& in_attrs, float* in, unsigned in_count, float* out,
                          unsigned out_count) {
  VEK_REQUIRE(in != nullptr && out != nullptr, "L2norm_v1 input or output buffer is null.");
  VEK_REQUIRE(in_count == out_count, "L2norm_v1 wrong size of buffers.");

  const unsigned N = in_attrs.GetBatch();
  const unsigned C = in_attrs.GetChannels();
  const unsigned H = in_attrs.GetHeight();
  const unsigned W = in_attrs.GetWidth();
  VEK_REQUIRE(channel_shared_ || scales_.size() == C,
              "L2norm_v1 scale is not shared between channels, not enough scale params.");

  const unsigned plane = H * W;
  const unsigned item = C * plane;
  const bool positions_fit = Fits(Saturating(N) * C * H * W);
  if (positions_fit && across_spatial_) NormalizeRows(in, out, N, item);
  if (positions_fit && !across_spatial_) NormalizeRows(in, out, std::size_t{N} * C, plane);

  for (unsigned n = 0; n < N; ++n) {
    const unsigned start = n * item;
    if (!positions_fit) {
      if (across_spatial_) {
        NormalizeWrapping(in, out, start, item);
      } else {
        for (unsigned c = 0; c < C; ++c) NormalizeWrapping(in, out, start + c * plane, plane);
      }
    }
    if (!channel_shared_) {
      for (unsigned c = 0; c < C; ++c) Scale(out, start + c * plane, plane, scales_[c]);
    } else if (!scales_.empty()) {
      Scale(out, start, item, scales_[0]);
    }
  }
  return true;
}

}  // namespace zeb_custom_ops
