/// \file
/// The sum of many numbers.
#pragma once

#include <cstdint>

namespace vekrun {

/// Sums blocks, then their sums, so that the error hardly grows with the number of summands.
class Sum {
 public:
  void Add(double value) {
    block_ += value;
    if (++count_ % kBlock == 0) Close();
  }

  double Total() {
    Close();
    return total_;
  }

 private:
  static constexpr std::uint64_t kBlock = 4096;

  void Close() {
    total_ += block_;
    block_ = 0;
  }

  double block_ = 0;
  double total_ = 0;
  std::uint64_t count_ = 0;
};

}  // namespace vekrun
