/// \file
/// What the tool knows of each layer type: its attributes, what it accepts, the shape that comes out.
#pragma once

#include <string>
#include <vector>

#include "tensor.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace vekrun {

using AttrMap = zeb::PuxDnnCustomLayer::AttrMap;

struct AttributeInfo {
  const char* key;
  const char* fallback;  ///< the value that holds without it; null where it is mandatory
  const char* meaning;
};

struct LayerInfo {
  const char* type;
  const char* summary;
  const char* buffers;  ///< what goes in and what it must look like
  std::vector<AttributeInfo> attributes;
  const char* note;  ///< what else a user should know, or null
  /// The output's shape; never fails: where attributes and inputs do not fit, the layer itself says so.
  Dims (*output_shape)(const AttrMap& attrs, const std::vector<const zeb::PuxDnnBufAttrs*>& inputs);
  const char* onnx;   ///< ONNX operators that do the same, or "none" and those that together do
  const char* numpy;  ///< NumPy functions, likewise
};

/// \return all layer types, in the order of the plug-in's factory.
const std::vector<LayerInfo>& LayerCatalog();

/// \return the entry of that type, or null.
const LayerInfo* FindLayer(const std::string& type);

}  // namespace vekrun
