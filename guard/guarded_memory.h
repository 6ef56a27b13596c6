/// \file
/// Memory that a stray access cannot leave unseen: between unmapped pages, inside a large reserved range.
#pragma once

#include <cstddef>
#include <optional>

namespace vek_guard {

/// The memory of one buffer. It is shared with child processes, who so read and write the same bytes.
class GuardedMemory {
 public:
  enum class Against {
    kBack,   ///< the last byte lies before an unmapped page
    kFront,  ///< the first byte lies behind one
  };

  /// Reserves the range and places the bytes, zeros, against its back; they start at a multiple of `alignment`, a power
  /// of 2. Throws `std::runtime_error` where there is no memory for them.
  GuardedMemory(std::size_t bytes, std::size_t alignment);
  ~GuardedMemory();
  GuardedMemory(GuardedMemory&& other) noexcept;
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;
  GuardedMemory& operator=(GuardedMemory&&) = delete;

  std::byte* Data() const { return data_; }
  std::size_t Bytes() const { return bytes_; }

  /// Moves the bytes, and fills the rest of their pages with `kRest`.
  void Place(Against side);

  /// \return where the rest of the pages is no longer what it was filled with: the offset from `Data()` of the changed
  /// byte that is nearest to the bytes, or nothing.
  std::optional<std::ptrdiff_t> SpoiledRest() const;

  /// \return the offset of an address from `Data()`, where it lies in the reserved range.
  std::optional<std::ptrdiff_t> OffsetOf(const void* address) const;

  static constexpr std::byte kRest{0xFF};

 private:
  std::byte* range_;  // reserved: unmapped, then the pages, then unmapped
  std::size_t range_bytes_;
  std::byte* pages_;
  std::size_t page_bytes_;
  std::byte* data_;
  std::size_t bytes_;
  std::size_t alignment_;
};

}  // namespace vek_guard
