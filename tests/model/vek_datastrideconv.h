// DATA_STRIDE_CONV, and the converter between layouts, which PERMUTE calls too.
#pragma once

#include "model/model.h"

namespace vek_model {

// A tensor that is being converted.
struct Source {
  Memory& data;
  u64 bytes;
  const Buf& buf;
};
using Target = Source;

// Equal interleaving, into four dims: rows of whole lines.
void CopyRows(const Source& src, const Target& dst);
// Equal interleaving, any dims, by the strides of every dim.
void CopyDims(const Source& src, const Target& dst);
// Elements of `width` bytes.
void ChangeInterleaving(u32 width, const Source& src, const Target& dst);

// The whole conversion: the text of its refusal, empty for none.
std::string ConvertStride(const Source& src, const Target& dst);

std::unique_ptr<Model> MakeDataStrideConv();

}  // namespace vek_model
