// RESHAPE, from its formulas.
#pragma once

#include <cstdlib>
#include <initializer_list>

#include "reference/moves.h"

namespace vek_test {

inline void PixelShuffleMoves(Outcome& outcome, std::uint32_t r, const Nchw& in) {
  if (in.N == 0 || in.C == 0) return;
  if (!outcome.Takes(std::uint64_t{in.N} * in.C) || !outcome.Takes(std::uint64_t{in.N} * in.C * in.H) ||
      (in.H != 0 && !outcome.Takes(std::uint64_t{in.N} * in.C * in.H * in.W))) {
    return;
  }
  const std::uint32_t C_out = in.C / (r * r);
  std::uint32_t i = 0;
  for (std::uint32_t n = 0; n < in.N; ++n) {
    for (std::uint32_t c = 0; c < in.C; ++c) {
      for (std::uint32_t h = 0; h < in.H; ++h) {
        const std::uint32_t oc = c / (r * r);
        const std::uint32_t dy = (c / r) % r;
        const std::uint32_t dx = (c % (r * r)) % r;
        std::uint32_t d = dx + ((n * C_out + oc) * (r * in.H) + h * r + dy) * (r * in.W);
        for (std::uint32_t w = 0; w < in.W; ++w) {
          outcome.Add(d, i);
          i += 1;
          d += r;
        }
      }
    }
  }
}

// The layer's state and what it answers.
struct ReshapeModel {
  static constexpr const char* kFile = "vek_reshape.cpp";
  std::int32_t factor = 1;
  Buf in;
  Buf out;
  bool configured = false;

  Log Configure(const AttrMap& attrs, const std::vector<Buf>& ins, const std::vector<Buf>& outs) {
    const auto refuse = [](const std::string& text) { return Log{Error(kFile, text)}; };
    if (attrs.size() != 1) return refuse(Text("expected 1 attribute, but got ", attrs.size()));
    if (attrs.count("pixelshuffler") == 0) {
      return refuse(Text("expected attribute: pixelshuffler, got: ", attrs.begin()->first));
    }
    factor = static_cast<std::int32_t>(std::strtol(attrs.at("pixelshuffler").c_str(), nullptr, 10));
    if (ins.size() != 1 || outs.size() != 1) {
      return refuse(
          Text("expected one input and one output, got: ", ins.size(), " inputs, ", outs.size(), " outputs"));
    }
    if (ins[0].size < ins[0].Count()) {
      return refuse(
          Text("Input buf size should be at least ", D(ins[0].Count()), ", but is ", D(ins[0].size)));
    }
    if (outs[0].size < outs[0].Count()) {
      return refuse(
          Text("Output buf size should be at least ", D(outs[0].Count()), ", but is ", D(outs[0].size)));
    }
    if (!HasQuotients()) {
      return refuse(Text("pixelshuffler = ", factor, ", but should be at least 1 and no multiple of 65536"));
    }
    in = ins[0];
    out = outs[0];
    configured = true;
    return {};
  }

  // By the factor and by its square.
  bool HasQuotients() const {
    const auto r = static_cast<std::uint32_t>(factor);
    return factor > 0 && r * r != 0;
  }

  static bool Packed(const Buf& buf) {
    return buf.format.plane_pack == 1 && !buf.dims.empty() &&
           buf.dims.back() * static_cast<std::uint32_t>(buf.format.bitdepth) / 8 == buf.line_stride;
  }

  Outcome Execute() const {
    const auto refuse = [](std::initializer_list<std::string> texts) {
      Outcome refusal{false};
      for (const std::string& text : texts) refusal.log.push_back(Error(kFile, text));
      return refusal;
    };
    if (!configured) return refuse({"Can't run Execute() without Configure()"});
    const auto in_count = static_cast<std::uint32_t>(in.Count());
    const auto out_count = static_cast<std::uint32_t>(out.Count());
    if (in.format.bitdepth != out.format.bitdepth) {
      return refuse({" RESHAPE expected bitdepth of input and output to match"});
    }
    if (in_count != out_count) {
      if (Packed(in) || Packed(out)) return refuse({"can't calculate Reshape"});
      return refuse({Text(" RESHAPE input and output size must match,  in_size != out_size (", D(in_count),
                          " != ", D(out_count), ")")});
    }

    Outcome outcome;
    outcome.bitdepth = in.format.bitdepth;
    if (factor == 1) {
      if (!IsWholeBytes(outcome.bitdepth)) {
        return refuse({Text("unhandled bitdepth (", outcome.bitdepth, "b)"), "can't calculate Reshape"});
      }
      if (!outcome.Takes(in_count)) return outcome;
      for (std::uint32_t i = 0; i < in_count; ++i) outcome.Add(i, i);
      return outcome;
    }
    if (!Packed(in)) outcome.bitdepth = 32;
    if (!IsWholeBytes(outcome.bitdepth)) return outcome;
    const Nchw shape(in);
    if (shape.N == 0 || shape.C == 0) return outcome;
    if (!HasQuotients()) return refuse({"can't calculate Reshape"});
    PixelShuffleMoves(outcome, static_cast<std::uint32_t>(factor), shape);
    return outcome;
  }
};

}  // namespace vek_test
