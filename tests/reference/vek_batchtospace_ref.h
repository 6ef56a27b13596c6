// BATCHTOSPACE, from its formulas.
#pragma once

#include <cstdlib>

#include "custom_ops/vek_common.h"
#include "reference/moves.h"

namespace vek_test {

inline void BatchToSpaceMoves(Outcome& outcome, std::uint32_t block_height, std::uint32_t block_width,
                              std::uint32_t crop_top, std::uint32_t crop_left, const Nchw& in,
                              const Nchw& out) {
  if (out.N == 0 || out.H == 0 || out.W == 0 || out.C == 0) return;
  if (block_height == 0 || block_width == 0) return;
  // A range whose end wraps is empty.
  const bool rows = crop_top + out.H > crop_top;
  const bool columns = crop_left + out.W > crop_left;
  if (!outcome.Takes(out.N) || (rows && !outcome.Takes(std::uint64_t{out.N} * out.H))) return;
  if (rows && columns &&
      (!outcome.Takes(std::uint64_t{out.N} * out.H * out.W) ||
       !outcome.Takes(std::uint64_t{out.N} * out.H * out.W * out.C))) {
    return;
  }
  for (std::uint32_t n = 0; n < out.N; ++n) {
    for (std::uint32_t hu = crop_top; hu < crop_top + out.H; ++hu) {
      for (std::uint32_t wu = crop_left; wu < crop_left + out.W; ++wu) {
        for (std::uint32_t c = 0; c < out.C; ++c) {
          const std::uint32_t h_in = hu / block_height;
          const std::uint32_t bh = hu % block_height;
          const std::uint32_t w_in = wu / block_width;
          const std::uint32_t bw = wu % block_width;
          const std::uint32_t source =
              (((bh * block_width + bw) * out.N + n) * in.C + c) * in.H * in.W + h_in * in.W + w_in;
          const std::uint32_t target = ((n * out.C + c) * out.H + (hu - crop_top)) * out.W + (wu - crop_left);
          outcome.Add(target, source);
        }
      }
    }
  }
}

// The layer's state and what it answers.
struct BatchToSpaceModel {
  static constexpr const char* kFile = "vek_batchtospace.cpp";
  std::uint32_t block_height = 1, block_width = 1;
  std::uint32_t crop_top = 0, crop_bottom = 0, crop_left = 0, crop_right = 0;
  Buf in;
  Buf out;
  bool configured = false;

  Log Configure(const AttrMap& attrs, const std::vector<Buf>& ins, const std::vector<Buf>& outs) {
    const auto refuse = [](const std::string& text) { return Log{Error(kFile, text)}; };
    const auto number = [](const std::string& text) {
      return static_cast<std::uint32_t>(std::strtol(text.c_str(), nullptr, 10));
    };
    if (ins.size() != 1) return refuse(Text("wrong number of inputs, expected: 1, got: ", ins.size()));
    if (outs.size() != 1) return refuse(Text("wrong number of outputs, expected: 1, got: ", outs.size()));
    in = ins[0];
    out = outs[0];
    const Nchw i(in);
    const Nchw o(out);
    if (attrs.size() != 2) return refuse(Text("expected 2 attribute, but got ", attrs.size()));
    std::vector<std::string> list;
    std::string error;
    if (attrs.count("block_shape") == 0) {
      return refuse("expected operation parameter: block_shape not found.");
    }
    if (!zeb_custom_ops::sw_ops_parser::ParseTensor(attrs.at("block_shape"), &list, &error)) {
      return refuse("ERROR: " + error);
    }
    if (list.size() < 2) {
      return refuse(Text("ERROR: block_shape should have 2 elements, but has ", list.size()));
    }
    block_height = number(list[0]);
    block_width = number(list[1]);
    if (attrs.count("crops") == 0) return refuse("expected operation parameter: crops not found.");
    list = {};
    if (!zeb_custom_ops::sw_ops_parser::ParseTensor(attrs.at("crops"), &list, &error)) {
      return refuse("ERROR: " + error);
    }
    if (list.size() < 4) return refuse(Text("ERROR: crops should have 4 elements, but has ", list.size()));
    crop_top = number(list[0]);
    crop_bottom = number(list[1]);
    crop_left = number(list[2]);
    crop_right = number(list[3]);
    const std::uint32_t block = block_width * block_height;
    if (block == 0) {
      return refuse(Text("block_shape parameter incorrect: ", D(block_height), " x ", D(block_width),
                         ", should be at least 1 x 1"));
    }
    if (o.N != i.N / block) {
      return refuse(Text("wrong output batch: ", D(o.N), ", should be: ", D(i.N / block)));
    }
    if (o.C != i.C) return refuse(Text("wrong output channels: ", D(o.C), ", should be: ", D(i.C)));
    const std::uint32_t width = i.W * block_width - crop_left - crop_right;
    if (o.W != width) return refuse(Text("wrong output width: ", D(o.W), ", should be: ", D(width)));
    const std::uint32_t height = i.H * block_height - crop_top - crop_bottom;
    if (o.H != height) return refuse(Text("wrong output height: ", D(o.H), ", should be: ", D(height)));
    if (const std::string text = FormatRefusal(in, out); !text.empty()) return refuse(text);
    configured = true;
    return {};
  }

  Outcome Execute() const {
    if (!configured) return {false, {Error(kFile, "Can't run Execute() without Configure()")}};
    if (!IsWholeBytes(in.format.bitdepth)) {
      return {false, {Error(kFile, Text("not supported bitdepth: ", in.format.bitdepth, "."))}};
    }
    Outcome outcome;
    outcome.bitdepth = in.format.bitdepth;
    BatchToSpaceMoves(outcome, block_height, block_width, crop_top, crop_left, Nchw(in), Nchw(out));
    return outcome;
  }
};

}  // namespace vek_test
