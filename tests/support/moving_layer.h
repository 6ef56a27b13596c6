// Drives layers and kernels that move elements and compares them with the list of moves that their reference
// gives: result, log lines, every byte of the output.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "reference/moves.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"
#include "support/random.h"
#include "support/refusals.h"

namespace vek_test {

// Calls `call(in, out)` on buffers that end (or begin) at unmapped pages right where the moves do.
template <typename Call>
void CheckMoves(const Outcome& expected, Random& random, Guard guard, Call&& call) {
  ASSERT_TRUE(expected.runs);
  const auto width = static_cast<std::size_t>(expected.bitdepth / 8);
  std::int64_t in_count = 0;
  std::int64_t out_count = 0;
  for (const Move& move : expected.moves) {
    in_count = std::max(in_count, move.from + 1);
    out_count = std::max(out_count, move.to + 1);
  }
  GuardedBuffer in(static_cast<std::size_t>(in_count) * width, guard);
  GuardedBuffer out(static_cast<std::size_t>(out_count) * width, guard);
  in.FillRandom(random);
  out.FillRandom(random);
  const std::vector<std::uint8_t> in_bytes = in.Get();
  std::vector<std::uint8_t> out_bytes = out.Get();
  const auto* fill = reinterpret_cast<const std::uint8_t*>(&expected.fill);
  for (const Move& move : expected.moves) {
    const std::uint8_t* from =
        move.from == Move::kFill ? fill : in_bytes.data() + static_cast<std::size_t>(move.from) * width;
    std::copy_n(from, width, out_bytes.data() + static_cast<std::size_t>(move.to) * width);
  }

  bool result = false;
  const Log log = CaptureLog([&] { result = call(in.data(), out.data()); });
  EXPECT_EQ(result, expected.result);
  EXPECT_EQ(log, expected.log);
  EXPECT_TRUE(in.Get() == in_bytes) << "the input changed";
  EXPECT_TRUE(out.Get() == out_bytes) << "the output differs";
}

inline Guard AnySide(Random& random) { return random.OneIn(2) ? Guard::kBefore : Guard::kAfter; }

// The same for Execute of a layer.
inline void CheckExecute(zeb::PuxDnnCustomLayer* layer, const Outcome& expected, Random& random) {
  CheckMoves(expected, random, AnySide(random), [&](void* in, void* out) {
    void* ins[] = {in};
    void* outs[] = {out};
    return layer->Execute(ins, outs);
  });
}

// Configures and executes one layer a few times with setups from `generate(random)`, valid ones and spoilt
// ones, beside the model of the layer.
template <typename Model, typename Generate>
void RunAgainstModel(const std::string& type, Random& random, Generate&& generate) {
  const ScopedThreshold threshold(kInfo);
  const ExpectNoLeakedClones no_leaks;
  Layer layer(type);
  Model model;
  for (unsigned round = random.Between(1, 3); round-- > 0 && !testing::Test::HasFailure();) {
    const Setup setup = generate(random);
    const Log log = model.Configure(setup.attrs, setup.in, setup.out);
    EXPECT_EQ(layer.Configure(setup.attrs, setup.in, setup.out), log.empty());
    EXPECT_EQ(layer.log, log);
    const Outcome outcome = model.Execute();
    if (outcome.runs) CheckExecute(layer.get(), outcome, random);
  }
}

// Calls `body(N, C, H, W)` for small shapes, odd ones, and rows about a vector long, until a test fails.
template <typename Body>
void ForShapes(Body&& body) {
  using Extents = std::initializer_list<unsigned>;
  for (unsigned N : Extents{1, 2}) {
    for (unsigned C : Extents{1, 3}) {
      for (unsigned H : Extents{1, 2, 3, 5}) {
        for (unsigned W : Extents{1, 2, 3, 5, 8, 15, 16, 17, 33}) {
          SCOPED_TRACE(Text(N, " x ", C, " x ", H, " x ", W));
          body(N, C, H, W);
          if (testing::Test::HasFailure()) return;
        }
      }
    }
  }
}

// --- Rows of fault tables.

inline std::function<void(Setup&)> SpoilIn(std::function<void(Buf&)> change) {
  return [=](Setup& setup) { change(setup.in[0]); };
}
inline std::function<void(Setup&)> SpoilOut(std::function<void(Buf&)> change) {
  return [=](Setup& setup) { change(setup.out[0]); };
}
inline std::function<void(Buf&)> SetDim(std::size_t i, unsigned value) {
  return [=](Buf& buf) { buf.dims[i] = value; };
}

// The last rows of the layers that move blocks. `bytes` is what the setup's 16-bit buffers have to hold.
inline void AddFormatFaults(std::vector<Fault>& faults, const std::string& file, unsigned in_bytes,
                            unsigned out_bytes) {
  const auto line = [&](const std::string& text) { return Log{Error(file, text)}; };
  const auto set_depth = [](int bits) { return [=](Buf& buf) { buf.format.bitdepth = bits; }; };
  const auto set_pack = [](int pack) { return [=](Buf& buf) { buf.format.plane_pack = pack; }; };
  const auto set_size = [](unsigned size) { return [=](Buf& buf) { buf.size = size; }; };
  const auto set_strided = [](Buf& buf) { buf.strided = true; };
  const std::vector<Fault> more = {
      {"bit depths", SpoilOut(set_depth(8)), line("input bitdepth: 16, differs from output bitdepth: 8")},
      {"input interleaved", SpoilIn(set_pack(4)),
       line("expected interleaving: 1, instead got interleaving on input: 4, on output: 1"), "pack"},
      {"output interleaved", SpoilOut(set_pack(0)),
       line("expected interleaving: 1, instead got interleaving on input: 1, on output: 0"), "pack"},
      {"input padded", SpoilIn(set_strided),
       line("buffer with stride detected on input or output, which is not supported.")},
      {"output padded", SpoilOut(set_strided),
       line("buffer with stride detected on input or output, which is not supported.")},
      {"input short", SpoilIn(set_size(in_bytes - 1)),
       line(Text("input buffer size too small, size: ", in_bytes - 1,
                 " bytes vs expected at least: ", in_bytes, " bytes."))},
      {"output short", SpoilOut(set_size(out_bytes - 1)),
       line(Text("output buffer size too small, size: ", out_bytes - 1,
                 " bytes vs expected at least: ", out_bytes, " bytes."))},
  };
  faults.insert(faults.end(), more.begin(), more.end());
}

// --- Random setups.

// Divides extents until they have no more than `most` elements.
inline void Shrink(std::vector<unsigned>& dims, std::uint64_t most) {
  for (std::size_t i = 0;; i = (i + 1) % dims.size()) {
    std::uint64_t count = 1;
    for (unsigned dim : dims) count *= dim;
    if (count <= most) return;
    if (dims[i] > 1) dims[i] = (dims[i] + 1) / 2;
  }
}

inline Format RandomFormat(Random& random) {
  Format format = Buf::Planar(random.OneOf({8, 16, 32}), false);
  format.float_ = format.bitdepth == 32 && random.OneIn(2);
  format.exp = random.OneIn(2) ? 0 : static_cast<int>(random.Between(0, 80)) - 40;
  format.signed_ = random.OneIn(2);
  format.q8a = random.OneIn(3);
  format.q8a_zero = static_cast<std::uint8_t>(random());
  return format;
}

// The text of a number in one of the ways that read as it.
inline std::string NumberText(Random& random, std::int64_t value) {
  const std::string text = std::to_string(value);
  switch (random.Between(0, 9)) {
    case 0:
      return " " + text;
    case 1:
      return value < 0 ? text : "+" + text;
    case 2:
      return text + "x";
    case 3:
      return text + ".9";
    case 4:
      return std::to_string(value + 4294967296);
    default:
      return text;
  }
}

// The text of a list in one of the ways that read as it, at times with an element too many.
inline std::string ListText(Random& random, const std::vector<std::int64_t>& values) {
  const bool nested = values.size() % 2 == 0 && random.OneIn(3);
  std::string text = nested ? "[[" : random.OneIn(8) ? "" : "[";
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i != 0) text += nested && i % 2 == 0 ? "],[" : ",";
    text += NumberText(random, values[i]);
  }
  text += nested ? "]]" : "]";
  if (random.OneIn(12)) text += " ";
  return text;
}

// Spoils something, so that the setup may be refused, or be odd.
inline void Spoil(Random& random, Setup& setup) {
  const auto buf = [&]() -> Buf& {
    if (setup.in.empty()) setup.in.push_back(Buf::Float({1, 1, 1, 1}));
    if (setup.out.empty()) setup.out.push_back(Buf::Float({1, 1, 1, 1}));
    return random.OneIn(2) ? setup.in[0] : setup.out[0];
  };
  switch (random.Between(0, 11)) {
    case 0:
      return random.OneIn(2) ? setup.in.clear() : setup.out.clear();
    case 1: {
      auto& list = random.OneIn(2) ? setup.in : setup.out;
      return list.push_back(Buf::Float({1, 2, 3, 4}));
    }
    case 2:
    case 3: {
      Buf& spoilt = buf();
      if (spoilt.dims.empty()) return;
      unsigned& dim = spoilt.dims[random.Between(0, static_cast<unsigned>(spoilt.dims.size()) - 1)];
      dim = random.OneIn(4) ? random.OneOf({0x10000U, 0x80000000U, 0xFFFFFFFFU, 0x40000000U})
                            : random.Between(0, 9);
      if (random.OneIn(2)) spoilt.Pad(0, 0);
      return;
    }
    case 4:
      buf().format.bitdepth = random.OneOf({8, 16, 32, 12, 24, 0, 64, -8});
      return;
    case 5:
      buf();
      setup.in[0].format.bitdepth = setup.out[0].format.bitdepth = random.OneOf({8, 16, 32, 12, 24, 0});
      return;
    case 6:
      buf().format.plane_pack = random.OneOf({0, 2, 4, -1});
      return;
    case 7:
      if (random.OneIn(2)) {
        buf().Pad(random.Between(0, 3), random.Between(0, 3));
      } else {
        buf().strided = true;
      }
      return;
    case 8: {
      Buf& spoilt = buf();
      spoilt.size = random.OneIn(2) ? spoilt.size - 1 : spoilt.size / 2;
      return;
    }
    case 9: {  // dims that are not the four that the accessors tell
      Buf& spoilt = buf();
      spoilt.nchw = {spoilt.At(0), spoilt.At(1), spoilt.At(2), spoilt.At(3)};
      spoilt.dims.resize(random.Between(0, 6), random.Between(1, 3));
      return;
    }
    case 10: {
      const std::string key = random.OneOf<std::string>({"", "axis", "block_size ", "CROPS"});
      if (random.OneIn(2) && !setup.attrs.empty()) setup.attrs.erase(setup.attrs.begin());
      if (random.OneIn(2)) setup.attrs[key] = "1";
      return;
    }
    default:
      if (setup.attrs.empty()) return;
      setup.attrs.begin()->second =
          random.OneOf<std::string>({"",          "0",          "-1",          "-2",
                                     "65536",     "2147483648", "3",           "1",
                                     "x",         "[]",         "[ ]",         "[]]",
                                     "1,2",       "[1,2",       "[2]",         "[1,2,3]",
                                     "[0,0]",     "[0,1]",      "[2,0]",       "[-1,1]",
                                     "[1,-1]",    "[x,y]",      "[1,2]",       "[65536,65536]",
                                     "[0,0,0,0]", "[-1,1,0,0]", "[0,0,-1,1]",  "[4294967295,1,4294967295,1]",
                                     "[1,1,1,1]", "[3,5,7,9]",  "[[1,2],[3]]", "[1,[2,3]]"});
  }
}

// Mostly leaves a setup alone, else spoils one thing or two.
inline Setup MaybeSpoilt(Random& random, Setup setup) {
  if (random.OneIn(3)) Spoil(random, setup);
  if (random.OneIn(9)) Spoil(random, setup);
  return setup;
}

}  // namespace vek_test
