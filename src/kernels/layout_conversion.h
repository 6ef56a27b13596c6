// A tensor from one memory layout to another: other padding behind its rows and planes, or channels that are
// interleaved differently. Source and target must not overlap.
#pragma once

#include <cstddef>
#include <span>

#include "kernels/tensor.h"

namespace zeb_custom_ops::kernels {

// --- Equal interleaving: runs of bytes, and padding. Everything here is bytes.

// Planes of rows, with padding behind each plane. A row is a whole line, its own padding included.
struct PaddedPlanes {
  std::uint64_t planes;
  unsigned rows;  // of a plane
  unsigned src_line;
  unsigned dst_line;
  unsigned src_pad;
  unsigned dst_pad;
};

// Fills `dst_bytes` with zeros, then copies the rows one behind the other, each cut, or filled up with zeros, to its
// length in the target, and steps over the padding. The positions are pointers, which do not wrap: this is the formula
// and serves every shape.
void CopyPaddedPlanes(signed char* dst, std::size_t dst_bytes, const signed char* src,
                      const PaddedPlanes& planes);

// Nested dimensions, outermost first, of which the innermost is a single run, whatever its extent says. The last pad
// is the length of that run; the others are what lies behind one step of their dimension. At least one of each, and
// a pad for every dimension but the innermost.
struct PaddedRuns {
  std::span<const unsigned> extents;
  std::span<const unsigned> src_pads;
  std::span<const unsigned> dst_pads;
};

// The formula, for dimension `dim` and those inside it: each run is cut, or filled up with zeros, to its length in the
// target. Padding of the target is left alone. Both offsets move on behind what was copied, and wrap at 32 bits.
void PlainCopyPaddedRuns(signed char* dst, unsigned& dst_offset, const signed char* src, unsigned& src_offset,
                         const PaddedRuns& runs, std::size_t dim);

// Fills `dst_bytes` with zeros, then does the same for all dimensions where no offset wraps. No extent in front of the
// runs is 0.
void CopyPaddedRuns(signed char* dst, std::size_t dst_bytes, const signed char* src, const PaddedRuns& runs);

// --- A change of interleaving. Instances: `signed char`, `short`, `float`.

// The formula: fills `dst_bytes` with zeros, then moves every element. Positions wrap at 32 bits. Where an extent is
// 0, there are only the zeros.
template <typename T>
void PlainChangeInterleaving(T* dst, std::size_t dst_bytes, const TensorLayout& dst_layout, const T* src,
                             const TensorLayout& src_layout, const Extents& extents);

// The same for layouts in which rows, planes and batch items follow each other without overlap, and no position
// wraps. No extent is 0.
template <typename T>
void ChangeInterleaving(T* dst, std::size_t dst_bytes, const TensorLayout& dst_layout, const T* src,
                        const TensorLayout& src_layout, const Extents& extents);

}  // namespace zeb_custom_ops::kernels
