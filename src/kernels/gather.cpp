#include "kernels/gather.h"

#include <algorithm>
#include <cstddef>

#include "copy/runs.h"
#include "copy/strided_copy.h"
#include "simd/simd.h"

namespace zeb_custom_ops::kernels {

using Reason = GatherStop::Reason;

// Positions are 64-bit: none within the capacity wraps.
template <typename T>
GatherStop PlainGather(T* out, const T* params, const std::uint32_t* indices, const GatherShape& shape) {
  const std::uint64_t inner = shape.inner;
  for (std::uint64_t o = 0; o < shape.outer; ++o) {
    for (std::uint64_t j = 0; j < shape.count; ++j) {
      const std::uint32_t index = indices[j];
      if (index >= shape.extent) return {Reason::kIndex, index};
      const std::uint64_t slice = o * shape.count + j;
      // (slice + 1) * inner > capacity, without a product that wraps.
      if (inner != 0 && slice >= shape.capacity / inner) return {Reason::kCapacity, 0};
      const T* const src = params + (o * shape.extent + index) * inner;
      for (std::uint64_t i = 0; i < inner; ++i) out[slice * inner + i] = src[i];
    }
  }
  return {};
}

namespace {

// The first index that is not below the limit, or the end.
const std::uint32_t* FirstBeyond(const std::uint32_t* begin, const std::uint32_t* end, std::uint32_t limit) {
  return std::find_if(begin, end, [limit](std::uint32_t index) { return index >= limit; });
}

// Indices from here on are compared by blocks.
constexpr std::size_t kIndexBlock = 4 * detail::kFloatLanes;

// The same of that many or more. Blocks are compared by their largest index. They are aligned, and so none reaches beyond
// the page of the index that a list may end with because no other is read behind it.
[[gnu::noinline]] const std::uint32_t* FirstBeyondInBlocks(const std::uint32_t* begin,
                                                           const std::uint32_t* end, std::uint32_t limit) {
  using detail::UInts;
  constexpr std::size_t kBlockBytes = kIndexBlock * sizeof(std::uint32_t);
  const std::uint32_t* block =
      begin + -reinterpret_cast<std::uintptr_t>(begin) % kBlockBytes / sizeof(std::uint32_t);
  const std::uint32_t* const before = FirstBeyond(begin, block, limit);
  if (before != block) return before;
  for (; end - block >= std::ptrdiff_t{kIndexBlock}; block += kIndexBlock) {
    UInts largest = {};
    for (std::size_t i = 0; i < kIndexBlock; i += detail::kFloatLanes) {
      const UInts next = detail::Load<UInts>(block + i);
      largest = next > largest ? next : largest;
    }
    if (!detail::AllLanes(largest < limit)) break;
  }
  return FirstBeyond(block, end, limit);
}

// Slices of `inner` elements, `count` of them for each outer position, gathered along an axis of `extent` slices.
template <typename T>
struct Slices {
  const T* params;
  const std::uint32_t* indices;
  T* out;
  std::uint64_t extent;
  std::uint64_t inner;
  std::uint64_t count;

  // Copies the first `slices` slices in the order of the output.
  void Copy(std::uint64_t slices) const {
    const std::uint64_t whole = slices / count;
    // Few indices for many outer positions: one index for a few of these at a time, which lie in the nearest cache.
    constexpr std::uint64_t kFewIndices = 3;
    constexpr std::uint64_t kManyPositions = 16;
    constexpr std::uint64_t kCachedBytes = 16384;
    if (count < kFewIndices && whole >= kManyPositions) {
      const std::uint64_t block = kCachedBytes / sizeof(T) / (std::max(extent, count) * inner);
      if (block >= kManyPositions) {
        for (std::uint64_t o = 0; o < whole; o += block) CopyBlock(o, std::min(block, whole - o));
        return CopyOne(whole, slices % count);
      }
    }
    switch (inner * sizeof(T)) {
      case 1:
        return CopyWords<std::uint8_t>(whole, slices % count);
      case 2:
        return CopyWords<std::uint16_t>(whole, slices % count);
      case 4:
        return CopyWords<std::uint32_t>(whole, slices % count);
      case 8:
        return CopyWords<std::uint64_t>(whole, slices % count);
      default:
        for (std::uint64_t o = 0; o < whole; ++o) CopyOne(o, count);
        return CopyOne(whole, slices % count);
    }
  }

 private:
  const std::byte* Source(std::uint64_t o) const {
    return reinterpret_cast<const std::byte*>(params + o * extent * inner);
  }
  std::byte* Target(std::uint64_t o) const { return reinterpret_cast<std::byte*>(out + o * count * inner); }

  [[gnu::noinline]] void CopyBlock(std::uint64_t first, std::uint64_t positions) const {
    const auto step = [this](std::uint64_t slices) { return static_cast<std::ptrdiff_t>(slices * inner); };
    for (std::uint64_t j = 0; j < count; ++j) {
      detail::StridedCopy(out + (first * count + j) * inner, params + (first * extent + indices[j]) * inner,
                          {{positions, step(extent), step(count)}, {inner, 1, 1}});
    }
  }
  void CopyOne(std::uint64_t o, std::uint64_t slices) const {
    detail::GatherRows(Target(o), Source(o), indices, slices, inner * sizeof(T));
  }

  // Slices that fit a register: each index is read once for several outer positions.
  template <typename W>
  void CopyWords(std::uint64_t whole, std::uint64_t rest) const {
    std::uint64_t o = 0;
    for (; o + 8 <= whole; o += 8) CopyColumns<W, 8>(o, count);
    for (; o < whole; ++o) CopyColumn<W>(o, count);
    CopyColumn<W>(o, rest);
  }
  template <typename W>
  void CopyColumn(std::uint64_t o, std::uint64_t slices) const {
    const std::byte* const from = Source(o);
    std::byte* const to = Target(o);
    const auto move = [&](std::size_t j) {
      detail::Store(to + j * sizeof(W), detail::Load<W>(from + std::size_t{indices[j]} * sizeof(W)));
    };
    std::size_t j = 0;
    for (; j + 4 <= slices; j += 4) {
      for (std::size_t i = 0; i < 4; ++i) move(j + i);
    }
    for (; j < slices; ++j) move(j);
  }
  template <typename W, std::size_t rows>
  void CopyColumns(std::uint64_t o, std::uint64_t slices) const {
    const std::byte* from[rows];
    std::byte* to[rows];
    for (std::size_t i = 0; i < rows; ++i) {
      from[i] = Source(o + i);
      to[i] = Target(o + i);
    }
    for (std::size_t j = 0; j < slices; ++j) {
      const std::size_t index = indices[j];
      W word[rows];
      for (std::size_t i = 0; i < rows; ++i) word[i] = detail::Load<W>(from[i] + index * sizeof(W));
      for (std::size_t i = 0; i < rows; ++i) detail::Store(to[i] + j * sizeof(W), word[i]);
    }
  }
};

}  // namespace

template <typename T>
GatherStop Gather(T* out, const T* params, const std::uint32_t* indices, const GatherShape& shape) {
  const auto [outer, extent, inner, count, capacity] = shape;
  if (outer == 0 || count == 0) return {};

  // Slices are numbered o * count + j and written in this order until one is refused. Every outer position uses the
  // same indices, so a bad one stops the first position already, and looking once at those that can be reached tells
  // where.
  const std::uint64_t slices = std::uint64_t{outer} * count;
  const std::uint64_t slices_fitting = inner == 0 ? slices : capacity / inner;
  const std::uint32_t* end = indices + std::min<std::uint64_t>(count, slices_fitting + 1);
  const bool are_few = end - indices < std::ptrdiff_t{kIndexBlock};
  const std::uint32_t* bad =
      are_few ? FirstBeyond(indices, end, extent) : FirstBeyondInBlocks(indices, end, extent);
  const bool all_indices_good = bad == end;
  const std::uint64_t slices_asked = all_indices_good ? slices : static_cast<std::uint64_t>(bad - indices);

  if (inner != 0) {
    const Slices<T> all = {params, indices, out, extent, inner, count};
    all.Copy(std::min(slices_asked, slices_fitting));
  }
  if (slices_fitting < slices_asked) return {Reason::kCapacity, 0};
  if (!all_indices_good) return {Reason::kIndex, *bad};
  return {};
}

template GatherStop PlainGather<float>(float*, const float*, const std::uint32_t*, const GatherShape&);
template GatherStop PlainGather<unsigned short>(unsigned short*, const unsigned short*, const std::uint32_t*,
                                                const GatherShape&);
template GatherStop PlainGather<unsigned char>(unsigned char*, const unsigned char*, const std::uint32_t*,
                                               const GatherShape&);
template GatherStop Gather<float>(float*, const float*, const std::uint32_t*, const GatherShape&);
template GatherStop Gather<unsigned short>(unsigned short*, const unsigned short*, const std::uint32_t*,
                                           const GatherShape&);
template GatherStop Gather<unsigned char>(unsigned char*, const unsigned char*, const std::uint32_t*,
                                          const GatherShape&);

}  // namespace zeb_custom_ops::kernels
