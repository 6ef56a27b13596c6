// SPACETOBATCH, from its formulas.
#pragma once

#include <cstdlib>

#include "custom_ops/vek_common.h"
#include "reference/moves.h"

namespace vek_test {

inline void SpaceToBatchMoves(Outcome& outcome, std::uint32_t block_height, std::uint32_t block_width,
                              std::uint32_t pad_top, std::uint32_t pad_left, const Nchw& in,
                              const Nchw& out) {
  if (out.N == 0 || out.H == 0 || out.W == 0) return;
  if (in.N == 0 || block_width == 0) return;
  if (!outcome.Takes(std::uint64_t{out.N} * out.H) || !outcome.Takes(std::uint64_t{out.N} * out.H * out.W) ||
      !outcome.Takes(std::uint64_t{out.N} * out.H * out.W * out.C)) {
    return;
  }
  for (std::uint32_t b = 0; b < out.N; ++b) {
    const std::uint32_t blk = b / in.N;
    const std::uint32_t n = b % in.N;
    const std::uint32_t bh = blk / block_width;
    const std::uint32_t bw = blk % block_width;
    for (std::uint32_t h_out = 0; h_out < out.H; ++h_out) {
      const std::uint32_t hp = bh + h_out * block_height;
      for (std::uint32_t w_out = 0; w_out < out.W; ++w_out) {
        const std::uint32_t wp = bw + w_out * block_width;
        for (std::uint32_t c = 0; c < out.C; ++c) {
          const std::uint32_t target = ((b * out.C + c) * out.H + h_out) * out.W + w_out;
          const std::uint32_t source = ((n * in.C + c) * in.H + (hp - pad_top)) * in.W + (wp - pad_left);
          const bool outside = hp < pad_top || hp >= in.H + pad_top || wp < pad_left || wp >= in.W + pad_left;
          outcome.Add(target, outside ? Move::kFill : std::int64_t{source});
        }
      }
    }
  }
}

// The element that pads: the zero point in the exponent's fixed point.
inline std::uint64_t SpaceToBatchFill(std::uint32_t zero_point, const Format& format) {
  const std::uint32_t shift = (0U - static_cast<std::uint32_t>(format.exp)) % 32;
  const double factor = shift == 31 ? -2147483648.0 : static_cast<double>(1U << shift);
  const double product = static_cast<double>(static_cast<float>(factor * zero_point));
  if (format.bitdepth == 8) {
    if (product <= 0) return 0;
    return product >= 4294967296.0 ? 0xFFFFFFFFU : static_cast<std::uint64_t>(product);
  }
  if (product >= 2147483648.0) return 0x7FFFFFFFU;
  if (product < -2147483648.0) return 0x80000000U;
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(product));
}

// The layer's state and what it answers.
struct SpaceToBatchModel {
  static constexpr const char* kFile = "vek_spacetobatch.cpp";
  std::uint32_t block_height = 1, block_width = 1;
  std::uint32_t pad_top = 0, pad_bot = 0, pad_left = 0, pad_right = 0;
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
    if (attrs.count("paddings") == 0) return refuse("expected operation parameter: paddings not found.");
    list = {};
    if (!zeb_custom_ops::sw_ops_parser::ParseTensor(attrs.at("paddings"), &list, &error)) {
      return refuse("ERROR: " + error);
    }
    if (list.size() < 4) {
      return refuse(Text("ERROR: paddings should have 4 elements, but has ", list.size()));
    }
    pad_top = number(list[0]);
    pad_bot = number(list[1]);
    pad_left = number(list[2]);
    pad_right = number(list[3]);
    const std::uint32_t height = i.H + pad_top + pad_bot;
    if (block_height == 0 || height % block_height != 0) {
      return refuse(Text("block_height_ parameter incorrect: ", D(block_height),
                         ", number of (height+pad_top_+pad_bot_) (", D(i.H), " + ", D(pad_top), " + ",
                         D(pad_bot), " ) should be divisible by block_height_"));
    }
    const std::uint32_t width = i.W + pad_left + pad_right;
    if (block_width == 0 || width % block_width != 0) {
      return refuse(Text("block_width_ parameter incorrect: ", D(block_width),
                         ", number of (width+pad_left+pad_right) (", D(i.W), " + ", D(pad_left), " + ",
                         D(pad_right), ") should be divisible by block_width_"));
    }
    const std::uint32_t batch = block_width * block_height * i.N;
    if (o.N != batch) return refuse(Text("wrong output batch: ", D(o.N), ", should be: ", D(batch)));
    if (o.C != i.C) return refuse(Text("wrong output channels: ", D(o.C), ", should be: ", D(i.C)));
    if (o.W != width / block_width) {
      return refuse(Text("wrong output width: ", D(o.W), ", should be: ", D(width / block_width)));
    }
    if (o.H != height / block_height) {
      return refuse(Text("wrong output height: ", D(o.H), ", should be: ", D(height / block_height)));
    }
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
    outcome.fill = SpaceToBatchFill(in.format.q8a ? in.format.q8a_zero : 0, in.format);
    SpaceToBatchMoves(outcome, block_height, block_width, pad_top, pad_left, Nchw(in), Nchw(out));
    return outcome;
  }
};

}  // namespace vek_test
