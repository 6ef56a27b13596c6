/// \file
/// What the tool tells of each layer type: its attributes and what it accepts. What it must know to run one is in
/// host/layer_rules.h.
#pragma once

#include <string>
#include <vector>

#include "host/layer_rules.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace vekrun {

using vek_host::AttrMap;

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
  const char* note;   ///< what else a user should know, or null
  const char* onnx;   ///< ONNX operators that do the same, or "none" and those that together do
  const char* numpy;  ///< NumPy functions, likewise
};

/// \return all layer types, in the order of the plug-in's factory.
const std::vector<LayerInfo>& LayerCatalog();

/// \return the entry of that type, or null.
const LayerInfo* FindLayer(const std::string& type);

}  // namespace vekrun
