/// \file
/// A host's description of one tensor buffer: any rank, element format, plane pack and padding.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "host/reserved_slots.h"

namespace vek_host {

/// Describes a buffer by its dims, its format and its two strides; everything else follows from them.
///
/// The four accessors `GetBatch` to `GetWidth` look at the dims from the innermost one outwards: W is the
/// last, H the one before it, then C; what is missing counts as 1, and all dims before C are multiplied into
/// N. So rows are rows at any rank, and the product of the four is always the number of elements.
///
/// The size follows the strides: `SetLineStride`, `SetPlaneStride` and `SetPlanePack` describe another layout
/// of the same tensor, and `GetSize` is what that layout takes.
class BufAttrs final : public ReservedSlots {
 public:
  /// Describes a dense buffer: rows of W * `plane_pack` elements, planes of H rows, no padding.
  BufAttrs(std::vector<unsigned int> dims, const zeb::PuxDnnBufAttrsMemFormat& format);

  std::unique_ptr<PuxDnnBufAttrs> Clone() const override { return std::make_unique<BufAttrs>(*this); }
  std::uint32_t GetSize() const override { return static_cast<std::uint32_t>(Bytes()); }
  std::vector<unsigned int> GetDims() const override { return dims_; }
  unsigned int GetNumDims() const override { return static_cast<unsigned int>(dims_.size()); }
  std::vector<unsigned int> GetStrides() const override;
  const zeb::PuxDnnBufAttrsMemFormat& GetMemFormat() const override { return format_; }
  void SetPlanePack(std::int32_t channels) override { format_.plane_pack = channels; }
  unsigned int GetBatch() const override;
  unsigned int GetChannels() const override { return FromInnermost(2); }
  unsigned int GetHeight() const override { return FromInnermost(1); }
  unsigned int GetWidth() const override { return FromInnermost(0); }
  unsigned int GetLineStride() const override { return line_stride_; }
  unsigned int GetPlaneStride() const override { return plane_stride_; }
  void SetLineStride(unsigned int bytes) override { line_stride_ = bytes; }
  void SetPlaneStride(unsigned int bytes) override { plane_stride_ = bytes; }
  bool IsStrided() const override;
  bool IsInterleaved() const override { return format_.plane_pack > 1; }

  /// \return the bytes of one element.
  unsigned int ElementBytes() const { return static_cast<unsigned int>(format_.bitdepth) / 8; }
  /// \return the bytes of one row without its padding.
  std::uint64_t RowBytes() const;
  /// \return the planes of one batch item, ceil(C / `plane_pack`).
  unsigned int PlanesPerItem() const;
  /// \return the bytes of the whole buffer, which `GetSize` can only tell below 4 GiB.
  std::uint64_t Bytes() const;

 private:
  unsigned int FromInnermost(std::size_t position) const {
    return position < dims_.size() ? dims_[dims_.size() - 1 - position] : 1;
  }

  std::vector<unsigned int> dims_;
  zeb::PuxDnnBufAttrsMemFormat format_;
  unsigned int line_stride_;   // bytes
  unsigned int plane_stride_;  // bytes
};

}  // namespace vek_host
