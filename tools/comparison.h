/// \file
/// How two tensors of one shape differ: by how much, where, and along which axis.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "element_values.h"
#include "tolerance.h"

namespace vekrun {

/// An element where the two differ most.
struct LargestDifference {
  double difference = 0;            ///< |a - b|; infinite where only one is NaN or infinite
  std::vector<unsigned int> index;  ///< of the first such element; empty where there is none
  std::string a, b;                 ///< the two elements, as text
};

/// What is said of two tensors of one shape, a of them expected to be as b.
struct Comparison {
  std::uint64_t elements = 0;
  std::uint64_t equal = 0;
  std::uint64_t beyond = 0;  ///< of the elements that are not equal, those beyond the tolerance
  LargestDifference largest;
  std::optional<double> largest_ulp;  ///< where both have one type
  std::vector<unsigned int> first;    ///< the first element beyond the tolerance
  // Over the elements that are finite on both sides; NaN where there is none.
  double mean_difference = 0;  ///< of |a - b|
  double rms_difference = 0;   ///< root of the mean of (a - b)^2
  double cosine = 0;           ///< a.b / (|a| |b|); NaN where one is all zeros
  double snr_decibel = 0;      ///< 10 log10(b.b / |a - b|^2); infinite where nothing differs
  std::uint64_t nan_in_a = 0, nan_in_b = 0, nan_in_both = 0;
  std::uint64_t infinite_in_a = 0, infinite_in_b = 0;
  std::vector<std::vector<std::uint64_t>>
      beyond_by_axis;  ///< [axis][index]: the elements beyond the tolerance there
};

/// Compares two tensors of the same shape. `tolerance.bits` and `.ulp` want the same type on both sides.
Comparison CompareElements(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance);

/// \return the word for the positions of an axis, such as "channels"; as for a description's accessors, the last axis is W
/// at any rank.
std::string AxisPlural(std::size_t rank, std::size_t axis);

/// One sentence on how the differences lie along an axis, such as "channel 17 has 36 of the 37 differences".
std::string SpreadAlongAxis(std::size_t rank, std::size_t axis,
                            const std::vector<std::uint64_t>& differences);

/// \return |a - b| of each element, in dense order: 0 where the two are equal, else at least the smallest normal float.
std::vector<float> AbsoluteDifferences(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance);

}  // namespace vekrun
