#include "kernels/argmax.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "simd/simd.h"

namespace zeb_custom_ops::kernels {

namespace {

// By value, then by index. A NaN neither exceeds a value nor is exceeded, so that there the index decides.
bool Exceeds(const Pair& a, const Pair& b) {
  return a.value > b.value || (!(b.value > a.value) && a.index > b.index);
}

// A heap whose root is exceeded by all others. It is written out here because with NaNs `Exceeds` is no order,
// which the standard library's heaps require; the result is still defined, by these steps.

// Fills the hole at `hole` of the heap with `pair`: the hole sinks to the bottom along the least children, then
// the pair rises to its position.
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

// Ranks the values of a search: the first ones become the heap; each later one that exceeds the root replaces it.
// `offer_later` calls back with the index of every later value that may.
template <typename ValueAt, typename OfferLater>
void RankTop(std::span<Pair> list, const ValueAt& value_at, const OfferLater& offer_later) {
  for (std::size_t k = 0; k < list.size(); ++k) list[k] = {value_at(k), static_cast<unsigned>(k)};
  MakeHeap(list);
  offer_later([&](std::size_t k) {
    const Pair pair = {value_at(k), static_cast<unsigned>(k)};
    if (Exceeds(pair, list[0])) Sift(list, 0, pair);
  });
  SortHeap(list);
}

// Writes results one behind the other.
struct Writer {
  float* out;
  bool indices;
  bool values;

  void Write(Pair pair) {
    if (indices) *out++ = static_cast<float>(pair.index);
    if (values) *out++ = pair.value;
  }
  void Write(std::span<const Pair> pairs) {
    for (const Pair& pair : pairs) Write(pair);
  }
};

// One search from position `start` on, element by element.

Pair PlainFindLargest(const float* in, unsigned start, const Searches& s) {
  Pair best = {s.len == 0 ? 0.0F : in[start], 0};
  for (unsigned k = 0; k < s.len; ++k) {
    const float value = in[start + k * s.step];
    if (best.value <= value) best = {value, k};
  }
  return best;
}

void PlainRankTop(const float* in, unsigned start, const Searches& s, std::span<Pair> list) {
  RankTop(
      list, [&](std::size_t k) { return in[start + static_cast<unsigned>(k) * s.step]; },
      [&](const auto& offer) {
        for (std::size_t k = list.size(); k < s.len; ++k) offer(k);
      });
}

}  // namespace

void PlainArgmax(const float* in, float* out, const Searches& s, const Results& results,
                 std::span<Pair> lists) {
  Writer writer = {.out = out, .indices = results.indices, .values = results.values};
  for (unsigned repeat = 0; repeat < results.repeats; ++repeat) {
    for (unsigned i = 0; i < s.slices; ++i) {
      const unsigned start = i / s.columns * s.len * s.step + i % s.columns;
      if (results.ranks == 1) {
        writer.Write(PlainFindLargest(in, start, s));
      } else {
        const std::span<Pair> list = lists.first(results.ranks);
        PlainRankTop(in, start, s, list);
        writer.Write(list);
      }
    }
  }
}

namespace {

// The same in vectors.

using detail::Floats;
using detail::Ints;
constexpr std::size_t kWidth = kListsAtOnce;

// The largest value of `len` neighbours: blocks that hold nothing larger are passed over, the last one that does
// is searched. Equal values go to the later block, so that the highest index is found.
Pair FindLargestInRow(const float* row, std::size_t len) {
  constexpr std::size_t kBlock = 16 * kWidth;
  if (len < kBlock || std::isnan(row[0])) {
    Pair best = {row[0], 0};
    for (std::size_t k = 1; k < len; ++k) {
      if (best.value <= row[k]) best = {row[k], static_cast<unsigned>(k)};
    }
    return best;
  }
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

// The largest values of `vectors` vectors of searches that start at neighbouring elements.
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
  const std::size_t group_step = std::size_t{s.len} * s.step;
  for (std::size_t group = s.slices / s.columns; group > 0; --group, in += group_step) {
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
    for (; i < s.columns; ++i) writer.Write(PlainFindLargest(in, static_cast<unsigned>(i), s));
  }
}

// One search over neighbours. A value below the root's does not exceed it, whatever its index; four vectors of
// such values are passed over at a time.
void RankTopInRow(const float* row, std::size_t len, std::span<Pair> list) {
  RankTop(
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

// A vector of searches that start at neighbouring elements; `lists` holds `ranks` pairs for each.
void RankTopSideBySide(const float* in, const Searches& s, std::span<Pair> lists, std::size_t ranks) {
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

void RankTopInVectors(const float* in, const Searches& s, std::span<Pair> lists, std::size_t ranks,
                      Writer& writer) {
  lists = lists.first(ranks * kWidth);
  const std::span<Pair> list = lists.first(ranks);
  const std::size_t group_step = std::size_t{s.len} * s.step;
  for (std::size_t group = s.slices / s.columns; group > 0; --group, in += group_step) {
    std::size_t i = 0;
    for (; s.step != 1 && i + kWidth <= s.columns; i += kWidth) {
      RankTopSideBySide(in + i, s, lists, ranks);
      writer.Write(lists);
    }
    for (; i < s.columns; ++i) {
      if (s.step == 1) {
        RankTopInRow(in + i, s.len, list);
      } else {
        PlainRankTop(in, static_cast<unsigned>(i), s, list);
      }
      writer.Write(list);
    }
  }
}

}  // namespace

void Argmax(const float* in, float* out, const Searches& s, const Results& results, std::span<Pair> lists) {
  Writer writer = {.out = out, .indices = results.indices, .values = results.values};
  if (results.ranks == 1) {
    FindLargestInVectors(in, s, writer);
  } else {
    RankTopInVectors(in, s, lists, results.ranks, writer);
  }
  const auto count = static_cast<std::size_t>(writer.out - out);
  for (std::size_t i = 1; i < results.repeats; ++i) std::memcpy(out + i * count, out, count * sizeof(float));
}

}  // namespace zeb_custom_ops::kernels
