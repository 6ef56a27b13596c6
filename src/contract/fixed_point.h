// From a value to the elements that stand for it in a fixed-point tensor.
#pragma once

#include <cstdint>
#include <limits>

namespace zeb_custom_ops::detail {

// Truncation toward zero to 32 bits, the same on every processor: saturating, NaN gives 0.
inline std::int32_t TruncateToInt32(float value) {
  if (value >= 0x1p31F) return std::numeric_limits<std::int32_t>::max();
  if (value <= -0x1p31F) return std::numeric_limits<std::int32_t>::min();
  return value == value ? static_cast<std::int32_t>(value) : 0;
}
inline std::uint32_t TruncateToUint32(float value) {
  if (value >= 0x1p32F) return std::numeric_limits<std::uint32_t>::max();
  return value > 0.0F ? static_cast<std::uint32_t>(value) : 0;
}

// The element that stands for `value` in a format with the exponent `exp`: the low bits of the truncated
// product value * 2^-exp, which is unsigned for 8-bit elements and signed for wider ones.
//
// Deliberate: the factor is a signed 32-bit 1 shifted by the low five bits of -exp, so that the shift by 31
// gives a negative factor and a positive exponent a large one.
template <typename T>
T FillValue(std::uint32_t value, std::int32_t exp) {
  const std::uint32_t shift = (0U - static_cast<std::uint32_t>(exp)) & 31U;
  const auto factor = static_cast<std::int32_t>(1U << shift);
  const auto product = static_cast<float>(static_cast<double>(factor) * static_cast<double>(value));
  if constexpr (sizeof(T) == 1) {
    return static_cast<T>(TruncateToUint32(product));
  } else {
    return static_cast<T>(TruncateToInt32(product));
  }
}

}  // namespace zeb_custom_ops::detail
