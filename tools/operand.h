/// \file
/// The buffers of a run.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "file_argument.h"
#include "host/buf_attrs.h"
#include "tensor_file.h"

namespace vekrun {

/// One buffer: where it comes from or goes to, and its description.
struct Operand {
  std::string role;  ///< as messages call it: "input 1", "the output"
  FileArgument file;
  vek_host::BufAttrs attrs;
  std::optional<StoredTensor> stored;  ///< of an input
};

/// \return "1x64x1x1 float32".
std::string TensorText(const vek_host::BufAttrs& attrs);

/// \return "input 1 (B.npy, 1x64x1x1 float32, 256 bytes)".
std::string Text(const Operand& operand);

/// \return the layout in the words of the options after a file's name, such as "pack=4,line=64"; "dense" for none.
std::string LayoutText(const vek_host::BufAttrs& attrs);

/// \return clones of the descriptions, as `Configure` takes them.
std::vector<std::unique_ptr<zeb::PuxDnnBufAttrs>> Descriptions(const std::vector<Operand>& operands);

}  // namespace vekrun
