// The vector forms of expf and powf against the C library: a sample of what scripts/prove-math compares in
// full.
#include "math/exact_math.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "support/guarded_buffer.h"
#include "support/random.h"

namespace {

using namespace zeb_custom_ops::detail;
using vek_test::Guard;
using vek_test::Guarded;
using vek_test::GuardedBuffer;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();
constexpr float kLeastNormal = std::numeric_limits<float>::min();
constexpr float kGreatest = std::numeric_limits<float>::max();

float FromBits(std::uint32_t bits) { return std::bit_cast<float>(bits); }

// The same bits, or both NaN.
testing::AssertionResult Same(float got, float want) {
  if (std::bit_cast<std::uint32_t>(got) == std::bit_cast<std::uint32_t>(want) ||
      (std::isnan(got) && std::isnan(want))) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << got << " instead of " << want;
}

void ExpectExp(const std::vector<float>& values) {
  for (std::size_t i = 0; i < values.size(); i += kFloatLanes) {
    float x[kFloatLanes] = {};
    float got[kFloatLanes];
    for (std::size_t lane = 0; lane < kFloatLanes && i + lane < values.size(); ++lane)
      x[lane] = values[i + lane];
    Store(got, ExpNonPositive(Load<Floats>(x)));
    for (std::size_t lane = 0; lane < kFloatLanes; ++lane) {
      ASSERT_TRUE(Same(got[lane], std::exp(x[lane]))) << "expf(" << x[lane] << ")";
    }
  }
}

void ExpectPow(const std::vector<float>& values, float k) {
  const GuardedBuffer in = Guarded(values);
  const GuardedBuffer out(values.size() * sizeof(float));
  PowInto(in.as<float>(), out.as<float>(), values.size(), k);
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_TRUE(Same(out.as<float>()[i], std::pow(values[i], k))) << "powf(" << values[i] << ", " << k << ")";
  }
}

TEST(ExactExp, EqualsTheCLibraryOnASampleOfAllNonPositiveFloats) {
  std::vector<float> values;
  for (std::uint64_t bits = 0x80000000U; bits <= 0xff800000U; bits += 4999) {
    values.push_back(FromBits(static_cast<std::uint32_t>(bits)));
  }
  ExpectExp(values);
}

TEST(ExactExp, EqualsTheCLibraryOnASampleOfTheRangeThatDoesNotRoundToOneOrZero) {
  std::vector<float> values;
  const auto last = std::bit_cast<std::uint32_t>(-105.0F);
  for (std::uint32_t bits = std::bit_cast<std::uint32_t>(-0x1p-27F); bits < last; bits += 997) {
    values.push_back(FromBits(bits));
  }
  ExpectExp(values);
}

TEST(ExactExp, EndsOfTheRangeAndTheTellTale) {
  ExpectExp({-0x1.f8cbb2p+5F});  // The one float whose result shows whether products are fused.
  ExpectExp({0.0F, -0.0F, -kDenormal, -kLeastNormal, -kInf, kNaN, -kNaN, -kGreatest, -87.0F, -88.0F});
  std::vector<float> values;
  for (float x = -103.5F; x > -104.5F; x = std::nextafter(x, -kInf)) values.push_back(x);
  ExpectExp(values);
}

const float kPowers[] = {2,    0.5F, 2.2F, -0.5F,       3,      0.45454547F, -2,          1.7F, -0.75F,
                         1.5F, 1,    -1,   0.33333334F, 1e-30F, 0.015625F,   -1.0000001F, 100,  -7};

TEST(ExactPow, EqualsTheCLibraryOnASampleOfAllFloats) {
  std::vector<float> values;
  for (std::uint64_t bits = 0; bits < std::uint64_t{1} << 32; bits += 49999) {
    values.push_back(FromBits(static_cast<std::uint32_t>(bits)));
  }
  for (const float k : kPowers) ExpectPow(values, k);
}

// Nothing but vectors that need no call.
TEST(ExactPow, EqualsTheCLibraryOnASampleOfPositiveNormalFloats) {
  std::vector<float> values;
  for (std::uint32_t bits = std::bit_cast<std::uint32_t>(0x1p-16F);
       bits < std::bit_cast<std::uint32_t>(0x1p16F); bits += 9973) {
    values.push_back(FromBits(bits));
  }
  for (const float k : kPowers) ExpectPow(values, k);
}

// Powers of two make k * log2(x) an exact multiple of 1/64: halfway between two rows of the table.
TEST(ExactPow, HalvesBetweenTableRowsGoWhereTheCLibrarySendsThem) {
  std::vector<float> values;
  for (int exponent = -126; exponent < 128; ++exponent) values.push_back(std::ldexp(1.0F, exponent));
  for (int numerator = -255; numerator < 256; numerator += 2) {
    ExpectPow(values, static_cast<float>(numerator) / 64);
  }
}

TEST(ExactPow, EndsOfTheProvenRange) {
  std::vector<float> values;
  for (const float centre : {0x1p-63F, 0x1p63F, 0x1.fep-64F, 0x1.fcp63F, 0x1p-126F, 0x1.fffffep127F}) {
    float x = centre;
    for (int i = 0; i < 200; ++i) x = std::nextafter(x, 0.0F);
    for (int i = 0; i < 400 && std::isfinite(x); ++i) {
      values.push_back(x);
      x = std::nextafter(x, kInf);
    }
  }
  for (const float k : {2.0F, -2.0F, 1.0F, -1.0F, 1.999F, 2.001F}) ExpectPow(values, k);
}

TEST(ExactPow, ValuesThatNeedTheCLibraryMayStandInAnyLane) {
  const float specials[] = {0.0F, -0.0F, kInf, -kInf, kNaN, kDenormal, -1.5F, kLeastNormal, kGreatest, 1e30F};
  for (std::size_t lane = 0; lane < 2 * kFloatLanes; ++lane) {
    for (const float special : specials) {
      std::vector<float> values(3 * kFloatLanes, 1.25F);
      values[lane] = special;
      for (const float k : {2.2F, -3.0F, 0.5F}) ExpectPow(values, k);
    }
  }
}

TEST(ExactPow, AnyK) {
  std::vector<float> values = {0.0F, -0.0F, 1.0F, -1.0F,     2.0F,       0.7F,
                               kInf, -kInf, kNaN, kDenormal, 1.0000001F, 3.0F};
  for (const float k :
       {0.0F, -0.0F, kInf, -kInf, kNaN, kDenormal, kGreatest, 65536.0F, 65537.0F, -65536.0F}) {
    ExpectPow(values, k);
  }
  vek_test::ForRandomCases(300, [&](vek_test::Random& random) {
    std::vector<float> mixed;
    for (unsigned i = 0; i < 37; ++i) mixed.push_back(random.AnyFloat());
    ExpectPow(mixed, random.AnyFloat());
  });
}

TEST(ExactPow, EveryLengthAndInPlace) {
  for (std::size_t count = 0; count <= 5 * kFloatLanes; ++count) {
    std::vector<float> values;
    for (std::size_t i = 0; i < count; ++i) values.push_back(0.37F * static_cast<float>(i) + 0.5F);
    ExpectPow(values, 2.2F);
    for (const Guard guard : {Guard::kBefore, Guard::kAfter}) {
      const GuardedBuffer data = Guarded(values, guard);
      PowInto(data.as<float>(), data.as<float>(), count, 2.2F);
      for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(Same(data.as<float>()[i], std::pow(values[i], 2.2F)));
      }
    }
  }
}

}  // namespace
