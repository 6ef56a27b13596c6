// Layer type "GATHER"; the kernel is in ext_gather.cpp.
#include "custom_ops/vek_gather.h"

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/sizes.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::DispatchElement;

const std::string VekGather::k_expected_attr_ = "axis";

bool VekGather::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  if (attrs.empty()) {
    VEK_LOG_INFO("'axis' not defined, using axis=0");
    axis_ = 0;
  } else {
    VEK_REQUIRE(attrs.size() == 1, "expected 1 attribute, but got %zu", attrs.size());
    const std::string* axis = detail::Find(attrs, k_expected_attr_);
    VEK_REQUIRE(axis != nullptr, "expected attribute: %s, got: %s", k_expected_attr_.c_str(),
                attrs.begin()->first.c_str());
    // Deliberate: a refused axis stays stored.
    axis_ = detail::ToInt(*axis);
    VEK_REQUIRE(axis_ >= 0 && axis_ <= 3, "axis = %d, but should be in range [0..3]", axis_);
  }

  VEK_REQUIRE(inputs.size() == 2 && outputs.size() == 1,
              "expected two inputs and one output, got: %d inputs, %d outputs", AsInt(inputs.size()),
              AsInt(outputs.size()));
  const zeb::PuxDnnBufAttrs& params = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  // Deliberate: the format of the indices is not looked at.
  VEK_REQUIRE_FORMAT(detail::IsPlanarWholeBytes(params.GetMemFormat()), "unexpected input buffer format",
                     params.GetMemFormat());
  VEK_REQUIRE_FORMAT(detail::IsPlanarWholeBytes(out.GetMemFormat()), "unexpected output buffer format",
                     out.GetMemFormat());
  VEK_REQUIRE_FORMAT(params.GetMemFormat().bitdepth == out.GetMemFormat().bitdepth,
                     "incompatible buffer formats", params.GetMemFormat(), out.GetMemFormat());

  const std::size_t num_dims = params.GetDims().size();
  VEK_REQUIRE(static_cast<unsigned>(axis_) < num_dims, "There are %zu dims, but axis is set to %d", num_dims,
              axis_);

  for (const auto& in : inputs) {
    const std::uint64_t bytes =
        detail::BytesOfWholeByteElements(in->GetMemFormat(), detail::Elements64(in->GetDims()));
    VEK_REQUIRE(bytes <= in->GetSize(), "Input buf size should be at least %llu, but is %d",
                AsULongLong(bytes), AsInt(in->GetSize()));
  }
  const std::uint64_t bytes =
      detail::BytesOfWholeByteElements(out.GetMemFormat(), detail::Elements64(out.GetDims()));
  VEK_REQUIRE(bytes <= out.GetSize(), "Output buf size should be at least %llu, but is %d",
              AsULongLong(bytes), AsInt(out.GetSize()));

  for (const auto& in : inputs) {
    VEK_REQUIRE(!in->IsStrided(), "strided data detected on input of Gather, this is not supported.");
    VEK_REQUIRE(!in->IsInterleaved(), "interleaved data detected on input of Gather, this is not supported.");
  }
  VEK_REQUIRE(!out.IsStrided(), "strided data detected on output of Gather, this is not supported.");
  VEK_REQUIRE(!out.IsInterleaved(), "interleaved data detected on output of Gather, this is not supported.");

  BufAttrsList clones;
  for (const auto& in : inputs) clones.push_back(in->Clone());
  in_attrs_ = std::move(clones);
  out_attrs_ = out.Clone();
  configured_ = true;
  return true;
}

bool VekGather::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(!in_attrs_.empty(), "input buffer attrs not provided");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffers array is NULL");
  for (unsigned i = 0; i < in_attrs_.size(); ++i) {
    VEK_REQUIRE(in_buffers[i] != nullptr, "Input buffer %u pointer is NULL", i);
  }
  VEK_REQUIRE(out_buffers != nullptr, "Output buffers array is NULL");

  const unsigned out_count =
      out_attrs_->GetBatch() * out_attrs_->GetChannels() * out_attrs_->GetHeight() * out_attrs_->GetWidth();
  const auto run = [&](auto width) {
    using T = decltype(width);
    return Gather_v1(static_cast<const T*>(in_buffers[0]), in_attrs_[0]->GetDims(),
                     static_cast<const std::uint32_t*>(in_buffers[1]), in_attrs_[1]->GetDims(),
                     static_cast<unsigned>(axis_), static_cast<T*>(out_buffers[0]), out_count);
  };
  const bool done = DispatchElement(in_attrs_[0]->GetMemFormat(), run, [] { return false; });
  VEK_REQUIRE(done, "can't do Gather operation");
  return true;
}

}  // namespace zeb_custom_ops
