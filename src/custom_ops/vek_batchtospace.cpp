// Layer type "BATCHTOSPACE".
#include "custom_ops/vek_batchtospace.h"

#include <vector>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "custom_ops/vek_common.h"
#include "kernels/batch_to_space.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::Fits;
using detail::Saturating;
using detail::Shape;

const std::string VekBatchToSpace::k_expected_attr_block_shape_ = "block_shape";
const std::string VekBatchToSpace::k_expected_attr_crops_ = "crops";

bool VekBatchToSpace::Configure(const AttrMap& attrs, const BufAttrsList& inputs,
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

  const std::string* crops = detail::Find(attrs, k_expected_attr_crops_);
  VEK_REQUIRE(crops != nullptr, "expected operation parameter: %s not found.",
              k_expected_attr_crops_.c_str());
  elements.clear();
  VEK_REQUIRE(sw_ops_parser::ParseTensor(*crops, &elements, &error), "ERROR: %s", error.c_str());
  VEK_REQUIRE(elements.size() >= 4, "ERROR: crops should have 4 elements, but has %zu", elements.size());
  crop_top_ = detail::ToUnsigned(elements[0]);
  crop_bottom_ = detail::ToUnsigned(elements[1]);
  crop_left_ = detail::ToUnsigned(elements[2]);
  crop_right_ = detail::ToUnsigned(elements[3]);

  const unsigned block = block_width_ * block_height_;
  VEK_REQUIRE(block != 0, "block_shape parameter incorrect: %d x %d, should be at least 1 x 1",
              AsInt(block_height_), AsInt(block_width_));

  // Deliberate: a batch that is no multiple of the block is accepted; the surplus items are never read.
  const unsigned N_out = in.GetBatch() / block;
  VEK_REQUIRE(out.GetBatch() == N_out, "wrong output batch: %d, should be: %d", AsInt(out.GetBatch()),
              AsInt(N_out));
  const unsigned C = in.GetChannels();
  VEK_REQUIRE(out.GetChannels() == C, "wrong output channels: %d, should be: %d", AsInt(out.GetChannels()),
              AsInt(C));
  const unsigned W_out = in.GetWidth() * block_width_ - crop_left_ - crop_right_;
  VEK_REQUIRE(out.GetWidth() == W_out, "wrong output width: %d, should be: %d", AsInt(out.GetWidth()),
              AsInt(W_out));
  const unsigned H_out = in.GetHeight() * block_height_ - crop_top_ - crop_bottom_;
  VEK_REQUIRE(out.GetHeight() == H_out, "wrong output height: %d, should be: %d", AsInt(out.GetHeight()),
              AsInt(H_out));

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

bool VekBatchToSpace::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffer is NULL");
  VEK_REQUIRE(out_buffers != nullptr, "Output buffer is NULL");
  VEK_REQUIRE(in_attrs_ != nullptr, "input buffer attrs are NULL");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");

  const int bitdepth = in_attrs_->GetMemFormat().bitdepth;
  return detail::DispatchWidth(
      bitdepth,
      [&](auto width) {
        using T = decltype(width);
        batchtospace(*in_attrs_, *out_attrs_, static_cast<T*>(in_buffers[0]), static_cast<T*>(out_buffers[0]),
                     block_height_, block_width_, crop_top_, crop_left_);
        return true;
      },
      [&] {
        VEK_LOG_ERROR("not supported bitdepth: %d.", bitdepth);
        return false;
      });
}

template <typename T>
void VekBatchToSpace::batchtospace(const zeb::PuxDnnBufAttrs& in_attrs, const zeb::PuxDnnBufAttrs& out_attrs,
                                   T* in, T* out, unsigned block_height, unsigned block_width,
                                   unsigned crop_top, unsigned crop_left) {
  // The input's batch is not asked for.
  const unsigned C = in_attrs.GetChannels();
  const unsigned H = in_attrs.GetHeight();
  const unsigned W = in_attrs.GetWidth();
  const auto [N_out, C_out, H_out, W_out] = Shape(out_attrs);
  if (N_out == 0 || H_out == 0 || W_out == 0 || C_out == 0 || block_height == 0 || block_width == 0) return;
  const kernels::BatchToSpaceShape shape = {
      C, H, W, N_out, C_out, H_out, W_out, block_height, block_width, crop_top, crop_left};

  // Every element of the output comes from inside its sub-grid of the input, and no position wraps.
  if (C_out == C && Saturating(crop_top) + H_out <= Saturating(H) * block_height &&
      Saturating(crop_left) + W_out <= Saturating(W) * block_width &&
      Fits(Saturating(N_out) * C * H * block_height * W * block_width)) {
    kernels::BatchToSpace(out, in, shape);
  } else {
    kernels::PlainBatchToSpace(out, in, shape);
  }
}

template void VekBatchToSpace::batchtospace<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, int*,
                                                 int*, unsigned, unsigned, unsigned, unsigned);
template void VekBatchToSpace::batchtospace<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&,
                                                   short*, short*, unsigned, unsigned, unsigned, unsigned);
template void VekBatchToSpace::batchtospace<char>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&,
                                                  char*, char*, unsigned, unsigned, unsigned, unsigned);

}  // namespace zeb_custom_ops
