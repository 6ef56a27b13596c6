#include "cases/setups.h"

#include <algorithm>
#include <functional>
#include <map>

#include "custom_ops/layer_types.h"

namespace vek_cases {
namespace {

using vek_test::AttrMap;
using vek_test::Buf;
using vek_test::Format;
using Dims = std::vector<unsigned>;

// --- Texts.

// A number in one of the ways that read as it.
std::string Number(Random& random, std::int64_t value) {
  const std::string text = std::to_string(value);
  switch (random.Below(12)) {
    case 7:
      return " " + text;
    case 8:
      return value < 0 ? text : "+" + text;
    case 9:
      return text + "x";
    case 10:
      return text + ".9";
    case 11:
      return std::to_string(value + 4294967296);
    default:
      return text;
  }
}

// A list in one of the ways that read as it, at times with an element too many.
std::string List(Random& random, const Dims& numbers) {
  const bool nested = numbers.size() % 2 == 0 && !numbers.empty() && random.OneIn(5);
  std::string text = nested ? "[[" : random.OneIn(16) ? "" : "[";
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    if (i != 0) text += nested && i % 2 == 0 ? "],[" : ",";
    text += random.OneIn(4) ? Number(random, numbers[i]) : std::to_string(numbers[i]);
  }
  text += nested ? "]]" : "]";
  if (random.OneIn(40)) text += " ";
  return text;
}

// Four numbers and no more; the standard library's conversion reads them.
std::string ExactList(const Dims& numbers) {
  std::string text = "[";
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    text += i == 0 ? "" : ",";
    text += std::to_string(numbers[i]);
  }
  return text + "]";
}

std::string AnyText(Random& random) {
  if (random.OneIn(3)) {
    std::string text;
    for (std::uint64_t i = random.Below(14); i > 0; --i) {
      text += random.OneOf({'[', ']', ',', '1', '0', '2', '-', ' ', 'x', '9'});
    }
    return text;
  }
  static const std::vector<std::string> texts = {"",
                                                 "abc",
                                                 "x",
                                                 "-1",
                                                 "-2",
                                                 "0",
                                                 "1",
                                                 "2",
                                                 "3",
                                                 "4",
                                                 "5",
                                                 "-7",
                                                 "65536",
                                                 "2147483648",
                                                 "4294967297",
                                                 "99999999999999999999",
                                                 "[]",
                                                 "[ ]",
                                                 "[]]",
                                                 "[1]",
                                                 "[2]",
                                                 "1,2",
                                                 "[1,2",
                                                 "[1,",
                                                 "[[1,2",
                                                 "[1,2]",
                                                 "[1,2,3]",
                                                 "[0,0]",
                                                 "[0,1]",
                                                 "[2,0]",
                                                 "[2,2]",
                                                 "[2,2]\n",
                                                 "[-1,1]",
                                                 "[1,-1]",
                                                 "[x,y]",
                                                 "[0,1,2,3]",
                                                 "[0,2,3,1]",
                                                 "[0,3,1,2]",
                                                 "[3,2,1,0]",
                                                 "[1,1,1,1]",
                                                 "[0,0,0,0]",
                                                 "[-1,1,0,0]",
                                                 "[0,0,-1,1]",
                                                 "[3,5,7,9]",
                                                 "[[1,2],[3]]",
                                                 "[1,[2,3]]",
                                                 "[[1,0],[0,1]]",
                                                 "[a,b,c,d]",
                                                 "0x3",
                                                 "[65536,65536]",
                                                 "[0,0,0,0,1,1,1,1]",
                                                 " 2",
                                                 "1.5",
                                                 "true",
                                                 "-0x7",
                                                 "[1,2,99999999999]",
                                                 "[4294967295,1]",
                                                 "[4294967295,1,4294967295,1]"};
  return random.OneOf(texts);
}

// --- Extents.

// Divides extents until they have no more than `most` elements, nor more than the case may have.
Dims Shrunk(Random& random, Dims dims, std::uint64_t most) {
  most = std::min(most, random.MostElements());
  for (std::size_t i = 0; !dims.empty(); i = (i + 1) % dims.size()) {
    std::uint64_t count = 1;
    for (unsigned dim : dims) count *= dim;
    if (count <= most) break;
    if (dims[i] > 1) dims[i] = (dims[i] + 1) / 2;
  }
  return dims;
}

Dims Extents(Random& random, std::size_t rank, std::uint64_t most = 300) {
  Dims dims(rank);
  for (unsigned& dim : dims) dim = random.Extent();
  if (rank == 4) dims[0] = dims[0] % 4;
  return Shrunk(random, std::move(dims), random.OneIn(8) ? 10 * most : most);
}

// Extents about the vector paths: long rows, many channels, many short planes, long sums.
Dims FloatExtents(Random& random) {
  const auto extents = [&](unsigned n, unsigned c, unsigned h, unsigned w) {
    const Dims dims = {random.Between(1, n), random.Between(1, c), random.Between(1, h),
                       random.Between(1, w)};
    return Shrunk(random, dims, 3000);
  };
  switch (random.Below(8)) {
    case 4:
      return extents(2, 5, 9, 400);
    case 5:
      return extents(3, 30, 9, 40);
    case 6:
      return extents(3, 70, 3, 4);
    case 7:
      return extents(3, 3, 30, 30);
    default:
      return Extents(random, 4);
  }
}

// --- Formats and layouts.

Format AnyFormat(Random& random) {
  Format format = Buf::Planar(random.OneOf({32, 16, 8}), false);
  format.float_ = format.bitdepth == 32 && !random.OneIn(3);
  if (random.OneIn(4)) {
    format.exp = static_cast<int>(random.Between(0, 80)) - 40;
    format.signed_ = random.OneIn(2);
    format.q8a = random.OneIn(2);
    format.q8a_zero = static_cast<std::uint8_t>(random.Below(256));
    format.q8a_scale = random.OneOf({1.0F, 0.5F, 0.01F, -2.0F, 1e6F});
  }
  return format;
}

int AnyPack(Random& random) {
  if (random.OneIn(2))
    return random.OneIn(60) ? random.OneOf({0, -1}) : random.OneOf({4, 2, 3, 5, 8, 16, 17});
  return 1;
}

// Rows and planes padded in any way, with strides for any rank, now and then malformed.
Buf AnyLayout(Random& random, Dims dims, Format format) {
  if (dims.size() == 4 || random.OneIn(20)) format.plane_pack = AnyPack(random);
  Buf buf = Buf::Packed(std::move(dims), format);
  const unsigned unit = random.OneIn(20) ? 1 : buf.ElementBytes();
  const unsigned row_pad = random.OneIn(2) ? random.Between(1, random.OneIn(4) ? 40 : 6) * unit : 0;
  unsigned plane_pad = 0;
  if (random.OneIn(3)) plane_pad = random.OneIn(2) ? buf.line_stride + row_pad : random.Between(1, 20) * unit;
  buf.Pad(row_pad, plane_pad);
  if (buf.dims.size() != 4 && !buf.dims.empty()) {
    // Strides of rows and what lies outside them; the last entry is the run of a row.
    unsigned stride = buf.dims.back() * buf.ElementBytes() + row_pad;
    buf.strides.back() = random.OneIn(4) ? stride : stride - row_pad;
    for (std::size_t i = buf.dims.size() - 1; i-- > 0;) {
      buf.strides[i] = stride;
      stride = stride * buf.dims[i] + plane_pad;
    }
    buf.size = std::max(buf.size, stride);
    if (random.OneIn(30)) buf.strides.resize(random.Between(0, 6), 4);
  }
  if (random.OneIn(12)) buf.size += random.Between(1, 70);
  if (random.OneIn(40)) buf.line_stride = random.Between(0, 24);
  if (random.OneIn(40)) buf.plane_stride = random.Between(0, 60);
  return buf;
}

// --- A setup that the layer takes, by its type.

Setup Softmax(Random& random) {
  const Dims dims = FloatExtents(random);
  AttrMap attrs;
  if (!random.OneIn(8)) attrs["axis"] = Number(random, random.Between(0, 3));
  return {attrs, {Buf::Float(dims)}, {Buf::Float(dims)}};
}

Setup Argmax(Random& random) {
  const Dims dims = FloatExtents(random);
  AttrMap attrs;
  switch (random.Below(4)) {
    case 2:
      attrs["top_k"] = Number(random, random.OneOf({1, 2, 3, 5, 8, 12, 0}));
      break;
    case 3:
      attrs["out_max_val"] = Number(random, random.Between(0, 2));
      break;
    default:
      attrs["axis"] = Number(random, random.Between(0, 3));
  }
  // Room for twelve results of each search, repeated for each item; an extent of 0 has searches too.
  unsigned room = 12 * std::max(1U, dims[0]);
  for (unsigned dim : dims) room *= std::max(1U, dim);
  if (random.OneIn(16)) room = random.Between(0, room / 8);
  return {attrs, {Buf::Float(dims)}, {Buf::Float({1, 1, 1, room})}};
}

Setup L2Norm(Random& random) {
  const Dims dims = FloatExtents(random);
  AttrMap attrs;
  if (random.OneIn(2)) attrs["across_spatial"] = random.OneOf({"0", "1", "true"});
  if (random.OneIn(2)) attrs["channel_shared"] = random.OneOf({"0", "1", "no"});
  return {attrs, {Buf::Float(dims)}, {Buf::Float(dims)}};
}

Setup Ewo(Random& random) {
  const unsigned method = random.OneOf({0U, 1U, 6U, 7U});
  const Dims dims = FloatExtents(random);
  Setup setup{{{"method", Number(random, method)}}, {Buf::Float(dims)}, {Buf::Float(dims)}};
  if (method == 1 || method == 7) {
    if (!random.OneIn(4)) {
      setup.attrs["has_k"] = "1";
      setup.attrs["k"] = random.OneOf({"2", "-1", "0.5", "-1.0000001", "2.2", "-0.5", "3", "0", "-0", "1",
                                       "-2", "0.333", "100", "inf", "-inf", "nan", "1e30"});
    }
    return setup;
  }
  setup.in.push_back(Buf::Float(dims));
  for (const char* letter : {"A", "B"}) {
    if (!random.OneIn(2)) continue;
    const unsigned word = random.OneIn(4) ? 3 : random.Between(0, 15);
    setup.attrs[std::string("broadcast_") + letter] = random.OneIn(8) ? "0" : "1";
    setup.attrs[std::string("word_") + letter] =
        random.OneIn(2) ? std::string("0x") + "0123456789abcdef"[word] : std::to_string(word);
    // The loops take their sizes from input 0: a repeated A is described by the full shape, B may be by its own.
    if (letter[0] == 'B' && random.OneIn(2)) {
      Dims small = dims;
      for (std::size_t i = 0; i < 4; ++i) {
        if ((word >> (3 - i) & 1) != 0) small[i] = 1;
      }
      setup.in[1] = Buf::Float(small);
    }
  }
  return setup;
}

Setup Matmul(Random& random) {
  const auto extent = [&] { return random.OneIn(4) ? random.Extent() % 40 : random.Between(1, 12); };
  const unsigned N = random.Between(0, 3);
  const unsigned M = extent();
  const Dims k = random.OneIn(16) ? Dims{1, random.Between(200, 600)}
                                  : Shrunk(random, {random.Between(1, 4), extent()}, 70);
  const AttrMap attrs = {{"trans_b", random.OneOf({"1", "0", "yes"})}};
  const Buf a = Buf::Float({N, M, k[0], k[1]});
  if (random.OneIn(8)) {
    const unsigned side = random.Between(0, 12);  // A times A
    return {attrs, {Buf::Float({N, side, 1, side})}, {Buf::Float({N, side, 1, side})}};
  }
  if (random.OneIn(3)) return {attrs, {a}, {Buf::Float({N, M, 1, M})}};
  const unsigned P = extent();
  return {attrs, {a, Buf::Float({N, k[0] * k[1], P, 1})}, {Buf::Float({N, M, P, 1})}};
}

Setup Reshape(Random& random) {
  const Format format = AnyFormat(random);
  const unsigned r = random.Between(1, 4);
  const Dims dims = Extents(random, 4, 200);
  Setup setup{{{"pixelshuffler", Number(random, r)}},
              {Buf::Packed({dims[0], dims[1] * r * r, dims[2], dims[3]}, format)},
              {Buf::Packed({dims[0], dims[1], dims[2] * r, dims[3] * r}, format)}};
  if (random.OneIn(8)) setup.in[0].Pad(random.Between(0, 2) * 4, 0);
  if (random.OneIn(8)) setup.out[0].Pad(random.Between(0, 2) * 4, 0);
  return setup;
}

Setup DataStrideConv(Random& random) {
  const std::size_t rank = random.OneIn(3) ? random.Between(0, 6) : 4;
  const Dims dims = Extents(random, rank);
  const Format format = AnyFormat(random);
  Buf in = AnyLayout(random, dims, format);
  Buf out = AnyLayout(random, random.OneIn(12) ? Extents(random, random.Between(0, 6)) : dims, format);
  if (random.OneIn(3)) out.format.plane_pack = in.format.plane_pack, out.Pad(random.Between(0, 9), 0);
  if (random.OneIn(24) && dims.size() == 4) {  // from four dims to the three behind the first
    out = Buf::Packed({dims[1], dims[2], dims[3]}, format);
  }
  return {{}, {in}, {out}};
}

Setup Permute(Random& random) {
  const std::size_t rank = random.OneIn(3) ? random.Between(0, 6) : 4;
  const Dims dims = Extents(random, rank);
  // The layout changes, any permutation or a part of one, repeats and strangers.
  Dims axes;
  const std::uint64_t kind = random.Below(4);
  if (kind == 2) axes = {0, 2, 3, 1};
  if (kind == 3) axes = {0, 3, 1, 2};
  while (axes.size() < rank) {
    unsigned axis = random.Between(0, static_cast<unsigned>(rank) - 1);
    while (std::find(axes.begin(), axes.end(), axis) != axes.end())
      axis = (axis + 1) % static_cast<unsigned>(rank);
    axes.push_back(axis);
  }
  Dims out;
  for (std::size_t i = 0; i < rank; ++i) out.push_back(axes[i] < rank ? dims[axes[i]] : 1);
  if (random.OneIn(4) && kind < 2) {
    // The dims that are not named follow in their order.
    axes.resize(random.Below(axes.size() + 1));
    Dims order = axes;
    for (unsigned d = 0; d < rank; ++d) {
      if (std::find(axes.begin(), axes.end(), d) == axes.end()) order.push_back(d);
    }
    for (std::size_t i = 0; i < rank; ++i) out[i] = dims[order[i]];
  }
  if (random.OneIn(12)) axes.push_back(random.Between(0, 7));
  if (random.OneIn(12) && !axes.empty()) axes[random.Below(axes.size())] = random.Between(0, 7);
  if (axes.empty()) axes.push_back(0);
  if (random.OneIn(16)) out = dims;
  if (random.OneIn(30)) out = Extents(random, random.Between(1, 5));

  const Format format = AnyFormat(random);
  Setup setup{
      {{"axes", List(random, axes)}}, {AnyLayout(random, dims, format)}, {AnyLayout(random, out, format)}};
  if (random.OneIn(2)) setup.in[0] = Buf::Packed(dims, format);
  if (random.OneIn(2)) setup.out[0] = Buf::Packed(out, format);
  return setup;
}

Setup Broadcast(Random& random) {
  const Format format = AnyFormat(random);
  Dims dims = Extents(random, 4);
  if (random.OneIn(20)) dims[3] = random.Between(100, 600);
  Dims in = dims;
  Dims size(4);
  for (std::size_t i = 0; i < 4; ++i) {
    if (!random.OneIn(2)) continue;
    in[i] = 1;
    size[i] = i == 0 ? 0 : 1;
  }
  if (random.OneIn(12)) size[random.Between(1, 3)] ^= 1U;
  Setup setup{{{"size", ExactList(size)}}, {Buf::Packed(in, format)}, {Buf::Packed(dims, format)}};
  for (Buf* buf : {&setup.in[0], &setup.out[0]}) {
    if (random.OneIn(3)) buf->Pad(random.Between(0, 9), 0);
    if (random.OneIn(12)) buf->line_stride = random.Between(0, buf->line_stride);
    buf->plane_stride = random.OneIn(4) ? 0 : buf->line_stride * buf->dims[2];
    buf->size = std::max(buf->size, static_cast<unsigned>(buf->Count()));
  }
  return setup;
}

Setup Concat(Random& random) {
  Format format = AnyFormat(random);
  if (format.bitdepth == 32 && !random.OneIn(8)) format.float_ = true;
  const Dims dims = Extents(random, random.OneIn(3) ? 5 : 4, 100);
  const auto axis = static_cast<unsigned>(random.Below(dims.size()));
  Setup setup{{{"axis", Number(random, axis)}}, {}, {}};
  Dims out = dims;
  out[axis] = 0;
  unsigned slack = 0;
  for (unsigned count = random.OneIn(12) ? random.Between(10, 30) : random.Between(1, 5); count > 0;
       --count) {
    Dims in = dims;
    if (axis != 0 || dims.size() == 5 || random.OneIn(8)) in[axis] = random.Between(0, 9);
    out[axis] += in[axis];
    if (random.OneIn(60)) in[random.Below(in.size())] += 1;
    setup.in.push_back(Buf::Packed(in, format));
    const unsigned more = random.OneIn(6) ? random.Between(0, 9) : 0;
    setup.in.back().size += more;
    slack += more;
  }
  setup.out.push_back(Buf::Packed(out, format));
  setup.out[0].size += slack;
  return setup;
}

Setup DepthToSpace(Random& random) {
  const unsigned b = random.Between(1, 4);
  const Dims dims = Extents(random, 4, 200);
  const Format format = AnyFormat(random);
  return {{{"block_size", Number(random, b)}},
          {Buf::Packed({dims[0], dims[1] * b * b, dims[2], dims[3]}, format)},
          {Buf::Packed({dims[0], dims[1], dims[2] * b, dims[3] * b}, format)}};
}

Setup SpaceToDepth(Random& random) {
  Setup setup = DepthToSpace(random);
  std::swap(setup.in, setup.out);
  return setup;
}

// A padded image, and the sub-grids of it that become batch items.
Setup Blocks(Random& random, const char* margins_key, bool to_batch) {
  const unsigned bh = random.Between(1, 4);
  const unsigned bw = random.Between(1, 4);
  const Dims grids = Extents(random, 4, 200);
  Dims image = {grids[0], grids[1], grids[2] * bh, grids[3] * bw};
  Dims margins(4);  // top, bottom, left, right
  for (std::size_t i = 0; i < 4; ++i) {
    unsigned& left_over = image[i < 2 ? 2 : 3];
    if (random.OneIn(2)) margins[i] = random.Between(0, std::min(5U, left_over));
    left_over -= margins[i];
  }
  const Format format = AnyFormat(random);
  const unsigned surplus = !to_batch && random.OneIn(3) ? random.Between(0, bh * bw - 1) : 0;
  Setup setup{{{"block_shape", List(random, {bh, bw})}, {margins_key, List(random, margins)}},
              {Buf::Packed(image, format)},
              {Buf::Packed({grids[0] * bh * bw + surplus, grids[1], grids[2], grids[3]}, format)}};
  if (!to_batch) std::swap(setup.in, setup.out);
  return setup;
}

Setup Gather(Random& random) {
  Format format = AnyFormat(random);
  if (format.bitdepth == 32 && !random.OneIn(8)) format.float_ = true;
  const std::size_t rank = random.OneIn(3) ? random.Between(1, 5) : 4;
  const Dims dims = Extents(random, rank, 200);
  const auto axis = static_cast<unsigned>(random.Below(std::min<std::size_t>(rank, 4)));
  const Dims list = Extents(random, random.OneIn(3) ? random.Between(0, 3) : 1, 12);
  unsigned count = 1;
  for (unsigned dim : list) count *= dim;
  Dims out = dims;
  out[axis] = count;
  Setup setup{{{"axis", Number(random, axis)}},
              {Buf::Packed(dims, format), Buf::Int(32, list)},
              {Buf::Packed(out, format)}};
  if (axis == 0 && random.OneIn(4)) setup.attrs.clear();
  for (Buf& buf : setup.in) {
    if (buf.dims.size() != 4) buf.strided = false;
  }
  // The capacity is what the four accessors tell.
  Buf& to = setup.out[0];
  if (rank != 4 || random.OneIn(6)) {
    to.nchw = {1, 1, 1, static_cast<unsigned>(to.Count())};
    to.strided = false;
    if (random.OneIn(4)) (*to.nchw)[3] -= std::min((*to.nchw)[3], random.Between(0, 9));
  }
  return setup;
}

Setup Pad(Random& random) {
  const Format format = AnyFormat(random);
  const Dims dims = Shrunk(
      random, {random.Between(0, 2), random.Between(0, 6), random.Between(0, 6), random.Extent()}, 150);
  Dims pads(8);
  for (unsigned& pad : pads) pad = random.OneIn(2) ? random.Between(0, 5) : 0;
  if (random.OneIn(10)) pads[7] += random.Between(10, 40);
  Dims whole = dims;
  for (std::size_t i = 0; i < 4; ++i) whole[i] += pads[2 * i] + pads[2 * i + 1];
  if (random.OneIn(8)) whole[random.Below(4)] = random.Between(0, 9);
  Setup setup{{{"pad_mode", Number(random, random.OneOf({1, 2, 3, 4, 4, 0, 5}))},
               {"pad", random.OneOf({"0", "3", "-1", "255", "70000", "4000000000"})},
               {"pad_shape", List(random, pads)},
               {"format", random.OneIn(4)    ? "[0,2,3,1]"
                          : random.OneIn(30) ? "[0,1,3,2]"
                                             : "[0,1,2,3]"}},
              {random.OneIn(2) ? AnyLayout(random, dims, format) : Buf::Packed(dims, format)},
              {Buf::Packed(whole, format)}};
  Buf& out = setup.out[0];
  const unsigned unit = random.OneIn(6) ? 1 : out.ElementBytes();
  if (random.OneIn(3)) out.Pad(random.Between(0, 9) * unit, random.Between(0, 9) * unit);
  if (random.OneIn(30)) out.line_stride = random.Between(0, out.line_stride);
  if (random.OneIn(30)) out.plane_stride = random.Between(0, out.plane_stride);
  return setup;
}

// --- What may be said instead.

unsigned OtherThan(unsigned value, Random& random) {
  switch (random.Below(9)) {
    case 0:
      return value + 1;
    case 1:
      return value - 1;
    case 2:
      return 0;
    case 3:
      return value * 2;
    case 4:
      return value / 2;
    case 5:
      return value + 4;
    case 6:
      return random.OneOf({0x10000U, 0x80000000U, 0xFFFFFFFFU, 0x40000000U});
    case 7:
      return static_cast<unsigned>(random());
    default:
      return random.Between(0, 255);
  }
}

void SpoilBuf(Buf& buf, Random& random) {
  const auto spoil_one_of = [&](Dims& list) {
    if (list.empty()) return;
    unsigned& number = list[random.Below(list.size())];
    number = OtherThan(number, random);
  };
  switch (random.Below(18)) {
    case 0:
    case 1:
      spoil_one_of(buf.dims);
      break;
    case 2:
      if (!buf.dims.empty()) buf.dims[random.Below(buf.dims.size())] = random.Between(0, 9);
      buf.Pad(0, 0);
      break;
    case 3:
      if (!buf.dims.empty()) buf.dims.pop_back();
      break;
    case 4:
      buf.dims.insert(buf.dims.begin(), random.Between(1, 2));
      break;
    case 5:  // dims that are not the four that the accessors tell
      buf.nchw = {buf.At(0), buf.At(1), buf.At(2), buf.At(3)};
      buf.dims.resize(random.Between(0, 6), random.Between(1, 3));
      break;
    case 6:
      buf.nchw = {random.Extent(), random.Extent(), random.Extent(), random.Extent()};
      break;
    case 7:
      buf.format.bitdepth = random.OneOf({8, 16, 32, 12, 24, 64, 0, 4, 1, -8, 40});
      break;
    case 8:
      buf.format.plane_pack = random.OneOf({1, 4, 2, 3, 16, 0, -1, 1000000});
      break;
    case 9:
      buf.format.float_ = !buf.format.float_;
      break;
    case 10:
      buf.format.q8a = !buf.format.q8a;
      buf.format.q8a_zero = static_cast<std::uint8_t>(random.Below(256));
      break;
    case 11:
      buf.format.exp = static_cast<int>(random());
      break;
    case 12:
      buf.line_stride = OtherThan(buf.line_stride, random);
      break;
    case 13:
      buf.plane_stride = OtherThan(buf.plane_stride, random);
      break;
    case 14:
      buf.size = OtherThan(buf.size, random);
      break;
    case 15:
      if (random.OneIn(2)) {
        spoil_one_of(buf.strides);
      } else if (!buf.strides.empty()) {
        buf.strides.pop_back();
      }
      break;
    case 16:
      buf.strided = random.OneIn(2);
      break;
    default:
      buf.interleaved = random.OneIn(2);
      break;
  }
}

}  // namespace

#define VEK_NAME(name, layer) name,
const std::vector<std::string> kLayerTypes = {VEK_LAYER_TYPES(VEK_NAME)};
#undef VEK_NAME

Setup ValidSetup(const std::string& type, Random& random) {
  static const std::map<std::string, std::function<Setup(Random&)>> makers = {
      {"SOFTMAX", Softmax},
      {"DATA_STRIDE_CONV", DataStrideConv},
      {"RESHAPE", Reshape},
      {"BROADCAST", Broadcast},
      {"ARGMAX", Argmax},
      {"NORMALIZE", L2Norm},
      {"MATMUL", Matmul},
      {"PERMUTE", Permute},
      {"SWCONCAT", Concat},
      {"DEPTHTOSPACE", DepthToSpace},
      {"PAD", Pad},
      {"GATHER", Gather},
      {"ELTWISE", Ewo},
      {"SPACETOBATCH", [](Random& any) { return Blocks(any, "paddings", true); }},
      {"SPACETODEPTH", SpaceToDepth},
      {"BATCHTOSPACE", [](Random& any) { return Blocks(any, "crops", false); }},
  };
  return makers.at(type)(random);
}

void Spoil(Setup& setup, Random& random) {
  // In the order of the keys: the map's own differs between implementations.
  const std::map<std::string, std::string> sorted(setup.attrs.begin(), setup.attrs.end());
  const auto any_key = [&] {
    return std::next(sorted.begin(), static_cast<std::ptrdiff_t>(random.Below(sorted.size())))->first;
  };
  const std::uint64_t what = random.Below(9);
  if (what <= 2 && sorted.empty()) return;
  switch (what) {
    case 0:
      setup.attrs.erase(any_key());
      break;
    case 1:
    case 2:
      setup.attrs[any_key()] = AnyText(random);
      break;
    case 3:
      setup.attrs[random.OneOf({"axis", "other", "top_k", "k", "has_k", "word_A", "broadcast_B", "pad", "",
                                "block_size ", "CROPS"})] = AnyText(random);
      break;
    case 4: {
      std::vector<Buf>& list = random.OneIn(3) ? setup.out : setup.in;
      if (random.OneIn(4)) {
        list.clear();
      } else if (random.OneIn(2)) {
        if (!list.empty()) list.pop_back();
      } else {
        list.push_back(list.empty() ? Buf::Float({1, 2, 3, 4}) : list.front());
      }
      break;
    }
    case 5:  // both, so that they still agree
      if (setup.in.empty() || setup.out.empty()) break;
      setup.in[0].format.bitdepth = setup.out[0].format.bitdepth =
          random.OneOf({8, 16, 32, 12, 24, 0, 4, 40});
      break;
    default: {
      std::vector<Buf>& list = random.OneIn(2) ? setup.out : setup.in;
      if (!list.empty()) SpoilBuf(list[random.Below(list.size())], random);
    }
  }
}

Setup AnySetup(const std::string& type, Random& random) {
  Setup setup = ValidSetup(type, random);
  for (unsigned spoils = random.OneOf({0U, 0U, 0U, 1U, 1U, 2U}); spoils > 0; --spoils) Spoil(setup, random);
  return setup;
}

}  // namespace vek_cases
