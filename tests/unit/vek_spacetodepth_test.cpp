// SPACETODEPTH: values, the kernel against its formula. The rest is in block_layers_test.cpp.
#include "custom_ops/vek_spacetodepth.h"

#include <gtest/gtest.h>

#include "model/vek_spacetodepth.h"
#include "support/formula_check.h"

namespace vek_test::spacetodepth {
namespace {

std::vector<int> BlocksOfTwo(const std::vector<unsigned>& in_dims, const std::vector<unsigned>& out_dims,
                             const std::vector<int>& values) {
  return Outputs<int>("SPACETODEPTH", {{"block_size", "2"}}, Buf::Int(32, in_dims), Buf::Int(32, out_dims),
                      values);
}

TEST(SpaceToDepth, OneBlockBecomesFourChannels) {
  EXPECT_EQ(BlocksOfTwo({1, 1, 2, 2}, {1, 4, 1, 1}, {0, 1, 2, 3}), (std::vector{0, 1, 2, 3}));
}

TEST(SpaceToDepth, ChannelsOfTheBlockAreOutermost) {
  EXPECT_EQ(BlocksOfTwo({1, 2, 2, 2}, {1, 8, 1, 1}, {0, 1, 2, 3, 4, 5, 6, 7}),
            (std::vector{0, 4, 1, 5, 2, 6, 3, 7}));
}

// The kernel next to the formula.
template <typename T>
Touched ExpectKernel(Random& random, const Buf& in, const Buf& out, int block) {
  return ExpectSameBytes(
      random,
      [&](auto& from, auto& to) {
        vek_model::SpaceToDepth(sizeof(T), block, vek_model::Shape(in), vek_model::Shape(out), from, to);
      },
      [&](void* from, void* to) {
        zeb_custom_ops::spacetodepth(in, out, static_cast<T*>(from), static_cast<T*>(to), block);
      });
}

TEST(SpaceToDepth, PositionsThatWrapAreWrittenInTheOrderOfTheInput) {
  // In rows of 2^31 elements, four to a plane, all channels wrap onto the first row.
  const Buf in = Buf::Int(8, {2, 3, 2, 6});
  Buf out = Buf::Int(8, {2, 12, 4, 3});
  out.dims[3] = 0x80000000U;
  Random random(5);
  EXPECT_EQ(ExpectKernel<char>(random, in, out, 2).in, 72U);
}

TEST(SpaceToDepth, TheKernelEqualsTheFormula) {
  ForWidths([](auto element) {
    using T = decltype(element);
    Random random(4);
    for (int b = 1; b <= 5; ++b) {
      SCOPED_TRACE(std::to_string(sizeof(T)) + " bytes, block " + std::to_string(b));
      const auto block = static_cast<unsigned>(b);
      ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
        ExpectKernel<T>(random, Buf::Int(8, {N, C, H * block, W * block}),
                        Buf::Int(8, {N, C * block * block, H, W}), b);
      });
    }
  });
}

TEST(SpaceToDepth, RowsLongerThanTheCacheHoldsEqualTheFormula) {
  Random random(6);
  for (unsigned width : {30U, 4000U, 40000U}) {
    const Buf in = Buf::Int(8, {1, 1, 120000 / width / 2 * 2, width});
    ExpectKernel<char>(random, in, Buf::Int(8, {1, 4, in.dims[2] / 2, width / 2}), 2);
  }
}

}  // namespace
}  // namespace vek_test::spacetodepth
