// NORMALIZE: refusals in their order, state, the kernel against its formula.
#include "custom_ops/vek_l2norm.h"

#include <gtest/gtest.h>

#include "model/vek_l2norm.h"
#include "support/floats.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"
#include "support/refusals.h"

namespace vek_test::l2norm {
namespace {

using zeb_custom_ops::VekL2Norm;

const char kFile[] = "vek_l2norm.cpp";

// Reaches the scales and flags that no attribute sets.
class OpenL2Norm : public VekL2Norm {
 public:
  using VekL2Norm::across_spatial_;
  using VekL2Norm::channel_shared_;
  using VekL2Norm::configured_;
  using VekL2Norm::in_attrs_;
  using VekL2Norm::out_attrs_;
  using VekL2Norm::scales_;
};

Log RefusedFormat(const std::string& text, int bitdepth, int plane_pack, bool is_float) {
  return {Error(kFile, text),
          Info("vek_common.cpp", "bitdepth=" + std::to_string(bitdepth) +
                                     ", plane_pack=" + std::to_string(plane_pack) +
                                     ", exp=0, signed=0, float=" + std::to_string(is_float) +
                                     ", q8a=0, q8a_zero=0, q8a_scale=1.000000")};
}

Setup Valid() { return {{}, {Buf::Float({1, 2, 3, 4})}, {Buf::Float({1, 2, 3, 4})}}; }

// Runs a new layer over `in` and returns its output.
std::vector<float> Normalized(const AttrMap& attrs, const std::vector<unsigned>& dims,
                              const std::vector<float>& in) {
  Layer layer("NORMALIZE");
  EXPECT_TRUE(layer.Configure(attrs, {Buf::Float(dims)}, {Buf::Float(dims)}));
  EXPECT_EQ(layer.log, Log{});
  const GuardedBuffer src = Guarded(in);
  const GuardedBuffer dst(in.size() * sizeof(float));
  EXPECT_TRUE(layer.Execute({src.data()}, {dst.data()}));
  EXPECT_EQ(layer.log, Log{});
  EXPECT_EQ(src.Get(), Guarded(in).Get()) << "the input was written";
  return dst.Get<float>();
}

// The same by the formula.
std::vector<float> Expected(const std::array<unsigned, 4>& shape, bool across_spatial, bool channel_shared,
                            const std::vector<float>& scales, const std::vector<float>& values) {
  const auto [N, C, H, W] = shape;
  vek_model::Memory in(values);
  vek_model::Memory out;
  vek_model::L2Norm(vek_model::Shape(N, C, H, W), across_spatial, channel_shared, scales, in, out);
  return out.Get<float>();
}

// --- Configure

std::vector<Fault> Faults() {
  const std::string in_format = "unexpected input buffer format";
  const std::string out_format = "unexpected output buffer format";
  return {
      {"no input",
       [](Setup& s) { s.in.clear(); },
       {Error(kFile, "wrong number of inputs, expected: 1, got: 0")},
       "inputs"},
      {"two inputs",
       [](Setup& s) { s.in.push_back(s.in[0]); },
       {Error(kFile, "wrong number of inputs, expected: 1, got: 2")},
       "inputs"},
      {"no output",
       [](Setup& s) { s.out.clear(); },
       {Error(kFile, "wrong number of outputs, expected: 1, got: 0")},
       "outputs"},
      {"two outputs",
       [](Setup& s) { s.out.push_back(s.out[0]); },
       {Error(kFile, "wrong number of outputs, expected: 1, got: 2")},
       "outputs"},
      {"16-bit input", [](Setup& s) { s.in[0].format = Buf::Planar(16, false); },
       RefusedFormat(in_format, 16, 1, false), "input format"},
      {"integer input", [](Setup& s) { s.in[0].format = Buf::Planar(32, false); },
       RefusedFormat(in_format, 32, 1, false), "input format"},
      {"interleaved input", [](Setup& s) { s.in[0].format = Buf::Planar(32, true, 4); },
       RefusedFormat(in_format, 32, 4, true), "input format"},
      {"8-bit output", [](Setup& s) { s.out[0].format = Buf::Planar(8, false); },
       RefusedFormat(out_format, 8, 1, false), "output format"},
      {"interleaved output", [](Setup& s) { s.out[0].format = Buf::Planar(32, true, 2); },
       RefusedFormat(out_format, 32, 2, true), "output format"},
      {"padded input",
       [](Setup& s) { s.in[0].strided = true; },
       {Error(kFile, "strided data detected on input, this is not supported.")}},
      {"padded output",
       [](Setup& s) { s.out[0].strided = true; },
       {Error(kFile, "strided data detected on output, this is not supported.")}},
      {"short input",
       [](Setup& s) { s.in[0].size = 95; },
       {Error(kFile, "input buffer size too small, size: 95 bytes vs expected at least: 96 bytes.")}},
      {"short output",
       [](Setup& s) { s.out[0].size = 0; },
       {Error(kFile, "output buffer size too small, size: 0 bytes vs expected at least: 96 bytes.")}},
  };
}

TEST(L2Norm, RefusesInOrder) { CheckOrderOfRefusals("NORMALIZE", Valid(), Faults()); }

TEST(L2Norm, SizesAreComparedInSixtyFourBits) {
  const ScopedThreshold threshold(kInfo);
  Layer layer("NORMALIZE");
  auto s = Valid();
  s.in[0].dims = {65536, 65536, 1, 1};  // 2^34 bytes
  s.in[0].strided = false;
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile,
                                  "input buffer size too small, size: 96 bytes vs expected at least: "
                                  "17179869184 bytes.")}));
}

TEST(L2Norm, ASilencedRefusalAsksForNothingThatOnlyItsTextNeeds) {
  const ScopedThreshold threshold(kNone);
  Layer layer("NORMALIZE");
  auto s = Valid();
  s.in[0].size = 95;
  Buf::ResetCalls();
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
  EXPECT_EQ(Buf::calls[kGetSize], 1);
}

TEST(L2Norm, LargerBuffersAndUnknownAttributesAreAccepted) {
  Layer layer("NORMALIZE");
  auto s = Valid();
  s.in[0].size = 97;
  s.out[0].size = 1000;
  EXPECT_TRUE(layer.Configure({{"axis", "1"}}, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
}

TEST(L2Norm, OnlyTheNumberOneSetsAFlagAndAnAbsentAttributeKeepsIt) {
  const BufAttrsList in = MakeList({Buf::Float({1, 5, 2, 2})});
  const BufAttrsList out = MakeList({Buf::Float({1, 5, 2, 2})});
  OpenL2Norm layer;
  EXPECT_FALSE(layer.configured_);
  EXPECT_TRUE(layer.across_spatial_);
  EXPECT_TRUE(layer.channel_shared_);
  EXPECT_TRUE(layer.scales_.empty());
  const auto configure = [&](const AttrMap& attrs) { ASSERT_TRUE(layer.Configure(attrs, in, out)); };

  configure({});
  EXPECT_TRUE(layer.across_spatial_);
  EXPECT_EQ(layer.scales_, std::vector<float>(1, 1.0F));
  for (const std::string text : {"true", "0", "2", "-1", "", "4294967297"}) {
    configure({{"across_spatial", "1"}, {"channel_shared", " 1x"}});
    EXPECT_TRUE(layer.across_spatial_);
    EXPECT_TRUE(layer.channel_shared_);
    EXPECT_EQ(layer.scales_.size(), 1U);
    configure({{"across_spatial", text}});
    EXPECT_FALSE(layer.across_spatial_) << text;
    EXPECT_TRUE(layer.channel_shared_);
    configure({{"channel_shared", text}});
    EXPECT_FALSE(layer.across_spatial_) << "kept";
    EXPECT_FALSE(layer.channel_shared_) << text;
    EXPECT_EQ(layer.scales_, std::vector<float>(5, 1.0F));
  }
}

TEST(L2Norm, ClonesAreReplacedAndReleased) {
  const ExpectNoLeakedClones no_leaks;
  OpenL2Norm layer;
  const long before = Buf::alive;
  for (int i = 0; i < 3; ++i) {
    const BufAttrsList bufs = MakeList({Buf::Float({1, 1, 1, 2})});
    ASSERT_TRUE(layer.Configure({}, bufs, bufs));
  }
  EXPECT_EQ(Buf::alive - before, 2);
}

TEST(L2Norm, ARefusedConfigureKeepsFlagsAndShapes) {
  Layer layer("NORMALIZE");
  ASSERT_TRUE(layer.Configure({}, {Buf::Float({1, 1, 1, 2})}, {Buf::Float({1, 1, 1, 2})}));
  ASSERT_FALSE(
      layer.Configure({{"across_spatial", "0"}}, {Buf::Int(16, {1, 2, 1, 1})}, {Buf::Float({1, 2, 1, 1})}));
  const std::vector<float> in = {3, 4};
  const GuardedBuffer src = Guarded(in);
  const GuardedBuffer dst(8);
  ASSERT_TRUE(layer.Execute({src.data()}, {dst.data()}));
  ExpectSameFloats(dst.Get<float>(), {3.0F / 5.0F, 4.0F / 5.0F});
}

// --- Execute

TEST(L2Norm, ExecuteRefusesInOrder) {
  Layer layer("NORMALIZE");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "L2Norm custom layer not configured.")}));
  auto s = Valid();
  ASSERT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "in_buffers is NULL.")}));
  float data[24] = {};
  void* some[] = {data};
  void* null[] = {nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(some, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "out_buffers is NULL.")}));
  const Log null_data = {Error(kFile, "L2norm_v1 input or output buffer is null.")};
  EXPECT_FALSE(layer.ExecuteRaw(null, some));
  EXPECT_EQ(layer.log, null_data);
  EXPECT_FALSE(layer.ExecuteRaw(some, null));
  EXPECT_EQ(layer.log, null_data);
  EXPECT_TRUE(layer.ExecuteRaw(some, some));
}

TEST(L2Norm, CountsThatDifferAreRefusedByTheKernel) {
  Layer layer("NORMALIZE");
  ASSERT_TRUE(layer.Configure({}, {Buf::Float({1, 1, 1, 2})}, {Buf::Float({1, 1, 1, 3})}));
  float data[3] = {1, 2, 3};
  EXPECT_FALSE(layer.Execute({data}, {data}));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "L2norm_v1 wrong size of buffers.")}));
  EXPECT_FALSE(layer.Execute({nullptr}, {data}));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "L2norm_v1 input or output buffer is null.")}));
  ExpectSameFloats({data, data + 3}, {1, 2, 3});
}

TEST(L2Norm, AScalePerChannelMustBeThere) {
  OpenL2Norm layer;
  layer.channel_shared_ = false;
  layer.scales_ = {1, 1};
  float data[3] = {1, 2, 3};
  const auto run = [&] { EXPECT_FALSE(layer.L2norm_v1(Buf::Float({1, 3, 1, 1}), data, 3, data, 3)); };
  EXPECT_EQ(CaptureLog(run), (Log{Error(kFile,
                                        "L2norm_v1 scale is not shared between channels, not enough "
                                        "scale params.")}));
  // Counts come first.
  const auto unequal = [&] { EXPECT_FALSE(layer.L2norm_v1(Buf::Float({1, 3, 1, 1}), data, 3, data, 2)); };
  EXPECT_EQ(CaptureLog(unequal), (Log{Error(kFile, "L2norm_v1 wrong size of buffers.")}));
}

TEST(L2Norm, SizesAndFormatAreAskedForOncePerExecute) {
  Layer layer("NORMALIZE");
  const std::vector<unsigned> dims = {2, 3, 5, 7};
  ASSERT_TRUE(layer.Configure({{"across_spatial", "0"}}, {Buf::Float(dims)}, {Buf::Float(dims)}));
  std::vector<float> data(210, 1.0F);
  Buf::ResetCalls();
  ASSERT_TRUE(layer.Execute({data.data()}, {data.data()}));
  EXPECT_EQ(Buf::calls[kGetDims], 2);
  for (const Slot slot : {kGetBatch, kGetChannels, kGetHeight, kGetWidth})
    EXPECT_EQ(Buf::calls[slot], 1) << slot;
}

// --- Values

TEST(L2Norm, ThreeAndFourBecomeThreeAndFourFifths) {
  ExpectSameFloats(Normalized({}, {1, 1, 1, 2}, {3, 4}), {0.6F, 0.8F});
  ExpectSameFloats(Normalized({{"across_spatial", "0"}}, {1, 2, 1, 2}, {3, 4, 0, 0}), {0.6F, 0.8F, 0, 0});
  ExpectSameFloats(Normalized({{"across_spatial", "true"}}, {1, 2, 1, 2}, {3, 4, 0, 0}), {0.6F, 0.8F, 0, 0});
}

TEST(L2Norm, AnItemOfZerosIsCopiedWithItsSigns) {
  ExpectSameFloats(Normalized({}, {2, 1, 1, 3}, {0.0F, -0.0F, 0.0F, -0.0F, 3, 4}),
                   {0.0F, -0.0F, 0.0F, -0.0F, 0.6F, 0.8F});
  // Squares that vanish make a norm of 0 too.
  ExpectSameFloats(Normalized({}, {1, 1, 1, 2}, {1e-30F, -1e-40F}), {1e-30F, -1e-40F});
}

TEST(L2Norm, NothingIsAddedToATinyNorm) {
  const float tiny = 0x1p-74F;  // its square is the smallest denormal but one
  ExpectSameFloats(Normalized({}, {1, 1, 1, 1}, {tiny}), {tiny / std::sqrt(tiny * tiny)});
}

TEST(L2Norm, NotANumberAndInfinitySpreadAsArithmeticHasIt) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ExpectSameFloats(Normalized({}, {1, 1, 1, 3}, {1, inf, -2}), {0.0F, nan, -0.0F});
  ExpectSameFloats(Normalized({}, {1, 1, 1, 3}, {1, nan, -2}), {nan, nan, nan});
  ExpectSameFloats(Normalized({{"across_spatial", "0"}}, {1, 3, 1, 1}, {nan, -inf, -2}), {nan, nan, -1});
  ExpectSameFloats(Normalized({}, {1, 1, 1, 2}, {1e30F, 1}), {0.0F, 0.0F});  // the sum overflows
}

TEST(L2Norm, EmptyTensorsWriteNothing) {
  for (const std::vector<unsigned>& dims :
       {std::vector<unsigned>{0, 3, 2, 2}, {2, 0, 2, 2}, {2, 3, 0, 2}, {2, 3, 2, 0}}) {
    for (const std::string across : {"0", "1"})
      EXPECT_EQ(Normalized({{"across_spatial", across}}, dims, {}).size(), 0U);
  }
}

TEST(L2Norm, TheAccessorsGiveTheShapeWhateverTheRank) {
  Buf buf = Buf::Float({6});
  buf.nchw = {1, 3, 1, 2};
  buf.strided = false;
  Layer layer("NORMALIZE");
  ASSERT_TRUE(layer.Configure({{"across_spatial", "0"}}, {buf}, {buf}));
  const GuardedBuffer src = Guarded<float>({3, 4, 0, 2, 5, 12});
  const GuardedBuffer dst(24);
  ASSERT_TRUE(layer.Execute({src.data()}, {dst.data()}));
  ExpectSameFloats(dst.Get<float>(), {0.6F, 0.8F, 0.0F, 1.0F, 5.0F / 13.0F, 12.0F / 13.0F});
}

TEST(L2Norm, PositionsWrapAtThirtyTwoBits) {
  // C * H is 1 in 32 bits: each item holds one value.
  Buf shape = Buf::Float({1});
  shape.nchw = {3, 0xAAAAAAABU, 3, 1};
  OpenL2Norm layer;
  layer.scales_ = {1.0F};
  const GuardedBuffer src = Guarded<float>({5, -4, 0});
  const GuardedBuffer dst(12);
  ASSERT_TRUE(layer.L2norm_v1(shape, src.as<float>(), 3, dst.as<float>(), 3));
  ExpectSameFloats(dst.Get<float>(), {1, -1, 0});

  // The same, one plane per channel: H * W is 1.
  shape.nchw = {1, 3, 0xAAAAAAABU, 3};
  layer.across_spatial_ = false;
  ASSERT_TRUE(layer.L2norm_v1(shape, src.as<float>(), 3, dst.as<float>(), 3));
  ExpectSameFloats(dst.Get<float>(), {1, -1, 0});
}

TEST(L2Norm, WithoutAScaleTheQuotientsStay) {
  OpenL2Norm layer;
  ASSERT_TRUE(layer.scales_.empty());
  const GuardedBuffer src = Guarded<float>({3, 4});
  const GuardedBuffer dst(8);
  ASSERT_TRUE(layer.L2norm_v1(Buf::Float({1, 1, 1, 2}), src.as<float>(), 2, dst.as<float>(), 2));
  ExpectSameFloats(dst.Get<float>(), {0.6F, 0.8F});
}

TEST(L2Norm, ScalesOtherThanOneMultiply) {
  Random random(1);
  for (const bool across : {false, true}) {
    for (const bool shared : {false, true}) {
      OpenL2Norm layer;
      layer.across_spatial_ = across;
      layer.channel_shared_ = shared;
      layer.scales_ = shared ? std::vector<float>{0.3F} : std::vector<float>{1.0F, -2.5F, 0.0F};
      const std::vector<float> in = RandomFloats(random, std::size_t{2} * 3 * 5 * 7);
      const GuardedBuffer src = Guarded(in);
      const GuardedBuffer dst(in.size() * sizeof(float));
      ASSERT_TRUE(layer.L2norm_v1(Buf::Float({2, 3, 5, 7}), src.as<float>(), 210, dst.as<float>(), 210));
      ExpectSameFloats(dst.Get<float>(), Expected({2, 3, 5, 7}, across, shared, layer.scales_, in));
    }
  }
}

// --- The order of the additions. A sum in another order, or one that rounds otherwise, fails these.

void ExpectChain(const std::vector<float>& in, const std::string& what) {
  const auto count = static_cast<unsigned>(in.size());
  ExpectSameFloats(Normalized({}, {1, 1, 1, count}, in), Expected({1, 1, 1, count}, true, true, {1.0F}, in),
                   what);
}

TEST(L2Norm, OneChainOfEveryLength) {
  Random random(2);
  for (unsigned count = 1; count <= 600; ++count) {
    std::vector<float> in(count);
    for (float& x : in) x = static_cast<float>(static_cast<std::int32_t>(random() >> 32)) * 0x1p-31F;
    ExpectChain(in, "random");
  }
}

TEST(L2Norm, LongChainsRoundAfterEveryAddition) {
  Random random(3);
  constexpr unsigned kCount = 20011;
  const auto uniform = [&] {
    return static_cast<float>(static_cast<std::int32_t>(random() >> 32)) * 0x1p-31F;
  };
  const auto chain = [&](const std::string& what, auto&& value) {
    std::vector<float> in(kCount);
    for (unsigned i = 0; i < kCount; ++i) in[i] = value(i);
    ExpectChain(in, what);
  };
  chain("uniform", [&](unsigned) { return uniform(); });
  chain("ones behind a sum they cannot raise", [](unsigned i) { return i == 0 ? 4096.0F : 1.0F; });
  chain("halves of the sum's last bit, which go to the even side",
        [](unsigned i) { return i == 0 ? 4097.0F : 1.0F; });
  chain("one and a half of it", [&](unsigned i) {
    return i == 0 ? 4097.0F : random.OneIn(2) ? 1.0F : std::sqrt(3.0F);
  });
  chain("few ties", [&](unsigned i) {
    return i == 0 ? 4096.0F : random.OneIn(500) ? 1.0F : uniform() * 100.0F;
  });
  chain("integers", [&](unsigned) { return static_cast<float>(random.Between(0, 4000)); });
  chain("growing",
        [&](unsigned i) { return std::exp2f(static_cast<float>(i) / 200.0F - 60.0F) * uniform(); });
  chain("shrinking",
        [&](unsigned i) { return std::exp2f(60.0F - static_cast<float>(i) / 160.0F) * uniform(); });
  chain("steps",
        [&](unsigned i) { return i % 1000 == 999 ? 1e3F * uniform() * static_cast<float>(i) : uniform(); });
  chain("overflow", [&](unsigned i) { return 1e17F * uniform() * (i > 10000 ? 10.0F : 1.0F); });
  chain("all to infinity", [&](unsigned i) { return i < 9000 ? 1e17F * uniform() : 1e19F; });
  chain("a NaN late",
        [&](unsigned i) { return i == 15001 ? std::numeric_limits<float>::quiet_NaN() : uniform(); });
  chain("an infinity late",
        [&](unsigned i) { return i == 15001 ? -std::numeric_limits<float>::infinity() : uniform(); });
  chain("denormal squares", [&](unsigned) { return uniform() * 0x1p-70F; });
  chain("denormal squares under a normal sum",
        [&](unsigned i) { return i < 3 ? 0x1p-60F : uniform() * 0x1p-73F; });
  chain("zeros", [](unsigned i) { return i % 2 == 0 ? 0.0F : -0.0F; });
  chain("zeros behind a value", [](unsigned i) { return i == 0 ? 3.0F : -0.0F; });
  chain("mixture", [&](unsigned) { return random.OneIn(10) ? random.AnyFloat() * 1e-10F : uniform(); });
}

TEST(L2Norm, ManyPlanesSideBySide) {
  Random random(4);
  for (unsigned planes : {1U, 2U, 3U, 4U, 5U, 7U, 8U, 15U, 16U, 17U, 31U, 32U, 33U, 63U, 64U, 65U, 67U}) {
    for (unsigned plane : {1U, 2U, 3U, 4U, 5U, 8U, 15U, 16U, 17U, 31U, 33U, 49U, 196U}) {
      const std::vector<float> in = RandomFloats(random, std::size_t{planes} * plane);
      ExpectSameFloats(Normalized({{"across_spatial", "0"}}, {1, planes, 1, plane}, in),
                       Expected({1, planes, 1, plane}, false, true, {1.0F}, in),
                       std::to_string(planes) + " planes of " + std::to_string(plane));
      ExpectSameFloats(Normalized({}, {planes, 1, 1, plane}, in),
                       Expected({planes, 1, 1, plane}, true, true, {1.0F}, in),
                       std::to_string(planes) + " items of " + std::to_string(plane));
    }
  }
}

}  // namespace
}  // namespace vek_test::l2norm
