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

// The last entry is the length of one row; each other entry is what all its inner runs take together. Who
// walks dimension by dimension finds padding as the excess of an entry over its extent times the next one,
// and passes over it after every step of that dimension. Rows carry theirs in their own length, so the
// padding of a plane belongs to the dimension outside H.
std::vector<unsigned int> BufAttrs::GetStrides() const {
  std::vector<unsigned int> strides(dims_.size());
  unsigned int run = line_stride_;
  for (std::size_t position = 0; position < dims_.size(); ++position) {
    if (position > 0) run *= FromInnermost(position);
    if (position == 2) run += plane_stride_ - GetHeight() * line_stride_;
    strides[dims_.size() - 1 - position] = run;
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
