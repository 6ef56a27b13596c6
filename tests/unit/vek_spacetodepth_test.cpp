// Tests of layer type "SPACETODEPTH".
#include "custom_ops/vek_spacetodepth.h"

#include <gtest/gtest.h>

#include "reference/vek_spacetodepth_ref.h"
#include "support/moving_layer.h"

namespace vek_test {
namespace {

constexpr const char* kFile = "vek_spacetodepth.cpp";

Setup Valid(unsigned b = 2, unsigned N = 2, unsigned C = 3, unsigned H_out = 4, unsigned W_out = 5) {
  return {{{"block_size", std::to_string(b)}},
          {Buf::Int(16, {N, C, H_out * b, W_out * b})},
          {Buf::Int(16, {N, C * b * b, H_out, W_out})}};
}

// Runs 32-bit values through the layer.
std::vector<int> Outputs(const std::vector<unsigned>& in_dims, const std::vector<unsigned>& out_dims,
                         const std::string& block_size, const std::vector<int>& values) {
  Layer layer("SPACETODEPTH");
  EXPECT_TRUE(
      layer.Configure({{"block_size", block_size}}, {Buf::Int(32, in_dims)}, {Buf::Int(32, out_dims)}));
  GuardedBuffer in = Guarded(values);
  GuardedBuffer out(in.bytes());
  EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
  EXPECT_EQ(layer.log, Log{});
  return out.Get<int>();
}

TEST(SpaceToDepth, BlockOneCopies) {
  EXPECT_EQ(Outputs({1, 2, 1, 3}, {1, 2, 1, 3}, "1", {1, 2, 3, 4, 5, 6}), (std::vector{1, 2, 3, 4, 5, 6}));
}

TEST(SpaceToDepth, OneBlockBecomesFourChannels) {
  EXPECT_EQ(Outputs({1, 1, 2, 2}, {1, 4, 1, 1}, "2", {0, 1, 2, 3}), (std::vector{0, 1, 2, 3}));
}

TEST(SpaceToDepth, ChannelsOfTheBlockAreOutermost) {
  EXPECT_EQ(Outputs({1, 2, 2, 2}, {1, 8, 1, 1}, "2", {0, 1, 2, 3, 4, 5, 6, 7}),
            (std::vector{0, 4, 1, 5, 2, 6, 3, 7}));
}

TEST(SpaceToDepth, RefusesInOrder) {
  const auto line = [](const std::string& text) { return Log{Error(kFile, text)}; };
  const auto set_block_size = [](const std::string& text) {
    return [=](auto& setup) { setup.attrs["block_size"] = text; };
  };
  std::vector<Fault> faults = {
      {"two inputs", [](auto& setup) { setup.in.push_back(setup.in[0]); },
       line("wrong number of inputs, expected: 1, got: 2")},
      {"no output", [](auto& setup) { setup.out.clear(); },
       line("wrong number of outputs, expected: 1, got: 0")},
      {"two attributes",
       [](auto& setup) {
         setup.attrs = {{"block_size", "2"}, {"more", "1"}};
       },
       line("expecting exactly one attribute, got: 2"), "count"},
      {"no attribute", [](auto& setup) { setup.attrs.clear(); },
       line("expecting exactly one attribute, got: 0"), "count"},
      {"another key",
       [](auto& setup) {
         setup.attrs = {{"block_size ", "2"}};
       },
       line("expected operation parameter: block_size not found."), "count"},
      {"block size 0", set_block_size("x"), line("block_size parameter incorrect: 0"), "size"},
      {"block size -2", set_block_size("-2"), line("block_size parameter incorrect: -2"), "size"},
      {"odd width", SpoilIn(SetDim(3, 5)),
       line("block_size parameter incorrect: 2, number of width 5 should be divisible by block_size")},
      {"odd height", SpoilIn(SetDim(2, 7)),
       line("block_size parameter incorrect: 2, number of height 7 should be divisible by block_size")},
      {"batch", SpoilOut(SetDim(0, 3)), line("wrong output batch: 3, should be: 2")},
      {"channels", SpoilOut(SetDim(1, 4)), line("wrong output channels: 4, should be: 12")},
      {"width", SpoilOut(SetDim(3, 6)), line("wrong output width: 6, should be: 5")},
      {"height", SpoilOut(SetDim(2, 5)), line("wrong output height: 5, should be: 4")},
  };
  AddFormatFaults(faults, kFile, 960, 960);
  CheckOrderOfRefusals("SPACETODEPTH", Valid(), faults);
}

TEST(SpaceToDepth, SizesCountFloatsAsFourBytesAndOthersRoundedUp) {
  Layer layer("SPACETODEPTH");
  Buf in = Buf::Int(12, {1, 5, 1, 1});
  Buf out = in;
  in.size = out.size = 8;  // (12 * 5 + 7) / 8
  EXPECT_TRUE(layer.Configure({{"block_size", "1"}}, {in}, {out}));
  out.size = 7;
  EXPECT_FALSE(layer.Configure({{"block_size", "1"}}, {in}, {out}));
  EXPECT_EQ(layer.log, (Log{Error(kFile,
                                  "output buffer size too small, size: 7 bytes vs expected at least: 8 "
                                  "bytes.")}));
  in.format.float_ = true;
  EXPECT_FALSE(layer.Configure({{"block_size", "1"}}, {in}, {out}));
  EXPECT_EQ(layer.log, (Log{Error(kFile,
                                  "input buffer size too small, size: 8 bytes vs expected at least: 20 "
                                  "bytes.")}));
}

TEST(SpaceToDepth, ExecuteRefusesInOrder) {
  Layer layer("SPACETODEPTH");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "custom layer not configured.")}));
  auto setup = Valid();
  for (auto* buf : {&setup.in[0], &setup.out[0]}) {
    *buf = Buf::Int(12, buf->dims);
    buf->size = 720;
  }
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  void* none[] = {nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "in_buffers is NULL.")}));
  EXPECT_FALSE(layer.ExecuteRaw(none, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "out_buffers is NULL.")}));
  EXPECT_FALSE(layer.ExecuteRaw(none, none));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "not supported bitdepth: 12.")}));
}

TEST(SpaceToDepth, ARefusedConfigureLeavesItsClonesAndBlockSize) {
  Random random(1);
  Layer layer("SPACETODEPTH");
  SpaceToDepthModel model;
  const auto valid = Valid(1, 1, 2, 2, 2);
  ASSERT_TRUE(layer.Configure(valid.attrs, valid.in, valid.out));
  model.Configure(valid.attrs, valid.in, valid.out);
  CheckExecute(layer.get(), model.Execute(), random);

  // A larger input and another block size, refused by the last check.
  auto refused = Valid(2, 1, 1, 3, 3);
  refused.out[0].size = 0;
  EXPECT_FALSE(layer.Configure(refused.attrs, refused.in, refused.out));
  model.Configure(refused.attrs, refused.in, refused.out);
  EXPECT_EQ(model.Execute().moves.size(), 36U);
  CheckExecute(layer.get(), model.Execute(), random);

  // Clones replaced before the attributes are looked at; the block size does not divide them.
  const auto odd = Valid(1, 1, 2, 3, 3);
  EXPECT_FALSE(layer.Configure({}, odd.in, odd.out));
  model.Configure({}, odd.in, odd.out);
  CheckExecute(layer.get(), model.Execute(), random);
}

TEST(SpaceToDepth, AKernelThatWouldDivideByZeroDoesNothing) {
  Layer layer("SPACETODEPTH");
  const auto valid = Valid(1, 1, 1, 1, 1);
  ASSERT_TRUE(layer.Configure(valid.attrs, valid.in, valid.out));
  EXPECT_FALSE(layer.Configure({{"block_size", "0"}}, valid.in, valid.out));
  EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
  EXPECT_EQ(layer.log, Log{});
}

TEST(SpaceToDepth, PlacesThatWrapAreWrittenInTheOrderOfTheInput) {
  // In rows of 2^31 places, four to a plane, all channels wrap onto the first row.
  const Buf in = Buf::Int(8, {2, 3, 2, 6});
  Buf out = Buf::Int(8, {2, 12, 4, 3});
  out.dims[3] = 0x80000000U;
  Outcome outcome;
  outcome.bitdepth = 8;
  SpaceToDepthMoves(outcome, 2, Nchw(in), Nchw(out));
  EXPECT_EQ(outcome.moves.size(), 72U);
  Random random(5);
  CheckMoves(outcome, random, Guard::kAfter, [&](void* from, void* to) {
    zeb_custom_ops::spacetodepth(in, out, static_cast<char*>(from), static_cast<char*>(to), 2);
    return true;
  });
}

TEST(SpaceToDepth, ZeroExtentsWriteNothing) {
  for (std::size_t zero = 0; zero < 4; ++zero) {
    auto setup = Valid(2, 1, 1, 1, 1);
    for (auto* buf : {&setup.in[0], &setup.out[0]}) {
      buf->dims[zero] = 0;
      buf->Pad(0, 0);
    }
    Layer layer("SPACETODEPTH");
    ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

TEST(SpaceToDepth, BlockOneMayRunInPlace) {
  Layer layer("SPACETODEPTH");
  const auto setup = Valid(1, 2, 3, 5, 7);
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  Random random(3);
  GuardedBuffer data(2 * 3 * 5 * 7 * 2);
  data.FillRandom(random);
  const std::vector<std::uint8_t> before = data.Get();
  EXPECT_TRUE(layer.Execute({data.data()}, {data.data()}));
  EXPECT_EQ(data.Get(), before);
}

TEST(SpaceToDepth, ExecuteAsksForEachSizeOnce) {
  Layer layer("SPACETODEPTH");
  const auto setup = Valid();
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  GuardedBuffer in(960);
  GuardedBuffer out(960);
  Buf::ResetCalls();
  ASSERT_TRUE(layer.Execute({in.data()}, {out.data()}));
  for (Slot slot : {kGetBatch, kGetChannels, kGetHeight, kGetWidth, kGetMemFormat}) {
    EXPECT_LE(Buf::calls[slot], 2) << slot;
  }
  EXPECT_EQ(Buf::calls[kGetDims], 0);
  EXPECT_EQ(Buf::calls[kClone], 0);
}

template <typename T>
class SpaceToDepthKernel : public testing::Test {};
using Widths = testing::Types<int, short, char>;
TYPED_TEST_SUITE(SpaceToDepthKernel, Widths);

TYPED_TEST(SpaceToDepthKernel, EqualsTheFormula) {
  using T = TypeParam;
  Random random(4);
  for (unsigned b = 1; b <= 5; ++b) {
    SCOPED_TRACE(b);
    ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
      const Buf in = Buf::Int(8, {N, C, H * b, W * b});
      const Buf out = Buf::Int(8, {N, C * b * b, H, W});
      Outcome outcome;
      outcome.bitdepth = 8 * sizeof(T);
      SpaceToDepthMoves(outcome, static_cast<int>(b), Nchw(in), Nchw(out));
      CheckMoves(outcome, random, AnySide(random), [&](void* from, void* to) {
        zeb_custom_ops::spacetodepth(in, out, static_cast<T*>(from), static_cast<T*>(to),
                                     static_cast<int>(b));
        return true;
      });
    });
  }
}

TEST(SpaceToDepth, RowsLongerThanTheCacheHoldsEqualTheFormula) {
  Random random(6);
  for (unsigned width : {30U, 4000U, 40000U}) {
    const Buf in = Buf::Int(8, {1, 1, 120000 / width / 2 * 2, width});
    const Buf out = Buf::Int(8, {1, 4, in.dims[2] / 2, width / 2});
    Outcome outcome;
    outcome.bitdepth = 8;
    SpaceToDepthMoves(outcome, 2, Nchw(in), Nchw(out));
    CheckMoves(outcome, random, Guard::kAfter, [&](void* from, void* to) {
      zeb_custom_ops::spacetodepth(in, out, static_cast<char*>(from), static_cast<char*>(to), 2);
      return true;
    });
  }
}

Setup Generate(Random& random) {
  const unsigned b = random.Between(1, 4);
  std::vector<unsigned> dims = {random.Between(0, 3), random.Extent(), random.Extent(), random.Extent()};
  Shrink(dims, random.OneIn(10) ? 2000 : 200);
  const Format format = RandomFormat(random);
  return MaybeSpoilt(random, {{{"block_size", NumberText(random, b)}},
                              {Buf::Packed({dims[0], dims[1], dims[2] * b, dims[3] * b}, format)},
                              {Buf::Packed({dims[0], dims[1] * b * b, dims[2], dims[3]}, format)}});
}

TEST(SpaceToDepth, RandomCallsEqualTheReference) {
  ForRandomCases(
      500, [](Random& random) { RunAgainstModel<SpaceToDepthModel>("SPACETODEPTH", random, Generate); });
}

}  // namespace
}  // namespace vek_test
