// Layer type "BROADCAST".
#include "custom_ops/vek_broadcast.h"

#include <algorithm>
#include <vector>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/strided_copy.h"
#include "custom_ops/vek_common.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsUnsigned;
using detail::Fits;
using detail::LastPosition;

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

namespace {

using detail::Loop;

// dst[x] = src[x mod period]; a period of 0 repeats nothing.
template <typename T>
void RepeatRow(T* dst, const T* src, unsigned period, unsigned count) {
  if (period == 0) period = count;
  for (unsigned x = 0; x < count; x += std::min(period, count - x)) {
    detail::CopyRun(dst + x, src, std::min(period, count - x));
  }
}

// The same for every row of planes of rows, which must not overlap.
template <typename T>
void RepeatRows(T* dst, const T* src, const Loop& planes, const Loop& rows, unsigned period, unsigned count) {
  if (period == 0 || period >= count) return detail::StridedCopy(dst, src, {planes, rows, {count, 1, 1}});
  detail::StridedCopy(dst, src, {planes, rows, {count / period, 0, period}, {period, 1, 1}});
  const unsigned whole = count / period * period;
  detail::StridedCopy(dst + whole, src, {planes, rows, {count - whole, 1, 1}});
}

Loop Along(std::size_t extent, std::uint64_t src_step, std::uint64_t dst_step) {
  return {extent, static_cast<std::ptrdiff_t>(src_step), static_cast<std::ptrdiff_t>(dst_step)};
}

}  // namespace

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

  // From row to row and from channel to channel of the input; with the channel flag there is one channel. Positions
  // wrap in 32 bits.
  const unsigned period = bcast_w != 0 ? W_in : W;
  const unsigned in_row = bcast_h != 0 ? 0 : in_line;
  const std::uint64_t in_plane = bcast_h != 0 ? in_line : std::uint64_t{H_in} * in_line;
  const std::uint64_t out_plane = std::uint64_t{H} * out_line;
  const std::uint64_t dense_plane = std::uint64_t{H} * W;
  const unsigned planes = bcast_c != 0 ? 1 : C;
  const bool rows_apart = out_line >= W || (H <= 1 && planes <= 1);
  const bool walks = rows_apart && Fits(LastPosition({{planes, in_plane}, {H, in_row}, {W, 1}})) &&
                     Fits(LastPosition({{planes, out_plane}, {H + 1ULL, out_line}, {W, 1}})) &&
                     Fits(LastPosition({{C, dense_plane}, {dense_plane, 1}}));

  if (bcast_c != 0 && bcast_h != 0 && walks && out_line == W && C != 0 && H != 0) {
    // All rows of all planes are the same, and they touch.
    RepeatRows(out_data, in_data, {1, 0, 0}, Along(std::uint64_t{C} * H, 0, W), period, W);
    return true;
  }
  const T* first_plane = out_data;
  unsigned first_copy = 1;
  if (bcast_c != 0 && bcast_h == 0 && bcast_w == 0) {
    // Deliberate: a dense block of the input, also where its rows are padded.
    first_plane = in_data;
    first_copy = 0;
  } else if (bcast_c != 0 && bcast_h != 0 && bcast_w != 0) {
    // Deliberate: the second row follows the first one's elements, not its line stride.
    RepeatRows(out_data, in_data, {1, 0, 0}, {1, 0, 0}, period, W);
    if (walks && H > 1) {
      detail::StridedCopy(out_data + W, out_data, {Along(H - 1, 0, out_line), {W, 1, 1}});
    } else {
      T* row = out_data + W;
      for (unsigned h = 1; h < H; ++h, row += out_line) detail::CopyRun(row, out_data, W);
    }
  } else if (walks) {
    RepeatRows(out_data, in_data, Along(planes, in_plane, out_plane), Along(H, in_row, out_line), period, W);
  } else {
    for (unsigned c = 0; c < planes; ++c) {
      for (unsigned h = 0; h < H; ++h) {
        RepeatRow(out_data + static_cast<unsigned>(c * out_plane + std::uint64_t{h} * out_line),
                  in_data + static_cast<unsigned>(c * in_plane + std::uint64_t{h} * in_row), period, W);
      }
    }
  }
  if (bcast_c == 0) return true;

  // Deliberate: planes are repeated as dense blocks, also where the output's rows are padded.
  if (walks && first_copy < C) {
    detail::StridedCopy(out_data + first_copy * dense_plane, first_plane,
                        {Along(C - first_copy, 0, dense_plane), Along(dense_plane, 1, 1)});
  } else {
    const auto plane = static_cast<unsigned>(dense_plane);
    for (unsigned c = first_copy; c < C; ++c) detail::CopyRun(out_data + c * plane, first_plane, plane);
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
