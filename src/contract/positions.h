// Positions, extents and steps are unsigned 32-bit numbers that wrap. A fast kernel is chosen only where none of them
// does: its guard writes the formula of the largest one in saturating numbers, and asks whether that fits.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <initializer_list>

namespace zeb_custom_ops::detail {

// An unsigned number that stays at 2^32, "too large", where sums and products pass it. 0 times any number is 0.
class Saturating {
 public:
  constexpr Saturating(
      std::uint64_t value)  // NOLINT(google-explicit-constructor): formulas mix it with plain numbers
      : value_(std::min(value, kTooLarge)) {}

  // Whether the number is one of 32 bits.
  constexpr bool Fits() const { return value_ < kTooLarge; }
  // The number itself where it fits, else 2^32.
  constexpr std::uint64_t value() const { return value_; }

  friend constexpr Saturating operator+(Saturating a, Saturating b) { return {a.value_ + b.value_}; }
  friend constexpr Saturating operator*(Saturating a, Saturating b) {
    if (!a.Fits() || !b.Fits()) return {a.value_ == 0 || b.value_ == 0 ? 0 : kTooLarge};
    return {a.value_ * b.value_};
  }
  friend constexpr auto operator<=>(Saturating a, Saturating b) = default;

 private:
  static constexpr std::uint64_t kTooLarge = std::uint64_t{1} << 32;
  std::uint64_t value_;
};

constexpr bool Fits(Saturating number) { return number.Fits(); }

// `extent` positions, `step` elements apart.
struct Stepped {
  Saturating extent;
  Saturating step;
};

// The last position of nested loops, (extent - 1) * step added over all of them; 0 where there is none.
constexpr Saturating LastPosition(std::initializer_list<Stepped> loops) {
  Saturating last = 0;
  for (const Stepped& loop : loops) {
    if (loop.extent.value() == 0) return 0;
    const Saturating steps = loop.extent.Fits() ? loop.extent.value() - 1 : loop.extent;
    last = last + steps * loop.step;
  }
  return last;
}

}  // namespace zeb_custom_ops::detail
