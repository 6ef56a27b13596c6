// What the checks of Configure and Execute are written with: macros that refuse, and predicates that decide.
#pragma once

#include <initializer_list>

#include "contract/log.h"
#include "custom_ops/vek_common.h"
#include "zeb/pux_dnn_buf_attrs.h"

// States what must hold. If it does not, logs the text at ERROR, here, and returns false. The condition is
// evaluated once, the arguments of the text only when the line is printed.
#define VEK_REQUIRE(condition, text, ...)             \
  do {                                                \
    if (!(condition)) {                               \
      VEK_LOG_ERROR(text __VA_OPT__(, ) __VA_ARGS__); \
      return false;                                   \
    }                                                 \
  } while (false)

// The same of a buffer's format: behind the text, the records that it concerns are printed at INFO.
#define VEK_REQUIRE_FORMAT(condition, text, ...)             \
  do {                                                       \
    if (!(condition)) {                                      \
      VEK_LOG_ERROR(text);                                   \
      ::zeb_custom_ops::detail::PrintFormats({__VA_ARGS__}); \
      return false;                                          \
    }                                                        \
  } while (false)

namespace zeb_custom_ops::detail {

inline void PrintFormats(std::initializer_list<zeb::PuxDnnBufAttrsMemFormat> formats) {
  for (const zeb::PuxDnnBufAttrsMemFormat& format : formats) PrintMemFmt(format);
}

// Values as the "%d", "%u" and "%llu" of the messages take them; "%d" shows the low 32 bits.
template <typename T>
constexpr int AsInt(T value) {
  return static_cast<int>(value);
}
template <typename T>
constexpr unsigned AsUnsigned(T value) {
  return static_cast<unsigned>(value);
}
template <typename T>
constexpr unsigned long long AsULongLong(T value) {
  return static_cast<unsigned long long>(value);
}

// The only format that the numeric operators take: planar single precision.
inline bool IsPlanarFloat(const zeb::PuxDnnBufAttrsMemFormat& format) {
  return format.bitdepth == 32 && format.plane_pack == 1 && format.float_;
}

// Planar elements of 8, 16 or 32 bits.
inline bool IsPlanarWholeBytes(const zeb::PuxDnnBufAttrsMemFormat& format) {
  return (format.bitdepth == 8 || format.bitdepth == 16 || format.bitdepth == 32) && format.plane_pack == 1;
}

}  // namespace zeb_custom_ops::detail
