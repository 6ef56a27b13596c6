// PERMUTE: the layer, its kernels and its scratch.
#include "custom_ops/vek_permute.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <numeric>

#include "cases/layer_case.h"
#include "model/vek_permute.h"
#include "support/formula_check.h"
#include "support/refusals.h"

namespace {

long g_allocations_left = -1;  // without exceptions, before one fails; -1: all succeed

}  // namespace

// Serves the library too.
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  if (g_allocations_left == 0) return nullptr;
  if (g_allocations_left > 0) --g_allocations_left;
  return ::operator new[](bytes);
}

namespace vek_test::permute {
namespace {

using vek_cases::AnyBits;
using vek_model::Memory;
using zeb_custom_ops::VekPermute;

const std::string kFile = "vek_permute.cpp";
const std::string kConverter = "vek_datastrideconv.cpp";

// The layer with its state laid open.
struct OpenPermute : VekPermute {
  using VekPermute::aux_bytes_;
  using VekPermute::aux_in_;
  using VekPermute::aux_out_;
  using VekPermute::axes_;
  using VekPermute::configured_;
  using VekPermute::in_attrs_;
  using VekPermute::out_attrs_;
};

std::string ListText(const std::vector<unsigned>& axes) {
  std::string text = "[";
  for (std::size_t i = 0; i < axes.size(); ++i) text += (i == 0 ? "" : ",") + std::to_string(axes[i]);
  return text + "]";
}

std::vector<unsigned> Permuted(const std::vector<unsigned>& dims, const std::vector<unsigned>& order) {
  std::vector<unsigned> permuted;
  for (std::size_t i = 0; i < dims.size(); ++i) permuted.push_back(dims[order[i]]);
  return permuted;
}

Log OneError(const std::string& text) { return {Error(kFile, text)}; }

// Configures and executes a new layer next to the model. \return what Execute says, nothing where it succeeds.
Log RunPermute(const std::vector<unsigned>& axes, const Buf& in, const Buf& out) {
  Random random(1);
  const auto result = vek_cases::RunSetups("PERMUTE", {{{{"axes", ListText(axes)}}, {in}, {out}}}, random);
  EXPECT_EQ(result.difference, "");
  EXPECT_EQ(result.executed, result.log.empty() ? 2U : 0U);
  return result.log;
}

// What the model makes of bytes that go through the scratch.
void ModelOfBytes(const std::vector<unsigned>& axes, const Buf& in, Memory& in_data, const Buf& out,
                  Memory& out_data) {
  const auto order = vek_model::CompletedOrder(axes, in.dims.size());
  EXPECT_EQ(vek_model::PermuteThroughScratch(1, order, in, in_data, out, out_data).refusal, "");
}

// --- Configure.

std::vector<Fault> Faults() {
  return {{"no input", [](Setup& s) { s.in.clear(); },
           OneError("wrong number of inputs, expected: 1, got: 0"), "in"},
          {"two inputs", [](Setup& s) { s.in.push_back(s.in[0]); },
           OneError("wrong number of inputs, expected: 1, got: 2"), "in"},
          {"no output", [](Setup& s) { s.out.clear(); },
           OneError("wrong number of outputs, expected: 1, got: 0"), "out"},
          {"two outputs", [](Setup& s) { s.out.push_back(s.out[0]); },
           OneError("wrong number of outputs, expected: 1, got: 2"), "out"},
          {"no attribute", [](Setup& s) { s.attrs.clear(); },
           OneError("expecting exactly one attribute, got: 0"), "attrs"},
          {"two attributes",
           [](Setup& s) {
             s.attrs = {{"axes", "[0,1]"}, {"more", ""}};
           },
           OneError("expecting exactly one attribute, got: 2"), "attrs"},
          {"another attribute",
           [](Setup& s) {
             s.attrs = {{"Axes", "[0,1]"}};
           },
           OneError("expected operation parameter: axes not found."), "attrs"},
          {"too short a list",
           [](Setup& s) {
             s.attrs = {{"axes", "[]"}};
           },
           OneError("ERROR: Wrongly formated parameter string (too short)"), "attrs"},
          {"an open list",
           [](Setup& s) {
             s.attrs = {{"axes", "[0,1,2"}};
           },
           OneError("ERROR: Wrongly formated parameter string for software operation"), "attrs"},
          {"bit depths differ", [](Setup& s) { s.out[0].format.bitdepth = 8; },
           OneError("input bitdepth: 16, differs from output bitdepth: 8")},
          {"short input", [](Setup& s) { s.in[0].size = 239; },
           OneError("input buffer size too small, size: 239 bytes vs expected at least: 240 bytes.")},
          {"short output", [](Setup& s) { s.out[0].size = 239; },
           OneError("output buffer size too small, size: 239 bytes vs expected at least: 240 bytes.")}};
}

TEST(Permute, RefusesInOrder) {
  const Buf valid = Buf::Int(16, {2, 3, 4, 5});
  CheckOrderOfRefusals("PERMUTE", {{{"axes", "[0,1]"}}, {valid}, {valid}}, Faults());
}

TEST(Permute, ARefusalDoesNotAskForWhatOnlyItsTextNeeds) {
  const ScopedThreshold threshold(kNone);
  Buf buf = Buf::Float({2, 2});
  Layer layer("PERMUTE");
  Buf::ResetCalls();
  buf.size = 15;
  EXPECT_FALSE(layer.Configure({{"axes", "[1]"}}, {buf}, {buf}));
  EXPECT_EQ(Buf::calls[kGetSize], 1);
  EXPECT_EQ(layer.log, Log{});
}

TEST(Permute, SizesAreCountedIn64BitsAndFloatsAreFourBytes) {
  Buf large = Buf::Float({65536, 65536});
  large.format.bitdepth = 8;  // contradicts itself; `float` decides
  large.size = 7;
  Layer layer("PERMUTE");
  EXPECT_FALSE(layer.Configure({{"axes", "[0]"}}, {large}, {large}));
  EXPECT_EQ(layer.log,
            OneError("input buffer size too small, size: 7 bytes vs expected at least: 17179869184 bytes."));
}

TEST(Permute, ElementsThatAreNoNumbersReadAsZeroAndLongOnesKeepTheirLowBits) {
  OpenPermute layer;
  const BufAttrsList bufs = MakeList({Buf::Float({1})});
  EXPECT_TRUE(layer.Configure({{"axes", "[x, 3,-1,4294967297]"}}, bufs, bufs));
  EXPECT_EQ(layer.axes_, (std::vector<unsigned>{0, 3, 0xFFFFFFFF, 1}));
}

TEST(Permute, EveryConfigureAppendsItsAxes) {
  OpenPermute layer;
  const BufAttrsList bufs = MakeList({Buf::Float({2, 3})});
  EXPECT_TRUE(layer.Configure({{"axes", "[1]"}}, bufs, bufs));
  EXPECT_TRUE(layer.Configure({{"axes", "[0,1]"}}, bufs, bufs));
  EXPECT_EQ(layer.axes_, (std::vector<unsigned>{1, 0, 1}));
  // Also one that is refused after the attribute was read.
  Buf small = Buf::Float({2, 3});
  small.size = 3;
  const BufAttrsList small_bufs = MakeList({small});
  CaptureLog([&] { EXPECT_FALSE(layer.Configure({{"axes", "[7]"}}, small_bufs, bufs)); });
  EXPECT_EQ(layer.axes_, (std::vector<unsigned>{1, 0, 1, 7}));
  EXPECT_TRUE(layer.configured_);
}

TEST(Permute, ARefusedConfigureLeavesTheNewDescriptionsInPlace) {
  OpenPermute layer;
  const BufAttrsList old = MakeList({Buf::Float({2, 3})});
  const BufAttrsList fresh = MakeList({Buf::Float({5, 7, 2})});
  EXPECT_TRUE(layer.Configure({{"axes", "[1]"}}, old, old));
  CaptureLog([&] { EXPECT_FALSE(layer.Configure({}, fresh, fresh)); });
  EXPECT_EQ(layer.in_attrs_->GetNumDims(), 3U);
  EXPECT_EQ(layer.out_attrs_->GetNumDims(), 3U);
  EXPECT_TRUE(layer.configured_);
  // Wrong counts are found before anything is kept.
  CaptureLog([&] { EXPECT_FALSE(layer.Configure({}, MakeList({}), old)); });
  EXPECT_EQ(layer.in_attrs_->GetNumDims(), 3U);
}

TEST(Permute, ExecuteRefusesInOrder) {
  Layer layer("PERMUTE");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, OneError("custom layer not configured."));
  EXPECT_TRUE(layer.Configure({{"axes", "[1]"}}, {Buf::Float({2, 3})}, {Buf::Float({3, 2})}));
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, OneError("in_buffers is NULL."));
  void* pointers[] = {nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(pointers, nullptr));
  EXPECT_EQ(layer.log, OneError("out_buffers is NULL."));
  EXPECT_FALSE(layer.ExecuteRaw(pointers, pointers));
  EXPECT_EQ(layer.log, OneError("Permute_v1 input or output buffer is null."));
}

// --- The choice of a path.

TEST(Permute, APartialListIsCompleted) {
  const Buf in = Buf::Float({2, 3});
  const Buf out = Buf::Float({3, 2});
  const GuardedBuffer source = Guarded(std::vector<float>{1, 2, 3, 4, 5, 6});
  const GuardedBuffer target(24);
  for (const char* axes : {"[1]", "[1,0]", "[[1,0]]", "[1, 0]"}) {
    Layer layer("PERMUTE");
    ASSERT_TRUE(layer.Configure({{"axes", axes}}, {in}, {out}));
    EXPECT_TRUE(layer.Execute({source.data()}, {target.data()}));
    EXPECT_EQ(target.Get<float>(), (std::vector<float>{1, 4, 2, 5, 3, 6})) << axes;
  }
}

TEST(Permute, OtherRanksThanFourAreForPlainFloatsOnly) {
  const std::string text = "Execute() - unhandled permute case!";
  EXPECT_EQ(RunPermute({1}, Buf::Int(16, {2, 3, 4}), Buf::Int(16, {3, 2, 4})), OneError(text));
  EXPECT_EQ(RunPermute({1}, Buf::Int(32, {2, 3}), Buf::Int(32, {3, 2})), OneError(text));
  EXPECT_EQ(RunPermute({1}, Buf::Int(32, {2, 3, 1, 1}), Buf::Int(32, {3, 2})), OneError(text));
  Buf odd = Buf::Int(12, {2, 3, 1, 1});
  odd.size = 9;
  EXPECT_EQ(RunPermute({1}, odd, odd), OneError(text));
  EXPECT_EQ(RunPermute({1}, Buf::Int(24, {2, 3, 1, 1}), Buf::Int(24, {3, 2, 1, 1})),
            OneError("DirectAcessPermute() - unhandled bitdepth!"));
  EXPECT_EQ(RunPermute({1}, Buf::Float({2, 3, 4}), Buf::Float({3, 2, 4})), Log{});
}

TEST(Permute, LayoutPathsRefuseOtherBitDepthsFirst) {
  EXPECT_EQ(RunPermute({0, 2, 3, 1}, Buf::Int(24, {2, 3}), Buf::Int(24, {2, 3})),
            OneError("UnpackToNhwc() - unhandled bitdepth!"));
  EXPECT_EQ(RunPermute({0, 3, 1, 2}, Buf::Int(24, {2, 3}), Buf::Int(24, {2, 3})),
            OneError("PackToNchw() - unhandled bitdepth!"));
}

TEST(Permute, LayoutPathsNeedFourDims) {
  const auto not_first = [](const std::string& in, const std::string& out) {
    return OneError("can't make " + in + "D data channel-first " + out +
                    "D data, expected at least 3D and 4D");
  };
  for (const std::vector<unsigned>& dims : {std::vector<unsigned>{}, {6}, {2, 3}, {2, 3, 1}}) {
    const std::string rank = std::to_string(dims.size());
    const Buf buf = Buf::Float(dims);
    EXPECT_EQ(RunPermute({0, 2, 3, 1}, buf, buf),
              OneError("can't make " + rank + "D data channel-last, 4D expected"));
    EXPECT_EQ(RunPermute({0, 3, 1, 2}, buf, buf), not_first(rank, rank));
  }
  EXPECT_EQ(RunPermute({0, 3, 1, 2}, Buf::Float({1, 2, 3, 1}), Buf::Float({1, 2, 3})), not_first("4", "3"));
}

TEST(Permute, PackingDoesNotLookAtTheInputsFourthDim) {
  Buf in = Buf::Int(8, {1, 3, 4, 2});
  in.strided = false;
  in.dims = {1, 3, 4};
  EXPECT_EQ(RunPermute({0, 3, 1, 2}, in, Buf::Int(8, {1, 2, 3, 4})), Log{});
  in.dims = {1, 3};
  EXPECT_EQ(RunPermute({0, 3, 1, 2}, in, Buf::Int(8, {1, 2, 3, 4})),
            OneError("can't make 2D data channel-first 4D data, expected at least 3D and 4D"));
  // By eye: two pixels of two channels.
  in = Buf::Int(8, {1, 1, 2, 2});
  in.strided = false;
  in.dims = {1, 1, 2};
  const GuardedBuffer source = Guarded<signed char>({1, 2, 3, 4});
  const GuardedBuffer target(4);
  Layer layer("PERMUTE");
  ASSERT_TRUE(layer.Configure({{"axes", "[0,3,1,2]"}}, {in}, {Buf::Int(8, {1, 2, 1, 2})}));
  EXPECT_TRUE(layer.Execute({source.data()}, {target.data()}));
  EXPECT_EQ(target.Get<signed char>(), (std::vector<signed char>{1, 3, 2, 4}));
}

TEST(Permute, LayoutPathsNeedAPlanePack) {
  Buf bad = Buf::Int(8, {1, 2, 3, 4});
  bad.format.plane_pack = 0;
  EXPECT_EQ(RunPermute({0, 2, 3, 1}, bad, Buf::Int(8, {1, 3, 4, 2})),
            OneError("input plane pack is 0, but should be at least 1"));
  EXPECT_EQ(RunPermute({0, 3, 1, 2}, Buf::Int(8, {1, 2, 3, 4}), bad),
            OneError("output plane pack is 0, but should be at least 1"));
}

TEST(Permute, EmptyTensorsNeedNoPlanePack) {
  for (const int pack : {0, -2}) {
    for (std::size_t i = 0; i < 4; ++i) {
      std::vector<unsigned> dims = {1, 2, 3, 4};
      dims[i] = 0;
      Buf bad = Buf::Int(8, dims);
      bad.format.plane_pack = pack;
      // Each path: to channel-last, to channel-first, and through the scratch in and out.
      EXPECT_EQ(RunPermute({0, 2, 3, 1}, bad, Buf::Int(8, Permuted(dims, {0, 2, 3, 1}))), Log{});
      EXPECT_EQ(RunPermute({0, 3, 1, 2}, Buf::Int(8, Permuted(dims, {0, 2, 3, 1})), bad), Log{});
      EXPECT_EQ(RunPermute({0, 1, 3, 2}, bad, Buf::Int(8, Permuted(dims, {0, 1, 3, 2}))), Log{});
      EXPECT_EQ(RunPermute({0, 1, 3, 2}, Buf::Int(8, Permuted(dims, {0, 1, 3, 2})), bad), Log{});
    }
  }
}

TEST(Permute, PackingRefusesLinesThatEndInsideAnElement) {
  Buf out = Buf::Int(16, {1, 2, 3, 4}).Pad(1, 0);
  EXPECT_EQ(RunPermute({0, 3, 1, 2}, Buf::Int(16, {1, 3, 4, 2}), out),
            OneError("Unsupported stride in PackToNchw()."));
  out = Buf::Int(8, {1, 2, 3, 4}).Pad(1, 0);
  EXPECT_EQ(RunPermute({0, 3, 1, 2}, Buf::Int(8, {1, 3, 4, 2}), out), Log{});
}

TEST(Permute, CountsFromByteSizesMustAgree) {
  Buf out = Buf::Float({3, 2});
  out.size += 4;
  EXPECT_EQ(RunPermute({1}, Buf::Float({2, 3}), out),
            OneError("Permute_v1 wrong size of buffers. (input: 6 output: 7)"));
}

TEST(Permute, BytesBeyondTheDimsAreWrittenToo) {
  Buf in = Buf::Float({2, 3});
  Buf out = Buf::Float({3, 2});
  in.size = out.size = 40;
  EXPECT_EQ(RunPermute({1}, in, out), Log{});
}

TEST(Permute, AnAxisThatTheInputDoesNotHaveIsRefused) {
  EXPECT_EQ(RunPermute({0, 4}, Buf::Float({1, 2, 3, 4}), Buf::Float({1, 2, 3, 4})),
            OneError("axes name a dimension that 4D input does not have"));
  EXPECT_EQ(RunPermute({0, 4}, Buf::Int(8, {1, 2, 3, 4}), Buf::Int(8, {1, 2, 3, 4})),
            OneError("axes name a dimension that 4D input does not have"));
  EXPECT_EQ(RunPermute({0, 1, 2, 3, 7}, Buf::Float({1, 2, 3, 4}), Buf::Float({1, 2, 3, 4})), Log{})
      << "a fifth axis is not looked at";
}

TEST(Permute, RepeatedAxesFollowTheFormula) {
  EXPECT_EQ(RunPermute({1, 1}, Buf::Float({3, 2}), Buf::Float({3, 2})), Log{});
  EXPECT_EQ(RunPermute({0, 0, 1}, Buf::Float({3, 2, 2}), Buf::Float({3, 2, 2})), Log{});
  // Through scratch they must stay inside it.
  EXPECT_EQ(RunPermute({3, 3, 3, 3}, Buf::Int(8, {1, 1, 2, 2}), Buf::Int(8, {1, 1, 2, 2})), Log{});
  EXPECT_EQ(RunPermute({0, 0, 1, 2}, Buf::Int(8, {2, 2, 2, 2}), Buf::Int(8, {2, 2, 2, 2})),
            OneError("repeated axes lead outside the 16 elements of the input"));
}

TEST(Permute, ATensorWithoutDimsRepeatsItsFirstElement) {
  Buf scalar = Buf::Float({});
  scalar.size = 12;
  EXPECT_EQ(RunPermute({0}, scalar, scalar), Log{});
}

// --- Direct access: scratch and refusals.

TEST(Permute, ScratchIsAllocatedOnceAndReplacedWhenTooSmall) {
  Random random(3);
  OpenPermute layer;
  const auto run = [&](std::vector<unsigned> dims) {
    const Buf in = Buf::Int(8, dims);
    const Buf out = Buf::Int(8, {dims[0], dims[1], dims[3], dims[2]});
    layer.axes_.clear();
    EXPECT_TRUE(layer.Configure({{"axes", "[0,1,3,2]"}}, MakeList({in}), MakeList({out})));
    ExpectSameBytes(
        random, [&](Memory& from, Memory& to) { ModelOfBytes(layer.axes_, in, from, out, to); },
        [&](void* from, void* to) { EXPECT_TRUE(layer.Execute(&from, &to)); });
  };
  EXPECT_EQ(layer.aux_in_, nullptr);
  run({1, 2, 3, 4});
  EXPECT_EQ(layer.aux_bytes_, 48U);
  const signed char* held = layer.aux_in_.get();
  run({1, 2, 3, 4});
  run({1, 1, 3, 4});
  EXPECT_EQ(layer.aux_in_.get(), held);
  EXPECT_EQ(layer.aux_bytes_, 48U);
  run({1, 20, 30, 40});
  EXPECT_EQ(layer.aux_bytes_, 48U + 2 * 24000U);
  run({1, 2, 3, 4});
  EXPECT_EQ(layer.aux_bytes_, 48U + 2 * 24000U);

  // Half of it could not be had: the other half is asked for again, alone.
  layer.aux_out_.reset();
  run({1, 2, 3, 4});
  EXPECT_EQ(layer.aux_bytes_, 48U + 2 * 24000U + 24U);
  run({1, 4, 3, 4});
  EXPECT_EQ(layer.aux_bytes_, 48U + 2 * 24000U + 24U + 48U);
}

TEST(Permute, ScratchThatCannotBeHadIsSaidAndAskedForAgain) {
  OpenPermute layer;
  const BufAttrsList in = MakeList({Buf::Int(8, {1, 2, 3, 4})});
  const BufAttrsList out = MakeList({Buf::Int(8, {1, 2, 4, 3})});
  EXPECT_TRUE(layer.Configure({{"axes", "[0,1,3,2]"}}, in, out));
  std::vector<signed char> data(24);
  std::vector<signed char> result(24);
  void* ins[] = {data.data()};
  void* outs[] = {result.data()};
  for (const long succeed : {0L, 1L}) {
    g_allocations_left = succeed;
    const Log log = CaptureLog([&] { EXPECT_FALSE(layer.Execute(ins, outs)); });
    g_allocations_left = -1;
    EXPECT_EQ(log, OneError("failed to allocate auxiliary buffers of size: 24 bytes"));
  }
  EXPECT_EQ(layer.aux_bytes_, 24U + 48U) << "what failed counts as asked for";
  EXPECT_TRUE(layer.Execute(ins, outs));
  EXPECT_EQ(layer.aux_bytes_, 96U);
}

TEST(Permute, LazyBufAllocKeepsWhatIsThere) {
  OpenPermute layer;
  std::unique_ptr<signed char[]> buf;
  EXPECT_TRUE(layer.LazyBufAlloc(buf, 10));
  const signed char* held = buf.get();
  EXPECT_NE(held, nullptr);
  EXPECT_EQ(layer.aux_bytes_, 10U);
  EXPECT_TRUE(layer.LazyBufAlloc(buf, 1000000));
  EXPECT_EQ(buf.get(), held);
  EXPECT_EQ(layer.aux_bytes_, 10U);
  std::unique_ptr<signed char[]> empty;
  EXPECT_TRUE(layer.LazyBufAlloc(empty, 0));
  EXPECT_NE(empty, nullptr);
}

TEST(Permute, TheConverterSpeaksForItself) {
  // 32-bit fixed point cannot change its interleaving, on the way in or out.
  const Buf planar = Buf::Int(32, {1, 4, 2, 2});
  Buf packed = planar;
  packed.format.plane_pack = 4;
  packed.Pad(0, 0);
  const std::string text = " unsupported input memory format. Fixed point bitdepth:  32";
  for (const auto& [in, out] : {std::pair(packed, planar), std::pair(planar, packed)}) {
    EXPECT_EQ(RunPermute({0, 1, 3, 2}, in, out), (Log{Error(kConverter, text)}));
  }
}

TEST(Permute, ADenseOutputGetsTheBytesOfTheInputsElementsHoweverManyItHas) {
  const Buf in = Buf::Int(8, {1, 2, 3, 4});
  for (const std::vector<unsigned>& dims : {std::vector<unsigned>{1, 2, 4, 4}, {1, 9, 4, 3}, {1, 2, 4, 3}}) {
    EXPECT_EQ(RunPermute({0, 1, 3, 2}, in, Buf::Int(8, dims)), Log{});
  }
  // Also from an input that goes through the scratch, and of no elements.
  EXPECT_EQ(RunPermute({0, 1, 3, 2}, Buf::Int(8, {1, 2, 3, 4}).Pad(3, 0), Buf::Int(8, {1, 2, 4, 4})), Log{});
  EXPECT_EQ(RunPermute({0, 1, 3, 2}, Buf::Int(8, {1, 0, 3, 4}), Buf::Int(8, {1, 2, 4, 4})), Log{});
  // By eye: the two elements of the input, and nothing behind them.
  const GuardedBuffer source = Guarded<signed char>({1, 2});
  GuardedBuffer target(4);
  target.Fill(0x55);
  Layer layer("PERMUTE");
  ASSERT_TRUE(
      layer.Configure({{"axes", "[0,1,3,2]"}}, {Buf::Int(8, {1, 1, 1, 2})}, {Buf::Int(8, {1, 1, 2, 2})}));
  EXPECT_TRUE(layer.Execute({source.data()}, {target.data()}));
  EXPECT_EQ(target.Get<signed char>(), (std::vector<signed char>{1, 2, 0x55, 0x55}));
}

TEST(Permute, APaddedOrInterleavedOutputLargerThanTheScratchIsRefused) {
  const Buf padded = Buf::Int(8, {1, 2, 4, 4}).Pad(3, 0);
  EXPECT_EQ(RunPermute({0, 1, 3, 2}, Buf::Int(8, {1, 2, 3, 4}), padded),
            OneError("output needs more than the 24 bytes of the auxiliary buffer"));
  const Buf interleaved = Buf::Packed({1, 2, 4, 4}, Buf::Planar(8, false, 4));
  EXPECT_EQ(RunPermute({0, 1, 3, 2}, Buf::Int(8, {1, 2, 3, 4}), interleaved),
            OneError("output needs more than the 24 bytes of the auxiliary buffer"));
  // What the converter refuses needs no scratch.
  const Buf words = Buf::Packed({1, 2, 4, 4}, Buf::Planar(32, false, 4));
  EXPECT_EQ(RunPermute({0, 1, 3, 2}, Buf::Int(32, {1, 2, 3, 4}), words),
            (Log{Error(kConverter, " unsupported input memory format. Fixed point bitdepth:  32")}));
}

TEST(Permute, ALargerInputBufferDoesNotOverrunTheScratch) {
  Buf in = Buf::Int(8, {1, 2, 3, 4});
  in.size = 4000;
  EXPECT_EQ(RunPermute({0, 1, 3, 2}, in, Buf::Int(8, {1, 2, 4, 3})), Log{});
}

TEST(Permute, AnInputWhoseBytesWrapIsRefused) {
  // Left behind by a refused Configure: 2^32 elements are 0 in 32 bits, 65537 times 65536 are 65536.
  for (const unsigned N : {65536U, 65537U}) {
    for (const int pack : {1, 4}) {
      Buf large = Buf::Packed({N, 65536, 1, 1}, Buf::Planar(8, false, pack));
      large.size = 100;
      large.strided = true;
      Layer layer("PERMUTE");
      const Buf small = Buf::Int(8, {1, 1, 1, 1});
      EXPECT_TRUE(layer.Configure({{"axes", "[1]"}}, {small}, {small}));
      EXPECT_FALSE(layer.Configure({{"axes", "[1]"}}, {large}, {small}));
      signed char byte = 0;
      EXPECT_FALSE(layer.Execute({&byte}, {&byte}));
      EXPECT_EQ(layer.log, OneError("input needs more than the " + std::to_string(N % 65536 * 65536) +
                                    " bytes of the auxiliary buffer"));
    }
  }
}

TEST(Permute, AnInputShorterThanItsDimsIsReadNoFurtherThanItGoes) {
  OpenPermute layer;
  layer.axes_ = {0, 1, 3, 2};
  const Buf buf = Buf::Int(8, {1, 1, 2, 2});
  const GuardedBuffer source = Guarded<signed char>({1, 2});
  const GuardedBuffer target(4);
  ASSERT_TRUE(
      layer.DirectAcessPermute<char>(buf, source.as<signed char>(), 2, buf, target.as<signed char>(), 4));
  EXPECT_EQ(target.Get()[0], 1);
  EXPECT_EQ(target.Get()[2], 2);
}

TEST(Permute, WhatABufferHoldsBeyondEmptyDimsFollowsTheFormula) {
  // Ten floats on each side, none of which belongs to an element.
  for (const std::vector<unsigned>& dims : {std::vector<unsigned>{2, 0, 2, 3}, {2, 3, 0, 2}}) {
    Buf in = Buf::Float(dims);
    Buf out = Buf::Float(Permuted(dims, {0, 1, 3, 2}));
    in.size = out.size = 40;
    EXPECT_EQ(RunPermute({0, 1, 3, 2}, in, out), Log{});
  }
}

TEST(Permute, DirectAccessRunsInPlaceThroughItsScratch) {
  Random random(1);
  for (const unsigned row_pad : {0U, 3U}) {
    const Buf in = Buf::Int(8, {1, 2, 3, 4}).Pad(row_pad, 0);
    const Buf out = Buf::Int(8, {1, 2, 4, 3});
    Memory source(AnyBits(random));
    Memory target(AnyBits(random));
    ModelOfBytes({0, 1, 3, 2}, in, source, out, target);
    const GuardedBuffer data = Guarded(source.Initial());
    Layer layer("PERMUTE");
    ASSERT_TRUE(layer.Configure({{"axes", "[0,1,3,2]"}}, {in}, {out}));
    EXPECT_TRUE(layer.Execute({data.data()}, {data.data()}));
    std::vector<std::uint8_t> got = data.Get();
    got.resize(target.reach());
    EXPECT_EQ(got, target.Get());
  }
}

TEST(Permute, DirectAccessReadsAnOverlappingInputBeforeItWrites) {
  // Dense on both sides; the output begins inside the input, or ends there.
  Random random(2);
  const Buf in = Buf::Int(8, {1, 2, 3, 4});
  const Buf out = Buf::Int(8, {1, 2, 4, 3});
  Memory source(AnyBits(random));
  Memory target(AnyBits(random));
  ModelOfBytes({0, 1, 3, 2}, in, source, out, target);
  const std::vector<std::uint8_t> input = source.Initial();
  ASSERT_EQ(input.size(), 24U);
  for (std::size_t in_at = 0; in_at <= 48; ++in_at) {
    const GuardedBuffer data(72);
    std::uint8_t* bytes = data.as<std::uint8_t>();
    std::copy(input.begin(), input.end(), bytes + in_at);
    Layer layer("PERMUTE");
    ASSERT_TRUE(layer.Configure({{"axes", "[0,1,3,2]"}}, {in}, {out}));
    EXPECT_TRUE(layer.Execute({bytes + in_at}, {bytes + 24}));
    EXPECT_EQ(std::vector<std::uint8_t>(bytes + 24, bytes + 48), target.Get()) << "input at " << in_at;
  }
}

TEST(Permute, EmptyTensorsNeedNoData) {
  const Buf empty = Buf::Int(8, {1, 0, 3, 3});
  Layer layer("PERMUTE");
  ASSERT_TRUE(layer.Configure({{"axes", "[0,1,3,2]"}}, {empty}, {empty}));
  EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Permute, DescriptionsAreClonedTwiceByDirectAccess) {
  Layer layer("PERMUTE");
  const Buf in = Buf::Int(8, {1, 2, 3, 4});
  const Buf out = Buf::Int(8, {1, 2, 4, 3});
  ASSERT_TRUE(layer.Configure({{"axes", "[0,1,3,2]"}}, {in}, {out}));
  std::vector<signed char> data(in.size);
  std::vector<signed char> result(out.size);
  const ExpectNoLeakedClones no_leaks;
  Buf::ResetCalls();
  EXPECT_TRUE(layer.Execute({data.data()}, {result.data()}));
  EXPECT_EQ(Buf::calls[kClone], 2);
  EXPECT_EQ(Buf::calls[kSetLineStride], 2);
  EXPECT_EQ(Buf::calls[kSetPlaneStride], 2);
  EXPECT_EQ(Buf::calls[kSetPlanePack], 2);
}

// --- What only a caller of the kernels reaches.

TEST(Permute, ProductStartsWhereItIsTold) {
  VekPermute layer;
  const std::vector<unsigned> v = {2, 3, 5};
  EXPECT_EQ(layer.Product(v, 0), 30U);
  EXPECT_EQ(layer.Product(v, 2), 5U);
  EXPECT_EQ(layer.Product(v, 3), 1U);
  EXPECT_EQ(layer.Product(v, 9), 1U);
  EXPECT_EQ(layer.Product(v, -1), 1U);
  EXPECT_EQ(layer.Product({65536, 65537}, 0), 65536U);
}

TEST(Permute, VerifyOutDimensionsComparesUpToTheFirstDifference) {
  VekPermute layer;
  const Buf in = Buf::Float({2, 3, 5});
  const auto says = [&](const std::vector<unsigned>& axes, const std::vector<unsigned>& out_dims) {
    bool result = true;
    const Log log = CaptureLog([&] { result = layer.VerifyOutDimensions(axes, in, Buf::Float(out_dims)); });
    EXPECT_EQ(result, log.empty());
    return log;
  };
  EXPECT_EQ(says({}, {9}), Log{});
  EXPECT_EQ(says({2, 0, 1}, {5, 2, 3}), Log{});
  EXPECT_EQ(says({2, 0, 1}, {5, 3, 2}), OneError("wrong output dimension: out_dim[1] = 3, should be: 2"));
  EXPECT_EQ(says({3}, {5}), OneError("axis 3 of 3D input as dimension 0 of 1D output"));
  EXPECT_EQ(says({0, 1}, {2}), OneError("axis 1 of 3D input as dimension 1 of 1D output"));
}

TEST(Permute, TheKernelRefusesNullBeforeCounts) {
  VekPermute layer;
  float value = 0;
  const Buf buf = Buf::Float({1});
  const auto says = [&](float* in, float* out, unsigned out_count) {
    return CaptureLog([&] { EXPECT_FALSE(layer.Permute_v1<float>(buf, in, 1, out, out_count)); });
  };
  EXPECT_EQ(says(nullptr, &value, 2), OneError("Permute_v1 input or output buffer is null."));
  EXPECT_EQ(says(&value, nullptr, 2), OneError("Permute_v1 input or output buffer is null."));
  EXPECT_EQ(says(&value, &value, 2), OneError("Permute_v1 wrong size of buffers. (input: 1 output: 2)"));
}

// --- Kernels against their formulas.

template <typename T>
void SweepPermutations() {
  const int bits = 8 * static_cast<int>(sizeof(T));
  Random random(1);
  for (const std::vector<unsigned>& dims : {std::vector<unsigned>{17},
                                            {0},
                                            {3, 5},
                                            {16, 33},
                                            {1, 64},
                                            {2, 3, 17},
                                            {5, 1, 16},
                                            {3, 0, 2},
                                            {33, 17, 4},
                                            {2, 3, 5, 7},
                                            {1, 16, 16, 3},
                                            {4, 4, 4, 4},
                                            {1, 3, 32, 17},
                                            {2, 1, 3, 1, 17},
                                            {3, 2, 5, 2, 4},
                                            {2, 3, 2, 3, 2, 5}}) {
    std::vector<unsigned> order(dims.size());
    std::iota(order.begin(), order.end(), 0U);
    do {
      OpenPermute layer;
      layer.axes_ = order;
      const Buf in = Buf::Int(bits, dims);
      const auto count = static_cast<unsigned>(in.Count());
      SCOPED_TRACE(ListText(dims) + " by " + ListText(order));
      ExpectSameBytes(
          random,
          [&](Memory& from, Memory& to) {
            EXPECT_TRUE(vek_model::PermuteDense(sizeof(T), dims, order, from, to, count));
          },
          [&](void* from, void* to) {
            EXPECT_TRUE(
                layer.template Permute_v1<T>(in, static_cast<T*>(from), count, static_cast<T*>(to), count));
          });
      if (testing::Test::HasFailure()) return;
    } while (std::next_permutation(order.begin(), order.end()));
  }
}

TEST(PermuteKernel, EqualsItsFormulaForBytes) { SweepPermutations<char>(); }
TEST(PermuteKernel, EqualsItsFormulaForHalves) { SweepPermutations<short>(); }
TEST(PermuteKernel, EqualsItsFormulaForFloats) { SweepPermutations<float>(); }

TEST(PermuteKernel, FewerElementsThanTheDimsHaveAreWrittenInOrder) {
  OpenPermute layer;
  layer.axes_ = {1, 0};
  const GuardedBuffer source = Guarded<float>({0, 1, 2, 3, 4});
  const GuardedBuffer target(16);
  ASSERT_TRUE(layer.Permute_v1<float>(Buf::Float({2, 3}), source.as<float>(), 4, target.as<float>(), 4));
  EXPECT_EQ(target.Get<float>(), (std::vector<float>{0, 3, 1, 4}));
}

TEST(PermuteKernel, RanksBeyondAnyStridedCopyAreServedToo) {
  const Buf in = Buf::Float({2, 1, 3, 2, 1, 2, 2, 3, 1});
  const std::vector<unsigned> order = {8, 3, 5, 1, 7, 2, 0, 6, 4};
  EXPECT_EQ(RunPermute(order, in, Buf::Float(Permuted(in.dims, order))), Log{});
}

struct LayoutCase {
  unsigned N, C, H, W;
  int pack;
  unsigned row_pad, plane_pad;  // elements
};

std::vector<LayoutCase> LayoutCases() {
  std::vector<LayoutCase> cases;
  for (const unsigned C : {1U, 2U, 3U, 4U, 5U, 16U, 17U, 33U}) {
    for (const int pack : {1, 2, 3, 4, 5, 16, 17, 40}) {
      for (const unsigned W : {1U, 3U, 16U, 17U}) {
        const unsigned k = static_cast<unsigned>(cases.size());
        cases.push_back({1 + k % 2, C, 1 + k % 3, W, pack, k % 4, k % 5 == 0 ? k % 7 : 0});
        // Plane padding of whole lines keeps every plane at a multiple of a line.
        const unsigned row_pad = k % 3;
        cases.push_back({2, C, 2, W, pack, row_pad, static_cast<unsigned>(pack) * W + row_pad});
      }
    }
  }
  return cases;
}

TEST(PermuteKernel, UnpackingEqualsItsFormula) {
  for (const int bits : {8, 16, 32}) {
    for (const LayoutCase& c : LayoutCases()) {
      Buf in = Buf::Packed({c.N, c.C, c.H, c.W}, Buf::Planar(bits, false, c.pack));
      in.Pad(c.row_pad * in.ElementBytes(), c.plane_pad * in.ElementBytes());
      const Buf out = Buf::Int(bits, {c.N, c.H, c.W, c.C});
      ASSERT_EQ(RunPermute({0, 2, 3, 1}, in, out), Log{});
      if (HasFailure()) return;
    }
  }
}

TEST(PermuteKernel, PackingEqualsItsFormulaAndKeepsUnusedSlots) {
  for (const int bits : {8, 16, 32}) {
    for (const LayoutCase& c : LayoutCases()) {
      Buf out = Buf::Packed({c.N, c.C, c.H, c.W}, Buf::Planar(bits, false, c.pack));
      out.Pad(c.row_pad * out.ElementBytes(), c.plane_pad * out.ElementBytes());
      ASSERT_EQ(RunPermute({0, 3, 1, 2}, Buf::Int(bits, {c.N, c.H, c.W, c.C}), out), Log{});
      if (HasFailure()) return;
    }
  }
}

TEST(PermuteKernel, PackingStepsOverTheInputsPaddingThatItsDescriptionDenies) {
  Buf in = Buf::Int(8, {2, 3, 4, 5}).Pad(0, 6);
  in.strided = false;
  for (const int pack : {1, 2, 5, 8}) {
    Buf out = Buf::Packed({2, 5, 3, 4}, Buf::Planar(8, false, pack)).Pad(3, 2);
    EXPECT_EQ(RunPermute({0, 3, 1, 2}, in, out), Log{});
  }
}

// A description that denies its padding.
Buf WithStrides(Buf buf, unsigned line, unsigned plane) {
  buf.line_stride = line;
  buf.plane_stride = plane;
  buf.strided = false;
  return buf;
}

TEST(PermuteKernel, MalformedStridesFollowTheFormulas) {
  const Buf nhwc = Buf::Int(8, {2, 3, 4, 5});
  for (const int pack : {1, 2, 5, 8}) {
    const Buf nchw = Buf::Packed({2, 5, 3, 4}, Buf::Planar(8, false, pack));
    for (const auto& [line, plane] :
         {std::pair(0U, 0U), {0U, 12U}, {3U, 9U}, {3U, 40U}, {7U, 7U}, {33U, 100U}}) {
      SCOPED_TRACE(testing::Message() << "pack " << pack << ", line " << line << ", plane " << plane);
      EXPECT_EQ(RunPermute({0, 2, 3, 1}, WithStrides(nchw, line, plane), nhwc), Log{});
      EXPECT_EQ(RunPermute({0, 3, 1, 2}, nhwc, WithStrides(nchw, line, plane)), Log{});
    }
  }
}

TEST(PermuteKernel, UnpackingRoundsThePositionUpToAMultipleOfTheLine) {
  // Planes of two 4-byte lines and 3 bytes of padding: the second plane begins at 11, its second row at 16.
  const Buf in = Buf::Int(8, {1, 2, 2, 3}).Pad(1, 3);
  const Buf out = Buf::Int(8, {1, 2, 3, 2});
  std::vector<std::uint8_t> data(in.size);
  std::iota(data.begin(), data.end(), std::uint8_t{0});
  const GuardedBuffer source = Guarded(data);
  const GuardedBuffer target(out.size);
  Layer layer("PERMUTE");
  ASSERT_TRUE(layer.Configure({{"axes", "[0,2,3,1]"}}, {in}, {out}));
  EXPECT_TRUE(layer.Execute({source.data()}, {target.data()}));
  EXPECT_EQ(target.Get(), (std::vector<std::uint8_t>{0, 11, 1, 12, 2, 13, 4, 16, 5, 17, 6, 18}));
}

TEST(PermuteKernel, PositionsThatWouldWrapFurtherOnFollowTheFormulas) {
  // One plane, behind which the next would lie beyond 2^32: without a line, and with one.
  for (const unsigned line : {0U, 2U}) {
    EXPECT_EQ(RunPermute({0, 2, 3, 1}, WithStrides(Buf::Int(8, {1, 1, 1, 2}), line, 0xFFFFFFFF),
                         Buf::Int(8, {1, 1, 2, 1})),
              Log{});
  }
  // One row of the plane, behind which the next would.
  for (const int pack : {1, 2, 3, 4}) {
    EXPECT_EQ(RunPermute({0, 3, 1, 2}, WithStrides(Buf::Int(8, {1, 1, 2, 3}), 3, 0xFFFFFFFF),
                         Buf::Packed({1, 3, 1, 2}, Buf::Planar(8, false, pack))),
              Log{});
  }
  // Rows that begin inside the row before them.
  for (const int pack : {1, 2, 5, 8}) {
    EXPECT_EQ(RunPermute({0, 3, 1, 2}, WithStrides(Buf::Int(8, {2, 3, 4, 5}), 5, 17),
                         Buf::Packed({2, 5, 3, 4}, Buf::Planar(8, false, pack))),
              Log{});
  }
}

TEST(PermuteKernel, FormatsNarrowerThanAByteHaveNoStrides) {
  // Called directly: the layer refuses them.
  OpenPermute layer;
  Buf in = Buf::Packed({2, 3, 2, 2}, Buf::Planar(4, false, 2)).Pad(3, 5);
  Random random(1);
  ExpectSameBytes(
      random, [&](Memory& from, Memory& to) { vek_model::UnpackToNhwc(1, in, from, to); },
      [&](void* from, void* to) {
        layer.UnpackToNhwc(in, static_cast<char*>(from), static_cast<char*>(to));
      });

  // A row of pixels of four floats, of which the first is in use.
  layer.axes_ = {0, 1, 3, 2};
  in = Buf::Packed({1, 1, 1, 4}, Buf::Planar(4, true, 4));
  const GuardedBuffer pixels = Guarded<float>({1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4});
  const GuardedBuffer row(16);
  Buf out = Buf::Packed({1, 1, 4, 1}, Buf::Planar(4, true));
  out.line_stride = 4;
  out.plane_stride = 16;
  ASSERT_TRUE(
      layer.DirectAcessPermute<float>(in, pixels.as<signed char>(), 52, out, row.as<signed char>(), 16));
  EXPECT_EQ(row.Get<float>(), (std::vector<float>{1, 2, 3, 4}));
}

// --- Round trips.

TEST(Permute, APermutationAndItsInverseRestoreTheBytes) {
  for (const int bits : {8, 16, 32}) {
    for (const int pack : {1, 4, 16}) {
      std::vector<unsigned> order = {0, 1, 2, 3};
      do {
        std::vector<unsigned> inverse(4);
        for (unsigned i = 0; i < 4; ++i) inverse[order[i]] = i;
        const Format format = Buf::Planar(bits, bits == 32, pack);
        const Buf first = Buf::Packed({2, 21, 5, 7}, Buf::Planar(bits, bits == 32));
        const Buf second = Buf::Packed(Permuted(first.dims, order), format).Pad(8, 0);
        GuardedBuffer data(first.size);
        Random random(static_cast<std::uint64_t>(bits * 100 + pack));
        data.FillRandom(random);
        const GuardedBuffer permuted(second.size);
        const GuardedBuffer restored(first.size);
        Layer there("PERMUTE");
        Layer back("PERMUTE");
        ASSERT_TRUE(there.Configure({{"axes", ListText(order)}}, {first}, {second}));
        ASSERT_TRUE(there.Execute({data.data()}, {permuted.data()}));
        ASSERT_TRUE(back.Configure({{"axes", ListText(inverse)}}, {second}, {first}));
        ASSERT_TRUE(back.Execute({permuted.data()}, {restored.data()}));
        ASSERT_EQ(restored.Get(), data.Get()) << bits << " bits, pack " << pack << ", " << ListText(order);
      } while (std::next_permutation(order.begin(), order.end()));
    }
  }
}

}  // namespace
}  // namespace vek_test::permute
