/// \file
/// How long calls take.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

namespace vekrun {

struct TimingRequest {
  unsigned int repeat = 0;  ///< samples; 0 where `seconds` says
  double seconds = 0;       ///< for each call
  bool cold = false;        ///< the caches are emptied before each run
};

/// The times of one call. A sample is one run, or for a short call the mean of a batch of them.
struct Times {
  std::uint64_t samples = 0;
  std::uint64_t batch = 1;    ///< runs of a sample
  std::uint64_t warm_up = 0;  ///< runs before the first one that counts
  double min = 0;             ///< seconds, as are the others
  double median = 0;
  double p95 = 0;
  double p99 = 0;
};

/// Counts durations in constant memory: 1024 bins for each power of 2, so that a quantile is told to a thousandth.
class DurationCounts {
 public:
  DurationCounts() : counts_(kOctaves * kBins) {}
  void Add(double seconds);
  /// \return the duration that this part of all do not exceed.
  double Quantile(double part) const;
  double Min() const { return min_; }
  std::uint64_t Total() const { return total_; }

 private:
  static constexpr int kBins = 1024;
  static constexpr int kOctaves = 56;  // from a nanosecond's 1/256 up

  std::vector<std::uint64_t> counts_;
  std::uint64_t total_ = 0;
  double min_ = 0;
};

/// Times the calls in turns, a few milliseconds of each at a time, so that none has a better moment than another.
/// A call that returns false ends it all.
/// \return whether none did; `times` has one entry for each call.
bool MeasureTimes(const std::vector<std::function<bool()>>& calls, const TimingRequest& request,
                  Times* times);

}  // namespace vekrun
