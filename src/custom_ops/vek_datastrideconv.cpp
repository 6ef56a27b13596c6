// Layer type "DATA_STRIDE_CONV" and the converter between memory layouts.
#include "custom_ops/vek_datastrideconv.h"

#include <cmath>

#include "contract/checks.h"
#include "contract/fixed_point.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/runs.h"
#include "kernels/layout_conversion.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::AsUnsigned;
using detail::Fits;
using detail::Saturating;

bool VekDataStrideConv::Configure(const AttrMap&, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(inputs.size() == 1, "wrong number of inputs, expected: 1, got: %zu", inputs.size());
  VEK_REQUIRE(outputs.size() == 1, "wrong number of outputs, expected: 1, got: %zu", outputs.size());
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  const zeb::PuxDnnBufAttrsMemFormat in_format = in.GetMemFormat();
  const zeb::PuxDnnBufAttrsMemFormat out_format = out.GetMemFormat();
  VEK_REQUIRE(in_format.bitdepth == out_format.bitdepth && in_format.q8a == out_format.q8a &&
                  in_format.float_ == out_format.float_,
              "format conversion is not supported by custom layer.");

  VEK_REQUIRE(
      in.GetNumDims() == 4 || !in.IsInterleaved(),
      "custom layer does not support input tensor other than 4D (when data is interleaved), received: %dD.",
      AsInt(in.GetNumDims()));
  VEK_REQUIRE(
      out.GetNumDims() == 4 || !out.IsInterleaved(),
      "custom layer does not support output tensor other than 4D (when data is interleaved), received: %dD.",
      AsInt(out.GetNumDims()));

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
  configured_ = true;
  return true;
}

bool VekDataStrideConv::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "datastrideconv custom layer not configured.");
  VEK_REQUIRE(in_buffers != nullptr, "in_buffers is NULL.");
  VEK_REQUIRE(out_buffers != nullptr, "out_buffers is NULL.");
  return convertStride(static_cast<const signed char*>(in_buffers[0]), in_attrs_->GetSize(), *in_attrs_,
                       static_cast<signed char*>(out_buffers[0]), out_attrs_->GetSize(), *out_attrs_);
}

namespace {

void Zero(signed char* dst, std::size_t bytes) { detail::FillRun<signed char>(dst, 0, bytes); }

// Where a kernel divides or steps by plane packs of which one is below 1.
bool RefusePacks(int src_pack, int dst_pack) {
  VEK_LOG_ERROR("plane packs are %d and %d, but should be at least 1", src_pack, dst_pack);
  return false;
}

// --- Equal interleaving: rows of bytes.

// Padding behind `count` blocks of `block_bytes` that fill `bytes`; none where the blocks do not fit.
unsigned PadBytes(unsigned bytes, unsigned count, unsigned block_bytes) {
  const std::uint64_t filled = std::uint64_t{count} * block_bytes;
  return filled < bytes ? AsUnsigned(bytes - filled) : 0;
}

// Padding behind each dimension, with the length of a run as the last entry.
std::vector<unsigned> Pads(const std::vector<unsigned>& dims, const std::vector<unsigned>& strides,
                           std::size_t count) {
  std::vector<unsigned> pads(count);
  for (std::size_t i = 0; i + 1 < count; ++i) pads[i] = PadBytes(strides[i], dims[i], strides[i + 1]);
  pads[count - 1] = strides[count - 1];
  return pads;
}

// The offset behind all dimensions, the largest that `copy_dimension` comes to.
Saturating EndOffset(const std::vector<unsigned>& dims, const std::vector<unsigned>& pads) {
  Saturating bytes = pads.back();
  for (std::size_t dim = dims.size() - 1; dim-- > 0;) bytes = (bytes + pads[dim]) * dims[dim];
  return bytes;
}

// Planes of rows: four-dimensional targets.
bool CopyPlanes(const signed char* src, const zeb::PuxDnnBufAttrs& src_attrs,
                const std::vector<unsigned>& src_dims, signed char* dst, unsigned dst_bytes,
                const zeb::PuxDnnBufAttrs& dst_attrs, const std::vector<unsigned>& dst_dims, int plane_pack) {
  const unsigned src_line = src_attrs.GetLineStride();
  const unsigned dst_line = dst_attrs.GetLineStride();
  // Deliberate: rows that get wider are counted by the target's dims, rows that get narrower by the source's, of
  // which the first three are N, C and H whatever the rank.
  const std::vector<unsigned>& dims = src_line <= dst_line ? dst_dims : src_dims;
  const unsigned N = dims[0];
  const unsigned C = dims[1];
  const unsigned H = dims[2];
  const bool has_rows = N != 0 && C != 0 && H != 0;
  if (has_rows && plane_pack < 1) return RefusePacks(plane_pack, plane_pack);
  if (!has_rows || dst_line == 0) {
    Zero(dst, dst_bytes);
    return true;
  }
  const unsigned pack = AsUnsigned(plane_pack);
  const std::uint64_t planes = N * ((std::uint64_t{C} + pack - 1) / pack);
  // Deliberate: padding is what the plane stride leaves behind the lines, so that a plane stride that is too
  // small for its lines counts as none, and the whole line, its padding included, is the row's data.
  const unsigned src_pad = PadBytes(src_attrs.GetPlaneStride(), src_dims[2], src_line);
  const unsigned dst_pad = PadBytes(dst_attrs.GetPlaneStride(), dst_dims[2], dst_line);
  kernels::CopyPaddedPlanes(dst, dst_bytes, src, {planes, H, src_line, dst_line, src_pad, dst_pad});
  return true;
}

// Tensors of any rank.
bool CopyDimensions(const signed char* src, const std::vector<unsigned>& src_dims,
                    const std::vector<unsigned>& src_strides, signed char* dst, unsigned dst_bytes,
                    const std::vector<unsigned>& dst_dims, const std::vector<unsigned>& dst_strides) {
  // Deliberate: a dimension of no extent ends the copy, so that only those around it need their lists.
  std::size_t repeated = 0;
  while (repeated + 1 < dst_dims.size() && dst_dims[repeated] != 0) ++repeated;
  const bool copies_nothing = repeated + 1 < dst_dims.size();
  const std::size_t rank = src_strides.size();
  const bool has_lists =
      rank >= 1 && dst_strides.size() >= rank && src_dims.size() + 1 >= rank && dst_dims.size() + 1 >= rank;
  VEK_REQUIRE(!dst_dims.empty() && repeated <= rank && (copies_nothing || has_lists),
              "can't convert %zu dims with %zu strides to %zu dims with %zu strides", src_dims.size(), rank,
              dst_dims.size(), dst_strides.size());
  if (copies_nothing) {
    Zero(dst, dst_bytes);
    return true;
  }

  const std::vector<unsigned> src_pads = Pads(src_dims, src_strides, rank);
  const std::vector<unsigned> dst_pads = Pads(dst_dims, dst_strides, rank);
  const kernels::PaddedRuns runs{dst_dims, src_pads, dst_pads};
  if (Fits(EndOffset(dst_dims, src_pads)) && Fits(EndOffset(dst_dims, dst_pads))) {
    kernels::CopyPaddedRuns(dst, dst_bytes, src, runs);
  } else {
    unsigned src_offset = 0;
    unsigned dst_offset = 0;
    Zero(dst, dst_bytes);
    kernels::PlainCopyPaddedRuns(dst, dst_offset, src, src_offset, runs, 0);
  }
  return true;
}

// --- A change of interleaving.

kernels::Extents FirstFour(const std::vector<unsigned>& dims) { return {dims[0], dims[1], dims[2], dims[3]}; }

// Of the dims only the channels are looked at, and without a plane stride the rows.
kernels::TensorLayout LayoutOf(const zeb::PuxDnnBufAttrs& attrs, const std::vector<unsigned>& dims) {
  const zeb::PuxDnnBufAttrsMemFormat format = attrs.GetMemFormat();
  const unsigned pack = AsUnsigned(format.plane_pack);
  const auto elements = [&](unsigned bytes) {
    return format.bitdepth < 8 ? 0 : bytes / (AsUnsigned(format.bitdepth) / 8);
  };
  const unsigned line = elements(attrs.GetLineStride());
  const unsigned plane_stride = attrs.GetPlaneStride();
  const unsigned plane = plane_stride == 0 ? line * dims[2] : elements(plane_stride);
  // The planes of a batch item, counted in single precision: more than 2^24 channels may round.
  const float planes = std::ceil(static_cast<float>(dims[1]) / static_cast<float>(pack));
  return {pack, line, plane, detail::TruncateToUint32(planes) * plane};
}

// Rows, planes and batch items of the tensor follow each other without overlap, and no position wraps.
bool IsRegular(const kernels::TensorLayout& layout, const kernels::Extents& e) {
  const std::uint64_t planes = (std::uint64_t{e.C} + layout.pack - 1) / layout.pack;
  return std::uint64_t{e.W} * layout.pack <= layout.line &&
         std::uint64_t{e.H} * layout.line <= layout.plane && Fits(Saturating(planes) * layout.plane) &&
         planes * layout.plane <= layout.batch && Fits(Saturating(e.N) * layout.batch);
}

}  // namespace

bool convertStride(const signed char* src, unsigned int src_bytes, const zeb::PuxDnnBufAttrs& src_attrs,
                   signed char* dst, unsigned int dst_bytes, const zeb::PuxDnnBufAttrs& dst_attrs) {
  const zeb::PuxDnnBufAttrsMemFormat src_format = src_attrs.GetMemFormat();
  const zeb::PuxDnnBufAttrsMemFormat dst_format = dst_attrs.GetMemFormat();
  VEK_REQUIRE(src_format.float_ == dst_format.float_ && src_format.bitdepth == dst_format.bitdepth,
              " input and output tensor formats differ.");

  if (src_format.plane_pack != dst_format.plane_pack) {
    VEK_REQUIRE(src_format.float_ || src_format.bitdepth == 8 || src_format.bitdepth == 16,
                " unsupported input memory format. Fixed point bitdepth:  %d", src_format.bitdepth);
    // Deliberate: of the target's dims no more has to be there than the formula looks at.
    const unsigned dst_dims_needed = dst_attrs.GetPlaneStride() == 0 ? 3 : 2;
    VEK_REQUIRE(src_attrs.GetNumDims() >= 4 && dst_attrs.GetNumDims() >= dst_dims_needed,
                "can't change the interleaving of %dD to %dD data, expected at least 4D and %dD",
                AsInt(src_attrs.GetNumDims()), AsInt(dst_attrs.GetNumDims()), AsInt(dst_dims_needed));
    if ((src_format.plane_pack < 1 || dst_format.plane_pack < 1) && !FirstFour(src_attrs.GetDims()).empty()) {
      return RefusePacks(src_format.plane_pack, dst_format.plane_pack);
    }
    if (src_format.float_) {
      copy<float>(src, src_bytes, src_attrs, dst, dst_bytes, dst_attrs);
    } else if (src_format.bitdepth == 8) {
      copy<signed char>(src, src_bytes, src_attrs, dst, dst_bytes, dst_attrs);
    } else {
      copy<short>(src, src_bytes, src_attrs, dst, dst_bytes, dst_attrs);
    }
    return true;
  }

  if (src_attrs.GetLineStride() == dst_attrs.GetLineStride() &&
      src_attrs.GetPlaneStride() == dst_attrs.GetPlaneStride()) {
    // The only copy that may run in place.
    if (src != dst) detail::CopyRun(dst, src, src_bytes);
    return true;
  }
  const std::vector<unsigned> src_dims = src_attrs.GetDims();
  const std::vector<unsigned> dst_dims = dst_attrs.GetDims();
  if (src_dims.size() >= 3 && dst_dims.size() == 4) {
    return CopyPlanes(src, src_attrs, src_dims, dst, dst_bytes, dst_attrs, dst_dims, dst_format.plane_pack);
  }
  return CopyDimensions(src, src_dims, src_attrs.GetStrides(), dst, dst_bytes, dst_dims,
                        dst_attrs.GetStrides());
}

void copy_dimension(unsigned int dim, std::vector<unsigned int> dims, const signed char* src,
                    std::vector<unsigned int> in_pads, unsigned int& in_off, signed char* dst,
                    std::vector<unsigned int> out_pads, unsigned int& out_off) {
  kernels::PlainCopyPaddedRuns(dst, out_off, src, in_off, {dims, in_pads, out_pads}, dim);
}

template <typename T>
void copy(const signed char* src, unsigned int /*src_bytes*/, const zeb::PuxDnnBufAttrs& src_attrs,
          signed char* dst, unsigned int dst_bytes, const zeb::PuxDnnBufAttrs& dst_attrs) {
  const std::vector<unsigned> src_dims = src_attrs.GetDims();
  const kernels::TensorLayout s = LayoutOf(src_attrs, src_dims);
  const kernels::TensorLayout d = LayoutOf(dst_attrs, dst_attrs.GetDims());
  const kernels::Extents e = FirstFour(src_dims);
  const auto* from = reinterpret_cast<const T*>(src);
  auto* to = reinterpret_cast<T*>(dst);
  if (!e.empty() && IsRegular(s, e) && IsRegular(d, e)) {
    kernels::ChangeInterleaving(to, dst_bytes, d, from, s, e);
  } else {
    kernels::PlainChangeInterleaving(to, dst_bytes, d, from, s, e);
  }
}

template void copy<short>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&, signed char*,
                          unsigned int, const zeb::PuxDnnBufAttrs&);
template void copy<signed char>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&, signed char*,
                                unsigned int, const zeb::PuxDnnBufAttrs&);
template void copy<float>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&, signed char*,
                          unsigned int, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
