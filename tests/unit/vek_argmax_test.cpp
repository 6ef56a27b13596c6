// ARGMAX: refusals in their order, state, the kernel against its formula.
#include "custom_ops/vek_argmax.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "model/vek_argmax.h"
#include "support/floats.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"
#include "support/refusals.h"

namespace vek_test::argmax {
namespace {

using vek_model::ArgmaxSettings;
using zeb_custom_ops::VekArgmax;

const char kFile[] = "vek_argmax.cpp";
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Reaches the mode that no attribute sets.
class OpenArgmax : public VekArgmax {
 public:
  using VekArgmax::axis_;
  using VekArgmax::configured_;
  using VekArgmax::has_axis_;
  using VekArgmax::in_attrs_;
  using VekArgmax::out_attrs_;
  using VekArgmax::out_max_val_;
  using VekArgmax::top_k_;

  void Set(const ArgmaxSettings& settings) {
    axis_ = settings.axis;
    has_axis_ = settings.has_axis;
    top_k_ = settings.top_k;
    out_max_val_ = settings.out_max_val;
  }
};

Setup Valid() { return {{{"axis", "1"}}, {Buf::Float({1, 4, 2, 3})}, {Buf::Float({1, 1, 2, 3})}}; }

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
      // No record follows a refused format.
      {"16-bit input",
       [](Setup& s) { s.in[0].format = Buf::Planar(16, false); },
       {Error(kFile, in_format)},
       "input format"},
      {"integer input",
       [](Setup& s) { s.in[0].format = Buf::Planar(32, false); },
       {Error(kFile, in_format)},
       "input format"},
      {"interleaved input",
       [](Setup& s) { s.in[0].format = Buf::Planar(32, true, 4); },
       {Error(kFile, in_format)},
       "input format"},
      {"8-bit output",
       [](Setup& s) { s.out[0].format = Buf::Planar(8, false); },
       {Error(kFile, out_format)},
       "output format"},
      {"interleaved output",
       [](Setup& s) { s.out[0].format = Buf::Planar(32, true, 2); },
       {Error(kFile, out_format)},
       "output format"},
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
       [](Setup& s) { s.out[0].size = 23; },
       {Error(kFile, "output buffer size too small, size: 23 bytes vs expected at least: 24 bytes.")}},
      {"no attribute",
       [](Setup& s) { s.attrs.clear(); },
       {Error(kFile, "expecting exactly one attribute, got: 0")},
       "attributes"},
      {"two attributes",
       [](Setup& s) {
         s.attrs = {{"axis", "1"}, {"top_k", "1"}};
       },
       {Error(kFile, "expecting exactly one attribute, got: 2")},
       "attributes"},
      {"axis 4",
       [](Setup& s) {
         s.attrs = {{"axis", "4"}};
       },
       {Error(kFile, "There are 4 dims, but axis is set to 4")},
       "attributes"},
      {"axis -1",
       [](Setup& s) {
         s.attrs = {{"axis", "-1"}};
       },
       {Error(kFile, "There are 4 dims, but axis is set to -1")},
       "attributes"},
  };
}

TEST(Argmax, RefusesInOrder) { CheckOrderOfRefusals("ARGMAX", Valid(), Faults()); }

TEST(Argmax, SizesAreComparedInSixtyFourBits) {
  Layer layer("ARGMAX");
  auto s = Valid();
  s.out[0].dims = {65536, 65536, 1, 1};  // 2^34 bytes
  s.out[0].strided = false;
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile,
                                  "output buffer size too small, size: 24 bytes vs expected at least: "
                                  "17179869184 bytes.")}));
}

TEST(Argmax, ASilencedRefusalAsksForNothingThatOnlyItsTextNeeds) {
  const ScopedThreshold threshold(kNone);
  Layer layer("ARGMAX");
  auto s = Valid();
  s.in[0].size = 95;
  Buf::ResetCalls();
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
  EXPECT_EQ(Buf::calls[kGetSize], 1);
}

TEST(Argmax, EachConfigureSetsOneAttributeAndKeepsTheOthers) {
  const auto s = Valid();
  const BufAttrsList in = MakeList(s.in);
  const BufAttrsList out = MakeList(s.out);
  OpenArgmax layer;
  EXPECT_FALSE(layer.configured_);
  EXPECT_TRUE(layer.has_axis_);
  const auto expect = [&](const AttrMap& attrs, int axis, unsigned top_k, bool out_max_val) {
    ASSERT_TRUE(layer.Configure(attrs, in, out));
    EXPECT_EQ(layer.axis_, axis);
    EXPECT_EQ(layer.top_k_, top_k);
    EXPECT_EQ(layer.out_max_val_, out_max_val);
  };
  expect({{"an unknown one", "5"}}, 0, 1, false);
  expect({{"top_k", "2"}}, 0, 2, false);
  expect({{"axis", " 3x"}}, 3, 2, false);
  expect({{"out_max_val", "1"}}, 3, 2, true);
  for (const char* text : {"2", "true", "", "-1", "0", "4294967297"}) {
    expect({{"out_max_val", "1"}}, 3, 2, true);
    expect({{"out_max_val", text}}, 3, 2, false);
  }
  expect({{"top_k", "-1"}}, 3, 0xFFFFFFFF, false);
  expect({{"top_k", "4294967297"}}, 3, 1, false);
  expect({{"axis", "4294967298"}}, 2, 1, false);
  expect({{"axis", "C"}}, 0, 1, false);
}

TEST(Argmax, AxisAndClonesAreStoredBeforeTheChecksThatRefuseThem) {
  const ExpectNoLeakedClones no_leaks;
  const BufAttrsList small = MakeList({Buf::Float({1, 1, 1, 2})});
  OpenArgmax layer;
  const auto configure = [&](const AttrMap& attrs) {
    return CaptureLog([&] { EXPECT_FALSE(layer.Configure(attrs, small, small)); });
  };
  EXPECT_EQ(configure({}), (Log{Error(kFile, "expecting exactly one attribute, got: 0")}));
  EXPECT_NE(layer.in_attrs_, nullptr);
  EXPECT_NE(layer.out_attrs_, nullptr);
  configure({{"axis", "7"}});
  EXPECT_EQ(layer.axis_, 7);
  // The next call sets another attribute and stumbles over the stored axis.
  EXPECT_EQ(configure({{"top_k", "2"}}), (Log{Error(kFile, "There are 4 dims, but axis is set to 7")}));
  EXPECT_EQ(layer.top_k_, 2U);
  EXPECT_FALSE(layer.configured_);
}

TEST(Argmax, ARejectedAxisFailsInTheKernelOfALayerThatStaysConfigured) {
  Layer layer("ARGMAX");
  const std::vector<Buf> bufs = {Buf::Float({1, 1, 1, 2})};
  ASSERT_TRUE(layer.Configure({{"axis", "3"}}, bufs, bufs));
  ASSERT_FALSE(layer.Configure({{"axis", "4"}}, bufs, bufs));
  float data[2] = {1, 2};
  float out[2] = {};
  EXPECT_FALSE(layer.Execute({data}, {out}));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Argmax_v1 wrong argmax axis parameter.")}));
}

TEST(Argmax, ClonesAreReplacedAndReleased) {
  const ExpectNoLeakedClones no_leaks;
  OpenArgmax layer;
  const long before = Buf::alive;
  for (int i = 0; i < 3; ++i) {
    const BufAttrsList bufs = MakeList({Buf::Float({1, 1, 1, 2})});
    ASSERT_TRUE(layer.Configure({{"axis", "0"}}, bufs, bufs));
  }
  EXPECT_EQ(Buf::alive - before, 2);
}

// --- Execute

TEST(Argmax, ExecuteRefusesInOrder) {
  Layer layer("ARGMAX");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Argmax custom layer not configured.")}));
  const auto s = Valid();
  ASSERT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "in_buffers is NULL.")}));
  float data[24] = {};
  float out[6] = {};
  void* from[] = {data};
  void* to[] = {out};
  void* null[] = {nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(from, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "out_buffers is NULL.")}));
  const Log null_data = {Error(kFile, "Argmax_v1 input or output buffer is null.")};
  EXPECT_FALSE(layer.ExecuteRaw(null, to));
  EXPECT_EQ(layer.log, null_data);
  EXPECT_FALSE(layer.ExecuteRaw(from, null));
  EXPECT_EQ(layer.log, null_data);
  EXPECT_TRUE(layer.ExecuteRaw(from, to));
  EXPECT_EQ(layer.log, Log{});
}

// Runs the kernel with data that it must not touch, and returns what it prints.
Log RefusedByKernel(const Buf& attrs, const ArgmaxSettings& settings, unsigned in_count, unsigned out_count) {
  OpenArgmax layer;
  layer.Set(settings);
  float in[64] = {};
  std::vector<float> out(64, -1.0F);
  const Log log =
      CaptureLog([&] { EXPECT_FALSE(layer.Argmax_v1(attrs, in, in_count, out.data(), out_count)); });
  ExpectSameFloats(out, std::vector<float>(64, -1.0F));
  return log;
}

TEST(Argmax, TheKernelRefusesAxisThenOutputThenInput) {
  const Buf attrs = Buf::Float({1, 4, 2, 3});
  const auto out_text = [](const char* expected, const char* received) {
    return Log{Error(kFile, std::string("Argmax_v1 output buffer too small, expected: ") + expected +
                                ", received space for: " + received + "  elements.")};
  };
  EXPECT_EQ(RefusedByKernel(attrs, {.axis = 4}, 0, 0),
            (Log{Error(kFile, "Argmax_v1 wrong argmax axis parameter.")}));
  EXPECT_EQ(RefusedByKernel(attrs, {.axis = -1}, 0, 0),
            (Log{Error(kFile, "Argmax_v1 wrong argmax axis parameter.")}));
  EXPECT_EQ(RefusedByKernel(attrs, {.axis = 1}, 0, 5), out_text("6", "5"));
  EXPECT_EQ(RefusedByKernel(attrs, {.axis = 1}, 23, 6),
            (Log{Error(kFile, "Argmax_v1 input buffer too small.")}));
  EXPECT_EQ(RefusedByKernel(attrs, {.axis = 3, .top_k = 3}, 24, 23), out_text("24", "23"));
  EXPECT_EQ(RefusedByKernel(attrs, {.axis = 3, .top_k = 0xFFFFFFFF}, 24, 24), out_text("-8", "24"));
  // With two items every result is there twice.
  EXPECT_EQ(RefusedByKernel(Buf::Float({2, 2, 2, 3}), {.axis = 2}, 24, 23), out_text("24", "23"));
  EXPECT_EQ(RefusedByKernel(Buf::Float({2, 2, 2, 3}), {.axis = 0}, 24, 11), out_text("12", "11"));
  // Whole items: index and value.
  const ArgmaxSettings whole = {.axis = 9, .has_axis = false, .top_k = 2, .out_max_val = true};
  EXPECT_EQ(RefusedByKernel(Buf::Float({3, 2, 2, 2}), whole, 24, 35), out_text("36", "35"));
}

TEST(Argmax, SizesAreAskedForOncePerExecute) {
  Layer layer("ARGMAX");
  std::vector<float> in(210);
  std::vector<float> out(420);
  for (const char* axis : {"0", "1", "2", "3"}) {
    ASSERT_TRUE(layer.Configure({{"axis", axis}}, {Buf::Float({2, 3, 5, 7})}, {Buf::Float({1, 1, 1, 420})}));
    Buf::ResetCalls();
    ASSERT_TRUE(layer.Execute({in.data()}, {out.data()}));
    EXPECT_EQ(Buf::calls[kGetDims], 2);
    for (const Slot slot : {kGetBatch, kGetChannels, kGetHeight, kGetWidth}) {
      EXPECT_EQ(Buf::calls[slot], 1) << slot;
    }
  }
}

// --- Values

// The results by the formula.
std::vector<float> Found(const std::array<unsigned, 4>& shape, const ArgmaxSettings& settings,
                         const std::vector<float>& values) {
  const auto [N, C, H, W] = shape;
  vek_model::Memory in(values);
  vek_model::Memory out;
  vek_model::Argmax(vek_model::Shape(N, C, H, W), settings, in, out);
  return out.Get<float>();
}

// Runs the kernel between unmapped pages and compares with the formula, and what lies behind the results with
// what it was.
void ExpectArgmax(const std::array<unsigned, 4>& shape, const ArgmaxSettings& settings,
                  const std::vector<float>& in) {
  SCOPED_TRACE(testing::PrintToString(shape) + " along " + std::to_string(settings.axis) + ", top " +
               std::to_string(settings.top_k) + (settings.has_axis ? "" : ", whole items") +
               (settings.out_max_val ? ", values" : ""));
  OpenArgmax layer;
  layer.Set(settings);
  std::vector<float> want = Found(shape, settings, in);
  // A top_k beyond the axis leaves room that is not written.
  std::size_t room = want.size();
  const unsigned len =
      settings.has_axis ? shape[static_cast<unsigned>(settings.axis)] : shape[1] * shape[2] * shape[3];
  if (len != 0 && settings.top_k > len) room = want.size() / len * settings.top_k;
  want.resize(room, -77.0F);
  const Buf attrs = Buf::Float({shape.begin(), shape.end()});
  for (const Guard guard : {Guard::kBefore, Guard::kAfter}) {
    const GuardedBuffer src = Guarded(in, guard);
    const GuardedBuffer dst = Guarded(std::vector<float>(room, -77.0F), guard);
    ASSERT_TRUE(layer.Argmax_v1(attrs, src.as<float>(), static_cast<unsigned>(in.size()), dst.as<float>(),
                                static_cast<unsigned>(room)));
    ExpectSameFloats(dst.Get<float>(), want);
  }
}

std::vector<float> Values(Random& random, std::size_t count, unsigned different) {
  std::vector<float> values(count);
  for (float& x : values) x = static_cast<float>(random.Between(0, different)) - 3.0F;
  return values;
}

TEST(Argmax, OfEqualValuesTheHighestIndexWins) {
  ExpectArgmax({1, 1, 1, 4}, {.axis = 3}, {1, 5, 5, 2});
  Layer layer("ARGMAX");
  const Buf in = Buf::Float({1, 1, 1, 4});
  const Buf out = Buf::Float({1, 1, 1, 2});
  const GuardedBuffer src = Guarded<float>({1, 5, 5, 2});
  const GuardedBuffer dst = Guarded<float>({-1, -1});
  const auto run = [&](const AttrMap& attrs) {
    EXPECT_TRUE(layer.Configure(attrs, {in}, {out}));
    EXPECT_TRUE(layer.Execute({src.data()}, {dst.data()}));
    return dst.Get<float>();
  };
  EXPECT_EQ(run({{"axis", "3"}}), (std::vector<float>{2, -1}));
  EXPECT_EQ(run({{"top_k", "2"}}), (std::vector<float>{2, 1}));
  EXPECT_EQ(run({{"out_max_val", "1"}}), (std::vector<float>{5, 5}));
  EXPECT_EQ(run({{"top_k", "1"}}), (std::vector<float>{5, 5}));
  EXPECT_EQ(run({{"out_max_val", "2"}}), (std::vector<float>{2, 5}));
}

TEST(Argmax, TopZeroWritesNothingAndNeedsNoRoom) {
  OpenArgmax layer;
  layer.top_k_ = 0;
  layer.axis_ = 1;
  const GuardedBuffer src = Guarded<float>({1, 2, 3});
  const GuardedBuffer dst(0);
  EXPECT_TRUE(layer.Argmax_v1(Buf::Float({1, 3, 1, 1}), src.as<float>(), 3, dst.as<float>(), 0));
}

TEST(Argmax, AListEndsAtTheAxisLength) {
  Random random(1);
  for (const unsigned top_k : {3U, 5U, 100U}) {
    ExpectArgmax({1, 3, 2, 9}, {.axis = 1, .top_k = top_k}, Values(random, 54, 9));
    ExpectArgmax({1, 2, 9, 3}, {.axis = 3, .top_k = top_k}, Values(random, 54, 9));
    ExpectArgmax({2, 3, 3, 3}, {.axis = 2, .top_k = top_k, .out_max_val = true}, Values(random, 54, 9));
  }
}

// A shape whose axis is empty, and the number of results that a search of one value writes.
struct EmptyAxis {
  std::array<unsigned, 4> shape;
  int axis;
  std::size_t results;
};
const EmptyAxis kEmptyAxes[] = {
    {{0, 2, 3, 4}, 0, 24}, {{1, 0, 3, 4}, 1, 12}, {{2, 0, 3, 4}, 1, 48}, {{1, 2, 0, 4}, 2, 8},
    {{2, 2, 0, 4}, 2, 32}, {{1, 2, 3, 0}, 3, 6},  {{2, 2, 3, 0}, 3, 24}, {{0, 0, 3, 4}, 0, 0},
    {{0, 0, 3, 4}, 1, 0},  {{1, 0, 0, 4}, 2, 0},  {{0, 2, 3, 0}, 3, 0},
};

// Deliberately so: nothing is read, but the result of every search is written.
TEST(Argmax, ASearchOfOneValueFindsZeroAtIndexZeroWhereItHasNone) {
  for (const auto& [shape, axis, results] : kEmptyAxes) {
    for (const bool out_max_val : {false, true}) {
      SCOPED_TRACE(testing::PrintToString(shape) + " along " + std::to_string(axis));
      std::vector<float> want(results, 0.0F);
      want.resize(results + 5, -77.0F);

      OpenArgmax kernel;
      kernel.Set({.axis = axis, .out_max_val = out_max_val});
      const Buf attrs = Buf::Float({shape.begin(), shape.end()});
      const GuardedBuffer src(0);
      const GuardedBuffer dst = Guarded(std::vector<float>(want.size(), -77.0F));
      const auto room = static_cast<unsigned>(results);
      EXPECT_TRUE(kernel.Argmax_v1(attrs, src.as<float>(), 0, dst.as<float>(), room));
      ExpectSameFloats(dst.Get<float>(), want);

      Layer layer("ARGMAX");
      const std::vector<Buf> out = {Buf::Float({1, 1, 1, room})};
      ASSERT_TRUE(layer.Configure({{"axis", std::to_string(axis)}}, {attrs}, out));
      ASSERT_TRUE(layer.Configure({{"out_max_val", out_max_val ? "1" : "0"}}, {attrs}, out));
      const GuardedBuffer layer_dst = Guarded(std::vector<float>(want.size(), -77.0F));
      EXPECT_TRUE(layer.Execute({src.data()}, {layer_dst.data()}));
      EXPECT_EQ(layer.log, Log{});
      ExpectSameFloats(layer_dst.Get<float>(), want);
    }
  }
}

TEST(Argmax, WholeEmptyItemsGiveZeroAtIndexZero) {
  for (const bool out_max_val : {false, true}) {
    OpenArgmax kernel;
    kernel.Set({.has_axis = false, .out_max_val = out_max_val});
    const unsigned room = out_max_val ? 18 : 9;  // three results, three times
    const GuardedBuffer src(0);
    const GuardedBuffer dst = Guarded(std::vector<float>(room, -77.0F));
    EXPECT_TRUE(kernel.Argmax_v1(Buf::Float({3, 2, 0, 2}), src.as<float>(), 0, dst.as<float>(), room));
    ExpectSameFloats(dst.Get<float>(), std::vector<float>(room, 0.0F));
  }
}

TEST(Argmax, TheRoomForTheResultsOfAnEmptyAxisIsCheckedFirst) {
  for (const auto& [shape, axis, results] : kEmptyAxes) {
    if (results == 0) continue;
    for (const unsigned top_k : {1U, 2U}) {
      const auto needed = static_cast<unsigned>(results) * top_k;
      EXPECT_EQ(
          RefusedByKernel(Buf::Float({shape.begin(), shape.end()}), {.axis = axis, .top_k = top_k}, 0,
                          needed - 1),
          (Log{Error(kFile, "Argmax_v1 output buffer too small, expected: " + std::to_string(needed) +
                                ", received space for: " + std::to_string(needed - 1) + "  elements.")}));
    }
  }
}

TEST(Argmax, ListsAlongAnEmptyAxisAreEmpty) {
  for (const auto& [shape, axis, results] : kEmptyAxes) {
    for (const unsigned top_k : {0U, 2U, 7U}) {
      for (const bool out_max_val : {false, true}) {
        OpenArgmax kernel;
        kernel.Set({.axis = axis, .top_k = top_k, .out_max_val = out_max_val});
        const std::size_t room = results * top_k;
        const GuardedBuffer src(0);
        const GuardedBuffer dst = Guarded(std::vector<float>(room, -1.0F));
        EXPECT_TRUE(kernel.Argmax_v1(Buf::Float({shape.begin(), shape.end()}), src.as<float>(), 0,
                                     dst.as<float>(), static_cast<unsigned>(room)));
        ExpectSameFloats(dst.Get<float>(), std::vector<float>(room, -1.0F));
      }
    }
  }
}

TEST(Argmax, EmptyTensorsWriteNothing) {
  for (const std::array<unsigned, 4>& shape :
       {std::array<unsigned, 4>{0, 3, 2, 2}, {2, 0, 2, 2}, {2, 3, 0, 2}, {2, 3, 2, 0}}) {
    for (int axis = 0; axis < 4; ++axis) {
      for (const unsigned top_k : {1U, 3U}) {
        if (shape[static_cast<unsigned>(axis)] != 0) ExpectArgmax(shape, {.axis = axis, .top_k = top_k}, {});
      }
    }
  }
}

// Deliberately so: the searches span the batch, and are repeated for every item of it.
TEST(Argmax, WithSeveralItemsTheResultsAreRepeatedAndChannelsMixItems) {
  const std::vector<float> in = {1, 2, 3, 9, 5, 4};
  OpenArgmax layer;
  const auto run = [&](int axis, std::size_t room) {
    layer.axis_ = axis;
    const GuardedBuffer src = Guarded(in);
    const GuardedBuffer dst(room * sizeof(float));
    EXPECT_TRUE(layer.Argmax_v1(Buf::Float({2, 3, 1, 1}), src.as<float>(), 6, dst.as<float>(),
                                static_cast<unsigned>(room)));
    return dst.Get<float>();
  };
  // Along C: {1, 2, 3} and, one element on, {2, 3, 9}.
  EXPECT_EQ(run(1, 4), (std::vector<float>{2, 2, 2, 2}));
  EXPECT_EQ(run(0, 3), (std::vector<float>{1, 1, 1}));
  EXPECT_EQ(run(3, 12), std::vector<float>(12, 0.0F));
}

TEST(Argmax, WholeItemsGiveIndexAndValue) {
  Random random(2);
  for (const unsigned top_k : {1U, 2U, 7U}) {
    for (const bool out_max_val : {false, true}) {
      const ArgmaxSettings whole = {.axis = 9, .has_axis = false, .top_k = top_k, .out_max_val = out_max_val};
      ExpectArgmax({1, 3, 4, 5}, whole, Values(random, 60, 20));
      ExpectArgmax({3, 5, 6, 7}, whole, Values(random, 630, 1000));
      ExpectArgmax({2, 1, 1, 1}, whole, {4, 5});
    }
  }
}

TEST(Argmax, NaNCountsOnlyAtIndexZero) {
  OpenArgmax layer;
  for (const unsigned len : {3U, 70U, 300U, 1000U}) {
    for (const unsigned at : {0U, 1U, 2U, len / 2, len - 1}) {
      for (const float nan : {kNaN, -kNaN, std::numeric_limits<float>::signaling_NaN()}) {
        std::vector<float> in(std::size_t{len} * 5);
        for (std::size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i % 13);
        in[at] = nan;
        in[std::size_t{at} * 5 + 2] = nan;
        for (const bool out_max_val : {false, true}) {
          ExpectArgmax({1, 5, 1, len}, {.axis = 3, .out_max_val = out_max_val}, in);
          ExpectArgmax({1, len, 1, 5}, {.axis = 1, .out_max_val = out_max_val}, in);
          ExpectArgmax({1, 5, 1, len}, {.axis = 3, .top_k = 3, .out_max_val = out_max_val}, in);
          ExpectArgmax({1, len, 1, 5}, {.axis = 1, .top_k = 3, .out_max_val = out_max_val}, in);
        }
      }
    }
  }
}

TEST(Argmax, SpecialValues) {
  for (const unsigned len : {5U, 66U, 257U}) {
    for (const float fill : {-kInf, kInf, -0.0F, 0.0F, kNaN, 1e-45F}) {
      for (const float other : {-kInf, kInf, -0.0F, 0.0F, kNaN, -1e-45F, 3.0F}) {
        std::vector<float> in(std::size_t{len} * 9, fill);
        for (std::size_t i = 1; i < in.size(); i += 7) in[i] = other;
        for (const unsigned top_k : {1U, 4U}) {
          ExpectArgmax({1, 1, 9, len}, {.axis = 3, .top_k = top_k, .out_max_val = true}, in);
          ExpectArgmax({1, len, 1, 9}, {.axis = 1, .top_k = top_k, .out_max_val = true}, in);
          ExpectArgmax({1, 1, 9, len}, {.axis = 3, .top_k = top_k}, in);
        }
      }
    }
  }
}

TEST(Argmax, RowsOfEveryLength) {
  Random random(3);
  for (unsigned len = 1; len <= 300; len += len < 150 ? 1 : 7) {
    const unsigned rows = 1 + len % 11;
    for (const unsigned different : {2U, 30U, 1000000U}) {
      const std::vector<float> in = Values(random, std::size_t{rows} * len, different);
      for (const unsigned top_k : {1U, 2U, 5U}) {
        ExpectArgmax({1, 1, rows, len}, {.axis = 3, .top_k = top_k}, in);
        ExpectArgmax({1, len, 1, 1}, {.axis = 1, .top_k = top_k, .out_max_val = true},
                     {in.begin(), in.begin() + len});
      }
    }
  }
}

TEST(Argmax, ColumnsOfEveryNumber) {
  Random random(4);
  for (unsigned columns = 1; columns <= 70; ++columns) {
    const unsigned len = 1 + columns * 5 % 29;
    for (const unsigned top_k : {1U, 2U, 6U}) {
      const std::vector<float> in = Values(random, std::size_t{3} * len * columns, 40);
      const std::vector<float> one(in.begin(),
                                   in.begin() + static_cast<std::ptrdiff_t>(std::size_t{len} * columns));
      ExpectArgmax({1, len, 1, columns}, {.axis = 1, .top_k = top_k}, one);
      ExpectArgmax({3, len, 1, columns}, {.axis = 1, .top_k = top_k}, in);
      ExpectArgmax({1, 3, len, columns}, {.axis = 2, .top_k = top_k}, in);
      ExpectArgmax({1, 3, len, columns}, {.axis = 2, .top_k = top_k, .out_max_val = true}, in);
      ExpectArgmax({len, 3, 1, columns}, {.axis = 0, .top_k = top_k}, in);
    }
  }
}

TEST(Argmax, LongListsGoToTheHeap) {
  Random random(5);
  const std::vector<float> in = Values(random, 4000, 1000);
  for (const unsigned top_k : {63U, 64U, 65U, 127U, 128U, 129U, 400U}) {
    ExpectArgmax({1, 400, 1, 10}, {.axis = 1, .top_k = top_k}, in);
    ExpectArgmax({1, 1, 8, 500}, {.axis = 3, .top_k = top_k}, in);
  }
}

TEST(Argmax, PositionsWrapAtThirtyTwoBits) {
  // H * W is 1 in 32 bits, N * C * H * W is 6: two searches of three neighbours, written twice.
  Buf shape = Buf::Float({1});
  shape.nchw = {2, 3, 0xAAAAAAABU, 3};
  for (const ArgmaxSettings& settings :
       {ArgmaxSettings{.axis = 1}, {.axis = 1, .top_k = 2}, {.axis = 1, .out_max_val = true}}) {
    OpenArgmax layer;
    layer.Set(settings);
    const std::vector<float> in = {1, 2, 3, 9, 5, 4};
    const std::vector<float> want = Found({2, 3, 0xAAAAAAABU, 3}, settings, in);
    ASSERT_EQ(want.size(), 4 * settings.top_k);
    const GuardedBuffer src = Guarded(in);
    const GuardedBuffer dst(want.size() * sizeof(float));
    ASSERT_TRUE(
        layer.Argmax_v1(shape, src.as<float>(), 6, dst.as<float>(), static_cast<unsigned>(want.size())));
    ExpectSameFloats(dst.Get<float>(), want);
  }
}

TEST(Argmax, AsManySearchesAreMadeAsTheirNumberIsInThirtyTwoBits) {
  // 2^16 planes of 2^16 + 1 columns are 2^16 searches of one value each, all in the first plane's row.
  Buf shape = Buf::Float({1});
  shape.nchw = {1, 0x10000, 1, 0x10001};
  std::vector<float> in(0x10000);
  for (std::size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i);
  OpenArgmax layer;
  layer.Set({.axis = 2, .out_max_val = true});
  const GuardedBuffer src = Guarded(in);
  const GuardedBuffer dst(in.size() * sizeof(float));
  ASSERT_TRUE(layer.Argmax_v1(shape, src.as<float>(), 0x10000, dst.as<float>(), 0x10000));
  ExpectSameFloats(dst.Get<float>(), in);
}

TEST(Argmax, ATopKWhoseRoomWrapsRanksEveryValue) {
  // Two searches of 2^31 results each need no room in 32 bits; each has three values to rank.
  const std::vector<float> in = {1, 3, 2, 5, 4, 5};
  for (const bool out_max_val : {false, true}) {
    Layer layer("ARGMAX");
    for (const auto& [key, value] :
         {std::pair("axis", "3"), {"top_k", "2147483648"}, {"out_max_val", out_max_val ? "1" : "0"}}) {
      ASSERT_TRUE(layer.Configure({{key, value}}, {Buf::Float({1, 1, 2, 3})}, {Buf::Float({1, 1, 2, 3})}));
    }
    const GuardedBuffer src = Guarded(in);
    const GuardedBuffer dst(in.size() * sizeof(float));
    ASSERT_TRUE(layer.Execute({src.data()}, {dst.data()}));
    EXPECT_EQ(layer.log, Log{});
    ExpectSameFloats(dst.Get<float>(), out_max_val ? std::vector<float>{3, 2, 1, 5, 5, 4}
                                                   : std::vector<float>{1, 2, 0, 2, 0, 1});
  }
}

}  // namespace
}  // namespace vek_test::argmax
