// Random cases whose seed is printed when one fails.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace vek_test {

// Where decisions come from: numbers drawn from a seed, or the bytes of a fuzz input. When the bytes run out, every
// decision is the first of its choices.
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  Random(const std::uint8_t* data, std::size_t size)
      : seeded_(false), data_(data), end_(data + size), most_elements_(16 + 4 * size) {}

  std::uint64_t operator()() { return seeded_ ? engine_() : Number(8); }
  // A number below n.
  std::uint64_t Below(std::uint64_t n) {
    return (seeded_ ? engine_() : Number(n <= 256 ? 1 : n <= 65536 ? 2 : 8)) % n;
  }
  // A number from `low` to `high`, both included.
  unsigned Between(unsigned low, unsigned high) {
    return low + static_cast<unsigned>(Below(std::uint64_t{high} - low + 1));
  }
  bool OneIn(unsigned n) { return Below(n) == n - 1; }
  template <typename T>
  T OneOf(std::initializer_list<T> values) {
    return values.begin()[Below(values.size())];
  }
  template <typename T>
  const T& OneOf(const std::vector<T>& values) {
    return values[Below(values.size())];
  }
  // No bytes are left. A seed never ends.
  bool IsExhausted() const { return !seeded_ && data_ == end_; }
  // How large a tensor of the case may be: an input that is short gives a small one, which runs fast. A seed has no limit.
  std::uint64_t MostElements() const { return most_elements_; }
  // An extent as shapes have them: mostly small, now and then 0, a vector's width or one beside it.
  unsigned Extent() {
    const auto kind = Below(24);
    if (kind == 23) return 0;
    if (kind >= 19) return OneOf({15U, 16U, 17U, 31U, 33U, 64U, 65U});
    return Between(1, 8);
  }
  // A float of any kind, see FloatOf.
  float AnyFloat();

 private:
  std::uint64_t Number(std::size_t bytes) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < bytes && data_ != end_; ++i) number |= std::uint64_t{*data_++} << (8 * i);
    return number;
  }

  std::mt19937_64 engine_;
  bool seeded_ = true;
  const std::uint8_t* data_ = nullptr;
  const std::uint8_t* end_ = nullptr;
  std::uint64_t most_elements_ = ~std::uint64_t{0};
};

// Small numbers mostly, also zeros of both signs, infinities, NaN, denormals, large ones, any bits.
inline float FloatOf(std::uint64_t bits) {
  const float small = static_cast<float>(static_cast<int>(bits % 2001) - 1000) / 64.0F;
  switch (bits >> 40 & 15) {
    case 0:
      return 0.0F;
    case 1:
      return -0.0F;
    case 2:
      return std::numeric_limits<float>::infinity();
    case 3:
      return -std::numeric_limits<float>::infinity();
    case 4:
      return std::numeric_limits<float>::quiet_NaN();
    case 5:
      return small * 1e-40F;
    case 6:
      return small * 1e36F;
    case 7:
      return std::bit_cast<float>(static_cast<std::uint32_t>(bits));
    default:
      return small;
  }
}

inline float Random::AnyFloat() { return FloatOf((*this)()); }

inline std::uint64_t EnvNumber(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr || *text == '\0' ? otherwise : std::strtoull(text, nullptr, 0);
}

// How many of so many cases this run makes: VEK_CASES_PERCENT of them, fewer where they take long.
inline std::uint64_t CasesOfRun(std::uint64_t cases) {
  return cases * EnvNumber("VEK_CASES_PERCENT", 100) / 100;
}

// Runs `body(random)` for VEK_RANDOM_CASES cases (default `CasesOfRun(cases)`), case i with seed VEK_SEED + i, until one
// fails. The failing case is repeated by VEK_SEED=<its seed> VEK_RANDOM_CASES=1.
template <typename Body>
void ForRandomCases(std::uint64_t cases, Body&& body) {
  const std::uint64_t seed = EnvNumber("VEK_SEED", 20261121);
  const std::uint64_t count = EnvNumber("VEK_RANDOM_CASES", CasesOfRun(cases));
  for (std::uint64_t i = 0; i < count && !testing::Test::HasFailure(); ++i) {
    Random random(seed + i);
    SCOPED_TRACE("repeat with VEK_SEED=" + std::to_string(seed + i) + " VEK_RANDOM_CASES=1");
    body(random);
  }
}

}  // namespace vek_test
