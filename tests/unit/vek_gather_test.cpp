// GATHER: refusals in their order, every axis and width, where a bad index or the capacity stops it.
#include "custom_ops/vek_gather.h"

#include <gtest/gtest.h>

#include "cases/contents.h"
#include "model/vek_gather.h"
#include "support/exact_buffers.h"
#include "support/refusals.h"

namespace vek_test::gather {
namespace {

using namespace zeb_custom_ops;

constexpr char kFile[] = "vek_gather.cpp";
constexpr char kKernelFile[] = "ext_gather.cpp";

struct OpenGather : VekGather {
  using VekGather::axis_;
  using VekGather::configured_;
  using VekGather::in_attrs_;
  using VekGather::out_attrs_;
};

Setup Valid() {
  return {{{"axis", "1"}}, {Buf::Float({1, 5, 3, 4}), Buf::Int(32, {2})}, {Buf::Float({1, 2, 3, 4})}};
}

LogLine Printed(int bitdepth, int plane_pack, bool is_float) {
  return Info("vek_common.cpp", "bitdepth=" + std::to_string(bitdepth) +
                                    ", plane_pack=" + std::to_string(plane_pack) +
                                    ", exp=0, signed=0, float=" + std::to_string(is_float) +
                                    ", q8a=0, q8a_zero=0, q8a_scale=1.000000");
}

std::vector<Fault> Faults() {
  const auto axis = [](const char* text) { return [text](Setup& s) { s.attrs["axis"] = text; }; };
  return {
      {"two attributes",
       [](Setup& s) { s.attrs["size"] = "1"; },
       {Error(kFile, "expected 1 attribute, but got 2")}},
      {"wrong key",
       [](Setup& s) {
         s.attrs = {{"axes", "1"}};
       },
       {Error(kFile, "expected attribute: axis, got: axes")}},
      {"negative axis", axis("-1"), {Error(kFile, "axis = -1, but should be in range [0..3]")}, "axis"},
      {"large axis", axis("4"), {Error(kFile, "axis = 4, but should be in range [0..3]")}, "axis"},
      {"one input",
       [](Setup& s) { s.in.pop_back(); },
       {Error(kFile, "expected two inputs and one output, got: 1 inputs, 1 outputs")},
       "count"},
      {"three inputs",
       [](Setup& s) { s.in.push_back(s.in[0]); },
       {Error(kFile, "expected two inputs and one output, got: 3 inputs, 1 outputs")},
       "count"},
      {"two outputs",
       [](Setup& s) { s.out.push_back(s.out[0]); },
       {Error(kFile, "expected two inputs and one output, got: 2 inputs, 2 outputs")},
       "count"},
      {"input bits",
       [](Setup& s) { s.in[0].format.bitdepth = 64; },
       {Error(kFile, "unexpected input buffer format"), Printed(64, 1, true)},
       "in format"},
      {"input pack",
       [](Setup& s) { s.in[0].format.plane_pack = 4; },
       {Error(kFile, "unexpected input buffer format"), Printed(32, 4, true)},
       "in format"},
      {"output bits",
       [](Setup& s) { s.out[0].format.bitdepth = 0; },
       {Error(kFile, "unexpected output buffer format"), Printed(0, 1, true)},
       "out format"},
      {"output pack",
       [](Setup& s) { s.out[0].format.plane_pack = -1; },
       {Error(kFile, "unexpected output buffer format"), Printed(32, -1, true)},
       "out format"},
      {"different bits",
       [](Setup& s) { s.out[0].format.bitdepth = 8; },
       {Error(kFile, "incompatible buffer formats"), Printed(32, 1, true), Printed(8, 1, true)},
       "out format"},
      {"axis beyond the dims",
       [](Setup& s) { s.in[0].dims = {60}; },
       {Error(kFile, "There are 1 dims, but axis is set to 1")}},
      {"short params",
       [](Setup& s) { s.in[0].size = 239; },
       {Error(kFile, "Input buf size should be at least 240, but is 239")}},
      {"short indices",
       [](Setup& s) { s.in[1].size = 7; },
       {Error(kFile, "Input buf size should be at least 8, but is 7")}},
      {"short output",
       [](Setup& s) { s.out[0].size = 95; },
       {Error(kFile, "Output buf size should be at least 96, but is 95")}},
      {"strided params",
       [](Setup& s) { s.in[0].strided = true; },
       {Error(kFile, "strided data detected on input of Gather, this is not supported.")}},
      {"interleaved params",
       [](Setup& s) { s.in[0].interleaved = true; },
       {Error(kFile, "interleaved data detected on input of Gather, this is not supported.")}},
      {"strided indices",
       [](Setup& s) { s.in[1].strided = true; },
       {Error(kFile, "strided data detected on input of Gather, this is not supported.")}},
      {"interleaved indices",
       [](Setup& s) { s.in[1].interleaved = true; },
       {Error(kFile, "interleaved data detected on input of Gather, this is not supported.")}},
      {"strided output",
       [](Setup& s) { s.out[0].strided = true; },
       {Error(kFile, "strided data detected on output of Gather, this is not supported.")}},
      {"interleaved output",
       [](Setup& s) { s.out[0].interleaved = true; },
       {Error(kFile, "interleaved data detected on output of Gather, this is not supported.")}},
  };
}

TEST(Gather, RefusalsComeInTheirOrder) { CheckOrderOfRefusals("GATHER", Valid(), Faults()); }

TEST(Gather, WithoutAnAttributeTheAxisIs0) {
  const ScopedThreshold threshold(kInfo);
  const auto s = Valid();
  OpenGather layer;
  layer.axis_ = 3;
  const Log log = CaptureLog([&] { EXPECT_TRUE(layer.Configure({}, MakeList(s.in), MakeList(s.out))); });
  EXPECT_EQ(log, (Log{Info(kFile, "'axis' not defined, using axis=0")}));
  EXPECT_EQ(layer.axis_, 0);
}

TEST(Gather, TheFormatOfTheIndicesIsNotLookedAt) {
  auto s = Valid();
  s.in[1].format.bitdepth = 7;
  s.in[1].size = 0;  // seven bits are no whole byte
  s.in[1].strided = false;
  Layer layer("GATHER");
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Gather, ParamsWithoutDimsHaveNoAxis) {
  auto s = Valid();
  s.in[0].dims = {};
  Layer layer("GATHER");
  EXPECT_FALSE(layer.Configure({{"axis", "0"}}, s.in, s.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "There are 0 dims, but axis is set to 0")}));
}

// Configures on two dims, then leaves `axis` behind by a refused Configure, and executes.
Log ExecuteWithStaleAxis(int axis, const std::vector<unsigned>& indices, bool result) {
  OpenGather layer;
  const BufAttrsList in =
      MakeList({Buf::Float({2, 3}), Buf::Int(32, {static_cast<unsigned>(indices.size())})});
  const BufAttrsList out = MakeList({Buf::Float({1, 1, 2, 3})});
  EXPECT_TRUE(layer.Configure({{"axis", "0"}}, in, out));
  CaptureLog([&] { EXPECT_FALSE(layer.Configure({{"axis", std::to_string(axis)}}, in, out)); });
  EXPECT_EQ(layer.axis_, axis);
  std::vector<float> data(6);
  std::vector<unsigned> list = indices;
  list.push_back(0);
  void* inputs[] = {data.data(), list.data()};
  void* outputs[] = {data.data()};
  return CaptureLog([&] { EXPECT_EQ(layer.Execute(inputs, outputs), result); });
}

TEST(Gather, AStaleAxisAtTheRankHasNoExtent) {
  EXPECT_EQ(ExecuteWithStaleAxis(2, {0, 1}, false),
            (Log{Error(kKernelFile, "fisrt_axis > last_axis (3 > 2)"),
                 Error(kKernelFile, "Operation broken (in_idx >= axis Size, 0, 0)"),
                 Error(kFile, "can't do Gather operation")}));
  EXPECT_EQ(ExecuteWithStaleAxis(2, {}, true), (Log{Error(kKernelFile, "fisrt_axis > last_axis (3 > 2)")}));
}

TEST(Gather, AStaleAxisBeyondTheRankComplainsThreeTimesAndSucceeds) {
  EXPECT_EQ(ExecuteWithStaleAxis(3, {0, 1}, true),
            (Log{Error(kKernelFile, "last_axis bigger than num of dims (3 > 2)"),
                 Error(kKernelFile, "dims index (3) is out of dims range (2)"),
                 Error(kKernelFile, "fisrt_axis > last_axis (4 > 2)")}));
  EXPECT_EQ(ExecuteWithStaleAxis(-1, {0, 1}, true),
            (Log{Error(kKernelFile, "last_axis bigger than num of dims (4294967295 > 2)"),
                 Error(kKernelFile, "dims index (4294967295) is out of dims range (2)")}));
}

TEST(Gather, FunctionsOnDims) {
  const std::vector<unsigned> dims = {2, 3, 5};
  const Log quiet = CaptureLog([&] {
    EXPECT_EQ(getNumberOfElements(dims), 30U);
    EXPECT_EQ(getNumberOfElements({}), 1U);
    EXPECT_EQ(getNumberOfElements({65536, 65536, 3}), 0U);
    EXPECT_EQ(getNumberOfElements(dims, 0, 3), 30U);
    EXPECT_EQ(getNumberOfElements(dims, 1, 3), 15U);
    EXPECT_EQ(getNumberOfElements(dims, 2, 2), 1U);
    EXPECT_EQ(getNumberOfElements(dims, 3, 3), 1U);
    EXPECT_EQ(getNumberOfDimensions(dims), 3U);
    EXPECT_EQ(getSizeOfDimension(dims, 2), 5U);
    EXPECT_EQ(getSizeOfDimension(dims, 3), 0U);
  });
  EXPECT_EQ(quiet, Log{});
  const Log log = CaptureLog([&] {
    EXPECT_EQ(getNumberOfElements(dims, 5, 4), 0U);
    EXPECT_EQ(getNumberOfElements(dims, 4, 4), 0U);
    EXPECT_EQ(getSizeOfDimension(dims, 4), 0U);
  });
  EXPECT_EQ(log, (Log{Error(kKernelFile, "fisrt_axis > last_axis (5 > 4)"),
                      Error(kKernelFile, "last_axis bigger than num of dims (4 > 3)"),
                      Error(kKernelFile, "dims index (4) is out of dims range (3)")}));
}

TEST(Gather, ExecuteRefusesInItsOrder) {
  OpenGather layer;
  std::uint32_t data[64] = {};
  void* given[] = {data, data};
  void* half[] = {data, nullptr};
  void* null[] = {nullptr, nullptr};
  const auto complains = [&](void** in, void** out, const Log& lines) {
    EXPECT_EQ(CaptureLog([&] { EXPECT_FALSE(layer.Execute(in, out)); }), lines);
  };
  complains(nullptr, nullptr, {Error(kFile, "Can't run Execute() without Configure()")});
  layer.configured_ = true;
  complains(nullptr, nullptr, {Error(kFile, "input buffer attrs not provided")});
  layer.in_attrs_ = MakeList({Buf::Int(32, {1, 2, 3, 4}), Buf::Int(32, {1})});
  complains(nullptr, nullptr, {Error(kFile, "output buffer attrs are NULL")});
  layer.out_attrs_ = std::make_unique<Buf>(Buf::Int(32, {1, 2, 3, 4}));
  complains(nullptr, nullptr, {Error(kFile, "Input buffers array is NULL")});
  complains(null, nullptr, {Error(kFile, "Input buffer 0 pointer is NULL")});
  complains(half, nullptr, {Error(kFile, "Input buffer 1 pointer is NULL")});
  complains(given, nullptr, {Error(kFile, "Output buffers array is NULL")});
  complains(given, given, {Error(kFile, "can't do Gather operation")});
  layer.in_attrs_[0] = std::make_unique<Buf>(Buf::Float({1, 2, 3, 4}));
  complains(
      given, null,
      {Error(kKernelFile, "Gather_v1 output buffer is null"), Error(kFile, "can't do Gather operation")});
}

TEST(Gather, TheKernelRefusesNullBuffers) {
  const unsigned char data[4] = {};
  const std::uint32_t indices[1] = {};
  const auto complains = [&](const unsigned char* params, const std::uint32_t* list, unsigned char* to,
                             const char* text) {
    const Log log = CaptureLog([&] { EXPECT_FALSE(Gather_v1(params, {4}, list, {1}, 0U, to, 4U)); });
    EXPECT_EQ(log, (Log{Error(kKernelFile, text)}));
  };
  complains(nullptr, nullptr, nullptr, "Gather_v1 params buffer is null");
  complains(data, nullptr, nullptr, "Gather_v1 indices buffer is null");
  complains(data, indices, nullptr, "Gather_v1 output buffer is null");
}

// Through the kernel: the capacity is free, the data types are its own.
template <typename T>
void ExpectFormula(const std::vector<unsigned>& dims, const std::vector<std::uint32_t>& indices,
                   unsigned axis, unsigned capacity, Random& random) {
  const auto count = static_cast<unsigned>(indices.size());
  vek_model::Memory params(vek_cases::AnyBits(random));
  vek_model::Memory list(indices);
  vek_model::Memory out(vek_cases::AnyBits(random));
  const std::string complaint = vek_model::Gather(sizeof(T), dims, axis, params, list, count, out, capacity);
  ExactBuffers buffers(AnyGuard(random));
  const Log log = CaptureLog([&] {
    EXPECT_EQ(Gather_v1(buffers.Of<const T>(params), dims, buffers.Of<const std::uint32_t>(list), {count},
                        axis, buffers.Of<T>(out), capacity),
              complaint.empty());
  });
  EXPECT_EQ(log, complaint.empty() ? Log{} : Log{Error(kKernelFile, complaint)});
  EXPECT_EQ(buffers.Difference(), "");
}

std::vector<std::uint32_t> AnyIndices(unsigned count, unsigned extent, Random& random) {
  std::vector<std::uint32_t> indices(count);
  for (std::uint32_t& index : indices) index = extent == 0 ? 0 : random.Between(0, extent - 1);
  return indices;
}

template <typename T>
void ExpectFormulaOverShapes() {
  Random random(13);
  for (unsigned outer : {0U, 1U, 2U, 3U, 4U, 5U, 9U}) {
    for (unsigned extent : {1U, 3U, 17U, 70U}) {
      for (unsigned inner : {0U, 1U, 2U, 3U, 4U, 5U, 7U, 8U, 16U, 17U, 33U, 100U}) {
        for (unsigned count : {0U, 1U, 2U, 3U, 4U, 5U, 16U, 31U}) {
          ExpectFormula<T>({outer, extent, inner}, AnyIndices(count, extent, random), 1,
                           outer * count * inner, random);
        }
      }
    }
  }
}

TEST(Gather, FloatsOverManyShapes) { ExpectFormulaOverShapes<float>(); }
TEST(Gather, ShortsOverManyShapes) { ExpectFormulaOverShapes<unsigned short>(); }
TEST(Gather, BytesOverManyShapes) { ExpectFormulaOverShapes<unsigned char>(); }

TEST(Gather, ABadIndexStopsBehindTheSlicesBeforeIt) {
  Random random(14);
  for (unsigned inner : {1U, 3U, 20U}) {
    for (std::size_t bad : {0U, 1U, 6U}) {
      for (std::uint32_t value : {5U, 6U, 0x80000000U, 0xFFFFFFFFU}) {
        std::vector<std::uint32_t> indices = AnyIndices(7, 5, random);
        indices[bad] = value;
        for (unsigned capacity : {0U, 2 * inner, 6 * inner, 7 * inner, 21 * inner}) {
          ExpectFormula<float>({3, 5, inner}, indices, 1, capacity, random);
        }
      }
    }
  }
}

// So many indices that blocks of them are compared at once: the first bad one counts, wherever it is in its block, and
// nothing behind it is needed.
TEST(Gather, ABadIndexStopsALongListWhereverItIs) {
  Random random(17);
  for (unsigned count : {32U, 33U, 64U, 100U, 150U}) {
    for (unsigned bad = 0; bad < count; bad += random.Between(1, 7)) {
      std::vector<std::uint32_t> indices = AnyIndices(count, 5, random);
      indices[bad] = random.OneIn(2) ? 5 : 0xFFFFFFFFU;
      if (random.OneIn(2)) indices[random.Between(bad, count - 1)] = 6;
      ExpectFormula<unsigned char>({1, 5, 1}, indices, 1, count, random);
    }
    ExpectFormula<unsigned char>({1, 5, 1}, AnyIndices(count, 5, random), 1, count, random);
  }
}

TEST(Gather, TheCapacityStopsBehindTheLastSliceThatFits) {
  Random random(15);
  for (unsigned inner : {1U, 2U, 3U, 20U}) {
    for (unsigned capacity = 0; capacity <= 12 * inner + 1; ++capacity) {
      ExpectFormula<unsigned short>({3, 5, inner}, AnyIndices(4, 5, random), 1, capacity, random);
    }
  }
}

TEST(Gather, SlicesWithoutElementsStillLookAtTheIndices) {
  Random random(16);
  ExpectFormula<float>({2, 5, 0}, {0, 4, 5}, 1, 0, random);
  ExpectFormula<float>({2, 5, 0}, {0, 4}, 1, 0, random);
  ExpectFormula<float>({2, 0, 3}, {0}, 1, 100, random);
  ExpectFormula<float>({0, 5, 3}, {7}, 1, 100, random);
}

TEST(Gather, IndicesOfAnyShapeAreOneFlatList) {
  const Buf params = Buf::Int(16, {4, 2});
  Layer layer("GATHER");
  ASSERT_TRUE(layer.Configure({{"axis", "0"}}, {params, Buf::Int(32, {2, 1, 2})}, {Buf::Int(16, {2, 2, 2})}));
  GuardedBuffer data = Guarded(std::vector<std::uint16_t>{0, 1, 10, 11, 20, 21, 30, 0xFFFF});
  GuardedBuffer indices = Guarded(std::vector<std::uint32_t>{3, 0, 2, 3});
  GuardedBuffer out(16);
  ASSERT_TRUE(layer.Execute({data.data(), indices.data()}, {out.data()}));
  EXPECT_EQ(out.Get<std::uint16_t>(), (std::vector<std::uint16_t>{30, 0xFFFF, 0, 1, 20, 21, 30, 0xFFFF}));
}

TEST(Gather, TheCapacityIsCountedByTheFourAccessors) {
  Buf out = Buf::Float({2, 2, 2, 2, 2});
  Layer layer("GATHER");
  ASSERT_TRUE(layer.Configure({{"axis", "0"}}, {Buf::Float({4}), Buf::Int(32, {17})}, {out}));
  std::vector<float> params = {1, 2, 3, 4};
  std::vector<std::uint32_t> indices(17, 2);
  std::vector<float> to(17);
  EXPECT_FALSE(layer.Execute({params.data(), indices.data()}, {to.data()}));
  EXPECT_EQ(layer.log, (Log{Error(kKernelFile, "Operation broken (avoiding memory corruption)"),
                            Error(kFile, "can't do Gather operation")}));
  EXPECT_EQ(to[15], 3.0F);
  EXPECT_EQ(to[16], 0.0F);
}

TEST(Gather, AskingTheDescriptionsDoesNotGrowWithTheTensor) {
  long calls[2];
  for (unsigned large : {0U, 1U}) {
    const unsigned extent = large != 0 ? 30 : 2;
    Layer layer("GATHER");
    ASSERT_TRUE(layer.Configure({{"axis", "1"}}, {Buf::Float({extent, extent}), Buf::Int(32, {extent})},
                                {Buf::Float({extent, extent})}));
    std::vector<float> params(900);
    std::vector<std::uint32_t> indices(30);
    std::vector<float> out(900);
    Buf::ResetCalls();
    ASSERT_TRUE(layer.Execute({params.data(), indices.data()}, {out.data()}));
    calls[large] = 0;
    for (const auto& count : Buf::calls) calls[large] += count;
  }
  EXPECT_EQ(calls[0], calls[1]);
}

}  // namespace
}  // namespace vek_test::gather
