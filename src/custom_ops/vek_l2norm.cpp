// Layer type "NORMALIZE".
#include "custom_ops/vek_l2norm.h"

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "kernels/l2norm.h"

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

bool VekL2Norm::L2norm_v1(const zeb::PuxDnnBufAttrs& in_attrs, float* in, unsigned in_count, float* out,
                          unsigned out_count) {
  VEK_REQUIRE(in != nullptr && out != nullptr, "L2norm_v1 input or output buffer is null.");
  VEK_REQUIRE(in_count == out_count, "L2norm_v1 wrong size of buffers.");

  const auto [N, C, H, W] = detail::Shape(in_attrs);
  VEK_REQUIRE(channel_shared_ || scales_.size() == C,
              "L2norm_v1 scale is not shared between channels, not enough scale params.");

  const kernels::NormShape shape = {
      .N = N, .C = C, .plane = H * W, .across_spatial = across_spatial_, .channel_shared = channel_shared_};
  if (Fits(Saturating(N) * C * H * W)) {
    kernels::Normalize(in, out, shape, scales_);
  } else {
    kernels::PlainNormalize(in, out, shape, scales_);
  }
  return true;
}

}  // namespace zeb_custom_ops
