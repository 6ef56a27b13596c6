// What the four layers that move blocks have in common: DEPTHTOSPACE, SPACETODEPTH, SPACETOBATCH, BATCHTOSPACE.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>

#include "cases/setups.h"
#include "custom_ops/vek_batchtospace.h"
#include "custom_ops/vek_spacetobatch.h"
#include "support/formula_check.h"
#include "support/refusals.h"

namespace vek_test::block_layers {
namespace {

// A Configure, what it says, and, where it is given, how many elements the Execute after it reads.
struct Step {
  Setup setup;
  Log log = {};
  unsigned elements_read = 0;
};

struct BlockLayer {
  std::string type;
  std::string file;
  std::string not_configured, no_inputs, no_outputs;  // what Execute says
  Setup valid;                                        // of 16-bit elements
  AttrMap ones;                                       // blocks of one element, and nothing around them
  Setup small;                                        // accepted, also when an extent of both sides is 0
  std::vector<Fault> attr_faults = {};
  std::vector<Step> steps = {};
  std::vector<Setup> dividing_by_zero = {};  // refused, and then the kernel has nothing to do

  friend std::ostream& operator<<(std::ostream& out, const BlockLayer& layer) { return out << layer.type; }
};

// --- The layers.

using Spoil = std::function<void(Setup&)>;
Spoil SetAttrs(const AttrMap& attrs) {
  return [=](Setup& setup) { setup.attrs = attrs; };
}
Spoil SetAttr(const std::string& key, const std::string& text) {
  return [=](Setup& setup) { setup.attrs[key] = text; };
}
Spoil SetInDim(std::size_t i, unsigned value) {
  return [=](Setup& setup) { setup.in[0].dims[i] = value; };
}

Setup DepthToSpaceSetup(unsigned b, unsigned N, unsigned C_out, unsigned H, unsigned W) {
  return {{{"block_size", std::to_string(b)}},
          {Buf::Int(16, {N, C_out * b * b, H, W})},
          {Buf::Int(16, {N, C_out, H * b, W * b})}};
}

Setup With(Setup setup, const Spoil& change) {
  change(setup);
  return setup;
}
Setup Inverse(Setup setup) {
  std::swap(setup.in, setup.out);
  return setup;
}

// The attribute "block_size".
std::vector<Fault> BlockSizeFaults(const std::string& file) {
  const auto line = [&](const std::string& text) { return Log{Error(file, text)}; };
  return {
      {"two attributes", SetAttr("more", "1"), line("expecting exactly one attribute, got: 2"), "count"},
      {"no attribute", SetAttrs({}), line("expecting exactly one attribute, got: 0"), "count"},
      {"another key", SetAttrs({{"Block_size", "2"}}),
       line("expected operation parameter: block_size not found."), "count"},
      {"a longer key", SetAttrs({{"block_size ", "2"}}),
       line("expected operation parameter: block_size not found."), "count"},
      {"block size 0", SetAttr("block_size", "0"), line("block_size parameter incorrect: 0"), "size"},
      {"block size x", SetAttr("block_size", "x"), line("block_size parameter incorrect: 0"), "size"},
      {"block size -2", SetAttr("block_size", "-2"), line("block_size parameter incorrect: -2"), "size"},
  };
}

// The lists "block_shape" and `margins`, of 2 and 4 numbers.
std::vector<Fault> ListFaults(const std::string& file, const std::string& margins) {
  const auto line = [&](const std::string& text) { return Log{Error(file, text)}; };
  const std::string open = "ERROR: Wrongly formated parameter string for software operation";
  const std::string too_short = "ERROR: Wrongly formated parameter string (too short)";
  const std::string block = "block_shape";
  return {
      {"no attribute", SetAttrs({}), line("expected 2 attribute, but got 0"), "attrs"},
      {"only a block shape", SetAttrs({{block, "[2,3]"}}), line("expected 2 attribute, but got 1"), "attrs"},
      {"no block shape at all", SetAttrs({{margins, "[1,2,3,0]"}}), line("expected 2 attribute, but got 1"),
       "attrs"},
      {"three attributes", SetAttr("more", ""), line("expected 2 attribute, but got 3"), "attrs"},
      {"no block shape", SetAttrs({{"blockshape", "[2,3]"}, {margins, "[1,2,3,0]"}}),
       line("expected operation parameter: block_shape not found."), "attrs"},
      {"block shape [], too short", SetAttr(block, "[]"), line(too_short), "attrs"},
      {"block shape 23, too short", SetAttr(block, "23"), line(too_short), "attrs"},
      {"block shape without end", SetAttr(block, "[2,3"), line(open), "attrs"},
      {"block shape without elements", SetAttr(block, "[]]"),
       line("ERROR: block_shape should have 2 elements, but has 0"), "attrs"},
      {"block shape of one element", SetAttr(block, "[2]"),
       line("ERROR: block_shape should have 2 elements, but has 1"), "attrs"},
      {"no margins", SetAttrs({{block, "[2,3]"}, {"margins", "[1,2,3,0]"}}),
       line("expected operation parameter: " + margins + " not found."), "attrs"},
      {"margins without end", SetAttr(margins, "1,2,3,0"), line(open), "margins"},
      {"margins of three elements", SetAttr(margins, "[1,2,3]"),
       line("ERROR: " + margins + " should have 4 elements, but has 3"), "margins"},
  };
}

std::vector<Fault> operator+(std::vector<Fault> faults, const std::vector<Fault>& more) {
  faults.insert(faults.end(), more.begin(), more.end());
  return faults;
}

BlockLayer DepthToSpace() {
  const std::string file = "vek_depthtospace.cpp";
  const auto line = [&](const std::string& text) { return Log{Error(file, text)}; };
  const std::string not_divided = ", number of channels should be divisible by block_size*block_size";
  const Setup first = DepthToSpaceSetup(1, 1, 2, 2, 2);
  const Setup one = DepthToSpaceSetup(1, 1, 1, 1, 1);
  return {
      .type = "DEPTHTOSPACE",
      .file = file,
      .not_configured = "custom layer not configured.",
      .no_inputs = "in_buffers is NULL.",
      .no_outputs = "out_buffers is NULL.",
      .valid = DepthToSpaceSetup(2, 2, 3, 4, 5),
      .ones = {{"block_size", "1"}},
      .small = DepthToSpaceSetup(2, 1, 1, 1, 1),
      .attr_faults =
          BlockSizeFaults(file) +
          std::vector<Fault>{
              {"a block whose square is 0 in 32 bits", SetAttr("block_size", "65536"),
               line("block_size parameter incorrect: 65536" + not_divided), "size"},
              {"six channels", SetInDim(1, 6), line("block_size parameter incorrect: 2" + not_divided)}},
      .steps = {{first},
                {With(DepthToSpaceSetup(2, 1, 1, 3, 3), [](Setup& s) { s.out[0].size = 0; }),
                 line("output buffer size too small, size: 0 bytes vs expected at least: 72 bytes."), 36},
                {With(first, SetAttrs({})), line("expecting exactly one attribute, got: 0")}},
      .dividing_by_zero = {With(one, SetAttr("block_size", "0")), With(one, SetAttr("block_size", "65536")),
                           With(one, [](Setup& s) { s.out[0].dims[1] = 0; })},
  };
}

BlockLayer SpaceToDepth() {
  const std::string file = "vek_spacetodepth.cpp";
  const auto line = [&](const std::string& text) { return Log{Error(file, text)}; };
  const auto setup = [](unsigned b, unsigned N, unsigned C, unsigned H_out, unsigned W_out) {
    return Inverse(DepthToSpaceSetup(b, N, C, H_out, W_out));
  };
  const auto not_divided = [&](const std::string& extent) {
    return line("block_size parameter incorrect: 2, number of " + extent +
                " should be divisible by block_size");
  };
  return {
      .type = "SPACETODEPTH",
      .file = file,
      .not_configured = "custom layer not configured.",
      .no_inputs = "in_buffers is NULL.",
      .no_outputs = "out_buffers is NULL.",
      .valid = setup(2, 2, 3, 4, 5),
      .ones = {{"block_size", "1"}},
      .small = setup(2, 1, 1, 1, 1),
      .attr_faults =
          BlockSizeFaults(file) + std::vector<Fault>{{"odd width", SetInDim(3, 5), not_divided("width 5")},
                                                     {"odd height", SetInDim(2, 7), not_divided("height 7")}},
      // In the end the block size does not divide the extents.
      .steps = {{setup(1, 1, 2, 2, 2)},
                {With(setup(2, 1, 1, 3, 3), [](Setup& s) { s.out[0].size = 0; }),
                 line("output buffer size too small, size: 0 bytes vs expected at least: 72 bytes."), 36},
                {With(setup(1, 1, 2, 3, 3), SetAttrs({})), line("expecting exactly one attribute, got: 0")}},
      .dividing_by_zero = {With(setup(1, 1, 1, 1, 1), SetAttr("block_size", "0"))},
  };
}

BlockLayer SpaceToBatch() {
  const std::string file = "vek_spacetobatch.cpp";
  const auto line = [&](const std::string& text) { return Log{Error(file, text)}; };
  const auto height = [&](const std::string& block) {
    return line("block_height_ parameter incorrect: " + block +
                ", number of (height+pad_top_+pad_bot_) (5 + 1 + 2 ) should be divisible by block_height_");
  };
  const auto width = [&](const std::string& block) {
    return line("block_width_ parameter incorrect: " + block +
                ", number of (width+pad_left+pad_right) (6 + 3 + 0) should be divisible by block_width_");
  };
  const std::string block = "block_shape";
  // 2 x 3 x 5 x 6, padded to 8 x 9, in blocks of 2 x 3.
  const Setup valid = {{{block, "[2,3]"}, {"paddings", "[1,2,3,0]"}},
                       {Buf::Int(16, {2, 3, 5, 6})},
                       {Buf::Int(16, {12, 3, 4, 3})}};
  const AttrMap ones = {{block, "[1,1]"}, {"paddings", "[0,0,0,0]"}};
  const Buf one = Buf::Int(8, {1, 1, 1, 1});
  return {
      .type = "SPACETOBATCH",
      .file = file,
      .not_configured = "Can't run Execute() without Configure()",
      .no_inputs = "Input buffer is NULL",
      .no_outputs = "Output buffer is NULL",
      .valid = valid,
      .ones = ones,
      .small = {ones, {one}, {one}},
      .attr_faults = ListFaults(file, "paddings") +
                     std::vector<Fault>{{"block height 3", SetAttr(block, "[3,3]"), height("3"), "margins"},
                                        {"block height 0", SetAttr(block, "[0,3]"), height("0"), "margins"},
                                        {"block width 4", SetAttr(block, "[2,4]"), width("4"), "margins"},
                                        {"block width 0", SetAttr(block, "[2,0]"), width("0"), "margins"}},
      // The first refused block shape is stored, the paddings stay.
      .steps = {{valid},
                {With(valid, SetAttrs({{block, "[3,2]"}, {"paddings", "[1,2]"}})),
                 line("ERROR: paddings should have 4 elements, but has 2")},
                {With(valid, [](Setup& s) { s.out[0].size = 1; }),
                 line("output buffer size too small, size: 1 bytes vs expected at least: 864 bytes.")},
                {With(valid,
                      [](Setup& s) {
                        s.attrs = {};
                        s.in[0].dims = {1, 2, 3, 4};
                      }),
                 line("expected 2 attribute, but got 0")}},
      .dividing_by_zero = {With(valid, SetAttrs({{block, "[1,0]"}, {"paddings", "[0,0,0,0]"}})),
                           With(valid, SetInDim(0, 0))},
  };
}

BlockLayer BatchToSpace() {
  const std::string file = "vek_batchtospace.cpp";
  const auto line = [&](const std::string& text) { return Log{Error(file, text)}; };
  const auto too_small = [&](const std::string& shape) {
    return line("block_shape parameter incorrect: " + shape + ", should be at least 1 x 1");
  };
  const std::string block = "block_shape";
  // 12 x 3 x 4 x 3, blown up to 8 x 9 by blocks of 2 x 3, cropped to 5 x 6.
  const Setup valid = {{{block, "[2,3]"}, {"crops", "[1,2,3,0]"}},
                       {Buf::Int(16, {12, 3, 4, 3})},
                       {Buf::Int(16, {2, 3, 5, 6})}};
  const AttrMap ones = {{block, "[1,1]"}, {"crops", "[0,0,0,0]"}};
  const Buf one = Buf::Int(8, {1, 1, 1, 1});
  return {
      .type = "BATCHTOSPACE",
      .file = file,
      .not_configured = "Can't run Execute() without Configure()",
      .no_inputs = "Input buffer is NULL",
      .no_outputs = "Output buffer is NULL",
      .valid = valid,
      .ones = ones,
      .small = {ones, {one}, {one}},
      .attr_faults =
          ListFaults(file, "crops") +
          std::vector<Fault>{
              {"block height 0", SetAttr(block, "[0,3]"), too_small("0 x 3"), "margins"},
              {"block width 0", SetAttr(block, "[2,0]"), too_small("2 x 0"), "margins"},
              {"block of 2^32", SetAttr(block, "[65536,65536]"), too_small("65536 x 65536"), "margins"}},
      // The first refused block shape is stored, the crops stay.
      .steps = {{valid},
                {With(valid, SetAttrs({{block, "[3,2]"}, {"crops", "[1,2]"}})),
                 line("ERROR: crops should have 4 elements, but has 2")},
                {With(valid, [](Setup& s) { s.in[0].size = 1; }),
                 line("input buffer size too small, size: 1 bytes vs expected at least: 864 bytes.")},
                {With(valid,
                      [](Setup& s) {
                        s.attrs = {};
                        s.out[0].dims = {1, 2, 3, 4};
                      }),
                 line("expected 2 attribute, but got 0")}},
      .dividing_by_zero = {With(valid, SetAttrs({{block, "[0,1]"}, {"crops", "[0,0,0,0]"}})),
                           With(valid, SetAttrs({{block, "[1,0]"}, {"crops", "[0,0,0,0]"}}))},
  };
}

// The faults of a layer in the order of its checks: how many buffers, the attributes, the shape of the output, formats,
// layouts, sizes.
std::vector<Fault> FaultsOf(const BlockLayer& layer) {
  const Setup& valid = layer.valid;
  const auto line = [&](const std::string& text) { return Log{Error(layer.file, text)}; };
  std::vector<Fault> faults = {
      {"no input", [](Setup& s) { s.in.clear(); }, line("wrong number of inputs, expected: 1, got: 0"), "in"},
      {"two inputs", [](Setup& s) { s.in.push_back(s.in[0]); },
       line("wrong number of inputs, expected: 1, got: 2"), "in"},
      {"no output", [](Setup& s) { s.out.clear(); }, line("wrong number of outputs, expected: 1, got: 0"),
       "out"},
      {"two outputs", [](Setup& s) { s.out.push_back(s.out[0]); },
       line("wrong number of outputs, expected: 1, got: 2"), "out"},
  };
  faults = faults + layer.attr_faults;

  for (const auto& [name, i] : {std::pair("batch", 0U), {"channels", 1U}, {"width", 3U}, {"height", 2U}}) {
    const unsigned expected = valid.out[0].dims[i];
    for (const unsigned wrong : {expected - 1, expected + 1}) {
      faults.push_back({std::string(name) + " " + std::to_string(wrong),
                        [axis = i, wrong](Setup& s) { s.out[0].dims[axis] = wrong; },
                        line("wrong output " + std::string(name) + ": " + std::to_string(wrong) +
                             ", should be: " + std::to_string(expected)),
                        name});
    }
  }

  const std::string pack = "expected interleaving: 1, instead got interleaving on input: ";
  const std::string stride = "buffer with stride detected on input or output, which is not supported.";
  const auto too_small = [&](const std::string& side, unsigned bytes) {
    return line(side + " buffer size too small, size: " + std::to_string(bytes - 1) +
                " bytes vs expected at least: " + std::to_string(bytes) + " bytes.");
  };
  return faults +
         std::vector<Fault>{
             {"bit depths", [](Setup& s) { s.out[0].format.bitdepth = 8; },
              line("input bitdepth: 16, differs from output bitdepth: 8")},
             {"input interleaved", [](Setup& s) { s.in[0].format.plane_pack = 4; },
              line(pack + "4, on output: 1"), "pack"},
             {"output interleaved", [](Setup& s) { s.out[0].format.plane_pack = 0; },
              line(pack + "1, on output: 0"), "pack"},
             {"input padded", [](Setup& s) { s.in[0].strided = true; }, line(stride)},
             {"output padded", [](Setup& s) { s.out[0].strided = true; }, line(stride)},
             {"input short", [](Setup& s) { --s.in[0].size; }, too_small("input", valid.in[0].size)},
             {"output short", [](Setup& s) { --s.out[0].size; }, too_small("output", valid.out[0].size)},
         };
}

class BlockLayers : public testing::TestWithParam<BlockLayer> {
 protected:
  const BlockLayer& tested() const { return GetParam(); }
  Log Line(const std::string& text) const { return {Error(tested().file, text)}; }
};

INSTANTIATE_TEST_SUITE_P(All, BlockLayers,
                         testing::Values(DepthToSpace(), SpaceToDepth(), SpaceToBatch(), BatchToSpace()),
                         [](const auto& test) { return test.param.type; });

// --- Configure

TEST_P(BlockLayers, RefuseInOrder) {
  CheckOrderOfRefusals(tested().type, tested().valid, FaultsOf(tested()));
}

TEST_P(BlockLayers, CountSizesOfFloatsAsFourBytesAndOthersRoundedUp) {
  Layer layer(tested().type);
  Buf in = Buf::Int(12, {1, 5, 1, 1});
  Buf out = in;
  in.size = out.size = 8;  // (12 * 5 + 7) / 8
  EXPECT_TRUE(layer.Configure(tested().ones, {in}, {out}));
  out.size = 7;
  EXPECT_FALSE(layer.Configure(tested().ones, {in}, {out}));
  EXPECT_EQ(layer.log, Line("output buffer size too small, size: 7 bytes vs expected at least: 8 bytes."));
  in.format.float_ = true;
  EXPECT_FALSE(layer.Configure(tested().ones, {in}, {out}));
  EXPECT_EQ(layer.log, Line("input buffer size too small, size: 8 bytes vs expected at least: 20 bytes."));
}

// --- State

TEST_P(BlockLayers, ARefusedConfigureLeavesItsClonesAndAttributes) {
  Random random(1);
  ModelledLayer layer(tested().type);
  for (const Step& step : tested().steps) {
    layer.Configure(step.setup, step.log);
    const Touched touched = layer.Execute(random);
    EXPECT_GT(touched.out, 0U);
    if (step.elements_read != 0) {
      EXPECT_EQ(touched.in, step.elements_read * sizeof(short));
    }
  }
}

TEST_P(BlockLayers, DoNothingWhereTheKernelWouldDivideByZero) {
  Layer layer(tested().type);
  ASSERT_TRUE(layer.Configure(tested().valid.attrs, tested().valid.in, tested().valid.out));
  for (const auto& setup : tested().dividing_by_zero) {
    EXPECT_FALSE(layer.Configure(setup.attrs, setup.in, setup.out));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

// --- Execute

TEST_P(BlockLayers, ExecuteRefusesInOrder) {
  Layer layer(tested().type);
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, Line(tested().not_configured));
  auto setup = tested().valid;
  for (Buf* buf : {&setup.in[0], &setup.out[0]}) {
    *buf = Buf::Int(12, buf->dims);
    buf->size = 1000;
  }
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  void* none[] = {nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, Line(tested().no_inputs));
  EXPECT_FALSE(layer.ExecuteRaw(none, nullptr));
  EXPECT_EQ(layer.log, Line(tested().no_outputs));
  EXPECT_FALSE(layer.ExecuteRaw(none, none));
  EXPECT_EQ(layer.log, Line("not supported bitdepth: 12."));
}

// Reaches the states that no host can bring about.
template <typename Base>
struct Opened : Base {
  using Base::configured_;
  using Base::in_attrs_;
  using Base::out_attrs_;
};

template <typename Base>
void ExpectRefusesWithoutClones(const std::string& file) {
  Opened<Base> layer;
  layer.configured_ = true;
  void* none[] = {nullptr};
  const auto run = [&] { EXPECT_FALSE(layer.Execute(none, none)); };
  EXPECT_EQ(CaptureLog(run), (Log{Error(file, "input buffer attrs are NULL")}));
  layer.in_attrs_ = std::make_unique<Buf>();
  EXPECT_EQ(CaptureLog(run), (Log{Error(file, "output buffer attrs are NULL")}));
}

TEST(BatchLayers, RefuseToExecuteWithoutClones) {
  ExpectRefusesWithoutClones<zeb_custom_ops::VekSpaceToBatch>("vek_spacetobatch.cpp");
  ExpectRefusesWithoutClones<zeb_custom_ops::VekBatchToSpace>("vek_batchtospace.cpp");
}

TEST_P(BlockLayers, AskForEachSizeOnce) {
  Layer layer(tested().type);
  const auto& setup = tested().valid;
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  const GuardedBuffer in(setup.in[0].size);
  const GuardedBuffer out(setup.out[0].size);
  Buf::ResetCalls();
  ASSERT_TRUE(layer.Execute({in.data()}, {out.data()}));
  for (Slot slot : {kGetBatch, kGetChannels, kGetHeight, kGetWidth, kGetMemFormat}) {
    EXPECT_LE(Buf::calls[slot], 2) << slot;
  }
  EXPECT_EQ(Buf::calls[kGetDims], 0);
  EXPECT_EQ(Buf::calls[kClone], 0);
}

// --- Values

TEST_P(BlockLayers, OfOneElementCopy) {
  const Buf buf = Buf::Int(32, {1, 2, 1, 3});
  EXPECT_EQ(Outputs<int>(tested().type, tested().ones, buf, buf, {1, 2, 3, 4, 5, 6}),
            (std::vector{1, 2, 3, 4, 5, 6}));
}

TEST_P(BlockLayers, OfOneElementMayRunInPlace) {
  const Buf buf = Buf::Int(16, {2, 3, 5, 7});
  Layer layer(tested().type);
  ASSERT_TRUE(layer.Configure(tested().ones, {buf}, {buf}));
  Random random(3);
  GuardedBuffer data(buf.size);
  data.FillRandom(random);
  const std::vector<std::uint8_t> before = data.Get();
  EXPECT_TRUE(layer.Execute({data.data()}, {data.data()}));
  EXPECT_EQ(data.Get(), before);
}

TEST_P(BlockLayers, WriteNothingWhereAnExtentIsZero) {
  for (std::size_t zero = 0; zero < 4; ++zero) {
    auto setup = tested().small;
    for (Buf* buf : {&setup.in[0], &setup.out[0]}) {
      buf->dims[zero] = 0;
      buf->Pad(0, 0);
    }
    Layer layer(tested().type);
    ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

TEST(InverseLayers, RestoreTheBytes) {
  ForRandomCases(300, [](Random& random) {
    const bool batch = random.OneIn(2);
    const auto setup = vek_cases::ValidSetup(batch ? "SPACETOBATCH" : "DEPTHTOSPACE", random);
    Layer there(batch ? "SPACETOBATCH" : "DEPTHTOSPACE");
    ASSERT_TRUE(there.Configure(setup.attrs, setup.in, setup.out));
    GuardedBuffer original(setup.in[0].size);
    const GuardedBuffer between(setup.out[0].size);
    const GuardedBuffer back(setup.in[0].size);
    original.FillRandom(random);
    ASSERT_TRUE(there.Execute({original.data()}, {between.data()}));
    AttrMap attrs = setup.attrs;
    if (batch) attrs = {{"block_shape", attrs["block_shape"]}, {"crops", attrs["paddings"]}};
    Layer again(batch ? "BATCHTOSPACE" : "SPACETODEPTH");
    ASSERT_TRUE(again.Configure(attrs, setup.out, setup.in));
    ASSERT_TRUE(again.Execute({between.data()}, {back.data()}));
    EXPECT_EQ(back.Get(), original.Get());
  });
}

}  // namespace
}  // namespace vek_test::block_layers
