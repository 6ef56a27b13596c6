// Attribute look-up and the conversions of attribute text: the C library's, without error checks, by design.
// Text without a number reads as 0; what follows the number is ignored.
#pragma once

#include <cstdlib>
#include <string>
#include <unordered_map>

namespace zeb_custom_ops::detail {

// The text of an attribute, or null when the map does not hold the key.
inline const std::string* Find(const std::unordered_map<std::string, std::string>& attrs,
                               const std::string& key) {
  const auto found = attrs.find(key);
  return found == attrs.end() ? nullptr : &found->second;
}

// The number's low 32 bits: "4294967297" reads as 1.
inline int ToInt(const std::string& text) { return static_cast<int>(std::strtol(text.c_str(), nullptr, 10)); }
inline unsigned ToUnsigned(const std::string& text) {
  return static_cast<unsigned>(std::strtol(text.c_str(), nullptr, 10));
}

// A word of bits, its digits as in C: decimal, hexadecimal behind "0x", octal behind "0".
inline unsigned long ToWord(const std::string& text) { return std::strtoul(text.c_str(), nullptr, 0); }

inline float ToFloat(const std::string& text) { return std::strtof(text.c_str(), nullptr); }

// True only for the value 1, compared before it is narrowed: "4294967297" is false.
inline bool ToFlag(const std::string& text) { return std::strtol(text.c_str(), nullptr, 10) == 1; }

}  // namespace zeb_custom_ops::detail
