// DEPTHTOSPACE, from its formulas.
#pragma once

#include <cstdlib>

#include "reference/moves.h"

namespace vek_test {

inline void DepthToSpaceMoves(Outcome& outcome, std::int32_t block_size, const Nchw& in, const Nchw& out) {
  const auto b = static_cast<std::uint32_t>(block_size);
  const std::uint32_t total_in = in.N * in.C * in.H * in.W;
  const auto total_out = static_cast<std::int32_t>(out.N * out.C * out.H * out.W);
  const std::uint32_t G = out.C * in.H;
  if (G == 0 || b * b == 0 || !outcome.Takes(total_in)) return;
  for (std::uint32_t i = 0; i < total_in; ++i) {
    const std::uint32_t w = i % in.W;
    const std::uint32_t q = i / in.W;
    const std::uint32_t a = q / G;
    const std::uint32_t r = q % G;
    const std::uint32_t bw = a % b;
    const std::uint32_t bh = (a / b) % b;
    const std::uint32_t n = a / (b * b);
    const auto o = static_cast<std::int32_t>(bw + b * (w + in.W * (bh + b * (r + n * G))));
    if (o < total_out) {
      outcome.Add(o, i);
    } else {
      outcome.log.push_back(Warning("ext_depthtospace.cpp", "buffer overflow attempt"));
    }
  }
}

// The layer's state and what it answers.
struct DepthToSpaceModel {
  static constexpr const char* kFile = "vek_depthtospace.cpp";
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
    if (b * b == 0 || i.C % (b * b) != 0) {
      return refuse(Text("block_size parameter incorrect: ", block_size,
                         ", number of channels should be divisible by block_size*block_size"));
    }
    if (o.N != i.N) return refuse(Text("wrong output batch: ", D(o.N), ", should be: ", D(i.N)));
    if (o.C != i.C / (b * b)) {
      return refuse(Text("wrong output channels: ", D(o.C), ", should be: ", D(i.C / (b * b))));
    }
    if (o.W != i.W * b) return refuse(Text("wrong output width: ", D(o.W), ", should be: ", D(i.W * b)));
    if (o.H != i.H * b) return refuse(Text("wrong output height: ", D(o.H), ", should be: ", D(i.H * b)));
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
    DepthToSpaceMoves(outcome, block_size, Nchw(in), Nchw(out));
    return outcome;
  }
};

}  // namespace vek_test
