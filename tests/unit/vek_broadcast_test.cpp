// BROADCAST: refusals in their order, the eight combinations of flags, padded rows, odd shapes.
#include "custom_ops/vek_broadcast.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "cases/layer_case.h"
#include "model/vek_broadcast.h"
#include "support/formula_check.h"
#include "support/refusals.h"

namespace vek_test::broadcast {
namespace {

constexpr char kFile[] = "vek_broadcast.cpp";

struct OpenBroadcast : zeb_custom_ops::VekBroadcast {
  using VekBroadcast::bcast_c_;
  using VekBroadcast::bcast_h_;
  using VekBroadcast::bcast_n_;
  using VekBroadcast::bcast_w_;
  using VekBroadcast::configured_;
  using VekBroadcast::in_attrs_;
  using VekBroadcast::out_attrs_;
};

Setup Valid() { return {{{"size", "[0,1,1,0]"}}, {Buf::Float({1, 1, 1, 4})}, {Buf::Float({1, 3, 2, 4})}}; }

void SetExtent(Buf& buf, std::size_t i, unsigned extent) {
  if (!buf.nchw) buf.nchw = {buf.At(0), buf.At(1), buf.At(2), buf.At(3)};
  (*buf.nchw)[i] = extent;
}

std::vector<Fault> Faults() {
  const auto extent = [](std::size_t i) { return [i](Setup& s) { SetExtent(s.in[0], i, 9); }; };
  const auto size = [](const char* text) { return [text](Setup& s) { s.attrs["size"] = text; }; };
  return {
      {"two inputs",
       [](Setup& s) { s.in.push_back(s.in[0]); },
       {Error(kFile, "expected one input and one output, got: 2 inputs, 1 outputs")},
       "inputs"},
      {"no input",
       [](Setup& s) { s.in.clear(); },
       {Error(kFile, "expected one input and one output, got: 0 inputs, 1 outputs")},
       "inputs"},
      {"no 4-D side",
       [](Setup& s) {
         s.in[0].nchw = {1, 1, 1, 4};
         s.in[0].dims = {1, 1, 4};
         s.out[0].dims = {1, 3, 2, 2, 2};
       },
       {Error(kFile, "non-4D IO not supported. Got 3D input, 5D output")},
       "dims"},
      {"two attributes",
       [](Setup& s) { s.attrs["axis"] = "1"; },
       {Error(kFile, "expected 1 attribute, but got 2")},
       "attributes"},
      {"no attribute",
       [](Setup& s) { s.attrs.clear(); },
       {Error(kFile, "expected 1 attribute, but got 0")},
       "attributes"},
      {"wrong key",
       [](Setup& s) {
         s.attrs = {{"sizes", "[0,1,1,0]"}};
       },
       {Error(kFile, "expected attribute: size, got: sizes")}},
      {"unclosed list",
       size("[0,1,1,0"),
       {Error(kFile, "broadcast size attribute parse error"),
        Error(kFile, "parser msg: Wrongly formated parameter string for software operation")},
       "size"},
      {"short text",
       size("[]"),
       {Error(kFile, "broadcast size attribute parse error"),
        Error(kFile, "parser msg: Wrongly formated parameter string (too short)")},
       "size"},
      {"three entries",
       size("[0,1,1]"),
       {Error(kFile, "broadcast size attribute of incorrect size. Expected 4, but got 3")},
       "size"},
      {"a repeated last entry",
       size("[0,1,1,0] "),
       {Error(kFile, "broadcast size attribute of incorrect size. Expected 4, but got 5")},
       "size"},
      {"batch", extent(0), {Error(kFile, "input tensor incompatible batch (is 9, but should be 1 or 1)")}},
      {"channel",
       extent(1),
       {Error(kFile, "input tensor incompatible channel (is 9, but should be 3 or 1)")}},
      {"height", extent(2), {Error(kFile, "input tensor incompatible height (is 9, but should be 2 or 1)")}},
      {"width", extent(3), {Error(kFile, "input tensor incompatible width (is 9, but should be 4 or 1)")}},
      {"batch flag", size("[1,0,0,0]"), {Error(kFile, "Batch dim not supported by broadcast op")}, "size"},
      {"short input",
       [](Setup& s) { s.in[0].size = 3; },
       {Error(kFile, "Input buf size should be at least 4, but is 3")}},
      {"short output",
       [](Setup& s) { s.out[0].size = 23; },
       {Error(kFile, "Output buf size should be at least 24, but is 23")}},
      {"input planes",
       [](Setup& s) { s.in[0].plane_stride = 20; },
       {Error(kFile, "data with invalid s_stride detected on input of Broadcast: Got 20 expected 16")}},
      {"output planes",
       [](Setup& s) { s.out[0].plane_stride = 48; },
       {Error(kFile, "data with invalid s_stride detected on output of Broadcast: Got 48 expected 32")}},
      {"interleaved input",
       [](Setup& s) { s.in[0].format.plane_pack = 4; },
       {Error(kFile, "Interleaved data in input buffer")}},
      {"interleaved output",
       [](Setup& s) { s.out[0].format.plane_pack = 0; },
       {Error(kFile, "Interleaved data in output buffer")}},
  };
}

TEST(Broadcast, RefusalsComeInTheirOrder) { CheckOrderOfRefusals("BROADCAST", Valid(), Faults()); }

TEST(Broadcast, TwoOutputsAreRefused) {
  Layer layer("BROADCAST");
  auto s = Valid();
  s.out.push_back(s.out[0]);
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "expected one input and one output, got: 1 inputs, 2 outputs")}));
}

TEST(Broadcast, OneSideOfFourDimsIsEnough) {
  auto s = Valid();
  s.in[0].dims = {1, 1, 4};
  s.in[0].plane_stride = 16 * 4;  // the third dim of [1, 1, 4] counts as H
  Layer layer("BROADCAST");
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  s = Valid();
  s.out[0].nchw = {1, 3, 2, 4};
  s.out[0].dims = {6, 4};
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
}

TEST(Broadcast, WithoutAThirdDimTheHeightAnswers) {
  auto s = Valid();
  s.out[0].nchw = {1, 3, 2, 4};
  s.out[0].dims = {6, 4};
  s.out[0].plane_stride = 31;
  Layer layer("BROADCAST");
  EXPECT_FALSE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, (Log{Error(kFile,
                                  "data with invalid s_stride detected on output of Broadcast: "
                                  "Got 31 expected 32")}));
}

TEST(Broadcast, APlaneStrideOfZeroIsNotLookedAt) {
  auto s = Valid();
  s.in[0].plane_stride = 0;
  s.out[0].plane_stride = 0;
  Layer layer("BROADCAST");
  EXPECT_TRUE(layer.Configure(s.attrs, s.in, s.out));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Broadcast, TextThatIsNoNumberThrowsAndChangesNothing) {
  OpenBroadcast layer;
  const auto s = Valid();
  ASSERT_TRUE(layer.Configure(s.attrs, MakeList(s.in), MakeList(s.out)));
  EXPECT_THROW(layer.Configure({{"size", "[0,0,x,1]"}}, MakeList(s.in), MakeList(s.out)),
               std::invalid_argument);
  EXPECT_THROW(layer.Configure({{"size", "[0,0,0,4294967296]"}}, MakeList(s.in), MakeList(s.out)),
               std::out_of_range);
  EXPECT_TRUE(layer.configured_);
  EXPECT_TRUE(layer.bcast_c_ && layer.bcast_h_);
  EXPECT_FALSE(layer.bcast_n_ || layer.bcast_w_);
}

TEST(Broadcast, OnlyTheSignOfAnEntryCounts) {
  OpenBroadcast layer;
  const auto s = Valid();
  ASSERT_TRUE(layer.Configure({{"size", "[-1,7,-2, 3x]"}}, MakeList(s.in), MakeList(s.out)));
  EXPECT_FALSE(layer.bcast_n_);
  EXPECT_TRUE(layer.bcast_c_);
  EXPECT_FALSE(layer.bcast_h_);
  EXPECT_TRUE(layer.bcast_w_);
}

TEST(Broadcast, FlagsOfARefusedConfigureStayStored) {
  OpenBroadcast layer;
  auto s = Valid();
  ASSERT_TRUE(layer.Configure(s.attrs, MakeList(s.in), MakeList(s.out)));
  LogCapture quiet;
  EXPECT_FALSE(layer.Configure({{"size", "[1,0,0,1]"}}, MakeList(s.in), MakeList(s.out)));
  EXPECT_TRUE(layer.bcast_n_ && layer.bcast_w_ && layer.configured_);
  EXPECT_FALSE(layer.bcast_c_ || layer.bcast_h_);
}

TEST(Broadcast, ExecuteRefusesInItsOrder) {
  OpenBroadcast layer;
  float data[24] = {};
  void* given[] = {data};
  void* null[] = {nullptr};
  const auto complains = [&](void** in, void** out, const char* text) {
    Log log = CaptureLog([&] { EXPECT_FALSE(layer.Execute(in, out)); });
    EXPECT_EQ(log, (Log{Error(kFile, text)}));
  };
  complains(nullptr, nullptr, "Can't run Execute() without Configure()");
  layer.configured_ = true;
  complains(nullptr, nullptr, "Input buffer is NULL");
  complains(null, nullptr, "Input buffer is NULL");
  complains(given, nullptr, "Output buffer is NULL");
  complains(given, null, "Output buffer is NULL");
  complains(given, given, "input buffer attrs are NULL");
  layer.in_attrs_ = std::make_unique<Buf>(Buf::Int(12, {1, 1, 1, 4}));
  complains(given, given, "output buffer attrs are NULL");
  layer.out_attrs_ = std::make_unique<Buf>(Buf::Float({1, 3, 2, 4}));
  complains(given, given, "Broadcast_v1() - unhandled bitdepth!");
}

TEST(Broadcast, TheKernelRefusesNullBuffers) {
  const Buf in = Buf::Int(8, {1, 1, 1, 4});
  const Buf out = Buf::Int(8, {1, 1, 1, 4});
  char data[4] = {};
  const auto complains = [&](char* from, char* to) {
    Log log = CaptureLog([&] { EXPECT_FALSE(zeb_custom_ops::Broadcast_v1(in, out, from, to, 1U, 1U, 1U)); });
    EXPECT_EQ(log, (Log{Error(kFile, "Broadcast_v1 input or output buffer is null.")}));
  };
  complains(nullptr, data);
  complains(data, nullptr);
}

void ExpectFormula(const Buf& in, const Buf& out, unsigned flags, Random& random) {
  const auto flag = [&](unsigned bit) { return (flags & bit) != 0 ? ",1" : ",0"; };
  const std::string size = std::string("[0") + flag(4) + flag(2) + flag(1) + "]";
  const auto result = vek_cases::RunSetups("BROADCAST", {{{{"size", size}}, {in}, {out}}}, random);
  EXPECT_EQ(result.difference, "");
  EXPECT_EQ(result.executed, 2U) << testing::PrintToString(result.log);
}

TEST(Broadcast, EveryCombinationOfFlagsOverManyShapes) {
  Random random(1);
  for (unsigned flags = 0; flags < 8; ++flags) {
    for (int bits : {8, 16, 32}) {
      for (unsigned C : {0U, 1U, 2U, 3U}) {
        for (unsigned H : {0U, 1U, 3U}) {
          for (unsigned W : {0U, 1U, 2U, 3U, 5U, 7U, 12U, 16U, 17U, 33U, 70U}) {
            const bool c = (flags & 4U) != 0;
            const bool h = (flags & 2U) != 0;
            const bool w = (flags & 1U) != 0;
            const Buf in = Buf::Int(bits, {1, c ? 1 : C, h ? 1 : H, w ? 1 : W});
            ExpectFormula(in, Buf::Int(bits, {1, C, H, W}), flags, random);
          }
        }
      }
    }
  }
}

TEST(Broadcast, TheSecondRowFollowsTheFirstOnesElements) {
  Random random(2);
  Buf out = Buf::Int(16, {1, 2, 4, 3});
  out.Pad(4, 0);
  ExpectFormula(Buf::Int(16, {1, 1, 1, 1}), out, 7, random);
}

TEST(Broadcast, PlanesAreRepeatedAsDenseBlocksWhateverTheLineStride) {
  Random random(3);
  for (unsigned flags : {4U, 5U, 6U}) {
    Buf in = Buf::Int(8, {1, 1, 4, 3});
    Buf out = Buf::Int(8, {1, 3, 4, 3});
    in.Pad(2, 0);
    out.Pad(5, 0);
    ExpectFormula(in, out, flags, random);
  }
}

TEST(Broadcast, RowsLongerThanTheLineStrideAreWrittenOneAfterAnother) {
  Random random(26);
  for (unsigned H : {1U, 3U}) {
    for (unsigned in_line_stride : {0U, 4U, 56U}) {
      for (unsigned flags = 1; flags < 8; ++flags) {
        Buf in = Buf::Float({1, 20, H, 65});
        Buf out = in;
        in.line_stride = in_line_stride;
        out.line_stride = 56;
        in.plane_stride = out.plane_stride = 0;
        ExpectFormula(in, out, flags, random);
      }
    }
  }
}

// The kernel alone takes shapes that Configure refuses.
void ExpectKernelFormula(const Buf& in, const Buf& out, unsigned flags, Random& random) {
  ExpectSameBytes(
      random,
      [&](vek_model::Memory& from, vek_model::Memory& to) {
        vek_model::Broadcast(1, in, out, (flags & 4U) != 0, (flags & 2U) != 0, (flags & 1U) != 0, from, to);
      },
      [&](void* from, void* to) {
        EXPECT_TRUE(zeb_custom_ops::Broadcast_v1(in, out, static_cast<char*>(from), static_cast<char*>(to),
                                                 flags & 4U, flags & 2U, flags & 1U));
      });
}

TEST(Broadcast, PositionsWrapAt32Bits) {
  Random random(27);
  // Planes of 65536 rows of 65536 bytes: each begins where the first one does, or a row behind the one before.
  for (unsigned H_in : {65536U, 65537U}) {
    Buf in = Buf::Int(8, {1, 1, 1, 1});
    in.nchw = {1, 3, H_in, 1};
    in.line_stride = 65536;
    ExpectKernelFormula(in, Buf::Int(8, {1, 3, 2, 5}), 1, random);
  }
  // The second element of the only row, were it one row further, would lie at 2^32.
  Buf out = Buf::Int(8, {1, 1, 1, 2});
  out.line_stride = 0xFFFFFFFF;
  out.plane_stride = 0;
  for (unsigned flags = 1; flags < 8; ++flags) {
    ExpectFormula(Buf::Int(8, {1, 1, 1, (flags & 1U) != 0 ? 1U : 2U}), out, flags, random);
  }
}

TEST(Broadcast, AnInputOfNoColumnsRepeatsNothing) {
  Random random(28);
  Buf in = Buf::Int(8, {1, 3, 2, 0});
  in.line_stride = 4;
  for (unsigned out_line : {5U, 4U}) {  // rows side by side, and rows that overlap
    Buf out = Buf::Int(8, {1, 3, 2, 5});
    out.line_stride = out_line;
    for (unsigned flags : {1U, 3U, 5U, 7U}) ExpectKernelFormula(in, out, flags, random);
  }
}

TEST(Broadcast, OnlyTheFirstBatchItemIsWritten) {
  Random random(4);
  const Buf in = Buf::Float({2, 1, 1, 3});
  const Buf out = Buf::Float({2, 2, 2, 3});
  Layer layer("BROADCAST");
  ASSERT_TRUE(layer.Configure({{"size", "[0,1,1,0]"}}, {in}, {out}));
  GuardedBuffer src = Guarded(std::vector<float>{1, 2, 3, 4, 5, 6});
  GuardedBuffer dst(24 * sizeof(float));
  dst.Fill(0);
  ASSERT_TRUE(layer.Execute({src.data()}, {dst.data()}));
  EXPECT_EQ(dst.Get<float>(), (std::vector<float>{1, 2, 3, 1, 2, 3, 1, 2, 3, 1, 2, 3,  //
                                                  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(Broadcast, AskingTheDescriptionsDoesNotGrowWithTheTensor) {
  long calls[2];
  for (unsigned large : {0U, 1U}) {
    const unsigned extent = large != 0 ? 20 : 2;
    Layer layer("BROADCAST");
    ASSERT_TRUE(layer.Configure({{"size", "[0,0,0,1]"}}, {Buf::Float({1, extent, extent, 1})},
                                {Buf::Float({1, extent, extent, extent})}));
    std::vector<float> in(400);
    std::vector<float> out(8000);
    Buf::ResetCalls();
    ASSERT_TRUE(layer.Execute({in.data()}, {out.data()}));
    calls[large] = 0;
    for (const auto& count : Buf::calls) calls[large] += count;
  }
  EXPECT_EQ(calls[0], calls[1]);
}

}  // namespace
}  // namespace vek_test::broadcast
