/// \file
/// A tensor in dense order, as files hold it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "element_type.h"

namespace vekrun {

using Dims = std::vector<unsigned int>;

/// \return the dims as users write them, "1x3x64x64".
std::string ShapeText(const Dims& dims);

/// \return the product of the extents.
std::size_t ElementCount(const Dims& dims);

/// Elements in dense order, outermost dimension first, little-endian and side by side. The memory is shared: a mapped
/// file, or an allocation. It need not be aligned, so elements are read with memcpy.
struct Tensor {
  ElementType type = ElementType::kFloat32;
  Dims dims;
  std::shared_ptr<const std::byte> data;  ///< Bytes() bytes

  std::size_t Elements() const { return ElementCount(dims); }
  std::size_t Bytes() const { return Elements() * ElementBytes(type); }
};

/// Memory for a tensor that is being made.
std::shared_ptr<std::byte> NewBytes(std::size_t bytes);

}  // namespace vekrun
