// Layer type "PERMUTE".
#include "custom_ops/vek_permute.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/strided_copy.h"
#include "custom_ops/vek_common.h"
#include "custom_ops/vek_datastrideconv.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::AsUnsigned;
using detail::Fits;
using detail::Loop;
using detail::Saturating;

const std::string VekPermute::k_expected_attr_axes_ = "axes";

namespace {

// The axes, behind which the dims that they do not name follow in increasing order. It may be longer than the
// rank: surplus and repeated axes stay.
std::vector<unsigned> CompletedOrder(const std::vector<unsigned>& axes, unsigned rank) {
  std::vector<unsigned> order;
  order.reserve(axes.size() + rank);
  order = axes;
  for (unsigned d = 0; d < rank; ++d) {
    if (std::find(order.begin(), order.end(), d) == order.end()) order.push_back(d);
  }
  return order;
}

// Sizes are compared with 32-bit ones; past those, how large they are does not matter.
constexpr std::uint64_t kTooMany = std::uint64_t{1} << 32;

// The product of two numbers, or 2^32 where it is larger.
constexpr std::uint64_t Capped(std::uint64_t a, std::uint64_t b) {
  return b != 0 && a > kTooMany / b ? kTooMany : a * b;
}

std::uint64_t CappedElements(const std::vector<unsigned>& dims) {
  std::uint64_t count = 1;
  for (unsigned dim : dims) count = Capped(count, dim);
  return count;
}

// What the target's processor answers to a division by zero is 0.
unsigned Quotient(unsigned dividend, unsigned divisor) { return divisor == 0 ? 0 : dividend / divisor; }

bool IsOrder(const std::vector<unsigned>& order, std::initializer_list<unsigned> expected) {
  return std::equal(order.begin(), order.end(), expected.begin(), expected.end());
}

}  // namespace

bool VekPermute::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(inputs.size() == 1, "wrong number of inputs, expected: 1, got: %zu", inputs.size());
  VEK_REQUIRE(outputs.size() == 1, "wrong number of outputs, expected: 1, got: %zu", outputs.size());
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];
  // Deliberate: the descriptions are kept before the other checks; a refused Configure leaves the new ones in
  // place.
  in_attrs_ = in.Clone();
  out_attrs_ = out.Clone();

  VEK_REQUIRE(attrs.size() == 1, "expecting exactly one attribute, got: %zu", attrs.size());
  const std::string* axes = detail::Find(attrs, k_expected_attr_axes_);
  VEK_REQUIRE(axes != nullptr, "expected operation parameter: %s not found.", k_expected_attr_axes_.c_str());
  std::vector<std::string> elements;
  std::string error;
  VEK_REQUIRE(sw_ops_parser::ParseTensor(*axes, &elements, &error), "ERROR: %s", error.c_str());
  // Deliberate: the axes of an earlier Configure stay in front.
  for (const std::string& element : elements) axes_.push_back(detail::ToUnsigned(element));

  const zeb::PuxDnnBufAttrsMemFormat in_format = in.GetMemFormat();
  const zeb::PuxDnnBufAttrsMemFormat out_format = out.GetMemFormat();
  VEK_REQUIRE(in_format.bitdepth == out_format.bitdepth,
              "input bitdepth: %d, differs from output bitdepth: %d", in_format.bitdepth,
              out_format.bitdepth);
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

bool VekPermute::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "custom layer not configured.");
  VEK_REQUIRE(in_buffers != nullptr, "in_buffers is NULL.");
  VEK_REQUIRE(out_buffers != nullptr, "out_buffers is NULL.");
  const zeb::PuxDnnBufAttrs& in = *in_attrs_;
  const zeb::PuxDnnBufAttrs& out = *out_attrs_;
  const zeb::PuxDnnBufAttrsMemFormat in_format = in.GetMemFormat();
  const zeb::PuxDnnBufAttrsMemFormat out_format = out.GetMemFormat();
  const unsigned in_rank = in.GetNumDims();
  const std::vector<unsigned> order = CompletedOrder(axes_, in_rank);

  // To channel-last.
  if (IsOrder(order, {0, 2, 3, 1}) && !out.IsStrided() && out_format.plane_pack == 1) {
    return detail::DispatchWidth(
        in_format.bitdepth,
        [&](auto width) {
          using T = decltype(width);
          VEK_REQUIRE(in_rank == 4, "can't make %dD data channel-last, 4D expected", AsInt(in_rank));
          VEK_REQUIRE(in_format.plane_pack >= 1, "input plane pack is %d, but should be at least 1",
                      in_format.plane_pack);
          UnpackToNhwc(in, static_cast<T*>(in_buffers[0]), static_cast<T*>(out_buffers[0]));
          return true;
        },
        [] {
          VEK_LOG_ERROR("UnpackToNhwc() - unhandled bitdepth!");
          return false;
        });
  }

  // To channel-first.
  if (IsOrder(order, {0, 3, 1, 2}) && !in.IsStrided() && in_format.plane_pack == 1) {
    return detail::DispatchWidth(
        out_format.bitdepth,
        [&](auto width) {
          using T = decltype(width);
          return PackToNchw(in, static_cast<T*>(in_buffers[0]), out, static_cast<T*>(out_buffers[0]));
        },
        [] {
          VEK_LOG_ERROR("PackToNchw() - unhandled bitdepth!");
          return false;
        });
  }

  if (in_format.float_ && !in.IsInterleaved() && !in.IsStrided() && out_format.float_ &&
      !out.IsInterleaved() && !out.IsStrided()) {
    return Permute_v1(in, static_cast<float*>(in_buffers[0]), in.GetSize() / 4,
                      static_cast<float*>(out_buffers[0]), out.GetSize() / 4);
  }

  VEK_REQUIRE(in_rank == 4 && out.GetNumDims() == 4 && in_format.bitdepth % 8 == 0,
              "Execute() - unhandled permute case!");
  // 32-bit fixed-point elements move as floats do: as bits.
  return detail::DispatchWidth<float, short, char>(
      in_format.bitdepth,
      [&](auto width) {
        using T = decltype(width);
        return DirectAcessPermute<T>(in, static_cast<signed char*>(in_buffers[0]), in.GetSize(), out,
                                     static_cast<signed char*>(out_buffers[0]), out.GetSize());
      },
      [] {
        VEK_LOG_ERROR("DirectAcessPermute() - unhandled bitdepth!");
        return false;
      });
}

unsigned int VekPermute::Product(const std::vector<unsigned int>& v, int start) {
  unsigned product = 1;
  for (std::size_t i = static_cast<std::size_t>(start); i < v.size(); ++i) product *= v[i];
  return product;
}

bool VekPermute::VerifyOutDimensions(const std::vector<unsigned int>& axes, const zeb::PuxDnnBufAttrs& in,
                                     const zeb::PuxDnnBufAttrs& out) {
  const std::vector<unsigned> in_dims = in.GetDims();
  const std::vector<unsigned> out_dims = out.GetDims();
  for (std::size_t i = 0; i < axes.size(); ++i) {
    VEK_REQUIRE(i < out_dims.size() && axes[i] < in_dims.size(),
                "axis %d of %zuD input as dimension %zu of %zuD output", AsInt(axes[i]), in_dims.size(), i,
                out_dims.size());
    VEK_REQUIRE(out_dims[i] == in_dims[axes[i]], "wrong output dimension: out_dim[%d] = %d, should be: %d",
                AsInt(i), AsInt(out_dims[i]), AsInt(in_dims[axes[i]]));
  }
  return true;
}

bool VekPermute::LazyBufAlloc(std::unique_ptr<signed char[]>& buf, unsigned int size) {
  if (buf != nullptr) return true;
  buf.reset(new (std::nothrow) signed char[size]);
  aux_bytes_ += size;
  return buf != nullptr;
}

namespace {

// Whether the first `rank` entries are dims.
bool NamesOnlyDims(const std::vector<unsigned>& order, std::size_t rank) {
  const auto end = order.begin() + static_cast<std::ptrdiff_t>(rank);
  return std::all_of(order.begin(), end, [&](unsigned axis) { return axis < rank; });
}

// The loops over the output, in its order. The products wrap at 32 bits.
std::vector<Loop> OutputAxes(const std::vector<unsigned>& order, const std::vector<unsigned>& in_dims) {
  const std::size_t rank = in_dims.size();
  std::vector<unsigned> in_step(rank);
  unsigned step = 1;
  for (std::size_t d = rank; d-- > 0; step *= in_dims[d]) in_step[d] = step;

  std::vector<Loop> axes(rank);
  step = 1;
  for (std::size_t i = rank; i-- > 0; step *= in_dims[order[i]]) {
    axes[i] = {in_dims[order[i]], in_step[order[i]], step};
  }
  return axes;
}

// Where the element at output index `index` comes from; any index has a source, also one outside the dims.
unsigned SourceOf(unsigned index, const std::vector<Loop>& axes) {
  unsigned source = 0;
  for (const Loop& axis : axes) {
    const unsigned out_step = static_cast<unsigned>(axis.dst_step);
    const unsigned coordinate = out_step == 0 ? 0 : index / out_step;
    index -= coordinate * out_step;
    source += coordinate * static_cast<unsigned>(axis.src_step);
  }
  return source;
}

// Whether the entries name each dim once: then the loops visit every element of the tensor once.
bool IsPermutation(const std::vector<unsigned>& order, std::size_t rank) {
  for (std::size_t i = 0; i < rank; ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (order[i] == order[j]) return false;
    }
  }
  return true;
}

// Whether every element of the output has its source inside an input of as many elements.
bool StaysInside(const std::vector<unsigned>& order, const std::vector<unsigned>& in_dims, unsigned count) {
  const std::vector<Loop> axes = OutputAxes(order, in_dims);
  for (unsigned o = 0; o < count; ++o) {
    if (SourceOf(o, axes) >= count) return false;
  }
  return true;
}

}  // namespace

template <typename T>
bool VekPermute::Permute_v1(const zeb::PuxDnnBufAttrs& in, T* in_data, unsigned int in_count, T* out_data,
                            unsigned int out_count) {
  VEK_REQUIRE(in_data != nullptr && out_data != nullptr, "Permute_v1 input or output buffer is null.");
  VEK_REQUIRE(in_count == out_count, "Permute_v1 wrong size of buffers. (input: %d output: %d)",
              AsInt(in_count), AsInt(out_count));
  const std::vector<unsigned> in_dims = in.GetDims();
  const std::size_t rank = in_dims.size();
  const std::vector<unsigned> order = CompletedOrder(axes_, static_cast<unsigned>(rank));
  VEK_REQUIRE(NamesOnlyDims(order, rank), "axes name a dimension that %zuD input does not have", rank);
  const std::vector<Loop> axes = OutputAxes(order, in_dims);

  unsigned done = 0;
  const std::uint64_t count = CappedElements(in_dims);
  if (IsPermutation(order, rank) && count <= out_count) {
    detail::StridedCopy<T>(out_data, in_data, axes);
    done = static_cast<unsigned>(count);
  }
  // Repeated axes, and what a buffer holds beyond its dims.
  for (unsigned o = done; o < out_count; ++o) out_data[o] = in_data[SourceOf(o, axes)];
  return true;
}

namespace {

// Bytes of a dense planar buffer that its conversion from or to the given format reaches, capped. These are the
// elements, but for formats that contradict themselves or the other buffer's: a change of interleaving divides strides
// by the format's bytes, moves floats of four, and counts the planes of a batch item in single precision.
std::uint64_t BytesToConvert(const std::vector<unsigned>& dims, unsigned element_bytes,
                             const zeb::PuxDnnBufAttrsMemFormat& format) {
  const std::uint64_t bytes = Capped(CappedElements(dims), element_bytes);
  const bool is_convertible = format.float_ || format.bitdepth == 8 || format.bitdepth == 16;
  if (format.plane_pack <= 1 || !is_convertible || bytes == 0 || bytes == kTooMany) return bytes;

  const unsigned format_bytes = format.bitdepth < 8 ? 0 : static_cast<unsigned>(format.bitdepth) / 8;
  const std::uint64_t line = Quotient(dims[3] * element_bytes, format_bytes);
  const std::uint64_t plane = Quotient(dims[2] * dims[3] * element_bytes, format_bytes);
  const std::uint64_t item = plane * static_cast<std::uint64_t>(std::ceil(static_cast<float>(dims[1])));
  const std::uint64_t last =
      (dims[0] - 1U) * item + (dims[1] - 1U) * plane + (dims[2] - 1U) * line + (dims[3] - 1U);
  return std::max(bytes, Capped(last + 1, format.float_ ? 4 : format_bytes));
}

// Makes the description that of a dense planar buffer.
void DescribeDense(zeb::PuxDnnBufAttrs& attrs, const std::vector<unsigned>& dims, unsigned element_bytes) {
  attrs.SetLineStride(dims[3] * element_bytes);
  attrs.SetPlaneStride(dims[2] * attrs.GetLineStride());
  attrs.SetPlanePack(1);
}

// Whether a description and its dense one have the same layout, so that converting is copying.
bool IsDense(const zeb::PuxDnnBufAttrs& attrs, const zeb::PuxDnnBufAttrs& dense) {
  return attrs.GetMemFormat().plane_pack == 1 && attrs.GetLineStride() == dense.GetLineStride() &&
         attrs.GetPlaneStride() == dense.GetPlaneStride();
}

}  // namespace

template <typename T>
bool VekPermute::DirectAcessPermute(const zeb::PuxDnnBufAttrs& in, signed char* in_data,
                                    unsigned int in_bytes, const zeb::PuxDnnBufAttrs& out,
                                    signed char* out_data, unsigned int out_bytes) {
  const std::vector<unsigned> in_dims = in.GetDims();
  const unsigned count = detail::Elements32(in_dims);
  const unsigned bytes = count * static_cast<unsigned>(sizeof(T));
  VEK_REQUIRE(BytesToConvert(in_dims, sizeof(T), in.GetMemFormat()) <= bytes,
              "input needs more than the %d bytes of the auxiliary buffer", AsInt(bytes));

  // Scratch is allocated whether or not this shape goes through it, and stays as it is from call to call, unless an
  // earlier shape made it too small.
  const auto allocate = [&](std::unique_ptr<signed char[]>& buf, unsigned& capacity) {
    if (capacity < bytes) buf.reset();
    if (buf == nullptr) capacity = bytes;
    return LazyBufAlloc(buf, bytes);
  };
  VEK_REQUIRE(allocate(aux_in_, aux_in_capacity_) && allocate(aux_out_, aux_out_capacity_),
              "failed to allocate auxiliary buffers of size: %d bytes", AsInt(bytes));

  const std::unique_ptr<zeb::PuxDnnBufAttrs> dense_in = in.Clone();
  DescribeDense(*dense_in, in_dims, sizeof(T));
  // Dense data needs no copy of its own.
  const bool may_skip = bytes != 0 && in_data != out_data;
  signed char* permute_from = aux_in_.get();
  if (may_skip && IsDense(in, *dense_in) && in_bytes >= bytes) {
    permute_from = in_data;
  } else if (!convertStride(in_data, std::min(in_bytes, bytes), in, aux_in_.get(), bytes, *dense_in)) {
    return false;
  }

  const std::vector<unsigned> order = CompletedOrder(axes_, AsUnsigned(in_dims.size()));
  VEK_REQUIRE(!NamesOnlyDims(order, in_dims.size()) || IsPermutation(order, in_dims.size()) ||
                  StaysInside(order, in_dims, count),
              "repeated axes lead outside the %d elements of the input", AsInt(count));

  const std::vector<unsigned> out_dims = out.GetDims();
  const bool output_fits = BytesToConvert(out_dims, sizeof(T), out.GetMemFormat()) <= bytes;
  const std::unique_ptr<zeb::PuxDnnBufAttrs> dense_out = out.Clone();
  DescribeDense(*dense_out, out_dims, sizeof(T));
  const bool is_last_step = may_skip && output_fits && IsDense(out, *dense_out);
  signed char* permute_to = is_last_step ? out_data : aux_out_.get();
  if (!Permute_v1(*dense_in, reinterpret_cast<T*>(permute_from), count, reinterpret_cast<T*>(permute_to),
                  count)) {
    return false;
  }
  VEK_REQUIRE(output_fits, "output needs more than the %d bytes of the auxiliary buffer", AsInt(bytes));
  return is_last_step || convertStride(aux_out_.get(), bytes, *dense_out, out_data, out_bytes, out);
}

namespace {

constexpr std::uint64_t RoundUp(std::uint64_t value, unsigned step) {
  return step == 0 ? value : (value + step - 1) / step * step;
}

// Moves the channels of all pixels in groups of `pack`, the last of which may be partial. The extent of
// `group` is left to this function.
template <typename T>
void WalkGroups(T* dst, T* src, const Loop& n, Loop group, const Loop& h, const Loop& w, unsigned C,
                unsigned pack) {
  group.extent = C / pack;
  const auto whole = static_cast<std::ptrdiff_t>(group.extent);
  detail::StridedCopy<T>(dst, src, {n, group, h, w, {pack, 1, 1}});
  detail::StridedCopy<T>(dst + whole * group.dst_step, src + whole * group.src_step,
                         {n, h, w, {C % pack, 1, 1}});
}

}  // namespace

template <typename T>
void VekPermute::UnpackToNhwc(const zeb::PuxDnnBufAttrs& in, T* in_data, T* out_data) {
  const std::vector<unsigned> dims = in.GetDims();
  const unsigned N = dims[0];
  const unsigned C = dims[1];
  const unsigned H = dims[2];
  const unsigned W = dims[3];
  if (H == 0 || W == 0) return;

  const zeb::PuxDnnBufAttrsMemFormat format = in.GetMemFormat();
  const unsigned P = static_cast<unsigned>(format.plane_pack);
  const unsigned element_bytes = format.bitdepth < 8 ? 0 : static_cast<unsigned>(format.bitdepth) / 8;
  const unsigned line_stride = in.GetLineStride();
  const unsigned line = Quotient(line_stride, element_bytes);
  const unsigned plane_pad = Quotient(in.GetPlaneStride() - line_stride * H, element_bytes);

  // Where planes begin at multiples of a line, so do all rows, and the source is a walk. It has at least as many
  // elements as the target.
  const std::uint64_t groups = (std::uint64_t{C} + P - 1) / P;
  const std::uint64_t row = RoundUp(std::uint64_t{P} * W, line);
  const std::uint64_t plane = Capped(row, H) + plane_pad;
  if (Fits(Saturating(N) * groups * plane) && RoundUp(plane, line) == plane) {
    const unsigned plane_step = AsUnsigned(plane);
    WalkGroups(out_data, in_data, {N, AsUnsigned(groups * plane), C * H * W}, {0, plane_step, P},
               {H, AsUnsigned(row), W * C}, {W, P, C}, C, P);
    return;
  }

  unsigned src = 0;
  for (unsigned n = 0; n < N; ++n) {
    for (std::uint64_t group = 0; group < groups; ++group) {
      const unsigned c0 = static_cast<unsigned>(group) * P;
      const unsigned run = std::min(P, C - c0);
      for (unsigned h = 0; h < H; ++h) {
        for (unsigned w = 0; w < W; ++w, src += P) {
          detail::CopyRun(out_data + (n * C * H * W + (h * W + w) * C + c0), in_data + src, run);
        }
        // Deliberate: the position is rounded up to a multiple of the line, wherever the plane began.
        if (line != 0 && src % line != 0) src += line - src % line;
      }
      src += plane_pad;
    }
  }
}

template <typename T>
bool VekPermute::PackToNchw(const zeb::PuxDnnBufAttrs& in, T* in_data, const zeb::PuxDnnBufAttrs& out,
                            T* out_data) {
  const std::vector<unsigned> in_dims = in.GetDims();
  const std::vector<unsigned> dims = out.GetDims();
  const zeb::PuxDnnBufAttrsMemFormat format = out.GetMemFormat();
  const unsigned out_line_stride = out.GetLineStride();
  VEK_REQUIRE(in_dims.size() >= 4 && dims.size() >= 4,
              "can't make %zuD data channel-first %zuD data, 4D expected", in_dims.size(), dims.size());
  VEK_REQUIRE(out_line_stride % sizeof(T) == 0, "Unsupported stride in PackToNchw().");
  VEK_REQUIRE(format.plane_pack >= 1, "output plane pack is %d, but should be at least 1", format.plane_pack);

  const unsigned N = dims[0];
  const unsigned C = dims[1];
  const unsigned H = dims[2];
  const unsigned W = dims[3];
  if (C == 0 || H == 0 || W == 0) return true;
  const unsigned P = static_cast<unsigned>(format.plane_pack);
  const unsigned row = P * W;
  const unsigned out_line = out_line_stride / static_cast<unsigned>(sizeof(T));
  const unsigned out_plane = out.GetPlaneStride() / static_cast<unsigned>(sizeof(T));
  const unsigned in_line = in.GetLineStride() / static_cast<unsigned>(sizeof(T));
  const unsigned in_plane = in.GetPlaneStride() / static_cast<unsigned>(sizeof(T));  // one row of the picture

  // Where rows and planes of the output follow each other without overlap, and those of the input too, it is
  // a walk. Deliberate: an output of one plane per item reads the input as `H` rows of `W` pixels, any other
  // steps through the input's own shape.
  const std::uint64_t groups = (std::uint64_t{C} + P - 1) / P;
  const std::uint64_t in_pixels = std::uint64_t{in_line} * in_dims[2];
  const std::uint64_t in_row = P < C ? in_plane : std::uint64_t{W} * C + in_plane - in_pixels;
  const std::uint64_t in_item = P < C ? Capped(in_plane, in_dims[1]) : Capped(in_row, H);
  if (std::uint64_t{P} * W <= out_line && Capped(out_line, H) <= out_plane &&
      Fits(Saturating(N) * groups * out_plane) && (P < C || in_pixels <= in_plane) &&
      Capped(N, in_item) + Capped(H, in_row) + Capped(W, C) < kTooMany) {
    WalkGroups(out_data, in_data, {N, AsUnsigned(in_item), AsUnsigned(groups * out_plane)}, {0, P, out_plane},
               {H, AsUnsigned(in_row), out_line}, {W, C, P}, C, P);
    return true;
  }

  const unsigned plane_pad = out_plane - out_line * H;
  unsigned dst = 0;
  if (P < C) {
    for (unsigned n = 0; n < N; ++n) {
      for (std::uint64_t group = 0; group < groups; ++group, dst += plane_pad) {
        const unsigned c0 = static_cast<unsigned>(group) * P;
        const unsigned run = std::min(P, C - c0);
        for (unsigned h = 0; h < H; ++h, dst += out_line - row) {
          for (unsigned w = 0; w < W; ++w, dst += P) {
            detail::CopyRun(out_data + dst, in_data + (n * in_plane * in_dims[1] + c0 + h * in_plane + w * C),
                            run);
          }
        }
      }
    }
    return true;
  }

  // Deliberate: a line too short for its row is followed by the rest of the row, counted in lines.
  const unsigned line_pad =
      out_line >= row ? out_line - row : out_line - (row - Quotient(row, out_line) * out_line);
  const unsigned in_row_pad = in_plane - in_line * in_dims[2];
  unsigned src = 0;
  for (unsigned n = 0; n < N; ++n, dst += plane_pad) {
    for (unsigned h = 0; h < H; ++h, src += in_row_pad, dst += line_pad) {
      for (unsigned w = 0; w < W; ++w, src += C, dst += P) detail::CopyRun(out_data + dst, in_data + src, C);
    }
  }
  return true;
}

template bool VekPermute::Permute_v1<float>(const zeb::PuxDnnBufAttrs&, float*, unsigned int, float*,
                                            unsigned int);
template bool VekPermute::Permute_v1<short>(const zeb::PuxDnnBufAttrs&, short*, unsigned int, short*,
                                            unsigned int);
template bool VekPermute::Permute_v1<char>(const zeb::PuxDnnBufAttrs&, char*, unsigned int, char*,
                                           unsigned int);
template bool VekPermute::DirectAcessPermute<float>(const zeb::PuxDnnBufAttrs&, signed char*, unsigned int,
                                                    const zeb::PuxDnnBufAttrs&, signed char*, unsigned int);
template bool VekPermute::DirectAcessPermute<short>(const zeb::PuxDnnBufAttrs&, signed char*, unsigned int,
                                                    const zeb::PuxDnnBufAttrs&, signed char*, unsigned int);
template bool VekPermute::DirectAcessPermute<char>(const zeb::PuxDnnBufAttrs&, signed char*, unsigned int,
                                                   const zeb::PuxDnnBufAttrs&, signed char*, unsigned int);
template void VekPermute::UnpackToNhwc<int>(const zeb::PuxDnnBufAttrs&, int*, int*);
template void VekPermute::UnpackToNhwc<short>(const zeb::PuxDnnBufAttrs&, short*, short*);
template void VekPermute::UnpackToNhwc<char>(const zeb::PuxDnnBufAttrs&, char*, char*);
template bool VekPermute::PackToNchw<int>(const zeb::PuxDnnBufAttrs&, int*, const zeb::PuxDnnBufAttrs&, int*);
template bool VekPermute::PackToNchw<short>(const zeb::PuxDnnBufAttrs&, short*, const zeb::PuxDnnBufAttrs&,
                                            short*);
template bool VekPermute::PackToNchw<char>(const zeb::PuxDnnBufAttrs&, char*, const zeb::PuxDnnBufAttrs&,
                                           char*);

}  // namespace zeb_custom_ops
