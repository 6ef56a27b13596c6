#include "other_reading.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <vector>

#include "comparison.h"

namespace vekrun {
namespace {

using Dims = std::vector<unsigned int>;

// One way to read a side: which bytes make which element.
struct Reading {
  std::string text;  // what follows "A is"
  OffsetTable offsets;
  ElementType type;
  bool bytes_are_swapped = false;
};

using Order = std::vector<std::size_t>;

Order Identity(std::size_t rank) {
  Order order(rank);
  std::iota(order.begin(), order.end(), 0);
  return order;
}

// The memory of a dense tensor whose dimensions lie in another order: order[i] is the dimension that is i-th from
// outside.
OffsetTable OrderedOffsets(const Dims& dims, const Order& order, std::size_t element) {
  OffsetTable offsets(dims.size());
  std::size_t step = element;
  for (std::size_t i = order.size(); i-- > 0;) {
    const std::size_t d = order[i];
    for (std::size_t k = 0; k < dims[d]; ++k) offsets[d].push_back(k * step);
    step *= dims[d];
  }
  return offsets;
}

// The letters of axes whose last one is W.
std::string Letters(const Order& order) {
  std::string text;
  for (const std::size_t d : order)
    text.append(text.empty() ? "" : " ").push_back("NCHW"[4 - order.size() + d]);
  return text;
}

// Another line stride or number of interleaved channels.
std::vector<Reading> Layouts(const LaidOut& side) {
  std::vector<Reading> readings;
  const Dims dims = side.attrs.GetDims();
  for (const unsigned int line_unit : {1U, 4U, 8U, 16U, 32U, 64U, 128U, 256U, 512U}) {
    for (const int pack : {1, 2, 4, 8, 16, 32}) {
      zeb::PuxDnnBufAttrsMemFormat format = FormatOf(side.type);
      format.plane_pack = pack;
      vek_host::BufAttrs attrs(dims, format);
      if (pack > 1 && attrs.GetChannels() == 1) continue;
      const unsigned int row = attrs.GetLineStride();
      const unsigned int line = (row + line_unit - 1) / line_unit * line_unit;
      if (line_unit > 1 && line == row) continue;
      attrs.SetLineStride(line);
      attrs.SetPlaneStride(line * attrs.GetHeight());
      if (pack == side.attrs.GetMemFormat().plane_pack && line == side.attrs.GetLineStride()) continue;
      std::string text = "read as ";
      if (pack > 1 || line == row) text += "pack=" + std::to_string(pack);
      if (line != row) text.append(pack > 1 ? "," : "").append("line=" + std::to_string(line));
      readings.push_back({text, Offsets(attrs), side.type});
    }
  }
  return readings;
}

// Other orders of the dimensions in memory: channel-last and transposed planes, or all the others.
std::vector<Reading> Orders(const LaidOut& side, bool usual) {
  std::vector<Reading> readings;
  const Dims dims = side.attrs.GetDims();
  const std::size_t rank = dims.size();
  if (rank < 2 || rank > 4) return readings;
  Order transposed = Identity(rank);
  std::swap(transposed[rank - 1], transposed[rank - 2]);
  Order channel_last = Identity(rank);
  if (rank >= 3) std::rotate(channel_last.end() - 3, channel_last.end() - 2, channel_last.end());
  Order order = Identity(rank);
  while (std::next_permutation(order.begin(), order.end())) {
    if (usual != (order == transposed || order == channel_last)) continue;
    const std::string text = order == transposed     ? "read with rows and columns transposed"
                             : order == channel_last ? "read as channel-last, " + Letters(order)
                                                     : "read in the order " + Letters(order);
    readings.push_back({text, OrderedOffsets(dims, order, ElementBytes(side.type)), side.type});
  }
  return readings;
}

// The same layout with the positions of one axis reversed, or its halves swapped.
std::vector<Reading> Moves(const LaidOut& side) {
  std::vector<Reading> readings;
  const OffsetTable offsets = Offsets(side.attrs);
  for (std::size_t d = 0; d < offsets.size(); ++d) {
    const std::string axis = AxisPlural(offsets.size(), d);
    Reading reversed{"read with its " + axis + " in reverse order", offsets, side.type};
    std::reverse(reversed.offsets[d].begin(), reversed.offsets[d].end());
    if (offsets[d].size() > 1) readings.push_back(std::move(reversed));
    if (offsets[d].size() < 3 || offsets[d].size() % 2 != 0)
      continue;  // The halves of two are their reverse.
    Reading swapped{"read with the halves of its " + axis + " swapped", offsets, side.type};
    std::vector<std::size_t>& table = swapped.offsets[d];
    std::rotate(table.begin(), table.begin() + static_cast<std::ptrdiff_t>(table.size() / 2), table.end());
    readings.push_back(std::move(swapped));
  }
  return readings;
}

// The same bytes as elements of the other side's type, or in the other byte order.
std::vector<Reading> Words(const LaidOut& side, const LaidOut& other) {
  std::vector<Reading> readings;
  if (side.type != other.type && ElementBytes(side.type) == ElementBytes(other.type)) {
    readings.push_back({std::string("read as type=") + Name(other.type), Offsets(side.attrs), other.type});
  }
  if (ElementBytes(side.type) > 1) {
    readings.push_back(
        {"read with the bytes of each element reversed", Offsets(side.attrs), side.type, true});
  }
  return readings;
}

// Into the other side's shape: the same order of elements, or permuted dimensions.
std::vector<Reading> Shapes(const LaidOut& side, const LaidOut& other) {
  std::vector<Reading> readings;
  const Dims dims = side.attrs.GetDims();
  const Dims wanted = other.attrs.GetDims();
  if (ElementCount(dims) != ElementCount(wanted)) return readings;
  if (!side.attrs.IsStrided() && !side.attrs.IsInterleaved()) {
    readings.push_back({"given the shape " + ShapeText(wanted),
                        OrderedOffsets(wanted, Identity(wanted.size()), ElementBytes(side.type)), side.type});
  }
  const OffsetTable offsets = Offsets(side.attrs);
  Order order = Identity(dims.size());
  if (dims.size() != wanted.size() || dims.size() > 5) return readings;
  while (std::next_permutation(order.begin(), order.end())) {
    Reading reading{"permuted by axes=[", {}, side.type};
    bool fits = true;
    for (std::size_t i = 0; i < order.size(); ++i) {
      fits = fits && dims[order[i]] == wanted[i];
      reading.text.append(i == 0 ? "" : ",").append(std::to_string(order[i]));
      reading.offsets.push_back(offsets[order[i]]);
    }
    reading.text += "]";
    if (fits) readings.push_back(std::move(reading));
  }
  return readings;
}

// Of large tensors, a reading under which so many elements and most of those so far differ is given up.
constexpr std::uint64_t kMany = 4096;

// The differences that a reading of one side leaves; nothing where they are more than `limit`.
std::optional<OtherReading> Try(const LaidOut& side, const Reading& reading, const LaidOut& other,
                                bool side_is_a, const Tolerance& tolerance, std::uint64_t differences,
                                std::uint64_t limit) {
  const std::size_t element = ElementBytes(reading.type);
  LaidOut read = side;
  read.type = reading.type;
  if (tolerance.bits && read.type != other.type) return std::nullopt;
  OtherReading result{(side_is_a ? "A is " : "B is ") + reading.text, 0, 0};
  std::uint64_t out_of_reach = 0;
  return WithNumber(read, other, [&](auto number) -> std::optional<OtherReading> {
    const Judge<decltype(number)> judge(side_is_a ? read : other, side_is_a ? other : read, tolerance);
    const auto visit = [&](const Dims&, std::size_t offset, std::size_t other_offset) {
      if (offset + element > side.bytes) return ++out_of_reach < differences;
      const std::byte* at = side.memory + offset;
      std::array<std::byte, 8> swapped;
      if (reading.bytes_are_swapped) {
        std::reverse_copy(at, at + element, swapped.begin());
        at = swapped.data();
      }
      const std::byte* const other_at = other.memory + other_offset;
      ++result.compared;
      if (!(side_is_a ? judge.Agree(at, other_at) : judge.Agree(other_at, at))) ++result.differences;
      const bool is_hopeless = result.differences > kMany && 2 * result.differences > result.compared;
      return result.differences <= limit && !is_hopeless;
    };
    // What lies out of reach must not be able to hide all the differences that there are, nor be the larger part.
    if (!ForEachPair(reading.offsets, Offsets(other.attrs), visit)) return std::nullopt;
    if (out_of_reach >= result.compared) return std::nullopt;
    return result;
  });
}

}  // namespace

std::optional<OtherReading> FindOtherReading(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance,
                                             std::uint64_t differences) {
  std::optional<OtherReading> best;
  std::uint64_t limit = differences / 10;
  const auto look = [&](const LaidOut& side, const LaidOut& other, bool side_is_a,
                        const std::vector<Reading>& readings) {
    for (const Reading& reading : readings) {
      if (best && best->differences == 0) return;
      std::optional<OtherReading> found = Try(side, reading, other, side_is_a, tolerance, differences, limit);
      if (!found) continue;
      best = std::move(found);
      limit = best->differences == 0 ? 0 : best->differences - 1;
    }
  };
  if (a.attrs.GetDims() != b.attrs.GetDims()) {
    look(a, b, true, Shapes(a, b));
    look(b, a, false, Shapes(b, a));
    return best;
  }
  // Likely ones first, of either side: many a reading of one has its twin among the less likely ones of the other.
  look(a, b, true, Words(a, b));
  look(b, a, false, Words(b, a));
  look(a, b, true, Orders(a, /*usual=*/true));
  look(b, a, false, Orders(b, /*usual=*/true));
  look(a, b, true, Layouts(a));
  look(b, a, false, Layouts(b));
  look(a, b, true, Moves(a));
  look(a, b, true, Orders(a, /*usual=*/false));
  look(b, a, false, Orders(b, /*usual=*/false));
  return best;
}

}  // namespace vekrun
