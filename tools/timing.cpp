#include "timing.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>

namespace vekrun {
namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Reads and writes more memory than the caches hold.
class CacheSweep {
 public:
  CacheSweep() {
    const long last_level = sysconf(_SC_LEVEL3_CACHE_SIZE);
    memory_.resize(std::max<std::size_t>(std::size_t{1} << 26,
                                         last_level > 0 ? static_cast<std::size_t>(last_level) * 2 : 0));
  }
  void operator()() {
    for (std::size_t i = 0; i < memory_.size(); i += 32)
      memory_[i] = static_cast<unsigned char>(memory_[i] + 1);
  }

 private:
  std::vector<unsigned char> memory_;
};

struct Candidate {
  const std::function<bool()>* call;
  DurationCounts counts;
  std::uint64_t batch = 1;
  std::uint64_t warm_up = 0;
  double spent = 0;  // seconds
};

// Runs it until it is warm, and finds how many runs make a sample that a clock can tell.
bool WarmUp(Candidate* candidate, const TimingRequest& request) {
  const double budget = request.seconds > 0 ? request.seconds / 10 : 0.02;
  const Clock::time_point start = Clock::now();
  double least = 1e9;
  do {
    const Clock::time_point before = Clock::now();
    if (!(*candidate->call)()) return false;
    least = std::min(least, SecondsSince(before));
    ++candidate->warm_up;
  } while (SecondsSince(start) < budget && candidate->warm_up < 1000);
  constexpr double kShort = 5e-6;
  constexpr double kSample = 20e-6;
  if (least < kShort && !request.cold) {
    candidate->batch = static_cast<std::uint64_t>(std::ceil(kSample / std::max(least, 1e-8)));
  }
  return true;
}

bool IsDone(const Candidate& candidate, const TimingRequest& request) {
  return request.repeat > 0 ? candidate.counts.Total() >= request.repeat : candidate.spent >= request.seconds;
}

bool TakeSample(Candidate* candidate, CacheSweep* sweep) {
  if (sweep != nullptr) (*sweep)();
  const Clock::time_point start = Clock::now();
  for (std::uint64_t i = 0; i < candidate->batch; ++i) {
    if (!(*candidate->call)()) return false;
  }
  const double seconds = SecondsSince(start);
  candidate->spent += seconds;
  candidate->counts.Add(seconds / static_cast<double>(candidate->batch));
  return true;
}

}  // namespace

void DurationCounts::Add(double seconds) {
  min_ = total_ == 0 ? seconds : std::min(min_, seconds);
  ++total_;
  const double position = (std::log2(std::max(seconds, 1e-12) * 1e9) + 8) * kBins;
  ++counts_[static_cast<std::size_t>(std::clamp(position, 0.0, static_cast<double>(kBins * kOctaves - 1)))];
}

double DurationCounts::Quantile(double part) const {
  const auto wanted = static_cast<std::uint64_t>(std::ceil(part * static_cast<double>(total_)));
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < counts_.size(); ++i) {
    sum += counts_[i];
    if (sum < wanted || sum == 0) continue;
    return std::max(min_, std::exp2((static_cast<double>(i) + 0.5) / kBins - 8) * 1e-9);
  }
  return min_;
}

bool MeasureTimes(const std::vector<std::function<bool()>>& calls, const TimingRequest& request,
                  Times* times) {
  std::vector<Candidate> candidates;
  for (const auto& call : calls) candidates.push_back({&call, {}, 1, 0, 0});
  std::vector<CacheSweep> sweep(request.cold ? 1 : 0);
  for (Candidate& candidate : candidates) {
    if (!WarmUp(&candidate, request)) return false;
  }
  constexpr double kTurn = 5e-3;
  for (bool any = true; any;) {
    any = false;
    for (Candidate& candidate : candidates) {
      if (IsDone(candidate, request)) continue;
      any = true;
      // The last one's data is still in the caches.
      if (calls.size() > 1 && !request.cold && !(*candidate.call)()) return false;
      const double before = candidate.spent;
      do {
        if (!TakeSample(&candidate, sweep.empty() ? nullptr : &sweep[0])) return false;
      } while (!IsDone(candidate, request) && candidate.spent - before < kTurn);
    }
  }
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    const DurationCounts& counts = candidates[i].counts;
    times[i] = {counts.Total(),       candidates[i].batch,   candidates[i].warm_up, counts.Min(),
                counts.Quantile(0.5), counts.Quantile(0.95), counts.Quantile(0.99)};
  }
  return true;
}

}  // namespace vekrun
