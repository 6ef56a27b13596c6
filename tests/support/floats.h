// Floats as the tests compare them: bit for bit, except that any NaN equals any other; processors differ in
// the NaNs that arithmetic makes.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/random.h"

namespace vek_test {

inline bool SameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

// Reports the first difference.
inline void ExpectSameFloats(const float* got, const float* want, std::size_t count,
                             const std::string& what = {}) {
  for (std::size_t i = 0; i < count; ++i) {
    if (SameFloat(got[i], want[i])) continue;
    ADD_FAILURE() << what << " element " << i << " of " << count << " is " << std::hexfloat << got[i]
                  << " and should be " << want[i];
    return;
  }
}

inline void ExpectSameFloats(const std::vector<float>& got, const std::vector<float>& want,
                             const std::string& what = {}) {
  ASSERT_EQ(got.size(), want.size()) << what;
  ExpectSameFloats(got.data(), want.data(), got.size(), what);
}

// Data of one kind, drawn per vector: fractions of small integers, numbers with all their bits, or a mixture
// with zeros of both signs, infinities, NaN and denormals.
inline std::vector<float> RandomFloats(Random& random, std::size_t count) {
  std::vector<float> values(count);
  const unsigned kind = random.Between(0, 3);
  for (float& value : values) {
    const auto bits = static_cast<std::int32_t>(random() >> 32);
    switch (kind) {
      case 0:
        value = static_cast<float>(bits % 100) / 8.0F;
        break;
      case 1:
        value = static_cast<float>(bits) * 0x1p-31F;
        break;
      case 2:
        value = random.OneIn(40) ? random.AnyFloat() : static_cast<float>(bits) * 0x1p-31F;
        break;
      default:
        value = random.AnyFloat();
    }
  }
  return values;
}

}  // namespace vek_test
