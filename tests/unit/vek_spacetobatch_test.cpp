// SPACETOBATCH: values and padding, the kernel against its formula. The rest is in block_layers_test.cpp.
#include "custom_ops/vek_spacetobatch.h"

#include <gtest/gtest.h>

#include "model/vek_spacetobatch.h"
#include "support/formula_check.h"

namespace vek_test::spacetobatch {
namespace {

template <typename T>
std::vector<T> Padded(const Buf& in_attrs, const Buf& out_attrs, const std::string& block_shape,
                      const std::string& paddings, const std::vector<T>& values) {
  return Outputs<T>("SPACETOBATCH", {{"block_shape", block_shape}, {"paddings", paddings}}, in_attrs,
                    out_attrs, values);
}

TEST(SpaceToBatch, OneBlockBecomesFourItems) {
  EXPECT_EQ(
      Padded<int>(Buf::Int(32, {1, 1, 2, 2}), Buf::Int(32, {4, 1, 1, 1}), "[2,2]", "[0,0,0,0]", {1, 2, 3, 4}),
      (std::vector{1, 2, 3, 4}));
}

TEST(SpaceToBatch, PaddingAboveIsZero) {
  EXPECT_EQ(Padded<int>(Buf::Int(32, {1, 1, 1, 2}), Buf::Int(32, {2, 1, 2, 1}), "[1,2]", "[1,0,0,0]", {5, 6}),
            (std::vector{0, 5, 0, 6}));
}

TEST(SpaceToBatch, PaddingIsTheZeroPointOfTheFormat) {
  Buf in = Buf::Int(8, {1, 1, 1, 2});
  Buf out = Buf::Int(8, {2, 1, 2, 1});
  using Bytes = std::vector<std::uint8_t>;
  in.format.q8a_zero = 128;
  EXPECT_EQ(Padded<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{0, 5, 0, 6}));
  in.format.q8a = true;
  EXPECT_EQ(Padded<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{128, 5, 128, 6}));
  // 3 * 2^6 = 192; the element keeps the low bits of 5 * 2^6 = 320.
  in.format.q8a_zero = 3;
  in.format.exp = -6;
  EXPECT_EQ(Padded<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{192, 5, 192, 6}));
  in.format.q8a_zero = 5;
  EXPECT_EQ(Padded<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{64, 5, 64, 6}));
  // The factor of exponent 1 is 1 << 31, which is negative; unsigned, it saturates at 0.
  in.format.exp = 1;
  EXPECT_EQ(Padded<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{0, 5, 0, 6}));
}

TEST(SpaceToBatch, PaddingOfWiderElementsSaturatesSigned) {
  Buf in = Buf::Int(32, {1, 1, 1, 2});
  const Buf out = Buf::Int(32, {2, 1, 2, 1});
  in.format.q8a = true;
  in.format.q8a_zero = 3;
  in.format.exp = -30;
  EXPECT_EQ(Padded<int>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (std::vector{2147483647, 5, 2147483647, 6}));
  in.format.exp = -31;
  EXPECT_EQ(Padded<int>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}),
            (std::vector{-2147483647 - 1, 5, -2147483647 - 1, 6}));
  in.format.exp = -33;  // the low five bits: 1
  EXPECT_EQ(Padded<int>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (std::vector{6, 5, 6, 6}));
}

TEST(SpaceToBatch, SurplusElementsOfTheListsAreIgnored) {
  const Buf in = Buf::Int(32, {1, 1, 2, 2});
  EXPECT_EQ(Padded<int>(in, Buf::Int(32, {4, 1, 1, 1}), "[2,2,9]", "[[0,0],[0,0]] ", {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(SpaceToBatch, BothDivisibilityChecksNameTheirOwnList) {
  Layer layer("SPACETOBATCH");
  const Buf in = Buf::Int(8, {1, 1, 3, 3});
  EXPECT_FALSE(layer.Configure({{"block_shape", "[2,2]"}, {"paddings", "[0,0,0,0]"}}, {in}, {in}));
  EXPECT_EQ(layer.log, (Log{Error("vek_spacetobatch.cpp",
                                  "block_height_ parameter incorrect: 2, number of "
                                  "(height+pad_top_+pad_bot_) (3 + 0 + 0 ) should be divisible by "
                                  "block_height_")}));
}

// --- The layer next to its model.

Setup Valid() {
  return {{{"block_shape", "[2,3]"}, {"paddings", "[1,2,3,0]"}},
          {Buf::Int(16, {2, 3, 5, 6})},
          {Buf::Int(16, {12, 3, 4, 3})}};
}

TEST(SpaceToBatch, ABlockHeightOfZeroRepeatsTheFirstRow) {
  Random random(2);
  ModelledLayer layer("SPACETOBATCH");
  auto setup = Valid();
  layer.Configure(setup);
  setup.attrs = {{"block_shape", "[0,3]"}, {"paddings", "[0,0,0,0]"}};
  layer.Configure(setup, {Error("vek_spacetobatch.cpp",
                                "block_height_ parameter incorrect: 0, number of "
                                "(height+pad_top_+pad_bot_) (5 + 0 + 0 ) should be divisible by "
                                "block_height_")});
  EXPECT_EQ(layer.Execute(random).out, setup.out[0].size);
}

TEST(SpaceToBatch, NegativePaddingsThatCancelOutLeaveNothingButPadding) {
  Random random(3);
  ModelledLayer layer("SPACETOBATCH");
  const Buf buf = Buf::Int(16, {1, 1, 2, 2});
  layer.Configure({{{"block_shape", "[1,1]"}, {"paddings", "[-1,1,0,0]"}}, {buf}, {buf}});
  const Touched touched = layer.Execute(random);
  EXPECT_EQ(touched.in, 0U);
  EXPECT_EQ(touched.out, 8U);
}

TEST(SpaceToBatch, ZeroExtentsOfTheInputArePaddedOver) {
  Random random(4);
  for (std::size_t zero : {2U, 3U}) {
    auto setup = Valid();
    setup.attrs["paddings"] = zero == 2 ? "[4,4,3,0]" : "[1,2,4,5]";
    setup.in[0].dims[zero] = 0;
    setup.in[0].Pad(0, 0);
    ModelledLayer layer("SPACETOBATCH");
    layer.Configure(setup);
    const Touched touched = layer.Execute(random);
    EXPECT_EQ(touched.in, 0U);
    EXPECT_EQ(touched.out, 864U);
  }
}

TEST(SpaceToBatch, SubGridsThatHoldNoColumnOfTheInputArePaddingAlone) {
  // One column at the end of a block, between short rows and long ones, which are filled in ways of their own.
  Random random(6);
  for (unsigned W_out : {4U, 64U}) {
    const std::string pad = std::to_string(W_out - 1);
    ModelledLayer layer("SPACETOBATCH");
    layer.Configure(
        {{{"block_shape", "[1,2]"}, {"paddings", "[0,0," + pad + "," + std::to_string(W_out) + "]"}},
         {Buf::Int(8, {1, 2, 3, 1})},
         {Buf::Int(8, {2, 2, 3, W_out})}});
    EXPECT_EQ(layer.Execute(random).out, 12 * W_out);
  }
}

// --- The kernel next to the formula.

template <typename T>
void ExpectKernel(Random& random, const Buf& in, const Buf& out, const vek_model::Padding& padding,
                  unsigned zero_point) {
  ExpectSameBytes(
      random,
      [&](auto& from, auto& to) {
        vek_model::SpaceToBatch(sizeof(T), padding, vek_model::Shape(in), vek_model::Shape(out), from, to);
      },
      [&](void* from, void* to) {
        zeb_custom_ops::VekSpaceToBatch().spacetobatch(in, out, static_cast<T*>(from), static_cast<T*>(to),
                                                       padding.block_height, padding.block_width, padding.top,
                                                       padding.left, zero_point);
      });
}

TEST(SpaceToBatch, TheKernelEqualsTheFormula) {
  ForWidths([](auto element) {
    using T = decltype(element);
    Random random(4);
    for (unsigned block_width = 1; block_width <= 5; ++block_width) {
      const unsigned block_height = random.Between(1, 4);
      SCOPED_TRACE(std::to_string(sizeof(T)) + " bytes, block " + std::to_string(block_height) + " x " +
                   std::to_string(block_width));
      ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
        // A shape of the output; the input lies anywhere inside.
        const unsigned top = random.Between(0, H * block_height);
        const unsigned left = random.Between(0, std::min(7U, W * block_width));
        Buf in = Buf::Int(8 * sizeof(T), {N, C, random.Between(0, H * block_height - top),
                                          W * block_width - left - random.Between(0, 1)});
        if (left + in.dims[3] > W * block_width) in.dims[3] = 0;
        in.format.exp = -3;  // 77 becomes 616
        const Buf out = Buf::Int(8, {N * block_height * block_width, C, H, W});
        ExpectKernel<T>(random, in, out, {block_height, block_width, top, left, 616}, 77);
      });
    }
  });
}

TEST(SpaceToBatch, InputPositionsWrapAtThirtyTwoBits) {
  // Of 2^32 elements an output of few rows reads the first ones only; the second item lies where the first does.
  Random random(7);
  ExpectKernel<char>(random, Buf::Int(8, {2, 1, 65536, 65536}), Buf::Int(8, {4, 1, 2, 3}), {1, 2, 1, 0, 77},
                     77);
  ExpectKernel<short>(random, Buf::Int(16, {1, 1, 65536, 65536}), Buf::Int(16, {1, 1, 2, 3}),
                      {1, 1, 0, 1, 77}, 77);
}

TEST(SpaceToBatch, PlanesLargerThanTheCacheHoldsEqualTheFormula) {
  Random random(5);
  ExpectKernel<char>(random, Buf::Int(8, {1, 3, 199, 205}), Buf::Int(8, {4, 3, 101, 105}), {2, 2, 1, 3, 77},
                     77);
}

}  // namespace
}  // namespace vek_test::spacetobatch
