#include "guard/guarded_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace vek_guard {
namespace {

// What is reserved before and behind the pages: a position that runs away by a stride too many still lands in it.
constexpr std::size_t kFront = std::size_t{1} << 28;
constexpr std::size_t kBack = std::size_t{1} << 30;
constexpr std::size_t kLeast = std::size_t{1} << 16;  // where address space is scarce

}  // namespace

GuardedMemory::GuardedMemory(std::size_t bytes, std::size_t alignment)
    : bytes_(bytes), alignment_(alignment) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  page_bytes_ = (bytes + alignment - 1 + page - 1) / page * page;
  std::size_t front = kFront;
  std::size_t back = kBack;
  void* range = MAP_FAILED;
  while (true) {
    range_bytes_ = front + page_bytes_ + back;
    range = mmap(nullptr, range_bytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (range != MAP_FAILED || front <= kLeast) break;
    front /= 2;
    back /= 2;
  }
  range_ = static_cast<std::byte*>(range);
  pages_ = range_ + front;
  const bool mapped = range != MAP_FAILED &&
                      (page_bytes_ == 0 || mmap(pages_, page_bytes_, PROT_READ | PROT_WRITE,
                                                MAP_SHARED | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED);
  if (!mapped) {
    const int error = errno;
    if (range != MAP_FAILED) munmap(range_, range_bytes_);
    throw std::runtime_error("no memory for a buffer of " + std::to_string(bytes) +
                             " bytes: " + std::strerror(error));
  }
  data_ = pages_;
  Place(Against::kBack);
}

GuardedMemory::~GuardedMemory() {
  if (range_ != nullptr) munmap(range_, range_bytes_);
}

GuardedMemory::GuardedMemory(GuardedMemory&& other) noexcept
    : range_(std::exchange(other.range_, nullptr)),
      range_bytes_(other.range_bytes_),
      pages_(other.pages_),
      page_bytes_(other.page_bytes_),
      data_(other.data_),
      bytes_(other.bytes_),
      alignment_(other.alignment_) {}

void GuardedMemory::Place(Against side) {
  std::byte* const target =
      side == Against::kFront ? pages_ : pages_ + (page_bytes_ - bytes_) / alignment_ * alignment_;
  if (target != data_ && bytes_ > 0) std::memmove(target, data_, bytes_);
  data_ = target;
  std::fill(pages_, data_, kRest);
  std::fill(data_ + bytes_, pages_ + page_bytes_, kRest);
}

std::optional<std::ptrdiff_t> GuardedMemory::SpoiledRest() const {
  for (const std::byte* at = data_ + bytes_; at < pages_ + page_bytes_; ++at) {
    if (*at != kRest) return at - data_;
  }
  for (const std::byte* at = data_; at > pages_; --at) {
    if (at[-1] != kRest) return at - 1 - data_;
  }
  return std::nullopt;
}

std::optional<std::ptrdiff_t> GuardedMemory::OffsetOf(const void* address) const {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const auto start = reinterpret_cast<std::uintptr_t>(range_);
  if (at < start || at - start >= range_bytes_) return std::nullopt;
  return static_cast<const std::byte*>(address) - data_;
}

}  // namespace vek_guard
