// The walks that the data-movement operators are made of.
#pragma once

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <span>

namespace zeb_custom_ops::detail {

// One loop of a walk: `extent` steps, each moving `src_step` elements on in the source and `dst_step` in the
// target.
struct Axis {
  std::size_t extent;
  std::ptrdiff_t src_step;
  std::ptrdiff_t dst_step;
};

// Copies `count` consecutive elements.
template <typename T>
void CopyRun(T* dst, const T* src, std::size_t count) {
  if (count != 0) std::memcpy(dst, src, count * sizeof(T));
}

// Sets `count` consecutive elements to `value`.
template <typename T>
void FillRun(T* dst, T value, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) dst[i] = value;
}

// Copies the elements of nested loops, outermost axis first; a source step of 0 repeats. Source and target
// must not overlap, and no two elements may meet in the target.
template <typename T>
void CopyWalk(T* dst, const T* src, std::span<const Axis> axes) {
  if (axes.empty()) {
    std::memcpy(dst, src, sizeof(T));
    return;
  }
  const Axis axis = axes.front();
  for (std::size_t i = 0; i < axis.extent; ++i) {
    const auto step = static_cast<std::ptrdiff_t>(i);
    CopyWalk(dst + step * axis.dst_step, src + step * axis.src_step, axes.subspan(1));
  }
}

template <typename T>
void CopyWalk(T* dst, const T* src, std::initializer_list<Axis> axes) {
  CopyWalk(dst, src, std::span<const Axis>(axes.begin(), axes.size()));
}

}  // namespace zeb_custom_ops::detail
