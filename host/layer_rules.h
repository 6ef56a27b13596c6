/// \file
/// What a host must know of each layer type to make its buffers: the elements that it takes, the shape that comes out.
#pragma once

#include <string>
#include <vector>

#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace vek_host {

using AttrMap = zeb::PuxDnnCustomLayer::AttrMap;
using Dims = std::vector<unsigned int>;
/// The descriptions of a layer's inputs, none of them null.
using InputAttrs = std::vector<const zeb::PuxDnnBufAttrs*>;

struct LayerRules {
  const char* type;
  /// The output's shape, of at least one input; never fails: where attributes and inputs do not fit, the layer itself
  /// says so.
  Dims (*output_shape)(const AttrMap& attrs, const InputAttrs& inputs);
  /// NumPy's names of the element types that input 0 may have in some layout, with blanks between.
  const char* element_types;
};

/// \return the rules of all layer types, in the order of the plug-in's factory.
const std::vector<LayerRules>& AllLayerRules();

/// \return the rules of that type, or null.
const LayerRules* FindLayerRules(const std::string& type);

}  // namespace vek_host
