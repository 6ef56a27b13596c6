#include "comparison.h"

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <numeric>

#include "sum.h"

namespace vekrun {
namespace {

using Dims = std::vector<unsigned int>;

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

std::string Range(std::uint64_t least, std::uint64_t most) {
  return least == most ? std::to_string(least) : std::to_string(least) + " to " + std::to_string(most);
}

std::string Ordinal(std::size_t number) {
  const std::size_t last = number % 100 / 10 == 1 ? 0 : number % 10;
  return std::to_string(number) + (last == 1 ? "st" : last == 2 ? "nd" : last == 3 ? "rd" : "th");
}

}  // namespace

Comparison CompareElements(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance) {
  return WithNumber(a, b, [&](auto number) { return CompareAs<decltype(number)>(a, b, tolerance); });
}

std::string AxisPlural(std::size_t rank, std::size_t axis) {
  const std::string name = AxisName(rank, axis);
  return name.starts_with("slice") ? "slices" + name.substr(5) : name + "s";
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
           std::to_string(others) + " other " +
           (others == 1 ? AxisName(rank, axis) : AxisPlural(rank, axis)) +
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
    text = "all " + std::to_string(main.size()) + " " + AxisPlural(rank, axis);
  } else if (step == 1) {
    text = AxisPlural(rank, axis) + " " + Range(main.front(), main.back());
  } else if (step > 1 && main.size() > 2) {
    text = "every " + Ordinal(step) + " of the " + AxisPlural(rank, axis) + " " +
           Range(main.front(), main.back());
  } else {
    text = std::to_string(main.size()) + " of " + std::to_string(differences.size()) + " " +
           AxisPlural(rank, axis) + ", between " + std::to_string(main.front()) + " and " +
           std::to_string(main.back());
  }
  text += ": " + Range(least, *largest) + (main.size() == 1 ? "" : " in each");
  return elsewhere == 0 ? text : text + ", " + std::to_string(elsewhere) + " elsewhere";
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

}  // namespace vekrun
