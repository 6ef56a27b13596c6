// Times one Execute of each layer type over the layouts that have paths of their own, and next to it a
// memcpy of the larger of the bytes read and the bytes written.
//
//   vek_bench [--benchmark_filter=REGEX] [...]      VEK_PLUGIN=PATH times another build of the plug-in
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/buf_attrs.h"
#include "host/plugin.h"

namespace {

using AttrMap = zeb::PuxDnnCustomLayer::AttrMap;
using vek_host::BufAttrs;
using Dims = std::vector<unsigned>;

struct Entry {
  std::string name;
  std::string type;
  std::vector<AttrMap> attrs;  // one Configure each
  std::vector<BufAttrs> in;
  BufAttrs out;
  std::uint32_t index_below = 0;  // input 1 holds indices below this number
};

BufAttrs Describe(Dims dims, int bitdepth, int plane_pack = 1, unsigned row_padding = 0) {
  zeb::PuxDnnBufAttrsMemFormat format;
  format.bitdepth = bitdepth;
  format.float_ = bitdepth == 32;
  format.plane_pack = plane_pack;
  const unsigned H = dims.size() > 1 ? dims[dims.size() - 2] : 1;
  BufAttrs attrs(std::move(dims), format);
  attrs.SetLineStride(attrs.GetLineStride() + row_padding);
  attrs.SetPlaneStride(attrs.GetLineStride() * H);
  return attrs;
}
BufAttrs Float(Dims dims) { return Describe(std::move(dims), 32); }

std::vector<Entry> Entries() {
  std::vector<Entry> entries;
  const auto add = [&](std::string name, std::string type, std::vector<AttrMap> attrs,
                       std::vector<BufAttrs> in, BufAttrs out) -> Entry& {
    return entries.emplace_back(
        Entry{std::move(name), std::move(type), std::move(attrs), std::move(in), std::move(out)});
  };

  add("softmax/rows", "SOFTMAX", {{{"axis", "3"}}}, {Float({1, 12, 384, 384})}, Float({1, 12, 384, 384}));
  add("softmax/channels", "SOFTMAX", {{{"axis", "1"}}}, {Float({1, 21, 257, 257})}, Float({1, 21, 257, 257}));
  add("argmax/rows", "ARGMAX", {{{"axis", "3"}}}, {Float({1, 17, 1, 3072})}, Float({1, 17, 1, 1}));
  add("argmax/channels", "ARGMAX", {{{"axis", "1"}}}, {Float({1, 21, 257, 257})}, Float({1, 1, 257, 257}));
  add("argmax/top5", "ARGMAX", {{{"axis", "1"}}, {{"top_k", "5"}}}, {Float({1, 1000, 1, 1})},
      Float({1, 5, 1, 1}));
  add("normalize/item", "NORMALIZE", {{}}, {Float({1, 512, 38, 38})}, Float({1, 512, 38, 38}));
  add("normalize/planes", "NORMALIZE", {{{"across_spatial", "0"}}}, {Float({1, 512, 38, 38})},
      Float({1, 512, 38, 38}));

  const Dims image = {1, 64, 112, 112};
  const auto eltwise = [&](const char* name, AttrMap attrs, std::vector<BufAttrs> in) {
    add(std::string("eltwise/") + name, "ELTWISE", {std::move(attrs)}, std::move(in), Float(image));
  };
  const auto by_word = [](const char* method, const char* word) {
    return AttrMap{{"method", method}, {"broadcast_B", "1"}, {"word_B", word}};
  };
  const auto with_k = [](const char* method, const char* k) {
    return AttrMap{{"method", method}, {"has_k", "1"}, {"k", k}};
  };
  eltwise("product", {{"method", "0"}}, {Float(image), Float(image)});
  eltwise("product_by_channel", by_word("0", "3"), {Float(image), Float({1, 64, 1, 1})});
  eltwise("product_by_pixel", by_word("0", "4"), {Float(image), Float({1, 1, 112, 112})});
  eltwise("quotient", {{"method", "6"}}, {Float(image), Float(image)});
  eltwise("quotient_by_channel", by_word("6", "3"), {Float(image), Float({1, 64, 1, 1})});
  eltwise("add", with_k("1", "3"), {Float(image)});
  eltwise("reciprocal", with_k("7", "-1"), {Float(image)});
  eltwise("power_2.2", with_k("7", "2.2"), {Float(image)});

  add("matmul/attention", "MATMUL", {{{"trans_b", "0"}}}, {Float({4, 384, 1, 64}), Float({4, 64, 1, 384})},
      Float({4, 384, 1, 384}));
  add("matmul/gram", "MATMUL", {{{"trans_b", "1"}}}, {Float({1, 256, 32, 32})}, Float({1, 256, 1, 256}));

  for (int bits : {32, 16, 8}) {
    const std::string width = "/" + std::to_string(bits);
    const auto any = [&](Dims dims) { return Describe(std::move(dims), bits); };
    add("reshape/copy" + width, "RESHAPE", {{{"pixelshuffler", "1"}}}, {any(image)}, any({1, 1, 64, 12544}));
    add("reshape/shuffle2" + width, "RESHAPE", {{{"pixelshuffler", "2"}}}, {any({1, 12, 224, 224})},
        any({1, 3, 448, 448}));
    add("permute/image_to_channel_last" + width, "PERMUTE", {{{"axes", "[0,2,3,1]"}}},
        {any({1, 3, 224, 224})}, any({1, 224, 224, 3}));
    add("permute/to_channel_last" + width, "PERMUTE", {{{"axes", "[0,2,3,1]"}}}, {any({1, 256, 56, 56})},
        any({1, 56, 56, 256}));
    add("permute/to_channel_first" + width, "PERMUTE", {{{"axes", "[0,3,1,2]"}}}, {any({1, 56, 56, 256})},
        any({1, 256, 56, 56}));
    add("permute/heads" + width, "PERMUTE", {{{"axes", "[0,2,1,3]"}}}, {any({1, 384, 12, 64})},
        any({1, 12, 384, 64}));
    add("permute/interleaved_to_channel_last" + width, "PERMUTE", {{{"axes", "[0,2,3,1]"}}},
        {Describe({1, 256, 56, 56}, bits, 16)}, any({1, 56, 56, 256}));
    add("stride/widen" + width, "DATA_STRIDE_CONV", {{}}, {any({1, 64, 56, 56})},
        Describe({1, 64, 56, 56}, bits, 1, 32));
    add("stride/narrow" + width, "DATA_STRIDE_CONV", {{}}, {Describe({1, 64, 56, 56}, bits, 1, 32)},
        any({1, 64, 56, 56}));
    add("stride/interleave" + width, "DATA_STRIDE_CONV", {{}}, {any({1, 256, 56, 56})},
        Describe({1, 256, 56, 56}, bits, 16));
    add("stride/deinterleave" + width, "DATA_STRIDE_CONV", {{}}, {Describe({1, 256, 56, 56}, bits, 16)},
        any({1, 256, 56, 56}));
    add("broadcast/rows" + width, "BROADCAST", {{{"size", "[0,1,1,0]"}}}, {any({1, 1, 1, 56})},
        any({1, 256, 56, 56}));
    add("broadcast/columns" + width, "BROADCAST", {{{"size", "[0,0,0,1]"}}}, {any({1, 256, 56, 1})},
        any({1, 256, 56, 56}));
    add("concat/channels" + width, "SWCONCAT", {{{"axis", "1"}}}, {any(image), any(image)},
        any({1, 128, 112, 112}));
    add("concat/columns" + width, "SWCONCAT", {{{"axis", "3"}}}, {any({1, 64, 56, 4}), any({1, 64, 56, 6})},
        any({1, 64, 56, 10}));
    add("depth_to_space" + width, "DEPTHTOSPACE", {{{"block_size", "2"}}}, {any({1, 256, 56, 56})},
        any(image));
    add("space_to_depth" + width, "SPACETODEPTH", {{{"block_size", "2"}}}, {any(image)},
        any({1, 256, 56, 56}));
    add("space_to_batch" + width, "SPACETOBATCH", {{{"block_shape", "[2,2]"}, {"paddings", "[2,3,2,3]"}}},
        {any({1, 256, 65, 65})}, any({4, 256, 35, 35}));
    add("batch_to_space" + width, "BATCHTOSPACE", {{{"block_shape", "[2,2]"}, {"crops", "[2,3,2,3]"}}},
        {any({4, 256, 35, 35})}, any({1, 256, 65, 65}));
    add("gather/rows" + width, "GATHER", {{{"axis", "0"}}}, {any({4096, 768, 1, 1}), Float({384})},
        any({384, 768, 1, 1}))
        .index_below = 4096;
    add("gather/columns" + width, "GATHER", {{{"axis", "3"}}}, {any({1, 64, 56, 56}), Float({28})},
        any({1, 64, 56, 28}))
        .index_below = 56;
    for (const auto& [mode, number] :
         {std::pair{"reflect", "1"}, {"edge", "2"}, {"symmetric", "3"}, {"zero", "4"}}) {
      add(std::string("pad/") + mode + width, "PAD",
          {{{"pad_mode", number}, {"pad", "0"}, {"pad_shape", "[0,0,0,0,1,1,1,1]"}, {"format", "[0,1,2,3]"}}},
          {any(image)}, any({1, 64, 114, 114}));
    }
  }
  return entries;
}

// Floats in [0.1, 4.1), so that every power is defined; indices; or any bytes.
std::vector<std::byte> Data(const Entry& entry, std::size_t input) {
  const BufAttrs& attrs = entry.in[input];
  std::vector<std::byte> data(attrs.Bytes());
  std::mt19937 random(static_cast<std::uint32_t>(input) + 1);
  for (std::size_t i = 0; i + 4 <= data.size(); i += 4) {
    std::uint32_t word = static_cast<std::uint32_t>(random());
    if (entry.index_below != 0 && input == 1) {
      word %= entry.index_below;
    } else if (attrs.GetMemFormat().float_) {
      const float value = 0.1F + static_cast<float>(word >> 8) * 0x1p-22F;
      std::memcpy(&word, &value, sizeof word);
    }
    std::memcpy(data.data() + i, &word, sizeof word);
  }
  return data;
}

void Run(benchmark::State& state, const vek_host::Plugin& plugin, const Entry& entry) {
  const vek_host::Plugin::Layer layer = plugin.MakeLayer(entry.type);
  zeb::PuxDnnCustomLayer::BufAttrsList in;
  zeb::PuxDnnCustomLayer::BufAttrsList out;
  for (const BufAttrs& attrs : entry.in) in.push_back(attrs.Clone());
  out.push_back(entry.out.Clone());
  for (const AttrMap& attrs : entry.attrs) {
    if (!layer || !layer->Configure(attrs, in, out)) return state.SkipWithError("the layer refused");
  }

  std::vector<std::vector<std::byte>> data;
  std::vector<void*> inputs;
  for (std::size_t i = 0; i < entry.in.size(); ++i)
    inputs.push_back(data.emplace_back(Data(entry, i)).data());
  std::vector<std::byte> result(entry.out.Bytes());
  void* outputs[] = {result.data()};
  for (auto _ : state) {
    if (!layer->Execute(inputs.data(), outputs)) return state.SkipWithError("the layer failed");
    benchmark::ClobberMemory();
  }
}

// The larger of the bytes read and the bytes written; a gather reads what it writes.
std::uint64_t MovedBytes(const Entry& entry) {
  std::uint64_t read = 0;
  for (const BufAttrs& attrs : entry.in) read += attrs.Bytes();
  return entry.index_below != 0 ? entry.out.Bytes() : std::max(read, entry.out.Bytes());
}

void Copy(benchmark::State& state, std::uint64_t bytes) {
  std::vector<std::byte> from(bytes);
  std::vector<std::byte> to(bytes);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), bytes);
    benchmark::ClobberMemory();
  }
}

// What a power costs that calls the C library for each element.
void CallPowf(benchmark::State& state) {
  std::vector<float> from(64 * 112 * 112, 1.5F);
  std::vector<float> to(from.size());
  float k = 2.2F;
  for (auto _ : state) {
    benchmark::DoNotOptimize(k);
    for (std::size_t i = 0; i < from.size(); ++i) to[i] = std::pow(from[i], k);
    benchmark::ClobberMemory();
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  const char* path = std::getenv("VEK_PLUGIN");
  const vek_host::Plugin plugin(path != nullptr ? path : VEK_PLUGIN_PATH);
  for (const Entry& entry : Entries()) {
    const std::uint64_t bytes = MovedBytes(entry);
    benchmark::RegisterBenchmark(entry.name.c_str(), [&plugin, entry, bytes](benchmark::State& state) {
      Run(state, plugin, entry);
      state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
    });
    benchmark::RegisterBenchmark((entry.name + "/memcpy").c_str(), [bytes](benchmark::State& state) {
      Copy(state, bytes);
      state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
    });
  }
  benchmark::RegisterBenchmark("eltwise/power_2.2/powf", CallPowf);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
