// Fill values of fixed-point tensors: the edges of the truncation, and random values next to the model's.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "model/model.h"
#include "support/random.h"
#include "support/room_headers.h"

namespace vek_test::fixed_point {
namespace {

using room::FillValue;
using room::TruncateToInt32;
using room::TruncateToUint32;

TEST(FixedPoint, TruncationSaturatesAndTakesNaNForZero) {
  constexpr float kInf = std::numeric_limits<float>::infinity();
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(TruncateToInt32(1.99F), 1);
  EXPECT_EQ(TruncateToInt32(-1.99F), -1);
  EXPECT_EQ(TruncateToInt32(2147483520.0F), 2147483520);
  EXPECT_EQ(TruncateToInt32(2147483648.0F), 2147483647);
  EXPECT_EQ(TruncateToInt32(-2147483648.0F), -2147483647 - 1);
  EXPECT_EQ(TruncateToInt32(kInf), 2147483647);
  EXPECT_EQ(TruncateToInt32(-kInf), -2147483647 - 1);
  EXPECT_EQ(TruncateToInt32(kNaN), 0);
  EXPECT_EQ(TruncateToUint32(0.99F), 0U);
  EXPECT_EQ(TruncateToUint32(-0.5F), 0U);
  EXPECT_EQ(TruncateToUint32(-kInf), 0U);
  EXPECT_EQ(TruncateToUint32(4294967040.0F), 4294967040U);
  EXPECT_EQ(TruncateToUint32(4294967296.0F), 4294967295U);
  EXPECT_EQ(TruncateToUint32(kInf), 4294967295U);
  EXPECT_EQ(TruncateToUint32(kNaN), 0U);
}

TEST(FixedPoint, ZeroFillsWithZeroWhateverTheExponent) {
  for (int exp : {0, 1, -1, -31, 31, 127, -32}) {
    EXPECT_EQ(FillValue<int>(0, exp), 0);
    EXPECT_EQ(FillValue<short>(0, exp), 0);
    EXPECT_EQ(FillValue<char>(0, exp), 0);
  }
}

TEST(FixedPoint, TheFactorIsShiftedByTheLowFiveBitsOfTheNegatedExponent) {
  EXPECT_EQ(FillValue<int>(3, 0), 3);
  EXPECT_EQ(FillValue<int>(3, -4), 48);
  EXPECT_EQ(FillValue<int>(3, -36), 48);
  EXPECT_EQ(FillValue<int>(3, 28), 48);
  EXPECT_EQ(FillValue<int>(1, 4), 1 << 28);
}

TEST(FixedPoint, AShiftBy31GivesANegativeFactor) {
  EXPECT_EQ(FillValue<int>(1, -31), -2147483647 - 1);
  EXPECT_EQ(FillValue<int>(1, 1), -2147483647 - 1);
  EXPECT_EQ(FillValue<char>(1, -31), 0);
}

TEST(FixedPoint, NarrowElementsKeepTheLowBits) {
  EXPECT_EQ(FillValue<short>(0x12345, 0), 0x2345);
  EXPECT_EQ(FillValue<unsigned char>(300, 0), 44);
  EXPECT_EQ(FillValue<unsigned char>(4294967295U, 0), 255);
  EXPECT_EQ(FillValue<short>(4294967295U, 0), -1);  // 0x7FFFFFFF
}

TEST(FixedPoint, TheProductIsRoundedToSinglePrecision) { EXPECT_EQ(FillValue<int>(16777217, 0), 16777216); }

TEST(FixedPoint, RandomValuesFollowTheModel) {
  ForRandomCases(2000, [](Random& random) {
    const auto value = static_cast<std::uint32_t>(random() >> random.Between(32, 63));
    const auto exp = static_cast<int>(random.Between(0, 200)) - 100;
    const std::uint32_t wide = vek_model::FixedPointFill(value, exp, false);
    EXPECT_EQ(static_cast<std::uint32_t>(FillValue<int>(value, exp)), wide);
    EXPECT_EQ(static_cast<std::uint16_t>(FillValue<short>(value, exp)), wide & 0xFFFFU);
    EXPECT_EQ(FillValue<unsigned char>(value, exp), vek_model::FixedPointFill(value, exp, true) & 0xFFU);
  });
}

}  // namespace
}  // namespace vek_test::fixed_point
