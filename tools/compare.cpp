#include "compare.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <numeric>

#include "file_argument.h"
#include "heat_map.h"
#include "new_file.h"
#include "sum.h"
#include "tensor_file.h"
#include "usage_error.h"

namespace vekrun {
namespace {

using Dims = std::vector<unsigned int>;

// Two elements, as far as a tolerance is concerned.
template <typename Number>
class Judge {
 public:
  Judge(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance)
      : a_type_(a.type),
        b_type_(b.type),
        a_format_(a.attrs.GetMemFormat()),
        b_format_(b.attrs.GetMemFormat()),
        tolerance_(tolerance) {}

  Number A(const std::byte* address) const { return Read(a_type_, a_format_, address); }
  Number B(const std::byte* address) const { return Read(b_type_, b_format_, address); }

  bool AreEqual(Number x, Number y, const std::byte* a, const std::byte* b) const {
    if (tolerance_.bits) return std::memcmp(a, b, ElementBytes(a_type_)) == 0;
    return x == y || (std::isnan(x) && std::isnan(y));
  }
  // Of two that are not equal.
  bool AreWithin(Number x, Number y, const std::byte* a, const std::byte* b) const {
    if (tolerance_.bits || std::isinf(x) || std::isinf(y)) return false;
    if (tolerance_.ulp && UlpDistance(a_type_, a, b) <= *tolerance_.ulp) return true;
    return static_cast<double>(std::fabs(x - y)) <=
           tolerance_.absolute + tolerance_.relative * static_cast<double>(std::fabs(y));
  }
  bool Agree(const std::byte* a, const std::byte* b) const {
    const Number x = A(a);
    const Number y = B(b);
    return AreEqual(x, y, a, b) || AreWithin(x, y, a, b);
  }

 private:
  Number Read(ElementType type, const zeb::PuxDnnBufAttrsMemFormat& format, const std::byte* address) const {
    const Number stored = ReadElement<Number>(type, address);
    return tolerance_.real ? Real(format, stored) : stored;
  }

  ElementType a_type_, b_type_;
  zeb::PuxDnnBufAttrsMemFormat a_format_, b_format_;
  Tolerance tolerance_;
};

// Calls run(Number{}) with the kind of numbers that holds the elements of both exactly.
template <typename Run>
auto WithNumber(const LaidOut& a, const LaidOut& b, Run run) {
  return FitsDouble(a.type) && FitsDouble(b.type) ? run(double{}) : run(static_cast<long double>(0));
}

template <typename Number>
Comparison CompareAs(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance) {
  const Judge<Number> judge(a, b, tolerance);
  Comparison result;
  for (const unsigned int extent : a.attrs.GetDims()) result.beyond_by_axis.emplace_back(extent, 0);
  if (a.type == b.type) result.largest_ulp = 0;

  Sum difference;
  Sum square;
  Sum a_square;
  Sum b_square;
  Sum product;
  std::uint64_t finite = 0;
  const auto compare = [&](const Dims& index, std::size_t a_offset, std::size_t b_offset) {
    const std::byte* const a_at = a.memory + a_offset;
    const std::byte* const b_at = b.memory + b_offset;
    const Number x = judge.A(a_at);
    const Number y = judge.B(b_at);
    const bool are_equal = judge.AreEqual(x, y, a_at, b_at);
    ++result.elements;
    result.equal += are_equal ? 1 : 0;
    if (std::isnan(x)) ++result.nan_in_a;
    if (std::isnan(y)) ++result.nan_in_b;
    if (std::isnan(x) && std::isnan(y)) ++result.nan_in_both;
    if (std::isinf(x)) ++result.infinite_in_a;
    if (std::isinf(y)) ++result.infinite_in_b;
    const bool are_finite = std::isfinite(x) && std::isfinite(y);
    const auto apart = static_cast<double>(are_finite ? std::fabs(x - y) : Number{HUGE_VAL});
    if (are_finite) {
      ++finite;
      difference.Add(apart);
      square.Add(apart * apart);
      a_square.Add(static_cast<double>(x) * static_cast<double>(x));
      b_square.Add(static_cast<double>(y) * static_cast<double>(y));
      product.Add(static_cast<double>(x) * static_cast<double>(y));
    }
    if (are_equal) return;
    if (result.largest.index.empty() || apart > result.largest.difference) {
      const auto text = [&](ElementType type, const std::byte* at, Number value) {
        return tolerance.real ? NumberText(static_cast<double>(value)) : ElementText(type, at);
      };
      result.largest = {apart, index, text(a.type, a_at, x), text(b.type, b_at, y)};
    }
    if (result.largest_ulp)
      result.largest_ulp = std::max(*result.largest_ulp, UlpDistance(a.type, a_at, b_at));
    if (judge.AreWithin(x, y, a_at, b_at)) return;
    if (result.beyond++ == 0) result.first = index;
    for (std::size_t d = 0; d < index.size(); ++d) ++result.beyond_by_axis[d][index[d]];
  };
  ForEachPair(Offsets(a.attrs), Offsets(b.attrs),
              [&](const Dims& index, std::size_t a_offset, std::size_t b_offset) {
                compare(index, a_offset, b_offset);
                return true;
              });

  const auto count = static_cast<double>(finite);
  const double noise = square.Total();
  const double signal = b_square.Total();
  result.mean_difference = difference.Total() / count;
  result.rms_difference = std::sqrt(noise / count);
  result.cosine = product.Total() / (std::sqrt(a_square.Total()) * std::sqrt(signal));
  result.snr_decibel = 10 * std::log10(signal / noise);
  return result;
}

// --- How differences lie along an axis.

// The word for one position of an axis; as for a description's accessors, the last one is W at any rank.
std::string AxisName(std::size_t rank, std::size_t axis) {
  constexpr std::array<const char*, 4> kFromInnermost = {"column", "row", "channel", "item"};
  const std::size_t from_innermost = rank - 1 - axis;
  if (rank == 1) return "position";
  if (from_innermost < 3 || rank == 4) return kFromInnermost[from_innermost];
  return "slice of axis " + std::to_string(axis);
}
std::string Plural(std::size_t rank, std::size_t axis) {
  const std::string name = AxisName(rank, axis);
  return name.starts_with("slice") ? "slices" + name.substr(5) : name + "s";
}

std::string Range(std::uint64_t least, std::uint64_t most) {
  return least == most ? std::to_string(least) : std::to_string(least) + " to " + std::to_string(most);
}

std::string Ordinal(std::size_t number) {
  const std::size_t last = number % 100 / 10 == 1 ? 0 : number % 10;
  return std::to_string(number) + (last == 1 ? "st" : last == 2 ? "nd" : last == 3 ? "rd" : "th");
}

// --- Other readings.

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
    const std::string axis = Plural(offsets.size(), d);
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

// --- The report.

using Json = nlohmann::ordered_json;

void Print(const std::string& line) { std::printf("%s\n", line.c_str()); }

std::string Number(std::uint64_t number) { return std::to_string(number); }

std::string Verb(std::uint64_t number, const char* one, const char* many) {
  return Number(number) + " " + (number == 1 ? one : many);
}

std::string ToleranceText(const Tolerance& tolerance) {
  if (tolerance.bits) return "bits";
  std::string text;
  const auto add = [&text](const char* name, double value) {
    if (value > 0) text.append(text.empty() ? "" : ", ").append(name).append(" ").append(NumberText(value));
  };
  add("atol", tolerance.absolute);
  add("rtol", tolerance.relative);
  add("ulp", tolerance.ulp.value_or(0));
  return text;
}

void PrintDifferences(const LaidOut& a, const Comparison& result, const Tolerance& tolerance) {
  const std::uint64_t unequal = result.elements - result.equal;
  std::string line =
      Number(result.equal) + " of " + Verb(result.elements, "element is", "elements are") + " equal";
  if (unequal > 0) line += ", " + Verb(unequal, "differs", "differ");
  const std::string limits = ToleranceText(tolerance);
  if (unequal > 0 && !limits.empty() && !tolerance.bits) {
    line += ", " + (result.beyond == 0 ? "none" : Number(result.beyond)) + " of them beyond " + limits;
  }
  Print(line);
  if (result.nan_in_a + result.nan_in_b > 0) {
    Print("NaN: " + Number(result.nan_in_a) + " in A, " + Number(result.nan_in_b) + " in B, " +
          Number(result.nan_in_both) + " at the same place");
  }
  if (result.infinite_in_a + result.infinite_in_b > 0) {
    Print("infinite: " + Number(result.infinite_in_a) + " in A, " + Number(result.infinite_in_b) + " in B");
  }
  if (unequal == 0) return;

  line = "largest difference " + NumberText(result.largest.difference) + " at " +
         IndexText(result.largest.index) + ": A " + result.largest.a + ", B " + result.largest.b;
  constexpr double kTellingUlp = 1e6;  // beyond, they say less than the difference itself
  if (IsFloat(a.type) && result.largest_ulp && *result.largest_ulp < kTellingUlp) {
    line += "; at most " + NumberText(*result.largest_ulp) + " ulp";
  }
  Print(line);
  Print("|A - B|: mean " + NumberText(result.mean_difference) + ", RMS " + NumberText(result.rms_difference) +
        "; cosine " + NumberText(result.cosine) + ", SNR " + NumberText(result.snr_decibel) + " dB");
  if (result.beyond < 2) return;
  const std::size_t rank = result.beyond_by_axis.size();
  for (std::size_t d = 0; d < rank; ++d) {
    if (result.beyond_by_axis[d].size() > 1) Print("  " + SpreadAlongAxis(rank, d, result.beyond_by_axis[d]));
  }
}

std::string ReadingText(const OtherReading& reading, std::uint64_t elements) {
  std::string text = reading.differences == 0
                         ? "equal when "
                         : "only " + Verb(reading.differences, "differs", "differ") + " when ";
  text += reading.text;
  if (reading.compared < elements)
    text += ", as far as its bytes reach: " + Number(reading.compared) + " elements";
  return text;
}

Json SideAsJson(const LaidOut& side) {
  return {{"name", side.name}, {"type", Name(side.type)}, {"shape", side.attrs.GetDims()}};
}

Json AsJson(const Comparison& result) {
  Json axes = Json::array();
  for (std::size_t d = 0; d < result.beyond_by_axis.size(); ++d) {
    Json counts = Json::array();
    for (std::size_t i = 0; i < result.beyond_by_axis[d].size(); ++i) {
      if (result.beyond_by_axis[d][i] > 0)
        counts.push_back({{"index", i}, {"beyond", result.beyond_by_axis[d][i]}});
    }
    axes.push_back({{"axis", d}, {"extent", result.beyond_by_axis[d].size()}, {"counts", counts}});
  }
  // JSON has no infinity and no NaN: they are null.
  Json json = {{"elements", result.elements},
               {"equal", result.equal},
               {"beyond", result.beyond},
               {"mean_difference", result.mean_difference},
               {"rms_difference", result.rms_difference},
               {"cosine", result.cosine},
               {"snr_decibel", result.snr_decibel},
               {"nan", {{"a", result.nan_in_a}, {"b", result.nan_in_b}, {"both", result.nan_in_both}}},
               {"infinite", {{"a", result.infinite_in_a}, {"b", result.infinite_in_b}}},
               {"largest", nullptr},
               {"largest_ulp", nullptr},
               {"first", nullptr},
               {"by_axis", axes}};
  if (result.largest_ulp) json["largest_ulp"] = *result.largest_ulp;
  if (result.equal < result.elements) {
    json["largest"] = {{"difference", result.largest.difference},
                       {"index", result.largest.index},
                       {"a", result.largest.a},
                       {"b", result.largest.b}};
  }
  if (result.beyond > 0) json["first"] = result.first;
  return json;
}

std::vector<float> AbsoluteDifferences(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance) {
  return WithNumber(a, b, [&](auto number) {
    const Judge<decltype(number)> judge(a, b, tolerance);
    std::vector<float> differences;
    ForEachPair(
        Offsets(a.attrs), Offsets(b.attrs), [&](const Dims&, std::size_t a_offset, std::size_t b_offset) {
          const auto x = judge.A(a.memory + a_offset);
          const auto y = judge.B(b.memory + b_offset);
          const bool are_equal = judge.AreEqual(x, y, a.memory + a_offset, b.memory + b_offset);
          // What differs shows, however little: at least as the smallest float. Bits alone may differ, too.
          differences.push_back(are_equal ? 0.0F : std::max(static_cast<float>(std::fabs(x - y)), FLT_MIN));
          return true;
        });
    return differences;
  });
}

void WriteFile(const std::string& path, const std::string& text) {
  NewFile file(path);
  file.Write(text);
  file.Publish();
}

void WritePicture(const std::string& path, const HeatMap& picture) {
  const Dims dims = {1, 3, picture.height, picture.width};
  const FileArgument target = ParseFileArgument(path);
  const std::size_t plane = std::size_t{picture.height} * picture.width;
  const std::shared_ptr<std::byte> data = NewBytes(3 * plane);
  for (std::size_t i = 0; i < plane; ++i) {
    for (std::size_t c = 0; c < 3; ++c)
      data.get()[c * plane + i] = static_cast<std::byte>(picture.pixels[3 * i + c]);
  }
  NewFile file(path);
  WriteTensor(target, {ElementType::kUint8, dims, data}, &file);
  file.Publish();
}

void CheckPicture(const std::string& path) {
  const FileArgument target = ParseFileArgument(path);
  if (KindOf(target) != FileKind::kPicture)
    throw UsageError(path + ": a picture's name ends in .png or .ppm");
  CheckCanHold(target, ElementType::kUint8, {1, 3, 1, 1});
}

void CheckTolerance(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance) {
  const bool of_elements = tolerance.bits || tolerance.ulp;
  const char* const option = tolerance.bits ? "--bits" : "--ulp";
  if (of_elements && a.type != b.type) {
    throw UsageError(std::string(option) + " compares elements of one type; A is " + Name(a.type) + ", B " +
                     Name(b.type));
  }
  if (of_elements && tolerance.real) {
    throw UsageError(std::string(option) +
                     " compares what is stored, --real what it stands for: give one of them");
  }
}

}  // namespace

Comparison CompareElements(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance) {
  return WithNumber(a, b, [&](auto number) { return CompareAs<decltype(number)>(a, b, tolerance); });
}

std::string SpreadAlongAxis(std::size_t rank, std::size_t axis,
                            const std::vector<std::uint64_t>& differences) {
  const std::uint64_t total = std::accumulate(differences.begin(), differences.end(), std::uint64_t{0});
  const auto largest = std::max_element(differences.begin(), differences.end());
  const std::string one = AxisName(rank, axis) + " ";
  const std::string place = one + std::to_string(largest - differences.begin()) + " has ";
  if (*largest == total) return place + "all of them";
  const auto others =
      std::count_if(differences.begin(), differences.end(), [](auto d) { return d != 0; }) - 1;
  if (2 * *largest > total) {
    return place + std::to_string(*largest) + " of the " + std::to_string(total) + " differences, " +
           std::to_string(others) + " other " + (others == 1 ? AxisName(rank, axis) : Plural(rank, axis)) +
           (others == 1 ? " has " : " have ") + std::to_string(total - *largest);
  }

  // The positions that make the pattern: those with a tenth of the most, or more.
  std::vector<std::size_t> main;
  std::uint64_t least = total;
  std::uint64_t elsewhere = total;
  for (std::size_t i = 0; i < differences.size(); ++i) {
    if (differences[i] == 0 || 10 * differences[i] < *largest) continue;
    main.push_back(i);
    least = std::min(least, differences[i]);
    elsewhere -= differences[i];
  }
  std::size_t step = main.size() > 1 ? main[1] - main[0] : 0;
  for (std::size_t i = 1; i < main.size(); ++i) {
    if (main[i] - main[i - 1] != step) step = 0;
  }
  std::string text;
  if (main.size() == differences.size()) {
    text = "all " + std::to_string(main.size()) + " " + Plural(rank, axis);
  } else if (step == 1) {
    text = Plural(rank, axis) + " " + Range(main.front(), main.back());
  } else if (step > 1 && main.size() > 2) {
    text =
        "every " + Ordinal(step) + " of the " + Plural(rank, axis) + " " + Range(main.front(), main.back());
  } else {
    text = std::to_string(main.size()) + " of " + std::to_string(differences.size()) + " " +
           Plural(rank, axis) + ", between " + std::to_string(main.front()) + " and " +
           std::to_string(main.back());
  }
  text += ": " + Range(least, *largest) + (main.size() == 1 ? "" : " in each");
  return elsewhere == 0 ? text : text + ", " + std::to_string(elsewhere) + " elsewhere";
}

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

bool ReportComparison(const LaidOut& a, const LaidOut& b, const ReportRequest& request) {
  const Tolerance& tolerance = request.tolerance;
  CheckTolerance(a, b, tolerance);
  if (!request.picture.empty()) CheckPicture(request.picture);
  Print("A: " + a.name + " (" + ShapeText(a.attrs.GetDims()) + " " + Name(a.type) + ")");
  Print("B: " + b.name + " (" + ShapeText(b.attrs.GetDims()) + " " + Name(b.type) + ")");
  const bool same_shape = a.attrs.GetDims() == b.attrs.GetDims();
  Json json = {{"a", SideAsJson(a)}, {"b", SideAsJson(b)}, {"agree", false}};
  const std::uint64_t elements = ElementCount(b.attrs.GetDims());
  std::uint64_t differences = elements;
  if (same_shape) {
    const Comparison result = CompareElements(a, b, tolerance);
    differences = result.beyond;
    PrintDifferences(a, result, tolerance);
    json.update(AsJson(result));
  } else {
    Print("the shapes differ");
  }
  const bool agree = same_shape && differences == 0;
  json["agree"] = agree;
  json["equal_when"] = nullptr;
  if (!agree) {
    if (const std::optional<OtherReading> other = FindOtherReading(a, b, tolerance, differences)) {
      Print(ReadingText(*other, elements));
      json["equal_when"] = {
          {"reading", other->text}, {"compared", other->compared}, {"beyond", other->differences}};
    }
  }
  if (!request.json.empty()) WriteFile(request.json, json.dump(2) + "\n");
  if (!request.picture.empty() && !same_shape) Print("no picture, for the shapes differ");
  if (!request.picture.empty() && same_shape) {
    WritePicture(request.picture, DrawHeatMap(a.attrs.GetDims(), AbsoluteDifferences(a, b, tolerance)));
  }
  return agree;
}

void AddToleranceOptions(CLI::App* app, ReportRequest* request) {
  Tolerance& tolerance = request->tolerance;
  app->add_option("--atol", tolerance.absolute, "Elements agree where |a - b| <= atol + rtol * |b|")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--rtol", tolerance.relative, "As --atol; B is the expected one")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--ulp", tolerance.ulp,
                  "Elements agree where so few units in the last place lie between them")
      ->check(CLI::NonNegativeNumber);
  app->add_flag("--bits", tolerance.bits,
                "Elements agree where their bits are equal: tells -0 from 0, NaN from NaN");
  app->add_flag("--real", tolerance.real,
                "Compare what fixed-point elements stand for, by exp, or zero and scale");
  app->add_option("--picture", request->picture, "A picture of the differences, .png or .ppm");
}

CLI::App* AddCompare(CLI::App* app, CompareRequest* request) {
  CLI::App* compare = app->add_subcommand("compare", "Tell whether two tensors agree, and how they differ");
  compare->add_option("A", request->a, "A tensor")->required();
  compare->add_option("B", request->b, "The expected one")->required();
  AddToleranceOptions(compare, &request->report);
  compare->add_option("--json", request->report.json, "The report as JSON");
  compare->footer(
      "NaN equals NaN, and -0 equals 0, but with --bits.\n"
      "Exit status: 0 all elements agree, 1 some do not, 2 wrong usage or a file that cannot be read.");
  return compare;
}

bool Compare(const CompareRequest& request) {
  const StoredTensor a = OpenTensor(ParseFileArgument(request.a));
  const StoredTensor b = OpenTensor(ParseFileArgument(request.b));
  return ReportComparison(View(a), View(b), request.report);
}

}  // namespace vekrun
