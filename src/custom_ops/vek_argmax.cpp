// Layer type "ARGMAX".
#include "custom_ops/vek_argmax.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <span>
#include <utility>
#include <vector>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "simd/simd.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsULongLong;
using detail::Fits;
using detail::Saturating;

const std::string VekArgmax::k_expected_attr_axis_ = "axis";
const std::string VekArgmax::k_expected_attr_top_k_ = "top_k";
const std::string VekArgmax::k_expected_attr_out_max_val_ = "out_max_val";

bool VekArgmax::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(inputs.size() == 1, "wrong number of inputs, expected: 1, got: %zu", inputs.size());
  VEK_REQUIRE(outputs.size() == 1, "wrong number of outputs, expected: 1, got: %zu", outputs.size());
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  VEK_REQUIRE(detail::IsPlanarFloat(in.GetMemFormat()), "unexpected input buffer format");
  VEK_REQUIRE(detail::IsPlanarFloat(out.GetMemFormat()), "unexpected output buffer format");
  VEK_REQUIRE(!in.IsStrided(), "strided data detected on input, this is not supported.");
  VEK_REQUIRE(!out.IsStrided(), "strided data detected on output, this is not supported.");

  const std::vector<unsigned> in_dims = in.GetDims();
  const std::uint64_t in_bytes = detail::BytesRoundedUp(in);
  VEK_REQUIRE(in_bytes <= in.GetSize(),
              "input buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
              AsInt(in.GetSize()), AsULongLong(in_bytes));
  const std::uint64_t out_bytes = detail::BytesRoundedUp(out);
  VEK_REQUIRE(out_bytes <= out.GetSize(),
              "output buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
              AsInt(out.GetSize()), AsULongLong(out_bytes));

  in_attrs_ = in.Clone();
  out_attrs_ = out.Clone();

  VEK_REQUIRE(attrs.size() == 1, "expecting exactly one attribute, got: %zu", attrs.size());
  // Deliberate: each call sets one of the three and keeps the others, and a rejected axis stays stored.
  if (const std::string* axis = detail::Find(attrs, k_expected_attr_axis_)) axis_ = detail::ToInt(*axis);
  if (const std::string* top_k = detail::Find(attrs, k_expected_attr_top_k_)) {
    top_k_ = detail::ToUnsigned(*top_k);
  }
  if (const std::string* out_max_val = detail::Find(attrs, k_expected_attr_out_max_val_)) {
    out_max_val_ = detail::ToFlag(*out_max_val);
  }
  VEK_REQUIRE(static_cast<unsigned>(axis_) < in_dims.size(), "There are %zu dims, but axis is set to %d",
              in_dims.size(), axis_);

  configured_ = true;
  return true;
}

bool VekArgmax::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Argmax custom layer not configured.");
  VEK_REQUIRE(in_buffers != nullptr, "in_buffers is NULL.");
  VEK_REQUIRE(out_buffers != nullptr, "out_buffers is NULL.");

  const std::uint32_t in_count = detail::Elements32(in_attrs_->GetDims());
  const std::uint32_t out_count = detail::Elements32(out_attrs_->GetDims());
  return Argmax_v1(*in_attrs_, static_cast<float*>(in_buffers[0]), in_count,
                   static_cast<float*>(out_buffers[0]), out_count);
}

namespace {

// A candidate of a search.
struct Pair {
  float value;
  unsigned index;
};

// By value, then by index. A NaN neither exceeds a value nor is exceeded, so that there the index decides.
bool Exceeds(const Pair& a, const Pair& b) {
  return a.value > b.value || (!(b.value > a.value) && a.index > b.index);
}

// A heap whose root is exceeded by all others. It is written out here because with NaNs `Exceeds` is no order,
// which the standard library's heaps require; the result is still defined, by these steps.

// Fills the hole at `hole` of the heap with `pair`: the hole sinks to the bottom along the least children, then
// the pair rises to its place.
void Sift(std::span<Pair> heap, std::size_t hole, Pair pair) {
  const std::size_t top = hole;
  for (std::size_t child = 2 * hole + 1; child < heap.size(); child = 2 * hole + 1) {
    if (child + 1 < heap.size() && !Exceeds(heap[child + 1], heap[child])) ++child;
    heap[hole] = heap[child];
    hole = child;
  }
  while (hole > top) {
    const std::size_t parent = (hole - 1) / 2;
    if (!Exceeds(heap[parent], pair)) break;
    heap[hole] = heap[parent];
    hole = parent;
  }
  heap[hole] = pair;
}

void MakeHeap(std::span<Pair> heap) {
  for (std::size_t i = heap.size() / 2; i-- > 0;) Sift(heap, i, heap[i]);
}

// Turns the heap into a list in descending order.
void SortHeap(std::span<Pair> heap) {
  for (std::size_t last = heap.size(); last-- > 1;) {
    const Pair pair = heap[last];
    heap[last] = heap[0];
    Sift(heap.first(last), 0, pair);
  }
}

// The first candidates become the heap; each later one that exceeds the root takes its place. `Scan` calls back
// for every later candidate that may.
template <typename ValueAt, typename Scan>
void SelectTop(std::span<Pair> list, const ValueAt& value_at, const Scan& scan) {
  for (std::size_t k = 0; k < list.size(); ++k) list[k] = {value_at(k), static_cast<unsigned>(k)};
  MakeHeap(list);
  scan([&](std::size_t k) {
    const Pair pair = {value_at(k), static_cast<unsigned>(k)};
    if (Exceeds(pair, list[0])) Sift(list, 0, pair);
  });
  SortHeap(list);
}

// What is written of each result.
struct Writer {
  float* out;
  bool indices;
  bool values;

  void Write(Pair pair) {
    if (indices) *out++ = static_cast<float>(pair.index);
    if (values) *out++ = pair.value;
  }
};

// The searches, in the order of their results: `runs` times `columns` of them.
struct Searches {
  unsigned len;       // values of one search
  unsigned step;      // elements between them
  unsigned runs;      //
  unsigned run_step;  // elements from the start of a run to the next
  unsigned columns;   // searches of a run, which start at neighbouring elements
};

// --- One search, element by element. Positions wrap at 32 bits.

Pair FindLargest(const float* in, unsigned base, const Searches& s) {
  Pair best = {in[base], 0};
  for (unsigned k = 0; k < s.len; ++k) {
    const float value = in[base + k * s.step];
    if (best.value <= value) best = {value, k};
  }
  return best;
}

void SelectTop(const float* in, unsigned base, const Searches& s, std::span<Pair> list) {
  SelectTop(
      list, [&](std::size_t k) { return in[base + static_cast<unsigned>(k) * s.step]; },
      [&](const auto& offer) {
        for (std::size_t k = list.size(); k < s.len; ++k) offer(k);
      });
}

void SearchEach(const float* in, const Searches& s, unsigned top_k, std::span<Pair> list, Writer& writer) {
  for (unsigned run = 0; run < s.runs; ++run) {
    for (unsigned column = 0; column < s.columns; ++column) {
      const unsigned base = run * s.run_step + column;
      if (top_k == 1) {
        writer.Write(FindLargest(in, base, s));
      } else {
        SelectTop(in, base, s, list);
        for (const Pair& pair : list) writer.Write(pair);
      }
    }
  }
}

// --- The same in vectors. All positions lie inside the data and below 2^31.

using detail::Floats;
using detail::Ints;
constexpr std::size_t kWidth = detail::kFloatLanes;

// The largest value of `len` neighbours: blocks that hold nothing larger are passed over, the last one that does
// is searched. Equal values go to the later block, so that the highest index is found.
Pair FindLargestInRow(const float* row, std::size_t len) {
  constexpr std::size_t kBlock = 16 * kWidth;
  if (len < kBlock || std::isnan(row[0]))
    return FindLargest(row, 0, {static_cast<unsigned>(len), 1, 1, 0, 1});
  const Floats least = detail::Splat(-std::numeric_limits<float>::infinity());
  float largest = least[0];
  std::size_t where = 0;
  for (std::size_t start = 0; start < len; start += kBlock) {
    const std::size_t block = std::min(start, len - kBlock);  // the last one may overlap its neighbour
    Floats max[4] = {least, least, least, least};
    for (std::size_t i = 0; i < 16; ++i)
      max[i % 4] = detail::Max(detail::Load<Floats>(row + block + i * kWidth), max[i % 4]);
    float found = detail::MaxLane(detail::Max(detail::Max(max[0], max[1]), detail::Max(max[2], max[3])));
    if (std::isnan(found)) {
      found = least[0];
      for (std::size_t i = 0; i < kBlock; ++i) found = row[block + i] > found ? row[block + i] : found;
    }
    if (found >= largest) {
      largest = found;
      where = block;
    }
  }
  std::size_t k = where + kBlock - 1;
  while (row[k] != largest) --k;
  return {row[k], static_cast<unsigned>(k)};
}

// The largest values of `vectors` vectors of searches that start side by side.
template <std::size_t vectors>
void FindLargestSideBySide(const float* in, const Searches& s, Floats (&value)[vectors],
                           Ints (&index)[vectors]) {
  for (std::size_t v = 0; v < vectors; ++v) {
    value[v] = detail::Load<Floats>(in + v * kWidth);
    index[v] = Ints{};
  }
  Ints k = {};
  for (unsigned i = 1; i < s.len; ++i) {
    in += s.step;
    k += 1;
    for (std::size_t v = 0; v < vectors; ++v) {
      const Floats next = detail::Load<Floats>(in + v * kWidth);
      const Ints takes = value[v] <= next;
      value[v] = takes ? next : value[v];
      index[v] = takes ? k : index[v];
    }
  }
}

template <std::size_t vectors>
void FindLargestColumns(const float* in, const Searches& s, float* out, bool indices) {
  Floats value[vectors];
  Ints index[vectors];
  FindLargestSideBySide(in, s, value, index);
  for (std::size_t v = 0; v < vectors; ++v) {
    detail::Store(out + v * kWidth, indices ? __builtin_convertvector(index[v], Floats) : value[v]);
  }
}

void FindLargestInVectors(const float* in, const Searches& s, Writer& writer) {
  for (std::size_t run = 0; run < s.runs; ++run, in += s.run_step) {
    std::size_t i = 0;
    if (s.step == 1) {
      for (; i < s.columns; ++i) writer.Write(FindLargestInRow(in + i, s.len));
      continue;
    }
    for (; i + 4 * kWidth <= s.columns; i += 4 * kWidth) {
      FindLargestColumns<4>(in + i, s, writer.out + i, writer.indices);
    }
    for (; i + kWidth <= s.columns; i += kWidth) {
      FindLargestColumns<1>(in + i, s, writer.out + i, writer.indices);
    }
    if (i < s.columns && s.columns >= kWidth) {  // the last vector overlaps its neighbour
      i = s.columns - kWidth;
      FindLargestColumns<1>(in + i, s, writer.out + i, writer.indices);
      i = s.columns;
    }
    writer.out += i;
    for (; i < s.columns; ++i) writer.Write(FindLargest(in, static_cast<unsigned>(i), s));
  }
}

// One search over neighbours. A value below the root's does not exceed it, whatever its index; four vectors of
// such values are passed over at a time.
void SelectTopInRow(const float* row, std::size_t len, std::span<Pair> list) {
  SelectTop(
      list, [&](std::size_t k) { return row[k]; },
      [&](const auto& offer) {
        std::size_t k = list.size();
        for (; k + 4 * kWidth <= len; k += 4 * kWidth) {
          const Floats root = detail::Splat(list[0].value);
          Ints below = detail::Load<Floats>(row + k) < root;
          for (std::size_t v = 1; v < 4; ++v) below &= detail::Load<Floats>(row + k + v * kWidth) < root;
          if (detail::AllLanes(below)) continue;
          for (std::size_t i = 0; i < 4 * kWidth; ++i) offer(k + i);
        }
        for (; k < len; ++k) offer(k);
      });
}

// A vector of searches that start side by side; `lists` holds `ranks` pairs for each.
void SelectTopSideBySide(const float* in, const Searches& s, std::span<Pair> lists, std::size_t ranks) {
  Floats root = {};
  for (std::size_t lane = 0; lane < kWidth; ++lane) {
    const std::span<Pair> list = lists.subspan(lane * ranks, ranks);
    for (std::size_t k = 0; k < ranks; ++k) list[k] = {in[lane + k * s.step], static_cast<unsigned>(k)};
    MakeHeap(list);
    root[lane] = list[0].value;
  }
  for (std::size_t k = ranks; k < s.len; ++k) {
    const Floats next = detail::Load<Floats>(in + k * s.step);
    if (detail::AllLanes(next < root)) continue;
    for (std::size_t lane = 0; lane < kWidth; ++lane) {
      const std::span<Pair> list = lists.subspan(lane * ranks, ranks);
      const Pair pair = {next[lane], static_cast<unsigned>(k)};
      if (!Exceeds(pair, list[0])) continue;
      Sift(list, 0, pair);
      root[lane] = list[0].value;
    }
  }
  for (std::size_t lane = 0; lane < kWidth; ++lane) SortHeap(lists.subspan(lane * ranks, ranks));
}

// `lists` holds `ranks` pairs for each lane of a vector.
void SelectTopInVectors(const float* in, const Searches& s, std::span<Pair> lists, std::size_t ranks,
                        Writer& writer) {
  const auto write = [&](std::span<const Pair> pairs) {
    for (const Pair& pair : pairs) writer.Write(pair);
  };
  const std::span<Pair> list = lists.first(ranks);
  for (std::size_t run = 0; run < s.runs; ++run, in += s.run_step) {
    std::size_t i = 0;
    for (; s.step != 1 && i + kWidth <= s.columns; i += kWidth) {
      SelectTopSideBySide(in + i, s, lists, ranks);
      write(lists);
    }
    for (; i < s.columns; ++i) {
      if (s.step == 1) {
        SelectTopInRow(in + i, s.len, list);
      } else {
        SelectTop(in, static_cast<unsigned>(i), s, list);
      }
      write(list);
    }
  }
}

// Lists up to this many pairs stay on the stack.
constexpr std::size_t kPairsOnStack = 512;

}  // namespace

bool VekArgmax::Argmax_v1(const zeb::PuxDnnBufAttrs& in, float* in_data, unsigned int in_count,
                          float* out_data, unsigned int out_count) {
  VEK_REQUIRE(in_data != nullptr && out_data != nullptr, "Argmax_v1 input or output buffer is null.");

  const unsigned N = in.GetBatch();
  const unsigned C = in.GetChannels();
  const unsigned H = in.GetHeight();
  const unsigned W = in.GetWidth();

  Searches s = {};
  unsigned outer = N;  // how often all searches are repeated
  if (!has_axis_) {
    s = {.len = C * H * W, .step = 1, .runs = N, .run_step = C * H * W, .columns = 1};
  } else {
    switch (axis_) {
      case 0:
        s = {.len = N, .step = C * H * W, .runs = 1, .run_step = 0, .columns = C * H * W};
        outer = 1;
        break;
      // Deliberate: for the axes C, H and W the searches span the batch already, and are repeated N times.
      case 1:
        s = {.len = C, .step = H * W, .runs = 1, .run_step = 0, .columns = N * H * W};
        break;
      case 2:
        s = {.len = H, .step = W, .runs = N * C, .run_step = H * W, .columns = W};
        break;
      case 3:
        s = {.len = W, .step = 1, .runs = N * C * H, .run_step = W, .columns = 1};
        break;
      default:
        VEK_REQUIRE(false, "Argmax_v1 wrong argmax axis parameter.");
    }
  }
  const unsigned slices = s.runs * s.columns;
  const bool both = !has_axis_ && out_max_val_;
  const unsigned needed = slices * outer * top_k_ * (both ? 2 : 1);
  VEK_REQUIRE(out_count >= needed,
              "Argmax_v1 output buffer too small, expected: %d, received space for: %d  elements.",
              AsInt(needed), AsInt(out_count));
  VEK_REQUIRE(in_count >= N * C * H * W, "Argmax_v1 input buffer too small.");
  // A search ranks no more values than it has.
  const unsigned ranks = std::min(top_k_, s.len);
  if (outer == 0 || slices == 0 || ranks == 0) return true;

  Writer writer = {.out = out_data, .indices = !out_max_val_ || both, .values = out_max_val_};
  if (Fits(Saturating(N) * C * H * W) && Fits(Saturating(slices) * outer * top_k_ * 2) &&
      s.len <= std::numeric_limits<std::int32_t>::max()) {
    if (top_k_ == 1) {
      FindLargestInVectors(in_data, s, writer);
    } else {
      Pair on_stack[kPairsOnStack];
      std::vector<Pair> on_heap;
      std::span<Pair> lists = on_stack;
      if (ranks * kWidth > kPairsOnStack) {
        on_heap.resize(ranks * kWidth);
        lists = on_heap;
      }
      SelectTopInVectors(in_data, s, lists.first(ranks * kWidth), ranks, writer);
    }
    const auto count = static_cast<std::size_t>(writer.out - out_data);
    for (unsigned o = 1; o < outer; ++o) std::memcpy(out_data + o * count, out_data, count * sizeof(float));
    return true;
  }

  std::vector<Pair> list(top_k_ == 1 ? 0 : ranks);
  for (unsigned o = 0; o < outer; ++o) SearchEach(in_data, s, top_k_, list, writer);
  return true;
}

}  // namespace zeb_custom_ops
