// The walks that the data-movement operators are made of. The bodies stand in walk.cpp, so that they are compiled
// once for each width and not once for each operator.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>

#include "copy/loop.h"
#include "copy/runs.h"
#include "simd/simd.h"

namespace zeb_custom_ops::detail {

namespace internal {

// The most loops that one walk takes.
inline constexpr std::size_t kMaxRank = 6;

// The walk over elements of one width; everything is bytes. Instances for words of 1, 2 and 4 bytes.
template <typename T>
void StridedCopyBytes(std::byte* dst, const std::byte* src, std::span<const Loop> axes);

}  // namespace internal

// Copies the elements of nested loops; steps are elements. A source step of 0 repeats. Source and target must
// not overlap, and no two elements may meet in the target: the order of the copies is not defined.
template <typename T>
void StridedCopy(T* dst, const T* src, std::span<const Loop> axes) {
  if (axes.size() > internal::kMaxRank) {
    const Loop axis = axes.front();
    for (std::size_t i = 0; i < axis.extent; ++i) {
      StridedCopy(dst + Offset(i, axis.dst_step), src + Offset(i, axis.src_step), axes.subspan(1));
    }
    return;
  }
  constexpr std::ptrdiff_t kUnit = sizeof(T);
  Loop in_bytes[internal::kMaxRank];
  for (std::size_t i = 0; i < axes.size(); ++i) {
    in_bytes[i] = {axes[i].extent, axes[i].src_step * kUnit, axes[i].dst_step * kUnit};
  }
  internal::StridedCopyBytes<Word<sizeof(T)>>(
      reinterpret_cast<std::byte*>(dst), reinterpret_cast<const std::byte*>(src), {in_bytes, axes.size()});
}

template <typename T>
void StridedCopy(T* dst, const T* src, std::initializer_list<Loop> axes) {
  StridedCopy(dst, src, std::span<const Loop>(axes.begin(), axes.size()));
}

}  // namespace zeb_custom_ops::detail
