// Workloads for the sweep: valid calls of every layer, random ones from a seed and a fixed list of small ones, each with
// the plain twin of its kernel.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace vek_bench {

// What float inputs hold: [0.1, 4.1), so that every power is defined; [-2, 2); half exact zeros and [0.1, 4.1) else, as
// after a ReLU; [-20, 20), logits of which many have tiny exponentials.
enum class Data { kPositive, kSigned, kRelu, kPeaked };

struct Workload {
  std::string layer;  // the type name
  std::string shape;  // what tells it apart: extents, widths, layouts, attributes; without commas
  std::vector<zeb::PuxDnnCustomLayer::AttrMap> attrs;  // one Configure each
  std::vector<vek_host::BufAttrs> in;
  std::vector<vek_host::BufAttrs> out;  // one
  Data data = Data::kPositive;
  std::uint32_t index_below = 0;  // where it is not 0, input 1 holds indices below this number
  bool only_moves = false;        // no arithmetic
  bool plain_is_copy = false;     // the formula is one copy of consecutive elements
  std::function<void(void* const* in, void* out)> plain;

  // The larger of the bytes read and the bytes written; a gather reads what it writes.
  std::uint64_t MovedBytes() const;
};

// The layers that there are workloads of.
const std::vector<std::string>& Layers();

// Workload number `number` of a layer, the same for the same seed: from 8 to 4 million elements, in equal numbers for
// each power of two; products as many multiplications.
Workload RandomWorkload(const std::string& layer, std::uint64_t seed, unsigned number);

// Calls of 8 to 48 elements, one or two of each layer, in which what happens once a call counts.
std::vector<Workload> SmallWorkloads();

}  // namespace vek_bench
