// Buffers against unmapped pages: one byte too far faults. With VEK_HEAP_BUFFERS in the environment they are on the heap
// instead, for the runs in which that is tagged.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <span>
#include <utility>
#include <vector>

namespace vek_test {

// The side of the data that touches the unmapped page.
enum class Guard { kBefore, kAfter };

class GuardedBuffer {
 public:
  explicit GuardedBuffer(std::size_t bytes, Guard guard = Guard::kAfter) : bytes_(bytes) {
    if (OnHeap()) {
      // Tags are per 16 bytes: the data touches a boundary of these on the guarded side.
      const std::size_t whole = (bytes + 15) / 16 * 16;
      mapped_ = static_cast<std::byte*>(std::calloc(1, whole));
      if (mapped_ == nullptr) Die("calloc");
      data_ = mapped_ + (guard == Guard::kAfter ? whole - bytes : 0);
      return;
    }
    const std::size_t page = PageBytes();
    const std::size_t data_pages = (bytes + page - 1) / page * page;
    mapped_bytes_ = data_pages + 2 * page;
    mapped_ = Spare().Take(mapped_bytes_);
    if (mapped_ != nullptr) {
      std::memset(mapped_ + page, 0, data_pages);
    } else {
      mapped_ = Map(mapped_bytes_, data_pages);
    }
    data_ = mapped_ + page + (guard == Guard::kAfter ? data_pages - bytes : 0);
  }
  GuardedBuffer(GuardedBuffer&& other) noexcept
      : mapped_(std::exchange(other.mapped_, nullptr)),
        mapped_bytes_(other.mapped_bytes_),
        data_(other.data_),
        bytes_(other.bytes_) {}
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(GuardedBuffer&&) = delete;
  ~GuardedBuffer() {
    if (mapped_ == nullptr) return;
    if (OnHeap()) {
      std::free(mapped_);
    } else {
      Spare().Keep(mapped_, mapped_bytes_);
    }
  }

  void* data() const { return data_; }
  template <typename T>
  T* as() const {
    return reinterpret_cast<T*>(data_);
  }
  std::size_t bytes() const { return bytes_; }
  std::span<std::uint8_t> span() const { return {as<std::uint8_t>(), bytes_}; }

  GuardedBuffer& Fill(std::uint8_t value) {
    if (bytes_ != 0) std::memset(data_, value, bytes_);
    return *this;
  }
  template <typename Generator>
  GuardedBuffer& FillRandom(Generator& random) {
    std::independent_bits_engine<std::mt19937_64, 64, std::uint64_t> words(random());
    for (std::size_t i = 0; i < bytes_; i += sizeof(std::uint64_t)) {
      const std::uint64_t word = words();
      std::memcpy(data_ + i, &word, std::min(sizeof word, bytes_ - i));
    }
    return *this;
  }
  // Data from a vector of elements; the vector may hold fewer bytes than the buffer.
  template <typename T>
  GuardedBuffer& Set(const std::vector<T>& values) {
    if (!values.empty()) std::memcpy(data_, values.data(), values.size() * sizeof(T));
    return *this;
  }
  template <typename T = std::uint8_t>
  std::vector<T> Get() const {
    std::vector<T> values(bytes_ / sizeof(T));
    if (!values.empty()) std::memcpy(values.data(), data_, values.size() * sizeof(T));
    return values;
  }

 private:
  // Mappings kept for the next buffers of a thread: making one costs more than most tests do with it.
  class SpareMappings {
   public:
    ~SpareMappings() {
      for (const auto& [mapped, bytes] : mappings_) munmap(mapped, bytes);
    }
    // One of this size; null where there is none.
    std::byte* Take(std::size_t bytes) {
      const auto found = std::find_if(mappings_.begin(), mappings_.end(),
                                      [bytes](const auto& mapping) { return mapping.second == bytes; });
      if (found == mappings_.end()) return nullptr;
      std::byte* mapped = found->first;
      *found = mappings_.back();
      mappings_.pop_back();
      return mapped;
    }
    void Keep(std::byte* mapped, std::size_t bytes) {
      mappings_.emplace_back(mapped, bytes);
      if (mappings_.size() <= 32 && bytes <= 32 * PageBytes()) return;
      const auto gone = bytes <= 32 * PageBytes() ? mappings_.begin() : mappings_.end() - 1;
      munmap(gone->first, gone->second);
      mappings_.erase(gone);
    }

   private:
    std::vector<std::pair<std::byte*, std::size_t>> mappings_;
  };
  static SpareMappings& Spare() {
    thread_local SpareMappings spare;
    return spare;
  }
  static bool OnHeap() {
    static const bool on_heap = std::getenv("VEK_HEAP_BUFFERS") != nullptr;
    return on_heap;
  }
  static std::size_t PageBytes() {
    static const auto bytes = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return bytes;
  }
  static std::byte* Map(std::size_t bytes, std::size_t data_bytes) {
    void* mapped = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) Die("mmap");
    auto* first = static_cast<std::byte*>(mapped);
    if (data_bytes != 0 && mprotect(first + PageBytes(), data_bytes, PROT_READ | PROT_WRITE) != 0)
      Die("mprotect");
    return first;
  }
  [[noreturn]] static void Die(const char* what) {
    std::perror(what);
    std::abort();
  }
  std::byte* mapped_ = nullptr;
  std::size_t mapped_bytes_ = 0;
  std::byte* data_ = nullptr;
  std::size_t bytes_ = 0;
};

// A guarded buffer that holds `values`.
template <typename T>
GuardedBuffer Guarded(const std::vector<T>& values, Guard guard = Guard::kAfter) {
  GuardedBuffer buffer(values.size() * sizeof(T), guard);
  buffer.Set(values);
  return buffer;
}

}  // namespace vek_test
