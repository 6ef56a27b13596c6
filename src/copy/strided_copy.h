// The strided copy, which most data-movement operators are made of: nested loops of any steps on both sides. Its body
// is in strided_copy.cpp, so that it is compiled once for each width and not once for each operator.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>

#include "copy/loop.h"
#include "copy/runs.h"
#include "simd/simd.h"

namespace zeb_custom_ops::detail {

namespace internal {

// The most loops that one strided copy takes.
inline constexpr std::size_t kMaxRank = 6;

// The copy of elements of one width. Instances for words of 1, 2 and 4 bytes.
template <typename T>
void StridedCopyWords(std::byte* dst, const std::byte* src, std::span<const Loop> loops);

}  // namespace internal

// Copies the elements of nested loops; steps are elements. A source step of 0 repeats. Source and target must
// not overlap, and no two elements may meet in the target: the order of the copies is not defined.
template <typename T>
void StridedCopy(T* dst, const T* src, std::span<const Loop> loops) {
  if (loops.size() > internal::kMaxRank) {
    const Loop& outer = loops.front();
    for (std::size_t i = 0; i < outer.extent; ++i) {
      StridedCopy(dst + Offset(i, outer.dst_step), src + Offset(i, outer.src_step), loops.subspan(1));
    }
    return;
  }
  internal::StridedCopyWords<Word<sizeof(T)>>(reinterpret_cast<std::byte*>(dst),
                                              reinterpret_cast<const std::byte*>(src), loops);
}

template <typename T>
void StridedCopy(T* dst, const T* src, std::initializer_list<Loop> loops) {
  StridedCopy(dst, src, std::span<const Loop>(loops.begin(), loops.size()));
}

}  // namespace zeb_custom_ops::detail
