// At least one small valid layer of each type, path and element width: for the tests that hold of all layers
// alike.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/refusals.h"

namespace vek_test {

struct Specimen {
  std::string name;
  std::string type;
  Setup setup;
  unsigned index_below = 0;  // input 1 holds 32-bit indices below this number

  friend std::ostream& operator<<(std::ostream& out, const Specimen& specimen) {
    return out << specimen.name;
  }
};

inline std::vector<Specimen> Zoo() {
  std::vector<Specimen> zoo;
  const auto add = [&](std::string name, std::string type, AttrMap attrs, std::vector<Buf> in,
                       Buf out) -> Specimen& {
    zoo.push_back({std::move(name), std::move(type), {std::move(attrs), std::move(in), {std::move(out)}}});
    return zoo.back();
  };
  using Dims = std::vector<unsigned>;
  const auto any = [](int bitdepth, Dims dims) {
    return Buf::Packed(std::move(dims), Buf::Planar(bitdepth, bitdepth == 32));
  };
  const auto packed_by = [](int bitdepth, int pack, Dims dims) {
    return Buf::Packed(std::move(dims), Buf::Planar(bitdepth, bitdepth == 32, pack));
  };

  for (const char* axis : {"0", "1", "2", "3"}) {
    add(std::string("softmax ") + axis, "SOFTMAX", {{"axis", axis}}, {Buf::Float({2, 5, 3, 7})},
        Buf::Float({2, 5, 3, 7}));
    add(std::string("argmax ") + axis, "ARGMAX", {{"axis", axis}}, {Buf::Float({1, 5, 3, 7})},
        Buf::Float({1, 5, 3, 7}));
  }
  add("argmax top 3", "ARGMAX", {{"top_k", "3"}}, {Buf::Float({4, 2, 3, 2})}, Buf::Float({3, 2, 3, 2}));
  add("normalize item", "NORMALIZE", {}, {Buf::Float({2, 3, 4, 5})}, Buf::Float({2, 3, 4, 5}));
  add("normalize plane", "NORMALIZE", {{"across_spatial", "0"}, {"channel_shared", "0"}},
      {Buf::Float({2, 3, 4, 5})}, Buf::Float({2, 3, 4, 5}));
  add("eltwise add", "ELTWISE", {{"method", "1"}, {"has_k", "1"}, {"k", "2.5"}}, {Buf::Float({2, 3, 4, 5})},
      Buf::Float({2, 3, 4, 5}));
  add("eltwise power", "ELTWISE", {{"method", "7"}, {"has_k", "1"}, {"k", "2.2"}}, {Buf::Float({2, 3, 4, 5})},
      Buf::Float({2, 3, 4, 5}));
  add("eltwise product", "ELTWISE", {{"method", "0"}}, {Buf::Float({2, 3, 4, 5}), Buf::Float({2, 3, 4, 5})},
      Buf::Float({2, 3, 4, 5}));
  add("eltwise product by channel", "ELTWISE", {{"method", "0"}, {"broadcast_B", "1"}, {"word_B", "3"}},
      {Buf::Float({2, 3, 4, 5}), Buf::Float({2, 3, 1, 1})}, Buf::Float({2, 3, 4, 5}));
  add("eltwise quotient", "ELTWISE", {{"method", "6"}, {"broadcast_B", "1"}, {"word_B", "0x9"}},
      {Buf::Float({2, 3, 4, 5}), Buf::Float({1, 3, 4, 1})}, Buf::Float({2, 3, 4, 5}));
  add("matmul", "MATMUL", {{"trans_b", "0"}}, {Buf::Float({2, 3, 1, 5}), Buf::Float({2, 5, 1, 4})},
      Buf::Float({2, 3, 1, 4}));
  add("matmul gram", "MATMUL", {{"trans_b", "1"}}, {Buf::Float({2, 3, 1, 5})}, Buf::Float({2, 3, 1, 3}));

  for (int bits : {8, 16, 32}) {
    const std::string width = " " + std::to_string(bits);
    add("reshape" + width, "RESHAPE", {{"pixelshuffler", "1"}}, {any(bits, {1, 2, 3, 4})},
        any(bits, {1, 24, 1, 1}));
    add("pixel shuffle" + width, "RESHAPE", {{"pixelshuffler", "2"}}, {any(bits, {2, 8, 3, 5})},
        any(bits, {2, 2, 6, 10}));
    add("permute to channel-last" + width, "PERMUTE", {{"axes", "[0,2,3,1]"}}, {any(bits, {2, 3, 4, 5})},
        any(bits, {2, 4, 5, 3}));
    add("permute to channel-first" + width, "PERMUTE", {{"axes", "[0,3,1,2]"}}, {any(bits, {2, 4, 5, 3})},
        any(bits, {2, 3, 4, 5}));
    add("permute" + width, "PERMUTE", {{"axes", "[2,0]"}}, {any(bits, {2, 3, 4, 5})},
        any(bits, {4, 2, 3, 5}));
    add("permute padded" + width, "PERMUTE", {{"axes", "[0,1,3,2]"}}, {any(bits, {2, 3, 4, 5}).Pad(8, 16)},
        any(bits, {2, 3, 5, 4}).Pad(4, 0));
    add("stride widening" + width, "DATA_STRIDE_CONV", {}, {any(bits, {2, 3, 4, 5})},
        any(bits, {2, 3, 4, 5}).Pad(12, 8));
    add("stride narrowing" + width, "DATA_STRIDE_CONV", {}, {any(bits, {2, 3, 4, 5}).Pad(12, 0)},
        any(bits, {2, 3, 4, 5}));
    add("stride interleaving" + width, "DATA_STRIDE_CONV", {}, {any(bits, {2, 6, 4, 5})},
        packed_by(bits, 4, {2, 6, 4, 5}));
    add("stride of 3-D" + width, "DATA_STRIDE_CONV", {}, {any(bits, {3, 4, 5})}, any(bits, {3, 4, 5}));
    add("broadcast" + width, "BROADCAST", {{"size", "[0,1,0,1]"}}, {any(bits, {1, 1, 4, 1})},
        any(bits, {1, 3, 4, 5}));
    add("depth to space" + width, "DEPTHTOSPACE", {{"block_size", "2"}}, {any(bits, {2, 8, 3, 4})},
        any(bits, {2, 2, 6, 8}));
    add("space to depth" + width, "SPACETODEPTH", {{"block_size", "2"}}, {any(bits, {2, 2, 6, 8})},
        any(bits, {2, 8, 3, 4}));
    add("space to batch" + width, "SPACETOBATCH", {{"block_shape", "[2,2]"}, {"paddings", "[1,2,0,1]"}},
        {any(bits, {2, 3, 5, 7})}, any(bits, {8, 3, 4, 4}));
    add("batch to space" + width, "BATCHTOSPACE", {{"block_shape", "[2,2]"}, {"crops", "[1,2,0,1]"}},
        {any(bits, {8, 3, 4, 4})}, any(bits, {2, 3, 5, 7}));
    add("gather" + width, "GATHER", {{"axis", "1"}}, {any(bits, {2, 5, 3, 4}), Buf::Int(32, {7})},
        any(bits, {2, 7, 3, 4}))
        .index_below = 5;
    add("concat" + width, "SWCONCAT", {{"axis", "1"}}, {any(bits, {2, 3, 4, 5}), any(bits, {2, 2, 4, 5})},
        any(bits, {2, 5, 4, 5}));
    add("concat 5-D" + width, "SWCONCAT", {{"axis", "2"}},
        {any(bits, {2, 3, 1, 2, 5}), any(bits, {2, 3, 4, 2, 5})}, any(bits, {2, 3, 5, 2, 5}));
    for (const char* mode : {"1", "2", "3", "4"}) {
      add(std::string("pad ") + mode + width, "PAD",
          {{"pad_mode", mode}, {"pad", "3"}, {"pad_shape", "[0,1,1,2,1,1,2,3]"}, {"format", "[0,1,2,3]"}},
          {any(bits, {2, 3, 4, 5})}, any(bits, {3, 6, 6, 10}));
    }
  }
  for (const char* mode : {"1", "2", "3", "4"}) {
    add(std::string("pad general ") + mode, "PAD",
        {{"pad_mode", mode}, {"pad", "3"}, {"pad_shape", "[1,1,1,2,1,1,2,3]"}, {"format", "[0,2,3,1]"}},
        {Buf::Float({2, 3, 4, 5})}, Buf::Float({4, 6, 6, 10}));
  }
  return zoo;
}

}  // namespace vek_test
