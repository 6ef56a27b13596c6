// Layer type "PAD".
#include "custom_ops/vek_pad.h"

#include <algorithm>
#include <vector>

#include "custom_ops/vek_common.h"
#include "detail/attr_text.h"
#include "detail/checks.h"
#include "detail/element.h"
#include "detail/fixed_point.h"
#include "detail/positions.h"
#include "detail/sizes.h"
#include "detail/walk.h"

namespace zeb_custom_ops {

using detail::AsInt;

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

// --- Where the elements lie. Positions wrap in 32 bits.

struct Shape {
  unsigned N;
  unsigned C;
  unsigned H;
  unsigned W;

  explicit Shape(const zeb::PuxDnnBufAttrs& attrs)
      : N(attrs.GetBatch()), C(attrs.GetChannels()), H(attrs.GetHeight()), W(attrs.GetWidth()) {}
};

// Elements from one batch item, plane and line to the next.
struct Steps {
  std::uint64_t batch;
  std::uint64_t plane;
  std::uint64_t line;

  unsigned Position(std::uint64_t n, std::uint64_t c, std::uint64_t h) const {
    return static_cast<unsigned>(n * batch + c * plane + h * line);
  }
};

Steps DenseSteps(const Shape& shape) {
  const std::uint64_t plane = std::uint64_t{shape.H} * shape.W;
  return {shape.C * plane, plane, shape.W};
}

// As the strides say, with `planes` planes in a batch item.
template <typename T>
Steps StridedSteps(const zeb::PuxDnnBufAttrs& attrs, unsigned planes) {
  const std::uint64_t plane = attrs.GetPlaneStride() / sizeof(T);
  return {planes * plane, plane, attrs.GetLineStride() / sizeof(T)};
}

// No two elements of a tensor whose positions do not wrap meet.
bool AreApart(const Shape& shape, const Steps& steps) {
  if (shape.N == 0 || shape.C == 0 || shape.H == 0 || shape.W == 0) return true;
  const std::uint64_t row = shape.W;
  const std::uint64_t plane = (shape.H - 1) * steps.line + row;
  const std::uint64_t batch = (shape.C - 1) * steps.plane + plane;
  return (shape.H == 1 || steps.line >= row) && (shape.C == 1 || steps.plane >= plane) &&
         (shape.N == 1 || steps.batch >= batch);
}

using Pads = std::array<unsigned, 8>;  // p0 to p7

// A tensor whose interior has been written, or will be, and whose border is to be filled.
template <typename T>
struct Bordered {
  T* data;
  Shape interior;
  Shape whole;
  Steps steps;
  Pads pads;

  // The pads and the interior make up the whole tensor, no position wraps and no two elements meet.
  bool IsWellFormed() const {
    const auto adds_up = [](unsigned before, unsigned extent, unsigned after, unsigned sum) {
      return std::uint64_t{before} + extent + after == sum;
    };
    return adds_up(pads[0], interior.N, pads[1], whole.N) && adds_up(pads[2], interior.C, pads[3], whole.C) &&
           adds_up(pads[4], interior.H, pads[5], whole.H) && adds_up(pads[6], interior.W, pads[7], whole.W) &&
           detail::FitsIn32(
               {{whole.N, steps.batch}, {whole.C, steps.plane}, {whole.H, steps.line}, {whole.W, 1}}) &&
           AreApart(whole, steps);
  }
};

// --- The rules of the border. A rule fills the border units before and after an interior of `extent` units:
// elements of a row, rows of a plane, planes of a batch item, or batch items.

template <typename T>
struct ConstantRule {
  T fill;

  template <typename Copy, typename Fill>
  void Apply(unsigned before, unsigned extent, unsigned after, Copy, Fill fill_units) const {
    fill_units(0U, before);
    fill_units(before + extent, after);
  }
};

template <typename T>
struct EdgeRule {
  static constexpr T fill = 0;

  template <typename Copy, typename Fill>
  void Apply(unsigned before, unsigned extent, unsigned after, Copy copy_unit, Fill) const {
    for (unsigned k = 0; k < before; ++k) copy_unit(k, before);
    for (unsigned k = 0; k < after; ++k) copy_unit(before + extent + k, before + extent - 1);
  }
};

template <typename T>
struct MirrorRule {
  unsigned skipped;  // 1: the edge unit is not repeated, 0: it is
  static constexpr T fill = 0;

  template <typename Copy, typename Fill>
  void Apply(unsigned before, unsigned extent, unsigned after, Copy copy_unit, Fill fill_units) const {
    const unsigned supply = extent > skipped ? extent - skipped : 0;
    const unsigned left = std::min(supply, before);
    const unsigned right = std::min(supply, after);
    for (unsigned k = 0; k < left; ++k) copy_unit(before - 1 - k, before + skipped + k);
    fill_units(0U, before - left);
    for (unsigned k = 0; k < right; ++k) copy_unit(before + extent + k, before + extent - 1 - skipped - k);
    fill_units(before + extent + right, after - right);
  }
};

// --- The border, from the inside out.

// Element by element upward: a target behind its source in the same row sees what was just written.
template <typename T>
void CopyUpward(T* dst, const T* src, std::size_t count) {
  if (dst >= src + count || src >= dst + count) return detail::CopyRun(dst, src, count);
  for (std::size_t i = 0; i < count; ++i) dst[i] = src[i];
}

// Copies or fills `planes` planes of the whole tensor; rows that touch are one run.
template <typename T>
void CopyPlanes(const Bordered<T>& t, unsigned dst, unsigned src, unsigned planes) {
  for (unsigned c = 0; c < planes; ++c) {
    for (unsigned h = 0; h < t.whole.H; ++h) {
      const unsigned row = t.steps.Position(0, c, h);
      CopyUpward(t.data + (dst + row), t.data + (src + row), t.whole.W);
    }
  }
}

template <typename T>
void FillPlanes(const Bordered<T>& t, unsigned dst, unsigned planes, T value) {
  for (unsigned c = 0; c < planes; ++c) {
    for (unsigned h = 0; h < t.whole.H; ++h) {
      detail::FillRun(t.data + (dst + t.steps.Position(0, c, h)), value, t.whole.W);
    }
  }
}

// The columns beside the interior rows of one plane, then the rows above and below.
template <typename T, typename Rule>
void PadPlane(const Bordered<T>& t, const Rule& rule, unsigned n, unsigned c) {
  const Pads& p = t.pads;
  const unsigned plane = t.steps.Position(std::uint64_t{n} + p[0], std::uint64_t{c} + p[2], 0);
  for (unsigned h = 0; h < t.interior.H; ++h) {
    const unsigned row = plane + t.steps.Position(0, 0, std::uint64_t{h} + p[4]);
    rule.Apply(
        p[6], t.interior.W, p[7], [&](unsigned dst, unsigned src) { t.data[row + dst] = t.data[row + src]; },
        [&](unsigned dst, unsigned count) { detail::FillRun(t.data + (row + dst), rule.fill, count); });
  }
  const auto row = [&](unsigned h) { return t.data + (plane + t.steps.Position(0, 0, h)); };
  rule.Apply(
      p[4], t.interior.H, p[5],
      [&](unsigned dst, unsigned src) { CopyUpward(row(dst), row(src), t.whole.W); },
      [&](unsigned dst, unsigned count) {
        for (unsigned h = 0; h < count; ++h) detail::FillRun(row(dst + h), rule.fill, t.whole.W);
      });
}

// The planes before and after those of one batch item's interior.
template <typename T, typename Rule>
void PadChannels(const Bordered<T>& t, const Rule& rule, unsigned n) {
  const auto plane = [&](unsigned c) { return t.steps.Position(std::uint64_t{n} + t.pads[0], c, 0); };
  rule.Apply(
      t.pads[2], t.interior.C, t.pads[3],
      [&](unsigned dst, unsigned src) { CopyPlanes(t, plane(dst), plane(src), 1); },
      [&](unsigned dst, unsigned count) { FillPlanes(t, plane(dst), count, rule.fill); });
}

// The batch items before and after those of the interior.
template <typename T, typename Rule>
void PadBatches(const Bordered<T>& t, const Rule& rule) {
  const auto batch = [&](unsigned n) { return t.steps.Position(n, 0, 0); };
  rule.Apply(
      t.pads[0], t.interior.N, t.pads[1],
      [&](unsigned dst, unsigned src) { CopyPlanes(t, batch(dst), batch(src), t.whole.C); },
      [&](unsigned dst, unsigned count) {
        for (unsigned n = 0; n < count; ++n) FillPlanes(t, batch(dst + n), t.whole.C, rule.fill);
      });
}

template <typename T, typename Rule>
void PadBorder(const Bordered<T>& t, const Rule& rule) {
  for (unsigned n = 0; n < t.interior.N; ++n) {
    for (unsigned c = 0; c < t.interior.C; ++c) PadPlane(t, rule, n, c);
    PadChannels(t, rule, n);
  }
  PadBatches(t, rule);
}

template <typename T>
bool MirrorBorder(const Bordered<T>& t, bool reflect) {
  VEK_REQUIRE(t.data != nullptr, "Pad_reflect_v1 input or output buffer is null.");
  PadBorder(t, MirrorRule<T>{reflect ? 1U : 0U});
  return true;
}

// --- The interior.

template <typename T>
struct Interior {
  const T* src;
  T* dst;
  Shape shape;
  Steps src_steps;   // from one group of channels to the next
  Steps dst_steps;   // from one channel to the next
  unsigned pack;     // channels of a group, side by side in the source's pixels
  std::uint64_t p0;  // elements of the target before the interior along N ...
  std::uint64_t p2;
  std::uint64_t p4;
  std::uint64_t p6;

  unsigned Groups() const { return shape.C / pack + (shape.C % pack != 0 ? 1 : 0); }

  // No position wraps and no two elements meet in the target.
  bool IsWellFormed() const {
    return detail::FitsIn32({{shape.N, src_steps.batch},
                             {Groups(), src_steps.plane},
                             {shape.H, src_steps.line},
                             {shape.W, pack}}) &&
           detail::FitsIn32({{shape.N + p0, dst_steps.batch},
                             {shape.C + p2, dst_steps.plane},
                             {shape.H + p4, dst_steps.line},
                             {shape.W + p6, 1}}) &&
           AreApart(shape, dst_steps);
  }

  // One group of channels becomes so many planes.
  void CopyGroup(unsigned n, unsigned g) const {
    const unsigned c = g * pack;
    const unsigned channels = std::min(pack, shape.C - c);
    const unsigned src_at = src_steps.Position(n, g, 0);
    const unsigned dst_at = static_cast<unsigned>(dst_steps.Position(n + p0, c + p2, p4) + p6);
    detail::CopyWalk(dst + dst_at, src + src_at,
                     {Along(shape.H, src_steps.line, dst_steps.line), Along(shape.W, pack, 1),
                      Along(channels, 1, dst_steps.plane)});
  }

  // The same, element by element.
  void CopyGroupPlainly(unsigned n, unsigned g) const {
    const unsigned c = g * pack;
    const unsigned channels = std::min(pack, shape.C - c);
    for (unsigned h = 0; h < shape.H; ++h) {
      const unsigned src_row = src_steps.Position(n, g, h);
      const unsigned dst_row = static_cast<unsigned>(dst_steps.Position(n + p0, c + p2, h + p4) + p6);
      for (unsigned w = 0; w < shape.W; ++w) {
        for (unsigned i = 0; i < channels; ++i) {
          dst[dst_row + dst_steps.Position(0, i, 0) + w] = src[src_row + w * pack + i];
        }
      }
    }
  }

  void Copy() const {
    const bool well_formed = IsWellFormed();
    for (unsigned n = 0; n < shape.N; ++n) {
      for (unsigned g = 0; g < Groups(); ++g) {
        if (well_formed) {
          CopyGroup(n, g);
        } else {
          CopyGroupPlainly(n, g);
        }
      }
    }
  }

 private:
  static detail::Axis Along(std::size_t extent, std::uint64_t src_step, std::uint64_t dst_step) {
    return {extent, static_cast<std::ptrdiff_t>(src_step), static_cast<std::ptrdiff_t>(dst_step)};
  }
};

bool BuffersGiven(const void* in_data, const void* out_data) {
  VEK_REQUIRE(in_data != nullptr && out_data != nullptr, "Pad_reflect_v1 input or output buffer is null.");
  return true;
}

// --- Both.

// Where nothing overlaps, the border of a plane is filled while its interior is still in the cache.
template <typename T, typename Rule>
void CopyAndPad(const Interior<T>& interior, const Bordered<T>& whole, const Rule& rule) {
  if (!whole.IsWellFormed() || !interior.IsWellFormed() || interior.p0 != whole.pads[0]) {
    interior.Copy();
    PadBorder(whole, rule);
    return;
  }
  for (unsigned n = 0; n < interior.shape.N; ++n) {
    for (unsigned g = 0; g < interior.Groups(); ++g) {
      interior.CopyGroup(n, g);
      const unsigned end = std::min((g + 1) * interior.pack, interior.shape.C);
      for (unsigned c = g * interior.pack; c < end; ++c) PadPlane(whole, rule, n, c);
    }
    PadChannels(whole, rule, n);
  }
  PadBatches(whole, rule);
}

enum PadMode { kReflect = 1, kEdge = 2, kSymmetric = 3, kConstant = 4 };

template <typename T>
void CopyAndPad(const Interior<T>& interior, const Bordered<T>& whole, int mode, T value) {
  switch (mode) {
    case kReflect:
    case kSymmetric:
      return CopyAndPad(interior, whole, MirrorRule<T>{mode == kReflect ? 1U : 0U});
    case kEdge:
      return CopyAndPad(interior, whole, EdgeRule<T>{});
    case kConstant:
      return CopyAndPad(interior, whole, ConstantRule<T>{value});
    default:
      return interior.Copy();
  }
}

Interior<float> DenseInterior(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                              unsigned p2, unsigned p4, unsigned p6, const float* in_data, float* out_data) {
  const Shape shape(in);
  return {in_data, out_data, shape, DenseSteps(shape), DenseSteps(Shape(out)), 1, p0, p2, p4, p6};
}

Bordered<float> DenseBordered(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, const Pads& pads,
                              float* out_data) {
  const Shape whole(out);
  return {out_data, Shape(in), whole, DenseSteps(whole), pads};
}

template <typename T>
Bordered<T> StridedBordered(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, const Pads& pads,
                            T* out_data) {
  const Shape whole(out);
  return {out_data, Shape(in), whole, StridedSteps<T>(out, whole.C), pads};
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
    if (format_ != kChannelsFirst && format_ != kChannelsLast) {
      VEK_LOG_ERROR("Unknown format not supported.");
      VEK_LOG_ERROR("can't calculate Pad");
      return false;
    }
    VEK_REQUIRE(BuffersGiven(in_data, out_data), "can't calculate Pad");
    const Pads& p = pad_shape_;
    CopyAndPad(DenseInterior(*in_attrs_, *out_attrs_, p[0], p[2], p[4], p[6],
                             static_cast<const float*>(in_data), static_cast<float*>(out_data)),
               DenseBordered(*in_attrs_, *out_attrs_, p, static_cast<float*>(out_data)), pad_mode_,
               static_cast<float>(pad_));
    return true;
  }

  return detail::DispatchWidth(
      in_format.bitdepth,
      [&](auto width) {
        using T = decltype(width);
        VEK_REQUIRE(BuffersGiven(in_data, out_data), "can't calculate Pad");
        VEK_REQUIRE(in_format.plane_pack >= 1, "plane_pack of the input = %d, but should be at least 1",
                    in_format.plane_pack);
        const Bordered<T> whole =
            StridedBordered(*in_attrs_, *out_attrs_, pad_shape_, static_cast<T*>(out_data));
        // Deliberate: the interior moves down by p0 planes, while the border counts p0 in batch items.
        Interior<T> interior{static_cast<const T*>(in_data),
                             whole.data,
                             whole.interior,
                             {},
                             whole.steps,
                             static_cast<unsigned>(in_format.plane_pack),
                             0,
                             std::uint64_t{pad_shape_[0]} + pad_shape_[2],
                             pad_shape_[4],
                             pad_shape_[6]};
        interior.src_steps = StridedSteps<T>(*in_attrs_, interior.Groups());
        CopyAndPad(interior, whole, pad_mode_, detail::FillValue<T>(pad_, out_format.exp));
        return true;
      },
      [] {
        VEK_LOG_ERROR("CopyBuffer_v1() - unhandled bitdepth!");
        return false;
      });
}

bool CopyBuffer_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0, unsigned p2,
                   unsigned p4, unsigned p6, float* in_data, float* out_data) {
  if (!BuffersGiven(in_data, out_data)) return false;
  DenseInterior(in, out, p0, p2, p4, p6, in_data, out_data).Copy();
  return true;
}

bool Pad_reflectsymm_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                        unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6,
                        unsigned p7, bool reflect, float* out_data) {
  return MirrorBorder(DenseBordered(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, out_data), reflect);
}

template <typename T>
bool Pad_reflectsymm_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                        unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6,
                        unsigned p7, bool reflect, T* out_data) {
  return MirrorBorder(StridedBordered(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, out_data), reflect);
}

bool Pad_edge_repli_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                       unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6,
                       unsigned p7, float* out_data) {
  VEK_REQUIRE(out_data != nullptr, "Pad_edge_repli_v1 input or output buffer is null.");
  PadBorder(DenseBordered(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, out_data), EdgeRule<float>{});
  return true;
}

bool Pad_const_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned pad, unsigned p0,
                  unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6, unsigned p7,
                  float* out_data) {
  VEK_REQUIRE(out_data != nullptr, "Pad_const_v1 input or output buffer is null.");
  PadBorder(DenseBordered(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, out_data),
            ConstantRule<float>{static_cast<float>(pad)});
  return true;
}

template bool Pad_reflectsymm_v1<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, unsigned,
                                      unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
                                      bool, int*);
template bool Pad_reflectsymm_v1<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, unsigned,
                                        unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
                                        bool, short*);

}  // namespace zeb_custom_ops
