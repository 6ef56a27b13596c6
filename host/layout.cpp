#include "host/layout.h"

#include <cstring>

namespace vek_host {
namespace {

// Calls visit(dense_offset, buffer_offset, step) for every row of every channel; offsets and step in bytes,
// the step between neighbouring elements of the row in the buffer.
template <typename Visit>
void ForEachRow(const BufAttrs& attrs, Visit visit) {
  const std::size_t element = attrs.ElementBytes();
  const auto pack = static_cast<unsigned int>(attrs.GetMemFormat().plane_pack);
  const std::size_t planes = attrs.PlanesPerItem();
  std::size_t dense = 0;
  for (std::size_t n = 0; n < attrs.GetBatch(); ++n) {
    for (unsigned int c = 0; c < attrs.GetChannels(); ++c) {
      const std::size_t plane = (n * planes + c / pack) * attrs.GetPlaneStride() + c % pack * element;
      for (std::size_t h = 0; h < attrs.GetHeight(); ++h) {
        visit(dense, plane + h * attrs.GetLineStride(), pack * element);
        dense += attrs.GetWidth() * element;
      }
    }
  }
}

}  // namespace

void Pack(const BufAttrs& attrs, const std::byte* dense, std::byte* buffer) {
  const std::size_t element = attrs.ElementBytes();
  ForEachRow(attrs, [&](std::size_t src, std::size_t dst, std::size_t step) {
    for (std::size_t w = 0; w < attrs.GetWidth(); ++w) {
      std::memcpy(buffer + dst + w * step, dense + src + w * element, element);
    }
  });
}

void Unpack(const BufAttrs& attrs, const std::byte* buffer, std::byte* dense) {
  const std::size_t element = attrs.ElementBytes();
  ForEachRow(attrs, [&](std::size_t dst, std::size_t src, std::size_t step) {
    for (std::size_t w = 0; w < attrs.GetWidth(); ++w) {
      std::memcpy(dense + dst + w * element, buffer + src + w * step, element);
    }
  });
}

}  // namespace vek_host
