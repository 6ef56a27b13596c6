// Layer type "ELTWISE".
#include "custom_ops/vek_ewo.h"

#include <cmath>
#include <cstddef>
#include <functional>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "custom_ops/vek_common.h"
#include "math/elementwise.h"
#include "math/exact_math.h"
#include "simd/simd.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
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
  if (const std::string* broadcast_A = detail::Find(attrs, k_expected_attr_broadcast_A_)) {
    broadcast_A_ = detail::ToFlag(*broadcast_A);
    if (broadcast_A_) {
      const std::string* word_A = detail::Find(attrs, k_expected_attr_word_A_);
      VEK_REQUIRE(word_A != nullptr, "expected EWO word_A parameter: %s not found.",
                  k_expected_attr_word_A_.c_str());
      ReadWord(*word_A, A_repeats_along_);
    }
  }
  if (const std::string* broadcast_B = detail::Find(attrs, k_expected_attr_broadcast_B_)) {
    broadcast_B_ = detail::ToFlag(*broadcast_B);
    if (broadcast_B_) {
      const std::string* word_B = detail::Find(attrs, k_expected_attr_word_B_);
      VEK_REQUIRE(word_B != nullptr, "expected EWO word_B parameter: %s not found.",
                  k_expected_attr_word_B_.c_str());
      ReadWord(*word_B, B_repeats_along_);
    }
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
  return attrs.GetBatch() * attrs.GetChannels() * attrs.GetHeight() * attrs.GetWidth();
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
      return Mul<float>({input(0), input(1)}, out, *in_attrs_[0]);
    case kDiv:
      return Div<float>({input(0), input(1)}, out, *in_attrs_[0]);
    case kAddK:
      detail::MapRun(input(0), out, Count(*in_attrs_[0]),
                     [k = detail::Splat(k_)](detail::Floats x) { return x + k; });
      return true;
    case kPowK:
      // Deliberate: the reciprocal is a division of its own, for this one exponent.
      if (k_ == -1.0F) {
        detail::MapRun(input(0), out, Count(*in_attrs_[0]),
                       [k = detail::Splat(-k_)](detail::Floats x) { return k / x; });
      } else {
        detail::PowInto(input(0), out, Count(*in_attrs_[0]), k_);
      }
      return true;
    default:
      VEK_REQUIRE(false, "EWO operation not supported, method: %d.", method_);
  }
}

namespace {

constexpr bool kNowhere[4] = {};

// One operand in the walk over the output: its data, and the steps between its elements along N, C, H and W.
// It has the extent 1 along the dimensions in which it repeats, and the step 0. Steps wrap at 32 bits.
struct Operand {
  unsigned n_step, c_step, h_step, w_step;

  Operand(const bool (&repeats_along)[4], unsigned C, unsigned H, unsigned W) {
    const auto [n, c, h, w] = repeats_along;
    const unsigned row = w ? 1 : W;
    const unsigned plane = (h ? 1 : H) * row;
    n_step = n ? 0 : (c ? 1 : C) * plane;
    c_step = c ? 0 : plane;
    h_step = h ? 0 : row;
    w_step = w ? 0 : 1;
  }

  unsigned Index(unsigned n, unsigned c, unsigned h, unsigned w) const {
    return n * n_step + c * c_step + h * h_step + w * w_step;
  }
};

// out = op(a, b) over the elements of an N x C x H x W output.
template <typename Op>
void Broadcasting(const float* a_data, const Operand& a, const float* b_data, const Operand& b, float* out,
                  unsigned N, unsigned C, unsigned H, unsigned W, Op op) {
  if (Fits(Saturating(N) * C * H * W)) {
    detail::ZipAxis axes[] = {
        {N, a.n_step, b.n_step}, {C, a.c_step, b.c_step}, {H, a.h_step, b.h_step}, {W, a.w_step, b.w_step}};
    detail::ZipStrided(a_data, b_data, out, axes, op);
    return;
  }
  const Operand dense(kNowhere, C, H, W);
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned c = 0; c < C; ++c) {
      for (unsigned h = 0; h < H; ++h) {
        for (unsigned w = 0; w < W; ++w) {
          out[dense.Index(n, c, h, w)] = op(a_data[a.Index(n, c, h, w)], b_data[b.Index(n, c, h, w)]);
        }
      }
    }
  }
}

}  // namespace

std::uint64_t VekEwo::calculate_broadcast_indexes(const zeb::PuxDnnBufAttrs& attrs, unsigned n, unsigned c,
                                                  unsigned h, unsigned w) {
  const unsigned C = attrs.GetChannels();
  const unsigned H = attrs.GetHeight();
  const unsigned W = attrs.GetWidth();
  const std::uint64_t a = Operand(broadcast_A_ ? A_repeats_along_ : kNowhere, C, H, W).Index(n, c, h, w);
  const std::uint64_t b = Operand(broadcast_B_ ? B_repeats_along_ : kNowhere, C, H, W).Index(n, c, h, w);
  return b << 32 | a;
}

template <typename T>
bool VekEwo::Mul(const std::vector<T*>& in, T* out, const zeb::PuxDnnBufAttrs& attrs) {
  const unsigned N = attrs.GetBatch();
  const unsigned C = attrs.GetChannels();
  const unsigned H = attrs.GetHeight();
  const unsigned W = attrs.GetWidth();
  const Operand a(broadcast_A_ ? A_repeats_along_ : kNowhere, C, H, W);
  const Operand b(broadcast_B_ ? B_repeats_along_ : kNowhere, C, H, W);
  Broadcasting(in[0], a, in[1], b, out, N, C, H, W, std::multiplies<>());
  return true;
}

template <typename T>
bool VekEwo::Div(const std::vector<T*>& in, T* out, const zeb::PuxDnnBufAttrs& attrs) {
  const unsigned N = attrs.GetBatch();
  const unsigned C = attrs.GetChannels();
  const unsigned H = attrs.GetHeight();
  const unsigned W = attrs.GetWidth();
  const Operand a(broadcast_A_ ? A_repeats_along_ : kNowhere, C, H, W);
  const Operand b(broadcast_B_ ? B_repeats_along_ : kNowhere, C, H, W);
  Broadcasting(in[0], a, in[1], b, out, N, C, H, W, std::divides<>());
  return true;
}

template <typename T>
bool VekEwo::Mul_NCHW_x_NC11(T* full, T* per_channel, T* out, const zeb::PuxDnnBufAttrs& full_attrs) {
  const unsigned N = full_attrs.GetBatch();
  const unsigned C = full_attrs.GetChannels();
  const unsigned H = full_attrs.GetHeight();
  const unsigned W = full_attrs.GetWidth();
  const unsigned plane = H * W;
  if (Fits(Saturating(N) * C * H * W)) {
    detail::ZipAxis axes[] = {{std::size_t{N} * C, 1, plane}, {plane, 0, 1}};
    detail::ZipStrided(per_channel, full, out, axes, std::multiplies<>());
    return true;
  }
  const unsigned count = N * C * plane;  // 0 where a plane has 0 elements
  for (unsigned i = 0; i < count; ++i) out[i] = per_channel[i / plane] * full[i];
  return true;
}

template ZEB_EXPORT bool VekEwo::Mul<float>(const std::vector<float*>&, float*, const zeb::PuxDnnBufAttrs&);
template ZEB_EXPORT bool VekEwo::Div<float>(const std::vector<float*>&, float*, const zeb::PuxDnnBufAttrs&);
template ZEB_EXPORT bool VekEwo::Mul_NCHW_x_NC11<float>(float*, float*, float*, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
