/// \file
/// Layer type "GATHER".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Selects slices of a tensor ("params") along one axis by a list of indices:
///
///     out[outer, j, inner] = params[outer, indices[j], inner]
///
/// - Formats: 32-bit float, 16-bit and 8-bit elements, planar and unpadded, the same width on both sides; bit
///   patterns are moved. Indices are read as unsigned 32-bit integers, whatever their format says.
/// - Attributes: "axis", 0 to 3, counted from the outermost dim of params; without it 0.
/// - Buffers: params and indices (of any shape, read as one flat list); one output, which must not overlap
/// them.
/// - Refused in `Configure`: an axis beyond the dims of params, short buffers, different bit depths, padding,
///   interleaving. Refused in `Execute`: 32-bit integers, a null data pointer, an index outside the axis, an
///   output with too few elements; the slices before the refused one are written.
/// - Scratch: none.
class ZEB_EXPORT VekGather : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  static const std::string k_expected_attr_;  ///< "axis"

 protected:
  int axis_ = 0;
  BufAttrsList in_attrs_;  ///< params, indices
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  bool configured_ = false;
};

/// The kernel of "GATHER". Instances: `float`, `unsigned short`, `unsigned char`.
///
/// \param params        params data, dense.
/// \param params_dims   its dims, outermost first.
/// \param indices       indices along the axis.
/// \param indices_dims  the shape of the list of indices; only the product counts.
/// \param axis          position in `params_dims`.
/// \param out           output data, written slice by slice; must not overlap the others.
/// \param out_count     capacity of `out` in elements.
/// \return false, after an ERROR line, for a null buffer, an index that is not below the axis' extent, or a
/// slice that would end beyond `out_count`; the slices before it stay written. True at once where an extent
/// before the axis is 0.
template <typename T>
ZEB_EXPORT bool Gather_v1(const T* params, const std::vector<unsigned>& params_dims,
                          const std::uint32_t* indices, const std::vector<unsigned>& indices_dims,
                          unsigned axis, T* out, unsigned out_count);

extern template bool Gather_v1<float>(const float*, const std::vector<unsigned>&, const std::uint32_t*,
                                      const std::vector<unsigned>&, unsigned, float*, unsigned);
extern template bool Gather_v1<unsigned short>(const unsigned short*, const std::vector<unsigned>&,
                                               const std::uint32_t*, const std::vector<unsigned>&, unsigned,
                                               unsigned short*, unsigned);
extern template bool Gather_v1<unsigned char>(const unsigned char*, const std::vector<unsigned>&,
                                              const std::uint32_t*, const std::vector<unsigned>&, unsigned,
                                              unsigned char*, unsigned);

/// \return the product of all dims, in 32 bits; 1 for none.
ZEB_EXPORT unsigned getNumberOfElements(const std::vector<unsigned>& dims);

/// \return the product of the dims from `first` up to, not including, `last`, in 32 bits; 1 for none; 0,
/// after an ERROR line, where `first` is above `last` or `last` above the number of dims.
ZEB_EXPORT unsigned getNumberOfElements(const std::vector<unsigned>& dims, unsigned first, unsigned last);

/// \return the number of dims.
ZEB_EXPORT unsigned getNumberOfDimensions(const std::vector<unsigned>& dims);

/// \return the dim at `index`; 0 where `index` equals the number of dims; 0, after an ERROR line, above it.
ZEB_EXPORT unsigned getSizeOfDimension(const std::vector<unsigned>& dims, unsigned index);

}  // namespace zeb_custom_ops
