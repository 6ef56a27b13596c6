// Tests of layer type "RESHAPE".
#include "custom_ops/vek_reshape.h"

#include <gtest/gtest.h>

#include "cases/layer_case.h"
#include "model/vek_reshape.h"
#include "support/formula_check.h"
#include "support/refusals.h"

namespace vek_test::reshape {
namespace {

using vek_model::Memory;

constexpr const char* kFile = "vek_reshape.cpp";

Setup Valid(unsigned r = 2) {
  return {{{"pixelshuffler", std::to_string(r)}},
          {Buf::Int(16, {2, 3 * r * r, 4, 5})},
          {Buf::Int(16, {2, 3, 4 * r, 5 * r})}};
}

// Runs 32-bit values through the layer.
std::vector<int> Shuffled(const std::vector<unsigned>& in_dims, const std::vector<unsigned>& out_dims,
                          const std::string& factor, const std::vector<int>& values) {
  return Outputs("RESHAPE", {{"pixelshuffler", factor}}, Buf::Float(in_dims), Buf::Float(out_dims), values);
}

std::vector<int> Ramp(int count) {
  std::vector<int> values;
  for (int i = 0; i < count; ++i) values.push_back(i);
  return values;
}

TEST(Reshape, FactorOneCopies) { EXPECT_EQ(Shuffled({1, 2, 3, 4}, {1, 24, 1, 1}, "1", Ramp(24)), Ramp(24)); }

TEST(Reshape, FourChannelsBecomeOneBlock) {
  EXPECT_EQ(Shuffled({1, 4, 1, 1}, {1, 1, 2, 2}, "2", {0, 1, 2, 3}), (std::vector{0, 1, 2, 3}));
}

TEST(Reshape, BlocksOfTheShuffleAreInnermostInTheChannels) {
  const std::vector<int> out = Shuffled({1, 8, 2, 2}, {1, 2, 4, 4}, "2", Ramp(32));
  EXPECT_EQ(std::vector(out.begin() + 16, out.end()),
            (std::vector{16, 20, 17, 21, 24, 28, 25, 29, 18, 22, 19, 23, 26, 30, 27, 31}));
}

TEST(Reshape, RefusesInOrder) {
  const auto line = [](const std::string& text) { return Log{Error(kFile, text)}; };
  const auto set_attrs = [](const AttrMap& attrs) { return [=](auto& setup) { setup.attrs = attrs; }; };
  CheckOrderOfRefusals(
      "RESHAPE", Valid(),
      {
          {"no attribute", set_attrs({}), line("expected 1 attribute, but got 0"), "attrs"},
          {"two attributes", set_attrs({{"pixelshuffler", "2"}, {"more", "1"}}),
           line("expected 1 attribute, but got 2"), "attrs"},
          {"another key", set_attrs({{"factor", "2"}}),
           line("expected attribute: pixelshuffler, got: factor"), "attrs"},
          {"no input", [](auto& setup) { setup.in.clear(); },
           line("expected one input and one output, got: 0 inputs, 1 outputs"), "counts"},
          {"two outputs", [](auto& setup) { setup.out.push_back(setup.out[0]); },
           line("expected one input and one output, got: 1 inputs, 2 outputs"), "counts"},
          {"input with fewer bytes than elements", [](auto& setup) { setup.in[0].size = 479; },
           line("Input buf size should be at least 480, but is 479")},
          {"output with fewer bytes than elements", [](auto& setup) { setup.out[0].size = 479; },
           line("Output buf size should be at least 480, but is 479")},
          {"factor 0", set_attrs({{"pixelshuffler", "x"}}),
           line("pixelshuffler = 0, but should be at least 1 and no multiple of 65536"), "attrs"},
          {"factor -1", set_attrs({{"pixelshuffler", "-1"}}),
           line("pixelshuffler = -1, but should be at least 1 and no multiple of 65536"), "attrs"},
          {"factor whose square is 0 in 32 bits", set_attrs({{"pixelshuffler", "65536"}}),
           line("pixelshuffler = 65536, but should be at least 1 and no multiple of 65536"), "attrs"},
      });
}

TEST(Reshape, BytesAreComparedWithElementsWhateverTheirWidth) {
  auto setup = Valid();
  setup.in[0].size = setup.out[0].size = 480;  // half of what they need
  Layer layer("RESHAPE");
  EXPECT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Reshape, AFactorIsNarrowedTo32Bits) {
  EXPECT_EQ(Shuffled({1, 4, 1, 1}, {1, 2, 2, 1}, "4294967297", Ramp(4)), Ramp(4));
}

TEST(Reshape, ExecuteRefusesInOrder) {
  Layer layer("RESHAPE");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Can't run Execute() without Configure()")}));
  auto setup = Valid();
  setup.out[0].format.bitdepth = 8;
  setup.out[0].dims = {1, 2, 3, 4};
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  void* none[] = {nullptr};
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Input buffer is NULL")}));
  EXPECT_FALSE(layer.ExecuteRaw(none, nullptr));
  EXPECT_EQ(layer.log, (Log{Error(kFile, "Output buffer is NULL")}));
  // The bit depths speak before the counts.
  EXPECT_FALSE(layer.ExecuteRaw(none, none));
  EXPECT_EQ(layer.log, (Log{Error(kFile, " RESHAPE expected bitdepth of input and output to match")}));
}

TEST(Reshape, DifferentCountsAreToldWhereNeitherBufferIsPacked) {
  void* none[] = {nullptr};
  const auto message = [&](const Buf& in, const Buf& out) {
    Layer layer("RESHAPE");
    EXPECT_TRUE(layer.Configure({{"pixelshuffler", "1"}}, {in}, {out}));
    EXPECT_FALSE(layer.ExecuteRaw(none, none));
    EXPECT_EQ(layer.log.size(), 1U);
    return layer.log.at(0).text;
  };
  const Buf packed = Buf::Int(16, {1, 4, 2, 3});
  Buf padded = Buf::Int(16, {1, 4, 2, 5});
  padded.Pad(2, 0);
  const Buf interleaved = Buf::Packed({1, 8, 2, 3}, Buf::Planar(16, false, 4));
  const std::string told = " RESHAPE input and output size must match,  in_size != out_size (40 != 48)";
  EXPECT_EQ(message(padded, interleaved), told);
  EXPECT_EQ(message(padded, packed), "can't calculate Reshape");
  EXPECT_EQ(message(packed, padded), "can't calculate Reshape");
  EXPECT_EQ(message(packed, Buf::Int(16, {1, 4, 2, 4})), "can't calculate Reshape");
  // Without dims there is no row that could be packed.
  Buf no_dims = Buf::Int(16, {});
  no_dims.line_stride = 0;
  EXPECT_EQ(message(no_dims, padded),
            " RESHAPE input and output size must match,  in_size != out_size (1 != 40)");
}

TEST(Reshape, AnUnknownBitDepthIsRefusedByTheCopyAndIgnoredByTheShuffle) {
  const Buf buf = Buf::Int(12, {1, 4, 1, 2});  // the row: 24 bits, 3 bytes
  Buf packed = buf;
  packed.line_stride = 3;
  Layer layer("RESHAPE");
  ASSERT_TRUE(layer.Configure({{"pixelshuffler", "1"}}, {packed}, {packed}));
  EXPECT_FALSE(layer.Execute({nullptr}, {nullptr}));
  EXPECT_EQ(layer.log,
            (Log{Error(kFile, "unhandled bitdepth (12b)"), Error(kFile, "can't calculate Reshape")}));
  ASSERT_TRUE(layer.Configure({{"pixelshuffler", "2"}}, {packed}, {packed}));
  EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
  EXPECT_EQ(layer.log, Log{});
}

TEST(Reshape, AnInputThatIsNotPackedIsShuffledIn32Bits) {
  Random random(1);
  auto setup = Valid();
  setup.in[0] = Buf::Int(8, setup.in[0].dims).Pad(1, 0);
  setup.out[0] = Buf::Int(8, setup.out[0].dims);
  Layer layer("RESHAPE");
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  ExpectSameBytes(
      random,
      [&](Memory& in, Memory& out) { vek_model::PixelShuffle(4, 2, vek_model::Shape(setup.in[0]), in, out); },
      [&](void* in, void* out) { EXPECT_TRUE(layer.Execute({in}, {out})); });
}

TEST(Reshape, ARefusedConfigureLeavesItsFactorAlone) {
  Random random(2);
  const auto valid = Valid();
  const auto with = [](const std::string& factor, const std::vector<Buf>& in, const std::vector<Buf>& out) {
    return vek_test::Setup{{{"pixelshuffler", factor}}, in, out};
  };
  const auto result =
      vek_cases::RunSetups("RESHAPE",
                           {with("1", valid.in, valid.out),
                            with("2", {}, {}),  // the factor is the new one, the clones are the old ones
                            with("0", valid.in, {}),  // the kernel would divide by it
                            with("65536", valid.in, {}), with("1", {}, {})},
                           random);
  EXPECT_EQ(result.difference, "");
  EXPECT_EQ(result.executed, 6U) << "each of the others twice";
}

// Factors that no shuffle has, by name, left behind by a Configure that was refused.
constexpr const char* kNoFactors[] = {"0", "-1", "65536", "-65536"};

TEST(Reshape, ARefusedFactorLeftBehindEndsExecute) {
  Random random(3);
  for (const std::string factor : kNoFactors) {
    SCOPED_TRACE(factor);
    // In the middle one no row is packed, so that the kernel takes words.
    for (const Buf& buf : {Buf::Int(8, {2, 3, 4, 1}), Buf::Int(8, {2, 3, 4, 1}).Pad(1, 0),
                           Buf::Int(16, {1, 4, 2, 2}), Buf::Float({1, 4, 2, 2})}) {
      Layer layer("RESHAPE");
      ASSERT_TRUE(layer.Configure({{"pixelshuffler", "2"}}, {buf}, {buf}));
      EXPECT_FALSE(layer.Configure({{"pixelshuffler", factor}}, {buf}, {buf}));
      EXPECT_EQ(layer.log, (Log{Error(kFile, "pixelshuffler = " + factor +
                                                 ", but should be at least 1 and no multiple of 65536")}));
      GuardedBuffer in(buf.size);
      GuardedBuffer out(buf.size);
      in.FillRandom(random);
      out.FillRandom(random);
      const std::vector<std::uint8_t> before = out.Get();
      EXPECT_FALSE(layer.Execute({in.data()}, {out.data()}));
      EXPECT_EQ(layer.log, (Log{Error(kFile, "can't calculate Reshape")}));
      EXPECT_EQ(out.Get(), before);
      // A factor that Configure takes mends it.
      ASSERT_TRUE(layer.Configure({{"pixelshuffler", "1"}}, {buf}, {buf}));
      EXPECT_TRUE(layer.Execute({in.data()}, {in.data()}));
    }
  }
}

TEST(Reshape, ARefusedFactorIsOnlyRefusedWhereItIsDividedBy) {
  for (const std::string factor : kNoFactors) {
    SCOPED_TRACE(factor);
    for (std::size_t zero = 0; zero < 4; ++zero) {
      Buf buf = Buf::Int(8, {1, 1, 1, 1});
      buf.dims[zero] = 0;
      buf.Pad(0, 0);
      Layer layer("RESHAPE");
      ASSERT_TRUE(layer.Configure({{"pixelshuffler", "2"}}, {buf}, {buf}));
      EXPECT_FALSE(layer.Configure({{"pixelshuffler", factor}}, {buf}, {buf}));
      const bool divides = zero >= 2;
      EXPECT_EQ(layer.Execute({nullptr}, {nullptr}), !divides);
      EXPECT_EQ(layer.log, divides ? Log{Error(kFile, "can't calculate Reshape")} : Log{});
    }
    // A width that no kernel has is still left alone.
    Buf buf = Buf::Int(12, {1, 4, 1, 2});
    buf.line_stride = 3;
    Layer layer("RESHAPE");
    ASSERT_TRUE(layer.Configure({{"pixelshuffler", "2"}}, {buf}, {buf}));
    EXPECT_FALSE(layer.Configure({{"pixelshuffler", factor}}, {buf}, {buf}));
    EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
    EXPECT_EQ(layer.log, Log{});
  }
}

TEST(Reshape, AFactorAbove65536IsTakenByItsSquareIn32Bits) {
  // 65537 * 65537 is 131073 in 32 bits: all channels are in group 0, at dy = 0 and dx = c, and rows are 65537 wide.
  const Buf buf = Buf::Int(8, {1, 3, 1, 1});
  Layer layer("RESHAPE");
  ASSERT_TRUE(layer.Configure({{"pixelshuffler", "65537"}}, {buf}, {buf}));
  EXPECT_EQ(layer.log, Log{});
  GuardedBuffer in = Guarded(std::vector<std::uint8_t>{7, 8, 9});
  GuardedBuffer out(3);
  EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
  EXPECT_EQ(layer.log, Log{});
  EXPECT_EQ(out.Get(), (std::vector<std::uint8_t>{7, 8, 9}));
}

// The kernel for elements of that type.
template <typename T>
void ExpectFormula(const Buf& in, int r, Random& random) {
  ExpectSameBytes(
      random,
      [&](Memory& from, Memory& to) {
        vek_model::PixelShuffle(sizeof(T), static_cast<unsigned>(r), vek_model::Shape(in), from, to);
      },
      [&](void* from, void* to) {
        zeb_custom_ops::pixelshuffle(static_cast<T*>(to), static_cast<T*>(from), r, in);
      });
}

TEST(Reshape, ChannelsThatAreNoMultipleOfTheBlockAreCopiedAllTheSame) {
  Random random(4);
  for (unsigned C : {1U, 3U, 5U, 6U, 7U, 9U}) ExpectFormula<short>(Buf::Int(16, {3, C, 2, 3}), 2, random);
}

TEST(Reshape, ZeroExtentsWriteNothing) {
  for (std::size_t zero = 0; zero < 4; ++zero) {
    for (const std::string factor : {"1", "2"}) {
      Buf buf = Buf::Int(8, {1, 4, 1, 1});
      buf.dims[zero] = 0;
      buf.Pad(0, 0);
      Layer layer("RESHAPE");
      ASSERT_TRUE(layer.Configure({{"pixelshuffler", factor}}, {buf}, {buf}));
      EXPECT_TRUE(layer.Execute({nullptr}, {nullptr}));
      EXPECT_EQ(layer.log, Log{});
    }
  }
}

TEST(Reshape, FactorOneMayRunInPlace) {
  const auto setup = Valid(1);
  Layer layer("RESHAPE");
  ASSERT_TRUE(layer.Configure(setup.attrs, setup.in, setup.out));
  Random random(5);
  GuardedBuffer data(setup.in[0].size);
  data.FillRandom(random);
  const std::vector<std::uint8_t> before = data.Get();
  EXPECT_TRUE(layer.Execute({data.data()}, {data.data()}));
  EXPECT_EQ(data.Get(), before);
}

// Reaches the states that no host can bring about.
struct Opened : zeb_custom_ops::VekReshape {
  using VekReshape::configured_;
  using VekReshape::in_attrs_;
  using VekReshape::out_attrs_;
};

TEST(Reshape, ExecuteWithoutClonesIsRefused) {
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

template <typename T>
class ReshapeKernel : public testing::Test {};
using Widths = testing::Types<int, short, char>;
TYPED_TEST_SUITE(ReshapeKernel, Widths);

TYPED_TEST(ReshapeKernel, EqualsTheFormula) {
  Random random(6);
  for (unsigned r = 1; r <= 5; ++r) {
    SCOPED_TRACE(r);
    ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
      ExpectFormula<TypeParam>(Buf::Int(8, {N, C * r * r, H, W}), static_cast<int>(r), random);
    });
  }
}

}  // namespace
}  // namespace vek_test::reshape
