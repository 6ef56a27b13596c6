// PAD: refusals in their order, both paths, the four modes, the constant, layouts, malformed shapes.
#include "custom_ops/vek_pad.h"

#include <gtest/gtest.h>

#include <optional>

#include "cases/layer_case.h"
#include "model/vek_pad.h"
#include "support/formula_check.h"
#include "support/refusals.h"

namespace vek_test::pad {
namespace {

using namespace zeb_custom_ops;
using vek_model::Memory;
using vek_model::Pads;
using vek_model::Steps;

constexpr char kFile[] = "vek_pad.cpp";
constexpr char kNull[] = "Pad_reflect_v1 input or output buffer is null.";

struct OpenPad : VekPad {
  using VekPad::configured_;
  using VekPad::format_;
  using VekPad::in_attrs_;
  using VekPad::out_attrs_;
  using VekPad::pad_;
  using VekPad::pad_mode_;
  using VekPad::pad_shape_;
};

template <typename Numbers>
std::string List(const Numbers& numbers) {
  std::string text;
  for (const auto& number : numbers) text += (text.empty() ? "[" : ",") + std::to_string(number);
  return text + "]";
}

AttrMap Attributes(int mode, const Pads& pads, const std::string& pad = "0",
                   const std::string& format = "[0,1,2,3]") {
  return {{"pad_mode", std::to_string(mode)}, {"pad", pad}, {"pad_shape", List(pads)}, {"format", format}};
}

Setup Valid() {
  return {Attributes(4, {0, 0, 0, 0, 1, 1, 2, 2}), {Buf::Float({1, 2, 3, 4})}, {Buf::Float({1, 2, 5, 8})}};
}

std::vector<Fault> Faults() {
  const auto set = [](const char* key, const char* text) { return [=](Setup& s) { s.attrs[key] = text; }; };
  // Replaces the attribute, so that the count stays.
  const auto lose = [](const char* key) {
    return [key](Setup& s) {
      s.attrs.erase(key);
      s.attrs[std::string("not ") + key] = "1";
    };
  };
  const auto missing = [](const char* key) {
    return Log{Error(kFile, std::string("expected attribute ") + key + ", but did not get it.")};
  };
  return {
      {"three attributes",
       [](Setup& s) { s.attrs.erase(s.attrs.begin()); },
       {Error(kFile, "expected 4 attribute, but got 3")},
       "attributes"},
      {"no pad_mode", lose("pad_mode"), missing("pad_mode")},
      {"no pad", lose("pad"), missing("pad")},
      {"no pad_shape", lose("pad_shape"), missing("pad_shape")},
      {"unclosed pad_shape",
       set("pad_shape", "[0,0,0,0,1,1,2,2"),
       {Error(kFile, "ERROR: Wrongly formated parameter string for software operation")},
       "pad_shape"},
      {"empty pad_shape",
       set("pad_shape", "[]"),
       {Error(kFile, "ERROR: Wrongly formated parameter string (too short)")},
       "pad_shape"},
      {"seven entries",
       set("pad_shape", "[0,0,0,0,1,1,2]"),
       {Error(kFile, "expected 8 entries in pad_shape, but got 7")},
       "pad_shape"},
      {"no format", lose("format"), missing("format")},
      {"unclosed format",
       set("format", "0,1,2,3"),
       {Error(kFile, "ERROR: Wrongly formated parameter string for software operation")},
       "format"},
      {"three entries",
       set("format", "[0,1,2]"),
       {Error(kFile, "expected 4 entries in format, but got 3")},
       "format"},
      {"two inputs",
       [](Setup& s) { s.in.push_back(s.in[0]); },
       {Error(kFile, "expected one input and one output, got: 2 inputs, 1 outputs")},
       "count"},
      {"two outputs",
       [](Setup& s) { s.out.push_back(s.out[0]); },
       {Error(kFile, "expected one input and one output, got: 1 inputs, 2 outputs")},
       "count"},
      {"short input",
       [](Setup& s) { s.in[0].size = 23; },
       {Error(kFile, "Input buf size should be at least 24, but is 23")}},
      {"short output",
       [](Setup& s) { s.out[0].size = 79; },
       {Error(kFile, "Output buf size should be at least 80, but is 79")}},
  };
}

TEST(Pad, RefusalsComeInTheirOrder) {
  std::vector<Fault> faults = Faults();
  // Losing any attribute leaves three; alone it is tested with each of them.
  const Fault count = faults.front();
  faults.erase(faults.begin());
  CheckOrderOfRefusals("PAD", Valid(), faults);
  CheckOrderOfRefusals("PAD", Valid(), {count});
  for (const char* key : {"pad_mode", "pad", "pad_shape", "format"}) {
    auto s = Valid();
    s.attrs.erase(key);
    Layer layer("PAD");
    EXPECT_FALSE(layer.Configure(s.attrs, {}, {}));
    EXPECT_EQ(layer.log, count.lines);
  }
}

TEST(Pad, MoreAttributesThanFourAreAccepted) {
  auto s = Valid();
  s.attrs["axis"] = "1";
  Layer layer("PAD");
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Pad, SurplusEntriesAreIgnored) {
  auto s = Valid();
  s.attrs["pad_shape"] = "[1,2,3,4,5,6,7,-1,9]";
  s.attrs["format"] = "[[0,1],[2,3],[4]]";
  OpenPad layer;
  EXPECT_TRUE(layer.Configure(s.attrs, MakeList(s.in), MakeList(s.out)));
  EXPECT_EQ(layer.pad_shape_, (Pads{1, 2, 3, 4, 5, 6, 7, 4294967295U}));
  EXPECT_EQ(layer.format_, (std::array<unsigned, 4>{0, 1, 2, 3}));
}

TEST(Pad, ARefusedConfigureKeepsTheValuesThatItRead) {
  auto s = Valid();
  OpenPad layer;
  ASSERT_TRUE(layer.Configure(s.attrs, MakeList(s.in), MakeList(s.out)));
  s.attrs = Attributes(2, {1, 1, 1, 1, 1, 1, 1, 1}, "7", "[0,2]");
  s.in[0].dims = {1, 1, 1, 1};
  CaptureLog([&] { EXPECT_FALSE(layer.Configure(s.attrs, MakeList(s.in), MakeList(s.out))); });
  EXPECT_EQ(layer.pad_mode_, 2);
  EXPECT_EQ(layer.pad_, 7U);
  EXPECT_EQ(layer.pad_shape_, (Pads{1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(layer.format_, (std::array<unsigned, 4>{0, 1, 2, 3}));
  EXPECT_TRUE(layer.configured_);
  EXPECT_EQ(layer.in_attrs_->GetDims(), (std::vector<unsigned>{1, 2, 3, 4}));
}

TEST(Pad, ANewLayerHoldsZeros) {
  OpenPad layer;
  EXPECT_EQ(layer.pad_mode_, 0);
  EXPECT_EQ(layer.pad_, 0U);
  EXPECT_EQ(layer.pad_shape_, Pads{});
  EXPECT_EQ(layer.format_, (std::array<unsigned, 4>{}));
  EXPECT_FALSE(layer.configured_);
}

TEST(Pad, ExecuteRefusesInItsOrder) {
  OpenPad layer;
  float data[80] = {};
  void* given[] = {data};
  void* null[] = {nullptr};
  const auto complains = [&](void** in, void** out, const std::vector<std::string>& texts) {
    Log expected;
    for (const std::string& text : texts) expected.push_back(Error(kFile, text));
    EXPECT_EQ(CaptureLog([&] { EXPECT_FALSE(layer.Execute(in, out)); }), expected);
  };
  complains(nullptr, nullptr, {"Can't run Execute() without Configure()"});
  layer.configured_ = true;
  complains(nullptr, nullptr, {"Input buffer is NULL"});
  complains(given, nullptr, {"Output buffer is NULL"});
  complains(given, given, {"input buffer attrs are NULL"});
  layer.in_attrs_ = std::make_unique<Buf>(Buf::Int(12, {1, 2, 3, 4}));
  complains(given, given, {"output buffer attrs are NULL"});
  layer.out_attrs_ = std::make_unique<Buf>(Buf::Float({1, 2, 5, 8}));
  complains(null, null, {"Unknown format not supported.", "can't calculate Pad"});
  layer.format_ = {0, 1, 3, 2};
  complains(null, null, {"Unknown format not supported.", "can't calculate Pad"});
  // The dense path.
  layer.format_ = {0, 2, 3, 1};
  complains(null, given, {kNull, "can't calculate Pad"});
  complains(given, null, {kNull, "can't calculate Pad"});
  // The direct path: one line for an unknown width, whatever else is wrong.
  layer.format_ = {0, 1, 2, 3};
  complains(null, null, {"CopyBuffer_v1() - unhandled bitdepth!"});
  auto in = std::make_unique<Buf>(Buf::Int(16, {1, 2, 3, 4}));
  in->format.plane_pack = 0;
  layer.in_attrs_ = std::move(in);
  complains(null, given, {kNull, "can't calculate Pad"});
  complains(given, null, {kNull, "can't calculate Pad"});
  complains(given, given, {"plane_pack of the input = 0, but should be at least 1", "can't calculate Pad"});
}

TEST(Pad, KernelsRefuseNullBuffers) {
  const Buf buf = Buf::Float({1, 1, 1, 1});
  float data = 1.0F;
  const auto complains = [](auto call, const char* text) {
    EXPECT_EQ(CaptureLog([&] { EXPECT_FALSE(call()); }), (Log{Error(kFile, text)}));
  };
  complains([&] { return CopyBuffer_v1(buf, buf, 0, 0, 0, 0, nullptr, &data); }, kNull);
  complains([&] { return CopyBuffer_v1(buf, buf, 0, 0, 0, 0, &data, nullptr); }, kNull);
  float* none = nullptr;
  complains([&] { return Pad_reflectsymm_v1(buf, buf, 0, 0, 0, 0, 0, 0, 0, 0, true, none); }, kNull);
  int* no_ints = nullptr;
  complains([&] { return Pad_reflectsymm_v1(buf, buf, 0, 0, 0, 0, 0, 0, 0, 0, true, no_ints); }, kNull);
  short* no_shorts = nullptr;
  complains([&] { return Pad_reflectsymm_v1<short>(buf, buf, 0, 0, 0, 0, 0, 0, 0, 0, true, no_shorts); },
            kNull);
  complains([&] { return Pad_edge_repli_v1(buf, buf, 0, 0, 0, 0, 0, 0, 0, 0, none); },
            "Pad_edge_repli_v1 input or output buffer is null.");
  complains([&] { return Pad_const_v1(buf, buf, 1, 0, 0, 0, 0, 0, 0, 0, 0, none); },
            "Pad_const_v1 input or output buffer is null.");
}

// --- One row, by eye.

std::vector<float> PaddedRow(int mode, unsigned before, unsigned after, const std::string& pad = "0") {
  const unsigned W = 3 + before + after;
  Layer layer("PAD");
  EXPECT_TRUE(layer.Configure(Attributes(mode, {0, 0, 0, 0, 0, 0, before, after}, pad, "[0,2,3,1]"),
                              {Buf::Float({1, 1, 1, 3})}, {Buf::Float({1, 1, 1, W})}));
  GuardedBuffer in = Guarded(std::vector<float>{1, 2, 3});
  GuardedBuffer out = Guarded(std::vector<float>(W, 9));
  EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
  EXPECT_EQ(layer.log, Log{});
  return out.Get<float>();
}

using Row = std::vector<float>;

TEST(Pad, ReflectDoesNotRepeatTheEdge) { EXPECT_EQ(PaddedRow(1, 2, 2), (Row{3, 2, 1, 2, 3, 2, 1})); }
TEST(Pad, SymmetricRepeatsTheEdge) { EXPECT_EQ(PaddedRow(3, 2, 2), (Row{2, 1, 1, 2, 3, 3, 2})); }
TEST(Pad, EdgeRepeatsTheNearestElement) { EXPECT_EQ(PaddedRow(2, 2, 1), (Row{1, 1, 1, 2, 3, 3})); }
TEST(Pad, ConstantFills) { EXPECT_EQ(PaddedRow(4, 1, 2, "5"), (Row{5, 1, 2, 3, 5, 5})); }
TEST(Pad, AConstantBelowZeroWraps) { EXPECT_EQ(PaddedRow(4, 1, 0, "-1"), (Row{4294967296.0F, 1, 2, 3})); }
TEST(Pad, OtherModesLeaveTheBorderAlone) {
  for (int mode : {0, 7, -1, 5}) EXPECT_EQ(PaddedRow(mode, 1, 1), (Row{9, 1, 2, 3, 9}));
}
TEST(Pad, ReflectFillsWithZeroBeyondTheInterior) {
  EXPECT_EQ(PaddedRow(1, 3, 4), (Row{0, 3, 2, 1, 2, 3, 2, 1, 0, 0}));
}
TEST(Pad, SymmetricFillsWithZeroBeyondTheInterior) {
  EXPECT_EQ(PaddedRow(3, 3, 5), (Row{3, 2, 1, 1, 2, 3, 3, 2, 1, 0, 0}));
}

// --- The constant.

TEST(Pad, AQuantisedInputConvertsTheStoredConstantOnEveryExecuteOfTheDensePath) {
  OpenPad layer;
  Buf in = Buf::Float({1, 1, 1, 1});
  in.format.q8a = true;
  in.format.q8a_zero = 5;
  in.format.q8a_scale = 0.5F;
  ASSERT_TRUE(layer.Configure(Attributes(4, {0, 0, 0, 0, 0, 0, 1, 0}, "3", "[0,2,3,1]"), MakeList({in}),
                              MakeList({Buf::Float({1, 1, 1, 2})})));
  float data = 1.0F;
  float out[2] = {};
  void* inputs[] = {&data};
  void* outputs[] = {out};
  ASSERT_TRUE(layer.Execute(inputs, outputs));
  EXPECT_EQ(layer.pad_, 2147483648U);  // (3 - 5) mod 2^32, as a float, halved
  EXPECT_EQ(out[0], 2147483648.0F);
  ASSERT_TRUE(layer.Execute(inputs, outputs));
  EXPECT_EQ(layer.pad_, 1073741824U);
  EXPECT_EQ(out[0], 1073741824.0F);

  // Also when the format is refused then, and whatever the mode is.
  layer.format_ = {3, 2, 1, 0};
  layer.pad_mode_ = 0;
  layer.pad_ = 25;
  CaptureLog([&] { EXPECT_FALSE(layer.Execute(inputs, outputs)); });
  EXPECT_EQ(layer.pad_, 10U);
}

TEST(Pad, AQuantisedInputOfTheDirectPathKeepsTheConstant) {
  OpenPad layer;
  Buf in = Buf::Int(8, {1, 1, 1, 1});
  in.format.q8a = true;
  in.format.q8a_zero = 5;
  in.format.q8a_scale = 0.5F;
  ASSERT_TRUE(layer.Configure(Attributes(4, {0, 0, 0, 0, 0, 0, 1, 0}, "3"), MakeList({in}),
                              MakeList({Buf::Int(8, {1, 1, 1, 2})})));
  std::uint8_t data = 1;
  std::uint8_t out[2] = {};
  void* inputs[] = {&data};
  void* outputs[] = {out};
  ASSERT_TRUE(layer.Execute(inputs, outputs));
  EXPECT_EQ(layer.pad_, 3U);
  EXPECT_EQ(out[0], 3);
}

TEST(Pad, NegativeAndHugeConvertedConstantsSaturate) {
  OpenPad layer;
  Buf in = Buf::Float({1, 1, 1, 1});
  in.format.q8a = true;
  ASSERT_TRUE(layer.Configure(Attributes(4, {0, 0, 0, 0, 0, 0, 1, 0}, "8", "[0,2,3,1]"), MakeList({in}),
                              MakeList({Buf::Float({1, 1, 1, 2})})));
  float data = 1.0F;
  float out[2] = {};
  void* inputs[] = {&data};
  void* outputs[] = {out};
  auto& format = dynamic_cast<Buf&>(*layer.in_attrs_).format;
  const auto converted = [&](float scale) {
    layer.pad_ = 8;
    format.q8a_scale = scale;
    EXPECT_TRUE(layer.Execute(inputs, outputs));
    return layer.pad_;
  };
  EXPECT_EQ(converted(-2.0F), 0U);
  EXPECT_EQ(converted(1e30F), 4294967295U);
  EXPECT_EQ(converted(std::numeric_limits<float>::quiet_NaN()), 0U);
  EXPECT_EQ(converted(0.2F), 1U);
}

// Executes next to the model.
void ExpectFormula(Buf in, Buf out, int mode, const Pads& pads, bool channels_last, unsigned pad,
                   Random& random) {
  in.size = static_cast<unsigned>(std::max<std::uint64_t>(in.size, in.Count()));
  out.size = static_cast<unsigned>(std::max<std::uint64_t>(out.size, out.Count()));
  const AttrMap attrs =
      Attributes(mode, pads, std::to_string(pad), channels_last ? "[0,2,3,1]" : "[0,1,2,3]");
  const auto result = vek_cases::RunSetups("PAD", {{attrs, {in}, {out}}}, random);
  EXPECT_EQ(result.difference, "");
  EXPECT_EQ(result.executed, 2U) << testing::PrintToString(result.log);
}

TEST(Pad, TheConstantOfTheDirectPathFollowsTheOutputsExponent) {
  Random random(17);
  for (int bits : {8, 16, 32}) {
    for (int exp : {0, -3, -8, -14, -31, 4, 40}) {
      for (unsigned pad : {0U, 1U, 3U, 200U, 70000U, 4294967295U}) {
        const Buf in = Buf::Int(bits, {1, 1, 1, 1});
        Buf out = Buf::Int(bits, {1, 1, 1, 2});
        out.format.exp = exp;
        ExpectFormula(in, out, 4, {0, 0, 0, 0, 0, 0, 1, 0}, false, pad, random);
      }
    }
  }
}

// --- Whole tensors.

std::vector<unsigned> PaddedDims(const std::vector<unsigned>& dims, const Pads& pads) {
  std::vector<unsigned> padded = dims;
  for (std::size_t d = 0; d < 4; ++d) padded[d] += pads[2 * d] + pads[2 * d + 1];
  return padded;
}

TEST(Pad, AllPadsZeroCopies) {
  Random random(18);
  for (int mode = 0; mode <= 5; ++mode) {
    for (bool channels_last : {false, true}) {
      ExpectFormula(Buf::Float({2, 3, 4, 5}), Buf::Float({2, 3, 4, 5}), mode, {}, channels_last, 7, random);
    }
  }
}

TEST(Pad, EveryModeOverManyShapes) {
  Random random(19);
  for (int mode : {1, 2, 3, 4}) {
    for (int bits : {8, 16, 32}) {
      for (const Pads& pads :
           {Pads{0, 0, 0, 0, 1, 1, 1, 1}, Pads{0, 0, 0, 0, 3, 2, 0, 4}, Pads{0, 1, 2, 1, 1, 0, 2, 1},
            Pads{1, 2, 1, 1, 1, 1, 1, 1}, Pads{0, 0, 0, 0, 5, 5, 9, 17}}) {
        for (unsigned W : {1U, 2U, 3U, 4U, 5U, 12U, 16U, 17U, 33U, 70U}) {
          const std::vector<unsigned> dims = {2, 3, 2, W};
          ExpectFormula(Buf::Int(bits, dims), Buf::Int(bits, PaddedDims(dims, pads)), mode, pads, false, 3,
                        random);
          if (bits == 32) {
            ExpectFormula(Buf::Float(dims), Buf::Float(PaddedDims(dims, pads)), mode, pads, true, 3, random);
          }
        }
      }
    }
  }
}

TEST(Pad, PaddedAndInterleavedLayouts) {
  Random random(20);
  const Pads pads = {0, 0, 1, 1, 1, 2, 2, 1};
  for (int mode : {0, 1, 2, 3, 4}) {
    for (int bits : {8, 16, 32}) {
      for (int pack : {1, 2, 3, 4, 16}) {
        for (unsigned C : {1U, 3U, 4U, 17U}) {
          const std::vector<unsigned> dims = {2, C, 3, 5};
          Buf in = Buf::Packed(dims, Buf::Planar(bits, false, pack));
          Buf out = Buf::Int(bits, PaddedDims(dims, pads));
          in.Pad(12, 20);
          out.Pad(4, 8);
          ExpectFormula(in, out, mode, pads, false, 3, random);
        }
      }
    }
  }
}

TEST(Pad, AnInterleavedOutputTakesTheDensePath) {
  Random random(21);
  const Pads pads = {1, 0, 0, 1, 1, 1, 1, 1};
  Buf out = Buf::Float(PaddedDims({1, 2, 3, 4}, pads));
  out.format.plane_pack = 4;
  for (int mode = 0; mode <= 4; ++mode) {
    ExpectFormula(Buf::Float({1, 2, 3, 4}), out, mode, pads, false, 9, random);
  }
}

TEST(Pad, TheDirectCopyCountsP0InPlanesAndTheBorderInBatches) {
  Random random(22);
  for (int mode = 0; mode <= 4; ++mode) {
    const Pads pads = {1, 0, 0, 1, 0, 0, 0, 0};
    ExpectFormula(Buf::Int(16, {2, 2, 1, 2}), Buf::Int(16, {3, 3, 1, 2}), mode, pads, false, 1, random);
  }
  // By eye: the one plane of the input lands in the second plane of the first item.
  Layer layer("PAD");
  ASSERT_TRUE(layer.Configure(Attributes(0, {1, 0, 0, 1, 0, 0, 0, 0}), {Buf::Int(8, {1, 1, 1, 1})},
                              {Buf::Int(8, {2, 2, 1, 1})}));
  std::uint8_t in = 7;
  std::vector<std::uint8_t> out(4);
  ASSERT_TRUE(layer.Execute({&in}, {out.data()}));
  EXPECT_EQ(out, (std::vector<std::uint8_t>{0, 7, 0, 0}));
}

TEST(Pad, ANegativePadWrapsInTheCopy) {
  // One row further down and one element back: everything stays inside.
  Random random(23);
  ExpectFormula(Buf::Int(8, {1, 1, 2, 4}), Buf::Int(8, {1, 1, 4, 4}), 0, {0, 0, 0, 0, 1, 0, ~0U, 0}, false, 0,
                random);
  ExpectFormula(Buf::Float({1, 1, 2, 4}), Buf::Float({1, 1, 4, 4}), 0, {0, 0, 0, 0, 1, 0, ~0U, 0}, true, 0,
                random);
}

TEST(Pad, PadsThatDoNotFitTheOutputAreNotDetected) {
  Random random(24);
  for (int mode = 0; mode <= 4; ++mode) {
    for (int bits : {8, 16, 32}) {
      ExpectFormula(Buf::Int(bits, {1, 2, 3, 6}), Buf::Int(bits, {1, 3, 2, 4}), mode,
                    {0, 1, 1, 1, 1, 2, 1, 1}, false, 2, random);
    }
  }
}

TEST(Pad, AnEdgeOfNoColumnsRepeatsWhatLiesInItsPlace) {
  Random random(29);
  const Pads pads = {0, 0, 0, 0, 1, 1, 1, 2};
  ExpectFormula(Buf::Int(16, {1, 2, 2, 0}), Buf::Int(16, {1, 2, 4, 3}), 2, pads, false, 0, random);
  ExpectFormula(Buf::Float({1, 2, 2, 0}), Buf::Float({1, 2, 4, 3}), 2, pads, true, 0, random);
}

TEST(Pad, AnEmptyInputNeedsNoPlanePack) {
  Random random(31);
  for (const int pack : {0, -4}) {
    for (std::size_t d = 0; d < 4; ++d) {
      std::vector<unsigned> dims = {1, 2, 2, 3};
      dims[d] = 0;
      const Pads pads = {0, 1, 1, 1, 1, 2, 1, 2};
      for (int mode : {0, 1, 3, 4}) {
        Buf in = Buf::Int(16, dims);
        in.format.plane_pack = pack;
        ExpectFormula(in, Buf::Int(16, PaddedDims(dims, pads)), mode, pads, false, 5, random);
      }
    }
  }
}

// Has `call(out_data)` make the border that the model makes, whose constant is 5.
template <typename T, typename Call>
Touched ExpectBorder(const Buf& in, const Buf& out, int mode, const Pads& pads, Random& random,
                     const Call& call) {
  constexpr std::uint32_t kFive = 0x40A00000;  // as a float
  return ExpectSameBytes(
      random,
      [&](Memory&, Memory& to) {
        vek_model::PadBorder(sizeof(T), mode, pads, vek_model::Shape(in), vek_model::Shape(out),
                             Steps::Strided(sizeof(T), out, out.At(1)), kFive, to);
      },
      [&](void*, void* to) { EXPECT_TRUE(call(static_cast<T*>(to))); });
}

TEST(Pad, BorderPositionsWrapAt32Bits) {
  // 65536 rows, or planes, of 65536 elements: the last of the interior lies where the first one does, and the border
  // behind it repeats that one.
  Random random(30);
  for (std::size_t d : {1U, 2U}) {
    std::vector<unsigned> dims = {1, 1, 1, 2};
    dims[d] = 65537;
    Pads p = {};
    p[2 * d + 1] = 1;
    const Buf in = Buf::Int(16, dims);
    Buf out = Buf::Int(16, PaddedDims(dims, p));
    (d == 1 ? out.plane_stride : out.line_stride) = 131072;
    const auto touched = ExpectBorder<short>(in, out, 3, p, random, [&](short* to) {
      return Pad_reflectsymm_v1(in, out, p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], false, to);
    });
    EXPECT_EQ(touched.out, 131072U + 4U);
  }
}

TEST(Pad, KernelsFollowTheirFormulas) {
  Random random(25);
  const std::vector<unsigned> dims = {2, 2, 3, 4};
  const Pads p = {1, 1, 1, 2, 2, 1, 3, 5};
  const Buf in = Buf::Float(dims);
  const Buf out = Buf::Float(PaddedDims(dims, p));
  const auto reflect = [&](const Buf& target, bool without_edge, auto* to) {
    return Pad_reflectsymm_v1(in, target, p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], without_edge, to);
  };
  ExpectSameBytes(
      random,
      [&](Memory& from, Memory& to) {
        vek_model::CopyDenseInterior(p, vek_model::Shape(in), vek_model::Shape(out), from, to);
      },
      [&](void* from, void* to) {
        EXPECT_TRUE(CopyBuffer_v1(in, out, p[0], p[2], p[4], p[6], static_cast<float*>(from),
                                  static_cast<float*>(to)));
      });
  const Buf ints = Buf::Int(32, out.dims).Pad(8, 12);
  const Buf shorts = Buf::Int(16, out.dims).Pad(6, 2);
  for (const bool without_edge : {false, true}) {
    const int mode = without_edge ? 1 : 3;
    ExpectBorder<float>(in, out, mode, p, random, [&](float* to) { return reflect(out, without_edge, to); });
    ExpectBorder<int>(in, ints, mode, p, random, [&](int* to) { return reflect(ints, without_edge, to); });
    ExpectBorder<short>(in, shorts, mode, p, random,
                        [&](short* to) { return reflect(shorts, without_edge, to); });
  }
  ExpectBorder<float>(in, out, 2, p, random, [&](float* to) {
    return Pad_edge_repli_v1(in, out, p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], to);
  });
  ExpectBorder<float>(in, out, 4, p, random, [&](float* to) {
    return Pad_const_v1(in, out, 5, p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], to);
  });
}

// The interior coordinate whose element belongs at coordinate `i` of a padded axis; none: the fill value.
std::optional<std::uint32_t> PadSource(int mode, std::uint32_t i, std::uint32_t before,
                                       std::uint32_t extent) {
  const auto at = static_cast<std::int64_t>(i) - before;
  const auto last = static_cast<std::int64_t>(extent) - 1;
  if (at >= 0 && at <= last) return static_cast<std::uint32_t>(at);
  std::int64_t source = -1;
  if (mode == 1) source = at < 0 ? -at : 2 * last - at;
  if (mode == 3) source = at < 0 ? -at - 1 : 2 * last - at + 1;
  if (mode == 2 && last >= 0) source = at < 0 ? 0 : last;
  if (source < 0 || source > last) return std::nullopt;
  return static_cast<std::uint32_t>(source);
}

// A second formulation: each coordinate of a well-formed result from the input's coordinate that belongs there.
TEST(Pad, EachElementOfAWellFormedResultComesFromWhereItBelongs) {
  ForRandomCases(100, [](Random& random) {
    Pads pads;
    std::vector<unsigned> dims(4);
    for (unsigned& dim : dims) dim = random.Between(1, 5);
    for (unsigned& p : pads) p = random.Between(0, 4);
    pads[0] = 0;
    const int mode = static_cast<int>(random.Between(1, 4));
    const std::vector<unsigned> whole = PaddedDims(dims, pads);
    Layer layer("PAD");
    ASSERT_TRUE(layer.Configure(Attributes(mode, pads, "77"), {Buf::Int(16, dims)}, {Buf::Int(16, whole)}));
    std::vector<std::uint16_t> in(dims[0] * dims[1] * dims[2] * dims[3]);
    for (std::uint16_t& value : in) value = static_cast<std::uint16_t>(random());
    std::vector<std::uint16_t> out(whole[0] * whole[1] * whole[2] * whole[3]);
    ASSERT_TRUE(layer.Execute({in.data()}, {out.data()}));
    std::size_t i = 0;
    std::array<unsigned, 4> at;
    for (at[0] = 0; at[0] < whole[0]; ++at[0]) {
      for (at[1] = 0; at[1] < whole[1]; ++at[1]) {
        for (at[2] = 0; at[2] < whole[2]; ++at[2]) {
          for (at[3] = 0; at[3] < whole[3]; ++at[3], ++i) {
            std::size_t source = 0;
            bool filled = false;
            for (std::size_t d = 0; d < 4; ++d) {
              const auto s = PadSource(mode, at[d], pads[2 * d], dims[d]);
              filled = filled || !s;
              source = source * dims[d] + s.value_or(0);
            }
            ASSERT_EQ(out[i], filled ? (mode == 4 ? 77 : 0) : in[source]) << "element " << i;
          }
        }
      }
    }
  });
}

TEST(Pad, AskingTheDescriptionsDoesNotGrowWithTheTensor) {
  long calls[2];
  for (unsigned large : {0U, 1U}) {
    const unsigned extent = large != 0 ? 20 : 2;
    Layer layer("PAD");
    ASSERT_TRUE(layer.Configure(Attributes(1, {0, 0, 0, 0, 1, 1, 1, 1}),
                                {Buf::Float({1, extent, extent, extent})},
                                {Buf::Float({1, extent, extent + 2, extent + 2})}));
    std::vector<float> in(8000);
    std::vector<float> out(9680);
    Buf::ResetCalls();
    ASSERT_TRUE(layer.Execute({in.data()}, {out.data()}));
    calls[large] = 0;
    for (const auto& count : Buf::calls) calls[large] += count;
  }
  EXPECT_EQ(calls[0], calls[1]);
}

}  // namespace
}  // namespace vek_test::pad
