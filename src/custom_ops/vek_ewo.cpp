// Layer type "ELTWISE".
#include "custom_ops/vek_ewo.h"

#include <cstddef>
#include <functional>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "math/broadcast.h"
#include "math/elementwise.h"
#include "math/exact_math.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::BroadcastSteps;
using detail::Fits;
using detail::Saturating;

const std::string VekEwo::k_expected_attr_method_ = "method";
const std::string VekEwo::k_expected_attr_has_k_ = "has_k";
const std::string VekEwo::k_expected_attr_k_ = "k";
const std::string VekEwo::k_expected_attr_broadcast_A_ = "broadcast_A";
const std::string VekEwo::k_expected_attr_word_A_ = "word_A";
const std::string VekEwo::k_expected_attr_broadcast_B_ = "broadcast_B";
const std::string VekEwo::k_expected_attr_word_B_ = "word_B";

namespace {

// The values of "method". Deliberate: 2 to 5 name nothing and are refused.
constexpr int kMul = 0;
constexpr int kAddK = 1;
constexpr int kDiv = 6;
constexpr int kPowK = 7;

// Reads the flag of a broadcast attribute. Returns whether the attribute is there and sets it.
bool ReadFlag(const zeb::PuxDnnCustomLayer::AttrMap& attrs, const std::string& key, bool& flag) {
  const std::string* text = detail::Find(attrs, key);
  if (text == nullptr) return false;
  flag = detail::ToFlag(*text);
  return flag;
}

void ReadWord(const std::string& text, bool (&repeats_along)[4]) {
  const unsigned long word = detail::ToWord(text);
  for (unsigned i = 0; i < 4; ++i) repeats_along[i] = (word >> (3 - i) & 1) != 0;
}

}  // namespace

bool VekEwo::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(!inputs.empty(), "wrong number of inputs, expected at least 1, got: %zu", inputs.size());
  VEK_REQUIRE(outputs.size() == 1, "wrong number of outputs, expected: 1, got: %zu", outputs.size());

  // Deliberate: the inputs' descriptions are appended to those of every earlier Configure, and stay when this
  // one is refused, as does every value that is read before the refusal.
  for (const auto& in : inputs) in_attrs_.push_back(in->Clone());
  out_attrs_ = outputs[0]->Clone();

  VEK_REQUIRE(!attrs.empty(), "expecting at least one attribute, got: %zu", attrs.size());
  const std::string* method = detail::Find(attrs, k_expected_attr_method_);
  VEK_REQUIRE(method != nullptr, "expected EWO method parameter: %s not found.",
              k_expected_attr_method_.c_str());
  method_ = detail::ToInt(*method);
  switch (method_) {
    case kAddK:
    case kPowK:
      VEK_REQUIRE(inputs.size() == 1, "method: %d requires single input buffer, instead got: %zu", method_,
                  inputs.size());
      break;
    case kMul:
    case kDiv:
      VEK_REQUIRE(inputs.size() == 2, "method: %d requires 2 input buffers, instead got: %zu", method_,
                  inputs.size());
      break;
    default:
      VEK_REQUIRE(false, "unknown EWO method parameter: %d.", method_);
  }

  const std::string* has_k = detail::Find(attrs, k_expected_attr_has_k_);
  if (has_k != nullptr && detail::ToFlag(*has_k)) {
    const std::string* k = detail::Find(attrs, k_expected_attr_k_);
    VEK_REQUIRE(k != nullptr, "expected EWO k parameter: %s not found.", k_expected_attr_k_.c_str());
    k_ = detail::ToFloat(*k);
  }

  // Deliberate: a broadcast attribute of 0 leaves the dimensions of an earlier word in place; they still
  // choose the kernel of method 0.
  if (ReadFlag(attrs, k_expected_attr_broadcast_A_, broadcast_A_)) {
    const std::string* word_A = detail::Find(attrs, k_expected_attr_word_A_);
    VEK_REQUIRE(word_A != nullptr, "expected EWO word_A parameter: %s not found.",
                k_expected_attr_word_A_.c_str());
    ReadWord(*word_A, A_repeats_along_);
  }
  if (ReadFlag(attrs, k_expected_attr_broadcast_B_, broadcast_B_)) {
    const std::string* word_B = detail::Find(attrs, k_expected_attr_word_B_);
    VEK_REQUIRE(word_B != nullptr, "expected EWO word_B parameter: %s not found.",
                k_expected_attr_word_B_.c_str());
    ReadWord(*word_B, B_repeats_along_);
  }

  for (const auto& in : inputs) {
    VEK_REQUIRE_FORMAT(detail::IsPlanarFloat(in->GetMemFormat()), "unexpected input buffer format",
                       in->GetMemFormat());
    VEK_REQUIRE(!in->IsStrided(), "strided data detected on input, this is not supported.");
  }
  const zeb::PuxDnnBufAttrs& out = *outputs[0];
  VEK_REQUIRE_FORMAT(detail::IsPlanarFloat(out.GetMemFormat()), "unexpected output buffer format",
                     out.GetMemFormat());
  VEK_REQUIRE(!out.IsStrided(), "strided data detected on output, this is not supported.");

  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const zeb::PuxDnnBufAttrs& in = *inputs[i];
    const std::uint64_t bytes = detail::BytesRoundedUp(in);
    VEK_REQUIRE(bytes <= in.GetSize(),
                "input %d size too small, size: %d bytes vs expected at least: %llu bytes.", AsInt(i),
                AsInt(in.GetSize()), AsULongLong(bytes));
  }
  const std::uint64_t out_bytes = detail::BytesRoundedUp(out);
  VEK_REQUIRE(out_bytes <= out.GetSize(),
              "output buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
              AsInt(out.GetSize()), AsULongLong(out_bytes));

  configured_ = true;
  return true;
}

namespace {

bool RepeatsAlongPlane(const bool (&repeats_along)[4]) {
  return !repeats_along[0] && !repeats_along[1] && repeats_along[2] && repeats_along[3];
}

unsigned Count(const zeb::PuxDnnBufAttrs& attrs) {
  const auto [N, C, H, W] = detail::Shape(attrs);
  return N * C * H * W;
}

constexpr bool kNowhere[4] = {};
using AlongDims = const bool (&)[4];
AlongDims Along(bool repeats, AlongDims dims) { return repeats ? dims : kNowhere; }

// The body of Mul and Div.
template <typename Op>
bool Zip(const float* a, AlongDims a_repeats_along, const float* b, AlongDims b_repeats_along, float* out,
         const zeb::PuxDnnBufAttrs& attrs, Op op) {
  const auto [N, C, H, W] = detail::Shape(attrs);
  const BroadcastSteps a_steps(a_repeats_along, C, H, W);
  const BroadcastSteps b_steps(b_repeats_along, C, H, W);
  if (Fits(Saturating(N) * C * H * W)) {
    detail::ZipBroadcast(a, a_steps, b, b_steps, out, N, C, H, W, op);
  } else {
    detail::PlainZipBroadcast(a, a_steps, b, b_steps, out, N, C, H, W, op);
  }
  return true;
}

}  // namespace

bool VekEwo::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "custom layer not configured.");
  VEK_REQUIRE(in_buffers != nullptr, "in_buffers is NULL.");
  VEK_REQUIRE(out_buffers != nullptr, "out_buffers is NULL.");
  for (std::size_t i = 0; i < in_attrs_.size(); ++i) {
    VEK_REQUIRE(in_buffers[i] != nullptr, "Input buffer %u pointer is NULL", detail::AsUnsigned(i));
  }

  const auto input = [&](std::size_t i) { return static_cast<float*>(in_buffers[i]); };
  float* const out = static_cast<float*>(out_buffers[0]);
  switch (method_) {
    case kMul:
      if (RepeatsAlongPlane(A_repeats_along_)) return Mul_NCHW_x_NC11(input(1), input(0), out, *in_attrs_[1]);
      if (RepeatsAlongPlane(B_repeats_along_)) return Mul_NCHW_x_NC11(input(0), input(1), out, *in_attrs_[0]);
      return Zip(input(0), Along(broadcast_A_, A_repeats_along_), input(1),
                 Along(broadcast_B_, B_repeats_along_), out, *in_attrs_[0], std::multiplies<>());
    case kDiv:
      return Zip(input(0), Along(broadcast_A_, A_repeats_along_), input(1),
                 Along(broadcast_B_, B_repeats_along_), out, *in_attrs_[0], std::divides<>());
    case kAddK:
      detail::AddInto(input(0), out, Count(*in_attrs_[0]), k_);
      return true;
    case kPowK:
      // Deliberate: the reciprocal is a division of its own, for this one exponent.
      if (k_ == -1.0F) {
        detail::DivideInto(input(0), out, Count(*in_attrs_[0]), -k_);
      } else {
        detail::PowInto(input(0), out, Count(*in_attrs_[0]), k_);
      }
      return true;
    default:
      VEK_REQUIRE(false, "EWO operation not supported, method: %d.", method_);
  }
}

std::uint64_t VekEwo::calculate_broadcast_indexes(const zeb::PuxDnnBufAttrs& attrs, unsigned n, unsigned c,
                                                  unsigned h, unsigned w) {
  const unsigned C = attrs.GetChannels();
  const unsigned H = attrs.GetHeight();
  const unsigned W = attrs.GetWidth();
  const BroadcastSteps a_steps(Along(broadcast_A_, A_repeats_along_), C, H, W);
  const BroadcastSteps b_steps(Along(broadcast_B_, B_repeats_along_), C, H, W);
  return std::uint64_t{b_steps.Index(n, c, h, w)} << 32 | a_steps.Index(n, c, h, w);
}

template <typename T>
bool VekEwo::Mul(const std::vector<T*>& in, T* out, const zeb::PuxDnnBufAttrs& attrs) {
  return Zip(in[0], Along(broadcast_A_, A_repeats_along_), in[1], Along(broadcast_B_, B_repeats_along_), out,
             attrs, std::multiplies<>());
}

template <typename T>
bool VekEwo::Div(const std::vector<T*>& in, T* out, const zeb::PuxDnnBufAttrs& attrs) {
  return Zip(in[0], Along(broadcast_A_, A_repeats_along_), in[1], Along(broadcast_B_, B_repeats_along_), out,
             attrs, std::divides<>());
}

template <typename T>
bool VekEwo::Mul_NCHW_x_NC11(T* full, T* per_channel, T* out, const zeb::PuxDnnBufAttrs& full_attrs) {
  const auto [N, C, H, W] = detail::Shape(full_attrs);
  const unsigned plane = H * W;
  if (Fits(Saturating(N) * C * H * W)) {
    detail::MulPlanes(per_channel, full, out, std::size_t{N} * C, plane);
  } else {
    detail::PlainMulPlanes(per_channel, full, out, N * C * plane, plane);
  }
  return true;
}

template ZEB_EXPORT bool VekEwo::Mul<float>(const std::vector<float*>&, float*, const zeb::PuxDnnBufAttrs&);
template ZEB_EXPORT bool VekEwo::Div<float>(const std::vector<float*>&, float*, const zeb::PuxDnnBufAttrs&);
template ZEB_EXPORT bool VekEwo::Mul_NCHW_x_NC11<float>(float*, float*, float*, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
