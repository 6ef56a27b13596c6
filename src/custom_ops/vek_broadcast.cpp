// Layer type "BROADCAST".
#include "custom_ops/vek_broadcast.h"

#include <vector>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "custom_ops/vek_common.h"
#include "kernels/broadcast.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsUnsigned;
using detail::Fits;
using detail::LastPosition;
using detail::Saturating;

const std::string VekBroadcast::k_expected_attr_ = "size";

bool VekBroadcast::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(inputs.size() == 1 && outputs.size() == 1,
              "expected one input and one output, got: %u inputs, %u outputs", AsUnsigned(inputs.size()),
              AsUnsigned(outputs.size()));
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  // Deliberate: one 4-D side is enough.
  VEK_REQUIRE(in.GetNumDims() == 4 || out.GetNumDims() == 4,
              "non-4D IO not supported. Got %uD input, %uD output", in.GetNumDims(), out.GetNumDims());

  VEK_REQUIRE(attrs.size() == 1, "expected 1 attribute, but got %zu", attrs.size());
  const std::string* size = detail::Find(attrs, k_expected_attr_);
  VEK_REQUIRE(size != nullptr, "expected attribute: %s, got: %s", k_expected_attr_.c_str(),
              attrs.begin()->first.c_str());
  std::vector<std::string> entries;
  std::string error;
  if (!sw_ops_parser::ParseTensor(*size, &entries, &error)) {
    VEK_LOG_ERROR("broadcast size attribute parse error");
    VEK_LOG_ERROR("parser msg: %s", error.c_str());
    return false;
  }
  VEK_REQUIRE(entries.size() == 4, "broadcast size attribute of incorrect size. Expected 4, but got %zu",
              entries.size());

  const auto compatible = [](unsigned in_extent, unsigned out_extent) {
    return in_extent == out_extent || in_extent == 1;
  };
  VEK_REQUIRE(compatible(in.GetBatch(), out.GetBatch()),
              "input tensor incompatible batch (is %d, but should be %d or 1)", AsInt(in.GetBatch()),
              AsInt(out.GetBatch()));
  VEK_REQUIRE(compatible(in.GetChannels(), out.GetChannels()),
              "input tensor incompatible channel (is %d, but should be %d or 1)", AsInt(in.GetChannels()),
              AsInt(out.GetChannels()));
  VEK_REQUIRE(compatible(in.GetHeight(), out.GetHeight()),
              "input tensor incompatible height (is %d, but should be %d or 1)", AsInt(in.GetHeight()),
              AsInt(out.GetHeight()));
  VEK_REQUIRE(compatible(in.GetWidth(), out.GetWidth()),
              "input tensor incompatible width (is %d, but should be %d or 1)", AsInt(in.GetWidth()),
              AsInt(out.GetWidth()));

  // All four are converted before a flag changes: a text that is no number throws.
  const int sizes[] = {std::stoi(entries[0]), std::stoi(entries[1]), std::stoi(entries[2]),
                       std::stoi(entries[3])};
  bcast_n_ = sizes[0] > 0;
  bcast_c_ = sizes[1] > 0;
  bcast_h_ = sizes[2] > 0;
  bcast_w_ = sizes[3] > 0;
  VEK_REQUIRE(!bcast_n_, "Batch dim not supported by broadcast op");

  // Deliberate: elements are compared with bytes, whatever the element's width.
  const std::uint64_t in_count = detail::Elements64(in.GetDims());
  VEK_REQUIRE(in_count <= in.GetSize(), "Input buf size should be at least %u, but is %u",
              AsUnsigned(in_count), in.GetSize());
  const std::uint64_t out_count = detail::Elements64(out.GetDims());
  VEK_REQUIRE(out_count <= out.GetSize(), "Output buf size should be at least %u, but is %u",
              AsUnsigned(out_count), out.GetSize());

  // Rows may be padded, planes may not.
  const auto valid_strides = [](const zeb::PuxDnnBufAttrs& attrs_of, std::string& message) {
    const unsigned plane_stride = attrs_of.GetPlaneStride();
    const std::vector<unsigned> dims = attrs_of.GetDims();
    const unsigned H = dims.size() > 2 ? dims[2] : attrs_of.GetHeight();
    const unsigned packed = attrs_of.GetLineStride() * H;
    if (plane_stride == 0 || plane_stride == packed) return true;
    message = "Got " + std::to_string(plane_stride) + " expected " + std::to_string(packed);
    return false;
  };
  std::string message;
  VEK_REQUIRE(valid_strides(in, message), "data with invalid s_stride detected on input of Broadcast: %s",
              message.c_str());
  VEK_REQUIRE(valid_strides(out, message), "data with invalid s_stride detected on output of Broadcast: %s",
              message.c_str());
  VEK_REQUIRE(in.GetMemFormat().plane_pack == 1, "Interleaved data in input buffer");
  VEK_REQUIRE(out.GetMemFormat().plane_pack == 1, "Interleaved data in output buffer");

  in_attrs_ = in.Clone();
  out_attrs_ = out.Clone();
  configured_ = true;
  return true;
}

bool VekBroadcast::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(in_buffers != nullptr && in_buffers[0] != nullptr, "Input buffer is NULL");
  VEK_REQUIRE(out_buffers != nullptr && out_buffers[0] != nullptr, "Output buffer is NULL");
  VEK_REQUIRE(in_attrs_ != nullptr, "input buffer attrs are NULL");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");

  return detail::DispatchWidth(
      in_attrs_->GetMemFormat().bitdepth,
      [&](auto width) {
        using T = decltype(width);
        return Broadcast_v1(*in_attrs_, *out_attrs_, static_cast<T*>(in_buffers[0]),
                            static_cast<T*>(out_buffers[0]), bcast_c_, bcast_h_, bcast_w_);
      },
      [] {
        VEK_LOG_ERROR("Broadcast_v1() - unhandled bitdepth!");
        return false;
      });
}

template <typename T>
bool Broadcast_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, T* in_data, T* out_data,
                  unsigned bcast_c, unsigned bcast_h, unsigned bcast_w) {
  VEK_REQUIRE(in_data != nullptr && out_data != nullptr, "Broadcast_v1 input or output buffer is null.");

  const unsigned C = out.GetChannels();
  const unsigned H = out.GetHeight();
  const unsigned W = out.GetWidth();
  const unsigned H_in = in.GetHeight();
  const unsigned W_in = in.GetWidth();
  const unsigned in_line = in.GetLineStride() / static_cast<unsigned>(sizeof(T));
  const unsigned out_line = out.GetLineStride() / static_cast<unsigned>(sizeof(T));
  if (bcast_c == 0 && bcast_h == 0 && bcast_w == 0) return true;
  const kernels::BroadcastShape shape = {
      C, H, W, H_in, W_in, in_line, out_line, bcast_c != 0, bcast_h != 0, bcast_w != 0};

  // From channel to channel and from row to row; with the channel flag the first plane alone is put together so.
  const unsigned planes = bcast_c != 0 ? 1 : C;
  const Saturating in_plane = bcast_h != 0 ? Saturating(in_line) : Saturating(H_in) * in_line;
  const unsigned in_row = bcast_h != 0 ? 0 : in_line;
  const Saturating out_plane = Saturating(H) * out_line;
  const Saturating dense_plane = Saturating(H) * W;

  // Rows of the output do not overlap, and no position wraps.
  if ((out_line >= W || (H <= 1 && planes <= 1)) &&
      Fits(LastPosition({{planes, in_plane}, {H, in_row}, {W, 1}})) &&
      Fits(LastPosition({{planes, out_plane}, {Saturating(H) + 1, out_line}, {W, 1}})) &&
      Fits(LastPosition({{C, dense_plane}, {dense_plane, 1}}))) {
    kernels::Broadcast(out_data, in_data, shape);
  } else {
    kernels::PlainBroadcast(out_data, in_data, shape);
  }
  return true;
}

template bool Broadcast_v1<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, int*, int*, unsigned,
                                unsigned, unsigned);
template bool Broadcast_v1<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, short*, short*,
                                  unsigned, unsigned, unsigned);
template bool Broadcast_v1<char>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, char*, char*,
                                 unsigned, unsigned, unsigned);

}  // namespace zeb_custom_ops
