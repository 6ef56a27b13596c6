// The bytes behind a data pointer, as the model of the layers reads and writes them: as many as the formulas touch.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>

namespace vek_model {

using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i32 = std::int32_t;
using i64 = std::int64_t;

// Thrown where a formula takes more steps or more bytes than its budget has, and where the contract says nothing.
struct Skip {};

// What a case may still take.
struct Budget {
  u64 steps = u64{1} << 36;
  u64 bytes = u64{1} << 28;  // of each memory

  void Take(u64 count) {
    if (count > steps) throw Skip{};
    steps -= count;
  }
};

// It begins as `initial` says, word by word; `reach()` is how many bytes an exact buffer must have.
class Memory {
 public:
  using Words = std::function<u32(u64 index)>;

  explicit Memory(
      Words initial = [](u64) { return 0U; }, Budget* budget = nullptr)
      : initial_(std::move(initial)), budget_(budget != nullptr ? budget : &own_) {}
  // These values, then zeros.
  template <typename T>
  explicit Memory(const std::vector<T>& values) : Memory(WordsOf(values)) {}
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  template <typename T>
  T Load(u64 index) {
    T value;
    Touch(index * sizeof(T), sizeof(T));
    std::memcpy(&value, bytes_.data() + index * sizeof(T), sizeof(T));
    return value;
  }
  template <typename T>
  void Store(u64 index, T value) {
    Touch(index * sizeof(T), sizeof(T));
    std::memcpy(bytes_.data() + index * sizeof(T), &value, sizeof(T));
  }

  // One element of `width` bytes, at indices counted in elements.
  void Move(u32 width, u64 to, Memory& from, u64 index) { CopyFrom(to * width, from, index * width, width); }
  void Fill(u32 width, u64 to, u32 value) {
    Touch(to * width, width);
    std::memcpy(bytes_.data() + to * width, &value, width);
  }

  // Bytes.
  void Zero(u64 offset, u64 count) {
    Touch(offset, count);
    if (count != 0) std::memset(bytes_.data() + offset, 0, count);
  }
  void CopyFrom(u64 offset, Memory& from, u64 from_offset, u64 count) {
    Touch(offset, count);
    from.Touch(from_offset, count);
    if (count != 0) std::memmove(bytes_.data() + offset, from.bytes_.data() + from_offset, count);
  }

  // Counts rounds of a loop that may touch nothing.
  void Step(u64 rounds = 1) { budget_->Take(rounds); }

  u64 reach() const { return reach_; }
  Budget* budget() const { return budget_; }
  // What the touched bytes hold now, and what they held before.
  template <typename T = std::uint8_t>
  std::vector<T> Get() const {
    std::vector<T> values(reach_ / sizeof(T));
    if (!values.empty()) std::memcpy(values.data(), bytes_.data(), values.size() * sizeof(T));
    return values;
  }
  std::vector<std::uint8_t> Initial() const {
    Memory fresh(initial_);
    fresh.Touch(0, reach_);
    return fresh.Get();
  }

 private:
  template <typename T>
  static Words WordsOf(const std::vector<T>& values) {
    return [values](u64 index) {
      u32 word = 0;
      const u64 bytes = values.size() * sizeof(T);
      if (index * 4 < bytes) {
        std::memcpy(&word, reinterpret_cast<const char*>(values.data()) + index * 4,
                    std::min<u64>(4, bytes - index * 4));
      }
      return word;
    };
  }
  void Touch(u64 offset, u64 count) {
    budget_->Take(1 + count / 8);
    if (count == 0) return;
    if (offset > budget_->bytes || count > budget_->bytes - offset) throw Skip{};
    reach_ = std::max(reach_, offset + count);
    if (bytes_.size() >= reach_) return;
    const u64 begin = bytes_.size() / 4;
    bytes_.resize((reach_ + 3) / 4 * 4);
    for (u64 i = begin; i < bytes_.size() / 4; ++i) {
      const u32 word = initial_(i);
      std::memcpy(bytes_.data() + i * 4, &word, 4);
    }
  }

  Words initial_;
  Budget own_;
  Budget* budget_;
  std::vector<std::uint8_t> bytes_;
  u64 reach_ = 0;
};

}  // namespace vek_model
