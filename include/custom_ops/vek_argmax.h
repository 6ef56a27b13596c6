/// \file
/// Layer type "ARGMAX".
#pragma once

#include <memory>
#include <string>

#include "zeb/export.h"
#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace zeb_custom_ops {

/// Positions, or values, of the largest elements of a float tensor along one axis.
///
///     out[.., r, ..] = float(the index k whose value in[.., k, ..] has rank r)     for r below top_k
///
/// - Formats: 32-bit float, planar, unpadded; N, C, H and W are what the accessors say. The output is dense.
/// - Attributes: exactly one per `Configure`, the others stay as they are: "axis", 0 to 3 for N, C, H, W
///   (0 on a new layer); "top_k", how many to find (1); "out_max_val", 1 to write values, any other number to
///   write indices (indices).
/// - Buffers: one input, one output; they must not overlap.
/// - Refused in `Configure`: other buffer counts, any other format, padding, a short buffer, not exactly one
///   attribute, an axis beyond the dims. Refused in `Execute`: null data, an output without room for all
///   results, an axis beyond 3.
/// - Scratch: the lists of a `top_k` other than 1; on the stack unless they are long.
class ZEB_EXPORT VekArgmax : public zeb::PuxDnnCustomLayer {
 public:
  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

  /// The kernel: dense N x C x H x W floats; the results of one search follow each other, the searches run
  /// through the other axes in memory order. With N > 1 the results for the axes C, H and W are written N
  /// times over, and the searches along C start at each of the first N * H * W elements.
  ///
  /// The largest value of a search is the last one that nothing exceeds: of equal values the highest index
  /// wins, and a NaN only counts at index 0. Other values of `top_k` rank the pairs of value and index in
  /// descending order by a heap of the first `top_k` pairs; there a NaN neither exceeds nor is exceeded.
  ///
  /// Where there is no axis (`has_axis_` is false) each batch item is one search, and with `out_max_val_` set
  /// each index is followed by its value.
  ///
  /// \param in         the shape, read through `GetBatch` to `GetWidth`.
  /// \param in_data    input data.
  /// \param in_count   elements of `in_data`.
  /// \param out_data   output data.
  /// \param out_count  elements of `out_data`.
  /// \return false, after an ERROR line, for a null buffer, an axis beyond 3 or short data; true otherwise.
  /// A search finds no more than the axis holds. Along an axis of extent 0 nothing is read: a search of one
  /// value finds the value 0 at index 0, any other finds nothing.
  bool Argmax_v1(const zeb::PuxDnnBufAttrs& in, float* in_data, unsigned int in_count, float* out_data,
                 unsigned int out_count);

  static const std::string k_expected_attr_axis_;         ///< "axis"
  static const std::string k_expected_attr_top_k_;        ///< "top_k"
  static const std::string k_expected_attr_out_max_val_;  ///< "out_max_val"

 protected:
  bool configured_ = false;
  std::unique_ptr<zeb::PuxDnnBufAttrs> in_attrs_;
  std::unique_ptr<zeb::PuxDnnBufAttrs> out_attrs_;
  int axis_ = 0;              ///< 0 = N, 1 = C, 2 = H, 3 = W
  bool has_axis_ = true;      ///< search along `axis_`, else through whole batch items
  unsigned top_k_ = 1;        ///< results per search
  bool out_max_val_ = false;  ///< write values instead of indices; without an axis, next to them
};

}  // namespace zeb_custom_ops
