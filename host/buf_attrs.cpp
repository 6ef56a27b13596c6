#include "host/buf_attrs.h"

#include <utility>

namespace vek_host {

BufAttrs::BufAttrs(std::vector<unsigned int> dims, const zeb::PuxDnnBufAttrsMemFormat& format)
    : dims_(std::move(dims)),
      format_(format),
      line_stride_(static_cast<unsigned int>(RowBytes())),
      plane_stride_(GetHeight() * line_stride_) {}

unsigned int BufAttrs::GetBatch() const {
  unsigned int batch = 1;
  for (std::size_t i = 0; i + 3 < dims_.size(); ++i) batch *= dims_[i];
  return batch;
}

// The entries of N x C x H x W are, from the innermost one outwards:
//
//     W: line_stride                 a row, its padding included
//     H: H * line_stride             the rows of a plane
//     C: C * H * line_stride + the padding of one plane
//     N: N * the entry of C
//
// The plug-in copies dimension by dimension, the innermost one as a run. After each step of a dimension it
// passes over that dimension's padding, which is its entry less its extent times the next entry: for C that
// is the padding of a plane, for the others 0.
std::vector<unsigned int> BufAttrs::GetStrides() const {
  constexpr std::size_t kChannels = 2;  // dimensions from the innermost one
  std::vector<unsigned int> strides(dims_.size());
  unsigned int stride = line_stride_;
  for (std::size_t i = 0; i < dims_.size(); ++i) {
    if (i > 0) stride *= FromInnermost(i);
    if (i == kChannels) stride += plane_stride_ - GetHeight() * line_stride_;
    strides[dims_.size() - 1 - i] = stride;
  }
  return strides;
}

bool BufAttrs::IsStrided() const {
  return line_stride_ > RowBytes() || plane_stride_ > std::uint64_t{GetHeight()} * line_stride_;
}

std::uint64_t BufAttrs::RowBytes() const {
  return std::uint64_t{GetWidth()} * static_cast<unsigned int>(format_.plane_pack) * ElementBytes();
}

unsigned int BufAttrs::PlanesPerItem() const {
  const auto pack = static_cast<unsigned int>(format_.plane_pack);
  return GetChannels() / pack + (GetChannels() % pack != 0 ? 1 : 0);
}

std::uint64_t BufAttrs::Bytes() const { return std::uint64_t{GetBatch()} * PlanesPerItem() * plane_stride_; }

}  // namespace vek_host
