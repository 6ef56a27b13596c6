// Layer type "PERMUTE".
#include "custom_ops/vek_permute.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/strided_copy.h"
#include "custom_ops/vek_common.h"
#include "custom_ops/vek_datastrideconv.h"
#include "kernels/permute.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::AsUnsigned;
using detail::Fits;
using detail::LastPosition;
using detail::Loop;
using detail::Saturating;

const std::string VekPermute::k_expected_attr_axes_ = "axes";

namespace {

// A list that lies on the stack unless it is longer than tensors have dims.
template <typename T>
class List {
 public:
  explicit List(std::size_t capacity) {
    if (capacity <= kOnStack) return;
    on_heap_.resize(capacity);
    data_ = on_heap_.data();
  }
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  void Append(const T& value) { data_[size_++] = value; }
  std::size_t size() const { return size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }

 private:
  static constexpr std::size_t kOnStack = 12;
  T on_stack_[kOnStack];
  std::vector<T> on_heap_;
  T* data_ = on_stack_;
  std::size_t size_ = 0;
};

// The axes, behind which the dims that they do not name follow in increasing order. It may be longer than the
// rank: surplus and repeated axes stay.
struct Order : List<unsigned> {
  Order(const std::vector<unsigned>& axes, std::size_t rank) : List(axes.size() + rank) {
    constexpr unsigned kCounted = 64;
    std::uint64_t named = 0;  // one bit for each of the first dims
    for (unsigned axis : axes) {
      Append(axis);
      if (axis < kCounted) named |= std::uint64_t{1} << axis;
    }
    for (unsigned d = 0; d < rank; ++d) {
      const bool is_named = d < kCounted ? (named >> d & 1) != 0 : std::find(begin(), end(), d) != end();
      if (!is_named) Append(d);
    }
  }
};

Saturating Elements(const std::vector<unsigned>& dims) {
  Saturating count = 1;
  for (unsigned dim : dims) count = count * dim;
  return count;
}

bool IsOrder(const Order& order, std::initializer_list<unsigned> expected) {
  return std::equal(order.begin(), order.end(), expected.begin(), expected.end());
}

bool HasElements(const std::vector<unsigned>& dims) {
  return std::find(dims.begin(), dims.end(), 0U) == dims.end();
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
  const Order order(axes_, in_rank);

  // To channel-last.
  if (IsOrder(order, {0, 2, 3, 1}) && !out.IsStrided() && out_format.plane_pack == 1) {
    return detail::DispatchWidth(
        in_format.bitdepth,
        [&](auto width) {
          using T = decltype(width);
          VEK_REQUIRE(in_rank == 4, "can't make %dD data channel-last, 4D expected", AsInt(in_rank));
          VEK_REQUIRE(in_format.plane_pack >= 1 || !HasElements(in.GetDims()),
                      "input plane pack is %d, but should be at least 1", in_format.plane_pack);
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

// Whether the first `rank` entries are dims. An order of that many entries names each dim once.
bool NamesOnlyDims(const Order& order, std::size_t rank) {
  return order.size() == rank ||
         std::all_of(order.begin(), order.begin() + rank, [&](unsigned axis) { return axis < rank; });
}

// The loops over the output, in its order. The products wrap at 32 bits.
struct OutputLoops : List<Loop> {
  OutputLoops(const Order& order, const std::vector<unsigned>& in_dims) : List(in_dims.size()) {
    const std::size_t rank = in_dims.size();
    List<unsigned> steps(rank);
    for (std::size_t d = 0; d < rank; ++d) steps.Append(0);
    unsigned step = 1;
    for (std::size_t d = rank; d-- > 0; step *= in_dims[d]) steps[d] = step;
    for (std::size_t i = 0; i < rank; ++i) Append({in_dims[order[i]], steps[order[i]], 0});
    step = 1;
    for (std::size_t i = rank; i-- > 0; step *= in_dims[order[i]]) (*this)[i].dst_step = step;
  }
  operator std::span<const Loop>() const { return {begin(), size()}; }
};

// Whether the entries name each dim once: then the loops visit every element of the tensor once.
bool IsPermutation(const Order& order, std::size_t rank) {
  if (order.size() == rank) return true;
  for (std::size_t i = 0; i < rank; ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (order[i] == order[j]) return false;
    }
  }
  return true;
}

// Whether every element of the output has its source inside an input of as many elements.
bool StaysInside(const Order& order, const std::vector<unsigned>& in_dims, unsigned count) {
  const OutputLoops loops(order, in_dims);
  for (unsigned o = 0; o < count; ++o) {
    if (kernels::SourceOf(o, loops) >= count) return false;
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
  const Order order(axes_, rank);
  VEK_REQUIRE(NamesOnlyDims(order, rank), "axes name a dimension that %zuD input does not have", rank);
  const OutputLoops loops(order, in_dims);

  unsigned done = 0;
  const Saturating count = Elements(in_dims);
  if (IsPermutation(order, rank) && count <= out_count) {
    detail::StridedCopy<T>(out_data, in_data, loops);
    done = AsUnsigned(count.value());
  }
  // Repeated axes, and what a buffer holds beyond its dims.
  kernels::PlainPermute<T>(out_data, in_data, loops, done, out_count);
  return true;
}

namespace {

// Bytes of a dense planar buffer that its conversion from or to the given format reaches; none where the converter
// refuses. These are the elements, but for formats that contradict themselves or the other buffer's: a change of
// interleaving divides strides by the format's bytes, moves floats of four, and counts the planes of a batch item in
// single precision.
Saturating BytesToConvert(const std::vector<unsigned>& dims, unsigned element_bytes,
                          const zeb::PuxDnnBufAttrsMemFormat& format) {
  const Saturating bytes = Elements(dims) * element_bytes;
  if (format.plane_pack == 1) return bytes;
  const bool is_convertible = format.float_ || format.bitdepth == 8 || format.bitdepth == 16;
  if (!is_convertible || format.plane_pack < 1) return 0;
  if (bytes == 0 || !Fits(bytes)) return bytes;

  const unsigned format_bytes = format.bitdepth < 8 ? 0 : AsUnsigned(format.bitdepth) / 8;
  const unsigned line = kernels::Quotient(dims[3] * element_bytes, format_bytes);
  const unsigned plane = kernels::Quotient(dims[2] * dims[3] * element_bytes, format_bytes);
  const Saturating item =
      Saturating(plane) * static_cast<std::uint64_t>(std::ceil(static_cast<float>(dims[1])));
  const Saturating last = LastPosition({{dims[0], item}, {dims[1], plane}, {dims[2], line}, {dims[3], 1}});
  return std::max(bytes, (last + 1) * (format.float_ ? 4 : format_bytes));
}

// Makes the description that of a dense planar buffer.
void DescribeDense(zeb::PuxDnnBufAttrs& attrs, const std::vector<unsigned>& dims, unsigned element_bytes) {
  attrs.SetLineStride(dims[3] * element_bytes);
  attrs.SetPlaneStride(dims[2] * attrs.GetLineStride());
  attrs.SetPlanePack(1);
}

// Whether two ranges have a byte in common.
bool Overlap(const signed char* a, std::size_t a_bytes, const signed char* b, std::size_t b_bytes) {
  const auto a_begin = reinterpret_cast<std::uintptr_t>(a);
  const auto b_begin = reinterpret_cast<std::uintptr_t>(b);
  return a_begin < b_begin + b_bytes && b_begin < a_begin + a_bytes;
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
  // Dense data needs no copy of its own, unless the output would overwrite what is still to be read.
  const bool may_skip =
      bytes != 0 && !Overlap(in_data, std::max(in_bytes, bytes), out_data, std::max(out_bytes, bytes));
  signed char* permute_from = aux_in_.get();
  if (may_skip && IsDense(in, *dense_in) && in_bytes >= bytes) {
    permute_from = in_data;
  } else if (!convertStride(in_data, std::min(in_bytes, bytes), in, aux_in_.get(), bytes, *dense_in)) {
    return false;
  }

  const Order order(axes_, in_dims.size());
  VEK_REQUIRE(!NamesOnlyDims(order, in_dims.size()) || IsPermutation(order, in_dims.size()) ||
                  StaysInside(order, in_dims, count),
              "repeated axes lead outside the %d elements of the input", AsInt(count));

  const std::vector<unsigned> out_dims = out.GetDims();
  const std::unique_ptr<zeb::PuxDnnBufAttrs> dense_out = out.Clone();
  DescribeDense(*dense_out, out_dims, sizeof(T));
  // Deliberate: a dense output gets the bytes of the input's elements, however many it has of its own.
  const bool is_dense_output = IsDense(out, *dense_out);
  const bool is_last_step = may_skip && is_dense_output;
  signed char* permute_to = is_last_step ? out_data : aux_out_.get();
  if (!Permute_v1(*dense_in, reinterpret_cast<T*>(permute_from), count, reinterpret_cast<T*>(permute_to),
                  count)) {
    return false;
  }
  VEK_REQUIRE(is_dense_output || BytesToConvert(out_dims, sizeof(T), out.GetMemFormat()) <= bytes,
              "output needs more than the %d bytes of the auxiliary buffer", AsInt(bytes));
  return is_last_step || convertStride(aux_out_.get(), bytes, *dense_out, out_data, out_bytes, out);
}

namespace {

constexpr std::uint64_t RoundUp(std::uint64_t value, unsigned step) {
  return step == 0 ? value : (value + step - 1) / step * step;
}

kernels::Extents FirstFour(const std::vector<unsigned>& dims) { return {dims[0], dims[1], dims[2], dims[3]}; }

}  // namespace

template <typename T>
void VekPermute::UnpackToNhwc(const zeb::PuxDnnBufAttrs& in, T* in_data, T* out_data) {
  const kernels::Extents extents = FirstFour(in.GetDims());
  if (extents.empty()) return;
  const auto [N, C, H, W] = extents;
  const zeb::PuxDnnBufAttrsMemFormat format = in.GetMemFormat();
  const unsigned P = AsUnsigned(format.plane_pack);
  const unsigned element_bytes = format.bitdepth < 8 ? 0 : AsUnsigned(format.bitdepth) / 8;
  const unsigned line_stride = in.GetLineStride();
  const unsigned line = kernels::Quotient(line_stride, element_bytes);
  const unsigned plane_pad = kernels::Quotient(in.GetPlaneStride() - line_stride * H, element_bytes);
  const kernels::ChannelPlanes planes{extents, P, line, plane_pad};

  // Where planes begin at multiples of a line, so do all rows: their steps are constant. The input has at least as
  // many elements as the output.
  const Saturating row = RoundUp(std::uint64_t{P} * W, line);
  const Saturating plane = row * H + plane_pad;
  const Saturating item = plane * planes.Groups();
  if (!Fits(item * N) || RoundUp(plane.value(), line) != plane.value()) {
    return kernels::PlainUnpackToNhwc<T>(out_data, in_data, planes);
  }
  kernels::CopyChannelGroups<T>(out_data, in_data, kernels::MakeLoop(N, item.value(), C * H * W),
                                kernels::MakeLoop(0, plane.value(), P),
                                kernels::MakeLoop(H, row.value(), W * C), kernels::MakeLoop(W, P, C), C, P);
}

template <typename T>
bool VekPermute::PackToNchw(const zeb::PuxDnnBufAttrs& in, T* in_data, const zeb::PuxDnnBufAttrs& out,
                            T* out_data) {
  const std::vector<unsigned> in_dims = in.GetDims();
  const std::vector<unsigned> dims = out.GetDims();
  const zeb::PuxDnnBufAttrsMemFormat format = out.GetMemFormat();
  const unsigned out_line_stride = out.GetLineStride();
  // Deliberate: the input's fourth dim is not looked at.
  VEK_REQUIRE(in_dims.size() >= 3 && dims.size() >= 4,
              "can't make %zuD data channel-first %zuD data, expected at least 3D and 4D", in_dims.size(),
              dims.size());
  VEK_REQUIRE(out_line_stride % sizeof(T) == 0, "Unsupported stride in PackToNchw().");
  const kernels::Extents extents = FirstFour(dims);
  if (extents.empty()) return true;
  VEK_REQUIRE(format.plane_pack >= 1, "output plane pack is %d, but should be at least 1", format.plane_pack);

  const auto [N, C, H, W] = extents;
  const unsigned P = AsUnsigned(format.plane_pack);
  const unsigned out_line = out_line_stride / AsUnsigned(sizeof(T));
  const unsigned out_plane = out.GetPlaneStride() / AsUnsigned(sizeof(T));
  const unsigned in_line = in.GetLineStride() / AsUnsigned(sizeof(T));
  const unsigned in_plane = in.GetPlaneStride() / AsUnsigned(sizeof(T));  // one row of all channels
  const kernels::ChannelPlanes planes{extents, P, out_line, out_plane - out_line * H};
  const kernels::PixelRows pixels{in_dims[1], in_plane, in_plane - in_line * in_dims[2]};

  // Deliberate: an output of one plane per item reads the input as `H` rows of `W` pixels, any other steps through
  // the input's own shape.
  const Saturating in_row = P < C ? Saturating(in_plane) : Saturating(W) * C + pixels.row_pad;
  const Saturating in_item = in_row * (P < C ? pixels.rows : H);
  const Saturating plane = Saturating(out_line) * H + planes.plane_pad;
  const Saturating item = plane * planes.Groups();
  const bool rows_are_apart = Fits(Saturating(P) * W) && P * W <= out_line;
  if (!rows_are_apart || !Fits(item * N) ||
      !LastPosition({{N, in_item}, {H, in_row}, {W, C}, {C, 1}}).Fits()) {
    kernels::PlainPackToNchw<T>(out_data, planes, in_data, pixels);
    return true;
  }
  kernels::CopyChannelGroups<T>(out_data, in_data, kernels::MakeLoop(N, in_item.value(), item.value()),
                                kernels::MakeLoop(0, P, plane.value()),
                                kernels::MakeLoop(H, in_row.value(), out_line), kernels::MakeLoop(W, C, P), C,
                                P);
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
