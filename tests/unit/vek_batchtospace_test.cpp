// Tests of layer type "BATCHTOSPACE".
#include "custom_ops/vek_batchtospace.h"

#include <gtest/gtest.h>

#include "reference/vek_batchtospace_ref.h"
#include "support/moving_layer.h"

namespace vek_test {
namespace {

constexpr const char* kFile = "vek_batchtospace.cpp";

// 12 x 3 x 4 x 3, blown up to 8 x 9 by blocks of 2 x 3, cropped to 5 x 6.
Setup Valid() {
  return {{{"block_shape", "[2,3]"}, {"crops", "[1,2,3,0]"}},
          {Buf::Int(16, {12, 3, 4, 3})},
          {Buf::Int(16, {2, 3, 5, 6})}};
}

// Runs 32-bit values through the layer.
std::vector<int> Outputs(const std::vector<unsigned>& in_dims, const std::vector<unsigned>& out_dims,
                         const std::string& block_shape, const std::string& crops,
                         const std::vector<int>& values) {
  const Buf out_attrs = Buf::Int(32, out_dims);
  Layer layer("BATCHTOSPACE");
  EXPECT_TRUE(layer.Configure({{"block_shape", block_shape}, {"crops", crops}}, {Buf::Int(32, in_dims)},
                              {out_attrs}));
  GuardedBuffer in = Guarded(values);
  GuardedBuffer out(out_attrs.size);
  EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
  EXPECT_EQ(layer.log, Log{});
  return out.Get<int>();
}

TEST(BatchToSpace, BlockOneWithoutCropsCopies) {
  EXPECT_EQ(Outputs({1, 2, 1, 3}, {1, 2, 1, 3}, "[1,1]", "[0,0,0,0]", {1, 2, 3, 4, 5, 6}),
            (std::vector{1, 2, 3, 4, 5, 6}));
}

TEST(BatchToSpace, FourItemsBecomeOneBlock) {
  EXPECT_EQ(Outputs({4, 1, 1, 1}, {1, 1, 2, 2}, "[2,2]", "[0,0,0,0]", {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(BatchToSpace, CropsLeaveOutTheFirstRow) {
  EXPECT_EQ(Outputs({2, 1, 2, 1}, {1, 1, 1, 2}, "[1,2]", "[1,0,0,0]", {0, 5, 0, 6}), (std::vector{5, 6}));
}

TEST(BatchToSpace, SurplusItemsAreNotRead) {
  EXPECT_EQ(Outputs({5, 1, 1, 1}, {1, 1, 2, 2}, "[2,2]", "[0,0,0,0]", {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(BatchToSpace, SurplusElementsOfTheListsAreIgnored) {
  EXPECT_EQ(Outputs({4, 1, 1, 1}, {1, 1, 2, 2}, "[[2,2]]\n", "[0,0,0,0,7]", {1, 2, 3, 4}),
            (std::vector{1, 2, 3, 4}));
}

TEST(BatchToSpace, RefusesInOrder) {
  const auto line = [](const std::string& text) { return Log{Error(kFile, text)}; };
  const auto set_attrs = [](const AttrMap& attrs) { return [=](auto& setup) { setup.attrs = attrs; }; };
  const auto set_attr = [](const std::string& key, const std::string& text) {
    return [=](auto& setup) { setup.attrs[key] = text; };
  };
  std::vector<Fault> faults = {
      {"two inputs", [](auto& setup) { setup.in.push_back(setup.in[0]); },
       line("wrong number of inputs, expected: 1, got: 2")},
      {"no output", [](auto& setup) { setup.out.clear(); },
       line("wrong number of outputs, expected: 1, got: 0")},
      {"no attribute", set_attrs({}), line("expected 2 attribute, but got 0"), "attrs"},
      {"one attribute", set_attrs({{"crops", "[1,2,3,0]"}}), line("expected 2 attribute, but got 1"),
       "attrs"},
      {"no block shape", set_attrs({{"blockshape", "[2,3]"}, {"crops", "[1,2,3,0]"}}),
       line("expected operation parameter: block_shape not found."), "attrs"},
      {"block shape too short a text", set_attr("block_shape", "23"),
       line("ERROR: Wrongly formated parameter string (too short)"), "attrs"},
      {"block shape without end", set_attr("block_shape", "[2,3"),
       line("ERROR: Wrongly formated parameter string for software operation"), "attrs"},
      {"block shape without elements", set_attr("block_shape", "[]]"),
       line("ERROR: block_shape should have 2 elements, but has 0"), "attrs"},
      {"no crops", set_attrs({{"block_shape", "[2,3]"}, {"paddings", "[1,2,3,0]"}}),
       line("expected operation parameter: crops not found."), "attrs"},
      {"crops without end", set_attr("crops", "1,2,3,0"),
       line("ERROR: Wrongly formated parameter string for software operation"), "crops"},
      {"crops of three elements", set_attr("crops", "[1,2,3]"),
       line("ERROR: crops should have 4 elements, but has 3"), "crops"},
      {"block height 0", set_attr("block_shape", "[0,3]"),
       line("block_shape parameter incorrect: 0 x 3, should be at least 1 x 1"), "crops"},
      {"block width 0", set_attr("block_shape", "[2,0]"),
       line("block_shape parameter incorrect: 2 x 0, should be at least 1 x 1"), "crops"},
      {"block of 2^32", set_attr("block_shape", "[65536,65536]"),
       line("block_shape parameter incorrect: 65536 x 65536, should be at least 1 x 1"), "crops"},
      {"batch", SpoilOut(SetDim(0, 3)), line("wrong output batch: 3, should be: 2")},
      {"channels", SpoilOut(SetDim(1, 4)), line("wrong output channels: 4, should be: 3")},
      {"width", SpoilOut(SetDim(3, 5)), line("wrong output width: 5, should be: 6")},
      {"height", SpoilOut(SetDim(2, 6)), line("wrong output height: 6, should be: 5")},
  };
  AddFormatFaults(faults, kFile, 864, 360);
  CheckOrderOfRefusals("BATCHTOSPACE", Valid(), faults);
}

TEST(BatchToSpace, CropsLargerThanTheBlownUpSizeWrap) {
  auto setup = Valid();
  setup.attrs["crops"] = "[0,0,5,5]";
  Layer layer("BATCHTOSPACE");
  EXPECT_FALSE(layer.Configure(setup.attrs, setup.in, setup.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "wrong output width: 6, should be: -1")}));
}

TEST(BatchToSpace, NegativeCropsThatCancelOutWriteNothing) {
  Random random(1);
  for (const std::string crops : {"[-1,1,0,0]", "[0,0,-1,1]"}) {
    Layer layer("BATCHTOSPACE");
    const Buf buf = Buf::Int(16, {1, 1, 2, 2});
    ASSERT_TRUE(layer.Configure({{"block_shape", "[1,1]"}, {"crops", crops}}, {buf}, {buf}));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

TEST(BatchToSpace, ExecuteRefusesInOrder) {
  Layer layer("BATCHTOSPACE");
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
struct Opened : zeb_custom_ops::VekBatchToSpace {
  using VekBatchToSpace::configured_;
  using VekBatchToSpace::in_attrs_;
  using VekBatchToSpace::out_attrs_;
};

TEST(BatchToSpace, ExecuteWithoutClonesIsRefused) {
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

TEST(BatchToSpace, ARefusedConfigureLeavesItsClonesAndLists) {
  Random random(1);
  Layer layer("BATCHTOSPACE");
  BatchToSpaceModel model;
  const auto configure = [&](const auto& setup) {
    const Log log = model.Configure(setup.attrs, setup.in, setup.out);
    EXPECT_EQ(layer.Configure(setup.attrs, setup.in, setup.out), log.empty());
    EXPECT_EQ(layer.log, log);
    CheckExecute(layer.get(), model.Execute(), random);
    return log.empty();
  };
  ASSERT_TRUE(configure(Valid()));
  auto refused = Valid();
  refused.attrs["crops"] = "[1,2]";  // the block shape is stored before, the crops stay
  refused.attrs["block_shape"] = "[3,2]";
  EXPECT_FALSE(configure(refused));
  refused = Valid();
  refused.in[0].size = 1;
  EXPECT_FALSE(configure(refused));
  refused.attrs = {};
  refused.out[0].dims = {1, 2, 3, 4};
  EXPECT_FALSE(configure(refused));
}

TEST(BatchToSpace, AKernelThatWouldDivideByZeroDoesNothing) {
  Layer layer("BATCHTOSPACE");
  const auto valid = Valid();
  ASSERT_TRUE(layer.Configure(valid.attrs, valid.in, valid.out));
  for (const std::string block_shape : {"[0,1]", "[1,0]"}) {
    EXPECT_FALSE(
        layer.Configure({{"block_shape", block_shape}, {"crops", "[0,0,0,0]"}}, valid.in, valid.out));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

TEST(BatchToSpace, ZeroExtentsWriteNothing) {
  for (std::size_t zero = 0; zero < 4; ++zero) {
    Buf buf = Buf::Int(8, {1, 1, 1, 1});
    buf.dims[zero] = 0;
    buf.Pad(0, 0);
    Layer layer("BATCHTOSPACE");
    ASSERT_TRUE(layer.Configure({{"block_shape", "[1,1]"}, {"crops", "[0,0,0,0]"}}, {buf}, {buf}));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

TEST(BatchToSpace, BlockOneMayRunInPlace) {
  const Buf buf = Buf::Int(16, {2, 3, 5, 7});
  Layer layer("BATCHTOSPACE");
  ASSERT_TRUE(layer.Configure({{"block_shape", "[1,1]"}, {"crops", "[0,0,0,0]"}}, {buf}, {buf}));
  Random random(3);
  GuardedBuffer data(buf.size);
  data.FillRandom(random);
  const std::vector<std::uint8_t> before = data.Get();
  EXPECT_TRUE(layer.Execute({data.data()}, {data.data()}));
  EXPECT_EQ(data.Get(), before);
}

TEST(BatchToSpace, ExecuteAsksForEachSizeOnce) {
  Layer layer("BATCHTOSPACE");
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
class BatchToSpaceKernel : public testing::Test {};
using Widths = testing::Types<int, short, char>;
TYPED_TEST_SUITE(BatchToSpaceKernel, Widths);

TYPED_TEST(BatchToSpaceKernel, EqualsTheFormula) {
  using T = TypeParam;
  Random random(4);
  for (unsigned block_width = 1; block_width <= 5; ++block_width) {
    const unsigned block_height = random.Between(1, 4);
    SCOPED_TRACE(Text("block ", block_height, " x ", block_width));
    ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
      const unsigned top = random.Between(0, H * block_height);
      const unsigned left = random.Between(0, std::min(7U, W * block_width));
      const Buf in = Buf::Int(8, {N * block_height * block_width, C, H, W});
      Buf out = Buf::Int(8, {N, C, random.Between(0, H * block_height - top), W * block_width - left});
      if (out.dims[3] > 0 && random.OneIn(2)) --out.dims[3];
      Outcome outcome;
      outcome.bitdepth = 8 * sizeof(T);
      BatchToSpaceMoves(outcome, block_height, block_width, top, left, Nchw(in), Nchw(out));
      CheckMoves(outcome, random, AnySide(random), [&](void* from, void* to) {
        zeb_custom_ops::VekBatchToSpace().batchtospace(in, out, static_cast<T*>(from), static_cast<T*>(to),
                                                       block_height, block_width, top, left);
        return true;
      });
    });
  }
}

TEST(BatchToSpace, PlanesLargerThanTheCacheHoldsEqualTheFormula) {
  Random random(5);
  const Buf in = Buf::Int(8, {4, 3, 101, 105});
  const Buf out = Buf::Int(8, {1, 3, 199, 205});
  Outcome outcome;
  outcome.bitdepth = 8;
  BatchToSpaceMoves(outcome, 2, 2, 1, 3, Nchw(in), Nchw(out));
  CheckMoves(outcome, random, Guard::kAfter, [&](void* from, void* to) {
    zeb_custom_ops::VekBatchToSpace().batchtospace(in, out, static_cast<char*>(from), static_cast<char*>(to),
                                                   2, 2, 1, 3);
    return true;
  });
}

Setup Generate(Random& random) {
  const unsigned block_height = random.Between(1, 4);
  const unsigned block_width = random.Between(1, 4);
  std::vector<unsigned> dims = {random.Between(0, 3), random.Extent(), random.Extent(), random.Extent()};
  Shrink(dims, random.OneIn(10) ? 2000 : 200);
  unsigned H = dims[2] * block_height;
  unsigned W = dims[3] * block_width;
  // Top, bottom, left, right.
  std::vector<std::int64_t> crops = {0, 0, 0, 0};
  for (std::size_t i = 0; i < 4; ++i) {
    unsigned& left_over = i < 2 ? H : W;
    const unsigned crop = random.OneIn(2) ? 0 : random.Between(0, std::min(5U, left_over));
    left_over -= crop;
    crops[i] = crop;
  }
  const Format format = RandomFormat(random);
  const unsigned surplus = random.OneIn(3) ? random.Between(0, block_height * block_width - 1) : 0;
  return MaybeSpoilt(
      random,
      {{{"block_shape", ListText(random, {block_height, block_width})}, {"crops", ListText(random, crops)}},
       {Buf::Packed({dims[0] * block_height * block_width + surplus, dims[1], dims[2], dims[3]}, format)},
       {Buf::Packed({dims[0], dims[1], H, W}, format)}});
}

TEST(BatchToSpace, RandomCallsEqualTheReference) {
  ForRandomCases(
      500, [](Random& random) { RunAgainstModel<BatchToSpaceModel>("BATCHTOSPACE", random, Generate); });
}

}  // namespace
}  // namespace vek_test
