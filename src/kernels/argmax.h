// Searches for the largest values along one axis of a dense tensor of floats.
#pragma once

#include <cstddef>
#include <span>

#include "simd/types.h"

namespace zeb_custom_ops::kernels {

// A value of a search, and its index in it.
struct Pair {
  float value;
  unsigned index;
};

// `slices` searches of `len` values each, `step` elements apart. Groups of `columns` searches start at neighbouring
// elements: number i starts at
//
//     i / columns * len * step  +  i % columns
struct Searches {
  unsigned len;
  unsigned step;
  unsigned columns;
  unsigned slices;
};

// What is written of each search: of each of its `ranks` largest values, in descending order, the index as a float, the
// value, or both. `ranks` is at least 1 and at most `len`; a search of one value among none (`len` 0) finds the value 0
// at index 0. The results of the searches follow each other, and all of them are written `repeats` times.
struct Results {
  unsigned ranks;
  bool indices;
  bool values;
  unsigned repeats;
};

// Searches that run at once, each with its list of candidates.
inline constexpr std::size_t kListsAtOnce = detail::kFloatLanes;

// One value: the last one that nothing exceeds. Of equal values the highest index wins, and a NaN only counts at index 0.
// Several values: pairs of value and index, ranked by a heap of the first `ranks` pairs; there a NaN neither exceeds nor
// is exceeded.
//
// `out` must not overlap `in`. `lists` is scratch: `ranks` * kListsAtOnce pairs.

// The formula, for every shape: positions wrap at 32 bits.
void PlainArgmax(const float* in, float* out, const Searches& s, const Results& results,
                 std::span<Pair> lists);

// The same in vectors, for whole groups (`slices` is a multiple of `columns`) whose positions all fit into 32 bits. No
// number is 0, `len` is below 2^31, and both indices and values are written only where `step` is 1.
void Argmax(const float* in, float* out, const Searches& s, const Results& results, std::span<Pair> lists);

}  // namespace zeb_custom_ops::kernels
