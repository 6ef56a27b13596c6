// Layer type "MATMUL".
#include "custom_ops/vek_matmul.h"

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "kernels/matmul.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::Fits;
using detail::Saturating;

const std::string VekMatmul::k_expected_attr_ = "trans_b";

bool VekMatmul::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(attrs.size() == 1, "expected 1 attribute, but got %zu", attrs.size());
  const std::string* trans_b = detail::Find(attrs, k_expected_attr_);
  VEK_REQUIRE(trans_b != nullptr, "expected attribute: %s, got: %s", k_expected_attr_.c_str(),
              attrs.begin()->first.c_str());
  // Deliberate: both stay stored when a later check refuses.
  trans_b_ = *trans_b == "1";
  num_inputs_ = detail::AsUnsigned(inputs.size());

  VEK_REQUIRE((inputs.size() == 1 || inputs.size() == 2) && outputs.size() == 1,
              "expected one/two input and one output, got: %d inputs, %d outputs", AsInt(inputs.size()),
              AsInt(outputs.size()));
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  // Deliberate: elements are compared with bytes.
  const std::uint64_t in_count = detail::Elements64(in.GetDims());
  VEK_REQUIRE(in_count <= in.GetSize(), "First input buf size should be at least %d, but is %d",
              AsInt(in_count), AsInt(in.GetSize()));
  const std::uint64_t out_count = detail::Elements64(out.GetDims());
  VEK_REQUIRE(out_count <= out.GetSize(), "Output buf size should be at least %d, but is %d",
              AsInt(out_count), AsInt(out.GetSize()));
  VEK_REQUIRE(detail::IsPlanarFloat(in.GetMemFormat()), "unexpected input buffer format");
  VEK_REQUIRE(detail::IsPlanarFloat(out.GetMemFormat()), "unexpected output buffer format");

  // Deliberate: these stay when the second input is refused.
  in_attrs_ = in.Clone();
  in2_attrs_ = in.Clone();
  out_attrs_ = out.Clone();

  if (inputs.size() == 2) {
    const zeb::PuxDnnBufAttrs& in2 = *inputs[1];
    const std::uint64_t in2_count = detail::Elements64(in2.GetDims());
    VEK_REQUIRE(in2_count <= in2.GetSize(), "Second input buf size should be at least %d, but is %d",
                AsInt(in2_count), AsInt(in2.GetSize()));
    VEK_REQUIRE(detail::IsPlanarFloat(in2.GetMemFormat()), "unexpected input buffer format");
    in2_attrs_ = in2.Clone();
  }
  configured_ = true;
  return true;
}

bool VekMatmul::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffer is NULL");
  VEK_REQUIRE(out_buffers != nullptr, "Output buffer is NULL");
  VEK_REQUIRE(in_attrs_ != nullptr, "first input buffer attrs are NULL");
  VEK_REQUIRE(in2_attrs_ != nullptr, "second input buffer attrs are NULL");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");

  // A refused Configure may have left another number of inputs behind.
  VEK_REQUIRE((num_inputs_ == 1 || num_inputs_ == 2) && in_attrs_->GetMemFormat().bitdepth == 32,
              "can't calculate Matmul");
  float* const out = static_cast<float*>(out_buffers[0]);
  float* const a = static_cast<float*>(in_buffers[0]);
  if (num_inputs_ == 2 && in_buffers[0] != in_buffers[1]) {
    AB(out, a, *in_attrs_, static_cast<float*>(in_buffers[1]), *in2_attrs_);
  } else if (trans_b_) {
    AAT(out, a, *in_attrs_);
  } else {
    AB(out, a, *in_attrs_, a, *in_attrs_);
  }
  return true;
}

template <typename T>
void AB(T* out, T* a, const zeb::PuxDnnBufAttrs& a_attrs, T* b, const zeb::PuxDnnBufAttrs& b_attrs) {
  const auto [N, M, H_a, W_a] = detail::Shape(a_attrs);
  const unsigned K = H_a * W_a;
  const unsigned C_b = b_attrs.GetChannels();
  const unsigned P = b_attrs.GetHeight() * b_attrs.GetWidth();
  if (N == 0 || M == 0 || P == 0) return;

  if (Fits(Saturating(N) * M * K) && Fits(Saturating(N) * M * P) && Fits((Saturating(N - 1) * C_b + K) * P)) {
    kernels::Product(out, a, b, N, M, K, P, C_b);
  } else {
    kernels::PlainProduct(out, a, b, N, M, K, P, C_b);
  }
}

template <typename T>
void AAT(T* out, T* a, const zeb::PuxDnnBufAttrs& a_attrs) {
  const auto [N, M, H, W] = detail::Shape(a_attrs);
  const unsigned K = H * W;
  if (N == 0 || M == 0) return;

  if (Fits(Saturating(N) * M * K) && Fits(Saturating(N) * M * M)) {
    kernels::ProductByTransposed(out, a, N, M, K);
  } else {
    kernels::PlainProductByTransposed(out, a, N, M, K);
  }
}

template void AB<float>(float*, float*, const zeb::PuxDnnBufAttrs&, float*, const zeb::PuxDnnBufAttrs&);
template void AAT<float>(float*, float*, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
