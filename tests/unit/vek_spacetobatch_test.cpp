// Tests of layer type "SPACETOBATCH".
#include "custom_ops/vek_spacetobatch.h"

#include <gtest/gtest.h>

#include "reference/vek_spacetobatch_ref.h"
#include "support/moving_layer.h"

namespace vek_test {
namespace {

constexpr const char* kFile = "vek_spacetobatch.cpp";

// 2 x 3 x 5 x 6, padded to 8 x 9, in blocks of 2 x 3.
Setup Valid() {
  return {{{"block_shape", "[2,3]"}, {"paddings", "[1,2,3,0]"}},
          {Buf::Int(16, {2, 3, 5, 6})},
          {Buf::Int(16, {12, 3, 4, 3})}};
}

// Runs values through the layer.
template <typename T>
std::vector<T> Outputs(const Buf& in_attrs, const Buf& out_attrs, const std::string& block_shape,
                       const std::string& paddings, const std::vector<T>& values) {
  Layer layer("SPACETOBATCH");
  EXPECT_TRUE(
      layer.Configure({{"block_shape", block_shape}, {"paddings", paddings}}, {in_attrs}, {out_attrs}));
  GuardedBuffer in = Guarded(values);
  GuardedBuffer out(out_attrs.size);
  EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
  EXPECT_EQ(layer.log, Log{});
  return out.Get<T>();
}

TEST(SpaceToBatch, BlockOneWithoutPaddingCopies) {
  const Buf buf = Buf::Int(32, {1, 2, 1, 3});
  EXPECT_EQ(Outputs<int>(buf, buf, "[1,1]", "[0,0,0,0]", {1, 2, 3, 4, 5, 6}),
            (std::vector{1, 2, 3, 4, 5, 6}));
}

TEST(SpaceToBatch, OneBlockBecomesFourItems) {
  EXPECT_EQ(Outputs<int>(Buf::Int(32, {1, 1, 2, 2}), Buf::Int(32, {4, 1, 1, 1}), "[2,2]", "[0,0,0,0]",
                         {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(SpaceToBatch, PaddingAboveIsZero) {
  EXPECT_EQ(
      Outputs<int>(Buf::Int(32, {1, 1, 1, 2}), Buf::Int(32, {2, 1, 2, 1}), "[1,2]", "[1,0,0,0]", {5, 6}),
      (std::vector{0, 5, 0, 6}));
}

TEST(SpaceToBatch, PaddingIsTheZeroPointOfTheFormat) {
  Buf in = Buf::Int(8, {1, 1, 1, 2});
  Buf out = Buf::Int(8, {2, 1, 2, 1});
  using Bytes = std::vector<std::uint8_t>;
  in.format.q8a_zero = 128;
  EXPECT_EQ(Outputs<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{0, 5, 0, 6}));
  in.format.q8a = true;
  EXPECT_EQ(Outputs<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{128, 5, 128, 6}));
  // 3 * 2^6 = 192; the element keeps the low bits of 5 * 2^6 = 320.
  in.format.q8a_zero = 3;
  in.format.exp = -6;
  EXPECT_EQ(Outputs<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{192, 5, 192, 6}));
  in.format.q8a_zero = 5;
  EXPECT_EQ(Outputs<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{64, 5, 64, 6}));
  // The factor of exponent 1 is 1 << 31, which is negative; unsigned, it saturates at 0.
  in.format.exp = 1;
  EXPECT_EQ(Outputs<std::uint8_t>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (Bytes{0, 5, 0, 6}));
}

TEST(SpaceToBatch, PaddingOfWiderElementsSaturatesSigned) {
  Buf in = Buf::Int(32, {1, 1, 1, 2});
  const Buf out = Buf::Int(32, {2, 1, 2, 1});
  in.format.q8a = true;
  in.format.q8a_zero = 3;
  in.format.exp = -30;
  EXPECT_EQ(Outputs<int>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (std::vector{2147483647, 5, 2147483647, 6}));
  in.format.exp = -31;
  EXPECT_EQ(Outputs<int>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}),
            (std::vector{-2147483647 - 1, 5, -2147483647 - 1, 6}));
  in.format.exp = -33;  // the low five bits: 1
  EXPECT_EQ(Outputs<int>(in, out, "[1,2]", "[1,0,0,0]", {5, 6}), (std::vector{6, 5, 6, 6}));
}

TEST(SpaceToBatch, RefusesInOrder) {
  const auto line = [](const std::string& text) { return Log{Error(kFile, text)}; };
  const auto set_attrs = [](const AttrMap& attrs) { return [=](auto& setup) { setup.attrs = attrs; }; };
  const auto set_attr = [](const std::string& key, const std::string& text) {
    return [=](auto& setup) { setup.attrs[key] = text; };
  };
  std::vector<Fault> faults = {
      {"no input", [](auto& setup) { setup.in.clear(); },
       line("wrong number of inputs, expected: 1, got: 0")},
      {"two outputs", [](auto& setup) { setup.out.push_back(setup.out[0]); },
       line("wrong number of outputs, expected: 1, got: 2")},
      {"one attribute", set_attrs({{"block_shape", "[2,3]"}}), line("expected 2 attribute, but got 1"),
       "attrs"},
      {"three attributes", set_attrs({{"block_shape", "[2,3]"}, {"paddings", "[1,2,3,0]"}, {"more", ""}}),
       line("expected 2 attribute, but got 3"), "attrs"},
      {"no block shape", set_attrs({{"blockshape", "[2,3]"}, {"paddings", "[1,2,3,0]"}}),
       line("expected operation parameter: block_shape not found."), "attrs"},
      {"block shape too short a text", set_attr("block_shape", "[]"),
       line("ERROR: Wrongly formated parameter string (too short)"), "attrs"},
      {"block shape without end", set_attr("block_shape", "[2,3"),
       line("ERROR: Wrongly formated parameter string for software operation"), "attrs"},
      {"block shape of one element", set_attr("block_shape", "[2]"),
       line("ERROR: block_shape should have 2 elements, but has 1"), "attrs"},
      {"no paddings", set_attrs({{"block_shape", "[2,3]"}, {"padding", "[1,2,3,0]"}}),
       line("expected operation parameter: paddings not found."), "attrs"},
      {"paddings without end", set_attr("paddings", "1,2,3,0"),
       line("ERROR: Wrongly formated parameter string for software operation"), "paddings"},
      {"paddings of three elements", set_attr("paddings", "[1,2,3]"),
       line("ERROR: paddings should have 4 elements, but has 3"), "paddings"},
      {"height", set_attr("block_shape", "[3,3]"),
       line("block_height_ parameter incorrect: 3, number of (height+pad_top_+pad_bot_) (5 + 1 + 2 ) should "
            "be divisible by block_height_"),
       "paddings"},
      {"block height 0", set_attr("block_shape", "[0,3]"),
       line("block_height_ parameter incorrect: 0, number of (height+pad_top_+pad_bot_) (5 + 1 + 2 ) should "
            "be divisible by block_height_"),
       "paddings"},
      {"width", set_attr("block_shape", "[2,4]"),
       line("block_width_ parameter incorrect: 4, number of (width+pad_left+pad_right) (6 + 3 + 0) should be "
            "divisible by block_width_"),
       "paddings"},
      {"block width 0", set_attr("block_shape", "[2,0]"),
       line("block_width_ parameter incorrect: 0, number of (width+pad_left+pad_right) (6 + 3 + 0) should be "
            "divisible by block_width_"),
       "paddings"},
      {"batch", SpoilOut(SetDim(0, 11)), line("wrong output batch: 11, should be: 12")},
      {"channels", SpoilOut(SetDim(1, 4)), line("wrong output channels: 4, should be: 3")},
      {"width", SpoilOut(SetDim(3, 4)), line("wrong output width: 4, should be: 3")},
      {"height", SpoilOut(SetDim(2, 3)), line("wrong output height: 3, should be: 4")},
  };
  AddFormatFaults(faults, kFile, 360, 864);
  CheckOrderOfRefusals("SPACETOBATCH", Valid(), faults);
}

TEST(SpaceToBatch, BothDivisibilityChecksNameTheirOwnList) {
  Layer layer("SPACETOBATCH");
  const Buf in = Buf::Int(8, {1, 1, 3, 3});
  EXPECT_FALSE(layer.Configure({{"block_shape", "[2,2]"}, {"paddings", "[0,0,0,0]"}}, {in}, {in}));
  EXPECT_EQ(layer.log, (Log{Error(kFile,
                                  "block_height_ parameter incorrect: 2, number of "
                                  "(height+pad_top_+pad_bot_) (3 + 0 + 0 ) should be divisible by "
                                  "block_height_")}));
}

TEST(SpaceToBatch, SurplusElementsOfTheListsAreIgnored) {
  const Buf in = Buf::Int(32, {1, 1, 2, 2});
  EXPECT_EQ(Outputs<int>(in, Buf::Int(32, {4, 1, 1, 1}), "[2,2,9]", "[[0,0],[0,0]] ", {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(SpaceToBatch, ExecuteRefusesInOrder) {
  Layer layer("SPACETOBATCH");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Can't run Execute() without Configure()")}));
  auto setup = Valid();
  for (auto* buf : {&setup.in[0], &setup.out[0]}) {
    *buf = Buf::Int(12, buf->dims);
    buf->size = 1000;
  }
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  void* none[] = {nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Input buffer is NULL")}));
  EXPECT_FALSE(layer.ExecuteRaw(none, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Output buffer is NULL")}));
  EXPECT_FALSE(layer.ExecuteRaw(none, none));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "not supported bitdepth: 12.")}));
}

// Reaches the states that no host can bring about.
struct Opened : zeb_custom_ops::VekSpaceToBatch {
  using VekSpaceToBatch::configured_;
  using VekSpaceToBatch::in_attrs_;
  using VekSpaceToBatch::out_attrs_;
};

TEST(SpaceToBatch, ExecuteWithoutClonesIsRefused) {
  Opened layer;
  layer.configured_ = true;
  void* none[] = {nullptr};
  bool result = true;
  EXPECT_EQ(CaptureLog([&] { result = layer.Execute(none, none); }),
            (Log{Error(kFile, "input buffer attrs are NULL")}));
  EXPECT_FALSE(result);
  layer.in_attrs_ = std::make_unique<Buf>();
  EXPECT_EQ(CaptureLog([&] { result = layer.Execute(none, none); }),
            (Log{Error(kFile, "output buffer attrs are NULL")}));
  EXPECT_FALSE(result);
}

TEST(SpaceToBatch, ARefusedConfigureLeavesItsClonesAndLists) {
  Random random(1);
  Layer layer("SPACETOBATCH");
  SpaceToBatchModel model;
  const auto configure = [&](const auto& setup) {
    const Log log = model.Configure(setup.attrs, setup.in, setup.out);
    EXPECT_EQ(layer.Configure(setup.attrs, setup.in, setup.out), log.empty());
    EXPECT_EQ(layer.log, log);
    CheckExecute(layer.get(), model.Execute(), random);
    return log.empty();
  };
  ASSERT_TRUE(configure(Valid()));
  auto refused = Valid();
  refused.attrs["paddings"] = "[1,2]";  // the block shape is stored before, the paddings stay
  refused.attrs["block_shape"] = "[3,2]";
  EXPECT_FALSE(configure(refused));
  refused = Valid();
  refused.out[0].size = 1;
  EXPECT_FALSE(configure(refused));
  refused.attrs = {};
  refused.in[0].dims = {1, 2, 3, 4};
  EXPECT_FALSE(configure(refused));
}

TEST(SpaceToBatch, AKernelThatWouldDivideByZeroDoesNothing) {
  Layer layer("SPACETOBATCH");
  const auto valid = Valid();
  ASSERT_TRUE(layer.Configure(valid.attrs, valid.in, valid.out));
  EXPECT_FALSE(layer.Configure({{"block_shape", "[1,0]"}, {"paddings", "[0,0,0,0]"}}, valid.in, valid.out));
  EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
  auto no_items = valid;
  no_items.in[0].dims[0] = 0;
  EXPECT_FALSE(layer.Configure(valid.attrs, no_items.in, no_items.out));
  EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
  EXPECT_EQ(layer.log, Log{});
}

TEST(SpaceToBatch, ABlockHeightOfZeroRepeatsTheFirstRow) {
  Random random(2);
  Layer layer("SPACETOBATCH");
  SpaceToBatchModel model;
  const auto valid = Valid();
  ASSERT_TRUE(layer.Configure(valid.attrs, valid.in, valid.out));
  model.Configure(valid.attrs, valid.in, valid.out);
  const AttrMap no_height = {{"block_shape", "[0,3]"}, {"paddings", "[0,0,0,0]"}};
  EXPECT_FALSE(layer.Configure(no_height, valid.in, valid.out));
  model.Configure(no_height, valid.in, valid.out);
  CheckExecute(layer.get(), model.Execute(), random);
}

TEST(SpaceToBatch, NegativePaddingsThatCancelOutLeaveNothingButPadding) {
  Random random(3);
  SpaceToBatchModel model;
  Layer layer("SPACETOBATCH");
  const Buf buf = Buf::Int(16, {1, 1, 2, 2});
  const AttrMap attrs = {{"block_shape", "[1,1]"}, {"paddings", "[-1,1,0,0]"}};
  ASSERT_TRUE(layer.Configure(attrs, {buf}, {buf}));
  model.Configure(attrs, {buf}, {buf});
  const Outcome outcome = model.Execute();
  for (const Move& move : outcome.moves) EXPECT_EQ(move.from, Move::kFill);
  CheckExecute(layer.get(), outcome, random);
}

TEST(SpaceToBatch, ZeroExtentsOfTheInputArePaddedOver) {
  Random random(4);
  for (std::size_t zero : {2U, 3U}) {
    auto setup = Valid();
    setup.attrs["paddings"] = zero == 2 ? "[4,4,3,0]" : "[1,2,4,5]";
    setup.in[0].dims[zero] = 0;
    setup.in[0].Pad(0, 0);
    SpaceToBatchModel model;
    Layer layer("SPACETOBATCH");
    ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
    model.Configure(setup.attrs, setup.in, setup.out);
    EXPECT_EQ(model.Execute().moves.size(), 432U);
    CheckExecute(layer.get(), model.Execute(), random);
  }
}

TEST(SpaceToBatch, PhasesThatHoldNoColumnOfTheInputArePaddingAlone) {
  // One column in the last place of a block, between short rows and long ones, which are filled in ways of their own.
  Random random(6);
  for (unsigned W_out : {4U, 64U}) {
    const std::string pad = std::to_string(W_out - 1);
    const AttrMap attrs = {{"block_shape", "[1,2]"},
                           {"paddings", "[0,0," + pad + "," + std::to_string(W_out) + "]"}};
    const Buf in = Buf::Int(8, {1, 2, 3, 1});
    const Buf out = Buf::Int(8, {2, 2, 3, W_out});
    SpaceToBatchModel model;
    Layer layer("SPACETOBATCH");
    ASSERT_TRUE(layer.Configure(attrs, {in}, {out}));
    model.Configure(attrs, {in}, {out});
    CheckExecute(layer.get(), model.Execute(), random);
  }
}

TEST(SpaceToBatch, BlockOneMayRunInPlace) {
  const Buf buf = Buf::Int(16, {2, 3, 5, 7});
  Layer layer("SPACETOBATCH");
  ASSERT_TRUE(layer.Configure({{"block_shape", "[1,1]"}, {"paddings", "[0,0,0,0]"}}, {buf}, {buf}));
  Random random(3);
  GuardedBuffer data(buf.size);
  data.FillRandom(random);
  const std::vector<std::uint8_t> before = data.Get();
  EXPECT_TRUE(layer.Execute({data.data()}, {data.data()}));
  EXPECT_EQ(data.Get(), before);
}

TEST(SpaceToBatch, ExecuteAsksForEachSizeOnce) {
  Layer layer("SPACETOBATCH");
  const auto setup = Valid();
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  GuardedBuffer in(setup.in[0].size);
  GuardedBuffer out(setup.out[0].size);
  Buf::ResetCalls();
  ASSERT_TRUE(layer.Execute({in.data()}, {out.data()}));
  for (Slot slot : {kGetBatch, kGetChannels, kGetHeight, kGetWidth, kGetMemFormat}) {
    EXPECT_LE(Buf::calls[slot], 2) << slot;
  }
  EXPECT_EQ(Buf::calls[kGetDims], 0);
  EXPECT_EQ(Buf::calls[kClone], 0);
}

template <typename T>
class SpaceToBatchKernel : public testing::Test {};
using Widths = testing::Types<int, short, char>;
TYPED_TEST_SUITE(SpaceToBatchKernel, Widths);

TYPED_TEST(SpaceToBatchKernel, EqualsTheFormula) {
  using T = TypeParam;
  Random random(4);
  for (unsigned block_width = 1; block_width <= 5; ++block_width) {
    const unsigned block_height = random.Between(1, 4);
    SCOPED_TRACE(Text("block ", block_height, " x ", block_width));
    ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
      // A shape of the output; the input lies anywhere inside.
      const unsigned top = random.Between(0, H * block_height);
      const unsigned left = random.Between(0, std::min(7U, W * block_width));
      Buf in = Buf::Int(8 * sizeof(T), {N, C, random.Between(0, H * block_height - top),
                                        W * block_width - left - random.Between(0, 1)});
      if (left + in.dims[3] > W * block_width) in.dims[3] = 0;
      in.format.exp = -3;
      const Buf out = Buf::Int(8, {N * block_height * block_width, C, H, W});
      Outcome outcome;
      outcome.bitdepth = 8 * sizeof(T);
      outcome.fill = SpaceToBatchFill(77, in.format);
      SpaceToBatchMoves(outcome, block_height, block_width, top, left, Nchw(in), Nchw(out));
      CheckMoves(outcome, random, AnySide(random), [&](void* from, void* to) {
        zeb_custom_ops::VekSpaceToBatch().spacetobatch(in, out, static_cast<T*>(from), static_cast<T*>(to),
                                                       block_height, block_width, top, left, 77);
        return true;
      });
    });
  }
}

TEST(SpaceToBatch, PlanesLargerThanTheCacheHoldsEqualTheFormula) {
  Random random(5);
  const Buf in = Buf::Int(8, {1, 3, 199, 205});
  const Buf out = Buf::Int(8, {4, 3, 101, 105});
  Outcome outcome;
  outcome.bitdepth = 8;
  outcome.fill = 77;
  SpaceToBatchMoves(outcome, 2, 2, 1, 3, Nchw(in), Nchw(out));
  CheckMoves(outcome, random, Guard::kAfter, [&](void* from, void* to) {
    zeb_custom_ops::VekSpaceToBatch().spacetobatch(in, out, static_cast<char*>(from), static_cast<char*>(to),
                                                   2, 2, 1, 3, 77);
    return true;
  });
}

Setup GenerateValid(Random& random) {
  const unsigned block_height = random.Between(1, 4);
  const unsigned block_width = random.Between(1, 4);
  std::vector<unsigned> dims = {random.Between(0, 3), random.Extent(), random.Extent(), random.Extent()};
  Shrink(dims, random.OneIn(10) ? 2000 : 200);
  // Top, bottom, left, right.
  std::vector<std::int64_t> pads = {0, 0, 0, 0};
  for (std::int64_t& pad : pads) pad = random.OneIn(2) ? 0 : random.Between(0, 5);
  while ((dims[2] + pads[0] + pads[1]) % block_height != 0) ++pads[random.Between(0, 1)];
  while ((dims[3] + pads[2] + pads[3]) % block_width != 0) ++pads[random.Between(2, 3)];
  const Format format = RandomFormat(random);
  const auto padded = [&](std::size_t dim, std::size_t pad, unsigned block) {
    return static_cast<unsigned>(dims[dim] + pads[pad] + pads[pad + 1]) / block;
  };
  return {
      {{"block_shape", ListText(random, {block_height, block_width})}, {"paddings", ListText(random, pads)}},
      {Buf::Packed(dims, format)},
      {Buf::Packed({dims[0] * block_height * block_width, dims[1], padded(2, 0, block_height),
                    padded(3, 2, block_width)},
                   format)}};
}

TEST(SpaceToBatch, RandomCallsEqualTheReference) {
  ForRandomCases(500, [](Random& random) {
    RunAgainstModel<SpaceToBatchModel>("SPACETOBATCH", random,
                                       [](auto& any) { return MaybeSpoilt(any, GenerateValid(any)); });
  });
}

TEST(SpaceToBatch, BatchToSpaceWithTheSameCropsRestoresTheBytes) {
  ForRandomCases(200, [](Random& random) {
    const auto setup = GenerateValid(random);
    Layer there("SPACETOBATCH");
    ASSERT_TRUE(there.Configure(setup.attrs, setup.in, setup.out));
    GuardedBuffer original(setup.in[0].size);
    GuardedBuffer between(setup.out[0].size);
    GuardedBuffer back(setup.in[0].size);
    original.FillRandom(random);
    ASSERT_TRUE(there.Execute({original.data()}, {between.data()}));
    AttrMap attrs = setup.attrs;
    attrs["crops"] = attrs["paddings"];
    attrs.erase("paddings");
    Layer again("BATCHTOSPACE");
    ASSERT_TRUE(again.Configure(attrs, setup.out, setup.in));
    ASSERT_TRUE(again.Execute({between.data()}, {back.data()}));
    EXPECT_EQ(back.Get(), original.Get());
  });
}

}  // namespace
}  // namespace vek_test
