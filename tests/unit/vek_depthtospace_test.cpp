// Tests of layer type "DEPTHTOSPACE".
#include "custom_ops/vek_depthtospace.h"

#include <gtest/gtest.h>

#include "reference/vek_depthtospace_ref.h"
#include "support/moving_layer.h"

namespace vek_test {
namespace {

constexpr const char* kFile = "vek_depthtospace.cpp";

Setup Valid(unsigned b = 2, unsigned N = 2, unsigned C_out = 3, unsigned H = 4, unsigned W = 5) {
  return {{{"block_size", std::to_string(b)}},
          {Buf::Int(16, {N, C_out * b * b, H, W})},
          {Buf::Int(16, {N, C_out, H * b, W * b})}};
}

// Runs 32-bit values through the layer.
std::vector<int> Outputs(const std::vector<unsigned>& in_dims, const std::vector<unsigned>& out_dims,
                         const std::string& block_size, const std::vector<int>& values) {
  Layer layer("DEPTHTOSPACE");
  EXPECT_TRUE(
      layer.Configure({{"block_size", block_size}}, {Buf::Int(32, in_dims)}, {Buf::Int(32, out_dims)}));
  GuardedBuffer in = Guarded(values);
  GuardedBuffer out(in.bytes());
  EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
  EXPECT_EQ(layer.log, Log{});
  return out.Get<int>();
}

TEST(DepthToSpace, BlockOneCopies) {
  EXPECT_EQ(Outputs({1, 2, 1, 3}, {1, 2, 1, 3}, "1", {1, 2, 3, 4, 5, 6}), (std::vector{1, 2, 3, 4, 5, 6}));
}

TEST(DepthToSpace, FourChannelsBecomeOneBlock) {
  EXPECT_EQ(Outputs({1, 4, 1, 1}, {1, 1, 2, 2}, "2", {0, 1, 2, 3}), (std::vector{0, 1, 2, 3}));
}

TEST(DepthToSpace, ChannelsOfTheBlockAreOutermost) {
  EXPECT_EQ(Outputs({1, 8, 1, 1}, {1, 2, 2, 2}, "2", {0, 1, 2, 3, 4, 5, 6, 7}),
            (std::vector{0, 2, 4, 6, 1, 3, 5, 7}));
}

TEST(DepthToSpace, RefusesInOrder) {
  const auto line = [](const std::string& text) { return Log{Error(kFile, text)}; };
  const auto set_block_size = [](const std::string& text) {
    return [=](auto& setup) { setup.attrs["block_size"] = text; };
  };
  std::vector<Fault> faults = {
      {"no input", [](auto& setup) { setup.in.clear(); },
       line("wrong number of inputs, expected: 1, got: 0")},
      {"two outputs", [](auto& setup) { setup.out.push_back(setup.out[0]); },
       line("wrong number of outputs, expected: 1, got: 2")},
      {"two attributes",
       [](auto& setup) {
         setup.attrs = {{"block_size", "2"}, {"more", "1"}};
       },
       line("expecting exactly one attribute, got: 2"), "count"},
      {"no attribute", [](auto& setup) { setup.attrs.clear(); },
       line("expecting exactly one attribute, got: 0"), "count"},
      {"another key",
       [](auto& setup) {
         setup.attrs = {{"Block_size", "2"}};
       },
       line("expected operation parameter: block_size not found."), "count"},
      {"block size 0", set_block_size("0"), line("block_size parameter incorrect: 0"), "size"},
      {"block size -2", set_block_size("-2"), line("block_size parameter incorrect: -2"), "size"},
      {"six channels", SpoilIn(SetDim(1, 6)),
       line("block_size parameter incorrect: 2, number of channels should be divisible by "
            "block_size*block_size")},
      {"batch", SpoilOut(SetDim(0, 3)), line("wrong output batch: 3, should be: 2")},
      {"channels", SpoilOut(SetDim(1, 4)), line("wrong output channels: 4, should be: 3")},
      {"width", SpoilOut(SetDim(3, 11)), line("wrong output width: 11, should be: 10")},
      {"height", SpoilOut(SetDim(2, 9)), line("wrong output height: 9, should be: 8")},
  };
  AddFormatFaults(faults, kFile, 960, 960);
  CheckOrderOfRefusals("DEPTHTOSPACE", Valid(), faults);
}

TEST(DepthToSpace, ABlockWhoseSquareIsZeroIn32BitsIsRefused) {
  auto setup = Valid();
  setup.attrs["block_size"] = "65536";
  Layer layer("DEPTHTOSPACE");
  EXPECT_FALSE(layer.Configure(setup.attrs, setup.in, setup.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile,
                                  "block_size parameter incorrect: 65536, number of channels should be "
                                  "divisible by block_size*block_size")}));
}

TEST(DepthToSpace, SizesCountFloatsAsFourBytesAndOthersRoundedUp) {
  Layer layer("DEPTHTOSPACE");
  Buf in = Buf::Int(12, {1, 5, 1, 1});
  Buf out = in;
  in.size = out.size = 8;  // (12 * 5 + 7) / 8
  EXPECT_TRUE(layer.Configure({{"block_size", "1"}}, {in}, {out}));
  out.size = 7;
  EXPECT_FALSE(layer.Configure({{"block_size", "1"}}, {in}, {out}));
  EXPECT_EQ(
      layer.log,
      (Log{Error(kFile, "output buffer size too small, size: 7 bytes vs expected at least: 8 bytes.")}));
  in.format.float_ = true;
  EXPECT_FALSE(layer.Configure({{"block_size", "1"}}, {in}, {out}));
  EXPECT_EQ(
      layer.log,
      (Log{Error(kFile, "input buffer size too small, size: 8 bytes vs expected at least: 20 bytes.")}));
}

TEST(DepthToSpace, ExecuteRefusesInOrder) {
  Layer layer("DEPTHTOSPACE");
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

TEST(DepthToSpace, ARefusedConfigureLeavesItsClonesAndBlockSize) {
  Random random(1);
  Layer layer("DEPTHTOSPACE");
  DepthToSpaceModel model;
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

  // Clones replaced before the attributes are looked at.
  EXPECT_FALSE(layer.Configure({}, valid.in, valid.out));
  model.Configure({}, valid.in, valid.out);
  CheckExecute(layer.get(), model.Execute(), random);
}

TEST(DepthToSpace, PlacesBeyondTheOutputAreLeftOutWithAWarningEach) {
  Random random(2);
  Layer layer("DEPTHTOSPACE");
  DepthToSpaceModel model;
  auto setup = Valid(2, 1, 1, 1, 1);
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  model.Configure(setup.attrs, setup.in, setup.out);
  setup.out[0].dims = {1, 1, 2, 1};  // refused, but kept
  EXPECT_FALSE(layer.Configure(setup.attrs, setup.in, setup.out));
  model.Configure(setup.attrs, setup.in, setup.out);
  const Outcome outcome = model.Execute();
  EXPECT_EQ(outcome.log, (Log(2, Warning("ext_depthtospace.cpp", "buffer overflow attempt"))));
  CheckExecute(layer.get(), outcome, random);
  {
    const ScopedThreshold errors_only(kError);
    GuardedBuffer in(8);
    GuardedBuffer out(4);
    EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
    EXPECT_EQ(layer.log, Log{});
  }
}

TEST(DepthToSpace, AKernelThatWouldDivideByZeroDoesNothing) {
  Layer layer("DEPTHTOSPACE");
  const auto valid = Valid(1, 1, 1, 1, 1);
  ASSERT_TRUE(layer.Configure(valid.attrs, valid.in, valid.out));
  for (const std::string block_size : {"0", "65536"}) {
    EXPECT_FALSE(layer.Configure({{"block_size", block_size}}, valid.in, valid.out));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr})) << block_size;
    EXPECT_EQ(layer.log, Log{});
  }
  auto no_channels = valid;
  no_channels.out[0].dims[1] = 0;
  EXPECT_FALSE(layer.Configure({{"block_size", "1"}}, no_channels.in, no_channels.out));
  EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
  EXPECT_EQ(layer.log, Log{});
}

TEST(DepthToSpace, CountsWrapIn32Bits) {
  // 65536 * 65536 elements are none.
  const Buf in = Buf::Int(8, {65536, 65536, 1, 1});
  const Log log = CaptureLog([&] { zeb_custom_ops::depthtospace<char>(nullptr, nullptr, 1, in, in); });
  EXPECT_EQ(log, Log{});
  // The output's count is signed: 2^31 elements are fewer than none.
  const Buf small = Buf::Int(8, {1, 1, 1, 1});
  Buf out = small;
  out.dims = {1, 1, 0x10000, 0x8000};
  char value = 1;
  const Log skipped = CaptureLog([&] { zeb_custom_ops::depthtospace<char>(nullptr, &value, 1, small, out); });
  EXPECT_EQ(skipped, (Log{Warning("ext_depthtospace.cpp", "buffer overflow attempt")}));
}

TEST(DepthToSpace, ZeroExtentsWriteNothing) {
  for (std::size_t zero = 0; zero < 4; ++zero) {
    auto setup = Valid(2, 1, 1, 1, 1);
    for (auto* buf : {&setup.in[0], &setup.out[0]}) {
      buf->dims[zero] = 0;
      buf->Pad(0, 0);
    }
    Layer layer("DEPTHTOSPACE");
    ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

TEST(DepthToSpace, BlockOneMayRunInPlace) {
  Layer layer("DEPTHTOSPACE");
  const auto setup = Valid(1, 2, 3, 5, 7);
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  Random random(3);
  GuardedBuffer data(2 * 3 * 5 * 7 * 2);
  data.FillRandom(random);
  const std::vector<std::uint8_t> before = data.Get();
  EXPECT_TRUE(layer.Execute({data.data()}, {data.data()}));
  EXPECT_EQ(data.Get(), before);
}

TEST(DepthToSpace, ExecuteAsksForEachSizeOnce) {
  Layer layer("DEPTHTOSPACE");
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
class DepthToSpaceKernel : public testing::Test {};
using Widths = testing::Types<int, short, char>;
TYPED_TEST_SUITE(DepthToSpaceKernel, Widths);

TYPED_TEST(DepthToSpaceKernel, EqualsTheFormula) {
  using T = TypeParam;
  Random random(4);
  for (unsigned b = 1; b <= 5; ++b) {
    SCOPED_TRACE(b);
    ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
      const Buf in = Buf::Int(8, {N, C * b * b, H, W});
      const Buf out = Buf::Int(8, {N, C, H * b, W * b});
      Outcome outcome;
      outcome.bitdepth = 8 * sizeof(T);
      DepthToSpaceMoves(outcome, static_cast<int>(b), Nchw(in), Nchw(out));
      CheckMoves(outcome, random, AnySide(random), [&](void* from, void* to) {
        zeb_custom_ops::depthtospace(static_cast<T*>(to), static_cast<T*>(from), static_cast<int>(b), in,
                                     out);
        return true;
      });
    });
  }
}

Setup Generate(Random& random) {
  const unsigned b = random.Between(1, 4);
  std::vector<unsigned> dims = {random.Between(0, 3), random.Extent(), random.Extent(), random.Extent()};
  Shrink(dims, random.OneIn(10) ? 2000 : 200);
  const Format format = RandomFormat(random);
  return MaybeSpoilt(random, {{{"block_size", NumberText(random, b)}},
                              {Buf::Packed({dims[0], dims[1] * b * b, dims[2], dims[3]}, format)},
                              {Buf::Packed({dims[0], dims[1], dims[2] * b, dims[3] * b}, format)}});
}

TEST(DepthToSpace, RandomCallsEqualTheReference) {
  ForRandomCases(
      500, [](Random& random) { RunAgainstModel<DepthToSpaceModel>("DEPTHTOSPACE", random, Generate); });
}

TEST(DepthToSpace, SpaceToDepthRestoresTheBytes) {
  ForRandomCases(100, [](Random& random) {
    const unsigned b = random.Between(1, 4);
    const Format format = RandomFormat(random);
    const unsigned N = random.Between(1, 2), C = random.Between(1, 4);
    const unsigned H = random.Between(1, 9), W = random.Between(1, 20);
    const Buf deep = Buf::Packed({N, C * b * b, H, W}, format);
    const Buf wide = Buf::Packed({N, C, H * b, W * b}, format);
    GuardedBuffer original(deep.size);
    GuardedBuffer between(deep.size);
    GuardedBuffer back(deep.size);
    original.FillRandom(random);
    const AttrMap attrs = {{"block_size", std::to_string(b)}};
    Layer there("DEPTHTOSPACE");
    ASSERT_TRUE(there.Configure(attrs, {deep}, {wide}));
    ASSERT_TRUE(there.Execute({original.data()}, {between.data()}));
    Layer again("SPACETODEPTH");
    ASSERT_TRUE(again.Configure(attrs, {wide}, {deep}));
    ASSERT_TRUE(again.Execute({between.data()}, {back.data()}));
    EXPECT_EQ(back.Get(), original.Get());
  });
}

}  // namespace
}  // namespace vek_test
