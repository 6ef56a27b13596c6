// Permutations of dense tensors, and the two changes between channel-first and channel-last data. Input and output
// must not overlap.
//
// The changes of layout are between
//
// - planes: channel-first, perhaps interleaved and padded. The planes of `pack` channels, the last one of an item
//   perhaps partly filled, follow each other; a plane has H rows of W pixels of `pack` elements;
// - pixels: channel-last, H rows of W pixels of C elements.
//
// Instances: `float`, `short`, `char` of the permutation, `int`, `short`, `char` of the changes of layout.
#pragma once

#include <cstdint>
#include <span>

#include "kernels/tensor.h"

namespace zeb_custom_ops::kernels {

// A quotient as the target's processor has it: by 0 it is 0.
inline unsigned Quotient(unsigned dividend, unsigned divisor) {
  return divisor == 0 ? 0 : dividend / divisor;
}

// --- Any permutation. The loops are those over the output, outermost first; the products of extents in their steps
// wrap at 32 bits.

// Where the element at output index `index` comes from; any index has a source, also one outside the loops.
unsigned SourceOf(unsigned index, std::span<const detail::Loop> loops);

// The formula, for the output indices from `first` to before `last`: also those behind the loops.
template <typename T>
void PlainPermute(T* out, const T* in, std::span<const detail::Loop> loops, unsigned first, unsigned last);

// --- Channel-first and channel-last. Steps are elements; positions wrap at 32 bits.

// The side of the planes; `pack` is at least 1 unless an extent is 0.
struct ChannelPlanes {
  Extents extents;
  unsigned pack;
  unsigned line;       // from row to row
  unsigned plane_pad;  // from behind the last line of a plane to the next plane

  std::uint64_t Groups() const { return (std::uint64_t{extents.C} + pack - 1) / pack; }
};

// The side of the pixels as `PlainPackToNchw` reads it.
struct PixelRows {
  unsigned rows;     // of an item, where it is read for several planes
  unsigned row;      // from row to row, then
  unsigned row_pad;  // behind a row, where it is read once, for a single plane
};

// From planes to dense pixels. The rows of planes begin at multiples of a line, wherever the plane began.
template <typename T>
void PlainUnpackToNhwc(T* out, const T* in, const ChannelPlanes& in_planes);

// From pixels to planes. Slots and padding that no channel occupies keep what they hold.
template <typename T>
void PlainPackToNchw(T* out, const ChannelPlanes& out_planes, const T* in, const PixelRows& in_pixels);

// Either of them where no position wraps, and no two elements meet in the output: a strided copy of the channels of
// all pixels, `pack` at a time, the last ones perhaps fewer. The loops are over items, groups of channels, rows and
// pixels; the extent of `group` is left to this function.
template <typename T>
void CopyChannelGroups(T* out, const T* in, const detail::Loop& n, detail::Loop group, const detail::Loop& h,
                       const detail::Loop& w, unsigned C, unsigned pack);

}  // namespace zeb_custom_ops::kernels
