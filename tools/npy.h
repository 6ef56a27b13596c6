/// \file
/// NumPy's .npy format: versions 1 to 3.
#pragma once

#include <string>

#include "mapped_file.h"
#include "tensor.h"

namespace vekrun {

/// \return the array in those bytes, which it shares unless they are in column-major order.
/// Throws `UsageError`, which names the file, and the version or the type where these are not ours.
Tensor ReadNpy(const FileBytes& file);

/// \return what precedes the elements in a file of version 1; a multiple of 64 bytes.
std::string NpyHeader(ElementType type, const Dims& dims);

}  // namespace vekrun
