// SWCONCAT: refusals in their order, every axis of both kernels, the appended inputs.
#include "custom_ops/vek_concat.h"

#include <gtest/gtest.h>

#include <list>

#include "cases/contents.h"
#include "cases/layer_case.h"
#include "model/vek_concat.h"
#include "support/exact_buffers.h"
#include "support/refusals.h"

namespace vek_test::concat {
namespace {

constexpr char kFile[] = "vek_concat.cpp";

struct OpenConcat : zeb_custom_ops::VekConcat {
  using VekConcat::axis_;
  using VekConcat::configured_;
  using VekConcat::in_attrs_;
  using VekConcat::out_attrs_;
};

Setup Valid() {
  return {{{"axis", "1"}}, {Buf::Float({1, 2, 3, 4}), Buf::Float({1, 5, 3, 4})}, {Buf::Float({1, 7, 3, 4})}};
}

LogLine Printed(int bitdepth, int plane_pack, bool is_float) {
  return Info("vek_common.cpp", "bitdepth=" + std::to_string(bitdepth) +
                                    ", plane_pack=" + std::to_string(plane_pack) +
                                    ", exp=0, signed=0, float=" + std::to_string(is_float) +
                                    ", q8a=0, q8a_zero=0, q8a_scale=1.000000");
}

std::vector<Fault> Faults() {
  const auto axis = [](const char* text) { return [text](Setup& s) { s.attrs["axis"] = text; }; };
  const auto out_of_range = [](const char* text) {
    return Log{Error(kFile, std::string("axis = ") + text + ", but should be in range [0..3]")};
  };
  return {
      {"two outputs",
       [](Setup& s) { s.out.push_back(s.out[0]); },
       {Error(kFile, "expected one output, got: 2 outputs")},
       "outputs"},
      {"no output",
       [](Setup& s) { s.out.clear(); },
       {Error(kFile, "expected one output, got: 0 outputs")},
       "outputs"},
      {"no attribute",
       [](Setup& s) { s.attrs.clear(); },
       {Error(kFile, "'axis' attribute not defined")},
       "attributes"},
      {"two attributes",
       [](Setup& s) { s.attrs["size"] = "1"; },
       {Error(kFile, "expected 1 attribute, but got 2")},
       "attributes"},
      {"wrong key",
       [](Setup& s) {
         s.attrs = {{"axes", "1"}};
       },
       {Error(kFile, "expected attribute: axis, got: axes")}},
      {"negative axis", axis("-1"), out_of_range("-1"), "axis"},
      {"axis above the rank", axis(" 5x"), out_of_range("5"), "axis"},
      {"no input",
       [](Setup& s) { s.in.clear(); },
       {Error(kFile, "expected at least one input, got none")},
       "inputs"},
      {"input bits",
       [](Setup& s) {
         if (!s.in.empty()) s.in[0].format.bitdepth = 12;
       },
       {Error(kFile, "unexpected input buffer format"), Printed(12, 1, true)},
       "in format"},
      {"input pack",
       [](Setup& s) {
         if (!s.in.empty()) s.in[0].format.plane_pack = 2;
       },
       {Error(kFile, "unexpected input buffer format"), Printed(32, 2, true)},
       "in format"},
      {"output pack",
       [](Setup& s) { s.out[0].format.plane_pack = 0; },
       {Error(kFile, "unexpected output buffer format"), Printed(32, 0, true)},
       "out format"},
      {"output bits",
       [](Setup& s) { s.out[0].format.bitdepth = 24; },
       {Error(kFile, "unexpected output buffer format"), Printed(24, 1, true)},
       "out format"},
      {"different bits",
       [](Setup& s) { s.out[0].format.bitdepth = 16; },
       {Error(kFile, "incompatible buffer formats"), Printed(32, 1, true), Printed(16, 1, true)},
       "out format"},
      {"three dims",
       [](Setup& s) {
         s.in[0].nchw = {1, 2, 3, 4};
         s.in[0].dims = {2, 3, 4};
       },
       {Error(kFile, "Concat supports only 4D and 5D tensors. Can't use 3 dims tensors")},
       "dims"},
      {"axis at the rank", axis("4"), {Error(kFile, "There are 4 dims, but axis is set to 4")}, "axis"},
      {"short first input",
       [](Setup& s) { s.in[0].size = 95; },
       {Error(kFile, "Input buf size should be at least 96, but is 95")}},
      {"short second input",
       [](Setup& s) { s.in[1].size = 239; },
       {Error(kFile, "Input buf size should be at least 240, but is 239")}},
      {"short output",
       [](Setup& s) { s.out[0].size = 335; },
       {Error(kFile, "Output buf size should be at least 336, but is 335")}},
      {"long input",
       [](Setup& s) { s.in[1].size = 241; },
       {Error(kFile, "Input buffers occupy 337B, but output buffer is 336B")},
       "second size"},
      {"strided first",
       [](Setup& s) { s.in[0].strided = true; },
       {Error(kFile, "strided data detected on input of Concat, this is not supported.")}},
      {"interleaved first",
       [](Setup& s) { s.in[0].interleaved = true; },
       {Error(kFile, "interleaved data detected on input of Concat, this is not supported.")}},
      {"strided second",
       [](Setup& s) { s.in[1].strided = true; },
       {Error(kFile, "strided data detected on input of Concat, this is not supported.")}},
      {"interleaved second",
       [](Setup& s) { s.in[1].interleaved = true; },
       {Error(kFile, "interleaved data detected on input of Concat, this is not supported.")}},
      {"strided output",
       [](Setup& s) { s.out[0].strided = true; },
       {Error(kFile, "strided data detected on output of Concat, this is not supported.")}},
      {"interleaved output",
       [](Setup& s) { s.out[0].interleaved = true; },
       {Error(kFile, "interleaved data detected on output of Concat, this is not supported.")}},
  };
}

TEST(Concat, RefusalsComeInTheirOrder) { CheckOrderOfRefusals("SWCONCAT", Valid(), Faults()); }

TEST(Concat, FormatsOfLaterInputsAreNotLookedAt) {
  auto s = Valid();
  s.in[1] = Buf::Int(8, {1, 5, 3, 4});
  Layer layer("SWCONCAT");
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Concat, ARefusedAxisStaysStoredAndTheLayerConfigured) {
  OpenConcat layer;
  const auto s = Valid();
  EXPECT_EQ(layer.axis_, 0);
  ASSERT_TRUE(layer.Configure(s.attrs, MakeList(s.in), MakeList(s.out)));
  std::vector<float> in(60);
  std::vector<float> out(84);
  void* inputs[] = {in.data(), in.data()};
  void* outputs[] = {out.data()};
  for (const int axis : {-1, 4}) {
    CaptureLog([&] {
      EXPECT_FALSE(layer.Configure({{"axis", std::to_string(axis)}}, MakeList(s.in), MakeList(s.out)));
    });
    EXPECT_EQ(layer.axis_, axis);
    const Log log = CaptureLog([&] { EXPECT_FALSE(layer.Execute(inputs, outputs)); });
    EXPECT_EQ(log, (Log{Error(kFile, "can't calculate Concat")}));
  }
}

TEST(Concat, ASecondConfigureAppendsItsInputs) {
  const ExpectNoLeakedClones no_leaks;
  OpenConcat layer;
  const auto s = Valid();
  ASSERT_TRUE(layer.Configure(s.attrs, MakeList(s.in), MakeList(s.out)));
  ASSERT_TRUE(layer.Configure(s.attrs, MakeList(s.in), MakeList({Buf::Float({1, 14, 3, 4})})));
  ASSERT_EQ(layer.in_attrs_.size(), 4U);

  Random random(5);
  using vek_model::Memory;
  Memory out(vek_cases::AnyBits(random));
  std::list<Memory> in;
  std::vector<Memory*> memories;
  for (int i = 0; i < 4; ++i) memories.push_back(&in.emplace_back(vek_cases::AnyBits(random)));
  vek_model::Concat(4, {s.in[0].dims, s.in[1].dims, s.in[0].dims, s.in[1].dims}, 1, memories, out);
  ExactBuffers buffers(AnyGuard(random));
  std::vector<void*> inputs;
  for (const Memory* memory : memories) inputs.push_back(buffers.Of(*memory));
  void* outputs[] = {buffers.Of(out)};
  EXPECT_TRUE(layer.Execute(inputs.data(), outputs));
  EXPECT_EQ(buffers.Difference(), "");
}

TEST(Concat, ExecuteRefusesInItsOrder) {
  OpenConcat layer;
  float data[96] = {};
  void* given[] = {data, data};
  void* half[] = {data, nullptr};
  void* null[] = {nullptr, nullptr};
  const auto complains = [&](void** in, void** out, const char* text) {
    const Log log = CaptureLog([&] { EXPECT_FALSE(layer.Execute(in, out)); });
    EXPECT_EQ(log, (Log{Error(kFile, text)}));
  };
  complains(nullptr, nullptr, "Can't run Execute() without Configure()");
  layer.configured_ = true;
  complains(nullptr, nullptr, "input buffer attrs not provided");
  layer.in_attrs_ = MakeList({Buf::Int(32, {1, 2, 3, 4}), Buf::Int(8, {1, 2, 3, 4})});
  complains(nullptr, nullptr, "output buffer attrs are NULL");
  layer.out_attrs_ = std::make_unique<Buf>(Buf::Int(32, {1, 4, 3, 4}));
  complains(nullptr, nullptr, "Input buffers array is NULL");
  complains(null, nullptr, "Input buffer 0 pointer is NULL");
  complains(half, nullptr, "Input buffer 1 pointer is NULL");
  complains(given, nullptr, "Output buffers array is NULL");
  const Log log = CaptureLog([&] { EXPECT_FALSE(layer.Execute(given, given)); });
  EXPECT_EQ(log, (Log{Error(kFile, "Unsupported data format"), Error(kFile, "can't calculate Concat")}));
}

TEST(Concat, IntegersOf32BitsPassConfigureAndFailInExecute) {
  Layer layer("SWCONCAT");
  ASSERT_TRUE(layer.Configure({{"axis", "0"}}, {Buf::Int(32, {1, 1, 1, 4})}, {Buf::Int(32, {1, 1, 1, 4})}));
  std::uint32_t data[4] = {};
  EXPECT_FALSE(layer.Execute({data}, {data}));
  EXPECT_EQ(layer.log,
            (Log{Error(kFile, "Unsupported data format"), Error(kFile, "can't calculate Concat")}));
}

// An output of four dims that has room for all inputs.
Buf RoomFor(const std::vector<Buf>& in) {
  Buf out = Buf::Packed({1, 1, 1, 0}, in[0].format);
  for (const Buf& buf : in) out.size += buf.size;
  if (in[0].dims.size() == 5) out.dims.push_back(0);
  return out;
}

// What Execute says; nothing where it succeeds. Layer and model agree in everything.
Log RunConcat(const std::vector<Buf>& in, unsigned axis, Random& random) {
  const auto result =
      vek_cases::RunSetups("SWCONCAT", {{{{"axis", std::to_string(axis)}}, in, {RoomFor(in)}}}, random);
  EXPECT_EQ(result.difference, "");
  EXPECT_EQ(result.executed, result.log.empty() ? 2U : 0U);
  return result.log;
}
void ExpectJoined(const std::vector<Buf>& in, unsigned axis, Random& random) {
  EXPECT_EQ(RunConcat(in, axis, random), Log{});
}
Log Refused(const std::string& text) { return {Error(kFile, text), Error(kFile, "can't calculate Concat")}; }

TEST(Concat, EveryAxisJoinsInRowMajorOrder) {
  Random random(6);
  for (const Format& format : {Buf::Planar(8, false), Buf::Planar(16, false), Buf::Planar(32, true)}) {
    for (std::size_t rank : {4U, 5U}) {
      for (unsigned axis = 0; axis < rank; ++axis) {
        for (unsigned extent : {0U, 1U, 2U, 3U, 5U, 16U, 17U, 33U}) {
          std::vector<unsigned> dims(rank, 2);
          dims.back() = 3;
          std::vector<Buf> in;
          // The batch of 4-D tensors must agree.
          for (unsigned more : {0U, 1U, 4U}) {
            dims[axis] = extent + (axis == 0 && rank == 4 ? 0 : more);
            in.push_back(Buf::Packed(dims, format));
          }
          ExpectJoined(in, axis, random);
        }
      }
    }
  }
}

TEST(Concat, OneInputIsCopied) {
  Random random(7);
  for (std::size_t rank : {4U, 5U}) {
    for (unsigned axis = 0; axis < rank; ++axis) {
      ExpectJoined({Buf::Float(std::vector<unsigned>(rank, 3))}, axis, random);
    }
  }
}

TEST(Concat, ManyInputs) {
  Random random(8);
  for (std::size_t count : {15U, 16U, 17U, 33U, 50U}) {
    std::vector<Buf> in;
    for (std::size_t i = 0; i < count; ++i) {
      in.push_back(Buf::Int(8, {2, 3, 4, random.Between(0, 6)}));
    }
    ExpectJoined(in, 3, random);
  }
}

TEST(Concat, MoreRowsThanABlockHolds) {
  Random random(9);
  ExpectJoined({Buf::Float({1, 3, 700, 4}), Buf::Float({1, 3, 700, 6}), Buf::Float({1, 3, 700, 2})}, 3,
               random);
  ExpectJoined({Buf::Int(8, {1, 2, 3000, 1}), Buf::Int(8, {1, 2, 3000, 3})}, 3, random);
  ExpectJoined({Buf::Float({2, 5, 40, 60}), Buf::Float({2, 1, 40, 60})}, 1, random);
}

TEST(Concat, BatchesOfDifferentSizesJoinIn5dOnly) {
  Random random(10);
  EXPECT_EQ(RunConcat({Buf::Float({1, 2, 3, 4}), Buf::Float({2, 2, 3, 4})}, 0, random),
            Refused("Incompatible concat batch dims"));
  ExpectJoined({Buf::Float({1, 2, 3, 4, 5}), Buf::Float({2, 2, 3, 4, 5})}, 0, random);
}

TEST(Concat, EveryExtentNextToTheAxisMustAgree) {
  Random random(11);
  const char* const names[] = {"width, channels, height for batch", "height, width, batch for channel",
                               "width, channels, batch for height", "height, channels, batch for width"};
  for (std::size_t rank : {4U, 5U}) {
    for (unsigned axis = 0; axis < rank; ++axis) {
      for (std::size_t d = 0; d < rank; ++d) {
        std::vector<unsigned> dims(rank, 2);
        std::vector<Buf> in = {Buf::Float(dims), Buf::Float(dims)};
        dims[d] = 3;
        in.push_back(Buf::Float(dims));
        const Log log = RunConcat(in, axis, random);
        if (rank == 4 && d == 0) {
          EXPECT_EQ(log, Refused("Incompatible concat batch dims"));
        } else if (d == axis) {
          EXPECT_EQ(log, Log{});
        } else if (rank == 4) {
          EXPECT_EQ(log, Refused(std::string("All tensors must have the same ") + names[axis] + "-concat"));
        } else {
          EXPECT_EQ(log,
                    Refused("All tensors must have the same dimensions (except for the concat dimension)"));
        }
      }
    }
  }
  EXPECT_EQ(RunConcat({Buf::Float({1, 2, 3, 4, 5}), Buf::Float({1, 2, 3, 4})}, 1, random),
            Refused("All tensors must have the same number of dimensions"));
}

TEST(Concat, TheBatchIsComparedWithTheFirstInputBeforeTheExtentsWithTheNeighbour) {
  Random random(12);
  // The second input's width speaks before the third one's batch.
  EXPECT_EQ(
      RunConcat({Buf::Float({1, 2, 3, 4}), Buf::Float({1, 2, 3, 5}), Buf::Float({2, 2, 3, 4})}, 1, random),
      Refused("All tensors must have the same height, width, batch for channel-concat"));
  EXPECT_EQ(RunConcat({Buf::Float({1, 2, 3, 4}), Buf::Float({2, 2, 3, 5})}, 1, random),
            Refused("Incompatible concat batch dims"));
}

TEST(Concat, KernelsTakeTheirListByValueAndRefuseOtherAxes) {
  OpenConcat layer;
  const BufAttrsList attrs = MakeList({Buf::Float({1, 1, 1, 2}), Buf::Float({1, 1, 1, 1})});
  const BufAttrsList attrs_5d = MakeList({Buf::Float({1, 1, 1, 1, 2}), Buf::Float({1, 1, 1, 1, 1})});
  std::vector<float> a = {1, 2};
  std::vector<float> b = {3};
  std::vector<float> out(3);
  std::vector<float*> in = {a.data(), b.data()};
  EXPECT_TRUE(layer.concat<float>(in, out.data(), attrs, 3));
  EXPECT_EQ(out, (std::vector<float>{1, 2, 3}));
  EXPECT_EQ(in.size(), 2U);
  out = {0, 0, 0};
  EXPECT_TRUE(layer.concat<float>(in, out.data(), attrs_5d, 4));
  EXPECT_EQ(out, (std::vector<float>{1, 2, 3}));
  const Log log = CaptureLog([&] {
    EXPECT_FALSE(layer.concat<float>({a.data()}, out.data(), MakeList({Buf::Float({1, 1, 1, 2})}), 4));
    EXPECT_FALSE(layer.concat_5d<float>({a.data()}, out.data(), MakeList({Buf::Float({1, 1, 1, 1, 2})}), 5));
  });
  EXPECT_EQ(log, Log{});
}

TEST(Concat, PositionsWrapAt32Bits) {
  // 0xAAAAAAAB rows of 3 elements are one element in 32 bits.
  const auto rows = [](unsigned H) {
    Buf buf = Buf::Int(8, {1});
    buf.nchw = {1, 4, H, 3};
    return buf;
  };
  using Data = std::vector<unsigned char>;
  OpenConcat layer;
  const auto joined = [&](const BufAttrsList& attrs, Data a, Data b) {
    const GuardedBuffer src_a = Guarded(a);
    const GuardedBuffer src_b = Guarded(b);
    const GuardedBuffer dst(a.size() + b.size());
    EXPECT_TRUE(layer.concat<unsigned char>({src_a.as<unsigned char>(), src_b.as<unsigned char>()},
                                            dst.as<unsigned char>(), attrs, 2));
    return dst.Get();
  };
  EXPECT_EQ(joined(MakeList({rows(0xAAAAAAAB), rows(1)}), {1, 2, 3, 4},
                   {11, 12, 13, 21, 22, 23, 31, 32, 33, 41, 42, 43}),
            (Data{1, 11, 12, 13, 2, 21, 22, 23, 3, 31, 32, 33, 4, 41, 42, 43}));
  // Their sum does not fit 32 bits either.
  EXPECT_EQ(joined(MakeList({rows(0xAAAAAAAB), rows(0xAAAAAAAB)}), {1, 2, 3, 4}, {11, 12, 13, 14}),
            (Data{1, 11, 2, 12, 3, 13, 4, 14}));
}

TEST(Concat, KernelsJoinNoInputsToNothing) {
  OpenConcat layer;
  EXPECT_TRUE(layer.concat<float>({}, nullptr, {}, 1));
  EXPECT_TRUE(layer.concat_5d<float>({}, nullptr, {}, 1));
}

TEST(Concat, BatchesOfDescriptionsWithoutDimsAreJoinedByTheAccessors) {
  OpenConcat layer;
  Buf buf = Buf::Float({});
  buf.nchw = {2, 1, 2, 1};
  std::vector<float> a = {1, 2, 3, 4};
  std::vector<float> b = {5, 6, 7, 8};
  const GuardedBuffer out(8 * sizeof(float));
  EXPECT_TRUE(layer.concat<float>({a.data(), b.data()}, out.as<float>(), MakeList({buf, buf}), 0));
  EXPECT_EQ(out.Get<float>(), (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(Concat, TheKernelForFiveDimsRefusesAnAxisThatTheInputsDoNotHave) {
  OpenConcat layer;
  const BufAttrsList attrs = MakeList({Buf::Float({1, 1, 1, 2})});
  EXPECT_EQ(CaptureLog([&] { EXPECT_FALSE(layer.concat_5d<float>({nullptr}, nullptr, attrs, 4)); }), Log{});
}

TEST(Concat, AskingTheDescriptionsDoesNotGrowWithTheTensor) {
  long calls[2];
  for (unsigned large : {0U, 1U}) {
    const unsigned extent = large != 0 ? 40 : 2;
    const std::vector<Buf> in(3, Buf::Float({1, extent, extent, 2}));
    Layer layer("SWCONCAT");
    ASSERT_TRUE(layer.Configure({{"axis", "3"}}, in, {RoomFor(in)}));
    std::vector<float> data(3200);
    std::vector<float> out(9600);
    Buf::ResetCalls();
    ASSERT_TRUE(layer.Execute({data.data(), data.data(), data.data()}, {out.data()}));
    calls[large] = 0;
    for (const auto& count : Buf::calls) calls[large] += count;
  }
  EXPECT_EQ(calls[0], calls[1]);
}

}  // namespace
}  // namespace vek_test::concat
