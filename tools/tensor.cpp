#include "tensor.h"

namespace vekrun {

std::string ShapeText(const Dims& dims) {
  if (dims.empty()) return "scalar";
  std::string text = std::to_string(dims[0]);
  for (std::size_t i = 1; i < dims.size(); ++i) text.append("x").append(std::to_string(dims[i]));
  return text;
}

std::size_t ElementCount(const Dims& dims) {
  std::size_t elements = 1;
  for (const unsigned int extent : dims) elements *= extent;
  return elements;
}

std::shared_ptr<std::byte> NewBytes(std::size_t bytes) {
  const std::shared_ptr<std::byte[]> memory = std::make_shared_for_overwrite<std::byte[]>(bytes);
  return {memory, memory.get()};
}

}  // namespace vekrun
