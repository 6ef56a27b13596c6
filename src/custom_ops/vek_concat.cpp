// Layer type "SWCONCAT".
#include "custom_ops/vek_concat.h"

#include <algorithm>
#include <array>
#include <span>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "kernels/concat.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::DispatchElement;
using detail::Fits;
using detail::LastPosition;
using detail::Saturating;

const std::string VekConcat::k_expected_attr_ = "axis";

bool VekConcat::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(outputs.size() == 1, "expected one output, got: %d outputs", AsInt(outputs.size()));
  VEK_REQUIRE(!attrs.empty(), "'axis' attribute not defined");
  VEK_REQUIRE(attrs.size() == 1, "expected 1 attribute, but got %zu", attrs.size());
  const std::string* axis = detail::Find(attrs, k_expected_attr_);
  VEK_REQUIRE(axis != nullptr, "expected attribute: %s, got: %s", k_expected_attr_.c_str(),
              attrs.begin()->first.c_str());
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  // Deliberate: a refused axis stays stored, and the bound is the number of dims itself, whatever the text
  // says; the number of the first input's dims narrows it below.
  axis_ = detail::ToInt(*axis);
  VEK_REQUIRE(axis_ >= 0 && static_cast<unsigned>(axis_) <= out.GetNumDims(),
              "axis = %d, but should be in range [0..3]", axis_);
  VEK_REQUIRE(!inputs.empty(), "expected at least one input, got none");
  const zeb::PuxDnnBufAttrs& first = *inputs[0];

  // Deliberate: only the first input's format is looked at.
  VEK_REQUIRE_FORMAT(detail::IsPlanarWholeBytes(first.GetMemFormat()), "unexpected input buffer format",
                     first.GetMemFormat());
  VEK_REQUIRE_FORMAT(detail::IsPlanarWholeBytes(out.GetMemFormat()), "unexpected output buffer format",
                     out.GetMemFormat());
  VEK_REQUIRE_FORMAT(first.GetMemFormat().bitdepth == out.GetMemFormat().bitdepth,
                     "incompatible buffer formats", first.GetMemFormat(), out.GetMemFormat());

  const std::size_t num_dims = first.GetDims().size();
  VEK_REQUIRE(num_dims == 4 || num_dims == 5,
              "Concat supports only 4D and 5D tensors. Can't use %zu dims tensors", num_dims);
  VEK_REQUIRE(static_cast<unsigned>(axis_) < num_dims, "There are %zu dims, but axis is set to %d", num_dims,
              axis_);

  std::uint64_t occupied = 0;
  for (const auto& in : inputs) {
    const std::uint64_t bytes = detail::BytesTruncated(in->GetMemFormat(), detail::Elements64(in->GetDims()));
    VEK_REQUIRE(bytes <= in->GetSize(), "Input buf size should be at least %llu, but is %d",
                AsULongLong(bytes), AsInt(in->GetSize()));
    occupied += in->GetSize();
  }
  const std::uint64_t bytes = detail::BytesTruncated(out.GetMemFormat(), detail::Elements64(out.GetDims()));
  VEK_REQUIRE(bytes <= out.GetSize(), "Output buf size should be at least %llu, but is %d",
              AsULongLong(bytes), AsInt(out.GetSize()));
  VEK_REQUIRE(occupied <= out.GetSize(), "Input buffers occupy %lluB, but output buffer is %dB",
              AsULongLong(occupied), AsInt(out.GetSize()));

  for (const auto& in : inputs) {
    VEK_REQUIRE(!in->IsStrided(), "strided data detected on input of Concat, this is not supported.");
    VEK_REQUIRE(!in->IsInterleaved(), "interleaved data detected on input of Concat, this is not supported.");
  }
  VEK_REQUIRE(!out.IsStrided(), "strided data detected on output of Concat, this is not supported.");
  VEK_REQUIRE(!out.IsInterleaved(), "interleaved data detected on output of Concat, this is not supported.");

  // Deliberate: the inputs are appended to those of an earlier Configure.
  for (const auto& in : inputs) in_attrs_.push_back(in->Clone());
  out_attrs_ = out.Clone();
  configured_ = true;
  return true;
}

namespace {

// Per outer position one slab of every input, one after another. A slab is `extent_of(i)` times `inner`
// elements; `extent` is the sum of the inputs' extents.
template <typename T, typename DataOf, typename ExtentOf>
void Join(const DataOf& data_of, std::size_t inputs, T* out, std::uint64_t outer, unsigned inner,
          std::uint64_t extent, ExtentOf extent_of) {
  // No position wraps.
  const Saturating row = Saturating(extent) * inner;
  const bool fits = Fits(LastPosition({{outer, row}, {row, 1}}));

  // The inputs are taken a few at a time, so that each description is asked once.
  constexpr std::size_t kGroup = 16;
  kernels::ConcatRows rows = {outer, static_cast<unsigned>(extent * inner), 0};
  for (std::size_t first = 0; first < inputs; first += kGroup) {
    const std::size_t count = std::min(kGroup, inputs - first);
    std::array<kernels::Slab<T>, kGroup> group;
    unsigned behind = rows.offset;
    for (std::size_t i = 0; i < count; ++i) {
      group[i] = {data_of(first + i), extent_of(first + i) * inner};
      behind += group[i].count;
    }
    const std::span<const kernels::Slab<T>> slabs(group.data(), count);
    if (fits) {
      kernels::Concat(out, slabs, rows);
    } else {
      kernels::PlainConcat(out, slabs, rows);
    }
    rows.offset = behind;
  }
}

// The kernel for five dims.
template <typename T, typename DataOf>
bool Concatenate5d(const DataOf& data_of, T* out, const zeb::PuxDnnCustomLayer::BufAttrsList& in_attrs,
                   unsigned axis) {
  if (in_attrs.empty()) return true;
  const std::vector<unsigned> dims = in_attrs[0]->GetDims();
  std::vector<unsigned> before = dims;
  std::uint64_t extent = axis < dims.size() ? dims[axis] : 0;
  for (std::size_t i = 1; i < in_attrs.size(); ++i) {
    std::vector<unsigned> dims_i = in_attrs[i]->GetDims();
    VEK_REQUIRE(dims_i.size() == before.size(), "All tensors must have the same number of dimensions");
    for (std::size_t d = 0; d < dims_i.size(); ++d) {
      VEK_REQUIRE(d == axis || dims_i[d] == before[d],
                  "All tensors must have the same dimensions (except for the concat dimension)");
    }
    if (axis < dims_i.size()) extent += dims_i[axis];
    before = std::move(dims_i);
  }
  if (axis > 4 || axis >= dims.size()) return false;

  std::uint64_t outer = 1;
  for (unsigned d = 0; d < axis; ++d) outer *= dims[d];
  unsigned inner = 1;
  for (std::size_t d = axis + 1; d < std::min<std::size_t>(dims.size(), 5); ++d) inner *= dims[d];
  Join(data_of, in_attrs.size(), out, outer, inner, extent,
       [&](std::size_t i) { return in_attrs[i]->GetDims()[axis]; });
  return true;
}

// The 4-D kernel, and the way to the other one; data_of(i) is the data of input i.
template <typename T, typename DataOf>
bool Concatenate(const DataOf& data_of, T* out, const zeb::PuxDnnCustomLayer::BufAttrsList& in_attrs,
                 unsigned axis) {
  if (in_attrs.empty()) return true;
  const zeb::PuxDnnBufAttrs& first = *in_attrs[0];
  if (first.GetNumDims() == 5) return Concatenate5d(data_of, out, in_attrs, axis);

  const auto [N, C, H, W] = detail::Shape(first);

  // Sizes are compared with the neighbour's, the batch also with the first input's.
  unsigned C_before = C;
  unsigned H_before = H;
  unsigned W_before = W;
  for (std::size_t i = 1; i < in_attrs.size(); ++i) {
    const unsigned C_i = in_attrs[i]->GetChannels();
    const unsigned H_i = in_attrs[i]->GetHeight();
    const unsigned W_i = in_attrs[i]->GetWidth();
    // Deliberate: also where batches are joined.
    VEK_REQUIRE(in_attrs[i]->GetBatch() == N, "Incompatible concat batch dims");
    switch (axis) {
      case 0:
        VEK_REQUIRE(W_i == W_before && H_i == H_before && C_i == C_before,
                    "All tensors must have the same width, channels, height for batch-concat");
        break;
      case 1:
        VEK_REQUIRE(H_i == H_before && W_i == W_before,
                    "All tensors must have the same height, width, batch for channel-concat");
        break;
      case 2:
        VEK_REQUIRE(W_i == W_before && C_i == C_before,
                    "All tensors must have the same width, channels, batch for height-concat");
        break;
      case 3:
        VEK_REQUIRE(H_i == H_before && C_i == C_before,
                    "All tensors must have the same height, channels, batch for width-concat");
        break;
      default:
        break;
    }
    C_before = C_i;
    H_before = H_i;
    W_before = W_i;
  }

  const auto sum_of = [&](auto extent_of) {
    std::uint64_t extent = 0;
    for (std::size_t i = 0; i < in_attrs.size(); ++i) extent += extent_of(i);
    return extent;
  };
  const auto join = [&](std::uint64_t outer, unsigned inner, auto extent_of) {
    Join(data_of, in_attrs.size(), out, outer, inner, sum_of(extent_of), extent_of);
    return true;
  };
  switch (axis) {
    case 0: {
      const std::vector<unsigned> dims = first.GetDims();
      const unsigned inner = dims.size() < 4 ? C * H * W : dims[1] * dims[2] * dims[3];
      return join(1, inner, [&](std::size_t i) {
        const std::vector<unsigned> dims_i = in_attrs[i]->GetDims();
        return dims_i.empty() ? in_attrs[i]->GetBatch() : dims_i[0];
      });
    }
    case 1:
      return join(N, H * W, [&](std::size_t i) { return in_attrs[i]->GetChannels(); });
    case 2:
      return join(std::uint64_t{N} * C, W, [&](std::size_t i) { return in_attrs[i]->GetHeight(); });
    case 3:
      return join(std::uint64_t{N} * C * H, 1, [&](std::size_t i) { return in_attrs[i]->GetWidth(); });
    default:
      return false;
  }
}

}  // namespace

bool VekConcat::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(!in_attrs_.empty(), "input buffer attrs not provided");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffers array is NULL");
  for (unsigned i = 0; i < in_attrs_.size(); ++i) {
    VEK_REQUIRE(in_buffers[i] != nullptr, "Input buffer %u pointer is NULL", i);
  }
  VEK_REQUIRE(out_buffers != nullptr, "Output buffers array is NULL");

  const auto run = [&](auto width) {
    using T = decltype(width);
    return Concatenate([&](std::size_t i) { return static_cast<const T*>(in_buffers[i]); },
                       static_cast<T*>(out_buffers[0]), in_attrs_, static_cast<unsigned>(axis_));
  };
  const bool done = DispatchElement(in_attrs_[0]->GetMemFormat(), run, [] {
    VEK_LOG_ERROR("Unsupported data format");
    return false;
  });
  VEK_REQUIRE(done, "can't calculate Concat");
  return true;
}

template <typename T>
bool VekConcat::concat(std::vector<T*> in, T* out, const BufAttrsList& in_attrs, unsigned axis) {
  return Concatenate([&](std::size_t i) { return in[i]; }, out, in_attrs, axis);
}

template <typename T>
bool VekConcat::concat_5d(std::vector<T*> in, T* out, const BufAttrsList& in_attrs, unsigned axis) {
  return Concatenate5d([&](std::size_t i) { return in[i]; }, out, in_attrs, axis);
}

template bool VekConcat::concat<float>(std::vector<float*>, float*, const BufAttrsList&, unsigned);
template bool VekConcat::concat<unsigned char>(std::vector<unsigned char*>, unsigned char*,
                                               const BufAttrsList&, unsigned);
template bool VekConcat::concat<unsigned short>(std::vector<unsigned short*>, unsigned short*,
                                                const BufAttrsList&, unsigned);
template bool VekConcat::concat_5d<float>(std::vector<float*>, float*, const BufAttrsList&, unsigned);
template bool VekConcat::concat_5d<unsigned char>(std::vector<unsigned char*>, unsigned char*,
                                                  const BufAttrsList&, unsigned);
template bool VekConcat::concat_5d<unsigned short>(std::vector<unsigned short*>, unsigned short*,
                                                   const BufAttrsList&, unsigned);

}  // namespace zeb_custom_ops
