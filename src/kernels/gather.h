// Gather: slices of a tensor along one axis, picked by a list of indices.
#pragma once

#include <cstdint>

namespace zeb_custom_ops::kernels {

// `outer` blocks of `extent` slices of `inner` elements each, from which every block gives the `count` slices that
// the indices name; room for `capacity` elements. Both sides are dense.
struct GatherShape {
  unsigned outer;
  unsigned extent;
  unsigned inner;
  unsigned count;
  unsigned capacity;
};

// Why gathering stopped: at an index that is not below the extent, or at a slice that would end beyond the capacity.
// The slices before are written.
struct GatherStop {
  enum class Reason { kNone, kIndex, kCapacity };
  Reason reason = Reason::kNone;
  std::uint32_t index = 0;  // the one that stopped it, 0 for the other reasons
};

// The formula. Takes every shape; an extent of 0 writes nothing. The data must not overlap.
template <typename T>
GatherStop PlainGather(T* out, const T* params, const std::uint32_t* indices, const GatherShape& shape);

// The same, for every shape too.
template <typename T>
GatherStop Gather(T* out, const T* params, const std::uint32_t* indices, const GatherShape& shape);

}  // namespace zeb_custom_ops::kernels
