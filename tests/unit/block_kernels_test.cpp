// The kernels that move blocks of elements, plain and fast, next to the model's formulas.
#include <gtest/gtest.h>

#include <algorithm>

#include "cases/contents.h"
#include "cases/kernel_forms.h"
#include "contract/positions.h"
#include "kernels/batch_to_space.h"
#include "kernels/broadcast.h"
#include "kernels/concat.h"
#include "kernels/depth_to_space.h"
#include "kernels/gather.h"
#include "kernels/pixel_shuffle.h"
#include "kernels/space_to_batch.h"
#include "kernels/space_to_depth.h"
#include "model/list.h"
#include "model/vek_batchtospace.h"
#include "model/vek_broadcast.h"
#include "model/vek_concat.h"
#include "model/vek_depthtospace.h"
#include "model/vek_gather.h"
#include "model/vek_reshape.h"
#include "model/vek_spacetobatch.h"
#include "model/vek_spacetodepth.h"

namespace vek_cases::block_kernels {
namespace {

namespace kernels = zeb_custom_ops::kernels;
using vek_model::Dims;
using vek_model::Shape;
using vek_model::u32;
using vek_model::u64;
using vek_test::Buf;
using zeb_custom_ops::detail::Fits;
using zeb_custom_ops::detail::LastPosition;
using zeb_custom_ops::detail::Saturating;

Saturating Count(const Shape& s) { return Saturating(s.n) * s.c * s.h * s.w; }

bool HasInAndOut(const Setup& setup) { return !setup.in.empty() && !setup.out.empty(); }

KernelCase MovingCase(const Setup& setup, Random& random) {
  KernelCase c;
  c.width = vek_model::WidthOf(setup.in[0].format.bitdepth);
  if (c.width == 0) c.width = random.OneOf({4U, 2U, 1U});
  c.in = {AnyBits(random)};
  return c;
}

u32 AttrOr(const Setup& setup, const char* key, u32 otherwise) {
  const std::string* text = vek_model::Find(setup.attrs, key);
  return text == nullptr ? otherwise : static_cast<u32>(vek_model::Long(*text));
}

// The numbers of a list attribute, filled up with ones.
std::vector<u32> NumbersOf(const Setup& setup, const char* key, std::size_t count) {
  std::vector<u32> numbers;
  if (const std::string* text = vek_model::Find(setup.attrs, key)) {
    for (const std::string& element : vek_model::ParseList(*text).elements) {
      numbers.push_back(static_cast<u32>(vek_model::Long(element)));
    }
  }
  numbers.resize(count, 1);
  return numbers;
}

std::optional<KernelCase> PixelShuffle(const Setup& setup, Random& random) {
  if (!HasInAndOut(setup)) return {};
  const Shape s(setup.in[0]);
  const u32 r = AttrOr(setup, "pixelshuffler", 2);
  if (s.n != 0 && s.c != 0 && r * r == 0) return {};
  const kernels::PixelShuffleShape shape{s.n, s.c, s.h, s.w, r};
  KernelCase c = MovingCase(setup, random);
  c.model = [=, width = c.width](ModelData& d) { vek_model::PixelShuffle(width, r, s, *d.in[0], d.out); };
  const bool is_whole = r != 0 && Fits(Saturating(r) * r) && s.c % (r * r) == 0;
  WithElement<int, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& d) { kernels::PlainPixelShuffle(d.Out<T>(), d.In<T>(), shape); };
    if (is_whole && Fits(Count(s))) {
      c.fast = [=](FormData& d) { kernels::PixelShuffle(d.Out<T>(), d.In<T>(), shape); };
    }
  });
  return c;
}

std::optional<KernelCase> Broadcast(const Setup& setup, Random& random) {
  if (!HasInAndOut(setup)) return {};
  KernelCase c = MovingCase(setup, random);
  const Buf in = setup.in[0];
  const Buf out = setup.out[0];
  const Shape i(in);
  const Shape o(out);
  const bool along_c = random.OneIn(2);
  const bool along_h = random.OneIn(2);
  const bool along_w = random.OneIn(2);
  const u32 in_line = in.line_stride / c.width;
  const u32 out_line = out.line_stride / c.width;
  const kernels::BroadcastShape shape{o.c, o.h, o.w, i.h, i.w, in_line, out_line, along_c, along_h, along_w};
  c.model = [=, width = c.width](ModelData& d) {
    vek_model::Broadcast(width, in, out, along_c, along_h, along_w, *d.in[0], d.out);
  };
  // Where channels repeat, one plane is put together.
  const u32 planes = along_c ? 1 : o.c;
  const Saturating in_plane = along_h ? Saturating(in_line) : Saturating(i.h) * in_line;
  const bool are_apart = out_line >= o.w || (o.h <= 1 && planes <= 1);
  const bool fits =
      Fits(LastPosition({{planes, in_plane}, {o.h, along_h ? 0 : in_line}, {o.w, 1}})) &&
      Fits(LastPosition({{planes, Saturating(o.h) * out_line}, {Saturating(o.h) + 1, out_line}, {o.w, 1}})) &&
      Fits(Saturating(o.c) * o.h * o.w);
  WithElement<int, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& d) { kernels::PlainBroadcast(d.Out<T>(), d.In<T>(), shape); };
    if ((along_c || along_h || along_w) && are_apart && fits) {
      c.fast = [=](FormData& d) { kernels::Broadcast(d.Out<T>(), d.In<T>(), shape); };
    }
  });
  return c;
}

// All inputs at once, or in two parts, the second of which starts behind the first.
std::optional<KernelCase> Concat(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  std::vector<Dims> dims;
  for (const Buf& buf : setup.in) dims.push_back(buf.dims);
  const u32 axis = AttrOr(setup, "axis", 1) % 5;
  for (const Dims& of : dims) {
    if (axis >= of.size()) return {};
  }
  KernelCase c = MovingCase(setup, random);
  c.in.resize(0);
  for (std::size_t i = 0; i < dims.size(); ++i) c.in.push_back(AnyBits(random));
  std::vector<vek_model::u32> counts;
  u32 inner = 1;
  Saturating outer = 1;
  for (std::size_t d = 0; d < axis; ++d) outer = outer * dims[0][d];
  for (std::size_t d = axis + 1; d < dims[0].size(); ++d) inner *= dims[0][d];
  Saturating row = 0;
  for (const Dims& of : dims) {
    counts.push_back(of[axis] * inner);
    row = row + counts.back();
  }
  if (!Fits(outer)) return {};
  u32 row32 = 0;
  for (u32 count : counts) row32 += count;
  const std::size_t split = random.Below(dims.size() + 1);
  c.model = [=, width = c.width](ModelData& d) { vek_model::Concat(width, dims, axis, d.in, d.out); };
  WithElement<float, unsigned short, unsigned char>(c.width, [&](auto element) {
    using T = decltype(element);
    const auto form = [=](auto kernel) {
      return [=](FormData& d) {
        std::vector<kernels::Slab<T>> slabs;
        for (std::size_t i = 0; i < counts.size(); ++i) slabs.push_back({d.In<T>(i), counts[i]});
        kernels::ConcatRows rows{outer.value(), row32, 0};
        kernel(d.Out<T>(), std::span<const kernels::Slab<T>>(slabs).first(split), rows);
        for (std::size_t i = 0; i < split; ++i) rows.offset += counts[i];
        kernel(d.Out<T>(), std::span<const kernels::Slab<T>>(slabs).subspan(split), rows);
      };
    };
    c.plain = form(&kernels::PlainConcat<T>);
    if (Fits(row) && Fits(outer * row)) c.fast = form(&kernels::Concat<T>);
  });
  return c;
}

std::optional<KernelCase> Gather(const Setup& setup, Random& random) {
  if (setup.in.size() < 2 || setup.out.empty()) return {};
  const Dims dims = setup.in[0].dims;
  const u32 axis = AttrOr(setup, "axis", 0);
  if (axis >= dims.size()) return {};
  const u32 count = vek_model::Product32(setup.in[1].dims);
  const u32 capacity = Shape(setup.out[0]).Count();
  kernels::GatherShape shape{1, dims[axis], 1, count, capacity};
  for (std::size_t d = 0; d < axis; ++d) shape.outer *= dims[d];
  for (std::size_t d = axis + 1; d < dims.size(); ++d) shape.inner *= dims[d];
  // Elements lie behind a pointer, which does not wrap: there are no more of them than a buffer's bytes.
  Saturating elements = 1;
  for (u32 dim : dims) elements = elements * dim;
  if (!Fits(elements)) return {};
  KernelCase c = MovingCase(setup, random);
  // Of a long axis only the beginning is picked.
  const u32 limit = shape.extent > 1 << 12 ? 16 : shape.extent;
  c.in.push_back(AnyIndices(random, std::max(1U, limit)));
  const auto answer = [](u64 reason, u32 index) { return reason << 32 | index; };
  using Reason = kernels::GatherStop::Reason;
  c.model = [=, width = c.width](ModelData& d) {
    const std::string text = vek_model::Gather(width, dims, axis, *d.in[0], *d.in[1], count, d.out, capacity);
    if (text.empty()) return;
    const std::string index_text = "Operation broken (in_idx >= axis Size, ";
    d.answer = text.starts_with(index_text)
                   ? answer(1, static_cast<u32>(std::stoll(text.substr(index_text.size()))))
                   : answer(2, 0);
  };
  WithElement<float, unsigned short, unsigned char>(c.width, [&](auto element) {
    using T = decltype(element);
    const auto form = [=](auto kernel) {
      return [=](FormData& d) {
        const kernels::GatherStop stop = kernel(d.Out<T>(), d.In<T>(0), d.In<std::uint32_t>(1), shape);
        d.answer = answer(stop.reason == Reason::kNone    ? 0
                          : stop.reason == Reason::kIndex ? 1
                                                          : 2,
                          stop.index);
      };
    };
    c.plain = form(&kernels::PlainGather<T>);
    c.fast = form(&kernels::Gather<T>);
  });
  return c;
}

std::optional<KernelCase> DepthToSpace(const Setup& setup, Random& random) {
  if (!HasInAndOut(setup)) return {};
  const Shape i(setup.in[0]);
  const Shape o(setup.out[0]);
  const u32 b = AttrOr(setup, "block_size", 2);
  const kernels::DepthToSpaceShape shape{i.n, i.c, i.h, i.w, o.c, b};
  const auto out_count = static_cast<vek_model::i32>(o.Count());
  KernelCase c = MovingCase(setup, random);
  c.model = [=, width = c.width](ModelData& d) {
    d.answer = vek_model::DepthToSpace(width, static_cast<vek_model::i32>(b), i, o, *d.in[0], d.out);
  };
  WithElement<int, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& d) {
      d.answer = kernels::PlainDepthToSpace(d.Out<T>(), d.In<T>(), shape, out_count);
    };
    if (Saturating(o.c) * b * b == i.c && out_count >= 0 && Count(i) <= static_cast<u32>(out_count)) {
      c.fast = [=](FormData& d) { kernels::DepthToSpace(d.Out<T>(), d.In<T>(), shape); };
    }
  });
  return c;
}

std::optional<KernelCase> SpaceToDepth(const Setup& setup, Random& random) {
  if (!HasInAndOut(setup)) return {};
  const Shape i(setup.in[0]);
  const Shape o(setup.out[0]);
  const u32 b = AttrOr(setup, "block_size", 2);
  const kernels::SpaceToDepthShape shape{i.n, i.c, i.h, i.w, o.c, o.h, o.w, b};
  KernelCase c = MovingCase(setup, random);
  c.model = [=, width = c.width](ModelData& d) {
    vek_model::SpaceToDepth(width, static_cast<vek_model::i32>(b), i, o, *d.in[0], d.out);
  };
  const bool is_whole = !i.IsEmpty() && Saturating(i.c) * b * b == o.c && Saturating(o.h) * b == i.h &&
                        Saturating(o.w) * b == i.w;
  WithElement<int, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& d) { kernels::PlainSpaceToDepth(d.Out<T>(), d.In<T>(), shape); };
    if (is_whole && Fits(Count(i))) {
      c.fast = [=](FormData& d) { kernels::SpaceToDepth(d.Out<T>(), d.In<T>(), shape); };
    }
  });
  return c;
}

std::optional<KernelCase> SpaceToBatch(const Setup& setup, Random& random) {
  if (!HasInAndOut(setup)) return {};
  const Shape i(setup.in[0]);
  const Shape o(setup.out[0]);
  const std::vector<u32> block = NumbersOf(setup, "block_shape", 2);
  const std::vector<u32> pads = NumbersOf(setup, "paddings", 4);
  const vek_model::Padding padding{block[0], block[1], pads[0], pads[2], static_cast<u32>(random())};
  const kernels::SpaceToBatchShape shape{i.n, i.c, i.h,      i.w,      o.n,     o.c,
                                         o.h, o.w, block[0], block[1], pads[0], pads[2]};
  KernelCase c = MovingCase(setup, random);
  c.model = [=, width = c.width](ModelData& d) {
    vek_model::SpaceToBatch(width, padding, i, o, *d.in[0], d.out);
  };
  const bool is_whole = Saturating(block[0]) * block[1] * i.n == o.n && o.c == i.c && !o.IsEmpty();
  WithElement<int, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    const T fill = static_cast<T>(padding.fill);
    c.plain = [=](FormData& d) { kernels::PlainSpaceToBatch(d.Out<T>(), d.In<T>(), shape, fill); };
    if (is_whole && Fits(Count(i)) && Fits(Count(o)) && Fits(Saturating(i.h) + pads[0]) &&
        Fits(Saturating(i.w) + pads[2])) {
      c.fast = [=](FormData& d) { kernels::SpaceToBatch(d.Out<T>(), d.In<T>(), shape, fill); };
    }
  });
  return c;
}

std::optional<KernelCase> BatchToSpace(const Setup& setup, Random& random) {
  if (!HasInAndOut(setup)) return {};
  const Shape i(setup.in[0]);
  const Shape o(setup.out[0]);
  const std::vector<u32> block = NumbersOf(setup, "block_shape", 2);
  const std::vector<u32> crops = NumbersOf(setup, "crops", 4);
  const vek_model::Crop crop{block[0], block[1], crops[0], crops[2]};
  const kernels::BatchToSpaceShape shape{i.c, i.h,      i.w,      o.n,      o.c,     o.h,
                                         o.w, block[0], block[1], crops[0], crops[2]};
  KernelCase c = MovingCase(setup, random);
  c.model = [=, width = c.width](ModelData& d) {
    vek_model::BatchToSpace(width, crop, i, o, *d.in[0], d.out);
  };
  const Saturating H = Saturating(i.h) * block[0];
  const Saturating W = Saturating(i.w) * block[1];
  const bool is_inside = Saturating(crops[0]) + o.h <= H && Saturating(crops[2]) + o.w <= W;
  WithElement<int, short, char>(c.width, [&](auto element) {
    using T = decltype(element);
    c.plain = [=](FormData& d) { kernels::PlainBatchToSpace(d.Out<T>(), d.In<T>(), shape); };
    if (o.c == i.c && !o.IsEmpty() && is_inside && Fits(Saturating(o.n) * i.c * H * W)) {
      c.fast = [=](FormData& d) { kernels::BatchToSpace(d.Out<T>(), d.In<T>(), shape); };
    }
  });
  return c;
}

const std::vector<Kernel> kKernels = {
    {.name = "PixelShuffle", .type = "RESHAPE", .make = PixelShuffle},
    {.name = "Broadcast", .type = "BROADCAST", .make = Broadcast},
    {.name = "Concat", .type = "SWCONCAT", .make = Concat, .wraps = false},
    {.name = "Gather", .type = "GATHER", .make = Gather, .wraps = false},
    {.name = "DepthToSpace", .type = "DEPTHTOSPACE", .make = DepthToSpace},
    {.name = "SpaceToDepth", .type = "SPACETODEPTH", .make = SpaceToDepth},
    {.name = "SpaceToBatch", .type = "SPACETOBATCH", .make = SpaceToBatch},
    {.name = "BatchToSpace", .type = "BATCHTOSPACE", .make = BatchToSpace},
};

class BlockKernels : public testing::TestWithParam<Kernel> {};

TEST_P(BlockKernels, FormsEqualTheModel) { ExpectFormsEqualTheModel(GetParam()); }
TEST_P(BlockKernels, PlainFormWraps) { ExpectPlainFormWraps(GetParam()); }

INSTANTIATE_TEST_SUITE_P(All, BlockKernels, testing::ValuesIn(kKernels),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace vek_cases::block_kernels
