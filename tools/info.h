/// \file
/// Tells what is in a tensor: shape, type, layout, statistics, a histogram.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "element_values.h"

namespace CLI {
class App;
}

namespace vekrun {

struct Histogram {
  double least = 0;  ///< where the first bin begins
  double most = 0;   ///< where the last one ends, that value included
  std::vector<std::uint64_t> counts;
};

/// What is said of one tensor.
struct Statistics {
  std::uint64_t elements = 0, zeros = 0, nan = 0, infinite = 0;
  // Over the finite elements; NaN, and no index, where there is none.
  double least = 0, most = 0, mean = 0;
  double deviation = 0;                               ///< root of the mean squared distance from the mean
  std::vector<unsigned int> least_index, most_index;  ///< the first such element
  Histogram histogram;                                ///< integers of a small range have a bin each
};

/// \param real  whether fixed-point elements count as what they stand for.
Statistics Look(const LaidOut& tensor, bool real);

struct InfoRequest {
  std::vector<std::string> files;  ///< FILE[,option=value]...
  bool real = false;
  std::string json;  ///< path of the same as JSON; empty for none
};

/// Adds `vekrun info`.
/// \return it.
CLI::App* AddInfo(CLI::App* app, InfoRequest* request);
/// Throws `UsageError`.
void Info(const InfoRequest& request);

}  // namespace vekrun
