// BATCHTOSPACE: values, the kernel against its formula, crops that wrap. The rest is in block_layers_test.cpp.
#include "custom_ops/vek_batchtospace.h"

#include <gtest/gtest.h>

#include "model/vek_batchtospace.h"
#include "support/formula_check.h"

namespace vek_test::batchtospace {
namespace {

std::vector<int> Cropped(const std::vector<unsigned>& in_dims, const std::vector<unsigned>& out_dims,
                         const std::string& block_shape, const std::string& crops,
                         const std::vector<int>& values) {
  return Outputs<int>("BATCHTOSPACE", {{"block_shape", block_shape}, {"crops", crops}}, Buf::Int(32, in_dims),
                      Buf::Int(32, out_dims), values);
}

TEST(BatchToSpace, FourItemsBecomeOneBlock) {
  EXPECT_EQ(Cropped({4, 1, 1, 1}, {1, 1, 2, 2}, "[2,2]", "[0,0,0,0]", {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(BatchToSpace, CropsLeaveOutTheFirstRow) {
  EXPECT_EQ(Cropped({2, 1, 2, 1}, {1, 1, 1, 2}, "[1,2]", "[1,0,0,0]", {0, 5, 0, 6}), (std::vector{5, 6}));
}

TEST(BatchToSpace, SurplusItemsAreNotRead) {
  EXPECT_EQ(Cropped({5, 1, 1, 1}, {1, 1, 2, 2}, "[2,2]", "[0,0,0,0]", {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(BatchToSpace, SurplusElementsOfTheListsAreIgnored) {
  EXPECT_EQ(Cropped({4, 1, 1, 1}, {1, 1, 2, 2}, "[[2,2]]\n", "[0,0,0,0,7]", {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(BatchToSpace, CropsLargerThanTheBlownUpSizeWrap) {
  Layer layer("BATCHTOSPACE");
  EXPECT_FALSE(layer.Configure({{"block_shape", "[2,3]"}, {"crops", "[0,0,5,5]"}},
                               {Buf::Int(16, {12, 3, 4, 3})}, {Buf::Int(16, {2, 3, 5, 6})}));
  EXPECT_EQ(layer.log, (Log{Error("vek_batchtospace.cpp", "wrong output width: 6, should be: -1")}));
}

TEST(BatchToSpace, NegativeCropsThatCancelOutWriteNothing) {
  for (const std::string crops : {"[-1,1,0,0]", "[0,0,-1,1]"}) {
    Layer layer("BATCHTOSPACE");
    const Buf buf = Buf::Int(16, {1, 1, 2, 2});
    ASSERT_TRUE(layer.Configure({{"block_shape", "[1,1]"}, {"crops", crops}}, {buf}, {buf}));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

// The kernel next to the formula.
template <typename T>
void ExpectKernel(Random& random, const Buf& in, const Buf& out, const vek_model::Crop& crop) {
  ExpectSameBytes(
      random,
      [&](auto& from, auto& to) {
        vek_model::BatchToSpace(sizeof(T), crop, vek_model::Shape(in), vek_model::Shape(out), from, to);
      },
      [&](void* from, void* to) {
        zeb_custom_ops::VekBatchToSpace().batchtospace(in, out, static_cast<T*>(from), static_cast<T*>(to),
                                                       crop.block_height, crop.block_width, crop.top,
                                                       crop.left);
      });
}

TEST(BatchToSpace, TheKernelEqualsTheFormula) {
  ForWidths([](auto element) {
    using T = decltype(element);
    Random random(4);
    for (unsigned block_width = 1; block_width <= 5; ++block_width) {
      const unsigned block_height = random.Between(1, 4);
      SCOPED_TRACE(std::to_string(sizeof(T)) + " bytes, block " + std::to_string(block_height) + " x " +
                   std::to_string(block_width));
      ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
        const unsigned top = random.Between(0, H * block_height);
        const unsigned left = random.Between(0, std::min(7U, W * block_width));
        const Buf in = Buf::Int(8, {N * block_height * block_width, C, H, W});
        Buf out = Buf::Int(8, {N, C, random.Between(0, H * block_height - top), W * block_width - left});
        if (out.dims[3] > 0 && random.OneIn(2)) --out.dims[3];
        ExpectKernel<T>(random, in, out, {block_height, block_width, top, left});
      });
    }
  });
}

TEST(BatchToSpace, PlanesLargerThanTheCacheHoldsEqualTheFormula) {
  Random random(5);
  ExpectKernel<char>(random, Buf::Int(8, {4, 3, 101, 105}), Buf::Int(8, {1, 3, 199, 205}), {2, 2, 1, 3});
}

}  // namespace
}  // namespace vek_test::batchtospace
