// Layer type "SPACETODEPTH".
#include "custom_ops/vek_spacetodepth.h"

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/sizes.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;

const std::string VekSpaceToDepth::k_expected_attr_block_size_ = "block_size";

bool VekSpaceToDepth::Configure(const AttrMap& attrs, const BufAttrsList& inputs,
                                const BufAttrsList& outputs) {
  VEK_REQUIRE(inputs.size() == 1, "wrong number of inputs, expected: 1, got: %zu", inputs.size());
  VEK_REQUIRE(outputs.size() == 1, "wrong number of outputs, expected: 1, got: %zu", outputs.size());

  // Deliberate: the clones and the block size are stored before they are checked; a refused Configure leaves
  // the new ones in place.
  in_attrs_ = inputs[0]->Clone();
  out_attrs_ = outputs[0]->Clone();
  const zeb::PuxDnnBufAttrs& in = *in_attrs_;
  const zeb::PuxDnnBufAttrs& out = *out_attrs_;

  VEK_REQUIRE(attrs.size() == 1, "expecting exactly one attribute, got: %zu", attrs.size());
  const std::string* block_size = detail::Find(attrs, k_expected_attr_block_size_);
  VEK_REQUIRE(block_size != nullptr, "expected operation parameter: %s not found.",
              k_expected_attr_block_size_.c_str());
  block_size_ = detail::ToInt(*block_size);
  VEK_REQUIRE(block_size_ >= 1, "block_size parameter incorrect: %d", block_size_);

  const unsigned b = static_cast<unsigned>(block_size_);
  const unsigned W = in.GetWidth();
  VEK_REQUIRE(W % b == 0,
              "block_size parameter incorrect: %d, number of width %d should be divisible by block_size",
              block_size_, AsInt(W));
  const unsigned H = in.GetHeight();
  VEK_REQUIRE(H % b == 0,
              "block_size parameter incorrect: %d, number of height %d should be divisible by block_size",
              block_size_, AsInt(H));

  const unsigned N = in.GetBatch();
  VEK_REQUIRE(out.GetBatch() == N, "wrong output batch: %d, should be: %d", AsInt(out.GetBatch()), AsInt(N));
  const unsigned C_out = b * b * in.GetChannels();
  VEK_REQUIRE(out.GetChannels() == C_out, "wrong output channels: %d, should be: %d",
              AsInt(out.GetChannels()), AsInt(C_out));
  VEK_REQUIRE(out.GetWidth() == W / b, "wrong output width: %d, should be: %d", AsInt(out.GetWidth()),
              AsInt(W / b));
  VEK_REQUIRE(out.GetHeight() == H / b, "wrong output height: %d, should be: %d", AsInt(out.GetHeight()),
              AsInt(H / b));

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

bool VekSpaceToDepth::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "custom layer not configured.");
  VEK_REQUIRE(in_buffers != nullptr, "in_buffers is NULL.");
  VEK_REQUIRE(out_buffers != nullptr, "out_buffers is NULL.");

  const int bitdepth = in_attrs_->GetMemFormat().bitdepth;
  return detail::DispatchWidth(
      bitdepth,
      [&](auto width) {
        using T = decltype(width);
        spacetodepth(*in_attrs_, *out_attrs_, static_cast<T*>(in_buffers[0]), static_cast<T*>(out_buffers[0]),
                     block_size_);
        return true;
      },
      [&] {
        VEK_LOG_ERROR("not supported bitdepth: %d.", bitdepth);
        return false;
      });
}

}  // namespace zeb_custom_ops
