// Layer type "ARGMAX".
#include "custom_ops/vek_argmax.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "kernels/argmax.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::Fits;
using detail::Saturating;

const std::string VekArgmax::k_expected_attr_axis_ = "axis";
const std::string VekArgmax::k_expected_attr_top_k_ = "top_k";
const std::string VekArgmax::k_expected_attr_out_max_val_ = "out_max_val";

bool VekArgmax::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(inputs.size() == 1, "wrong number of inputs, expected: 1, got: %zu", inputs.size());
  VEK_REQUIRE(outputs.size() == 1, "wrong number of outputs, expected: 1, got: %zu", outputs.size());
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  VEK_REQUIRE(detail::IsPlanarFloat(in.GetMemFormat()), "unexpected input buffer format");
  VEK_REQUIRE(detail::IsPlanarFloat(out.GetMemFormat()), "unexpected output buffer format");
  VEK_REQUIRE(!in.IsStrided(), "strided data detected on input, this is not supported.");
  VEK_REQUIRE(!out.IsStrided(), "strided data detected on output, this is not supported.");

  const std::vector<unsigned> in_dims = in.GetDims();
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

  VEK_REQUIRE(attrs.size() == 1, "expecting exactly one attribute, got: %zu", attrs.size());
  // Deliberate: each call sets one of the three and keeps the others, and a rejected axis stays stored.
  if (const std::string* axis = detail::Find(attrs, k_expected_attr_axis_)) axis_ = detail::ToInt(*axis);
  if (const std::string* top_k = detail::Find(attrs, k_expected_attr_top_k_)) {
    top_k_ = detail::ToUnsigned(*top_k);
  }
  if (const std::string* out_max_val = detail::Find(attrs, k_expected_attr_out_max_val_)) {
    out_max_val_ = detail::ToFlag(*out_max_val);
  }
  VEK_REQUIRE(static_cast<unsigned>(axis_) < in_dims.size(), "There are %zu dims, but axis is set to %d",
              in_dims.size(), axis_);

  configured_ = true;
  return true;
}

bool VekArgmax::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Argmax custom layer not configured.");
  VEK_REQUIRE(in_buffers != nullptr, "in_buffers is NULL.");
  VEK_REQUIRE(out_buffers != nullptr, "out_buffers is NULL.");

  const std::uint32_t in_count = detail::Elements32(in_attrs_->GetDims());
  const std::uint32_t out_count = detail::Elements32(out_attrs_->GetDims());
  return Argmax_v1(*in_attrs_, static_cast<float*>(in_buffers[0]), in_count,
                   static_cast<float*>(out_buffers[0]), out_count);
}

bool VekArgmax::Argmax_v1(const zeb::PuxDnnBufAttrs& in, float* in_data, unsigned int in_count,
                          float* out_data, unsigned int out_count) {
  VEK_REQUIRE(in_data != nullptr && out_data != nullptr, "Argmax_v1 input or output buffer is null.");

  const auto [N, C, H, W] = detail::Shape(in);
  kernels::Searches s{};
  unsigned outer = N;  // how often all results are written
  if (!has_axis_) {
    s = {.len = C * H * W, .step = 1, .columns = 1, .slices = N};
  } else {
    switch (axis_) {
      case 0:
        s = {.len = N, .step = C * H * W, .columns = C * H * W, .slices = C * H * W};
        outer = 1;
        break;
      // Deliberate: for the axes C, H and W the searches span the batch already, and are repeated N times.
      case 1:
        s = {.len = C, .step = H * W, .columns = N * H * W, .slices = N * H * W};
        break;
      case 2:
        s = {.len = H, .step = W, .columns = W, .slices = N * C * W};
        break;
      case 3:
        s = {.len = W, .step = 1, .columns = 1, .slices = N * C * H};
        break;
      default:
        VEK_REQUIRE(false, "Argmax_v1 wrong argmax axis parameter.");
    }
  }
  const bool both = !has_axis_ && out_max_val_;
  const unsigned needed = s.slices * outer * top_k_ * (both ? 2 : 1);
  VEK_REQUIRE(out_count >= needed,
              "Argmax_v1 output buffer too small, expected: %d, received space for: %d  elements.",
              AsInt(needed), AsInt(out_count));
  VEK_REQUIRE(in_count >= N * C * H * W, "Argmax_v1 input buffer too small.");
  // A search finds no more values than it has. Deliberate: a search of one value finds 0 at index 0 where it has none.
  const unsigned ranks = top_k_ == 1 ? 1 : std::min(top_k_, s.len);
  if (outer == 0 || s.slices == 0 || ranks == 0) return true;

  const kernels::Results results = {
      .ranks = ranks, .indices = !out_max_val_ || both, .values = out_max_val_, .repeats = outer};
  // Lists of candidates: on the stack unless they are long.
  kernels::Pair on_stack[512];
  std::vector<kernels::Pair> on_heap;
  std::span<kernels::Pair> lists = on_stack;
  const std::size_t pairs = ranks * kernels::kListsAtOnce;
  if (pairs > lists.size()) {
    on_heap.resize(pairs);
    lists = on_heap;
  }
  if (s.len != 0 && Fits(Saturating(N) * C * H * W) && s.len <= std::numeric_limits<std::int32_t>::max()) {
    kernels::Argmax(in_data, out_data, s, results, lists);
  } else {
    kernels::PlainArgmax(in_data, out_data, s, results, lists);
  }
  return true;
}

}  // namespace zeb_custom_ops
