// ELTWISE: refusals in their order, state, the kernels against their formulas.
#include "custom_ops/vek_ewo.h"

#include <gtest/gtest.h>

#include "model/vek_ewo.h"
#include "support/floats.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"
#include "support/refusals.h"

namespace vek_test::ewo {
namespace {

using zeb_custom_ops::VekEwo;

const char kFile[] = "vek_ewo.cpp";

// Reaches the fields.
class OpenEwo : public VekEwo {
 public:
  using VekEwo::A_repeats_along_;
  using VekEwo::B_repeats_along_;
  using VekEwo::broadcast_A_;
  using VekEwo::broadcast_B_;
  using VekEwo::configured_;
  using VekEwo::in_attrs_;
  using VekEwo::k_;
  using VekEwo::method_;
  using VekEwo::out_attrs_;
};

Log RefusedFormat(const std::string& text, int bitdepth, int plane_pack, bool is_float) {
  return {Error(kFile, text),
          Info("vek_common.cpp", "bitdepth=" + std::to_string(bitdepth) +
                                     ", plane_pack=" + std::to_string(plane_pack) +
                                     ", exp=0, signed=0, float=" + std::to_string(is_float) +
                                     ", q8a=0, q8a_zero=0, q8a_scale=1.000000")};
}

// Both operands, the constant and both words: every fault can be made from it.
Setup Valid() {
  const Buf buf = Buf::Float({1, 2, 3, 4});
  return {{{"method", "0"},
           {"has_k", "1"},
           {"k", "2.5"},
           {"broadcast_A", "1"},
           {"word_A", "0"},
           {"broadcast_B", "1"},
           {"word_B", "0"}},
          {buf, buf},
          {buf}};
}

struct Case {
  AttrMap attrs;
  std::vector<std::vector<unsigned>> shapes;  // of the inputs; the output has the first one's
  std::vector<std::vector<float>> data;
};

// Runs a new layer over guarded buffers and returns its output.
std::vector<float> Result(const Case& c, const std::vector<unsigned>& out_dims) {
  Layer layer("ELTWISE");
  std::vector<Buf> in;
  std::vector<GuardedBuffer> src;
  std::vector<void*> pointers;
  for (std::size_t i = 0; i < c.shapes.size(); ++i) {
    in.push_back(Buf::Float(c.shapes[i]));
    src.push_back(Guarded(c.data[i]));
    pointers.push_back(src[i].data());
  }
  const Buf out = Buf::Float(out_dims);
  EXPECT_TRUE(layer.Configure(c.attrs, in, {out}));
  EXPECT_EQ(layer.log, Log{});
  const GuardedBuffer dst(out.size);
  EXPECT_TRUE(layer.Execute(pointers, {dst.data()}));
  EXPECT_EQ(layer.log, Log{});
  for (std::size_t i = 0; i < src.size(); ++i) {
    EXPECT_EQ(src[i].Get(), Guarded(c.data[i]).Get()) << "input " << i << " was written";
  }
  return dst.Get<float>();
}

std::vector<float> Result(const Case& c) { return Result(c, c.shapes[0]); }

// --- Configure

std::vector<Fault> Faults() {
  const auto erase = [](const char* key) { return [key](Setup& s) { s.attrs.erase(key); }; };
  const auto method = [](const char* text) { return [text](Setup& s) { s.attrs["method"] = text; }; };
  return {
      {"no input",
       [](Setup& s) { s.in.clear(); },
       {Error(kFile, "wrong number of inputs, expected at least 1, got: 0")},
       "inputs"},
      {"no output",
       [](Setup& s) { s.out.clear(); },
       {Error(kFile, "wrong number of outputs, expected: 1, got: 0")},
       "outputs"},
      {"two outputs",
       [](Setup& s) { s.out.push_back(s.out[0]); },
       {Error(kFile, "wrong number of outputs, expected: 1, got: 2")},
       "outputs"},
      {"no attributes",
       [](Setup& s) { s.attrs.clear(); },
       {Error(kFile, "expecting at least one attribute, got: 0")},
       "attributes"},
      {"no method",
       erase("method"),
       {Error(kFile, "expected EWO method parameter: method not found.")},
       "method"},
      {"method 2", method("2"), {Error(kFile, "unknown EWO method parameter: 2.")}, "method"},
      {"method 5", method("5"), {Error(kFile, "unknown EWO method parameter: 5.")}, "method"},
      {"method -1", method("-1"), {Error(kFile, "unknown EWO method parameter: -1.")}, "method"},
      {"method 8", method("8"), {Error(kFile, "unknown EWO method parameter: 8.")}, "method"},
      {"sum of two",
       method("1"),
       {Error(kFile, "method: 1 requires single input buffer, instead got: 2")},
       "method"},
      {"power of two",
       method("7"),
       {Error(kFile, "method: 7 requires single input buffer, instead got: 2")},
       "method"},
      {"product of three",
       [](Setup& s) { s.in.push_back(s.in[0]); },
       {Error(kFile, "method: 0 requires 2 input buffers, instead got: 3")},
       "method"},
      {"no k", erase("k"), {Error(kFile, "expected EWO k parameter: k not found.")}},
      {"no word_A", erase("word_A"), {Error(kFile, "expected EWO word_A parameter: word_A not found.")}},
      {"no word_B", erase("word_B"), {Error(kFile, "expected EWO word_B parameter: word_B not found.")}},
      {"16-bit first input", [](Setup& s) { s.in[0].format = Buf::Planar(16, false); },
       RefusedFormat("unexpected input buffer format", 16, 1, false)},
      {"padded first input",
       [](Setup& s) { s.in[0].strided = true; },
       {Error(kFile, "strided data detected on input, this is not supported.")}},
      {"interleaved second input", [](Setup& s) { s.in[1].format = Buf::Planar(32, true, 4); },
       RefusedFormat("unexpected input buffer format", 32, 4, true)},
      {"padded second input",
       [](Setup& s) { s.in[1].strided = true; },
       {Error(kFile, "strided data detected on input, this is not supported.")}},
      {"integer output", [](Setup& s) { s.out[0].format = Buf::Planar(32, false); },
       RefusedFormat("unexpected output buffer format", 32, 1, false)},
      {"padded output",
       [](Setup& s) { s.out[0].strided = true; },
       {Error(kFile, "strided data detected on output, this is not supported.")}},
      {"short first input",
       [](Setup& s) { s.in[0].size = 95; },
       {Error(kFile, "input 0 size too small, size: 95 bytes vs expected at least: 96 bytes.")}},
      {"short second input",
       [](Setup& s) { s.in[1].size = 94; },
       {Error(kFile, "input 1 size too small, size: 94 bytes vs expected at least: 96 bytes.")}},
      {"short output",
       [](Setup& s) { s.out[0].size = 95; },
       {Error(kFile, "output buffer size too small, size: 95 bytes vs expected at least: 96 bytes.")}},
  };
}

TEST(Ewo, RefusesInOrder) { CheckOrderOfRefusals("ELTWISE", Valid(), Faults()); }

TEST(Ewo, OneInputIsTooFewForProductAndQuotient) {
  for (const std::string method : {"0", "6"}) {
    Layer layer("ELTWISE");
    EXPECT_FALSE(layer.Configure({{"method", method}}, {Buf::Float({1})}, {Buf::Float({1})}));
    EXPECT_EQ(layer.log,
              (Log{Error(kFile, "method: " + method + " requires 2 input buffers, instead got: 1")}));
  }
}

TEST(Ewo, OptionalAttributesAreOptional) {
  const std::vector<Buf> two = {Buf::Float({1, 2, 3, 4}), Buf::Float({1, 2, 3, 4})};
  const std::vector<Buf> one = {two[0]};
  for (const AttrMap& attrs :
       {AttrMap{{"method", "0"}}, AttrMap{{"method", "6"}, {"has_k", "0"}},
        AttrMap{{"method", " 6x"}, {"broadcast_A", "true"}, {"broadcast_B", "0"}, {"other", ""}}}) {
    Layer layer("ELTWISE");
    EXPECT_TRUE(layer.Configure(attrs, two, one));
    EXPECT_EQ(layer.log, Log{});
  }
  for (const AttrMap& attrs : {AttrMap{{"method", "1"}}, AttrMap{{"method", "7"}, {"k", "3"}}}) {
    Layer layer("ELTWISE");
    EXPECT_TRUE(layer.Configure(attrs, one, one));
  }
}

TEST(Ewo, ShapesAreNotCompared) {
  Layer layer("ELTWISE");
  EXPECT_TRUE(
      layer.Configure({{"method", "0"}}, {Buf::Float({1, 2}), Buf::Float({7})}, {Buf::Float({3, 3, 3})}));
}

TEST(Ewo, SizesAreComparedInSixtyFourBits) {
  Layer layer("ELTWISE");
  Buf in = Buf::Float({4});
  in.dims = {65536, 65536};
  in.strided = false;
  EXPECT_FALSE(layer.Configure({{"method", "1"}}, {in}, {Buf::Float({4})}));
  EXPECT_EQ(
      layer.log,
      (Log{Error(kFile, "input 0 size too small, size: 16 bytes vs expected at least: 17179869184 bytes.")}));
}

TEST(Ewo, ASilencedRefusalAsksForNothingThatOnlyItsTextNeeds) {
  const ScopedThreshold threshold(kNone);
  Layer layer("ELTWISE");
  Buf in = Buf::Float({4});
  in.size = 15;
  Buf::ResetCalls();
  EXPECT_FALSE(layer.Configure({{"method", "1"}}, {in}, {Buf::Float({4})}));
  EXPECT_EQ(Buf::calls[kGetSize], 1);
}

// Configures one layer again and again and looks at its fields.
struct EwoState : testing::Test {
  OpenEwo layer;
  const Buf buf = Buf::Float({2, 3, 4, 5});
  bool Configure(const AttrMap& attrs, std::size_t inputs = 2, std::size_t outputs = 1) {
    const BufAttrsList in = MakeList(std::vector<Buf>(inputs, buf));
    const BufAttrsList out = MakeList(std::vector<Buf>(outputs, buf));
    bool result = false;
    CaptureLog([&] { result = layer.Configure(attrs, in, out); });
    return result;
  }
  std::vector<bool> A() const {
    return std::vector<bool>(std::begin(layer.A_repeats_along_), std::end(layer.A_repeats_along_));
  }
  std::vector<bool> B() const {
    return std::vector<bool>(std::begin(layer.B_repeats_along_), std::end(layer.B_repeats_along_));
  }
};

TEST_F(EwoState, ANewLayerHoldsTheDefaults) {
  EXPECT_TRUE(layer.in_attrs_.empty());
  EXPECT_EQ(layer.out_attrs_, nullptr);
  EXPECT_FALSE(layer.configured_);
  EXPECT_EQ(layer.method_, 0);
  EXPECT_EQ(layer.k_, 1.0F);
  EXPECT_FALSE(layer.broadcast_A_ || layer.broadcast_B_);
  EXPECT_EQ(A(), std::vector<bool>(4));
  EXPECT_EQ(B(), std::vector<bool>(4));
}

TEST_F(EwoState, WordsAreReadInTheBasesOfC) {
  const auto word = [&](const std::string& text) {
    EXPECT_TRUE(Configure({{"method", "0"}, {"broadcast_A", "1"}, {"word_A", text}}));
    return A();
  };
  EXPECT_EQ(word("3"), (std::vector<bool>{false, false, true, true}));
  EXPECT_EQ(word("0x3"), (std::vector<bool>{false, false, true, true}));
  EXPECT_EQ(word("010"), (std::vector<bool>{true, false, false, false}));
  EXPECT_EQ(word("10"), (std::vector<bool>{true, false, true, false}));
  EXPECT_EQ(word("0xA"), (std::vector<bool>{true, false, true, false}));
  EXPECT_EQ(word("4"), (std::vector<bool>{false, true, false, false}));
  EXPECT_EQ(word("0xF0"), std::vector<bool>(4)) << "higher bits are ignored";
  EXPECT_EQ(word("31"), std::vector<bool>(4, true));
  EXPECT_EQ(word("none"), std::vector<bool>(4));
  EXPECT_EQ(word("-1"), std::vector<bool>(4, true));
  EXPECT_EQ(B(), std::vector<bool>(4));
}

TEST_F(EwoState, WhatAnAttributeDoesNotSetStays) {
  ASSERT_TRUE(Configure({{"method", "0"},
                         {"has_k", "1"},
                         {"k", "0x1p-3"},
                         {"broadcast_A", "1"},
                         {"word_A", "5"},
                         {"broadcast_B", "1"},
                         {"word_B", "10"}}));
  ASSERT_TRUE(Configure({{"method", "6"}, {"has_k", "2"}, {"k", "9"}, {"word_A", "15"}}));
  EXPECT_EQ(layer.k_, 0.125F) << "has_k is not 1";
  EXPECT_TRUE(layer.broadcast_A_ && layer.broadcast_B_);
  EXPECT_EQ(A(), (std::vector<bool>{false, true, false, true})) << "broadcast_A is absent";
  ASSERT_TRUE(Configure({{"method", "6"}, {"broadcast_A", "0"}, {"word_A", "15"}, {"broadcast_B", "no"}}));
  EXPECT_FALSE(layer.broadcast_A_ || layer.broadcast_B_);
  EXPECT_EQ(A(), (std::vector<bool>{false, true, false, true}));
  EXPECT_EQ(B(), (std::vector<bool>{true, false, true, false}));
  ASSERT_TRUE(Configure({{"method", "6"}, {"has_k", "1"}, {"k", "text"}}));
  EXPECT_EQ(layer.k_, 0.0F);
}

TEST_F(EwoState, EveryConfigureAppendsItsInputsAndReplacesTheOutput) {
  const ExpectNoLeakedClones no_leaks;
  {
    OpenEwo local;
    const long before = Buf::alive;
    const BufAttrsList in = MakeList({buf, buf});
    const BufAttrsList out = MakeList({buf});
    ASSERT_TRUE(local.Configure({{"method", "0"}}, in, out));
    EXPECT_EQ(local.in_attrs_.size(), 2U);
    ASSERT_TRUE(local.Configure({{"method", "6"}}, in, out));
    EXPECT_EQ(local.in_attrs_.size(), 4U);
    EXPECT_FALSE(CaptureLog([&] { EXPECT_FALSE(local.Configure({}, in, out)); }).empty());
    EXPECT_EQ(local.in_attrs_.size(), 6U) << "a refused Configure has appended too";
    EXPECT_FALSE(CaptureLog([&] { EXPECT_FALSE(local.Configure({{"method", "0"}}, in, {})); }).empty());
    EXPECT_EQ(local.in_attrs_.size(), 6U) << "the counts are checked before";
    EXPECT_EQ(Buf::alive - before, 3 + 6 + 1);
  }
}

TEST_F(EwoState, ARefusedConfigureLeavesWhatItRead) {
  EXPECT_FALSE(Configure({{"method", "3"}}));
  EXPECT_EQ(layer.method_, 3);
  EXPECT_FALSE(Configure({{"method", "7"}, {"has_k", "1"}, {"k", "4"}}));
  EXPECT_EQ(layer.method_, 7);
  EXPECT_EQ(layer.k_, 1.0F) << "the inputs are counted before";
  EXPECT_FALSE(Configure({{"method", "0"}, {"has_k", "1"}, {"k", "4"}, {"broadcast_A", "1"}}));
  EXPECT_EQ(layer.k_, 4.0F);
  EXPECT_TRUE(layer.broadcast_A_);
  EXPECT_FALSE(layer.configured_);
}

// --- Execute

TEST(Ewo, ExecuteRefusesInOrder) {
  Layer layer("ELTWISE");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "custom layer not configured.")}));
  const Buf buf = Buf::Float({1});
  ASSERT_TRUE(layer.Configure({{"method", "0"}}, {buf, buf}, {buf}));
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "in_buffers is NULL.")}));
  float one = 1;
  void* none[] = {nullptr, nullptr};
  void* first[] = {&one, nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(none, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "out_buffers is NULL.")}));
  EXPECT_FALSE(layer.ExecuteRaw(none, none));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Input buffer 0 pointer is NULL")}));
  EXPECT_FALSE(layer.ExecuteRaw(first, none));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Input buffer 1 pointer is NULL")}));
}

TEST(Ewo, AnUnknownMethodIsRefusedByExecuteToo) {
  OpenEwo layer;
  layer.configured_ = true;
  layer.method_ = 3;
  void* none[] = {nullptr};
  EXPECT_EQ(CaptureLog([&] { EXPECT_FALSE(layer.Execute(none, none)); }),
            (Log{Error(kFile, "EWO operation not supported, method: 3.")}));
}

TEST(Ewo, ARefusedMethodStaysStoredAndIsRefusedByExecute) {
  Layer layer("ELTWISE");
  const Buf buf = Buf::Float({1});
  ASSERT_TRUE(layer.Configure({{"method", "1"}}, {buf}, {buf}));
  ASSERT_FALSE(layer.Configure({{"method", "2"}}, {buf}, {buf}));
  float data = 1;
  EXPECT_FALSE(layer.Execute({&data, &data}, {&data}));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "EWO operation not supported, method: 2.")}));
}

TEST(Ewo, AppendedInputsAreCheckedForNullAndTheFirstOnesGiveTheSizes) {
  Layer layer("ELTWISE");
  ASSERT_TRUE(layer.Configure({{"method", "1"}}, {Buf::Float({3})}, {Buf::Float({3})}));
  ASSERT_TRUE(layer.Configure({{"method", "1"}}, {Buf::Float({5})}, {Buf::Float({5})}));
  std::vector<float> in = {1, 2, 3, 4, 5};
  std::vector<float> out(5, -1.0F);
  EXPECT_FALSE(layer.Execute({in.data(), nullptr}, {out.data()}));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Input buffer 1 pointer is NULL")}));
  EXPECT_TRUE(layer.Execute({in.data(), in.data()}, {out.data()}));
  ExpectSameFloats(out, {2, 3, 4, -1, -1});
}

TEST(Ewo, AWordOfAnEarlierConfigureStillChoosesTheKernel) {
  const Buf full = Buf::Float({1, 2, 1, 3});
  const Buf per_channel = Buf::Float({1, 2, 1, 1});
  Layer layer("ELTWISE");
  ASSERT_TRUE(
      layer.Configure({{"method", "0"}, {"broadcast_B", "1"}, {"word_B", "3"}}, {full, per_channel}, {full}));
  ASSERT_TRUE(layer.Configure({{"method", "0"}, {"broadcast_B", "0"}}, {full, per_channel}, {full}));
  std::vector<float> a = {1, 2, 3, 4, 5, 6};
  std::vector<float> b = {10, 100};
  std::vector<float> out(6);
  ASSERT_TRUE(layer.Execute({a.data(), b.data(), a.data(), b.data()}, {out.data()}));
  ExpectSameFloats(out, {10, 20, 30, 400, 500, 600});
}

TEST(Ewo, SizesAreAskedForOncePerExecute) {
  const Buf full = Buf::Float({2, 3, 5, 7});
  std::vector<float> a(210, 2.0F);
  std::vector<float> out(210);
  for (const AttrMap& attrs : {AttrMap{{"method", "0"}}, AttrMap{{"method", "6"}},
                               AttrMap{{"method", "6"}, {"broadcast_B", "1"}, {"word_B", "13"}},
                               AttrMap{{"method", "0"}, {"broadcast_A", "1"}, {"word_A", "3"}}}) {
    Layer layer("ELTWISE");
    ASSERT_TRUE(layer.Configure(attrs, {full, full}, {full}));
    Buf::ResetCalls();
    ASSERT_TRUE(layer.Execute({a.data(), a.data()}, {out.data()}));
    for (const Slot slot : {kGetBatch, kGetChannels, kGetHeight, kGetWidth})
      EXPECT_EQ(Buf::calls[slot], 1) << slot;
  }
}

// --- Values

TEST(Ewo, AddsOneWithoutHasK) {
  ExpectSameFloats(Result({{{"method", "1"}, {"k", "7"}}, {{3}}, {{1, -1, 0.5F}}}), {2, 0, 1.5F});
  ExpectSameFloats(Result({{{"method", "1"}, {"has_k", "1"}, {"k", "-2"}}, {{3}}, {{1, -0.0F, 2}}}),
                   {-1, -2, 0});
}

TEST(Ewo, MinusOneDividesAndItsNeighbourDoesNot) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<float> in = {2, -4, 0.0F, -0.0F, inf, -inf, 3};
  ExpectSameFloats(Result({{{"method", "7"}, {"has_k", "1"}, {"k", "-1"}}, {{7}}, {in}}),
                   {0.5F, -0.25F, inf, -inf, 0.0F, -0.0F, 1.0F / 3.0F});
  const float neighbour = std::strtof("-1.0000001", nullptr);
  ASSERT_NE(neighbour, -1.0F);
  vek_model::Memory bases(in);
  vek_model::Memory powers;
  vek_model::Power(7, neighbour, bases, powers);
  const std::vector<float> want = powers.Get<float>();
  EXPECT_TRUE(std::isnan(want[1])) << "a negative base";
  ExpectSameFloats(Result({{{"method", "7"}, {"has_k", "1"}, {"k", "-1.0000001"}}, {{7}}, {in}}), want);
}

TEST(Ewo, DivisionByZeroSucceeds) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ExpectSameFloats(Result({{{"method", "6"}}, {{4}, {4}}, {{1, -1, 0, 6}, {0, 0, 0, 3}}}),
                   {inf, -inf, nan, 2});
}

TEST(Ewo, OneValuePerPlaneOnEitherSide) {
  const std::vector<float> full = {1, 2, 3, 4, 5, 6, 7, 8};
  const std::vector<float> planes = {10, 100};
  const std::vector<float> want = {10, 20, 30, 40, 500, 600, 700, 800};
  for (const std::string word : {"3", "0x3"}) {
    ExpectSameFloats(Result({{{"method", "0"}, {"broadcast_B", "1"}, {"word_B", word}},
                             {{1, 2, 2, 2}, {1, 2, 1, 1}},
                             {full, planes}}),
                     want);
    ExpectSameFloats(Result({{{"method", "0"}, {"broadcast_A", "1"}, {"word_A", word}},
                             {{1, 2, 1, 1}, {1, 2, 2, 2}},
                             {planes, full}},
                            {1, 2, 2, 2}),
                     want);
  }
}

TEST(Ewo, OneValueRepeatedEverywhere) {
  ExpectSameFloats(Result({{{"method", "6"}, {"broadcast_B", "1"}, {"word_B", "15"}},
                           {{1, 2, 1, 2}, {1}},
                           {{2, 4, 6, 8}, {2}}}),
                   {1, 2, 3, 4});
}

TEST(Ewo, TheGeneralProductTakesItsSizesFromTheFirstInput) {
  // A repeats along N and C, so that the loops are those of A's extents of 1: one row.
  const Buf a = Buf::Float({1, 1, 1, 3});
  const Buf b = Buf::Float({1, 2, 1, 3});
  Layer layer("ELTWISE");
  ASSERT_TRUE(layer.Configure({{"method", "0"}, {"broadcast_A", "1"}, {"word_A", "12"}}, {a, b}, {b}));
  std::vector<float> a_data = {1, 2, 3};
  std::vector<float> b_data = {1, 1, 1, 2, 2, 2};
  std::vector<float> out(6, -1.0F);
  ASSERT_TRUE(layer.Execute({a_data.data(), b_data.data()}, {out.data()}));
  ExpectSameFloats(out, {1, 2, 3, -1, -1, -1});
}

TEST(Ewo, IndexesFollowTheFlagsOnlyWhereBroadcastIsSet) {
  OpenEwo layer;
  const Buf shape = Buf::Float({7, 5, 3, 2});
  const auto indexes = [&](unsigned n, unsigned c, unsigned h, unsigned w) {
    const std::uint64_t both = layer.calculate_broadcast_indexes(shape, n, c, h, w);
    return std::pair(static_cast<unsigned>(both), static_cast<unsigned>(both >> 32));
  };
  const unsigned dense = 6 * 30 + 4 * 6 + 2 * 2 + 1;
  layer.A_repeats_along_[1] = true;
  EXPECT_EQ(indexes(6, 4, 2, 1), std::pair(dense, dense));
  layer.broadcast_A_ = true;
  EXPECT_EQ(indexes(6, 4, 2, 1), std::pair(6 * 6 + 2 * 2 + 1U, dense));
  layer.broadcast_B_ = true;
  EXPECT_EQ(indexes(6, 4, 2, 1), std::pair(6 * 6 + 2 * 2 + 1U, dense)) << "no flag of B is set";
  for (unsigned word = 0; word < 16; ++word) {
    for (unsigned i = 0; i < 4; ++i) layer.B_repeats_along_[i] = (word >> (3 - i) & 1) != 0;
    const vek_model::Operand b{true, word};
    const vek_model::Shape sizes(shape);
    EXPECT_EQ(indexes(6, 4, 2, 1).second, b.Index(sizes, 6, 4, 2, 1)) << word;
    EXPECT_EQ(indexes(0x80000001U, 4, 0, 1).second, b.Index(sizes, 0x80000001U, 4, 0, 1))
        << "wraps, " << word;
  }
}

TEST(Ewo, CountsWrapAtThirtyTwoBits) {
  // C * H is 1 in 32 bits.
  Buf shape = Buf::Float({3});
  shape.nchw = {3, 0xAAAAAAABU, 3, 1};
  shape.strided = false;
  Layer layer("ELTWISE");
  ASSERT_TRUE(layer.Configure({{"method", "1"}}, {shape}, {shape}));
  const GuardedBuffer src = Guarded<float>({1, 2, 3});
  const GuardedBuffer dst(12);
  ASSERT_TRUE(layer.Execute({src.data()}, {dst.data()}));
  ExpectSameFloats(dst.Get<float>(), {2, 3, 4});

  // Planes of 3 elements, 3 elements in all.
  const GuardedBuffer one = Guarded<float>({10});
  OpenEwo kernel;
  ASSERT_TRUE(kernel.Mul_NCHW_x_NC11(src.as<float>(), one.as<float>(), dst.as<float>(), shape));
  ExpectSameFloats(dst.Get<float>(), {10, 20, 30});
  // H * W is 0 in 32 bits, and so is the count.
  shape.nchw = {1, 1, 65536, 65536};
  ASSERT_TRUE(kernel.Mul_NCHW_x_NC11<float>(nullptr, nullptr, nullptr, shape));
}

TEST(Ewo, EmptyTensorsWriteNothing) {
  for (const std::vector<unsigned>& dims :
       {std::vector<unsigned>{0, 3, 2, 2}, {2, 0, 2, 2}, {2, 3, 0, 2}, {2, 3, 2, 0}}) {
    for (const std::string method : {"0", "6"}) {
      for (const std::string word : {"0", "3", "5", "12", "15"}) {
        EXPECT_TRUE(
            Result({{{"method", method}, {"broadcast_B", "1"}, {"word_B", word}}, {dims, {1}}, {{}, {1}}})
                .empty());
      }
    }
    for (const std::string k : {"-1", "2"}) {
      EXPECT_TRUE(Result({{{"method", "7"}, {"has_k", "1"}, {"k", k}}, {dims}, {{}}}).empty());
    }
    EXPECT_TRUE(Result({{{"method", "1"}}, {dims}, {{}}}).empty());
  }
}

// --- The general product and quotient next to their formulas.

TEST(Ewo, EveryPairOfWordsOnEveryKindOfShape) {
  Random random(11);
  for (const std::vector<unsigned>& dims : {std::vector<unsigned>{2, 3, 4, 5},
                                            {3, 2, 1, 33},
                                            {2, 5, 17, 1},
                                            {1, 3, 2, 67},
                                            {2, 9, 2, 2},
                                            {4, 1, 7, 3}}) {
    const Buf attrs = Buf::Float(dims);
    const std::size_t count = attrs.Count();
    const std::vector<float> a = RandomFloats(random, count);
    const std::vector<float> b = RandomFloats(random, count);
    OpenEwo layer;
    layer.broadcast_A_ = layer.broadcast_B_ = true;
    const GuardedBuffer dst(count * sizeof(float));
    vek_model::Memory a_data(a);
    vek_model::Memory b_data(b);
    vek_model::Memory want;
    const GuardedBuffer src[2] = {Guarded(a), Guarded(b)};
    const std::vector<float*> pointers = {src[0].as<float>(), src[1].as<float>()};
    for (unsigned words = 0; words < 256; ++words) {
      for (unsigned i = 0; i < 4; ++i) {
        layer.A_repeats_along_[i] = (words >> (7 - i) & 1) != 0;
        layer.B_repeats_along_[i] = (words >> (3 - i) & 1) != 0;
      }
      const vek_model::Operand a_operand{true, words >> 4};
      const vek_model::Operand b_operand{true, words & 15};
      const vek_model::Shape shape(attrs);
      const std::string what = testing::PrintToString(dims) + " words " + std::to_string(words);
      ASSERT_TRUE(layer.Mul(pointers, dst.as<float>(), attrs));
      vek_model::Multiply(shape, a_operand, a_data, b_operand, b_data, want);
      ExpectSameFloats(dst.Get<float>(), want.Get<float>(), what);
      ASSERT_TRUE(layer.Div(pointers, dst.as<float>(), attrs));
      vek_model::Divide(shape, a_operand, a_data, b_operand, b_data, want);
      ExpectSameFloats(dst.Get<float>(), want.Get<float>(), what);
    }
  }
}

}  // namespace
}  // namespace vek_test::ewo
