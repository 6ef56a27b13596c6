#include "element_type.h"

#include <algorithm>
#include <array>

namespace vekrun {
namespace {

struct TypeInfo {
  ElementType type;
  const char* name;
  const char* short_name;
  const char* numpy;
  int bits;
  bool is_signed;
  bool of_layers;
};

constexpr std::array<TypeInfo, 12> kTypes = {{
    {ElementType::kFloat32, "float32", "f32", "<f4", 32, false, true},
    {ElementType::kInt8, "int8", "i8", "|i1", 8, true, true},
    {ElementType::kUint8, "uint8", "u8", "|u1", 8, false, true},
    {ElementType::kInt16, "int16", "i16", "<i2", 16, true, true},
    {ElementType::kUint16, "uint16", "u16", "<u2", 16, false, true},
    {ElementType::kInt32, "int32", "i32", "<i4", 32, true, true},
    {ElementType::kUint32, "uint32", "u32", "<u4", 32, false, true},
    {ElementType::kFloat64, "float64", "f64", "<f8", 64, false, false},
    {ElementType::kFloat16, "float16", "f16", "<f2", 16, false, false},
    {ElementType::kInt64, "int64", "i64", "<i8", 64, true, false},
    {ElementType::kUint64, "uint64", "u64", "<u8", 64, false, false},
    {ElementType::kBool, "bool", "b8", "|b1", 8, false, false},
}};

const TypeInfo& Info(ElementType type) {
  return *std::find_if(kTypes.begin(), kTypes.end(), [type](const TypeInfo& t) { return t.type == type; });
}

}  // namespace

const char* Name(ElementType type) { return Info(type).name; }

std::optional<ElementType> TypeNamed(std::string_view name) {
  for (const TypeInfo& info : kTypes) {
    if (name == info.name || name == info.short_name) return info.type;
  }
  return std::nullopt;
}

std::string TypeNames(bool of_layers_only) {
  std::string names;
  for (const TypeInfo& info : kTypes) {
    if (of_layers_only && !info.of_layers) continue;
    if (!names.empty()) names += ", ";
    names.append(info.name).append(" (").append(info.short_name).append(")");
  }
  return names;
}

std::size_t ElementBytes(ElementType type) { return static_cast<std::size_t>(Info(type).bits) / 8; }

bool IsFloat(ElementType type) {
  return type == ElementType::kFloat32 || type == ElementType::kFloat64 || type == ElementType::kFloat16;
}

bool IsSigned(ElementType type) { return IsFloat(type) || Info(type).is_signed; }

bool IsLayerType(ElementType type) { return Info(type).of_layers; }

zeb::PuxDnnBufAttrsMemFormat FormatOf(ElementType type) {
  zeb::PuxDnnBufAttrsMemFormat format;
  format.bitdepth = Info(type).bits;
  format.signed_ = Info(type).is_signed;
  format.float_ = IsFloat(type);
  return format;
}

ElementType TypeOf(const zeb::PuxDnnBufAttrsMemFormat& format) {
  if (format.float_) return ElementType::kFloat32;
  return std::find_if(
             kTypes.begin() + 1, kTypes.end(),
             [&](const TypeInfo& t) { return t.bits == format.bitdepth && t.is_signed == format.signed_; })
      ->type;
}

const char* NumpyCode(ElementType type) { return Info(type).numpy; }

std::optional<ElementType> TypeOfNumpyCode(std::string_view code) {
  if (code.size() < 2) return std::nullopt;
  // "=" is this machine's order, "|" that of types of one byte, which other writers also call "<".
  const bool is_little = code[0] == '<' || code[0] == '=' || code[0] == '|';
  for (const TypeInfo& info : kTypes) {
    if (is_little && code.substr(1) == info.numpy + 1) return info.type;
  }
  return std::nullopt;
}

}  // namespace vekrun
