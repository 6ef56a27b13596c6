// Layer type "PAD".
#include "custom_ops/vek_pad.h"

#include <algorithm>
#include <vector>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/fixed_point.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/strided_copy.h"
#include "custom_ops/vek_common.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::Fits;
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

// One loop of a walk inside a tensor: `extent` steps of `step` elements.
struct Loop {
  std::uint64_t extent = 1;
  std::uint64_t step = 0;
};

detail::Loop Along(std::uint64_t extent, std::uint64_t src_step, std::uint64_t dst_step) {
  return {extent, static_cast<std::ptrdiff_t>(src_step), static_cast<std::ptrdiff_t>(dst_step)};
}

// --- The border of one axis, in units: elements of a row, rows of a plane, planes of an item, or items.

enum PadMode { kReflect = 1, kEdge = 2, kSymmetric = 3, kConstant = 4 };

// `copied` units, the first from `src` to `dst` and the others that many steps on, then `filled` units from
// `fill_dst` on.
struct Side {
  unsigned copied = 0;
  unsigned dst = 0;
  unsigned src = 0;
  int dst_step = 0;
  int src_step = 0;
  unsigned filled = 0;
  unsigned fill_dst = 0;
};
using Border = std::array<Side, 2>;  // before and after the interior

Border BorderOf(int mode, unsigned before, unsigned extent, unsigned after) {
  const unsigned behind = before + extent;
  if (mode == kConstant) return {Side{0, 0, 0, 0, 0, before, 0}, Side{0, 0, 0, 0, 0, after, behind}};
  if (mode == kEdge)
    return {Side{before, 0, before, 1, 0, 0, 0}, Side{after, behind, behind - 1, 1, 0, 0, 0}};
  // Mirrored as far as the interior reaches; what lies farther out becomes 0.
  const unsigned skipped = mode == kReflect ? 1 : 0;
  const unsigned supply = extent > skipped ? extent - skipped : 0;
  const unsigned left = std::min(supply, before);
  const unsigned right = std::min(supply, after);
  return {Side{left, before - 1, before + skipped, -1, 1, before - left, 0},
          Side{right, behind, behind - 1 - skipped, 1, -1, after - right, behind + right}};
}

// --- A tensor whose interior is written and whose border is filled from it, in place: the columns beside the
// interior rows, then whole rows, planes and batch items, so that the corners come out right.

template <typename T>
struct Bordered {
  T* data;
  Shape interior;
  Shape whole;
  Steps steps;
  Pads pads;
  int mode;
  T constant;

  // The pads and the interior make up the whole tensor, no position wraps, no two elements meet, and an edge that is
  // repeated exists.
  bool IsWellFormed() const {
    const auto adds_up = [](unsigned before, unsigned extent, unsigned after, unsigned sum) {
      return std::uint64_t{before} + extent + after == sum;
    };
    return adds_up(pads[0], interior.N, pads[1], whole.N) && adds_up(pads[2], interior.C, pads[3], whole.C) &&
           adds_up(pads[4], interior.H, pads[5], whole.H) && adds_up(pads[6], interior.W, pads[7], whole.W) &&
           (mode != kEdge || (interior.N != 0 && interior.C != 0 && interior.H != 0 && interior.W != 0)) &&
           LastPosition({{whole.N, steps.batch}, {whole.C, steps.plane}, {whole.H, steps.line}, {whole.W, 1}})
               .Fits() &&
           AreApart(whole, steps);
  }

  void Pad() const {
    if (!IsWellFormed()) return PadPlainly();
    for (unsigned n = 0; n < interior.N; ++n) {
      PadPlanes(n, 0, interior.C);
      PadChannels(n);
    }
    PadBatches();
  }

  // The parts of a well-formed tensor. Planes of several channels are taken together.
  void PadPlanes(unsigned n, unsigned c, unsigned planes) const {
    const unsigned plane = steps.Position(std::uint64_t{n} + pads[0], std::uint64_t{c} + pads[2], 0);
    const unsigned row = plane + steps.Position(0, 0, pads[4]);
    PadAxis(row, 1, Columns(), {Loop{planes, steps.plane}, Loop{interior.H, steps.line}});
    PadAxis(plane, steps.line, Rows(), {Loop{planes, steps.plane}, Loop{whole.W, 1}});
  }
  void PadChannels(unsigned n) const {
    PadAxis(steps.Position(std::uint64_t{n} + pads[0], 0, 0), steps.plane, Channels(),
            {Loop{whole.H, steps.line}, Loop{whole.W, 1}});
  }
  void PadBatches() const {
    PadAxis(0, steps.batch, Batches(),
            {Loop{whole.C, steps.plane}, Loop{whole.H, steps.line}, Loop{whole.W, 1}});
  }

 private:
  using Loops = std::array<Loop, 3>;  // outermost first; those that are not given take one step

  Border Columns() const { return BorderOf(mode, pads[6], interior.W, pads[7]); }
  Border Rows() const { return BorderOf(mode, pads[4], interior.H, pads[5]); }
  Border Channels() const { return BorderOf(mode, pads[2], interior.C, pads[3]); }
  Border Batches() const { return BorderOf(mode, pads[0], interior.N, pads[1]); }

  // Element by element, in the order of the kernels.
  void PadPlainly() const {
    for (unsigned n = 0; n < interior.N; ++n) {
      const unsigned item = steps.Position(std::uint64_t{n} + pads[0], 0, 0);
      for (unsigned c = 0; c < interior.C; ++c) {
        const unsigned plane = item + steps.Position(0, std::uint64_t{c} + pads[2], 0);
        for (unsigned h = 0; h < interior.H; ++h) {
          PadAxisPlainly(plane + steps.Position(0, 0, std::uint64_t{h} + pads[4]), 1, Columns(), {});
        }
        PadAxisPlainly(plane, steps.line, Rows(), {Loop{whole.W, 1}});
      }
      PadAxisPlainly(item, steps.plane, Channels(), {Loop{whole.H, steps.line}, Loop{whole.W, 1}});
    }
    PadAxisPlainly(0, steps.batch, Batches(),
                   {Loop{whole.C, steps.plane}, Loop{whole.H, steps.line}, Loop{whole.W, 1}});
  }

  // `origin` is where unit 0 of the axis starts, `step` leads to the next one; the loops run inside a unit or, where
  // rows are taken together, around it.
  void PadAxis(unsigned origin, std::uint64_t step, const Border& border, const Loops& loops) const {
    const auto along = [&](const Loop& loop, bool copied) {
      return Along(loop.extent, copied ? loop.step : 0, loop.step);
    };
    const auto signed_step = static_cast<std::ptrdiff_t>(step);
    const T fill = mode == kConstant ? constant : T{0};
    for (const Side& side : border) {
      if (side.copied != 0) {
        detail::StridedCopy(data + (origin + side.dst * step), data + (origin + side.src * step),
                            {{side.copied, side.src_step * signed_step, side.dst_step * signed_step},
                             along(loops[0], true),
                             along(loops[1], true),
                             along(loops[2], true)});
      }
      if (side.filled != 0) {
        detail::StridedCopy(data + (origin + side.fill_dst * step), &fill,
                            {{side.filled, 0, signed_step},
                             along(loops[0], false),
                             along(loops[1], false),
                             along(loops[2], false)});
      }
    }
  }

  void PadAxisPlainly(unsigned origin, std::uint64_t step, const Border& border, const Loops& loops) const {
    const auto unit = [&](unsigned i) { return static_cast<unsigned>(origin + i * step); };
    const auto for_elements = [&](auto body) {
      for (std::uint64_t i = 0; i < loops[0].extent; ++i) {
        for (std::uint64_t j = 0; j < loops[1].extent; ++j) {
          for (std::uint64_t k = 0; k < loops[2].extent; ++k) {
            body(static_cast<unsigned>(i * loops[0].step + j * loops[1].step + k * loops[2].step));
          }
        }
      }
    };
    const T fill = mode == kConstant ? constant : T{0};
    for (const Side& side : border) {
      for (unsigned i = 0; i < side.copied; ++i) {
        const unsigned dst = unit(side.dst + i * static_cast<unsigned>(side.dst_step));
        const unsigned src = unit(side.src + i * static_cast<unsigned>(side.src_step));
        for_elements([&](unsigned at) { data[dst + at] = data[src + at]; });
      }
      for (unsigned i = 0; i < side.filled; ++i) {
        const unsigned dst = unit(side.fill_dst + i);
        for_elements([&](unsigned at) { data[dst + at] = fill; });
      }
    }
  }
};

template <typename T>
bool MirrorBorder(const Bordered<T>& t) {
  VEK_REQUIRE(t.data != nullptr, "Pad_reflect_v1 input or output buffer is null.");
  t.Pad();
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
  std::uint64_t p0;  // what lies before the interior in the target along N ...
  std::uint64_t p2;
  std::uint64_t p4;
  std::uint64_t p6;

  unsigned Groups() const { return shape.C / pack + (shape.C % pack != 0 ? 1 : 0); }

  // No position wraps and no two elements meet in the target.
  bool IsWellFormed() const {
    return LastPosition({{shape.N, src_steps.batch},
                         {Groups(), src_steps.plane},
                         {shape.H, src_steps.line},
                         {shape.W, pack},
                         {pack, 1}})
               .Fits() &&
           LastPosition({{shape.N + p0, dst_steps.batch},
                         {shape.C + p2, dst_steps.plane},
                         {shape.H + p4, dst_steps.line},
                         {shape.W + p6, 1}})
               .Fits() &&
           AreApart(shape, dst_steps);
  }

  // Groups of channels of one batch item become planes.
  void CopyGroups(unsigned n, unsigned first, unsigned last) const {
    const unsigned filled = std::min(last, shape.C / pack);
    CopyEqualGroups(n, first, filled, pack);
    CopyEqualGroups(n, filled, last, shape.C % pack);
  }

  void Copy() const {
    if (!IsWellFormed()) return CopyPlainly();
    for (unsigned n = 0; n < shape.N; ++n) CopyGroups(n, 0, Groups());
  }

 private:
  void CopyEqualGroups(unsigned n, unsigned first, unsigned last, unsigned channels) const {
    if (first >= last) return;
    const std::uint64_t c = std::uint64_t{first} * pack;
    const auto dst_at = static_cast<unsigned>(dst_steps.Position(n + p0, c + p2, p4) + p6);
    detail::StridedCopy(
        dst + dst_at, src + src_steps.Position(n, first, 0),
        {Along(last - first, src_steps.plane, pack * dst_steps.plane), Along(channels, 1, dst_steps.plane),
         Along(shape.H, src_steps.line, dst_steps.line), Along(shape.W, pack, 1)});
  }

  // Element by element, pixel by pixel.
  void CopyPlainly() const {
    for (unsigned n = 0; n < shape.N; ++n) {
      for (unsigned g = 0; g < Groups(); ++g) {
        const unsigned c = g * pack;
        const unsigned channels = std::min(pack, shape.C - c);
        for (unsigned h = 0; h < shape.H; ++h) {
          const unsigned src_row = src_steps.Position(n, g, h);
          const auto dst_row = static_cast<unsigned>(dst_steps.Position(n + p0, c + p2, h + p4) + p6);
          for (unsigned w = 0; w < shape.W; ++w) {
            for (unsigned i = 0; i < channels; ++i) {
              dst[dst_row + dst_steps.Position(0, i, 0) + w] = src[src_row + w * pack + i];
            }
          }
        }
      }
    }
  }
};

bool BuffersGiven(const void* in_data, const void* out_data) {
  VEK_REQUIRE(in_data != nullptr && out_data != nullptr, "Pad_reflect_v1 input or output buffer is null.");
  return true;
}

// --- Both.

template <typename T>
void CopyAndPad(const Interior<T>& interior, const Bordered<T>& whole) {
  if (whole.mode < kReflect || whole.mode > kConstant) return interior.Copy();
  if (!interior.IsWellFormed() || !whole.IsWellFormed() || interior.p0 != whole.pads[0]) {
    interior.Copy();
    return whole.Pad();
  }
  // The border of a few planes is filled while their interior is still in the cache.
  constexpr std::uint64_t kCachedBytes = 16384;
  const std::uint64_t group_bytes = std::max<std::uint64_t>(1, interior.pack * whole.steps.plane * sizeof(T));
  const auto block = static_cast<unsigned>(std::max<std::uint64_t>(1, kCachedBytes / group_bytes));
  const unsigned groups = interior.Groups();
  for (unsigned n = 0; n < interior.shape.N; ++n) {
    for (unsigned g = 0; g < groups; g += std::min(block, groups - g)) {
      const unsigned end = g + std::min(block, groups - g);
      interior.CopyGroups(n, g, end);
      const unsigned c = g * interior.pack;
      whole.PadPlanes(n, c, end == groups ? interior.shape.C - c : (end - g) * interior.pack);
    }
    whole.PadChannels(n);
  }
  whole.PadBatches();
}

Interior<float> DenseInterior(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                              unsigned p2, unsigned p4, unsigned p6, const float* in_data, float* out_data) {
  const Shape shape(in);
  return {in_data, out_data, shape, DenseSteps(shape), DenseSteps(Shape(out)), 1, p0, p2, p4, p6};
}

Bordered<float> DenseBordered(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, const Pads& pads,
                              int mode, unsigned constant, float* out_data) {
  const Shape whole(out);
  return {out_data, Shape(in), whole, DenseSteps(whole), pads, mode, static_cast<float>(constant)};
}

template <typename T>
Bordered<T> StridedBordered(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, const Pads& pads,
                            int mode, T constant, T* out_data) {
  const Shape whole(out);
  return {out_data, Shape(in), whole, StridedSteps<T>(out, whole.C), pads, mode, constant};
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
               DenseBordered(*in_attrs_, *out_attrs_, p, pad_mode_, pad_, static_cast<float*>(out_data)));
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
            StridedBordered(*in_attrs_, *out_attrs_, pad_shape_, pad_mode_,
                            detail::FillValue<T>(pad_, out_format.exp), static_cast<T*>(out_data));
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
        CopyAndPad(interior, whole);
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
  return MirrorBorder(
      DenseBordered(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, reflect ? kReflect : kSymmetric, 0, out_data));
}

template <typename T>
bool Pad_reflectsymm_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                        unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6,
                        unsigned p7, bool reflect, T* out_data) {
  return MirrorBorder(StridedBordered(in, out, {p0, p1, p2, p3, p4, p5, p6, p7},
                                      reflect ? kReflect : kSymmetric, T{0}, out_data));
}

bool Pad_edge_repli_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned p0,
                       unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6,
                       unsigned p7, float* out_data) {
  VEK_REQUIRE(out_data != nullptr, "Pad_edge_repli_v1 input or output buffer is null.");
  DenseBordered(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, kEdge, 0, out_data).Pad();
  return true;
}

bool Pad_const_v1(const zeb::PuxDnnBufAttrs& in, const zeb::PuxDnnBufAttrs& out, unsigned pad, unsigned p0,
                  unsigned p1, unsigned p2, unsigned p3, unsigned p4, unsigned p5, unsigned p6, unsigned p7,
                  float* out_data) {
  VEK_REQUIRE(out_data != nullptr, "Pad_const_v1 input or output buffer is null.");
  DenseBordered(in, out, {p0, p1, p2, p3, p4, p5, p6, p7}, kConstant, pad, out_data).Pad();
  return true;
}

template bool Pad_reflectsymm_v1<int>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, unsigned,
                                      unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
                                      bool, int*);
template bool Pad_reflectsymm_v1<short>(const zeb::PuxDnnBufAttrs&, const zeb::PuxDnnBufAttrs&, unsigned,
                                        unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
                                        bool, short*);

}  // namespace zeb_custom_ops
