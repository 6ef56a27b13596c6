// Blocks of a few vectors in which bytes change places as a table says, where the target looks bytes up in vectors.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "copy/loop.h"
#include "simd/simd.h"

namespace zeb_custom_ops::detail {

// The most bytes that a block has; 0 where the target has no such look-up.
inline constexpr std::size_t kMostShuffledBytes = kLookUpVectors * kVecBytes;

// Where each byte of a block in the target comes from, counted from the block's start in the source.
struct ByteTable {
  std::array<std::uint8_t, kMostShuffledBytes> source;
};

namespace internal {

// Blocks of `vecs` vectors. The last vector ends where the block ends, on both sides: it shares bytes with its neighbour.
template <std::size_t vecs>
[[gnu::noinline]] void ShuffleBlocksOf(std::byte* dst, const std::byte* src, const Loop& blocks,
                                       const ByteTable& table, std::size_t bytes) {
  const std::size_t last = bytes - kVecBytes;
  Vec<std::uint8_t> index[vecs];
  for (std::size_t i = 0; i < vecs; ++i) {
    std::uint8_t lanes[kVecBytes];
    for (std::size_t lane = 0; lane < kVecBytes; ++lane) {
      const std::size_t from = table.source[std::min(i * kVecBytes, last) + lane];
      const std::size_t vec = from / kVecBytes;
      const bool is_in_last = vec + 1 == vecs;
      lanes[lane] = static_cast<std::uint8_t>(is_in_last ? vec * kVecBytes + from - last : from);
    }
    index[i] = Load<Vec<std::uint8_t>>(lanes);
  }
  for (std::size_t left = blocks.extent; left > 0; --left, dst += blocks.dst_step, src += blocks.src_step) {
    Vec<std::uint8_t> from[vecs];
    for (std::size_t i = 0; i + 1 < vecs; ++i) from[i] = Load<Vec<std::uint8_t>>(src + i * kVecBytes);
    from[vecs - 1] = Load<Vec<std::uint8_t>>(src + last);
    for (std::size_t i = 0; i < vecs; ++i) {
      Store(dst + (i + 1 < vecs ? i * kVecBytes : last), LookUpBytes<vecs>(from, index[i]));
    }
  }
}

template <std::size_t vecs = kLookUpVectors>
void ShuffleBlocks(std::byte* dst, const std::byte* src, const Loop& blocks, const ByteTable& table,
                   std::size_t bytes) {
  if constexpr (vecs > 1) {
    if (bytes <= (vecs - 1) * kVecBytes) return ShuffleBlocks<vecs - 1>(dst, src, blocks, table, bytes);
  }
  if constexpr (vecs > 0) ShuffleBlocksOf<vecs>(dst, src, blocks, table, bytes);
}

}  // namespace internal

// Moves blocks of `bytes` bytes, a vector to kMostShuffledBytes; steps are bytes.
inline void ShuffleBlocks(std::byte* dst, const std::byte* src, const Loop& blocks, const ByteTable& table,
                          std::size_t bytes) {
  internal::ShuffleBlocks(dst, src, blocks, table, bytes);
}

}  // namespace zeb_custom_ops::detail
