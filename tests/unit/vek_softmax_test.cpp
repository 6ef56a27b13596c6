// SOFTMAX: refusals in their order, state, the kernel against its formula.
#include "custom_ops/vek_softmax.h"

#include <gtest/gtest.h>

#include <limits>

#include "model/vek_softmax.h"
#include "support/floats.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"
#include "support/refusals.h"

namespace vek_test::softmax {
namespace {

using zeb_custom_ops::Softmax_v1;
using zeb_custom_ops::VekSoftmax;

const char kFile[] = "vek_softmax.cpp";
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

class OpenSoftmax : public VekSoftmax {
 public:
  using VekSoftmax::axis_;
  using VekSoftmax::configured_;
  using VekSoftmax::in_attrs_;
  using VekSoftmax::out_attrs_;
};

Log RefusedFormat(const std::string& text, int bitdepth, int plane_pack, bool is_float) {
  return {Error(kFile, text),
          Info("vek_common.cpp", "bitdepth=" + std::to_string(bitdepth) +
                                     ", plane_pack=" + std::to_string(plane_pack) +
                                     ", exp=0, signed=0, float=" + std::to_string(is_float) +
                                     ", q8a=0, q8a_zero=0, q8a_scale=1.000000")};
}

AttrMap Axis(const std::string& text) { return {{"axis", text}}; }

Setup Valid() { return {Axis("1"), {Buf::Float({1, 2, 3, 4})}, {Buf::Float({1, 2, 3, 4})}}; }

// --- Configure

std::vector<Fault> Faults() {
  const std::string in_format = "unexpected input buffer format";
  const std::string out_format = "unexpected output buffer format";
  const std::string counts = "expected one input and one output, got: ";
  const auto axis = [](const char* text) { return [text](Setup& s) { s.attrs = {{"axis", text}}; }; };
  return {
      {"two attributes",
       [](Setup& s) {
         s.attrs = {{"axis", "1"}, {"b", "1"}};
       },
       {Error(kFile, "expected 1 attribute, but got 2")},
       "attributes"},
      {"another attribute",
       [](Setup& s) {
         s.attrs = {{"axes", "1"}};
       },
       {Error(kFile, "expected attribute: axis, got: axes")},
       "attributes"},
      {"axis 4", axis("4"), {Error(kFile, "axis = 4, but should be in range [0..3]")}, "attributes"},
      {"axis -1", axis("-1"), {Error(kFile, "axis = -1, but should be in range [0..3]")}, "attributes"},
      {"no input", [](Setup& s) { s.in.clear(); }, {Error(kFile, counts + "0 inputs, 1 outputs")}, "counts"},
      {"two inputs",
       [](Setup& s) { s.in.push_back(s.in[0]); },
       {Error(kFile, counts + "2 inputs, 1 outputs")},
       "counts"},
      {"no output",
       [](Setup& s) { s.out.clear(); },
       {Error(kFile, counts + "1 inputs, 0 outputs")},
       "counts"},
      {"two outputs",
       [](Setup& s) { s.out.push_back(s.out[0]); },
       {Error(kFile, counts + "1 inputs, 2 outputs")},
       "counts"},
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
      {"axis beyond the dims",
       [](Setup& s) { s.in[0].dims = {24}; },
       {Error(kFile, "There are 1 dims, but axis is set to 1")},
       "dims"},
      {"short input",
       [](Setup& s) { s.in[0].size = 95; },
       {Error(kFile, "Input buf size should be at least 96, but is 95")}},
      {"short output",
       [](Setup& s) { s.out[0].size = 0; },
       {Error(kFile, "Output buf size should be at least 96, but is 0")}},
      {"padded input",
       [](Setup& s) { s.in[0].strided = true; },
       {Error(kFile, "strided data detected on input of Softmax, this is not supported.")}},
      {"input that calls itself interleaved",
       [](Setup& s) { s.in[0].interleaved = true; },
       {Error(kFile, "interleaved data detected on input of Softmax, this is not supported.")}},
      {"padded output",
       [](Setup& s) { s.out[0].strided = true; },
       {Error(kFile, "strided data detected on output of Softmax, this is not supported.")}},
      {"output that calls itself interleaved",
       [](Setup& s) { s.out[0].interleaved = true; },
       {Error(kFile, "interleaved data detected on output of Softmax, this is not supported.")}},
      {"three input dims",
       [](Setup& s) {
         s.in[0].dims = {2, 3, 4};
       },
       {Error(kFile, "Softmax expects input buf dims >= 4, but got 3")},
       "dims"},
      {"two output dims",
       [](Setup& s) {
         s.out[0].dims = {6, 4};
       },
       {Error(kFile, "Softmax expects output buf dims >= 4, but got 2")}},
  };
}

// A row that changes the dims leaves IsStrided to the setup.
Setup ValidWithFixedLayout() {
  Setup s = Valid();
  s.in[0].strided = false;
  s.out[0].strided = false;
  return s;
}

TEST(Softmax, RefusesInOrder) { CheckOrderOfRefusals("SOFTMAX", ValidWithFixedLayout(), Faults()); }

TEST(Softmax, WithoutAttributeTheStoredAxisStaysAndIsReported) {
  const ScopedThreshold threshold(kInfo);
  const BufAttrsList bufs = MakeList({Buf::Float({1, 2, 3, 4})});
  OpenSoftmax layer;
  EXPECT_EQ(layer.axis_, 1U);
  const auto configure = [&](const AttrMap& attrs, bool accepted) {
    return CaptureLog([&] { EXPECT_EQ(layer.Configure(attrs, bufs, bufs), accepted); });
  };
  EXPECT_EQ(configure({}, true), (Log{Info(kFile, "'axis' attribute not defined, using default (1)")}));
  EXPECT_EQ(configure(Axis("3"), true), Log{});
  EXPECT_EQ(configure({}, true), (Log{Info(kFile, "'axis' attribute not defined, using default (3)")}));
  EXPECT_EQ(layer.axis_, 3U);
}

TEST(Softmax, NegativeAxisIsRefusedAndStaysStored) {
  const ScopedThreshold threshold(kInfo);
  const BufAttrsList bufs = MakeList({Buf::Float({1, 2, 3, 4})});
  OpenSoftmax layer;
  const auto configure = [&](const AttrMap& attrs) {
    return CaptureLog([&] { EXPECT_FALSE(layer.Configure(attrs, bufs, bufs)); });
  };
  EXPECT_EQ(configure(Axis("-1")), (Log{Error(kFile, "axis = -1, but should be in range [0..3]")}));
  // The next one without attribute takes the rejected axis for the default and stumbles over the dims.
  EXPECT_EQ(configure({}), (Log{Info(kFile, "'axis' attribute not defined, using default (-1)"),
                                Error(kFile, "There are 4 dims, but axis is set to -1")}));
  EXPECT_FALSE(layer.configured_);
}

TEST(Softmax, AtTheDefaultThresholdTheDefaultAxisIsNotReported) {
  Layer layer("SOFTMAX");
  const auto s = Valid();
  EXPECT_TRUE(layer.Configure({}, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Softmax, TheAxisIsReadAsTheCLibraryReadsNumbers) {
  const BufAttrsList bufs = MakeList({Buf::Float({1, 2, 3, 4})});
  OpenSoftmax layer;
  const std::pair<const char*, unsigned> texts[] = {{"0", 0},   {" 2", 2}, {"+3", 3},         {"1e1", 1},
                                                    {"W", 0},   {"", 0},   {"4294967298", 2}, {"-0", 0},
                                                    {"0x3", 0}, {"3.9", 3}};
  for (const auto& [text, axis] : texts) {
    EXPECT_TRUE(layer.Configure(Axis(text), bufs, bufs)) << text;
    EXPECT_EQ(layer.axis_, axis) << text;
  }
}

TEST(Softmax, ThreeDimsFailAtTheAxisOrAtTheirNumber) {
  Layer layer("SOFTMAX");
  const std::vector<Buf> bufs = {Buf::Float({2, 3, 4})};
  EXPECT_FALSE(layer.Configure(Axis("3"), bufs, bufs));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "There are 3 dims, but axis is set to 3")}));
  EXPECT_FALSE(layer.Configure(Axis("1"), bufs, bufs));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Softmax expects input buf dims >= 4, but got 3")}));
}

TEST(Softmax, SizesAreComparedInSixtyFourBits) {
  Layer layer("SOFTMAX");
  auto s = ValidWithFixedLayout();
  s.in[0].dims = {65536, 65536, 1, 1};
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Input buf size should be at least 17179869184, but is 96")}));
  s = ValidWithFixedLayout();
  s.out[0].dims = {65536, 65536, 1, 1};
  s.out[0].size = 0xFFFFFFFF;
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Output buf size should be at least 17179869184, but is -1")}));
}

TEST(Softmax, ASilencedRefusalAsksForNothingThatOnlyItsTextNeeds) {
  const ScopedThreshold threshold(kNone);
  Layer layer("SOFTMAX");
  auto s = Valid();
  s.in[0].size = 95;
  Buf::ResetCalls();
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
  EXPECT_EQ(Buf::calls[kGetSize], 1);
}

TEST(Softmax, LargerBuffersAreAccepted) {
  Layer layer("SOFTMAX");
  auto s = Valid();
  s.in[0].size = 97;
  s.out[0].size = 1000;
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
}

TEST(Softmax, ClonesAreReplacedAndReleased) {
  const ExpectNoLeakedClones no_leaks;
  OpenSoftmax layer;
  const long before = Buf::alive;
  for (int i = 0; i < 3; ++i) {
    const BufAttrsList bufs = MakeList({Buf::Float({1, 1, 1, 2})});
    ASSERT_TRUE(layer.Configure(Axis("3"), bufs, bufs));
  }
  EXPECT_EQ(Buf::alive - before, 2);
}

// --- Execute

TEST(Softmax, ExecuteRefusesInOrder) {
  Layer layer("SOFTMAX");
  float data[24] = {};
  void* some[] = {data};
  void* null[] = {nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Can't run Execute() without Configure()")}));
  const auto s = Valid();
  ASSERT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Input buffer is NULL")}));
  EXPECT_FALSE(layer.ExecuteRaw(some, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Output buffer is NULL")}));
  EXPECT_FALSE(layer.ExecuteRaw(null, null));
  EXPECT_EQ(layer.log,
            (Log{Error(kFile, "Softmax_v1 input buffer is null"), Error(kFile, "can't calculate Softmax")}));
  EXPECT_FALSE(layer.ExecuteRaw(some, null));
  EXPECT_EQ(layer.log,
            (Log{Error(kFile, "Softmax_v1 output buffer is null"), Error(kFile, "can't calculate Softmax")}));
  EXPECT_TRUE(layer.ExecuteRaw(some, some));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Softmax, ALayerWithoutClonesRefuses) {
  OpenSoftmax layer;
  layer.configured_ = true;
  float data[1] = {};
  void* some[] = {data};
  const auto run = [&] { EXPECT_FALSE(layer.Execute(some, some)); };
  EXPECT_EQ(CaptureLog(run), (Log{Error(kFile, "input buffer attrs are NULL")}));
  layer.in_attrs_ = Buf::Float({1, 1, 1, 1}).Clone();
  EXPECT_EQ(CaptureLog(run), (Log{Error(kFile, "output buffer attrs are NULL")}));
}

TEST(Softmax, CountsThatDifferAreRefusedByTheKernel) {
  Layer layer("SOFTMAX");
  ASSERT_TRUE(layer.Configure(Axis("1"), {Buf::Float({1, 2, 1, 1})}, {Buf::Float({1, 3, 1, 1})}));
  float data[3] = {1, 2, 3};
  EXPECT_FALSE(layer.Execute({data}, {data}));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Softmax_v1: in_size != out_size, (2 != 3)"),
                            Error(kFile, "can't calculate Softmax")}));
  ExpectSameFloats({data, data + 3}, {1, 2, 3});
}

TEST(Softmax, ARejectedAxisFailsInTheKernelOfALayerThatStaysConfigured) {
  Layer layer("SOFTMAX");
  const auto s = Valid();
  ASSERT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  ASSERT_FALSE(layer.Configure(Axis("4"), s.in, s.out));
  float data[24] = {};
  EXPECT_FALSE(layer.Execute({data}, {data}));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Softmax_v1: axis parameter = 4, should be in range [0..3]"),
                            Error(kFile, "can't calculate Softmax")}));
}

TEST(Softmax, ARefusedConfigureKeepsShapesButNotTheAxis) {
  Layer layer("SOFTMAX");
  const std::vector<Buf> bufs = {Buf::Float({1, 1, 1, 2})};
  ASSERT_TRUE(layer.Configure(Axis("3"), bufs, bufs));
  ASSERT_FALSE(layer.Configure(Axis("1"), {Buf::Int(16, {1, 2, 1, 1})}, bufs));
  const GuardedBuffer data = Guarded<float>({3, 4});
  ASSERT_TRUE(layer.Execute({data.data()}, {data.data()}));
  ExpectSameFloats(data.Get<float>(), {1, 1});
}

TEST(Softmax, SizesAreAskedForOncePerExecute) {
  Layer layer("SOFTMAX");
  const std::vector<Buf> bufs = {Buf::Float({2, 3, 5, 7})};
  std::vector<float> data(210, 1.0F);
  for (const char* axis : {"0", "1", "2", "3"}) {
    ASSERT_TRUE(layer.Configure(Axis(axis), bufs, bufs));
    Buf::ResetCalls();
    ASSERT_TRUE(layer.Execute({data.data()}, {data.data()}));
    EXPECT_EQ(Buf::calls[kGetDims], 2);
    for (const Slot slot : {kGetBatch, kGetChannels, kGetHeight, kGetWidth}) {
      EXPECT_EQ(Buf::calls[slot], 1) << slot;
    }
    EXPECT_EQ(Buf::calls[kGetMemFormat] + Buf::calls[kClone] + Buf::calls[kGetSize], 0);
  }
}

// --- Values

// By the formula, along one axis of a dense tensor that these values fill.
std::vector<float> Softmaxed(const std::array<unsigned, 4>& shape, unsigned axis,
                             const std::vector<float>& values) {
  const auto [N, C, H, W] = shape;
  vek_model::Memory in(values);
  vek_model::Memory out;
  EXPECT_TRUE(vek_model::Softmax(vek_model::Shape(N, C, H, W), axis, in, N * C * H * W, out));
  return out.Get<float>();
}

// Runs the kernel out of place and in place, with unmapped pages on either side, and compares with the formula.
void ExpectSoftmax(const std::array<unsigned, 4>& shape, unsigned axis, const std::vector<float>& in) {
  SCOPED_TRACE(testing::PrintToString(shape) + " along " + std::to_string(axis));
  const auto count = static_cast<unsigned>(in.size());
  const std::vector<float> want = Softmaxed(shape, axis, in);
  const Buf attrs = Buf::Float({shape.begin(), shape.end()});
  for (const Guard guard : {Guard::kBefore, Guard::kAfter}) {
    const GuardedBuffer src = Guarded(in, guard);
    const GuardedBuffer dst(count * sizeof(float), guard);
    ASSERT_TRUE(Softmax_v1(attrs, axis, src.as<float>(), count, dst.as<float>(), count));
    ExpectSameFloats(dst.Get<float>(), want);
    EXPECT_EQ(src.Get(), Guarded(in).Get()) << "the input was written";
    ASSERT_TRUE(Softmax_v1(attrs, axis, src.as<float>(), count, src.as<float>(), count));
    ExpectSameFloats(src.Get<float>(), want, "in place");
  }
}

std::vector<float> Uniform(Random& random, std::size_t count, float range) {
  std::vector<float> values(count);
  for (float& x : values)
    x = static_cast<float>(static_cast<std::int32_t>(random() >> 32)) * 0x1p-31F * range;
  return values;
}

TEST(Softmax, EachAxisNormalisesItsOwnVectors) {
  Random random(1);
  for (unsigned axis = 0; axis < 4; ++axis) ExpectSoftmax({2, 3, 4, 5}, axis, Uniform(random, 120, 4));
  // By hand: equal values share evenly, rows of W along axis 3.
  std::vector<float> data(24, 7.0F);
  ASSERT_TRUE(Softmax_v1(Buf::Float({1, 2, 3, 4}), 3, data.data(), 24, data.data(), 24));
  ExpectSameFloats(data, std::vector<float>(24, 0.25F));
  ASSERT_TRUE(Softmax_v1(Buf::Float({1, 2, 3, 4}), 2, data.data(), 24, data.data(), 24));
  ExpectSameFloats(data, std::vector<float>(24, 1.0F / 3.0F));
}

TEST(Softmax, AVeryLargeValueTakesEverything) {
  std::vector<float> data = {-3, 200, 1e-30F, -1e38F, 95};
  ASSERT_TRUE(Softmax_v1(Buf::Float({1, 5, 1, 1}), 1, data.data(), 5, data.data(), 5));
  ExpectSameFloats(data, {0, 1, 0, 0, 0});
}

TEST(Softmax, ResultsAreProductsWithTheReciprocal) {
  // Three equal values: 1 / 3 rounds, and so does each product with it.
  std::vector<float> data(49, 0.0F);
  ASSERT_TRUE(Softmax_v1(Buf::Float({1, 49, 1, 1}), 1, data.data(), 49, data.data(), 49));
  ExpectSameFloats(data, std::vector<float>(49, 1.0F * (1.0F / 49.0F)));
}

TEST(Softmax, SpecialValuesFollowTheArithmetic) {
  const float specials[] = {kNaN,  kInf,   -kInf,   0.0F,    -0.0F,   1e-45F, -1e-45F,
                            3e38F, -3e38F, -103.9F, -104.0F, -104.1F, -87.5F};
  for (const unsigned len : {1U, 2U, 5U, 16U, 17U, 37U}) {
    for (unsigned at = 0; at<len; at += len> 8 ? 5 : 1) {
      for (const float special : specials) {
        std::vector<float> in(std::size_t{len} * 9, 0.0F);
        for (std::size_t i = 0; i < in.size(); ++i) in[i] = -static_cast<float>(i % 7);
        in[at] = special;  // of a row, or of a column in its first block
        in[std::size_t{at} * 9 + 4] = special;
        ExpectSoftmax({1, 9, 1, len}, 3, in);
        ExpectSoftmax({1, len, 1, 9}, 1, in);
      }
    }
  }
  ExpectSoftmax({1, 1, 3, 40}, 3, std::vector<float>(120, -kInf));
  ExpectSoftmax({1, 1, 3, 40}, 3, std::vector<float>(120, kInf));
  ExpectSoftmax({1, 1, 40, 3}, 2, std::vector<float>(120, kNaN));
}

TEST(Softmax, RowsOfEveryLengthAndNumber) {
  Random random(2);
  for (unsigned len = 1; len <= 150; ++len) {
    const unsigned rows = 1 + len * 7 % 23;
    ExpectSoftmax({1, 1, rows, len}, 3, Uniform(random, std::size_t{rows} * len, 12));
    ExpectSoftmax({rows, len, 1, 1}, 1, Uniform(random, std::size_t{rows} * len, 120));
  }
  for (unsigned rows = 1; rows <= 40; ++rows) {
    ExpectSoftmax({1, rows, 1, 5}, 3, Uniform(random, std::size_t{rows} * 5, 12));
    ExpectSoftmax({1, rows, 1, 67}, 3, Uniform(random, std::size_t{rows} * 67, 12));
  }
  ExpectSoftmax({1, 1, 1, 10007}, 3, Uniform(random, 10007, 30));
  ExpectSoftmax({1, 1, 13, 1009}, 3, Uniform(random, 13 * 1009, 30));
}

TEST(Softmax, ColumnsOfEveryLengthAndNumber) {
  Random random(3);
  for (unsigned step = 1; step <= 70; ++step) {
    const unsigned len = 1 + step * 5 % 29;
    ExpectSoftmax({3, len, 1, step}, 1, Uniform(random, std::size_t{3} * len * step, 12));
    ExpectSoftmax({1, 5, len, step}, 2, Uniform(random, std::size_t{5} * len * step, 120));
    ExpectSoftmax({len, 1, 1, step}, 0, Uniform(random, std::size_t{len} * step, 12));
  }
  for (unsigned step = 1; step <= 9; ++step) {
    for (unsigned len = 1; len <= 40; ++len) {
      ExpectSoftmax({1, 7, len, step}, 2, Uniform(random, std::size_t{7} * len * step, 12));
    }
  }
}

TEST(Softmax, SumsAreTakenInIncreasingOrder) {
  // Values whose sum depends on the order: one large, many that only count together.
  for (const unsigned len : {9U, 40U, 300U, 5000U}) {
    std::vector<float> in(std::size_t{len} * 11);
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = i % 3 == 0 ? -16.7F : -17.3F;
    for (unsigned row = 0; row < 11; ++row) in[std::size_t{row} * len + row % len] = 0.0F;
    ExpectSoftmax({1, 11, 1, len}, 3, in);
    ExpectSoftmax({1, len, 1, 11}, 1, in);
  }
}

TEST(Softmax, EmptyTensorsWriteNothing) {
  for (const std::array<unsigned, 4>& shape :
       {std::array<unsigned, 4>{0, 3, 2, 2}, {2, 0, 2, 2}, {2, 3, 0, 2}, {2, 3, 2, 0}}) {
    for (unsigned axis = 0; axis < 4; ++axis) ExpectSoftmax(shape, axis, {});
  }
}

TEST(Softmax, OfFiveDimsTheFirstFourAreTheShape) {
  Layer layer("SOFTMAX");
  Buf buf = Buf::Float({1, 2, 1, 2, 2});
  buf.strided = false;
  ASSERT_TRUE(layer.Configure(Axis("1"), {buf}, {buf}));
  const GuardedBuffer src = Guarded<float>({1, 1, 1, 1, 9, 9, 9, 9});
  const GuardedBuffer dst = Guarded<float>({-1, -1, -1, -1, -1, -1, -1, -1});
  ASSERT_TRUE(layer.Execute({src.data()}, {dst.data()}));
  ExpectSameFloats(dst.Get<float>(), {0.5F, 0.5F, 0.5F, 0.5F, -1, -1, -1, -1});
}

TEST(Softmax, AShapeThatReachesBeyondTheOutputIsRefused) {
  float data[3] = {1, 2, 3};
  const auto run = [&] { EXPECT_FALSE(Softmax_v1(Buf::Float({1, 4, 1, 1}), 1, data, 3, data, 3)); };
  EXPECT_EQ(CaptureLog(run),
            (Log{Error(kFile, "Softmax_v1 tries to access outside of allocated output buffer size")}));
  ExpectSameFloats({data, data + 3}, {1, 2, 3});
}

TEST(Softmax, PositionsWrapAtThirtyTwoBits) {
  // H * W is 1 in 32 bits: a softmax along C holds neighbours, and there is one for each item.
  Buf shape = Buf::Float({1});
  shape.nchw = {2, 3, 0xAAAAAAABU, 3};
  std::vector<float> in = {1, 2, 3, 6, 5, 4};
  const GuardedBuffer src = Guarded(in);
  const GuardedBuffer dst(24);
  ASSERT_TRUE(Softmax_v1(shape, 1, src.as<float>(), 6, dst.as<float>(), 6));
  ExpectSameFloats(dst.Get<float>(), Softmaxed({2, 3, 1, 1}, 1, in));
  // C * H is 1: a softmax along W for each item.
  shape.nchw = {2, 0xAAAAAAABU, 3, 3};
  ASSERT_TRUE(Softmax_v1(shape, 3, src.as<float>(), 6, dst.as<float>(), 6));
  ExpectSameFloats(dst.Get<float>(), Softmaxed({2, 1, 1, 3}, 3, in));
}

TEST(Softmax, ColumnsOfEveryPlaneAreReachedWhereTheCountWraps) {
  // C * W is 4 in 32 bits: two planes of two columns.
  Buf shape = Buf::Float({1});
  shape.nchw = {1, 0x80000002U, 2, 2};
  const std::vector<float> in = {1, 2, 3, 6, 5, 4, 8, 7};
  const GuardedBuffer src = Guarded(in);
  const GuardedBuffer dst(32);
  ASSERT_TRUE(Softmax_v1(shape, 2, src.as<float>(), 8, dst.as<float>(), 8));
  ExpectSameFloats(dst.Get<float>(), Softmaxed({1, 2, 2, 2}, 2, in));
}

}  // namespace
}  // namespace vek_test::softmax
