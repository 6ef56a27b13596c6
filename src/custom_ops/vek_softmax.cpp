// Layer type "SOFTMAX".
#include "custom_ops/vek_softmax.h"

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "kernels/softmax.h"

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

bool Softmax_v1(const zeb::PuxDnnBufAttrs& attrs, unsigned axis, float* in, unsigned in_size, float* out,
                unsigned out_size) {
  VEK_REQUIRE(in != nullptr, "Softmax_v1 input buffer is null");
  VEK_REQUIRE(out != nullptr, "Softmax_v1 output buffer is null");
  VEK_REQUIRE(in_size == out_size, "Softmax_v1: in_size != out_size, (%d != %d)", AsInt(in_size),
              AsInt(out_size));

  const auto [N, C, H, W] = detail::Shape(attrs);
  kernels::SoftmaxShape s{};
  switch (axis) {
    case 0:
      s = {.len = N, .step = C * H * W, .inner = C * H * W, .outer = 1};
      break;
    case 1:
      s = {.len = C, .step = H * W, .inner = H * W, .outer = N};
      break;
    case 2:
      s = {.len = H, .step = W, .inner = C * W, .outer = N};
      break;
    case 3:
      s = {.len = W, .step = 1, .inner = C * H, .outer = N};
      break;
    default:
      VEK_REQUIRE(false, "Softmax_v1: axis parameter = %d, should be in range [0..3]", AsInt(axis));
  }
  if (s.len == 0 || s.inner == 0 || s.outer == 0) return true;
  VEK_REQUIRE(out_size >= s.len * s.step,
              "Softmax_v1 tries to access outside of allocated output buffer size");

  if (Fits(Saturating(N) * C * H * W)) {
    kernels::Softmax(in, out, s);
  } else {
    kernels::PlainSoftmax(in, out, s);
  }
  return true;
}

}  // namespace zeb_custom_ops
