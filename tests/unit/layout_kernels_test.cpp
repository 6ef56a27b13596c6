// The kernels that change layouts and borders, plain and fast, next to the model's formulas.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>

#include "cases/contents.h"
#include "cases/kernel_forms.h"
#include "contract/positions.h"
#include "copy/strided_copy.h"
#include "kernels/layout_conversion.h"
#include "kernels/pad.h"
#include "kernels/permute.h"
#include "model/list.h"
#include "model/vek_datastrideconv.h"
#include "model/vek_pad.h"
#include "model/vek_permute.h"

namespace vek_cases::layout_kernels {
namespace {

namespace detail = zeb_custom_ops::detail;
namespace kernels = zeb_custom_ops::kernels;
using detail::Fits;
using detail::LastPosition;
using detail::Loop;
using detail::Saturating;
using kernels::MakeLoop;
using vek_model::Dims;
using vek_model::Quotient;
using vek_model::Shape;
using vek_model::u32;
using vek_model::u64;
using vek_test::Buf;

bool IsOneToOne(const Setup& setup) { return setup.in.size() == 1 && setup.out.size() == 1; }

// What an element's width makes of strides; formats of less than 8 bits have none.
u32 ElementBytes(const Buf& buf) {
  return buf.format.bitdepth < 8 ? 0 : static_cast<u32>(buf.format.bitdepth) / 8;
}

kernels::Extents ExtentsOf(const Dims& dims) { return {dims[0], dims[1], dims[2], dims[3]}; }
kernels::Extents ExtentsOf(const Shape& s) { return {s.n, s.c, s.h, s.w}; }

u32 Pack(const Buf& buf) { return static_cast<u32>(buf.format.plane_pack); }
u64 GroupsOf(u32 channels, u32 pack) { return (u64{channels} + pack - 1) / pack; }

std::vector<u32> NumbersOf(const Setup& setup, const char* key) {
  std::vector<u32> numbers;
  if (const std::string* text = vek_model::Find(setup.attrs, key)) {
    for (const std::string& element : vek_model::ParseList(*text).elements) {
      numbers.push_back(static_cast<u32>(vek_model::Long(element)));
    }
  }
  return numbers;
}

// --- Conversions of layouts.

u32 PadBytes(u32 bytes, u32 count, u32 block_bytes) {
  const u64 filled = u64{count} * block_bytes;
  return filled < bytes ? static_cast<u32>(bytes - filled) : 0;
}

// A kernel of one form: pointers do not wrap.
std::optional<KernelCase> CopyPaddedPlanes(const Setup& setup, Random& random) {
  if (!IsOneToOne(setup)) return {};
  const Buf s = setup.in[0];
  const Buf d = setup.out[0];
  if (s.dims.size() < 3 || d.dims.size() != 4 || s.format.plane_pack != d.format.plane_pack || Pack(d) == 0) {
    return {};
  }
  const Dims& dims = s.line_stride <= d.line_stride ? d.dims : s.dims;
  const Saturating planes = Saturating(dims[0]) * GroupsOf(dims[1], Pack(d));
  if (!Fits(planes * dims[2])) return {};
  const kernels::PaddedPlanes padded{planes.value(),
                                     dims[2],
                                     s.line_stride,
                                     d.line_stride,
                                     PadBytes(s.plane_stride, s.dims[2], s.line_stride),
                                     PadBytes(d.plane_stride, d.dims[2], d.line_stride)};
  KernelCase c;
  c.width = 1;
  c.in = {AnyBits(random)};
  c.model = [=](ModelData& m) { vek_model::CopyRows({*m.in[0], s.size, s}, {m.out, d.size, d}); };
  c.fast = [=](FormData& f) {
    kernels::CopyPaddedPlanes(f.Out<signed char>(), d.size, f.In<signed char>(), padded);
  };
  return c;
}

std::optional<KernelCase> CopyPaddedRuns(const Setup& setup, Random& random) {
  if (!IsOneToOne(setup)) return {};
  const Buf s = setup.in[0];
  const Buf d = setup.out[0];
  const std::size_t count = s.strides.size();
  if (count == 0 || d.dims.empty() || d.dims.size() > count + 1 || d.strides.size() < count ||
      s.dims.size() + 1 < count || d.dims.size() + 1 < count) {
    return {};
  }
  const auto pads_of = [count](const Buf& buf) {
    std::vector<u32> pads;
    for (std::size_t i = 0; i + 1 < count; ++i) {
      pads.push_back(PadBytes(buf.strides[i], buf.dims[i], buf.strides[i + 1]));
    }
    pads.push_back(buf.strides[count - 1]);
    return pads;
  };
  const std::vector<u32> src_pads = pads_of(s);
  const std::vector<u32> dst_pads = pads_of(d);
  const auto fits = [&](const std::vector<u32>& pads) {
    Saturating bytes = pads.back();
    for (std::size_t i = d.dims.size() - 1; i-- > 0;) bytes = (bytes + pads[i]) * d.dims[i];
    return Fits(bytes);
  };
  const bool has_runs = std::find(d.dims.begin(), d.dims.end() - 1, 0U) == d.dims.end() - 1;
  KernelCase c;
  c.width = 1;
  c.in = {AnyBits(random)};
  c.model = [=](ModelData& m) { vek_model::CopyDims({*m.in[0], s.size, s}, {m.out, d.size, d}); };
  c.plain = [=](FormData& f) {
    u32 src_offset = 0;
    u32 dst_offset = 0;
    if (d.size != 0) std::memset(f.out, 0, d.size);
    kernels::PlainCopyPaddedRuns(f.Out<signed char>(), dst_offset, f.In<signed char>(), src_offset,
                                 {d.dims, src_pads, dst_pads}, 0);
  };
  if (has_runs && fits(src_pads) && fits(dst_pads)) {
    c.fast = [=](FormData& f) {
      kernels::CopyPaddedRuns(f.Out<signed char>(), d.size, f.In<signed char>(),
                              {d.dims, src_pads, dst_pads});
    };
  }
  return c;
}

std::optional<KernelCase> ChangeInterleaving(const Setup& setup, Random& random) {
  if (!IsOneToOne(setup)) return {};
  const Buf s = setup.in[0];
  Buf d = setup.out[0];
  d.format.bitdepth = s.format.bitdepth;
  if (s.dims.size() < 4 || d.dims.size() < 3) return {};
  const kernels::Extents e = ExtentsOf(s.dims);
  if (!e.empty() && (s.format.plane_pack < 1 || d.format.plane_pack < 1)) return {};
  const auto layout_of = [&](const Buf& buf) {
    const u32 line = Quotient(buf.line_stride, ElementBytes(s));
    const u32 plane =
        buf.plane_stride == 0 ? line * buf.dims[2] : Quotient(buf.plane_stride, ElementBytes(s));
    const float planes = std::ceil(static_cast<float>(buf.dims[1]) / static_cast<float>(Pack(buf)));
    return kernels::TensorLayout{Pack(buf), line, plane, vek_model::TruncateToUnsigned(planes) * plane};
  };
  const kernels::TensorLayout from = layout_of(s);
  const kernels::TensorLayout to = layout_of(d);
  const auto is_regular = [&](const kernels::TensorLayout& layout) {
    const u64 planes = GroupsOf(e.C, layout.pack);
    return Saturating(e.W) * layout.pack <= layout.line && Saturating(e.H) * layout.line <= layout.plane &&
           Saturating(planes) * layout.plane <= layout.batch && Fits(Saturating(e.N) * layout.batch);
  };
  KernelCase c;
  c.width = vek_model::WidthOf(s.format.bitdepth);
  if (c.width == 0) return {};
  c.in = {AnyBits(random)};
  c.model = [=, width = c.width](ModelData& m) {
    vek_model::ChangeInterleaving(width, {*m.in[0], s.size, s}, {m.out, d.size, d});
  };
  WithElement<float, short, signed char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& f) {
      kernels::PlainChangeInterleaving(f.Out<T>(), d.size, to, f.In<T>(), from, e);
    };
    if (!e.empty() && is_regular(from) && is_regular(to)) {
      c.fast = [=](FormData& f) { kernels::ChangeInterleaving(f.Out<T>(), d.size, to, f.In<T>(), from, e); };
    }
  });
  return c;
}

// --- Permutations.

// The fast form is the strided copy; what the buffer holds beyond its dims is the plain form's in both.
std::optional<KernelCase> Permute(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  const Dims dims = setup.in[0].dims;
  const std::size_t rank = dims.size();
  Dims order = vek_model::CompletedOrder(NumbersOf(setup, "axes"), rank);
  order.resize(rank);
  Saturating elements = 1;
  for (u32 dim : dims) elements = elements * dim;
  for (u32 axis : order) {
    if (axis >= rank) return {};
  }
  const u32 count = vek_model::Product32(dims) + random.OneOf({0U, 0U, 0U, 1U, 5U, 20U});
  std::vector<Loop> loops(rank);
  for (std::size_t i = 0; i < rank; ++i) {
    u32 src_step = 1;
    u32 dst_step = 1;
    for (std::size_t d = order[i] + 1; d < rank; ++d) src_step *= dims[d];
    for (std::size_t j = i + 1; j < rank; ++j) dst_step *= dims[order[j]];
    loops[i] = MakeLoop(dims[order[i]], src_step, dst_step);
  }
  const bool is_permutation = std::set<u32>(order.begin(), order.end()).size() == rank;
  KernelCase c;
  c.width = vek_model::WidthOf(setup.in[0].format.bitdepth);
  if (c.width == 0) return {};
  c.in = {AnyBits(random)};
  c.model = [=, width = c.width](ModelData& m) {
    EXPECT_TRUE(vek_model::PermuteDense(width, dims, order, *m.in[0], m.out, count));
  };
  WithElement<float, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& f) { kernels::PlainPermute<T>(f.Out<T>(), f.In<T>(), loops, 0, count); };
    if (is_permutation && elements <= count) {
      c.fast = [=, done = static_cast<u32>(elements.value())](FormData& f) {
        detail::StridedCopy<T>(f.Out<T>(), f.In<T>(), loops);
        kernels::PlainPermute<T>(f.Out<T>(), f.In<T>(), loops, done, count);
      };
    }
  });
  return c;
}

Saturating RoundedUp(Saturating number, u32 step) {
  if (step == 0 || !Fits(number)) return number;
  return (number.value() + step - 1) / step * step;
}

std::optional<KernelCase> UnpackToNhwc(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  const Buf in = setup.in[0];
  KernelCase c;
  c.width = vek_model::WidthOf(in.format.bitdepth);
  if (c.width == 0 || in.dims.size() < 4) return {};
  const kernels::Extents e = ExtentsOf(in.dims);
  if (in.format.plane_pack < 1) return {};
  const u32 P = Pack(in);
  const kernels::ChannelPlanes planes{e, P, in.line_stride / c.width,
                                      (in.plane_stride - in.line_stride * e.H) / c.width};
  c.in = {AnyBits(random)};
  c.model = [=, width = c.width](ModelData& m) { vek_model::UnpackToNhwc(width, in, *m.in[0], m.out); };
  const Saturating row = RoundedUp(Saturating(P) * e.W, planes.line);
  const Saturating plane = row * e.H + planes.plane_pad;
  const Saturating item = plane * GroupsOf(e.C, P);
  const bool rows_are_even = RoundedUp(plane, planes.line) == plane;
  WithElement<int, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& f) { kernels::PlainUnpackToNhwc<T>(f.Out<T>(), f.In<T>(), planes); };
    if (!e.empty() && rows_are_even && Fits(item * e.N)) {
      c.fast = [=](FormData& f) {
        kernels::CopyChannelGroups<T>(
            f.Out<T>(), f.In<T>(), MakeLoop(e.N, item.value(), u64{e.C} * e.H * e.W),
            MakeLoop(0, plane.value(), P), MakeLoop(e.H, row.value(), u64{e.W} * e.C), MakeLoop(e.W, P, e.C),
            e.C, P);
      };
    }
  });
  return c;
}

std::optional<KernelCase> PackToNchw(const Setup& setup, Random& random) {
  if (!IsOneToOne(setup)) return {};
  const Buf in = setup.in[0];
  const Buf out = setup.out[0];
  KernelCase c;
  c.width = vek_model::WidthOf(out.format.bitdepth);
  if (c.width == 0 || in.dims.size() < 3 || out.dims.size() < 4) return {};
  if (out.format.plane_pack < 1 || out.line_stride % c.width != 0) return {};
  const kernels::Extents e = ExtentsOf(out.dims);
  if (e.empty() && std::max({e.N, e.C, e.H, e.W}) > 1 << 12) return {};  // many loops over nothing
  const u32 P = Pack(out);
  const u32 line = out.line_stride / c.width;
  const u32 in_plane = in.plane_stride / c.width;
  const kernels::ChannelPlanes planes{e, P, line, out.plane_stride / c.width - line * e.H};
  const kernels::PixelRows pixels{in.dims[1], in_plane, in_plane - in.line_stride / c.width * in.dims[2]};
  c.in = {AnyBits(random)};
  c.model = [=, width = c.width](ModelData& m) {
    EXPECT_EQ(vek_model::PackToNchw(width, in, *m.in[0], out, m.out), "");
  };
  // A single plane per item takes the input's rows one behind the other.
  const bool is_single = P >= e.C;
  const Saturating in_row = is_single ? Saturating(e.W) * e.C + pixels.row_pad : Saturating(in_plane);
  const Saturating in_item = in_row * (is_single ? e.H : pixels.rows);
  const Saturating plane = Saturating(line) * e.H + planes.plane_pad;
  const Saturating item = plane * GroupsOf(e.C, P);
  const bool fits = Saturating(P) * e.W <= line && Fits(item * e.N) &&
                    Fits(LastPosition({{e.N, in_item}, {e.H, in_row}, {e.W, e.C}, {e.C, 1}}));
  WithElement<int, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& f) { kernels::PlainPackToNchw<T>(f.Out<T>(), planes, f.In<T>(), pixels); };
    if (!e.empty() && fits) {
      c.fast = [=](FormData& f) {
        kernels::CopyChannelGroups<T>(f.Out<T>(), f.In<T>(), MakeLoop(e.N, in_item.value(), item.value()),
                                      MakeLoop(0, P, plane.value()), MakeLoop(e.H, in_row.value(), line),
                                      MakeLoop(e.W, e.C, P), e.C, P);
      };
    }
  });
  return c;
}

// --- Padding.

// What the three kernels take: the whole tensor by its strides, or dense floats.
struct Padding {
  vek_model::Pads pads{};
  int mode = 0;
  u32 fill = 0;
  bool is_dense = false;
  u32 width = 4;
  Buf in;
  Buf out;
  vek_model::Steps in_steps{};
  vek_model::Steps out_steps{};
  u32 pack = 1;

  Shape Inside() const { return Shape(in); }
  Shape Whole() const { return Shape(out); }
  // Deliberate: through the strides, the interior's position along N is counted in planes.
  u64 p0() const { return is_dense ? pads[0] : 0; }
  u64 p2() const { return is_dense ? pads[2] : u64{pads[0]} + pads[2]; }

  static kernels::TensorLayout Layout(const vek_model::Steps& steps, u32 pack) {
    return {pack, steps.line, steps.plane, steps.batch};
  }
  template <typename T>
  kernels::Interior<T> InteriorOf(FormData& f) const {
    return {
        f.In<T>(), f.Out<T>(), ExtentsOf(Inside()), Layout(in_steps, pack), Layout(out_steps, 1), p0(), p2(),
        pads[4],   pads[6]};
  }
  template <typename T>
  kernels::Border<T> BorderOf(FormData& f) const {
    T constant{};
    std::memcpy(&constant, &fill, sizeof constant);
    return {f.Out<T>(), ExtentsOf(Inside()), ExtentsOf(Whole()), Layout(out_steps, 1), pads, mode, constant};
  }
  void ModelInterior(ModelData& m) const {
    if (is_dense) return vek_model::CopyDenseInterior(pads, Inside(), Whole(), *m.in[0], m.out);
    vek_model::CopyStridedInterior(width, pads, in, out, *m.in[0], m.out);
  }
  void ModelBorder(ModelData& m) const {
    vek_model::PadBorder(width, mode, pads, Inside(), Whole(), out_steps, fill, m.out);
  }
  // Dense or padded rows, planes and items that do not meet.
  static bool AreApart(const Shape& s, const vek_model::Steps& steps) {
    const Saturating plane = s.h == 0 ? Saturating(0) : Saturating(s.h - 1) * steps.line + s.w;
    const Saturating item = s.c == 0 ? Saturating(0) : Saturating(s.c - 1) * steps.plane + plane;
    return s.IsEmpty() || ((s.h == 1 || s.w <= steps.line) && (s.c == 1 || plane <= steps.plane) &&
                           (s.n == 1 || item <= steps.batch));
  }
  bool HasFastInterior() const {
    const Shape s = Inside();
    return Fits(LastPosition({{s.n, in_steps.batch},
                              {GroupsOf(s.c, pack), in_steps.plane},
                              {s.h, in_steps.line},
                              {Saturating(s.w) * pack, 1}})) &&
           Fits(LastPosition({{Saturating(s.n) + p0(), out_steps.batch},
                              {Saturating(s.c) + p2(), out_steps.plane},
                              {Saturating(s.h) + pads[4], out_steps.line},
                              {Saturating(s.w) + pads[6], 1}})) &&
           AreApart(s, out_steps);
  }
  bool HasFastBorder() const {
    const Shape s = Inside();
    const Shape w = Whole();
    const auto adds_up = [&](std::size_t axis, u32 inside, u32 whole) {
      return u64{pads[2 * axis]} + inside + pads[2 * axis + 1] == whole;
    };
    return adds_up(0, s.n, w.n) && adds_up(1, s.c, w.c) && adds_up(2, s.h, w.h) && adds_up(3, s.w, w.w) &&
           (mode != kernels::kEdge || !s.IsEmpty()) &&
           Fits(LastPosition(
               {{w.n, out_steps.batch}, {w.c, out_steps.plane}, {w.h, out_steps.line}, {w.w, 1}})) &&
           AreApart(w, out_steps);
  }
};

std::optional<Padding> PaddingOf(const Setup& setup, Random& random) {
  if (!IsOneToOne(setup)) return {};
  Padding p;
  p.in = setup.in[0];
  const Shape s = p.Inside();
  if (s.IsEmpty() && std::max({s.n, s.c, s.h, s.w}) > 1 << 12) return {};  // many loops over nothing
  p.out = setup.out[0];
  std::vector<u32> pads = NumbersOf(setup, "pad_shape");
  pads.resize(8);
  std::copy(pads.begin(), pads.end(), p.pads.begin());
  const std::string* mode = vek_model::Find(setup.attrs, "pad_mode");
  p.mode = mode == nullptr ? 0 : static_cast<int>(vek_model::Long(*mode));
  if (p.mode < 1 || p.mode > 4) p.mode = static_cast<int>(random.Between(1, 4));
  p.fill = static_cast<u32>(random());
  p.width = vek_model::WidthOf(p.in.format.bitdepth);
  p.is_dense = p.width == 4 && random.OneIn(3);
  if (p.width == 0) return {};
  if (p.is_dense) {
    p.in_steps = vek_model::Steps::Dense(p.Inside());
    p.out_steps = vek_model::Steps::Dense(p.Whole());
    return p;
  }
  if (!p.Inside().IsEmpty()) {
    if (p.in.format.plane_pack < 1) return {};
    p.pack = Pack(p.in);
  }
  p.in_steps = vek_model::Steps::Strided(p.width, p.in, static_cast<u32>(GroupsOf(p.Inside().c, p.pack)));
  p.out_steps = vek_model::Steps::Strided(p.width, p.out, p.Whole().c);
  return p;
}

// Elements of 4 bytes are floats in the dense tensor, and integers, which are moved alike, in the others.
template <typename Body>
void WithElementOf(const Padding& p, const Body& body) {
  if (p.is_dense) return body(float{});
  WithElement<int, short, char>(p.width, body);
}

KernelCase PaddingCase(const Padding& p, Random& random) {
  KernelCase c;
  c.width = p.width;
  c.in = {AnyBits(random)};
  return c;
}

std::optional<KernelCase> CopyInterior(const Setup& setup, Random& random) {
  const std::optional<Padding> padding = PaddingOf(setup, random);
  if (!padding) return {};
  const Padding p = *padding;
  KernelCase c = PaddingCase(p, random);
  c.model = [=](ModelData& m) { p.ModelInterior(m); };
  WithElementOf(p, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& f) { kernels::PlainCopyInterior(p.InteriorOf<T>(f)); };
    if (p.HasFastInterior()) c.fast = [=](FormData& f) { kernels::CopyInterior(p.InteriorOf<T>(f)); };
  });
  return c;
}

std::optional<KernelCase> PadBorder(const Setup& setup, Random& random) {
  const std::optional<Padding> padding = PaddingOf(setup, random);
  if (!padding) return {};
  const Padding p = *padding;
  KernelCase c = PaddingCase(p, random);
  c.model = [=](ModelData& m) { p.ModelBorder(m); };
  WithElementOf(p, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& f) { kernels::PlainPad(p.BorderOf<T>(f)); };
    if (p.HasFastBorder()) c.fast = [=](FormData& f) { kernels::Pad(p.BorderOf<T>(f)); };
  });
  return c;
}

std::optional<KernelCase> CopyAndPad(const Setup& setup, Random& random) {
  const std::optional<Padding> padding = PaddingOf(setup, random);
  if (!padding) return {};
  const Padding p = *padding;
  KernelCase c = PaddingCase(p, random);
  c.model = [=](ModelData& m) {
    p.ModelInterior(m);
    p.ModelBorder(m);
  };
  WithElementOf(p, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& f) {
      kernels::PlainCopyInterior(p.InteriorOf<T>(f));
      kernels::PlainPad(p.BorderOf<T>(f));
    };
    // Around that interior: its position along N is the border's.
    if (p.HasFastInterior() && p.HasFastBorder() && p.p0() == p.pads[0]) {
      c.fast = [=](FormData& f) { kernels::CopyAndPad(p.InteriorOf<T>(f), p.BorderOf<T>(f)); };
    }
  });
  return c;
}

const std::vector<Kernel> kKernels = {
    {.name = "CopyPaddedPlanes",
     .type = "DATA_STRIDE_CONV",
     .make = CopyPaddedPlanes,
     .has_plain = false,
     .wraps = false},
    {.name = "CopyPaddedRuns", .type = "DATA_STRIDE_CONV", .make = CopyPaddedRuns},
    {.name = "ChangeInterleaving", .type = "DATA_STRIDE_CONV", .make = ChangeInterleaving},
    {.name = "Permute", .type = "PERMUTE", .make = Permute},
    {.name = "UnpackToNhwc", .type = "PERMUTE", .make = UnpackToNhwc},
    {.name = "PackToNchw", .type = "PERMUTE", .make = PackToNchw},
    {.name = "CopyInterior", .type = "PAD", .make = CopyInterior},
    {.name = "Pad", .type = "PAD", .make = PadBorder},
    {.name = "CopyAndPad", .type = "PAD", .make = CopyAndPad},
};

class LayoutKernels : public testing::TestWithParam<Kernel> {};

TEST_P(LayoutKernels, FormsEqualTheModel) { ExpectFormsEqualTheModel(GetParam()); }
TEST_P(LayoutKernels, PlainFormWraps) { ExpectPlainFormWraps(GetParam()); }

INSTANTIATE_TEST_SUITE_P(All, LayoutKernels, testing::ValuesIn(kKernels),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace vek_cases::layout_kernels
