// MATMUL: refusals in their order, state, the kernels against their formulas.
#include "custom_ops/vek_matmul.h"

#include <gtest/gtest.h>

#include "model/vek_matmul.h"
#include "support/floats.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"
#include "support/refusals.h"

namespace vek_test::matmul {
namespace {

using zeb_custom_ops::VekMatmul;

const char kFile[] = "vek_matmul.cpp";

// Reaches the fields.
class OpenMatmul : public VekMatmul {
 public:
  using VekMatmul::configured_;
  using VekMatmul::in2_attrs_;
  using VekMatmul::in_attrs_;
  using VekMatmul::num_inputs_;
  using VekMatmul::out_attrs_;
  using VekMatmul::trans_b_;
};

Setup Valid() {
  const Buf buf = Buf::Float({1, 2, 1, 2});
  return {{{"trans_b", "1"}}, {buf, buf}, {buf}};
}

// --- Configure

std::vector<Fault> Faults() {
  return {
      {"no attribute",
       [](Setup& s) { s.attrs.clear(); },
       {Error(kFile, "expected 1 attribute, but got 0")},
       "attributes"},
      {"two attributes",
       [](Setup& s) {
         s.attrs = {{"trans_b", "1"}, {"trans_a", "1"}};
       },
       {Error(kFile, "expected 1 attribute, but got 2")},
       "attributes"},
      {"another attribute",
       [](Setup& s) {
         s.attrs = {{"trans_a", "1"}};
       },
       {Error(kFile, "expected attribute: trans_b, got: trans_a")},
       "attributes"},
      {"no input",
       [](Setup& s) { s.in.clear(); },
       {Error(kFile, "expected one/two input and one output, got: 0 inputs, 1 outputs")},
       "counts"},
      {"three inputs",
       [](Setup& s) { s.in.push_back(s.in[0]); },
       {Error(kFile, "expected one/two input and one output, got: 3 inputs, 1 outputs")},
       "counts"},
      {"no output",
       [](Setup& s) { s.out.clear(); },
       {Error(kFile, "expected one/two input and one output, got: 2 inputs, 0 outputs")},
       "counts"},
      {"two outputs",
       [](Setup& s) { s.out.push_back(s.out[0]); },
       {Error(kFile, "expected one/two input and one output, got: 2 inputs, 2 outputs")},
       "counts"},
      {"short first input",
       [](Setup& s) { s.in[0].size = 3; },
       {Error(kFile, "First input buf size should be at least 4, but is 3")}},
      {"short output",
       [](Setup& s) { s.out[0].size = 3; },
       {Error(kFile, "Output buf size should be at least 4, but is 3")}},
      {"16-bit first input",
       [](Setup& s) { s.in[0].format = Buf::Planar(16, false); },
       {Error(kFile, "unexpected input buffer format")},
       "input format"},
      {"interleaved first input",
       [](Setup& s) { s.in[0].format = Buf::Planar(32, true, 4); },
       {Error(kFile, "unexpected input buffer format")},
       "input format"},
      {"integer output",
       [](Setup& s) { s.out[0].format = Buf::Planar(32, false); },
       {Error(kFile, "unexpected output buffer format")}},
      {"short second input",
       [](Setup& s) { s.in[1].size = 3; },
       {Error(kFile, "Second input buf size should be at least 4, but is 3")}},
      {"8-bit second input",
       [](Setup& s) { s.in[1].format = Buf::Planar(8, false); },
       {Error(kFile, "unexpected input buffer format")}},
  };
}

TEST(Matmul, RefusesInOrderAndPrintsNoFormatRecord) { CheckOrderOfRefusals("MATMUL", Valid(), Faults()); }

TEST(Matmul, SizesAreElementsComparedWithBytes) {
  auto s = Valid();
  s.in[0].size = s.in[1].size = s.out[0].size = 4;  // a quarter of what the floats take
  Layer layer("MATMUL");
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Matmul, SizesAreComparedInSixtyFourBitsAndPrintedInThirtyTwo) {
  auto s = Valid();
  s.in[0].dims = {65536, 65536, 1, 3};
  Layer layer("MATMUL");
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "First input buf size should be at least 0, but is 16")}));
}

TEST(Matmul, PaddingIsNotLookedAt) {
  auto s = Valid();
  for (Buf* buf : {&s.in[0], &s.in[1], &s.out[0]}) buf->strided = true;
  Layer layer("MATMUL");
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
}

TEST(Matmul, ASilencedRefusalAsksForNothingThatOnlyItsTextNeeds) {
  const ScopedThreshold threshold(kNone);
  auto s = Valid();
  s.in[0].size = 3;
  Layer layer("MATMUL");
  Buf::ResetCalls();
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(Buf::calls[kGetSize], 1);
}

TEST(Matmul, OnlyTheTextOneTransposes) {
  const Buf buf = Buf::Float({1, 2, 1, 2});
  const BufAttrsList one = MakeList({buf});
  OpenMatmul layer;
  EXPECT_FALSE(layer.trans_b_);
  EXPECT_FALSE(layer.configured_);
  for (const std::string text : {"yes", "true", "0", "", "01", "1 ", " 1", "1.0"}) {
    ASSERT_TRUE(layer.Configure({{"trans_b", "1"}}, one, one));
    EXPECT_TRUE(layer.trans_b_);
    ASSERT_TRUE(layer.Configure({{"trans_b", text}}, one, one));
    EXPECT_FALSE(layer.trans_b_) << text;
  }
  EXPECT_EQ(layer.num_inputs_, 1U);
}

TEST(Matmul, ARefusedConfigureLeavesWhatItReadAndReplaced) {
  const ExpectNoLeakedClones no_leaks;
  OpenMatmul layer;
  const auto configure = [&](const AttrMap& attrs, const std::vector<Buf>& in, const Buf& out) {
    const BufAttrsList inputs = MakeList(in);
    const BufAttrsList outputs = MakeList({out});
    bool result = false;
    CaptureLog([&] { result = layer.Configure(attrs, inputs, outputs); });
    return result;
  };
  const Buf first = Buf::Float({1, 2, 1, 2});
  const Buf second = Buf::Float({1, 3, 1, 3});
  ASSERT_TRUE(configure({{"trans_b", "0"}}, {first}, first));

  EXPECT_FALSE(configure({{"trans_b", "1"}}, {first, first, first}, first));
  EXPECT_TRUE(layer.trans_b_);
  EXPECT_EQ(layer.num_inputs_, 3U);

  EXPECT_FALSE(configure({{"trans_b", "0"}}, {second, Buf::Int(16, {1, 1, 1, 1})}, second));
  EXPECT_EQ(layer.num_inputs_, 2U);
  EXPECT_EQ(layer.in_attrs_->GetDims(), second.dims);
  EXPECT_EQ(layer.in2_attrs_->GetDims(), second.dims) << "of the first input, until the second has passed";
  EXPECT_EQ(layer.out_attrs_->GetDims(), second.dims);
  EXPECT_TRUE(layer.configured_);

  EXPECT_FALSE(configure({{"trans_b", "0"}}, {first}, Buf::Int(16, {1, 2, 1, 2})));
  EXPECT_EQ(layer.in_attrs_->GetDims(), second.dims) << "the formats are checked before";
}

TEST(Matmul, ALayerRefusedWithAnotherNumberOfInputsCannotCalculate) {
  const Buf buf = Buf::Float({1, 2, 1, 2});
  for (const std::size_t count : {0U, 3U}) {
    Layer layer("MATMUL");
    ASSERT_TRUE(layer.Configure({{"trans_b", "1"}}, {buf}, {buf}));
    ASSERT_FALSE(layer.Configure({{"trans_b", "1"}}, std::vector<Buf>(count, buf), {buf}));
    float data[4] = {1, 2, 3, 4};
    EXPECT_FALSE(layer.Execute({data, data, data}, {data}));
    EXPECT_EQ(layer.log, (Log{Error(kFile, "can't calculate Matmul")}));
  }
}

TEST(Matmul, ADescriptionOfAnotherWidthCannotCalculate) {
  // No Configure stores such a description; the layer looks nevertheless.
  OpenMatmul layer;
  layer.configured_ = true;
  layer.num_inputs_ = 1;
  layer.in_attrs_ = std::make_unique<Buf>(Buf::Int(16, {1, 1, 1, 1}));
  layer.in2_attrs_ = std::make_unique<Buf>(Buf::Float({1, 1, 1, 1}));
  layer.out_attrs_ = std::make_unique<Buf>(Buf::Float({1, 1, 1, 1}));
  float data[1] = {};
  void* buffers[] = {data, data};
  EXPECT_EQ(CaptureLog([&] { EXPECT_FALSE(layer.Execute(buffers, buffers)); }),
            (Log{Error(kFile, "can't calculate Matmul")}));
}

// --- Execute

TEST(Matmul, ExecuteRefusesInOrder) {
  OpenMatmul layer;
  void* none[] = {nullptr};
  const auto says = [&](void** in, void** out, const std::string& text) {
    EXPECT_EQ(CaptureLog([&] { EXPECT_FALSE(layer.Execute(in, out)); }), (Log{Error(kFile, text)}));
  };
  says(nullptr, nullptr, "Can't run Execute() without Configure()");
  layer.configured_ = true;
  says(nullptr, nullptr, "Input buffer is NULL");
  says(none, nullptr, "Output buffer is NULL");
  says(none, none, "first input buffer attrs are NULL");
  layer.in_attrs_ = std::make_unique<Buf>();
  says(none, none, "second input buffer attrs are NULL");
  layer.in2_attrs_ = std::make_unique<Buf>();
  says(none, none, "output buffer attrs are NULL");
  layer.out_attrs_ = std::make_unique<Buf>();
  says(none, none, "can't calculate Matmul");
}

std::vector<float> Product(const std::string& trans_b, const std::vector<std::vector<unsigned>>& shapes,
                           const std::vector<std::vector<float>>& data, const std::vector<unsigned>& out_dims,
                           Guard guard = Guard::kAfter) {
  Layer layer("MATMUL");
  std::vector<Buf> in;
  std::vector<GuardedBuffer> src;
  std::vector<void*> pointers;
  for (std::size_t i = 0; i < shapes.size(); ++i) {
    in.push_back(Buf::Float(shapes[i]));
    src.push_back(Guarded(data[i], guard));
    pointers.push_back(src[i].data());
  }
  const Buf out = Buf::Float(out_dims);
  EXPECT_TRUE(layer.Configure({{"trans_b", trans_b}}, in, {out}));
  const GuardedBuffer dst(out.size, guard);
  EXPECT_TRUE(layer.Execute(pointers, {dst.data()}));
  EXPECT_EQ(layer.log, Log{});
  for (std::size_t i = 0; i < src.size(); ++i) {
    EXPECT_EQ(src[i].Get(), Guarded(data[i]).Get()) << "input " << i << " was written";
  }
  return dst.Get<float>();
}

// --- Values

// A times B by the formula.
std::vector<float> Expected(const Buf& a_shape, const std::vector<float>& a, const Buf& b_shape,
                            const std::vector<float>& b) {
  vek_model::Memory out;
  vek_model::Memory a_data(a);
  vek_model::Memory b_data(b);
  vek_model::AB(out, a_data, vek_model::Shape(a_shape), b_data, vek_model::Shape(b_shape));
  return out.Get<float>();
}

TEST(Matmul, SmallProducts) {
  const std::vector<unsigned> dims = {1, 2, 1, 2};
  const std::vector<float> a = {1, 2, 3, 4};
  const std::vector<float> b = {5, 6, 7, 8};
  ExpectSameFloats(Product("1", {dims}, {a}, dims), {5, 11, 11, 25});
  ExpectSameFloats(Product("0", {dims}, {a}, dims), {7, 10, 15, 22});
  ExpectSameFloats(Product("true", {dims}, {a}, dims), {7, 10, 15, 22});
  for (const std::string trans_b : {"0", "1"}) {
    ExpectSameFloats(Product(trans_b, {dims, dims}, {a, b}, dims), {19, 22, 43, 50});
  }
}

TEST(Matmul, TwoInputsInOneBufferCountAsOne) {
  const Buf buf = Buf::Float({1, 2, 1, 2});
  const Buf other = Buf::Float({1, 1, 1, 1});  // its description is not used
  for (const bool transposed : {false, true}) {
    Layer layer("MATMUL");
    ASSERT_TRUE(layer.Configure({{"trans_b", transposed ? "1" : "0"}}, {buf, other}, {buf}));
    float a[4] = {1, 2, 3, 4};
    std::vector<float> out(4);
    ASSERT_TRUE(layer.Execute({a, a}, {out.data()}));
    ExpectSameFloats(out, transposed ? std::vector<float>{5, 11, 11, 25} : std::vector<float>{7, 10, 15, 22});
  }
}

TEST(Matmul, ProductsRoundToSingleAndSumsStayDouble) {
  // 0x1.000002p0 squared does not fit single precision; the sum of 2^24 and 1 does not either.
  const float x = 0x1.000002p0F;
  ExpectSameFloats(Product("0", {{1, 1, 1, 2}, {1, 2, 1, 1}}, {{x, 1}, {x, -1}}, {1, 1, 1, 1}),
                   {x * x - 1.0F});
  ExpectSameFloats(Product("0", {{1, 1, 1, 3}, {1, 3, 1, 1}}, {{0x1p24F, 1, 1}, {1, 1, 1}}, {1, 1, 1, 1}),
                   {0x1.000002p24F});
}

TEST(Matmul, SumsRunInIncreasingOrder) {
  // 2^54 + 1 - 2^54 is 0 from the left, and 1 in any order that meets the large ones first.
  ExpectSameFloats(
      Product("0", {{1, 1, 1, 3}, {1, 3, 1, 1}}, {{0x1p54F, 1, -0x1p54F}, {1, 1, 1}}, {1, 1, 1, 1}), {0});
  ExpectSameFloats(
      Product("0", {{1, 1, 1, 3}, {1, 3, 1, 1}}, {{0x1p54F, -0x1p54F, 1}, {1, 1, 1}}, {1, 1, 1, 1}), {1});
}

TEST(Matmul, SumsOfNothingAndOfMinusZerosAreZero) {
  ExpectSameFloats(Product("0", {{2, 3, 1, 0}, {2, 0, 2, 2}}, {{}, {}}, {2, 3, 1, 4}),
                   std::vector<float>(24, 0.0F));
  ExpectSameFloats(Product("1", {{2, 3, 0, 5}}, {{}}, {2, 3, 1, 3}), std::vector<float>(18, 0.0F));
  ExpectSameFloats(Product("0", {{1, 1, 1, 1}, {1, 1, 1, 1}}, {{-0.0F}, {1.0F}}, {1, 1, 1, 1}), {0.0F});
}

TEST(Matmul, EmptyProductsWriteNothing) {
  using Dims = std::vector<unsigned>;
  for (const auto& [a, b] : {std::pair<Dims, Dims>{{0, 3, 1, 2}, {0, 2, 1, 4}},
                             {{2, 0, 1, 2}, {2, 2, 1, 4}},
                             {{2, 3, 1, 2}, {2, 2, 0, 4}}}) {
    const Buf a_buf = Buf::Float(a);
    const Buf b_buf = Buf::Float(b);
    zeb_custom_ops::AB<float>(nullptr, nullptr, a_buf, nullptr, b_buf);
  }
  zeb_custom_ops::AAT<float>(nullptr, nullptr, Buf::Float({0, 3, 1, 2}));
  zeb_custom_ops::AAT<float>(nullptr, nullptr, Buf::Float({3, 0, 1, 2}));
}

TEST(Matmul, TheChannelsOfTheSecondInputAreOnlyTheStepBetweenItsItems) {
  // Three rows are read from items that lie two rows apart; the last item's third row lies behind it.
  const unsigned N = 2, M = 2, K = 3, C_b = 2, P = 5;
  Random random(5);
  const std::vector<float> a = RandomFloats(random, N * M * K);
  const std::vector<float> b = RandomFloats(random, ((N - 1) * C_b + K) * P);
  const GuardedBuffer src_a = Guarded(a);
  const GuardedBuffer src_b = Guarded(b);
  const GuardedBuffer dst(N * M * P * sizeof(float));
  const Buf a_shape = Buf::Float({N, M, 1, K});
  const Buf b_shape = Buf::Float({7, C_b, P, 1});
  zeb_custom_ops::AB(dst.as<float>(), src_a.as<float>(), a_shape, src_b.as<float>(), b_shape);
  ExpectSameFloats(dst.Get<float>(), Expected(a_shape, a, b_shape, b));
}

TEST(Matmul, PositionsWrapAtThirtyTwoBits) {
  // The second item of B lies 2^32 elements on: in 32 bits, where the first one lies. The third lies two
  // elements further with one channel more.
  const unsigned N = 3, M = 2, K = 3, P = 4;
  Random random(6);
  const std::vector<float> a = RandomFloats(random, N * M * K);
  for (const unsigned C_b : {0x40000000U, 0x40000001U, 0x80000000U}) {
    const std::vector<float> b = RandomFloats(random, std::size_t{K} * P + 2 * P);
    Buf b_shape = Buf::Float({1});
    b_shape.nchw = {1, C_b, 1, P};
    const GuardedBuffer src_a = Guarded(a);
    const GuardedBuffer src_b = Guarded(b);
    const GuardedBuffer dst(N * M * P * sizeof(float));
    const Buf a_shape = Buf::Float({N, M, 1, K});
    zeb_custom_ops::AB(dst.as<float>(), src_a.as<float>(), a_shape, src_b.as<float>(), b_shape);
    ExpectSameFloats(dst.Get<float>(), Expected(a_shape, a, b_shape, b), std::to_string(C_b));
  }
  // H * W is 1 in 32 bits.
  Buf row = Buf::Float({1});
  row.nchw = {1, 3, 0xAAAAAAABU, 3};
  const GuardedBuffer src = Guarded<float>({1, 2, 3});
  const GuardedBuffer dst(36);
  zeb_custom_ops::AAT(dst.as<float>(), src.as<float>(), row);
  ExpectSameFloats(dst.Get<float>(), {1, 2, 3, 2, 4, 6, 3, 6, 9});
}

TEST(Matmul, ShapesAreAskedForOncePerExecute) {
  Layer layer("MATMUL");
  const Buf a = Buf::Float({3, 4, 1, 5});
  const Buf b = Buf::Float({3, 5, 1, 6});
  const Buf out = Buf::Float({3, 4, 1, 6});
  ASSERT_TRUE(layer.Configure({{"trans_b", "0"}}, {a, b}, {out}));
  std::vector<float> a_data(60), b_data(90), out_data(72);
  Buf::ResetCalls();
  ASSERT_TRUE(layer.Execute({a_data.data(), b_data.data()}, {out_data.data()}));
  EXPECT_EQ(Buf::calls[kGetBatch], 1);
  EXPECT_EQ(Buf::calls[kGetChannels], 2);
  EXPECT_EQ(Buf::calls[kGetHeight], 2);
  EXPECT_EQ(Buf::calls[kGetWidth], 2);
}

// --- Shapes about the tiles and blocks.

void ExpectProduct(Random& random, unsigned N, unsigned M, unsigned K, unsigned P, Guard guard) {
  const std::vector<float> a = RandomFloats(random, std::size_t{N} * M * K);
  const std::vector<float> b = RandomFloats(random, std::size_t{N} * K * P);
  ExpectSameFloats(Product("0", {{N, M, 1, K}, {N, K, P, 1}}, {a, b}, {N, M, 1, P}, guard),
                   Expected(Buf::Float({N, M, 1, K}), a, Buf::Float({N, K, P, 1}), b),
                   testing::PrintToString(std::vector<unsigned>{N, M, K, P}));
}

void ExpectGram(Random& random, unsigned N, unsigned M, unsigned K, Guard guard) {
  const std::vector<float> a = RandomFloats(random, std::size_t{N} * M * K);
  vek_model::Memory a_data(a);
  vek_model::Memory want;
  vek_model::AAT(want, a_data, vek_model::Shape(N, M, K, 1));
  const std::vector<float> got = Product("1", {{N, M, K, 1}}, {a}, {N, M, 1, M}, guard);
  const std::string what = testing::PrintToString(std::vector<unsigned>{N, M, K});
  ExpectSameFloats(got, want.Get<float>(), what);
  for (unsigned n = 0; n < N; ++n) {  // even a NaN has the same bits on both sides of the diagonal
    for (unsigned i = 0; i < M; ++i) {
      for (unsigned j = 0; j < i; ++j) {
        const float* item = got.data() + std::size_t{n} * M * M;
        EXPECT_EQ(std::memcmp(&item[i * M + j], &item[j * M + i], sizeof(float)), 0) << what;
      }
    }
  }
}

TEST(Matmul, EveryRemainderOfTheTiles) {
  Random random(7);
  for (unsigned M = 1; M <= 9; ++M) {
    for (unsigned P = 1; P <= 40; ++P) ExpectProduct(random, 1, M, 5, P, Guard::kAfter);
  }
  for (unsigned M = 1; M <= 70; ++M) ExpectGram(random, 1, M, 7, Guard::kAfter);
  for (unsigned K = 0; K <= 40; ++K) {
    ExpectProduct(random, 1, 5, K, 17, Guard::kBefore);
    ExpectGram(random, 3, 5, K, Guard::kBefore);
  }
}

TEST(Matmul, LargerThanTheBlocks) {
  Random random(8);
  ExpectProduct(random, 1, 150, 700, 70, Guard::kAfter);
  ExpectProduct(random, 2, 1, 1100, 300, Guard::kBefore);
  ExpectProduct(random, 1, 3, 600, 515, Guard::kAfter);
  ExpectProduct(random, 1, 300, 515, 1, Guard::kBefore);
  ExpectGram(random, 1, 131, 900, Guard::kAfter);
}

TEST(Matmul, OneStepBehindTheLastWholeBlock) {
  Random random(9);
  for (unsigned M : {1U, 2U, 3U, 5U, 20U}) {
    for (unsigned P : {1U, 2U, 3U, 9U, 17U}) ExpectProduct(random, 1, M, 257, P, Guard::kAfter);
    ExpectGram(random, 1, M, 257, Guard::kAfter);
  }
}

}  // namespace
}  // namespace vek_test::matmul
