// Padding of a channel-first tensor: its interior copied from a smaller one, and the border around it filled from the
// interior, in place. Input and output must not overlap. Positions are elements and wrap at 32 bits.
//
// Instances: `float`, `int`, `short`, `char`.
#pragma once

#include <array>
#include <cstdint>

#include "kernels/tensor.h"

namespace zeb_custom_ops::kernels {

// What the border becomes; with any other number there is none to fill.
enum PadMode { kReflect = 1, kEdge = 2, kSymmetric = 3, kConstant = 4 };

// The copy of the interior: out[n + p0, c + p2, h + p4, w + p6] = in[n, c, h, w].
template <typename T>
struct Interior {
  const T* in;
  T* out;
  Extents extents;
  TensorLayout in_layout;   // channels interleaved or not
  TensorLayout out_layout;  // planar
  std::uint64_t p0;         // elements before the interior along N, C, H and W
  std::uint64_t p2;
  std::uint64_t p4;
  std::uint64_t p6;

  // Planes of the input in a batch item.
  unsigned Groups() const { return extents.C / in_layout.pack + (extents.C % in_layout.pack != 0 ? 1 : 0); }
};

// The border of the tensor in `data`: the columns next to each interior row, then whole rows above and below it, whole
// planes and whole batch items, so that the corners come out right. Where the mirror of the interior ends before the
// border does, the rest becomes 0.
template <typename T>
struct Border {
  T* data;
  Extents interior;
  Extents whole;
  TensorLayout layout;           // planar
  std::array<unsigned, 8> pads;  // p0 to p7: before and after the interior along N, C, H and W
  int mode;
  T constant;
};

// The formulas, element by element.
template <typename T>
void PlainCopyInterior(const Interior<T>& interior);
template <typename T>
void PlainPad(const Border<T>& border);

// The same by strided copies, where no position wraps, no two elements of a tensor meet, pads and interior make up the
// whole, and an edge that is repeated exists.
template <typename T>
void CopyInterior(const Interior<T>& interior);
template <typename T>
void Pad(const Border<T>& border);

// Both for a border around that interior: the border of a few planes is filled while they are still in the cache.
template <typename T>
void CopyAndPad(const Interior<T>& interior, const Border<T>& border);

}  // namespace zeb_custom_ops::kernels
