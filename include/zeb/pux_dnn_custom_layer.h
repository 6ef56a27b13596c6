/// \file
/// The layer interface that every operator of the library implements and that the host calls.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"

namespace zeb {

/// One layer of a network. Created by `create_object`, configured, executed any number of times, destroyed by
/// `destroy_object`. One layer must not be used by two threads at once; distinct layers are independent.
class ZEB_EXPORT PuxDnnCustomLayer {
 public:
  /// Attribute key to attribute text.
  using AttrMap = std::unordered_map<std::string, std::string>;
  /// Descriptions of the input or output buffers, owned by the host.
  using BufAttrsList = std::vector<std::unique_ptr<PuxDnnBufAttrs>>;

  /// Checks attributes and buffer descriptions and prepares the layer; keeps clones of what `Execute` needs.
  /// \return true when the layer is ready to run; otherwise false, after an ERROR line that says why. A layer
  /// that was configured before stays configured.
  virtual bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) = 0;

  /// Computes the outputs. The arrays hold one data pointer per buffer, in the order of `Configure`.
  /// \return true when the outputs were written; otherwise false, after an ERROR line that says why.
  virtual bool Execute(void** in_buffers, void** out_buffers) = 0;

  virtual ~PuxDnnCustomLayer() = default;
};

}  // namespace zeb
