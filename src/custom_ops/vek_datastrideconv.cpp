// Layer type "DATA_STRIDE_CONV" and the converter between memory layouts.
#include "custom_ops/vek_datastrideconv.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/strided_copy.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
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

// --- Equal interleaving: rows of bytes.

// Padding behind `count` blocks of `block_bytes` that fill `bytes`; none where the blocks do not fit.
unsigned PadBytes(unsigned bytes, unsigned count, unsigned block_bytes) {
  const std::uint64_t filled = std::uint64_t{count} * block_bytes;
  return filled < bytes ? static_cast<unsigned>(bytes - filled) : 0;
}

void Zero(signed char* dst, std::size_t bytes) {
  if (bytes != 0) std::memset(dst, 0, bytes);
}

// Rows that follow each other on both sides, each cut or filled up with zeros.
void CopyRows(signed char* dst, std::size_t dst_row, const signed char* src, std::size_t src_row,
              std::size_t count) {
  auto* to = reinterpret_cast<std::byte*>(dst);
  const auto* from = reinterpret_cast<const std::byte*>(src);
  const std::size_t copied = std::min(src_row, dst_row);
  const std::size_t zeros = dst_row - copied;
  const auto src_step = static_cast<std::ptrdiff_t>(src_row);
  const auto dst_step = static_cast<std::ptrdiff_t>(dst_row);

  // Elements and zeros of a few rows in turn, while the rows are in the nearest cache.
  constexpr std::byte kZero{0};
  constexpr std::size_t kBlockBytes = 8192;
  const std::size_t block =
      zeros == 0 ? count : kBlockBytes / std::clamp<std::size_t>(dst_row, 1, kBlockBytes);
  while (count > 0) {
    const std::size_t rows = std::min(block, count);
    detail::CopyRows(to, from, {rows, src_step, dst_step}, copied);
    detail::RepeatRows<std::uint8_t>(to + copied, &kZero, {rows, 0, dst_step}, zeros);
    from += rows * src_row;
    to += rows * dst_row;
    count -= rows;
  }
}

// A copy of rows on its way through both buffers. It goes through the target from front to back, so that each
// byte is written once: the result is that of a target filled with zeros first.
class RowCopy {
 public:
  RowCopy(const signed char* src, signed char* dst, std::size_t dst_bytes)
      : src_(src), dst_(dst), zeros_left_(dst_bytes) {}

  void Rows(std::size_t count, std::size_t src_row, std::size_t dst_row) {
    if (src_row == dst_row) {
      detail::CopyRun(dst_, src_, count * dst_row);
      src_ += count * src_row;
      Advance(count * dst_row);
      return;
    }
    CopyRows(dst_, dst_row, src_, src_row, count);
    src_ += count * src_row;
    Advance(count * dst_row);
  }

  // Steps over padding. What lies beyond the bytes to fill with zeros is left alone.
  void Pad(std::size_t src_pad, std::size_t dst_pad) {
    src_ += src_pad;
    Zero(dst_, std::min(dst_pad, zeros_left_));
    Advance(dst_pad);
  }

  // Behind the last row.
  void Finish() { Pad(0, zeros_left_); }

 private:
  void Advance(std::size_t dst_bytes) {
    dst_ += dst_bytes;
    zeros_left_ -= std::min(dst_bytes, zeros_left_);
  }

  const signed char* src_;
  signed char* dst_;
  std::size_t zeros_left_;  // of the bytes to fill with zeros, those not reached yet
};

// Four-dimensional targets: planes of H rows.
void CopyPlanes(const signed char* src, const zeb::PuxDnnBufAttrs& src_attrs,
                const std::vector<unsigned>& src_dims, signed char* dst, unsigned dst_bytes,
                const zeb::PuxDnnBufAttrs& dst_attrs, const std::vector<unsigned>& dst_dims,
                unsigned plane_pack) {
  const unsigned src_line = src_attrs.GetLineStride();
  const unsigned dst_line = dst_attrs.GetLineStride();
  // Deliberate: padding is what the plane stride leaves behind the lines, so that a plane stride that is too
  // small for its lines counts as none, and the whole line, its padding included, is the row's data.
  const unsigned src_pad = PadBytes(src_attrs.GetPlaneStride(), src_dims[2], src_line);
  const unsigned dst_pad = PadBytes(dst_attrs.GetPlaneStride(), dst_dims[2], dst_line);

  // Deliberate: the first three entries are N, C and H whatever the rank; the side with the shorter lines has
  // them.
  const std::vector<unsigned>& dims = src_line <= dst_line ? dst_dims : src_dims;
  const unsigned N = dims[0];
  const unsigned C = dims[1];
  const unsigned H = dims[2];
  const bool empty = H == 0 || dst_line == 0;
  const std::uint64_t planes = empty ? 0 : N * ((std::uint64_t{C} + plane_pack - 1) / plane_pack);

  RowCopy copy(src, dst, dst_bytes);
  if (src_pad == 0 && dst_pad == 0) {
    copy.Rows(planes * H, src_line, dst_line);
  } else {
    for (std::uint64_t plane = 0; plane < planes; ++plane) {
      copy.Rows(H, src_line, dst_line);
      copy.Pad(src_pad, dst_pad);
    }
  }
  copy.Finish();
}

// Bytes that `copy_dimension` moves on over all dims, 2^32 for any larger number.
std::uint64_t WalkedBytes(const std::vector<unsigned>& dims, const std::vector<unsigned>& pads) {
  constexpr std::uint64_t kTooMany = std::uint64_t{1} << 32;
  std::uint64_t bytes = pads.back();
  for (std::size_t dim = dims.size() - 1; dim-- > 0;) {
    bytes += pads[dim];
    bytes = dims[dim] != 0 && bytes > kTooMany / dims[dim] ? kTooMany : bytes * dims[dim];
  }
  return bytes;
}

// `copy_dimension` from front to back, without wrap.
void CopyDimension(std::size_t dim, const std::vector<unsigned>& dims, const std::vector<unsigned>& in_pads,
                   const std::vector<unsigned>& out_pads, RowCopy& copy) {
  if (dim + 1 == dims.size()) return copy.Rows(1, in_pads.back(), out_pads.back());
  if (dim + 2 == dims.size() && in_pads[dim] == 0 && out_pads[dim] == 0) {
    return copy.Rows(dims[dim], in_pads.back(), out_pads.back());
  }
  for (unsigned i = 0; i < dims[dim]; ++i) {
    CopyDimension(dim + 1, dims, in_pads, out_pads, copy);
    copy.Pad(in_pads[dim], out_pads[dim]);
  }
}

// Padding behind each dimension, with the length of a run as the last entry.
std::vector<unsigned> Pads(const std::vector<unsigned>& dims, const std::vector<unsigned>& strides,
                           std::size_t count) {
  std::vector<unsigned> pads(count);
  for (std::size_t i = 0; i + 1 < count; ++i) pads[i] = PadBytes(strides[i], dims[i], strides[i + 1]);
  pads[count - 1] = strides[count - 1];
  return pads;
}

}  // namespace

bool convertStride(const signed char* src, unsigned int src_bytes, const zeb::PuxDnnBufAttrs& src_attrs,
                   signed char* dst, unsigned int dst_bytes, const zeb::PuxDnnBufAttrs& dst_attrs) {
  const zeb::PuxDnnBufAttrsMemFormat src_format = src_attrs.GetMemFormat();
  const zeb::PuxDnnBufAttrsMemFormat dst_format = dst_attrs.GetMemFormat();
  VEK_REQUIRE(src_format.float_ == dst_format.float_ && src_format.bitdepth == dst_format.bitdepth,
              " input and output tensor formats differ.");
  VEK_REQUIRE(src_format.plane_pack >= 1 && dst_format.plane_pack >= 1,
              "plane packs are %d and %d, but should be at least 1", src_format.plane_pack,
              dst_format.plane_pack);

  if (src_format.plane_pack == dst_format.plane_pack) {
    if (src_attrs.GetLineStride() == dst_attrs.GetLineStride() &&
        src_attrs.GetPlaneStride() == dst_attrs.GetPlaneStride()) {
      // The only copy that may run in place.
      if (src != dst) detail::CopyRun(dst, src, src_bytes);
      return true;
    }
    const std::vector<unsigned> src_dims = src_attrs.GetDims();
    const std::vector<unsigned> dst_dims = dst_attrs.GetDims();
    if (src_dims.size() >= 3 && dst_dims.size() == 4) {
      CopyPlanes(src, src_attrs, src_dims, dst, dst_bytes, dst_attrs, dst_dims,
                 static_cast<unsigned>(dst_format.plane_pack));
      return true;
    }

    const std::vector<unsigned> src_strides = src_attrs.GetStrides();
    const std::vector<unsigned> dst_strides = dst_attrs.GetStrides();
    const std::size_t rank = src_strides.size();
    VEK_REQUIRE(rank >= 1 && dst_strides.size() >= rank && src_dims.size() + 1 >= rank &&
                    dst_dims.size() + 1 >= rank && !dst_dims.empty() && dst_dims.size() <= rank + 1,
                "can't convert %zu dims with %zu strides to %zu dims with %zu strides", src_dims.size(), rank,
                dst_dims.size(), dst_strides.size());
    std::vector<unsigned> in_pads = Pads(src_dims, src_strides, rank);
    std::vector<unsigned> out_pads = Pads(dst_dims, dst_strides, rank);
    const std::uint64_t in_walked = WalkedBytes(dst_dims, in_pads);
    const std::uint64_t out_walked = WalkedBytes(dst_dims, out_pads);
    if (in_walked >> 32 == 0 && out_walked >> 32 == 0) {
      RowCopy rows(src, dst, dst_bytes);
      if (out_walked != 0) CopyDimension(0, dst_dims, in_pads, out_pads, rows);
      rows.Finish();
    } else {
      unsigned in_off = 0;
      unsigned out_off = 0;
      Zero(dst, dst_bytes);
      copy_dimension(0, dst_dims, src, std::move(in_pads), in_off, dst, std::move(out_pads), out_off);
    }
    return true;
  }

  VEK_REQUIRE(src_format.float_ || src_format.bitdepth == 8 || src_format.bitdepth == 16,
              " unsupported input memory format. Fixed point bitdepth:  %d", src_format.bitdepth);
  VEK_REQUIRE(src_attrs.GetNumDims() >= 4 && dst_attrs.GetNumDims() >= 4,
              "can't change the interleaving of %dD to %dD data, both should be 4D",
              AsInt(src_attrs.GetNumDims()), AsInt(dst_attrs.GetNumDims()));
  if (src_format.float_) {
    copy<float>(src, src_bytes, src_attrs, dst, dst_bytes, dst_attrs);
  } else if (src_format.bitdepth == 8) {
    copy<signed char>(src, src_bytes, src_attrs, dst, dst_bytes, dst_attrs);
  } else {
    copy<short>(src, src_bytes, src_attrs, dst, dst_bytes, dst_attrs);
  }
  return true;
}

namespace {

void CopyDimensionWrapping(std::size_t dim, const std::vector<unsigned>& dims, const signed char* src,
                           const std::vector<unsigned>& in_pads, unsigned& in_off, signed char* dst,
                           const std::vector<unsigned>& out_pads, unsigned& out_off) {
  if (dim + 1 >= dims.size()) {
    CopyRows(dst + out_off, out_pads.back(), src + in_off, in_pads.back(), 1);
    in_off += in_pads.back();
    out_off += out_pads.back();
    return;
  }
  for (unsigned i = 0; i < dims[dim]; ++i) {
    CopyDimensionWrapping(dim + 1, dims, src, in_pads, in_off, dst, out_pads, out_off);
    in_off += in_pads[dim];
    out_off += out_pads[dim];
  }
}

}  // namespace

void copy_dimension(unsigned int dim, std::vector<unsigned int> dims, const signed char* src,
                    std::vector<unsigned int> in_pads, unsigned int& in_off, signed char* dst,
                    std::vector<unsigned int> out_pads, unsigned int& out_off) {
  CopyDimensionWrapping(dim, dims, src, in_pads, in_off, dst, out_pads, out_off);
}

namespace {

// --- A change of interleaving.

// One side of it. A plane holds `pack` channels; the steps are elements.
struct Interleaving {
  unsigned pack;
  unsigned line;   // from row to row
  unsigned plane;  // from plane to plane
  unsigned batch;  // from batch item to batch item
};

// Planes of one batch item, counted in single precision: C beyond 2^24 may round.
unsigned PlaneCount(unsigned C, unsigned pack) {
  const float planes = std::ceil(static_cast<float>(C) / static_cast<float>(pack));
  return planes < 0x1p32F ? static_cast<unsigned>(planes) : std::numeric_limits<unsigned>::max();
}

Interleaving Describe(const zeb::PuxDnnBufAttrs& attrs, const std::vector<unsigned>& dims) {
  const zeb::PuxDnnBufAttrsMemFormat format = attrs.GetMemFormat();
  const unsigned pack = static_cast<unsigned>(format.plane_pack);
  const auto elements = [&](unsigned bytes) {
    return format.bitdepth < 8 ? 0 : bytes / (static_cast<unsigned>(format.bitdepth) / 8);
  };
  const unsigned line = elements(attrs.GetLineStride());
  const unsigned plane_stride = attrs.GetPlaneStride();
  const unsigned plane = plane_stride == 0 ? line * dims[2] : elements(plane_stride);
  return {pack, line, plane, PlaneCount(dims[1], pack) * plane};
}

struct Extents {
  unsigned N, C, H, W;
};

std::uint64_t Groups(const Extents& e, unsigned pack) { return (std::uint64_t{e.C} + pack - 1) / pack; }

// Rows, planes and batch items of the tensor follow each other without overlap, and no position wraps.
bool IsRegular(const Interleaving& side, const Extents& e) {
  return std::uint64_t{e.W} * side.pack <= side.line && std::uint64_t{e.H} * side.line <= side.plane &&
         Fits(Saturating(Groups(e, side.pack)) * side.plane) &&
         Groups(e, side.pack) * side.plane <= side.batch && Fits(Saturating(e.N) * side.batch);
}

// Sets the elements of a regular layout that no channel occupies to 0.
template <typename T>
void ZeroPadding(T* dst, const Interleaving& side, const Extents& e) {
  const std::size_t full = e.C / side.pack;
  const std::size_t row = std::size_t{e.W} * side.pack;
  const std::size_t rows = std::size_t{e.H} * side.line;
  for (std::size_t n = 0; n < e.N; ++n) {
    T* item = dst + n * side.batch;
    T* plane = item;
    for (std::size_t group = 0; group < full; ++group, plane += side.plane) {
      if (row != side.line) {
        for (std::size_t h = 0; h < e.H; ++h)
          detail::FillRun(plane + h * side.line + row, T{}, side.line - row);
      }
      detail::FillRun(plane + rows, T{}, side.plane - rows);
    }
    detail::FillRun(plane, T{}, static_cast<std::size_t>(item + side.batch - plane));
  }
}

// Moves the channels between regular layouts: runs of channels that neighbour each other on both sides.
template <typename T>
void CopyChannels(T* dst, const Interleaving& d, const T* src, const Interleaving& s, const Extents& e) {
  using detail::Loop;
  const Loop n{e.N, s.batch, d.batch};
  const Loop h{e.H, s.line, d.line};
  const Loop w{e.W, s.pack, d.pack};
  const auto channel_in = [&](std::size_t c) { return src + c / s.pack * s.plane + c % s.pack; };
  const auto channel_out = [&](std::size_t c) { return dst + c / d.pack * d.plane + c % d.pack; };

  const unsigned small = std::min(s.pack, d.pack);
  const unsigned large = std::max(s.pack, d.pack);
  if (large % small != 0) {
    for (std::size_t c = 0; c < e.C;) {
      const std::size_t run = std::min({s.pack - c % s.pack, d.pack - c % d.pack, e.C - c});
      detail::StridedCopy(channel_out(c), channel_in(c), {n, h, w, {run, 1, 1}});
      c += run;
    }
    return;
  }

  // Small groups inside large ones, then the small groups of a last, partial large one, then a partial small
  // one.
  const std::size_t whole = e.C / large * large;
  const std::size_t rest = (e.C - whole) / small * small;
  const std::size_t last = e.C - whole - rest;
  const std::ptrdiff_t parts = large / small;
  const Loop group{whole / large, s.pack == small ? parts * s.plane : s.plane,
                   d.pack == small ? parts * d.plane : d.plane};
  Loop part{large / small, s.pack == small ? s.plane : small, d.pack == small ? d.plane : small};
  detail::StridedCopy(dst, src, {n, group, part, h, w, {small, 1, 1}});
  part.extent = rest / small;
  detail::StridedCopy(channel_out(whole), channel_in(whole), {n, part, h, w, {small, 1, 1}});
  detail::StridedCopy(channel_out(whole + rest), channel_in(whole + rest), {n, h, w, {last, 1, 1}});
}

}  // namespace

template <typename T>
void copy(const signed char* src, unsigned int /*src_bytes*/, const zeb::PuxDnnBufAttrs& src_attrs,
          signed char* dst, unsigned int dst_bytes, const zeb::PuxDnnBufAttrs& dst_attrs) {
  const std::vector<unsigned> src_dims = src_attrs.GetDims();
  const Interleaving s = Describe(src_attrs, src_dims);
  const Interleaving d = Describe(dst_attrs, dst_attrs.GetDims());
  const Extents e{src_dims[0], src_dims[1], src_dims[2], src_dims[3]};

  if (IsRegular(s, e) && IsRegular(d, e)) {
    const std::size_t tensor_bytes = std::size_t{e.N} * d.batch * sizeof(T);
    if (tensor_bytes <= dst_bytes) {
      ZeroPadding(reinterpret_cast<T*>(dst), d, e);
      Zero(dst + tensor_bytes, dst_bytes - tensor_bytes);
    } else {
      Zero(dst, dst_bytes);
    }
    CopyChannels(reinterpret_cast<T*>(dst), d, reinterpret_cast<const T*>(src), s, e);
    return;
  }

  Zero(dst, dst_bytes);
  if (e.H == 0 || e.W == 0) return;
  for (unsigned n = 0; n < e.N; ++n) {
    for (unsigned c = 0; c < e.C; ++c) {
      unsigned from = n * s.batch + c % s.pack + c / s.pack * s.plane;
      unsigned to = n * d.batch + c % d.pack + c / d.pack * d.plane;
      for (unsigned h = 0; h < e.H; ++h, from += s.line, to += d.line) {
        for (unsigned w = 0; w < e.W; ++w) {
          std::memcpy(dst + std::size_t{to + w * d.pack} * sizeof(T),
                      src + std::size_t{from + w * s.pack} * sizeof(T), sizeof(T));
        }
      }
    }
  }
}

template void copy<short>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&, signed char*,
                          unsigned int, const zeb::PuxDnnBufAttrs&);
template void copy<signed char>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&, signed char*,
                                unsigned int, const zeb::PuxDnnBufAttrs&);
template void copy<float>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&, signed char*,
                          unsigned int, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
