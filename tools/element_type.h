/// \file
/// The types of tensor elements: those that layers take, and those that only files have.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "zeb/pux_dnn_buf_attrs.h"

namespace vekrun {

enum class ElementType {
  // What layers take.
  kFloat32,
  kInt8,
  kUint8,
  kInt16,
  kUint16,
  kInt32,
  kUint32,
  // What only files have.
  kFloat64,
  kFloat16,
  kInt64,
  kUint64,
  kBool,
};

/// \return NumPy's name of the type, such as "uint8".
const char* Name(ElementType type);
/// \return the type of that name, long or short ("uint8", "u8"), or nothing.
std::optional<ElementType> TypeNamed(std::string_view name);
/// \return all types' names, long and short, for messages: "float32 (f32), int8 (i8), ...".
std::string TypeNames(bool of_layers_only);
std::size_t ElementBytes(ElementType type);
bool IsFloat(ElementType type);
bool IsSigned(ElementType type);
/// \return whether a buffer of a layer may hold such elements.
bool IsLayerType(ElementType type);
/// \return the planar format of such elements. Of a type that no layer takes it has the width, so that a buffer of
/// them can be laid out.
zeb::PuxDnnBufAttrsMemFormat FormatOf(ElementType type);
/// \return the type of elements of that format, which is one of a layer.
ElementType TypeOf(const zeb::PuxDnnBufAttrsMemFormat& format);

/// \return .npy headers' code of a type, such as "<f4".
const char* NumpyCode(ElementType type);
/// \return the type of a .npy header's code, or nothing: in little-endian order only.
std::optional<ElementType> TypeOfNumpyCode(std::string_view code);

}  // namespace vekrun
