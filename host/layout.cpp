#include "host/layout.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace vek_host {
namespace {

// Calls visit(dense_offset, buffer_offset, step) for rows [first, first + count) of all rows of all channels; offsets
// and step in bytes, the dense one from the first of these rows, the step between neighbouring elements of the row in
// the buffer.
template <typename Visit>
void ForEachRow(const BufAttrs& attrs, std::size_t first, std::size_t count, Visit visit) {
  const std::size_t element = attrs.ElementBytes();
  const auto pack = static_cast<std::size_t>(attrs.GetMemFormat().plane_pack);
  const std::size_t planes = attrs.PlanesPerItem();
  const std::size_t channels = attrs.GetChannels();
  const std::size_t height = attrs.GetHeight();
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t row = first + i;
    const std::size_t channel = row / height;  // of all batch items
    const std::size_t c = channel % channels;
    const std::size_t plane = channel / channels * planes + c / pack;
    visit(i * attrs.GetWidth() * element,
          plane * attrs.GetPlaneStride() + row % height * attrs.GetLineStride() + c % pack * element,
          pack * element);
  }
}

template <typename Word>
void CopyElements(const std::byte* src, std::size_t src_step, std::byte* dst, std::size_t dst_step,
                  std::size_t count) {
  for (std::size_t w = 0; w < count; ++w) {
    std::memcpy(dst + w * dst_step, src + w * src_step, sizeof(Word));
  }
}

// Copies a row; the steps are those from one element to the next, in bytes.
void CopyRow(const std::byte* src, std::size_t src_step, std::byte* dst, std::size_t dst_step,
             std::size_t count, std::size_t element) {
  if (src_step == element && dst_step == element) {
    std::copy_n(src, count * element, dst);
  } else if (element == 1) {
    CopyElements<std::uint8_t>(src, src_step, dst, dst_step, count);
  } else if (element == 2) {
    CopyElements<std::uint16_t>(src, src_step, dst, dst_step, count);
  } else if (element == 4) {
    CopyElements<std::uint32_t>(src, src_step, dst, dst_step, count);
  } else {
    CopyElements<std::uint64_t>(src, src_step, dst, dst_step, count);
  }
}

bool IsDense(const BufAttrs& attrs) { return !attrs.IsStrided() && !attrs.IsInterleaved(); }

}  // namespace

std::size_t Rows(const BufAttrs& attrs) {
  return std::size_t{attrs.GetBatch()} * attrs.GetChannels() * attrs.GetHeight();
}

void Pack(const BufAttrs& attrs, const std::byte* dense, std::byte* buffer) {
  if (IsDense(attrs)) {
    std::copy_n(dense, attrs.Bytes(), buffer);
    return;
  }
  const std::size_t element = attrs.ElementBytes();
  ForEachRow(attrs, 0, Rows(attrs), [&](std::size_t src, std::size_t dst, std::size_t step) {
    CopyRow(dense + src, element, buffer + dst, step, attrs.GetWidth(), element);
  });
}

void Unpack(const BufAttrs& attrs, const std::byte* buffer, std::byte* dense) {
  UnpackRows(attrs, buffer, 0, Rows(attrs), dense);
}

void UnpackRows(const BufAttrs& attrs, const std::byte* buffer, std::size_t first, std::size_t count,
                std::byte* dense) {
  const std::size_t element = attrs.ElementBytes();
  if (IsDense(attrs)) {
    const std::size_t row_bytes = attrs.GetWidth() * element;
    std::copy_n(buffer + first * row_bytes, count * row_bytes, dense);
    return;
  }
  ForEachRow(attrs, first, count, [&](std::size_t dst, std::size_t src, std::size_t step) {
    CopyRow(buffer + src, step, dense + dst, element, attrs.GetWidth(), element);
  });
}

}  // namespace vek_host
