// The kernel of "GATHER" and what it asks of a list of dims.
#include <algorithm>

#include "contract/checks.h"
#include "contract/sizes.h"
#include "copy/runs.h"
#include "custom_ops/vek_gather.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::AsUnsigned;

unsigned getNumberOfElements(const std::vector<unsigned>& dims) { return detail::Elements32(dims); }

unsigned getNumberOfElements(const std::vector<unsigned>& dims, unsigned first, unsigned last) {
  if (first > last) {
    VEK_LOG_ERROR("fisrt_axis > last_axis (%u > %u)", first, last);
    return 0;
  }
  if (last > dims.size()) {
    VEK_LOG_ERROR("last_axis bigger than num of dims (%u > %u)", last, AsUnsigned(dims.size()));
    return 0;
  }
  unsigned count = 1;
  for (unsigned d = first; d < last; ++d) count *= dims[d];
  return count;
}

unsigned getNumberOfDimensions(const std::vector<unsigned>& dims) { return AsUnsigned(dims.size()); }

unsigned getSizeOfDimension(const std::vector<unsigned>& dims, unsigned index) {
  if (index > dims.size()) {
    VEK_LOG_ERROR("dims index (%u) is out of dims range (%u)", index, AsUnsigned(dims.size()));
    return 0;
  }
  // Deliberate: the number of dims itself passes the check; the entry that is not there counts as 0.
  return index == dims.size() ? 0 : dims[index];
}

namespace {

// Slices of `inner` elements, `count` of them for each outer position, gathered along an axis of `extent` slices.
// Positions are 64-bit: none within the capacity wraps.
template <typename T>
struct Slices {
  const T* params;
  const std::uint32_t* indices;
  T* out;
  std::uint64_t extent;
  std::uint64_t inner;
  std::uint64_t count;

  // Copies the first `slices` slices in the order of the output.
  void Copy(std::uint64_t slices) const {
    const std::uint64_t whole = slices / count;
    switch (inner * sizeof(T)) {
      case 1:
        return CopyWords<std::uint8_t>(whole, slices % count);
      case 2:
        return CopyWords<std::uint16_t>(whole, slices % count);
      case 4:
        return CopyWords<std::uint32_t>(whole, slices % count);
      case 8:
        return CopyWords<std::uint64_t>(whole, slices % count);
      default:
        for (std::uint64_t o = 0; o < whole; ++o) CopyOne(o, count);
        return CopyOne(whole, slices % count);
    }
  }

 private:
  const std::byte* Source(std::uint64_t o) const {
    return reinterpret_cast<const std::byte*>(params + o * extent * inner);
  }
  std::byte* Target(std::uint64_t o) const { return reinterpret_cast<std::byte*>(out + o * count * inner); }

  void CopyOne(std::uint64_t o, std::uint64_t slices) const {
    detail::GatherRows(Target(o), Source(o), indices, slices, inner * sizeof(T));
  }

  // Slices that fit a register: each index is read once for several outer positions.
  template <typename W>
  void CopyWords(std::uint64_t whole, std::uint64_t rest) const {
    std::uint64_t o = 0;
    for (; o + 8 <= whole; o += 8) CopyColumns<W, 8>(o, count);
    for (; o < whole; ++o) CopyColumns<W, 1>(o, count);
    CopyColumns<W, 1>(o, rest);
  }
  template <typename W, std::size_t rows>
  void CopyColumns(std::uint64_t o, std::uint64_t slices) const {
    const std::byte* from[rows];
    std::byte* to[rows];
    for (std::size_t i = 0; i < rows; ++i) {
      from[i] = Source(o + i);
      to[i] = Target(o + i);
    }
    for (std::size_t j = 0; j < slices; ++j) {
      const std::size_t index = indices[j];
      W word[rows];
      for (std::size_t i = 0; i < rows; ++i) word[i] = detail::Load<W>(from[i] + index * sizeof(W));
      for (std::size_t i = 0; i < rows; ++i) detail::Store(to[i] + j * sizeof(W), word[i]);
    }
  }
};

}  // namespace

template <typename T>
bool Gather_v1(const T* params, const std::vector<unsigned>& params_dims, const std::uint32_t* indices,
               const std::vector<unsigned>& indices_dims, unsigned axis, T* out, unsigned out_count) {
  VEK_REQUIRE(params != nullptr, "Gather_v1 params buffer is null");
  VEK_REQUIRE(indices != nullptr, "Gather_v1 indices buffer is null");
  VEK_REQUIRE(out != nullptr, "Gather_v1 output buffer is null");

  const unsigned outer = getNumberOfElements(params_dims, 0, axis);
  const unsigned extent = getSizeOfDimension(params_dims, axis);
  const unsigned inner = getNumberOfElements(params_dims, axis + 1, getNumberOfDimensions(params_dims));
  const unsigned count = getNumberOfElements(indices_dims);
  if (outer == 0 || count == 0) return true;

  // Slices are numbered o * count + j and written in this order until one is refused: the first whose index
  // lies outside the axis, or the first that would end beyond the capacity. Every outer position uses the
  // same indices, so a bad one stops the first position already, and looking once at those that can be
  // reached tells where.
  const std::uint64_t slices = std::uint64_t{outer} * count;
  const std::uint64_t slices_fitting = inner == 0 ? slices : out_count / inner;
  const std::uint32_t* end = indices + std::min<std::uint64_t>(count, slices_fitting + 1);
  const std::uint32_t* bad =
      std::find_if(indices, end, [extent](std::uint32_t index) { return index >= extent; });
  const bool all_indices_good = bad == end;
  const std::uint64_t slices_asked = all_indices_good ? slices : static_cast<std::uint64_t>(bad - indices);
  const std::uint64_t slices_written = std::min(slices_asked, slices_fitting);

  if (inner != 0) Slices<T>{params, indices, out, extent, inner, count}.Copy(slices_written);

  VEK_REQUIRE(slices_fitting >= slices_asked, "Operation broken (avoiding memory corruption)");
  VEK_REQUIRE(all_indices_good, "Operation broken (in_idx >= axis Size, %d, %d)", AsInt(*bad), AsInt(extent));
  return true;
}

template bool Gather_v1<float>(const float*, const std::vector<unsigned>&, const std::uint32_t*,
                               const std::vector<unsigned>&, unsigned, float*, unsigned);
template bool Gather_v1<unsigned short>(const unsigned short*, const std::vector<unsigned>&,
                                        const std::uint32_t*, const std::vector<unsigned>&, unsigned,
                                        unsigned short*, unsigned);
template bool Gather_v1<unsigned char>(const unsigned char*, const std::vector<unsigned>&,
                                       const std::uint32_t*, const std::vector<unsigned>&, unsigned,
                                       unsigned char*, unsigned);

}  // namespace zeb_custom_ops
