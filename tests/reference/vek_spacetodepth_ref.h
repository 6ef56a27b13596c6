// SPACETODEPTH, from its formulas.
#pragma once

#include <cstdlib>

#include "reference/moves.h"

namespace vek_test {

inline void SpaceToDepthMoves(Outcome& outcome, std::int32_t block_size, const Nchw& in, const Nchw& out) {
  const auto b = static_cast<std::uint32_t>(block_size);
  if (in.N == 0 || in.H == 0 || in.W == 0 || in.C == 0 || b == 0) return;
  if (!outcome.Takes(std::uint64_t{in.N} * in.C) || !outcome.Takes(std::uint64_t{in.H} * in.W) ||
      !outcome.Takes(std::uint64_t{in.N} * in.C * in.H * in.W)) {
    return;
  }
  for (std::uint32_t n = 0; n < in.N; ++n) {
    for (std::uint32_t h = 0; h < in.H; ++h) {
      for (std::uint32_t w = 0; w < in.W; ++w) {
        for (std::uint32_t c = 0; c < in.C; ++c) {
          const std::uint32_t bh = h % b;
          const std::uint32_t bw = w % b;
          const std::uint32_t h_out = h / b;
          const std::uint32_t w_out = w / b;
          const std::uint32_t source = n * in.C * in.H * in.W + c * in.H * in.W + h * in.W + w;
          const std::uint32_t target =
              ((n * out.C + (bh * b + bw) * in.C + c) * out.H + h_out) * out.W + w_out;
          outcome.Add(target, source);
        }
      }
    }
  }
}

// The layer's state and what it answers.
struct SpaceToDepthModel {
  static constexpr const char* kFile = "vek_spacetodepth.cpp";
  Buf in;
  Buf out;
  bool configured = false;
  std::int32_t block_size = 1;

  Log Configure(const AttrMap& attrs, const std::vector<Buf>& ins, const std::vector<Buf>& outs) {
    const auto refuse = [](const std::string& text) { return Log{Error(kFile, text)}; };
    if (ins.size() != 1) return refuse(Text("wrong number of inputs, expected: 1, got: ", ins.size()));
    if (outs.size() != 1) return refuse(Text("wrong number of outputs, expected: 1, got: ", outs.size()));
    in = ins[0];
    out = outs[0];
    const Nchw i(in);
    const Nchw o(out);
    if (attrs.size() != 1) return refuse(Text("expecting exactly one attribute, got: ", attrs.size()));
    if (attrs.count("block_size") == 0) {
      return refuse("expected operation parameter: block_size not found.");
    }
    block_size = static_cast<std::int32_t>(std::strtol(attrs.at("block_size").c_str(), nullptr, 10));
    if (block_size < 1) return refuse(Text("block_size parameter incorrect: ", block_size));
    const auto b = static_cast<std::uint32_t>(block_size);
    if (i.W % b != 0) {
      return refuse(Text("block_size parameter incorrect: ", block_size, ", number of width ", D(i.W),
                         " should be divisible by block_size"));
    }
    if (i.H % b != 0) {
      return refuse(Text("block_size parameter incorrect: ", block_size, ", number of height ", D(i.H),
                         " should be divisible by block_size"));
    }
    if (o.N != i.N) return refuse(Text("wrong output batch: ", D(o.N), ", should be: ", D(i.N)));
    if (o.C != b * b * i.C) {
      return refuse(Text("wrong output channels: ", D(o.C), ", should be: ", D(b * b * i.C)));
    }
    if (o.W != i.W / b) return refuse(Text("wrong output width: ", D(o.W), ", should be: ", D(i.W / b)));
    if (o.H != i.H / b) return refuse(Text("wrong output height: ", D(o.H), ", should be: ", D(i.H / b)));
    if (const std::string text = FormatRefusal(in, out); !text.empty()) return refuse(text);
    configured = true;
    return {};
  }

  Outcome Execute() const {
    if (!configured) return {false, {Error(kFile, "custom layer not configured.")}};
    if (!IsWholeBytes(in.format.bitdepth)) {
      return {false, {Error(kFile, Text("not supported bitdepth: ", in.format.bitdepth, "."))}};
    }
    Outcome outcome;
    outcome.bitdepth = in.format.bitdepth;
    SpaceToDepthMoves(outcome, block_size, Nchw(in), Nchw(out));
    return outcome;
  }
};

}  // namespace vek_test
