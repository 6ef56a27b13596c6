/// \file
/// Moves a tensor between dense order (outermost dimension first, no gaps) and the layout that a description
/// gives.
#pragma once

#include <cstddef>

#include "host/buf_attrs.h"

namespace vek_host {

/// Lays dense elements out as described. Padding and the unused slots of a last, partly filled group of
/// channels stay as they are.
///
/// \param attrs   the layout; its rows and planes must fit their strides.
/// \param dense   as many elements as the dims say, of `ElementBytes` bytes each.
/// \param buffer  out: `attrs.Bytes()` bytes.
void Pack(const BufAttrs& attrs, const std::byte* dense, std::byte* buffer);

/// The other way round.
void Unpack(const BufAttrs& attrs, const std::byte* buffer, std::byte* dense);

/// \return the rows of all channels of all batch items, N * C * H.
std::size_t Rows(const BufAttrs& attrs);

/// Unpacks only some rows, as they follow one another in dense order.
///
/// \param first  the first of the rows, counted over all channels of all batch items.
/// \param count  how many; first + count is at most `Rows(attrs)`.
/// \param dense  out: the elements of these rows.
void UnpackRows(const BufAttrs& attrs, const std::byte* buffer, std::size_t first, std::size_t count,
                std::byte* dense);

}  // namespace vek_host
