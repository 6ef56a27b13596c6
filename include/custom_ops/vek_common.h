/// \file
/// The frame around the operators: the plug-in's entry points, the format record's print, the list parser.
#pragma once

#include <string>
#include <vector>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

extern "C" {

/// Makes a layer of the given type: "SOFTMAX", "DATA_STRIDE_CONV", "RESHAPE", "BROADCAST", "ARGMAX",
/// "NORMALIZE", "MATMUL", "PERMUTE", "SWCONCAT", "DEPTHTOSPACE", "PAD", "GATHER", "ELTWISE", "SPACETOBATCH",
/// "SPACETODEPTH" or "BATCHTOSPACE", compared exactly.
/// \return a new, unconfigured layer, to be given back to `destroy_object`; null for any other name.
ZEB_EXPORT zeb::PuxDnnCustomLayer* create_object(const std::string& type);

/// Deletes a layer made by `create_object`. Null is ignored.
ZEB_EXPORT void destroy_object(zeb::PuxDnnCustomLayer* layer);

}  // extern "C"

namespace zeb_custom_ops {

/// Prints the eight fields of a format record at INFO; operators call it after they refused the format.
ZEB_EXPORT void PrintMemFmt(zeb::PuxDnnBufAttrsMemFormat format);

namespace sw_ops_parser {

/// Splits the text of a list attribute, such as "[1,2]" or "[[0,0],[1,1]]", into the texts of its elements.
///
/// Only ',', '[' and ']' have a meaning; every other character, a blank too, is element text. A list may be
/// nested one level and is flattened in order.
///
/// \param text      the attribute's value.
/// \param elements  in/out: the elements are appended; what it holds already stays.
/// \param error     out: replaced by the reason on failure, else left alone.
/// \return true when the list was closed. Elements found before a failure stay appended.
ZEB_EXPORT bool ParseTensor(std::string text, std::vector<std::string>* elements, std::string* error);

}  // namespace sw_ops_parser
}  // namespace zeb_custom_ops
