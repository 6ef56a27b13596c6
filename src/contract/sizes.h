// Element counts and byte requirements. The operators differ on purpose in how they round, so each rule has a
// name and the call shows which one applies. Requirements are 64-bit and compared before they are narrowed.
#pragma once

#include <cstdint>
#include <vector>

#include "zeb/pux_dnn_buf_attrs.h"

namespace zeb_custom_ops::detail {

// Product of the dims, 1 for none. Wraps at 64 bits.
inline std::uint64_t Elements64(const std::vector<unsigned>& dims) {
  std::uint64_t count = 1;
  for (unsigned dim : dims) count *= dim;
  return count;
}

// Product of the dims, 1 for none. Wraps at 32 bits: the count that the kernels are given.
inline std::uint32_t Elements32(const std::vector<unsigned>& dims) {
  return static_cast<std::uint32_t>(Elements64(dims));
}

namespace internal {
inline std::uint64_t Bits(const zeb::PuxDnnBufAttrsMemFormat& format) {
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(format.bitdepth));
}
}  // namespace internal

// Bytes of `count` elements: four each for floats, else the bits of all elements together rounded up to
// bytes.
inline std::uint64_t BytesRoundedUp(const zeb::PuxDnnBufAttrsMemFormat& format, std::uint64_t count) {
  return format.float_ ? count * 4 : (internal::Bits(format) * count + 7) / 8;
}

// The same of all elements that a buffer describes.
inline std::uint64_t BytesRoundedUp(const zeb::PuxDnnBufAttrs& attrs) {
  return BytesRoundedUp(attrs.GetMemFormat(), Elements64(attrs.GetDims()));
}

// Bytes of `count` elements: the bits of all elements together, rounded down to bytes; floats are not
// special.
inline std::uint64_t BytesTruncated(const zeb::PuxDnnBufAttrsMemFormat& format, std::uint64_t count) {
  return internal::Bits(format) * count / 8;
}

// Bytes of `count` elements whose width is rounded down to whole bytes first.
inline std::uint64_t BytesOfWholeByteElements(const zeb::PuxDnnBufAttrsMemFormat& format,
                                              std::uint64_t count) {
  return internal::Bits(format) / 8 * count;
}

}  // namespace zeb_custom_ops::detail
