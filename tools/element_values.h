/// \file
/// The elements of a tensor as numbers, wherever they lie: reading, writing, printing.
///
/// `Number` is `double`, which holds every element of at most 32 bits and every float exactly, or `long double`, which
/// also holds those of 64 bits (64 bits of precision on x86-64, 113 on 64-bit Arm).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "element_type.h"
#include "host/buf_attrs.h"
#include "tensor_file.h"

namespace vekrun {

/// A tensor that lies in memory as a description says.
struct LaidOut {
  std::string name;  ///< what the user calls it
  ElementType type;
  vek_host::BufAttrs attrs;  ///< shape, layout, fixed-point format; its element width is that of `type`
  const std::byte* memory;
  std::size_t bytes;  ///< of the memory; those of the description, or more
};

/// \return the tensor as it is stored: dense, but for raw files. It lives as long as the stored one.
LaidOut View(const StoredTensor& stored);

/// Where elements lie: the byte offset of the element with the index i is the sum of table[d][i[d]] over all dimensions.
using OffsetTable = std::vector<std::vector<std::size_t>>;

/// \return the offsets that the description's layout gives.
OffsetTable Offsets(const vek_host::BufAttrs& attrs);

/// \return whether `double` holds every element of the type exactly.
bool FitsDouble(ElementType type);

/// \return the element at that address, which need not be aligned.
template <typename Number>
Number ReadElement(ElementType type, const std::byte* address);

/// \return the units in the last place between two elements of a float type, or the distance of two integers;
/// NaN is as far from everything as can be.
double UlpDistance(ElementType type, const std::byte* a, const std::byte* b);

enum class Rounding {
  kNearest,     ///< to the nearest element, of two the even one
  kTowardZero,  ///< integers: the fraction goes. Floats as with kNearest
};

/// How an element holds a number.
enum class Fit {
  kExact,    ///< NaN in a float included
  kRounded,  ///< as asked for
  kBeyond,   ///< it does not: the element is the nearest end of the type's range, or 0 for NaN
};

/// Stores the number as an element of that type at that address, which need not be aligned.
template <typename Number>
Fit WriteElement(ElementType type, Number value, Rounding rounding, std::byte* address);

/// \return what the stored value stands for: value * 2^exp, or (value - zero point) * scale. Floats stand for themselves.
template <typename Number>
Number Real(const zeb::PuxDnnBufAttrsMemFormat& format, Number stored);

/// \return the shortest text that reads back as the same element.
std::string ElementText(ElementType type, const std::byte* address);
/// \return the number with at most six digits, for reports.
std::string NumberText(double number);

/// \return "[0,17,4,55]".
std::string IndexText(const std::vector<unsigned int>& index);

/// Calls visit(index, a_offset, b_offset) for each element of two tensors of one shape, in dense order, until it returns
/// false.
/// \return false where it did.
template <typename Visit>
bool ForEachPair(const OffsetTable& a, const OffsetTable& b, Visit visit) {
  std::vector<unsigned int> index(a.size(), 0);
  if (a.empty()) return visit(index, std::size_t{0}, std::size_t{0});
  for (const std::vector<std::size_t>& table : a) {
    if (table.empty()) return true;
  }
  while (true) {
    std::size_t a_row = 0;
    std::size_t b_row = 0;
    for (std::size_t d = 0; d + 1 < a.size(); ++d) {
      a_row += a[d][index[d]];
      b_row += b[d][index[d]];
    }
    for (unsigned int& last = index.back(); last < a.back().size(); ++last) {
      if (!visit(index, a_row + a.back()[last], b_row + b.back()[last])) return false;
    }
    index.back() = 0;
    std::size_t d = a.size() - 1;
    while (d > 0 && ++index[d - 1] == a[d - 1].size()) index[--d] = 0;
    if (d == 0) return true;
  }
}

/// Calls visit(index, offset) for each element, in dense order.
template <typename Visit>
void ForEachElement(const OffsetTable& offsets, Visit visit) {
  ForEachPair(offsets, offsets, [&visit](const auto& index, std::size_t offset, std::size_t) {
    visit(index, offset);
    return true;
  });
}

}  // namespace vekrun
