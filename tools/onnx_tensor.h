/// \file
/// Tensors in ONNX files (.pb): one TensorProto message.
#pragma once

#include <string>

#include "mapped_file.h"
#include "tensor.h"

namespace vekrun {

/// \return the tensor in those bytes, which it shares where the elements lie there as raw data.
/// Throws `UsageError`, which names the file, and the type where it is not ours.
Tensor ReadOnnxTensor(const FileBytes& file);

/// \return what precedes the elements, as raw data, in a file of such a tensor.
std::string OnnxTensorHeader(ElementType type, const Dims& dims);

}  // namespace vekrun
