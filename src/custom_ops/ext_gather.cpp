// The kernel of "GATHER" and what it asks of a list of dims.
#include "contract/checks.h"
#include "contract/sizes.h"
#include "custom_ops/vek_gather.h"
#include "kernels/gather.h"

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

  const kernels::GatherStop stop =
      kernels::Gather(out, params, indices, {outer, extent, inner, count, out_count});
  using Reason = kernels::GatherStop::Reason;
  VEK_REQUIRE(stop.reason != Reason::kCapacity, "Operation broken (avoiding memory corruption)");
  VEK_REQUIRE(stop.reason != Reason::kIndex, "Operation broken (in_idx >= axis Size, %d, %d)",
              AsInt(stop.index), AsInt(extent));
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
