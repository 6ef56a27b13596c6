// DATA_STRIDE_CONV: the layer, the converter and its kernels.
#include "custom_ops/vek_datastrideconv.h"

#include <gtest/gtest.h>

#include "model/vek_datastrideconv.h"
#include "support/formula_check.h"
#include "support/refusals.h"

namespace vek_test::datastrideconv {
namespace {

using vek_model::Memory;
using zeb_custom_ops::convertStride;

const std::string kFile = "vek_datastrideconv.cpp";

std::vector<signed char> Ramp(std::size_t count, int first = 1) {
  std::vector<signed char> values(count);
  for (std::size_t i = 0; i < count; ++i) values[i] = static_cast<signed char>(first + static_cast<int>(i));
  return values;
}

// Converts between guarded buffers as large as the descriptions say; the target holds 0x55 before.
std::vector<signed char> Convert(const Buf& in, const std::vector<signed char>& data, const Buf& out) {
  const GuardedBuffer source = Guarded(data);
  GuardedBuffer target(out.size);
  target.Fill(0x55);
  EXPECT_TRUE(convertStride(source.as<signed char>(), in.size, in, target.as<signed char>(), out.size, out));
  return target.Get<signed char>();
}

Buf Bytes4D(std::vector<unsigned> dims, int plane_pack = 1, unsigned row_pad = 0, unsigned plane_pad = 0) {
  return Buf::Packed(std::move(dims), Buf::Planar(8, false, plane_pack)).Pad(row_pad, plane_pad);
}

// --- Configure and Execute.

// How a setup of 2 x 3 x 4 x 5 halves can be spoilt, in the order of the checks.
std::vector<Fault> Faults() {
  const auto not_4d = [](const std::string& side) {
    return Log{Error(kFile, "custom layer does not support " + side +
                                " tensor other than 4D (when data is interleaved), received: 3D.")};
  };
  const Log formats = {Error(kFile, "format conversion is not supported by custom layer.")};
  const auto interleaved_3d = [](Buf& buf) {
    buf.dims = {2, 3, 4};
    buf.interleaved = true;
  };
  return {{"no input",
           [](Setup& s) { s.in.clear(); },
           {Error(kFile, "wrong number of inputs, expected: 1, got: 0")},
           "in"},
          {"two inputs",
           [](Setup& s) { s.in.push_back(s.in[0]); },
           {Error(kFile, "wrong number of inputs, expected: 1, got: 2")},
           "in"},
          {"no output",
           [](Setup& s) { s.out.clear(); },
           {Error(kFile, "wrong number of outputs, expected: 1, got: 0")},
           "out"},
          {"three outputs",
           [](Setup& s) { s.out.resize(3, s.out[0]); },
           {Error(kFile, "wrong number of outputs, expected: 1, got: 3")},
           "out"},
          {"bit depths differ", [](Setup& s) { s.out[0].format.bitdepth = 8; }, formats},
          {"q8a differs", [](Setup& s) { s.in[0].format.q8a = true; }, formats},
          {"float differs", [](Setup& s) { s.out[0].format.float_ = true; }, formats},
          {"interleaved 3-D input", [=](Setup& s) { interleaved_3d(s.in[0]); }, not_4d("input")},
          {"interleaved 3-D output", [=](Setup& s) { interleaved_3d(s.out[0]); }, not_4d("output")},
          {"short input",
           [](Setup& s) { s.in[0].size = 239; },
           {Error(kFile, "input buffer size too small, size: 239 bytes vs expected at least: 240 bytes.")}},
          {"short output",
           [](Setup& s) { s.out[0].size = 239; },
           {Error(kFile, "output buffer size too small, size: 239 bytes vs expected at least: 240 bytes.")}}};
}

TEST(DataStrideConv, RefusesInOrder) {
  const Buf valid = Buf::Int(16, {2, 3, 4, 5});
  CheckOrderOfRefusals("DATA_STRIDE_CONV", {{}, {valid}, {valid}}, Faults());
}

TEST(DataStrideConv, OddBitsAreRoundedUpToBytes) {
  Buf buf = Buf::Int(12, {1, 1, 1, 5});
  Layer layer("DATA_STRIDE_CONV");
  buf.size = 8;
  EXPECT_TRUE(layer.Configure({}, {buf}, {buf}));
  buf.size = 7;
  EXPECT_FALSE(layer.Configure({}, {buf}, {buf}));
  EXPECT_EQ(layer.log,
            Log{Error(kFile, "input buffer size too small, size: 7 bytes vs expected at least: 8 bytes.")});
}

TEST(DataStrideConv, SizesAreCountedIn64Bits) {
  Buf large = Buf::Int(8, {65536, 65536, 1, 1});
  large.size = 100;
  Layer layer("DATA_STRIDE_CONV");
  EXPECT_FALSE(layer.Configure({}, {large}, {large}));
  EXPECT_EQ(layer.log, Log{Error(kFile,
                                 "input buffer size too small, size: 100 bytes vs expected at least: "
                                 "4294967296 bytes.")});
}

TEST(DataStrideConv, AttributesAreNotRead) {
  const Buf buf = Buf::Float({1, 1, 1, 1});
  Layer layer("DATA_STRIDE_CONV");
  EXPECT_TRUE(layer.Configure({{"anything", "at all"}, {"axis", ""}}, {buf}, {buf}));
  EXPECT_EQ(layer.log, Log{});
}

TEST(DataStrideConv, ExecuteRefusesInOrder) {
  Layer layer("DATA_STRIDE_CONV");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, Log{Error(kFile, "datastrideconv custom layer not configured.")});
  const Buf buf = Buf::Float({1, 1, 1, 1});
  EXPECT_TRUE(layer.Configure({}, {buf}, {buf}));
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, Log{Error(kFile, "in_buffers is NULL.")});
  void* pointers[] = {&layer};
  EXPECT_FALSE(layer.ExecuteRaw(pointers, nullptr));
  EXPECT_EQ(layer.log, Log{Error(kFile, "out_buffers is NULL.")});
}

TEST(DataStrideConv, ASecondConfigureReplacesTheDescriptions) {
  const ExpectNoLeakedClones no_leaks;
  Layer layer("DATA_STRIDE_CONV");
  EXPECT_TRUE(layer.Configure({}, {Bytes4D({1, 1, 1, 8})}, {Bytes4D({1, 1, 1, 8})}));
  EXPECT_TRUE(layer.Configure({}, {Bytes4D({1, 1, 1, 3})}, {Bytes4D({1, 1, 1, 3})}));
  // A refused one keeps them: its clones are taken last.
  EXPECT_FALSE(layer.Configure({}, {Bytes4D({1, 1, 1, 5})}, {}));
  const GuardedBuffer in = Guarded(Ramp(3));
  const GuardedBuffer out(3);
  EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
  EXPECT_EQ(out.Get<signed char>(), Ramp(3));
}

// --- convertStride: refusals.

void ExpectRefused(const Buf& in, const Buf& out, const std::string& text) {
  std::vector<signed char> src(4096, 1);
  std::vector<signed char> dst(4096, 2);
  Log log;
  const ScopedThreshold threshold(kInfo);
  {
    LogCapture capture;
    EXPECT_FALSE(convertStride(src.data(), in.size, in, dst.data(), out.size, out));
    log = capture.Stop();
  }
  EXPECT_EQ(log, Log{Error(kFile, text)});
  EXPECT_EQ(dst, std::vector<signed char>(4096, 2)) << "a refused conversion wrote";
}

TEST(ConvertStride, RefusesInOrder) {
  Buf in = Buf::Int(32, {1, 4, 4});
  Buf out = Buf::Int(32, {1});
  in.format.plane_pack = -3;
  out.format.plane_pack = 0;
  out.format.float_ = true;
  ExpectRefused(in, out, " input and output tensor formats differ.");
  out.format.float_ = false;
  out.format.bitdepth = 16;
  ExpectRefused(in, out, " input and output tensor formats differ.");
  out.format.bitdepth = 32;
  ExpectRefused(in, out, " unsupported input memory format. Fixed point bitdepth:  32");
  in.format.bitdepth = out.format.bitdepth = 16;
  ExpectRefused(in, out, "can't change the interleaving of 3D to 1D data, expected at least 4D and 2D");
  in.dims = {1, 4, 2, 2};
  ExpectRefused(in, out, "can't change the interleaving of 4D to 1D data, expected at least 4D and 2D");
  out.dims = {1, 4};
  out.plane_stride = 0;
  ExpectRefused(in, out, "can't change the interleaving of 4D to 2D data, expected at least 4D and 3D");
  out.plane_stride = 8;
  ExpectRefused(in, out, "plane packs are -3 and 0, but should be at least 1");
  in.format.plane_pack = 1;
  ExpectRefused(in, out, "plane packs are 1 and 0, but should be at least 1");
}

TEST(ConvertStride, OnlyKernelsThatDivideOrStepByAPlanePackRefuseOneBelow1) {
  for (const int pack : {0, -3}) {
    Buf in = Bytes4D({1, 2, 2, 2}, pack);
    // The unchanged copy.
    EXPECT_EQ(Convert(in, Ramp(8), in), Ramp(8));
    // Rows: not where there are none.
    Buf out = Bytes4D({1, 2, 2, 2}, pack, 1);
    const std::string packs = std::to_string(pack) + " and " + std::to_string(pack);
    ExpectRefused(in, out, "plane packs are " + packs + ", but should be at least 1");
    for (std::size_t i = 0; i < 3; ++i) {
      Buf empty = out;
      empty.dims[i] = 0;
      EXPECT_EQ(Convert(in, Ramp(8), empty), std::vector<signed char>(out.size, 0)) << "dim " << i;
    }
    // Any rank.
    in = Buf::Int(8, {2, 3});
    in.strides = {3, 3};
    out = Buf::Int(8, {2, 3});
    out.strides = {4, 4};
    out.line_stride = 4;
    out.size = 8;
    in.format.plane_pack = out.format.plane_pack = pack;
    EXPECT_EQ(Convert(in, Ramp(6), out), (std::vector<signed char>{1, 2, 3, 0, 4, 5, 6, 0}));
    // A change of interleaving: not where nothing moves.
    for (const bool is_source : {false, true}) {
      in = Bytes4D({1, 2, 2, 2});
      out = in;
      (is_source ? in : out).format.plane_pack = pack;
      ExpectRefused(in, out,
                    "plane packs are " + std::to_string(in.format.plane_pack) + " and " +
                        std::to_string(out.format.plane_pack) + ", but should be at least 1");
      for (std::size_t i = 0; i < 4; ++i) {
        Buf empty = in;
        empty.dims[i] = 0;
        EXPECT_EQ(Convert(empty, {}, out), std::vector<signed char>(out.size, 0)) << "dim " << i;
      }
    }
  }
}

TEST(ConvertStride, AnyOtherBitDepthCannotChangeItsInterleaving) {
  for (const int bitdepth : {0, 4, 12, 24, 32, 64}) {
    Buf in = Buf::Int(bitdepth, {1, 4, 2, 2});
    Buf out = in;
    out.format.plane_pack = 4;
    ExpectRefused(in, out,
                  " unsupported input memory format. Fixed point bitdepth:  " + std::to_string(bitdepth));
  }
}

Buf Strided(std::vector<unsigned> dims, std::vector<unsigned> strides, unsigned line) {
  Buf buf = Buf::Int(8, std::move(dims));
  buf.strides = std::move(strides);
  buf.line_stride = line;
  return buf;
}

void ExpectListsRefused(const Buf& in, const Buf& out) {
  ExpectRefused(in, out,
                "can't convert " + std::to_string(in.dims.size()) + " dims with " +
                    std::to_string(in.strides.size()) + " strides to " + std::to_string(out.dims.size()) +
                    " dims with " + std::to_string(out.strides.size()) + " strides");
}

TEST(ConvertStride, ListsThatAreTooShortAreRefused) {
  const Buf good = Strided({2, 2}, {2, 2}, 2);
  ExpectListsRefused(Strided({2, 2}, {}, 3), good);
  ExpectListsRefused(Strided({2, 2}, {4, 2, 2, 2}, 3), Strided({2, 2}, {4, 2, 2, 2}, 2));
  ExpectListsRefused(Strided({2, 2, 2}, {4, 2, 2}, 3), good);
  ExpectListsRefused(good, Strided({2, 2}, {2}, 3));
  ExpectListsRefused(good, Strided({}, {2, 2}, 3));
  ExpectListsRefused(good, Strided({2, 2, 2, 2}, {8, 4, 2, 2}, 3));
}

TEST(ConvertStride, ADimensionOfNoExtentEndsTheCopyBeforeItsListsAreNeeded) {
  const Buf in = Strided({2, 2}, {2, 2}, 2);
  const auto only_zeros = [&](const Buf& source, Buf target) {
    target.size = 5;
    EXPECT_EQ(Convert(source, Ramp(4), target), std::vector<signed char>(5, 0));
  };
  only_zeros(in, Strided({0, 2}, {}, 3));
  only_zeros(in, Strided({0, 2}, {2}, 3));
  only_zeros(Strided({2, 2}, {}, 2), Strided({0, 2}, {2, 2}, 3));
  only_zeros(Strided({}, {2, 2, 2}, 2), Strided({0, 2}, {2, 2, 2}, 3));
  only_zeros(in, Strided({0, 2, 2, 2, 2, 2}, {}, 3));
  only_zeros(in, Strided({2, 0, 2, 2, 2}, {8, 4, 2, 2, 2}, 3));
  only_zeros(in, Strided({2, 2, 0, 2, 2}, {8, 4, 2, 2, 2}, 3));
  // The dims around it need theirs, and the innermost is a run of its stride whatever its extent.
  ExpectListsRefused(in, Strided({2, 2, 2, 0, 2}, {8, 4, 2, 2, 2}, 3));
  ExpectListsRefused(in, Strided({0}, {}, 3));
  ExpectListsRefused(in, Strided({2, 0}, {2}, 3));
}

// --- convertStride: equal interleaving.

TEST(ConvertStride, EqualLayoutsCopyTheSourcesBytesAndNoMore) {
  const Buf in = Bytes4D({1, 1, 1, 4});
  Buf out = in;
  out.size = 6;
  EXPECT_EQ(Convert(in, Ramp(4), out), (std::vector<signed char>{1, 2, 3, 4, 0x55, 0x55}));
}

TEST(ConvertStride, EqualLayoutsMayShareTheirBuffer) {
  const Buf buf = Buf::Float({2, 3, 5, 7});
  std::vector<signed char> data = Ramp(buf.size);
  EXPECT_TRUE(convertStride(data.data(), buf.size, buf, data.data(), buf.size, buf));
  EXPECT_EQ(data, Ramp(buf.size));
}

TEST(ConvertStride, WiderRowsEndInZerosAndPlanePaddingIsZero) {
  EXPECT_EQ(Convert(Bytes4D({1, 2, 2, 2}), Ramp(8), Bytes4D({1, 2, 2, 2}, 1, 1, 2)),
            (std::vector<signed char>{1, 2, 0, 3, 4, 0, 0, 0, 5, 6, 0, 7, 8, 0, 0, 0}));
}

TEST(ConvertStride, RowsOfEveryLengthEqualTheFormula) {
  Random random(1);
  for (const unsigned in_line : {1U, 7U, 8U, 15U, 16U, 17U, 31U, 33U, 63U, 65U, 200U, 600U}) {
    for (const unsigned more : {1U, 2U, 8U, 15U, 16U, 40U, 63U, 64U, 65U, 100U, 300U}) {
      for (const unsigned rows : {1U, 3U, 5U, 30U}) {
        for (const unsigned plane_pad : {0U, 5U}) {
          const Buf narrow = Bytes4D({1, 2, rows, in_line}, 1, 0, plane_pad);
          const Buf wide = Bytes4D({1, 2, rows, in_line}, 1, more, plane_pad / 2);
          for (const auto& [in, out] : {std::pair(narrow, wide), std::pair(wide, narrow)}) {
            SCOPED_TRACE(testing::Message()
                         << rows << " rows of " << in.line_stride << " bytes to " << out.line_stride);
            ExpectSameBytes(
                random,
                [&](Memory& from, Memory& to) {
                  EXPECT_EQ(vek_model::ConvertStride({from, in.size, in}, {to, out.size, out}), "");
                },
                [&](void* from, void* to) {
                  EXPECT_TRUE(convertStride(static_cast<signed char*>(from), in.size, in,
                                            static_cast<signed char*>(to), out.size, out));
                });
            if (testing::Test::HasFailure()) return;
          }
        }
      }
    }
  }
}

TEST(ConvertStride, TheSourcesOwnRowPaddingIsData) {
  EXPECT_EQ(Convert(Bytes4D({1, 1, 2, 2}, 1, 1), Ramp(6), Bytes4D({1, 1, 2, 2}, 1, 2)),
            (std::vector<signed char>{1, 2, 3, 0, 4, 5, 6, 0}));
}

TEST(ConvertStride, NarrowerRowsDropTheEndOfTheSourceRow) {
  EXPECT_EQ(Convert(Bytes4D({1, 2, 2, 2}, 1, 1, 2), Ramp(16), Bytes4D({1, 2, 2, 2})),
            (std::vector<signed char>{1, 2, 4, 5, 9, 10, 12, 13}));
}

TEST(ConvertStride, PlanesTooSmallForTheirLinesHaveNoPadding) {
  Buf in = Bytes4D({1, 2, 2, 2});
  in.plane_stride = 1;
  EXPECT_EQ(Convert(in, Ramp(8), Bytes4D({1, 2, 2, 2})), Ramp(8));
  Buf out = Bytes4D({1, 2, 2, 2});
  out.plane_stride = 3;
  EXPECT_EQ(Convert(Bytes4D({1, 2, 2, 2}), Ramp(8), out), Ramp(8));
}

TEST(ConvertStride, InterleavedPlanesAreSteppedByThePack) {
  // Three planes of 4 channels; ten are in use, but all slots are data.
  const Buf in = Bytes4D({1, 10, 1, 2}, 4);
  const Buf out = Bytes4D({1, 10, 1, 2}, 4, 1);
  const std::vector<signed char> got = Convert(in, Ramp(24), out);
  for (std::size_t plane = 0; plane < 3; ++plane) {
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(got[plane * 9 + i], static_cast<int>(plane * 8 + i + 1));
    EXPECT_EQ(got[plane * 9 + 8], 0);
  }
}

TEST(ConvertStride, ThirtyTwoBitFixedPointIsConvertedRowByRow) {
  const Buf in = Buf::Int(32, {1, 2, 2, 1});
  const Buf out = Buf(in).Pad(4, 0);
  EXPECT_EQ(Convert(in, Ramp(16), out),
            (std::vector<signed char>{1, 2,  3,  4,  0, 0, 0, 0, 5,  6,  7,  8,  0, 0, 0, 0,
                                      9, 10, 11, 12, 0, 0, 0, 0, 13, 14, 15, 16, 0, 0, 0, 0}));
}

TEST(ConvertStride, SourcesOfThreeAndFiveDimsGoByTheirFirstThreeEntries) {
  Buf in = Bytes4D({2, 2, 2, 2});
  in.dims = {1, 2, 2};
  const Buf out = Bytes4D({1, 2, 2, 2}, 1, 1);
  const std::vector<signed char> expected = {1, 2, 0, 3, 4, 0, 5, 6, 0, 7, 8, 0};
  EXPECT_EQ(Convert(in, Ramp(8), out), expected);
  in.dims = {1, 2, 2, 2, 9};
  EXPECT_EQ(Convert(in, Ramp(8), out), expected);
}

TEST(ConvertStride, RowsThatGetWiderAreCountedByTheTargetNarrowerOnesByTheSource) {
  // One row by its own dims, two by the other side's.
  Buf in = Bytes4D({1, 1, 2, 2});
  in.dims[2] = 1;
  EXPECT_EQ(Convert(in, Ramp(4), Bytes4D({1, 1, 2, 2}, 1, 1)), (std::vector<signed char>{1, 2, 0, 3, 4, 0}));
  Buf out = Bytes4D({1, 1, 2, 2});
  out.dims[2] = 1;
  EXPECT_EQ(Convert(Bytes4D({1, 1, 2, 2}, 1, 1), Ramp(6), out), (std::vector<signed char>{1, 2, 4, 5}));
}

TEST(ConvertStride, ShorterTargetsThanTheLayoutAreFilledOnlyAsFarAsTheyGo) {
  // Row ends are cleared anyway, plane padding only inside `dst_bytes`.
  const Buf in = Bytes4D({1, 2, 1, 2});
  const Buf out = Bytes4D({1, 2, 1, 2}, 1, 1, 2);
  std::vector<signed char> src = Ramp(4);
  std::vector<signed char> dst(10, 0x55);
  EXPECT_TRUE(convertStride(src.data(), 4, in, dst.data(), 4, out));
  EXPECT_EQ(dst, (std::vector<signed char>{1, 2, 0, 0, 0x55, 3, 4, 0, 0x55, 0x55}));
}

TEST(ConvertStride, OtherRanksGoByTheirStrides) {
  Buf in = Buf::Int(8, {2, 3});
  Buf out = in;
  in.strides = {5, 3};
  in.line_stride = 5;
  out.strides = {4, 4};
  out.line_stride = 4;
  out.size = 12;
  // Rows are 3 bytes apart from each other's end by no padding that 5 - 2 * 3 would give: it counts as none.
  EXPECT_EQ(Convert(in, Ramp(6), out), (std::vector<signed char>{1, 2, 3, 0, 4, 5, 6, 0, 0, 0, 0, 0}));
  in.dims[0] = 1;
  EXPECT_EQ(Convert(in, Ramp(10), out), (std::vector<signed char>{1, 2, 3, 0, 6, 7, 8, 0, 0, 0, 0, 0}))
      << "5 - 1 * 3 bytes of padding behind every row";
}

TEST(ConvertStride, OneDimIsOneRun) {
  Buf in = Buf::Int(8, {6});
  in.strides = {6};
  Buf out = in;
  out.strides = {8};
  out.line_stride = 8;
  out.size = 10;
  EXPECT_EQ(Convert(in, Ramp(6), out), (std::vector<signed char>{1, 2, 3, 4, 5, 6, 0, 0, 0, 0}));
  EXPECT_EQ(Convert(out, Ramp(10), in), Ramp(6));
}

TEST(ConvertStride, OffsetsOfOtherRanksWrapAt32Bits) {
  // Two rows of 8 bytes are 16, the padding behind them 2^32 - 16: the second item is the first again.
  Buf in = Buf::Int(8, {1, 2, 4});
  in.strides = {0xFFFFFFFC, 12, 4};
  Buf out = Buf::Int(8, {2, 2, 4});
  out.strides = {8, 4, 4};
  out.line_stride = 7;
  EXPECT_EQ(Convert(in, Ramp(12), out),
            (std::vector<signed char>{1, 2, 3, 4, 9, 10, 11, 12, 1, 2, 3, 4, 9, 10, 11, 12}));
  // The same behind the target's rows: the second item is written over the first.
  in = Buf::Int(8, {2, 2, 4});
  in.strides = {8, 4, 4};
  out.strides = {0xFFFFFFFA, 1, 4};
  EXPECT_EQ(Convert(in, Ramp(16), out),
            (std::vector<signed char>{9, 10, 11, 12, 13, 14, 15, 16, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(ConvertStride, ZeroExtentsBesideHugeStridesOnlyFillWithZeros) {
  // Two planes, and two batch items, that lie 2^31 bytes apart.
  for (const std::vector<unsigned>& dims : {std::vector<unsigned>{1, 2, 1, 0}, {2, 1, 1, 0}}) {
    for (const bool source_is_huge : {false, true}) {
      Buf in = Bytes4D(dims);
      Buf out = Bytes4D(dims, 4);
      if (source_is_huge) std::swap(in.format.plane_pack, out.format.plane_pack);
      for (Buf* buf : {&in, &out}) {
        if (buf->format.plane_pack == 1) buf->plane_stride = 0x80000000U;
      }
      out.size = 9;
      EXPECT_EQ(Convert(in, {}, out), std::vector<signed char>(9, 0));
    }
  }
}

TEST(ConvertStride, ZeroExtentsOnlyFillWithZeros) {
  for (std::size_t i = 0; i < 4; ++i) {
    std::vector<unsigned> dims = {2, 2, 2, 2};
    dims[i] = 0;
    Buf in = Bytes4D(dims);
    Buf out = Bytes4D(dims, 1, 3, 1);
    out.size += 9;
    EXPECT_EQ(Convert(in, {}, out), std::vector<signed char>(out.size, 0));
    out = Bytes4D(dims, 4);
    out.size += 9;
    EXPECT_EQ(Convert(in, {}, out), std::vector<signed char>(out.size, 0));
  }
}

TEST(ConvertStride, CountsOfPlanesWithoutRowsEndAtOnce) {
  Buf in = Bytes4D({0xFFFFFFFF, 0xFFFFFFFF, 0, 1});
  Buf out = Bytes4D({0xFFFFFFFF, 0xFFFFFFFF, 0, 1}, 1, 1);
  EXPECT_EQ(Convert(in, {}, out), std::vector<signed char>());
  out.format.plane_pack = 3;
  EXPECT_EQ(Convert(in, {}, out), std::vector<signed char>());
}

TEST(ConvertStride, EachDescriptionIsAskedOnce) {
  const Buf in = Bytes4D({2, 5, 3, 2}, 4);
  const Buf out = Bytes4D({2, 5, 3, 2}, 4, 2, 3);
  std::vector<signed char> src(in.size);
  std::vector<signed char> dst(out.size);
  Buf::ResetCalls();
  EXPECT_TRUE(convertStride(src.data(), in.size, in, dst.data(), out.size, out));
  EXPECT_EQ(Buf::calls[kGetMemFormat], 2);
  EXPECT_EQ(Buf::calls[kGetDims], 2);
  EXPECT_EQ(Buf::calls[kClone], 0);
}

// --- copy_dimension.

TEST(CopyDimension, StartsAnywhereAndLeavesPaddingAlone) {
  const std::vector<signed char> src = Ramp(20);
  std::vector<signed char> dst(20, 0x55);
  unsigned in_off = 1;
  unsigned out_off = 2;
  // Dimension 1 of three: two runs of 2 bytes, widened to 3, with padding of 1 and 2 bytes behind each.
  zeb_custom_ops::copy_dimension(1, {9, 2, 7}, src.data(), {50, 1, 2}, in_off, dst.data(), {60, 2, 3},
                                 out_off);
  EXPECT_EQ(std::vector<signed char>(dst.begin(), dst.begin() + 12),
            (std::vector<signed char>{0x55, 0x55, 2, 3, 0, 0x55, 0x55, 5, 6, 0, 0x55, 0x55}));
  EXPECT_EQ(in_off, 7U);
  EXPECT_EQ(out_off, 12U);
}

TEST(CopyDimension, OffsetsWrapAt32Bits) {
  const std::vector<signed char> src = Ramp(8);
  std::vector<signed char> dst(8, 0x55);
  unsigned in_off = 4;
  unsigned out_off = 0;
  zeb_custom_ops::copy_dimension(0, {2, 1}, src.data(), {0xFFFFFFFA, 2}, in_off, dst.data(), {1, 2}, out_off);
  EXPECT_EQ(dst, (std::vector<signed char>{5, 6, 0x55, 1, 2, 0x55, 0x55, 0x55}));
  EXPECT_EQ(in_off, 0xFFFFFFFCU);
  EXPECT_EQ(out_off, 6U);
}

// --- A change of interleaving.

TEST(ConvertStride, SixChannelsFillTwoPlanesOfFour) {
  const std::vector<signed char> got = Convert(Bytes4D({1, 6, 1, 2}), Ramp(12), Bytes4D({1, 6, 1, 2}, 4));
  EXPECT_EQ(got, (std::vector<signed char>{1, 3, 5, 7, 2, 4, 6, 8, 9, 11, 0, 0, 10, 12, 0, 0}));
}

TEST(ConvertStride, OfTheTargetsDimsOnlyThoseHaveToBeThereThatTheFormulaLooksAt) {
  const Buf in = Bytes4D({1, 6, 2, 3}, 4);
  std::vector<signed char> data(in.size, 99);
  std::vector<signed char> dense(36);
  for (std::size_t c = 0; c < 6; ++c) {
    for (std::size_t at = 0; at < 6; ++at) {
      dense[c * 6 + at] = static_cast<signed char>(c * 6 + at);
      data[c / 4 * 24 + at * 4 + c % 4] = dense[c * 6 + at];
    }
  }
  EXPECT_EQ(Convert(in, data, Buf::Int(8, {6, 2, 3})), dense);
  // Through the layer.
  Layer layer("DATA_STRIDE_CONV");
  ASSERT_TRUE(layer.Configure({}, {in}, {Buf::Int(8, {6, 2, 3})}));
  const GuardedBuffer source = Guarded(data);
  const GuardedBuffer target(36);
  EXPECT_TRUE(layer.Execute({source.data()}, {target.data()}));
  EXPECT_EQ(target.Get<signed char>(), dense);

  // Two dims do where there is a plane stride, and three where dims[2] lines make a plane.
  Buf out = Bytes4D({1, 6, 2, 3});
  out.dims = {9, 6};
  EXPECT_EQ(Convert(in, data, out), dense);
  out.dims = {9, 6, 2};
  out.plane_stride = 0;
  EXPECT_EQ(Convert(in, data, out), dense);
}

template <typename T>
void ExpectFormula(const Buf& in, const Buf& out, unsigned out_bytes, Random& random) {
  ExpectSameBytes(
      random,
      [&](Memory& from, Memory& to) {
        vek_model::ChangeInterleaving(sizeof(T), {from, in.size, in}, {to, out_bytes, out});
      },
      [&](void* from, void* to) {
        zeb_custom_ops::copy<T>(static_cast<signed char*>(from), in.size, in, static_cast<signed char*>(to),
                                out_bytes, out);
      });
}

template <typename T>
void SweepInterleavings() {
  const int bits = 8 * static_cast<int>(sizeof(T));
  Random random(2);
  unsigned kind = 1;  // of padding
  for (const int from : {1, 2, 3, 4, 16}) {
    for (const int to : {1, 2, 3, 4, 16, 17}) {
      for (const unsigned channels : {0U, 1U, 2U, 3U, 4U, 7U, 16U, 17U, 35U}) {
        for (const unsigned height : {1U, 3U}) {
          for (const unsigned width : {1U, 2U, 5U, 17U}) {
            const Format planar = Buf::Planar(bits, sizeof(T) == 4);
            Buf in = Buf::Packed({2, channels, height, width}, planar);
            Buf out = in;
            in.format.plane_pack = from;
            out.format.plane_pack = to;
            in.Pad(kind % 3 == 0 ? 2 * sizeof(T) : 0, kind % 5 == 0 ? sizeof(T) : 0);
            out.Pad(kind % 2 == 0 ? 3 * sizeof(T) : 0, kind % 7 == 0 ? 2 * sizeof(T) : 0);
            SCOPED_TRACE(testing::Message() << "pack " << from << " to " << to << ", C=" << channels
                                            << ", H=" << height << ", W=" << width);
            ExpectFormula<T>(in, out, out.size + (kind % 4 == 0 ? 5U : 0U), random);
            if (testing::Test::HasFailure()) return;
            ++kind;
          }
        }
      }
    }
  }
}

TEST(ChangeOfInterleaving, EqualsItsFormulaForBytes) { SweepInterleavings<signed char>(); }
TEST(ChangeOfInterleaving, EqualsItsFormulaForHalves) { SweepInterleavings<short>(); }
TEST(ChangeOfInterleaving, EqualsItsFormulaForFloats) { SweepInterleavings<float>(); }

TEST(ChangeOfInterleaving, LayoutsThatOverlapThemselvesKeepTheOrderOfTheFormula) {
  Random random(3);
  Buf in = Bytes4D({2, 6, 3, 5});
  Buf out = Bytes4D({2, 6, 3, 5}, 4);
  const Buf good = out;
  out.line_stride = 7;
  ExpectFormula<signed char>(in, out, 100, random);
  out = good;
  out.plane_stride = 11;
  ExpectFormula<signed char>(in, out, 100, random);
  out = good;
  out.plane_stride = 0;
  ExpectFormula<signed char>(in, out, 100, random);
  out = good;
  out.dims[1] = 3;  // fewer planes per item than the source fills
  ExpectFormula<signed char>(in, out, 100, random);
  out = good;
  out.format.bitdepth = 4;
  ExpectFormula<signed char>(in, out, 100, random);
  in.plane_stride = 0;
  in.line_stride = 2;
  ExpectFormula<signed char>(in, good, 100, random);
}

TEST(ChangeOfInterleaving, TargetsWithMoreBytesOrFewerThanTheLayoutAreFilledAsFarAsTold) {
  Random random(4);
  const Buf in = Bytes4D({1, 3, 2, 2});
  const Buf out = Bytes4D({1, 3, 2, 2}, 4, 1, 2);
  for (std::uint32_t bytes = 0; bytes < 40; ++bytes) ExpectFormula<signed char>(in, out, bytes, random);
}

// --- Round trips.

TEST(DataStrideConv, RoundTripsThroughEveryLayoutRestoreTheBytes) {
  for (const int bits : {8, 16, 32}) {
    const Buf dense = Buf::Packed({2, 21, 5, 7}, Buf::Planar(bits, bits == 32));
    GuardedBuffer data(dense.size);
    Random random(static_cast<std::uint64_t>(bits));
    data.FillRandom(random);
    std::vector<std::uint8_t> bytes = data.Get();
    Buf from = dense;
    for (const auto& [pack, row_pad, plane_pad] : std::vector<std::array<unsigned, 3>>{
             {1, 8, 0}, {4, 0, 0}, {16, 0, 0}, {16, 12, 40}, {3, 4, 8}, {1, 0, 0}}) {
      Buf to = dense;
      to.format.plane_pack = static_cast<int>(pack);
      to.Pad(row_pad, plane_pad);
      const GuardedBuffer in = Guarded(bytes);
      const GuardedBuffer out(to.size);
      Layer layer("DATA_STRIDE_CONV");
      ASSERT_TRUE(layer.Configure({}, {from}, {to}));
      ASSERT_TRUE(layer.Execute({in.data()}, {out.data()}));
      bytes = out.Get();
      from = to;
    }
    EXPECT_EQ(bytes, data.Get()) << bits << " bits";
  }
}

}  // namespace
}  // namespace vek_test::datastrideconv
