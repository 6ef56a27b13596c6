/// \file
/// Tells how two tensors differ: by how much, where, and along which axis; and whether one is only laid out otherwise.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "element_values.h"

namespace CLI {
class App;
}

namespace vekrun {

/// When two elements agree: where they are equal, or within one of the tolerances. NaN equals NaN, -0 equals +0.
struct Tolerance {
  double absolute = 0;        ///< |a - b| <= absolute + relative * |b|
  double relative = 0;        ///< b is the expected one
  std::optional<double> ulp;  ///< units in the last place; of integers, the difference
  bool bits = false;          ///< only the same bits are equal: NaN by payload, zeros by sign
  bool real = false;          ///< compares what fixed-point elements stand for, not what is stored
};

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

/// One sentence on how the differences lie along an axis, such as "channel 17 has 36 of the 37 differences".
std::string SpreadAlongAxis(std::size_t rank, std::size_t axis,
                            const std::vector<std::uint64_t>& differences);

/// A way of reading one side that makes the two equal, or far more equal.
struct OtherReading {
  std::string text;               ///< such as "A is read as pack=16"
  std::uint64_t compared = 0;     ///< elements that it reaches; the memory may hold fewer than it asks for
  std::uint64_t differences = 0;  ///< beyond the tolerance among them
};

/// Tries likely other layouts and orders of either side, and of shapes that differ permutations.
/// \return the best one that leaves at most a tenth of the differences, or nothing.
std::optional<OtherReading> FindOtherReading(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance,
                                             std::uint64_t differences);

struct ReportRequest {
  Tolerance tolerance;
  std::string json;     ///< path of the report as JSON; empty for none
  std::string picture;  ///< path of a picture of |a - b|; empty for none
};

/// Compares, prints the report, and writes what else is asked for. Shapes that differ are a difference.
/// Throws `UsageError`.
/// \return whether all elements agree within the tolerance.
bool ReportComparison(const LaidOut& a, const LaidOut& b, const ReportRequest& request);

/// Adds the options of a tolerance and of the report: --atol, --rtol, --ulp, --bits, --real, --picture.
void AddToleranceOptions(CLI::App* app, ReportRequest* request);

struct CompareRequest {
  std::string a, b;  ///< FILE[,option=value]...
  ReportRequest report;
};

/// Adds `vekrun compare`.
/// \return it.
CLI::App* AddCompare(CLI::App* app, CompareRequest* request);
/// \return whether the two files agree. Throws `UsageError`.
bool Compare(const CompareRequest& request);

}  // namespace vekrun
