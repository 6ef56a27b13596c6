#include "certify_cases.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <utility>

#include "tensor.h"

namespace vekrun {
namespace {

using vek_host::BufAttrs;
using Format = zeb::PuxDnnBufAttrsMemFormat;

constexpr unsigned int kValidCases = 480;
constexpr unsigned int kSpoiltCases = 100;

// --- Contents.

constexpr std::uint32_t kSign = 0x80000000U;

// The float of that exponent, with a sign and a mantissa from `bits`.
std::uint32_t FloatBits(std::uint64_t bits, int exponent) {
  return static_cast<std::uint32_t>(exponent + 127) << 23 | (static_cast<std::uint32_t>(bits) & 0x807FFFFFU);
}

// The float of a signed number of eighths below 2^20.
std::uint32_t Eighths(std::uint32_t count, bool negative) {
  if (count == 0) return negative ? kSign : 0;
  int exponent = 0;
  while (count >> (exponent + 1) != 0) ++exponent;
  return (negative ? kSign : 0) | static_cast<std::uint32_t>(exponent - 3 + 127) << 23 |
         (count << (23 - exponent) & 0x7FFFFFU);
}

std::uint32_t SpecialFloat(std::uint64_t bits) {
  static constexpr std::array<std::uint32_t, 12> kSpecial = {
      0x00000000U,  // 0
      0x80000000U,  // -0
      0x7F800000U,  // infinity
      0xFF800000U,  // -infinity
      0x7FC00000U,  // NaN
      0xFFC12345U,  // NaN with a sign and a payload
      0x7FA00001U,  // signalling NaN
      0x00000001U,  // the smallest denormal
      0x807FFFFFU,  // the largest negative denormal
      0x00800000U,  // the smallest normal float
      0x7F7FFFFFU,  // the largest float
      0xBF800000U,  // -1
  };
  return kSpecial[bits % kSpecial.size()];
}

std::uint32_t Word(Contents contents, std::uint64_t bits) {
  const auto low = static_cast<std::uint32_t>(bits);
  const std::uint64_t high = bits >> 32;
  const auto exponent = [&](int first, unsigned int count) { return first + static_cast<int>(high % count); };
  switch (contents) {
    case Contents::kModerate:
      return high % 97 == 0 ? SpecialFloat(high / 97) : FloatBits(bits, exponent(-6, 9));
    case Contents::kAnyFloats:
      return high % 3 == 0 ? SpecialFloat(high / 3) : low;
    case Contents::kEighths:
      return Eighths(low % 40, high % 2 == 0);
    case Contents::kSpread:
      return FloatBits(bits, exponent(-70, 141));
    case Contents::kExponents:
      // Eighths and smaller parts of them, so that all bits of the mantissa are in use.
      return high % 61 == 0  ? SpecialFloat(high / 61)
             : high % 4 == 0 ? Eighths(low % 960, true)
             : high % 4 == 1 ? Eighths(low % 80, false)
                             : FloatBits(bits | kSign, exponent(-10, 17));
    case Contents::kDenormals:
      return high % 4 == 0 ? FloatBits(bits, exponent(-126, 6)) : low & 0x807FFFFFU;
    case Contents::kZeroBlocks:
      return high % 4 == 0 ? FloatBits(bits, exponent(-4, 5)) : low & kSign;
    case Contents::kBits:
      break;
  }
  return low;
}

// Any contents of a layer that computes.
Contents AnyFloats(Draws& draws) {
  return draws.OneOf({Contents::kModerate, Contents::kModerate, Contents::kModerate, Contents::kAnyFloats,
                      Contents::kEighths, Contents::kSpread, Contents::kExponents, Contents::kDenormals,
                      Contents::kZeroBlocks});
}

// --- Shapes.

// An extent about the widths of vectors: 4, 8, 16, 32 lanes, and what is left over.
unsigned int Lanes(Draws& draws) {
  return draws.OneOf({1U,  2U,  3U,  4U,  5U,  6U,  7U,  8U,  9U,  11U, 12U, 13U, 15U, 16U, 17U, 19U, 20U,
                      23U, 24U, 25U, 28U, 31U, 32U, 33U, 36U, 40U, 47U, 48U, 49U, 63U, 64U, 65U, 72U, 100U});
}

std::uint64_t Count(const Dims& dims) {
  std::uint64_t count = 1;
  for (const unsigned int dim : dims) count *= dim;
  return count;
}

// Halves extents in turn until they have no more than `most` elements.
Dims Shrunk(Dims dims, std::uint64_t most) {
  for (std::size_t i = 0; Count(dims) > most; i = (i + 1) % dims.size()) dims[i] = (dims[i] + 1) / 2;
  return dims;
}

// N, C, H, W.
Dims Shape(Draws& draws, std::uint64_t most = 2500) {
  Dims dims = {draws.Between(1, 3), draws.Between(1, 6), draws.Between(1, 6), draws.Between(1, 6)};
  switch (draws.Below(10)) {
    case 0:
      dims = {draws.Between(1, 2), draws.Between(1, 3), draws.Between(1, 5), Lanes(draws)};
      break;
    case 1:
      dims = {draws.Between(1, 3), Lanes(draws), draws.Between(1, 4), draws.Between(1, 5)};
      break;
    case 2:
      dims = {draws.Between(1, 2), draws.Between(1, 3), Lanes(draws), draws.Between(1, 5)};
      break;
    case 3:  // long rows
      dims = {1, draws.Between(1, 2), draws.Between(1, 3), draws.Between(200, 2000)};
      break;
    case 4:
      dims = {draws.Between(1, 3), draws.Between(2, 16), draws.Between(3, 24), draws.Between(3, 40)};
      break;
    case 5:
      dims = {1, Lanes(draws), draws.Between(1, 4), Lanes(draws)};
      break;
    case 6:
      dims = {draws.Between(1, 2), draws.Between(1, 9), Lanes(draws), Lanes(draws)};
      break;
    case 7:  // vectors of channels
      dims = {draws.Between(1, 40), Lanes(draws), 1, draws.Between(1, 2)};
      break;
    default:
      break;
  }
  if (draws.OneIn(40)) dims[draws.Below(4)] = 0;
  return Shrunk(dims, draws.OneIn(12) ? 20 * most : 2 * most);
}

// --- Formats and layouts.

Format Float() {
  Format format;
  format.float_ = true;
  return format;
}

// Of elements that are moved: 32-bit floats, or integers of 8, 16 and 32 bits.
Format AnyFormat(Draws& draws) {
  Format format;
  format.bitdepth = draws.OneIn(40) ? 24 : draws.OneOf({32, 32, 16, 8});  // 24 is refused by most
  format.float_ = format.bitdepth == 32 && !draws.OneIn(3);
  if (draws.OneIn(3)) {
    format.exp = draws.OneOf({-31, -20, -12, -7, -3, 0, 2, 31});
    format.signed_ = draws.OneIn(2);
    format.q8a = draws.OneIn(2);
    format.q8a_zero = static_cast<std::uint8_t>(draws.Below(256));
    format.q8a_scale = draws.OneOf({1.0F, 0.5F, 0.25F, -2.0F, 1024.0F});
  }
  return format;
}

// Pads rows and planes; planes by whole rows, as PERMUTE reads them.
BufAttrs Padded(BufAttrs attrs, unsigned int row_padding, unsigned int rows) {
  attrs.SetLineStride(static_cast<unsigned int>(attrs.RowBytes()) + row_padding);
  attrs.SetPlaneStride((attrs.GetHeight() + rows) * attrs.GetLineStride());
  return attrs;
}

BufAttrs AnyLayout(Draws& draws, const Dims& dims, Format format) {
  if (dims.size() == 4 && draws.OneIn(2)) format.plane_pack = draws.OneOf({4, 4, 2, 3, 8, 16, 17});
  BufAttrs attrs(dims, format);
  const unsigned int elements = draws.OneOf({0U, 0U, 1U, 3U, 4U, 16U, 37U});
  return Padded(attrs, elements * attrs.ElementBytes(), draws.OneIn(3) ? draws.Between(1, 2) : 0);
}

// --- Attributes.

std::string ListText(const Dims& numbers) {
  std::string text = "[";
  for (const unsigned int number : numbers) {
    if (text.size() > 1) text += ",";
    text += std::to_string(number);
  }
  return text + "]";
}

AttrMap Attribute(const char* key, unsigned int value) { return {{key, std::to_string(value)}}; }

// --- Cases that the layers take. Each statement draws from one expression only, or from a list in braces: the order
// in which a call's arguments are computed is the compiler's choice.

CertificateCase Softmax(Draws& draws) {
  const BufAttrs attrs(Shape(draws), Float());
  CertificateCase c{{AttrMap{}}, {attrs}, {attrs}};
  if (!draws.OneIn(8)) c.configurations[0] = Attribute("axis", draws.Below(4));
  c.contents = draws.OneIn(2) ? Contents::kExponents : AnyFloats(draws);
  c.is_in_place = draws.OneIn(6);
  return c;
}

// One attribute for each call of Configure.
CertificateCase Argmax(Draws& draws) {
  const Dims dims = Shape(draws, 1500);
  CertificateCase c{{}, {BufAttrs(dims, Float())}, {}};
  std::uint64_t results = std::uint64_t{dims[0]} * dims[0];  // without an axis: one search for each item
  unsigned int top_k = 1;
  if (!draws.OneIn(5)) {
    const unsigned int axis = draws.Below(4);
    c.configurations.push_back(Attribute("axis", axis));
    Dims searches = dims;
    searches[axis] = axis == 0 ? 1 : dims[0];
    results = Count(searches);
  }
  if (c.configurations.empty() || draws.OneIn(2)) {
    top_k = draws.OneOf({0U, 1U, 2U, 3U, 4U, 5U, 8U, 10U, 16U, 40U});
    c.configurations.push_back(Attribute("top_k", top_k));
  }
  if (draws.OneIn(2)) c.configurations.push_back(Attribute("out_max_val", draws.Below(3)));
  auto room = static_cast<unsigned int>(2 * top_k * results) + draws.Below(3);
  if (draws.OneIn(16)) room /= 3;  // refused in Execute
  c.outputs.emplace_back(Dims{1, 1, 1, room}, Float());
  c.contents = draws.OneIn(3) ? Contents::kEighths : AnyFloats(draws);
  return c;
}

CertificateCase Normalize(Draws& draws) {
  const BufAttrs attrs(Shape(draws), Float());
  CertificateCase c{{AttrMap{}}, {attrs}, {attrs}};
  if (!draws.OneIn(4)) c.configurations[0]["across_spatial"] = draws.OneOf({"0", "0", "1", "true"});
  if (draws.OneIn(2)) c.configurations[0]["channel_shared"] = draws.OneOf({"0", "1"});
  c.contents = AnyFloats(draws);
  c.is_in_place = draws.OneIn(6);
  return c;
}

CertificateCase Matmul(Draws& draws) {
  const unsigned int batch = draws.Between(1, 3);
  const Dims any_sides = {Lanes(draws), draws.OneIn(12) ? draws.Between(200, 700) : Lanes(draws),
                          Lanes(draws)};
  const Dims sides = Shrunk(any_sides, draws.OneIn(10) ? 300000 : 30000);
  const unsigned int height = sides[1] % 2 == 0 ? 2 : 1;  // a row of the matrix is H x W
  const BufAttrs a({batch, sides[0], height, sides[1] / height}, Float());
  CertificateCase c{{{{"trans_b", draws.OneOf({"1", "1", "0", "yes"})}}}, {a}, {}};
  c.contents = AnyFloats(draws);
  switch (draws.Below(6)) {
    case 0:  // A x transposed A
      c.configurations[0]["trans_b"] = "1";
      c.outputs.emplace_back(Dims{batch, sides[0], 1, sides[0]}, Float());
      break;
    case 1: {  // A x A, of one input or of two in the same buffer
      const BufAttrs square({batch, sides[0], 1, sides[0]}, Float());
      c.is_one_input = draws.OneIn(2);
      c.inputs.assign(c.is_one_input ? 2 : 1, square);
      c.outputs = {square};
      break;
    }
    default:
      c.inputs.emplace_back(Dims{batch, sides[1], sides[2], 1}, Float());
      c.outputs.emplace_back(Dims{batch, sides[0], sides[2], 1}, Float());
  }
  return c;
}

CertificateCase Eltwise(Draws& draws) {
  const unsigned int method = draws.OneOf({0U, 0U, 1U, 6U, 7U, 7U});
  const Dims dims = Shape(draws);
  const BufAttrs full(dims, Float());
  CertificateCase c{{Attribute("method", method)}, {full}, {full}};
  AttrMap& attrs = c.configurations[0];
  c.contents = AnyFloats(draws);
  c.is_in_place = draws.OneIn(6);
  if (method == 1 || method == 7) {
    if (draws.OneIn(8)) return c;  // k is 1
    attrs["has_k"] = "1";
    attrs["k"] = draws.OneOf({"2",   "0.5",      "2.2",        "-0.5",       "3",     "0.45454547", "-2",
                              "1.7", "-0.75",    "0.33333334", "1.5",        "-1",    "0.015625",   "100",
                              "0",   "-0",       "-3",         "-1.0000001", "inf",   "-inf",       "nan",
                              "5",   "16777217", "1e30",       "1e-40",      "-1e-3", "127.5",      "1"});
    return c;
  }
  c.inputs.push_back(full);
  if (draws.OneIn(3)) return c;
  // One operand is broadcast, and described by what it holds; the sizes are those of the other one. Only a product
  // with one value per plane takes them from input 1.
  const bool is_a = draws.OneIn(3);
  const unsigned int word = is_a || draws.OneIn(3) ? 3 : draws.Below(16);
  const bool sizes_of_a = !is_a || method == 6;
  const char* const letter = is_a ? "A" : "B";
  attrs[std::string("broadcast_") + letter] = "1";
  attrs[std::string("word_") + letter] =
      draws.OneIn(2) ? std::string("0x") + "0123456789abcdef"[word] : std::to_string(word);
  Dims small = dims;
  for (unsigned int i = 0; i < 4; ++i) {
    if ((word >> (3 - i) & 1) != 0) small[i] = 1;
  }
  if (!(is_a && sizes_of_a)) c.inputs[is_a ? 0 : 1] = BufAttrs(small, Float());
  c.is_in_place = c.is_in_place && !is_a;
  return c;
}

CertificateCase Reshape(Draws& draws) {
  const Format format = AnyFormat(draws);
  const Dims dims = Shape(draws, 1500);
  if (draws.OneIn(3)) {  // another shape of the same elements, of any rank
    const Dims to = draws.OneIn(2) ? Dims{static_cast<unsigned int>(Count(dims))}
                                   : Dims{dims[3], 1, dims[1], dims[0], dims[2]};
    CertificateCase c{{Attribute("pixelshuffler", 1)}, {BufAttrs(dims, format)}, {BufAttrs(to, format)}};
    c.is_in_place = draws.OneIn(4);
    return c;
  }
  const unsigned int r = draws.Between(2, 5);
  const Dims channels = {dims[0], dims[1] * r * r, dims[2], dims[3]};
  const Dims pixels = {dims[0], dims[1], dims[2] * r, dims[3] * r};
  // A layout is taken as dense; with one, the elements are taken as 32-bit ones.
  const bool has_layout = format.bitdepth == 32 && draws.OneIn(4);
  return {{Attribute("pixelshuffler", r)},
          {has_layout ? AnyLayout(draws, channels, format) : BufAttrs(channels, format)},
          {BufAttrs(pixels, format)}};
}

CertificateCase DataStrideConv(Draws& draws) {
  const Format format = AnyFormat(draws);
  Dims dims = Shape(draws);
  if (draws.OneIn(5)) dims.erase(dims.begin(), dims.begin() + draws.Between(1, 3));
  if (draws.OneIn(10)) dims.insert(dims.begin(), draws.Between(1, 2));
  CertificateCase c{{AttrMap{}}, {AnyLayout(draws, dims, format)}, {AnyLayout(draws, dims, format)}};
  if (draws.OneIn(8)) {
    c.outputs = c.inputs;
    c.is_in_place = draws.OneIn(2);
  }
  return c;
}

CertificateCase Permute(Draws& draws) {
  const Format format = AnyFormat(draws);
  Dims dims = Shape(draws);
  const bool is_plain = format.float_ && draws.OneIn(4);  // any rank
  if (is_plain && draws.OneIn(2)) dims.erase(dims.begin(), dims.begin() + draws.Between(1, 3));
  if (is_plain && draws.OneIn(2)) dims.insert(dims.begin(), draws.Between(1, 3));
  Dims axes(dims.size());
  for (unsigned int i = 0; i < axes.size(); ++i) axes[i] = i;
  for (std::size_t i = axes.size(); i > 1; --i) std::swap(axes[i - 1], axes[draws.Below(i)]);
  if (dims.size() == 4 && draws.OneIn(4)) axes = {0, 2, 3, 1};
  if (dims.size() == 4 && draws.OneIn(4)) axes = {0, 3, 1, 2};
  Dims to;
  for (const unsigned int axis : axes) to.push_back(dims[axis]);
  // What the list leaves out follows in order.
  if (dims.size() == 4 && axes[2] < axes[3] && draws.OneIn(4)) axes.resize(2);
  const bool has_layouts = dims.size() == 4 && !is_plain;
  CertificateCase c{{{{"axes", ListText(axes)}}},
                    {has_layouts && draws.OneIn(2) ? AnyLayout(draws, dims, format) : BufAttrs(dims, format)},
                    {has_layouts && draws.OneIn(2) ? AnyLayout(draws, to, format) : BufAttrs(to, format)}};
  c.executions = draws.OneIn(4) ? 2 : 1;  // the second one finds the scratch of the first
  return c;
}

CertificateCase Broadcast(Draws& draws) {
  const Format format = AnyFormat(draws);
  Dims to = Shape(draws);
  for (unsigned int& extent : to) extent = std::max(extent, 1U);  // the first run is written in any case
  Dims from = to;
  Dims size(4);
  for (std::size_t i = 1; i < 4; ++i) {
    if (draws.OneIn(2)) continue;
    from[i] = 1;
    size[i] = to[i];
  }
  if (draws.OneIn(4)) from[0] = 1;
  const auto layout = [&](const Dims& dims) {
    const BufAttrs attrs(dims, format);
    return draws.OneIn(3) ? Padded(attrs, draws.Between(1, 9) * attrs.ElementBytes(), 0) : attrs;
  };
  return {{{{"size", ListText(size)}}}, {layout(from)}, {layout(to)}};
}

CertificateCase Concat(Draws& draws) {
  const Format format = AnyFormat(draws);
  Dims dims = Shape(draws, 800);
  if (draws.OneIn(3)) dims.insert(dims.begin(), draws.Between(1, 3));
  const unsigned int axis = draws.Below(dims.size());
  CertificateCase c{{Attribute("axis", axis)}, {}, {}};
  const bool are_equal = axis == 0 && dims.size() == 4;
  Dims whole = dims;
  whole[axis] = 0;
  for (unsigned int count = draws.OneIn(8) ? draws.Between(8, 20) : draws.Between(1, 5); count > 0; --count) {
    if (!are_equal) dims[axis] = draws.OneIn(2) ? draws.Below(6) : dims[axis];
    whole[axis] += dims[axis];
    c.inputs.emplace_back(dims, format);
  }
  c.outputs.emplace_back(whole, format);
  return c;
}

CertificateCase DepthToSpace(Draws& draws) {
  const unsigned int b = draws.Between(1, 5);
  const Dims dims = Shape(draws, 1000);
  const Format format = AnyFormat(draws);
  CertificateCase c{{Attribute("block_size", b)},
                    {BufAttrs({dims[0], dims[1] * b * b, dims[2], dims[3]}, format)},
                    {BufAttrs({dims[0], dims[1], dims[2] * b, dims[3] * b}, format)}};
  c.is_in_place = b == 1 && draws.OneIn(3);
  return c;
}

CertificateCase SpaceToDepth(Draws& draws) {
  CertificateCase c = DepthToSpace(draws);
  std::swap(c.inputs, c.outputs);
  return c;
}

// A padded or cropped plane, and its sub-grids, which are batch items.
CertificateCase Blocks(Draws& draws, const char* margins_key, bool to_batch) {
  const unsigned int height = draws.Between(1, 4);
  const unsigned int width = draws.Between(1, 4);
  const Dims grid = Shape(draws, 600);
  Dims plane = {grid[0], grid[1], grid[2] * height, grid[3] * width};
  Dims margins(4);  // top, bottom, left, right
  for (std::size_t i = 0; i < 4; ++i) {
    unsigned int& left_over = plane[i < 2 ? 2 : 3];
    if (draws.OneIn(2)) margins[i] = draws.Between(0, std::min(5U, left_over));
    left_over -= margins[i];
  }
  const Format format = AnyFormat(draws);
  const BufAttrs whole(plane, format);
  const BufAttrs grids({grid[0] * height * width, grid[1], grid[2], grid[3]}, format);
  CertificateCase c{{{{"block_shape", ListText({height, width})}, {margins_key, ListText(margins)}}},
                    {to_batch ? whole : grids},
                    {to_batch ? grids : whole}};
  c.is_in_place = height * width == 1 && margins == Dims(4) && draws.OneIn(2);
  return c;
}

CertificateCase Gather(Draws& draws) {
  const Format format = AnyFormat(draws);
  Dims dims = Shape(draws, 1000);
  if (draws.OneIn(5)) dims.erase(dims.begin(), dims.begin() + draws.Between(1, 3));
  if (draws.OneIn(8)) dims.insert(dims.begin(), draws.Between(1, 3));
  const unsigned int axis = draws.Below(std::min<std::size_t>(dims.size(), 4));
  const Dims list =
      draws.OneIn(2) ? Dims{draws.Between(1, 20)} : Dims{draws.Between(1, 4), draws.Between(1, 5)};
  Dims to = dims;
  to[axis] = static_cast<unsigned int>(Count(list));
  Format indices;
  indices.bitdepth = 32;
  CertificateCase c{
      {Attribute("axis", axis)}, {BufAttrs(dims, format), BufAttrs(list, indices)}, {BufAttrs(to, format)}};
  if (axis == 0 && draws.OneIn(3)) c.configurations[0].clear();
  c.indices_below = dims[axis];
  c.has_bad_index = dims[axis] == 0 || draws.OneIn(10);
  return c;
}

CertificateCase Pad(Draws& draws) {
  const Format format = AnyFormat(draws);
  const Dims any_dims = {draws.Between(1, 3), draws.Between(1, 8), draws.Between(1, 9), Lanes(draws)};
  const Dims dims = Shrunk(any_dims, draws.OneIn(12) ? 6000 : 800);
  Dims pads(8);
  for (unsigned int& pad : pads) pad = draws.OneIn(2) ? draws.Between(0, 4) : 0;
  if (draws.OneIn(8)) pads[7] += draws.Between(10, 40);
  Dims whole = dims;
  for (std::size_t i = 0; i < 4; ++i) whole[i] += pads[2 * i] + pads[2 * i + 1];
  CertificateCase c{{{{"pad_mode", draws.OneOf({"1", "2", "3", "4", "4", "0"})},
                      {"pad", draws.OneOf({"0", "3", "-1", "255", "70000", "4000000000"})},
                      {"pad_shape", ListText(pads)},
                      {"format", "[0,1,2,3]"}}},
                    {draws.OneIn(2) ? AnyLayout(draws, dims, format) : BufAttrs(dims, format)},
                    {BufAttrs(whole, format)}};
  // The general path takes elements of 32 bits.
  Format interleaved = format;
  interleaved.plane_pack = 4;
  switch (format.bitdepth == 32 ? draws.Below(6) : 5) {
    case 0:
      c.configurations[0]["format"] = "[0,2,3,1]";
      break;
    case 1:
      c.outputs = {BufAttrs(whole, interleaved)};
      break;
    default:
      if (draws.OneIn(3)) {
        const unsigned int row_padding = draws.Between(1, 9) * c.outputs[0].ElementBytes();
        c.outputs = {Padded(c.outputs[0], row_padding, draws.Below(3))};
      }
  }
  c.executions = draws.Between(1, 2);  // a quantised input changes the stored constant
  return c;
}

// --- Cases in which something is wrong.

// The number of ways; `Spoil` takes a number below it.
constexpr unsigned int kWays = 20;

void Spoil(CertificateCase& c, unsigned int way, Draws& draws) {
  c.is_spoilt = true;
  c.is_in_place = false;
  c.is_one_input = false;
  // Where a message names the first of the attributes, there is one: a map's order is not the same everywhere.
  AttrMap& attrs = c.configurations.back();
  const std::map<std::string, std::string> sorted(attrs.begin(), attrs.end());
  const auto text = [&] {
    return draws.OneOf({"",        "x",         "-1",        "0",           "1",     "4",
                        "99",      "[]",        "[ ]",       "[1,2",        "1,2",   "[[1]]",
                        "[0,0]",   "[0,1]",     "[2,2]",     "4294967297",  "[x,y]", "[-1,1]",
                        "[1,2,3]", "[0,0,0,0]", "[0,1,2,3]", "[[1,2],[3]]", "1.5",   "true"});
  };
  BufAttrs& buffer = draws.OneIn(2) ? c.inputs.front() : c.outputs.front();
  const auto reshape = [&](const std::function<void(Dims&)>& change) {
    Dims dims = buffer.GetDims();
    change(dims);
    buffer = BufAttrs(dims, buffer.GetMemFormat());
  };
  const auto reformat = [&](const std::function<void(Format&)>& change) {
    Format format = buffer.GetMemFormat();
    change(format);
    buffer = BufAttrs(buffer.GetDims(), format);
  };
  switch (way) {
    case 0:
      attrs.clear();
      break;
    case 1:
      attrs = {{"other", "1"}};
      break;
    case 2:
    case 3:
    case 4:
    case 5:  // one attribute says something else, or two are both there
      if (sorted.empty()) {
        attrs = {{"axis", text()}};
      } else {
        const auto changed =
            std::next(sorted.begin(), static_cast<std::ptrdiff_t>(draws.Below(sorted.size())));
        attrs[changed->first] = text();
      }
      break;
    case 6:  // one is missing
      if (!sorted.empty()) attrs.erase(sorted.begin()->first);
      break;
    case 7:
      c.inputs.clear();
      break;
    case 8:
      c.outputs.clear();
      break;
    case 9:
      c.inputs.insert(c.inputs.end(), 2, c.inputs.front());
      break;
    case 10:
      c.outputs.push_back(c.outputs.front());
      break;
    case 11:
      reformat([&](Format& format) { format.bitdepth = draws.OneOf({8, 16, 32, 24, 64}); });
      break;
    case 12:
      reformat([&](Format& format) { format.float_ = !format.float_; });
      break;
    case 13:
      reformat([&](Format& format) { format.plane_pack = draws.OneOf({2, 4, 16}); });
      break;
    case 14:
      buffer.SetLineStride(buffer.GetLineStride() + 4 * draws.Between(1, 4));
      buffer.SetPlaneStride(buffer.GetHeight() * buffer.GetLineStride());
      break;
    case 15:
      buffer.SetPlaneStride(buffer.GetPlaneStride() + buffer.GetLineStride());
      break;
    case 16:  // a buffer too short for its rows
      buffer.SetPlaneStride(buffer.GetPlaneStride() / 8);
      break;
    case 17:
      reshape([&](Dims& dims) { dims[draws.Below(dims.size())] += draws.Between(1, 3); });
      break;
    case 18:
      reshape([&](Dims& dims) { dims.pop_back(); });
      break;
    default:
      reshape([&](Dims& dims) { dims.insert(dims.begin(), 2); });
  }
}

using Maker = CertificateCase (*)(Draws&);

const std::map<std::string, Maker>& Makers() {
  static const std::map<std::string, Maker> makers = {
      {"SOFTMAX", Softmax},
      {"DATA_STRIDE_CONV", DataStrideConv},
      {"RESHAPE", Reshape},
      {"BROADCAST", Broadcast},
      {"ARGMAX", Argmax},
      {"NORMALIZE", Normalize},
      {"MATMUL", Matmul},
      {"PERMUTE", Permute},
      {"SWCONCAT", Concat},
      {"DEPTHTOSPACE", DepthToSpace},
      {"PAD", Pad},
      {"GATHER", Gather},
      {"ELTWISE", Eltwise},
      {"SPACETOBATCH", [](Draws& draws) { return Blocks(draws, "paddings", true); }},
      {"SPACETODEPTH", SpaceToDepth},
      {"BATCHTOSPACE", [](Draws& draws) { return Blocks(draws, "crops", false); }},
  };
  return makers;
}

std::string BufferText(const BufAttrs& attrs) {
  const Format& format = attrs.GetMemFormat();
  std::string text =
      ShapeText(attrs.GetDims()) + (format.float_ ? " float" : " int") + std::to_string(format.bitdepth);
  if (format.plane_pack != 1) text += " pack " + std::to_string(format.plane_pack);
  if (attrs.IsStrided()) {
    text +=
        " line " + std::to_string(attrs.GetLineStride()) + " plane " + std::to_string(attrs.GetPlaneStride());
  }
  if (format.exp != 0) text += " exp " + std::to_string(format.exp);
  if (format.q8a) text += " zero " + std::to_string(format.q8a_zero);
  return text;
}

}  // namespace

std::vector<CertificateCase> CertificateCases(const std::string& type) {
  // Every type has a seed of its own, and every case: another type or more cases change none of the others.
  std::uint64_t seed = 0;
  for (const char letter : type) seed = seed * 131 + static_cast<unsigned char>(letter);
  const Maker make = Makers().at(type);
  std::vector<CertificateCase> cases;
  for (unsigned int i = 0; i < kValidCases + kSpoiltCases; ++i) {
    Draws draws(Draws(seed ^ i)());
    CertificateCase c = make(draws);
    c.seed = draws();
    c.is_called_with_nulls = draws.OneIn(16);
    if (i >= kValidCases) Spoil(c, i % kWays, draws);
    cases.push_back(std::move(c));
  }
  return cases;
}

void FillContents(Contents contents, std::uint64_t seed, std::byte* data, std::size_t bytes) {
  Draws draws(seed);
  for (std::size_t i = 0; i < bytes; i += sizeof(std::uint32_t)) {
    const std::uint32_t word = Word(contents, draws());
    std::memcpy(data + i, &word, std::min(bytes - i, sizeof word));
  }
}

void FillIndices(std::uint64_t seed, unsigned int limit, bool has_bad_index, std::byte* data,
                 std::size_t bytes) {
  Draws draws(seed);
  const std::size_t count = bytes / sizeof(std::uint32_t);
  const std::size_t bad = has_bad_index && count != 0 ? draws.Below(count) : count;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t index = i == bad || limit == 0 ? limit : draws.Below(limit);
    std::memcpy(data + i * sizeof index, &index, sizeof index);
  }
}

std::string CaseText(const CertificateCase& c) {
  std::string text;
  for (const AttrMap& attrs : c.configurations) {
    const std::map<std::string, std::string> sorted(attrs.begin(), attrs.end());
    for (const auto& [key, value] : sorted) text += key + "=" + value + " ";
    text += "; ";
  }
  for (const BufAttrs& attrs : c.inputs) text += BufferText(attrs) + ", ";
  text += "to";
  for (const BufAttrs& attrs : c.outputs) text += " " + BufferText(attrs);
  text += "; contents " + std::to_string(static_cast<int>(c.contents));
  if (c.is_in_place) text += " in place";
  if (c.is_one_input) text += " one input";
  if (c.is_spoilt) text += " spoilt";
  return text;
}

}  // namespace vekrun
