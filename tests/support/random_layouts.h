// Random buffer descriptions in every layout: padded, interleaved, of any rank, now and then malformed.
#pragma once

#include <vector>

#include "support/fake_buf_attrs.h"
#include "support/random.h"

namespace vek_test {

// Dims whose product stays small enough for a test; `rank` of them.
inline std::vector<unsigned> RandomDims(Random& random, std::size_t rank, std::uint64_t most_elements) {
  std::vector<unsigned> dims;
  std::uint64_t elements = 1;
  for (std::size_t i = 0; i < rank; ++i) {
    unsigned dim = random.OneIn(4) ? random.Between(1, 2) : random.Extent();
    while (elements * dim > most_elements) dim = (dim + 1) / 2 - (dim == 1 ? 1U : 0U);
    if (dim != 0) elements *= dim;
    dims.push_back(dim);
  }
  return dims;
}

// 8, 16 or 32 bits, fixed point or float; rarely something else.
inline Format RandomFormat(Random& random) {
  Format format = Buf::Planar(random.OneOf({8, 8, 16, 16, 32}), false);
  if (format.bitdepth == 32) format.float_ = !random.OneIn(4);
  if (random.OneIn(60)) format.bitdepth = random.OneOf({0, 4, 12, 24, 40});
  if (random.OneIn(200)) format.float_ = true;
  return format;
}

inline int RandomPlanePack(Random& random) {
  if (random.OneIn(150)) return random.OneOf({0, -1});
  return random.OneIn(2) ? 1 : random.OneOf({2, 3, 4, 5, 8, 16, 17});
}

// Gives a description of these dims and this format a layout and a size.
inline Buf RandomLayout(Random& random, std::vector<unsigned> dims, const Format& format) {
  Buf buf = Buf::Packed(std::move(dims), format);
  const unsigned unit = random.OneIn(20) ? 1 : buf.ElementBytes();
  const unsigned row_pad = random.OneIn(2) ? 0 : random.Between(1, random.OneIn(4) ? 40 : 6) * unit;
  unsigned plane_pad = 0;
  if (random.OneIn(3)) plane_pad = random.OneIn(2) ? buf.line_stride + row_pad : random.Between(1, 20) * unit;
  buf.Pad(row_pad, plane_pad);

  if (buf.dims.size() != 4 && !buf.dims.empty()) {
    // Strides of rows and what lies outside them; the last entry is the run of a row.
    unsigned stride = buf.dims.back() * buf.ElementBytes() + row_pad;
    buf.strides.back() = random.OneIn(4) ? stride : stride - row_pad;
    for (std::size_t i = buf.dims.size() - 1; i-- > 0;) {
      buf.strides[i] = stride;
      stride = stride * buf.dims[i] + plane_pad;
    }
    buf.size = std::max(buf.size, stride);
    if (random.OneIn(30)) buf.strides.resize(random.Between(0, 6), 4);
  }

  if (random.OneIn(12)) buf.size += random.Between(1, 70);
  if (random.OneIn(100) && buf.size > 0) buf.size -= 1;
  if (random.OneIn(40)) buf.line_stride = random.Between(0, 24);
  if (random.OneIn(40)) buf.plane_stride = random.Between(0, 60);
  if (random.OneIn(60)) buf.strided = random.OneIn(2);
  if (random.OneIn(60)) buf.interleaved = random.OneIn(2);
  return buf;
}

}  // namespace vek_test
