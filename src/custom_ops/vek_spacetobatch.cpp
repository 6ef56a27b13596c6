// Layer type "SPACETOBATCH".
#include "custom_ops/vek_spacetobatch.h"

#include <vector>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/fixed_point.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "custom_ops/vek_common.h"
#include "kernels/space_to_batch.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::Fits;
using detail::Saturating;
using detail::Shape;

const std::string VekSpaceToBatch::k_expected_attr_block_shape_ = "block_shape";
const std::string VekSpaceToBatch::k_expected_attr_paddings_ = "paddings";

bool VekSpaceToBatch::Configure(const AttrMap& attrs, const BufAttrsList& inputs,
                                const BufAttrsList& outputs) {
  VEK_REQUIRE(inputs.size() == 1, "wrong number of inputs, expected: 1, got: %zu", inputs.size());
  VEK_REQUIRE(outputs.size() == 1, "wrong number of outputs, expected: 1, got: %zu", outputs.size());

  // Deliberate: the clones and the lists are stored before they are checked; a refused Configure leaves the
  // new ones in place.
  in_attrs_ = inputs[0]->Clone();
  out_attrs_ = outputs[0]->Clone();
  const zeb::PuxDnnBufAttrs& in = *in_attrs_;
  const zeb::PuxDnnBufAttrs& out = *out_attrs_;

  VEK_REQUIRE(attrs.size() == 2, "expected 2 attribute, but got %zu", attrs.size());
  std::vector<std::string> elements;
  std::string error;

  const std::string* block_shape = detail::Find(attrs, k_expected_attr_block_shape_);
  VEK_REQUIRE(block_shape != nullptr, "expected operation parameter: %s not found.",
              k_expected_attr_block_shape_.c_str());
  VEK_REQUIRE(sw_ops_parser::ParseTensor(*block_shape, &elements, &error), "ERROR: %s", error.c_str());
  VEK_REQUIRE(elements.size() >= 2, "ERROR: block_shape should have 2 elements, but has %zu",
              elements.size());
  block_height_ = detail::ToUnsigned(elements[0]);
  block_width_ = detail::ToUnsigned(elements[1]);

  const std::string* paddings = detail::Find(attrs, k_expected_attr_paddings_);
  VEK_REQUIRE(paddings != nullptr, "expected operation parameter: %s not found.",
              k_expected_attr_paddings_.c_str());
  elements.clear();
  VEK_REQUIRE(sw_ops_parser::ParseTensor(*paddings, &elements, &error), "ERROR: %s", error.c_str());
  VEK_REQUIRE(elements.size() >= 4, "ERROR: paddings should have 4 elements, but has %zu", elements.size());
  pad_top_ = detail::ToUnsigned(elements[0]);
  pad_bot_ = detail::ToUnsigned(elements[1]);
  pad_left_ = detail::ToUnsigned(elements[2]);
  pad_right_ = detail::ToUnsigned(elements[3]);

  const unsigned H = in.GetHeight();
  const unsigned H_padded = H + pad_top_ + pad_bot_;
  VEK_REQUIRE(block_height_ != 0 && H_padded % block_height_ == 0,
              "block_height_ parameter incorrect: %d, number of (height+pad_top_+pad_bot_) (%d + %d + %d ) "
              "should be divisible by block_height_",
              AsInt(block_height_), AsInt(H), AsInt(pad_top_), AsInt(pad_bot_));
  const unsigned W = in.GetWidth();
  const unsigned W_padded = W + pad_left_ + pad_right_;
  VEK_REQUIRE(block_width_ != 0 && W_padded % block_width_ == 0,
              "block_width_ parameter incorrect: %d, number of (width+pad_left+pad_right) (%d + %d + %d) "
              "should be divisible by block_width_",
              AsInt(block_width_), AsInt(W), AsInt(pad_left_), AsInt(pad_right_));

  const unsigned N_out = block_width_ * block_height_ * in.GetBatch();
  VEK_REQUIRE(out.GetBatch() == N_out, "wrong output batch: %d, should be: %d", AsInt(out.GetBatch()),
              AsInt(N_out));
  const unsigned C = in.GetChannels();
  VEK_REQUIRE(out.GetChannels() == C, "wrong output channels: %d, should be: %d", AsInt(out.GetChannels()),
              AsInt(C));
  VEK_REQUIRE(out.GetWidth() == W_padded / block_width_, "wrong output width: %d, should be: %d",
              AsInt(out.GetWidth()), AsInt(W_padded / block_width_));
  VEK_REQUIRE(out.GetHeight() == H_padded / block_height_, "wrong output height: %d, should be: %d",
              AsInt(out.GetHeight()), AsInt(H_padded / block_height_));

  const zeb::PuxDnnBufAttrsMemFormat in_format = in.GetMemFormat();
  const zeb::PuxDnnBufAttrsMemFormat out_format = out.GetMemFormat();
  VEK_REQUIRE(in_format.bitdepth == out_format.bitdepth,
              "input bitdepth: %d, differs from output bitdepth: %d", in_format.bitdepth,
              out_format.bitdepth);
  VEK_REQUIRE(in_format.plane_pack == 1 && out_format.plane_pack == 1,
              "expected interleaving: 1, instead got interleaving on input: %d, on output: %d",
              in_format.plane_pack, out_format.plane_pack);
  VEK_REQUIRE(!in.IsStrided() && !out.IsStrided(),
              "buffer with stride detected on input or output, which is not supported.");

  const std::uint64_t in_bytes = detail::BytesRoundedUp(in);
  VEK_REQUIRE(in_bytes <= in.GetSize(),
              "input buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
              AsInt(in.GetSize()), AsULongLong(in_bytes));
  const std::uint64_t out_bytes = detail::BytesRoundedUp(out);
  VEK_REQUIRE(out_bytes <= out.GetSize(),
              "output buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
              AsInt(out.GetSize()), AsULongLong(out_bytes));

  configured_ = true;
  return true;
}

bool VekSpaceToBatch::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffer is NULL");
  VEK_REQUIRE(out_buffers != nullptr, "Output buffer is NULL");
  VEK_REQUIRE(in_attrs_ != nullptr, "input buffer attrs are NULL");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");

  const zeb::PuxDnnBufAttrsMemFormat format = in_attrs_->GetMemFormat();
  const unsigned zero_point = format.q8a ? format.q8a_zero : 0;
  return detail::DispatchWidth(
      format.bitdepth,
      [&](auto width) {
        using T = decltype(width);
        spacetobatch(*in_attrs_, *out_attrs_, static_cast<T*>(in_buffers[0]), static_cast<T*>(out_buffers[0]),
                     block_height_, block_width_, pad_top_, pad_left_, zero_point);
        return true;
      },
      [&] {
        VEK_LOG_ERROR("not supported bitdepth: %d.", format.bitdepth);
        return false;
      });
}

template <typename T>
void VekSpaceToBatch::spacetobatch(const zeb::PuxDnnBufAttrs& in_attrs, const zeb::PuxDnnBufAttrs& out_attrs,
                                   T* in, T* out, unsigned block_height, unsigned block_width,
                                   unsigned pad_top, unsigned pad_left, unsigned zero_point) {
  const auto [N, C, H, W] = Shape(in_attrs);
  const auto [N_out, C_out, H_out, W_out] = Shape(out_attrs);
  if (N_out == 0 || C_out == 0 || H_out == 0 || W_out == 0 || N == 0 || block_width == 0) return;
  const kernels::SpaceToBatchShape shape = {
      N, C, H, W, N_out, C_out, H_out, W_out, block_height, block_width, pad_top, pad_left};
  const T padding = detail::FillValue<T>(zero_point, in_attrs.GetMemFormat().exp);

  // The output's batch is all sub-grids of the input's, and no position wraps.
  if (Saturating(block_height) * block_width * N == N_out && C_out == C && Fits(Saturating(N) * C * H * W) &&
      Fits(Saturating(N_out) * C * H_out * W_out) && Fits(Saturating(H) + pad_top) &&
      Fits(Saturating(W) + pad_left)) {
    kernels::SpaceToBatch(out, in, shape, padding);
  } else {
    kernels::PlainSpaceToBatch(out, in, shape, padding);
  }
}

template void VekSpaceToBatch::spacetobatch<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, int*,
                                                 int*, unsigned, unsigned, unsigned, unsigned, unsigned);
template void VekSpaceToBatch::spacetobatch<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&,
                                                   short*, short*, unsigned, unsigned, unsigned, unsigned,
                                                   unsigned);
template void VekSpaceToBatch::spacetobatch<char>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&,
                                                  char*, char*, unsigned, unsigned, unsigned, unsigned,
                                                  unsigned);

}  // namespace zeb_custom_ops
