// Layer type "PAD".
#include "custom_ops/vek_pad.h"

#include <array>
#include <vector>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/fixed_point.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "custom_ops/vek_common.h"
#include "kernels/pad.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsUnsigned;
using detail::LastPosition;

const std::string VekPad::k_expected_attr_pad_mode_ = "pad_mode";
const std::string VekPad::k_expected_attr_pad_ = "pad";
const std::string VekPad::k_expected_attr_pad_shape_ = "pad_shape";
const std::string VekPad::k_expected_attr_format_ = "format";

bool VekPad::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  // Deliberate: every value is stored as it is read; a refused Configure leaves the new ones in place.
  VEK_REQUIRE(attrs.size() >= 4, "expected 4 attribute, but got %zu", attrs.size());
  const std::string* pad_mode = detail::Find(attrs, k_expected_attr_pad_mode_);
  VEK_REQUIRE(pad_mode != nullptr, "expected attribute pad_mode, but did not get it.");
  pad_mode_ = detail::ToInt(*pad_mode);

  const std::string* pad = detail::Find(attrs, k_expected_attr_pad_);
  VEK_REQUIRE(pad != nullptr, "expected attribute pad, but did not get it.");
  pad_ = detail::ToUnsigned(*pad);

  const std::string* pad_shape = detail::Find(attrs, k_expected_attr_pad_shape_);
  VEK_REQUIRE(pad_shape != nullptr, "expected attribute pad_shape, but did not get it.");
  std::vector<std::string> entries;
  std::string error;
  VEK_REQUIRE(sw_ops_parser::ParseTensor(*pad_shape, &entries, &error), "ERROR: %s", error.c_str());
  VEK_REQUIRE(entries.size() >= pad_shape_.size(), "expected %zu entries in pad_shape, but got %zu",
              pad_shape_.size(), entries.size());
  for (std::size_t i = 0; i < pad_shape_.size(); ++i) pad_shape_[i] = detail::ToUnsigned(entries[i]);

  const std::string* format = detail::Find(attrs, k_expected_attr_format_);
  VEK_REQUIRE(format != nullptr, "expected attribute format, but did not get it.");
  entries.clear();
  VEK_REQUIRE(sw_ops_parser::ParseTensor(*format, &entries, &error), "ERROR: %s", error.c_str());
  VEK_REQUIRE(entries.size() >= format_.size(), "expected %zu entries in format, but got %zu", format_.size(),
              entries.size());
  for (std::size_t i = 0; i < format_.size(); ++i) format_[i] = detail::ToUnsigned(entries[i]);

  VEK_REQUIRE(inputs.size() == 1 && outputs.size() == 1,
              "expected one input and one output, got: %d inputs, %d outputs", AsInt(inputs.size()),
              AsInt(outputs.size()));
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  // Deliberate: elements are compared with bytes, whatever the element's width.
  const std::uint64_t in_count = detail::Elements64(in.GetDims());
  VEK_REQUIRE(in_count <= in.GetSize(), "Input buf size should be at least %d, but is %d", AsInt(in_count),
              AsInt(in.GetSize()));
  const std::uint64_t out_count = detail::Elements64(out.GetDims());
  VEK_REQUIRE(out_count <= out.GetSize(), "Output buf size should be at least %d, but is %d",
              AsInt(out_count), AsInt(out.GetSize()));

  in_attrs_ = in.Clone();
  out_attrs_ = out.Clone();
  configured_ = true;
  return true;
}

namespace {

using Pads = std::array<unsigned, 8>;  // p0 to p7

// --- Geometry.

kernels::Extents ExtentsOf(const zeb::PuxDnnBufAttrs& attrs) {
  const detail::Shape shape(attrs);
  return {shape.N, shape.C, shape.H, shape.W};
}

kernels::TensorLayout DenseLayout(const kernels::Extents& e) {
  const std::uint64_t plane = std::uint64_t{e.H} * e.W;
  return {1, e.W, plane, e.C * plane};
}

// As the strides say, with `planes` planes in a batch item.
template <typename T>
kernels::TensorLayout StridedLayout(const zeb::PuxDnnBufAttrs& attrs, unsigned pack, unsigned planes) {
  const std::uint64_t plane = attrs.GetPlaneStride() / sizeof(T);
  return {pack, attrs.GetLineStride() / sizeof(T), plane, planes * plane};
}

kernels::Interior<float> DenseInterior(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out,
                                       unsigned p0, unsigned p2, unsigned p4, unsigned p6,
                                       const float* in_data, float* out_data) {
  const kernels::Extents e = ExtentsOf(in);
  return {in_data, out_data, e, DenseLayout(e), DenseLayout(ExtentsOf(out)), p0, p2, p4, p6};
}

kernels::Border<float> DenseBorder(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out,
                                   const Pads& pads, int mode, unsigned constant, float* out_data) {
  const kernels::Extents whole = ExtentsOf(out);
  return {out_data, ExtentsOf(in), whole, DenseLayout(whole), pads, mode, static_cast<float>(constant)};
}

template <typename T>
kernels::Border<T> StridedBorder(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out,
                                 const Pads& pads, int mode, T constant, T* out_data) {
  const kernels::Extents whole = ExtentsOf(out);
  return {out_data, ExtentsOf(in), whole, StridedLayout<T>(out, 1, whole.C), pads, mode, constant};
}

// --- The choice of a kernel.

// No two elements of a planar tensor whose positions do not wrap meet.
bool AreApart(const kernels::Extents& e, const kernels::TensorLayout& layout) {
  if (e.empty()) return true;
  const std::uint64_t plane = (e.H - 1) * layout.line + e.W;
  const std::uint64_t batch = (e.C - 1) * layout.plane + plane;
  return (e.H == 1 || layout.line >= e.W) && (e.C == 1 || layout.plane >= plane) &&
         (e.N == 1 || layout.batch >= batch);
}

// No position wraps, and no two elements meet in the output.
template <typename T>
bool IsWellFormed(const kernels::Interior<T>& i) {
  const kernels::Extents& e = i.extents;
  const kernels::TensorLayout& in = i.in_layout;
  const kernels::TensorLayout& out = i.out_layout;
  return LastPosition({{e.N, in.batch}, {i.Groups(), in.plane}, {e.H, in.line}, {e.W, in.pack}, {in.pack, 1}})
             .Fits() &&
         LastPosition(
             {{e.N + i.p0, out.batch}, {e.C + i.p2, out.plane}, {e.H + i.p4, out.line}, {e.W + i.p6, 1}})
             .Fits() &&
         AreApart(e, out);
}

// The pads and the interior make up the whole tensor, no position wraps, no two elements meet, and an edge that is
// repeated exists.
template <typename T>
bool IsWellFormed(const kernels::Border<T>& b) {
  const auto adds_up = [](unsigned before, unsigned extent, unsigned after, unsigned sum) {
    return std::uint64_t{before} + extent + after == sum;
  };
  const Pads& p = b.pads;
  return adds_up(p[0], b.interior.N, p[1], b.whole.N) && adds_up(p[2], b.interior.C, p[3], b.whole.C) &&
         adds_up(p[4], b.interior.H, p[5], b.whole.H) && adds_up(p[6], b.interior.W, p[7], b.whole.W) &&
         (b.mode != kernels::kEdge || !b.interior.empty()) &&
         LastPosition({{b.whole.N, b.layout.batch},
                       {b.whole.C, b.layout.plane},
                       {b.whole.H, b.layout.line},
                       {b.whole.W, 1}})
             .Fits() &&
         AreApart(b.whole, b.layout);
}

template <typename T>
void FillInterior(const kernels::Interior<T>& interior) {
  IsWellFormed(interior) ? kernels::CopyInterior(interior) : kernels::PlainCopyInterior(interior);
}

template <typename T>
void FillBorder(const kernels::Border<T>& border) {
  IsWellFormed(border) ? kernels::Pad(border) : kernels::PlainPad(border);
}

template <typename T>
void FillOutput(const kernels::Interior<T>& interior, const kernels::Border<T>& border) {
  const bool has_border = border.mode >= kernels::kReflect && border.mode <= kernels::kConstant;
  if (has_border && interior.p0 == border.pads[0] && IsWellFormed(interior) && IsWellFormed(border)) {
    return kernels::CopyAndPad(interior, border);
  }
  FillInterior(interior);
  if (has_border) FillBorder(border);
}

bool BuffersGiven(const void* in_data, const void* out_data) {
  VEK_REQUIRE(in_data != nullptr && out_data != nullptr, "Pad_reflect_v1 input or output buffer is null.");
  return true;
}

// Behind the text that says why not.
bool Calculated(bool done) {
  VEK_REQUIRE(done, "can't calculate Pad");
  return true;
}

// The two paths of Execute.

bool PadDense(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, const Pads& p, int mode,
              unsigned constant, const float* in_data, float* out_data) {
  if (!BuffersGiven(in_data, out_data)) return false;
  FillOutput(DenseInterior(in, out, p[0], p[2], p[4], p[6], in_data, out_data),
             DenseBorder(in, out, p, mode, constant, out_data));
  return true;
}

template <typename T>
bool PadStrided(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, const Pads& p, int mode,
                unsigned pad, const T* in_data, T* out_data) {
  if (!BuffersGiven(in_data, out_data)) return false;
  const kernels::Border<T> border =
      StridedBorder(in, out, p, mode, detail::FillValue<T>(pad, out.GetMemFormat().exp), out_data);
  const int plane_pack = in.GetMemFormat().plane_pack;
  const bool is_empty = border.interior.empty();
  VEK_REQUIRE(is_empty || plane_pack >= 1, "plane_pack of the input = %d, but should be at least 1",
              plane_pack);
  const unsigned pack = is_empty ? 1 : AsUnsigned(plane_pack);
  // Deliberate: the interior moves down by p0 planes, while the border counts p0 in batch items.
  kernels::Interior<T> interior{
      in_data, out_data, border.interior, {pack, 0, 0, 0}, border.layout, 0, std::uint64_t{p[0]} + p[2],
      p[4],    p[6]};
  interior.in_layout = StridedLayout<T>(in, pack, interior.Groups());
  FillOutput(interior, border);
  return true;
}

}  // namespace

bool VekPad::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffer is NULL");
  VEK_REQUIRE(out_buffers != nullptr, "Output buffer is NULL");
  VEK_REQUIRE(in_attrs_ != nullptr, "input buffer attrs are NULL");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");

  const zeb::PuxDnnBufAttrsMemFormat in_format = in_attrs_->GetMemFormat();
  const zeb::PuxDnnBufAttrsMemFormat out_format = out_attrs_->GetMemFormat();
  constexpr std::array<unsigned, 4> kChannelsFirst = {0, 1, 2, 3};
  constexpr std::array<unsigned, 4> kChannelsLast = {0, 2, 3, 1};
  const bool direct = out_format.plane_pack == 1 && format_ == kChannelsFirst;

  if (in_format.q8a && !direct) {
    // Deliberate: the stored value itself is converted, once more on every Execute, before the format is
    // looked at; a value below the zero point wraps.
    const auto difference = static_cast<float>(pad_ - in_format.q8a_zero);
    pad_ = detail::TruncateToUint32(difference * in_format.q8a_scale);
  }

  const void* in_data = in_buffers[0];
  void* out_data = out_buffers[0];
  if (!direct) {
    const auto calculate = [&] {
      VEK_REQUIRE(format_ == kChannelsFirst || format_ == kChannelsLast, "Unknown format not supported.");
      return PadDense(*in_attrs_, *out_attrs_, pad_shape_, pad_mode_, pad_,
                      static_cast<const float*>(in_data), static_cast<float*>(out_data));
    };
    return Calculated(calculate());
  }
  return detail::DispatchWidth(
      in_format.bitdepth,
      [&](auto width) {
        using T = decltype(width);
        return Calculated(PadStrided(*in_attrs_, *out_attrs_, pad_shape_, pad_mode_, pad_,
                                     static_cast<const T*>(in_data), static_cast<T*>(out_data)));
      },
      [] {
        VEK_LOG_ERROR("CopyBuffer_v1() - unhandled bitdepth!");
        return false;
      });
}

bool CopyBuffer_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0, unsigned p2,
                   unsigned p4, unsigned p6, float* in_data, float* out_data) {
  if (!BuffersGiven(in_data, out_data)) return false;
  FillInterior(DenseInterior(in, out, p0, p2, p4, p6, in_data, out_data));
  return true;
}

namespace {

template <typename T>
bool PadMirrored(const kernels::Border<T>& border) {
  VEK_REQUIRE(border.data != nullptr, "Pad_reflect_v1 input or output buffer is null.");
  FillBorder(border);
  return true;
}

}  // namespace

bool Pad_reflectsymm_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                        unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6,
                        unsigned p7, bool reflect, float* out_data) {
  return PadMirrored(DenseBorder(in, out, {p0, p1, p2, p3, p4, p5, p6, p7},
                                 reflect ? kernels::kReflect : kernels::kSymmetric, 0, out_data));
}

template <typename T>
bool Pad_reflectsymm_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                        unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6,
                        unsigned p7, bool reflect, T* out_data) {
  return PadMirrored(StridedBorder(in, out, {p0, p1, p2, p3, p4, p5, p6, p7},
                                   reflect ? kernels::kReflect : kernels::kSymmetric, T{0}, out_data));
}

bool Pad_edge_repli_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                       unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6,
                       unsigned p7, float* out_data) {
  VEK_REQUIRE(out_data != nullptr, "Pad_edge_repli_v1 input or output buffer is null.");
  FillBorder(DenseBorder(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, kernels::kEdge, 0, out_data));
  return true;
}

bool Pad_const_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned pad, unsigned p0,
                  unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6, unsigned p7,
                  float* out_data) {
  VEK_REQUIRE(out_data != nullptr, "Pad_const_v1 input or output buffer is null.");
  FillBorder(DenseBorder(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, kernels::kConstant, pad, out_data));
  return true;
}

template bool Pad_reflectsymm_v1<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, unsigned,
                                      unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
                                      bool, int*);
template bool Pad_reflectsymm_v1<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, unsigned,
                                        unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
                                        bool, short*);

}  // namespace zeb_custom_ops
