// The exact functions: the vector forms compared with their plain twins, and the plain twins with the model, with
// recorded values, and with the C library where it is one that is known to take the same steps. A sample of what scripts/prove-math compares
// in full.
#include "math/exact_math.h"

#include <gtest/gtest.h>

#include <gnu/libc-version.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "model/exact_math.h"
#include "support/guarded_buffer.h"
#include "support/random.h"
#include "support/room_headers.h"

namespace vek_test::exact_math {
namespace {

using zeb_custom_ops::detail::PlainExp;
using zeb_custom_ops::detail::PlainPow;
using zeb_custom_ops::detail::PowInto;

const std::size_t kFloatLanes = room::FloatLanes();

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

// Whether the C library takes the same steps: those of Arm's optimized routines, with multiply-adds fused.
bool LibraryTakesTheSteps() {
  const std::string version = gnu_get_libc_version();
  if (version != "2.36") return false;
#if defined(__x86_64__)
  return __builtin_cpu_supports("fma") != 0;
#else
  return true;
#endif
}

// Called where the compiler cannot see what is called: it turns powf(x, 2) into x * x.
float (*volatile const LibraryExp)(float) = expf;
float (*volatile const LibraryPow)(float, float) = powf;

// The one argument for which the C library of x86-64 gives another float: it fuses a product more.
constexpr float kTellTale = -0x1.f8cbb2p+5F;

void ExpectExp(const std::vector<float>& values) {
  for (std::size_t i = 0; i < values.size(); i += kFloatLanes) {
    std::vector<float> x(kFloatLanes);
    std::vector<float> got(kFloatLanes);
    for (std::size_t lane = 0; lane < kFloatLanes && i + lane < values.size(); ++lane)
      x[lane] = values[i + lane];
    room::ExpNonPositive(x.data(), got.data());
    for (std::size_t lane = 0; lane < kFloatLanes; ++lane) {
      const float plain = PlainExp(x[lane]);
      ASSERT_TRUE(Same(got[lane], plain)) << "e to the power " << x[lane];
      ASSERT_TRUE(Same(plain, vek_model::Exp(x[lane]))) << "e to the power " << x[lane];
      if (LibraryTakesTheSteps() && x[lane] != kTellTale) {
        ASSERT_TRUE(Same(plain, LibraryExp(x[lane]))) << "expf(" << x[lane] << ")";
      }
    }
  }
}

void ExpectPow(const std::vector<float>& values, float k) {
  const GuardedBuffer in = Guarded(values);
  const GuardedBuffer out(values.size() * sizeof(float));
  PowInto(in.as<float>(), out.as<float>(), values.size(), k);
  for (std::size_t i = 0; i < values.size(); ++i) {
    const float plain = PlainPow(values[i], k);
    ASSERT_TRUE(Same(out.as<float>()[i], plain)) << values[i] << " to the power " << k;
    ASSERT_TRUE(Same(plain, vek_model::Pow(values[i], k))) << values[i] << " to the power " << k;
    if (LibraryTakesTheSteps()) {
      ASSERT_TRUE(Same(plain, LibraryPow(values[i], k))) << "powf(" << values[i] << ", " << k << ")";
    }
  }
}

TEST(ExactExp, OneFloatTellsWhetherTheResultIsThatOf64BitArm) {
  EXPECT_EQ(PlainExp(kTellTale), 0x1.f45324p-92F);
  ExpectExp({kTellTale, kTellTale, -1.0F, kTellTale});
}

// What the C library of 64-bit Arm gives.
TEST(ExactExp, RecordedValues) {
  EXPECT_EQ(PlainExp(0.0F), 1.0F);
  EXPECT_EQ(PlainExp(-0.0F), 1.0F);
  EXPECT_EQ(PlainExp(-kDenormal), 1.0F);
  EXPECT_EQ(PlainExp(-1.0F), 0x1.78b564p-2F);
  EXPECT_EQ(PlainExp(-0.5F), 0x1.368b3p-1F);
  EXPECT_EQ(PlainExp(-10.0F), 0x1.7cd79cp-15F);
  EXPECT_EQ(PlainExp(-87.5F), 0x1.b2cafp-127F);  // subnormal
  EXPECT_EQ(PlainExp(-103.97F), kDenormal);
  EXPECT_EQ(PlainExp(-104.0F), 0.0F);
  EXPECT_EQ(PlainExp(-kGreatest), 0.0F);
  EXPECT_EQ(PlainExp(-kInf), 0.0F);
  EXPECT_TRUE(std::isnan(PlainExp(kNaN)));
}

TEST(ExactExp, VectorsGiveThePlainStepsOnASampleOfAllNonPositiveFloats) {
  std::vector<float> values;
  for (std::uint64_t bits = 0x80000000U; bits <= 0xff800000U; bits += 4999) {
    values.push_back(FromBits(static_cast<std::uint32_t>(bits)));
  }
  ExpectExp(values);
}

TEST(ExactExp, VectorsGiveThePlainStepsOnASampleOfTheRangeThatDoesNotRoundToOneOrZero) {
  std::vector<float> values;
  const auto last = std::bit_cast<std::uint32_t>(-105.0F);
  for (std::uint32_t bits = std::bit_cast<std::uint32_t>(-0x1p-27F); bits < last; bits += 997) {
    values.push_back(FromBits(bits));
  }
  ExpectExp(values);
}

TEST(ExactExp, EndsOfTheRange) {
  ExpectExp({0.0F, -0.0F, -kDenormal, -kLeastNormal, -kInf, kNaN, -kNaN, -kGreatest, -87.0F, -88.0F});
  std::vector<float> values;
  for (float x = -103.5F; x > -104.5F; x = std::nextafter(x, -kInf)) values.push_back(x);
  ExpectExp(values);
}

const float kPowers[] = {2,    0.5F, 2.2F, -0.5F,       3,      0.45454547F, -2,          1.7F, -0.75F,
                         1.5F, 1,    -1,   0.33333334F, 1e-30F, 0.015625F,   -1.0000001F, 100,  -7};

TEST(ExactPow, VectorsGiveThePlainStepsOnASampleOfAllFloats) {
  std::vector<float> values;
  for (std::uint64_t bits = 0; bits < std::uint64_t{1} << 32; bits += 49999) {
    values.push_back(FromBits(static_cast<std::uint32_t>(bits)));
  }
  for (const float k : kPowers) ExpectPow(values, k);
}

// Nothing but vectors that need no call.
TEST(ExactPow, VectorsGiveThePlainStepsOnASampleOfPositiveNormalFloats) {
  std::vector<float> values;
  for (std::uint32_t bits = std::bit_cast<std::uint32_t>(0x1p-16F);
       bits < std::bit_cast<std::uint32_t>(0x1p16F); bits += 9973) {
    values.push_back(FromBits(bits));
  }
  for (const float k : kPowers) ExpectPow(values, k);
}

// Powers of two make k * log2(x) an exact multiple of 1/64: halfway between two rows of the table.
TEST(ExactPow, HalvesBetweenTableRows) {
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

TEST(ExactPow, ValuesThatNeedThePlainStepsMayBeInAnyLane) {
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
  ForRandomCases(300, [&](Random& random) {
    std::vector<float> mixed;
    for (unsigned i = 0; i < 37; ++i) mixed.push_back(random.AnyFloat());
    ExpectPow(mixed, random.AnyFloat());
  });
}

TEST(ExactPow, EveryLengthAndInPlace) {
  for (std::size_t count = 0; count <= 5 * kFloatLanes; ++count) {
    std::vector<float> values;
    for (std::size_t i = 0; i < count; ++i) values.push_back(0.37F * static_cast<float>(i) + 0.5F);
    for (const float k : {2.2F, 2.0F, 0.5F, 3.0F}) {
      ExpectPow(values, k);
      for (const Guard guard : {Guard::kBefore, Guard::kAfter}) {
        const GuardedBuffer data = Guarded(values, guard);
        PowInto(data.as<float>(), data.as<float>(), count, k);
        for (std::size_t i = 0; i < count; ++i) {
          ASSERT_TRUE(Same(data.as<float>()[i], PlainPow(values[i], k)));
        }
      }
    }
  }
}

// What the standard's annex on IEC 60559 arithmetic lists.
TEST(ExactPow, SpecialValues) {
  struct Case {
    float x, k, power;
  };
  const Case cases[] = {
      {0.0F, -3, kInf},
      {-0.0F, -3, -kInf},
      {0.0F, -2, kInf},
      {-0.0F, -2, kInf},
      {-0.0F, -0.5F, kInf},
      {0.0F, -kInf, kInf},
      {-0.0F, -kInf, kInf},
      {0.0F, 3, 0.0F},
      {-0.0F, 3, -0.0F},
      {-0.0F, 2, 0.0F},
      {-0.0F, 2.5F, 0.0F},
      {-1.0F, kInf, 1.0F},
      {-1.0F, -kInf, 1.0F},
      {1.0F, kNaN, 1.0F},
      {kNaN, 0.0F, 1.0F},
      {kInf, -0.0F, 1.0F},
      {-8.0F, 0.5F, kNaN},
      {-8.0F, 3, -512.0F},
      {-8.0F, 2, 64.0F},
      {-8.0F, -1, -0.125F},
      {0.5F, -kInf, kInf},
      {2.0F, -kInf, 0.0F},
      {0.5F, kInf, 0.0F},
      {-2.0F, kInf, kInf},
      {-kInf, -3, -0.0F},
      {-kInf, -2, 0.0F},
      {-kInf, 3, -kInf},
      {-kInf, 2, kInf},
      {-kInf, 0.5F, kInf},
      {kInf, -1, 0.0F},
      {kInf, 2, kInf},
      {kNaN, 2, kNaN},
      {2.0F, kNaN, kNaN},
      {2.0F, 128, kInf},
      {-2.0F, 129, -kInf},
      {2.0F, -149, kDenormal},
      {2.0F, -151, 0.0F},
      {-2.0F, -151, -0.0F},
      {kDenormal, 1, kDenormal},
      {kDenormal, 0.5F, 0x1.6a09e6p-75F},
      {-1.0F, 16777216.0F, 1.0F},
      {-1.0F, 16777215.0F, -1.0F},
      {-1.0F, 8388607.5F, kNaN},
      {-1.0F, kGreatest, 1.0F},
  };
  const float signalling = FromBits(0x7f800001U);
  EXPECT_TRUE(std::isnan(PlainPow(signalling, 0.0F)));
  EXPECT_TRUE(std::isnan(PlainPow(1.0F, signalling)));
  ExpectPow({signalling, -signalling, 1.0F}, 0.0F);
  for (const Case& c : cases) {
    EXPECT_TRUE(Same(PlainPow(c.x, c.k), c.power)) << c.x << " to the power " << c.k;
    ExpectPow(std::vector<float>(kFloatLanes + 3, c.x), c.k);
  }
}

// What the C library of 64-bit Arm gives.
TEST(ExactPow, RecordedValues) {
  EXPECT_EQ(PlainPow(3.0F, 2.2F), 0x1.66c542p+3F);
  EXPECT_EQ(PlainPow(0.7F, 0.45454547F), 0x1.b35f1ap-1F);
  EXPECT_EQ(PlainPow(10.0F, -2.0F), 0x1.47ae14p-7F);
  EXPECT_EQ(PlainPow(1.1F, 100.0F), 0x1.aea524p+13F);
}

// Signed data, data with zeros, and either next to positive data: each loop hands over to the next one.
TEST(ExactPow, DataOfEverySign) {
  ForRandomCases(60, [&](Random& random) {
    std::vector<float> values;
    const unsigned runs = random.Between(1, 6);
    for (unsigned run = 0; run < runs; ++run) {
      const unsigned kind = random.Between(0, 4);
      const unsigned count = random.Between(0, 700);
      for (unsigned i = 0; i < count; ++i) {
        const float value = static_cast<float>(random.Between(1, 1000000)) * 0x1p-17F;
        values.push_back(kind == 0                      ? value
                         : kind == 1                    ? value - 4.0F
                         : kind == 2 && random.OneIn(2) ? 0.0F
                         : kind == 3 && random.OneIn(8) ? random.AnyFloat()
                                                        : value);
      }
    }
    for (const float k : {2.0F, 0.5F, 3.0F, 2.2F, -2.0F, -1.5F, -3.0F}) ExpectPow(values, k);
  });
}

// Squares and roots near the middle between two floats, and where the tests for it would underflow.
TEST(ExactPow, SquaresAndRootsOfEveryMagnitude) {
  std::vector<float> values;
  for (std::uint32_t exponent = 0; exponent < 255; ++exponent) {
    for (std::uint32_t i = 0; i < 331; ++i) values.push_back(FromBits(exponent << 23 | i * 25343));
  }
  ExpectPow(values, 2.0F);
  ExpectPow(values, 0.5F);
  for (float& value : values) value = -value;
  ExpectPow(values, 2.0F);
  ExpectPow(values, 0.5F);
}

}  // namespace
}  // namespace vek_test::exact_math
