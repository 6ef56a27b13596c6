/// \file
/// Layer type "DATA_STRIDE_CONV", and the converter between memory layouts that other layers use too.
#pragma once

#include <memory>
#include <vector>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Copies a tensor into another memory layout: other padding of rows and planes, or another interleaving of
/// channels. Elements keep their bits.
///
///     out[n, c, h, w] = in[n, c, h, w]
///
/// - Formats: any, the same bit depth, `float` and `q8a` on both sides. A change of interleaving takes floats
///   and 8 or 16-bit elements.
/// - Ranks: any for planar tensors; interleaved ones need four dims, and so does the source of a change of
///   interleaving.
/// - Attributes: none; the map is not read.
/// - Buffers: one input, one output. The same buffer may serve as both where the two layouts are equal.
/// - Refused in `Configure`: unequal formats, interleaved tensors of another rank than four, short buffers.
///   Refused in `Execute`: what `convertStride` refuses.
/// - Scratch: none.
class ZEB_EXPORT VekDataStrideConv : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

 protected:
  bool configured_ = false;
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
};

/// Copies a tensor from one memory layout to another. Layouts with
///
/// - equal line and plane strides and equal interleaving: `src_bytes` bytes are copied as they are;
/// - equal interleaving, at least three source dims and exactly four target dims: row by row. A row is the
///   whole line stride, so that its padding is data: a wider target row gets the source's padding and then
///   zeros, for the rows that the target's dims count; a narrower one drops the end of the source row, for the
///   rows that the source's dims count;
/// - equal interleaving, other ranks: `copy_dimension` over the target's dims, rows and padding taken from
///   `GetStrides`. Where an extent in front of the innermost is 0, no strides are needed from there on;
/// - different interleaving: `copy`.
///
/// All but the first set every byte of the target that no element reaches to 0, as far as `dst_bytes` says.
///
/// \param src        source data; must not overlap `dst`, unless it is `dst` and the layouts are equal.
/// \param src_bytes  bytes to copy where the layouts are equal; not looked at otherwise.
/// \param src_attrs  the source's layout.
/// \param dst        target data.
/// \param dst_bytes  bytes to fill with zeros. Neither count is checked against what the layouts reach.
/// \param dst_attrs  the target's layout.
/// \return false, after an ERROR line and before anything is written, for formats that differ in `float` or
/// bit depth, dims or strides that are too few for the copy, or a bit depth for which interleaving cannot
/// change; also for a plane pack below 1 where rows are copied or the interleaving changes, unless there are
/// none or nothing to move. True otherwise. Zero extents copy nothing.
ZEB_EXPORT bool convertStride(const signed char* src, unsigned int src_bytes,
                              const zeb::PuxDnnBufAttrs& src_attrs, signed char* dst, unsigned int dst_bytes,
                              const zeb::PuxDnnBufAttrs& dst_attrs);

/// Copies dimension `dim` and those inside it. The innermost one is a single run: `in_pads.back()` bytes, cut
/// or filled up with zeros to `out_pads.back()`. Every other one is repeated `dims[dim]` times, and after
/// each time both offsets step over its padding.
///
/// \param dim       the dimension, 0 for the outermost.
/// \param dims      extents, outermost first; at least one.
/// \param src       source data; must not overlap `dst`.
/// \param in_pads   bytes of padding behind each dimension in the source, and the length of a run as the last
///                  entry; at least one entry, and one for each dimension but the innermost.
/// \param in_off    in/out: offset into `src` in bytes; wraps at 32 bits.
/// \param dst       target data; what is padding stays untouched.
/// \param out_pads  as `in_pads`, for the target.
/// \param out_off   in/out: offset into `dst` in bytes; wraps at 32 bits.
ZEB_EXPORT void copy_dimension(unsigned int dim, std::vector<unsigned int> dims, const signed char* src,
                               std::vector<unsigned int> in_pads, unsigned int& in_off, signed char* dst,
                               std::vector<unsigned int> out_pads, unsigned int& out_off);

/// Changes the interleaving of data: fills the target with zeros, then moves every element of the source's
/// four-dimensional shape. Instances: `float`, `short`, `signed char`, by the width of the elements.
///
/// Strides are the descriptions' bytes divided by the bytes of an element, `bitdepth / 8`; a plane stride of
/// 0 stands for dense planes.
///
/// \param src        source data; must not overlap `dst`.
/// \param src_bytes  not looked at.
/// \param src_attrs  the source's layout; four dims, plane pack at least 1 unless an extent is 0.
/// \param dst        target data.
/// \param dst_bytes  bytes to fill with zeros.
/// \param dst_attrs  the target's layout; plane pack as for the source. Of its dims only the second is looked
///                   at, the channels, and where the plane stride is 0 the third, the rows.
template <typename T>
ZEB_EXPORT void copy(const signed char* src, unsigned int src_bytes, const zeb::PuxDnnBufAttrs& src_attrs,
                     signed char* dst, unsigned int dst_bytes, const zeb::PuxDnnBufAttrs& dst_attrs);

extern template void copy<short>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&, signed char*,
                                 unsigned int, const zeb::PuxDnnBufAttrs&);
extern template void copy<signed char>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&,
                                       signed char*, unsigned int, const zeb::PuxDnnBufAttrs&);
extern template void copy<float>(const signed char*, unsigned int, const zeb::PuxDnnBufAttrs&, signed char*,
                                 unsigned int, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
