#include "model/vek_datastrideconv.h"

#include <cmath>

namespace vek_model {
namespace {

// What `times` parts leave of the whole.
u32 Rest(u32 whole, u32 times, u32 part) {
  const u64 used = u64{part} * times;
  return whole > used ? static_cast<u32>(whole - used) : 0;
}

// The padding behind each dim, then the length of a run.
Dims PadsOf(const Dims& dims, const Dims& strides, std::size_t count) {
  Dims pads;
  for (std::size_t i = 0; i + 1 < count; ++i) pads.push_back(Rest(strides[i], dims[i], strides[i + 1]));
  pads.push_back(strides[count - 1]);
  return pads;
}

struct Run {
  Memory& data;
  Dims pads;
  u32 offset = 0;
};

void CopyDim(std::size_t dim, const Dims& dims, Run& in, Run& out) {
  out.data.Step();
  if (dim + 1 >= dims.size()) {
    const u32 from = in.pads.back();
    const u32 to = out.pads.back();
    out.data.CopyFrom(out.offset, in.data, in.offset, std::min(from, to));
    if (from < to) out.data.Zero(u64{out.offset} + from, to - from);
    out.offset += to;
    in.offset += from;
    return;
  }
  for (u32 i = 0; i < dims[dim]; ++i) {
    CopyDim(dim + 1, dims, in, out);
    in.offset += in.pads[dim];
    out.offset += out.pads[dim];
  }
}

// Whether strides and dims suffice to make the lists of paddings.
bool HasPads(const Buf& s, const Buf& d) {
  const std::size_t count = s.strides.size();
  return count != 0 && d.strides.size() >= count && s.dims.size() + 1 >= count && d.dims.size() + 1 >= count;
}

// Dims that are walked before one of no extent ends the walk.
std::size_t DimsWalked(const Dims& dims) {
  std::size_t walked = 0;
  while (walked + 1 < dims.size() && dims[walked] != 0) ++walked;
  return walked;
}

// One side of a change of interleaving, in elements.
struct Side {
  explicit Side(const Buf& buf) : pack(static_cast<u32>(buf.format.plane_pack)) {
    const u32 element_bytes = buf.format.bitdepth < 8 ? 0 : static_cast<u32>(buf.format.bitdepth) / 8;
    line = Quotient(buf.line_stride, element_bytes);
    plane = buf.plane_stride == 0 ? line * buf.dims[2] : Quotient(buf.plane_stride, element_bytes);
    batch = TruncateToUnsigned(std::ceil(static_cast<float>(buf.dims[1]) / static_cast<float>(pack))) * plane;
  }
  u32 Channel(u32 n, u32 c) const { return n * batch + c % pack + c / pack * plane; }

  u32 pack, line, plane, batch;
};

}  // namespace

void CopyRows(const Source& src, const Target& dst) {
  const Buf& s = src.buf;
  const Buf& d = dst.buf;
  const u32 sls = s.line_stride;
  const u32 dls = d.line_stride;
  const u32 src_pad = Rest(s.plane_stride, s.dims[2], sls);
  const u32 dst_pad = Rest(d.plane_stride, d.dims[2], dls);
  const bool widening = sls <= dls;
  const Dims& over = widening ? d.dims : s.dims;
  const auto pack = static_cast<u32>(d.format.plane_pack);
  dst.data.Zero(0, dst.bytes);
  u64 from = 0;
  u64 to = 0;
  for (u32 n = 0; n < over[0]; ++n) {
    dst.data.Step();
    for (u64 c = 0; c < over[1]; c += pack) {
      dst.data.Step();
      for (u32 h = 0; h < over[2]; ++h) {
        dst.data.CopyFrom(to, src.data, from, std::min(sls, dls));
        if (widening) dst.data.Zero(to + sls, dls - sls);
        from += sls;
        to += dls;
      }
      from += src_pad;
      to += dst_pad;
    }
  }
}

void CopyDims(const Source& src, const Target& dst) {
  const std::size_t count = src.buf.strides.size();
  Run in{src.data, PadsOf(src.buf.dims, src.buf.strides, count)};
  Run out{dst.data, PadsOf(dst.buf.dims, dst.buf.strides, count)};
  dst.data.Zero(0, dst.bytes);
  CopyDim(0, dst.buf.dims, in, out);
}

void ChangeInterleaving(u32 width, const Source& src, const Target& dst) {
  const Dims& dims = src.buf.dims;
  dst.data.Zero(0, dst.bytes);
  const Side s(src.buf);
  const Side d(dst.buf);
  for (u32 n = 0; n < dims[0]; ++n) {
    dst.data.Step();
    for (u32 c = 0; c < dims[1]; ++c) {
      dst.data.Step();
      if (dims[2] == 0 || dims[3] == 0) continue;
      u32 from = s.Channel(n, c);
      u32 to = d.Channel(n, c);
      for (u32 h = 0; h < dims[2]; ++h, from += s.line, to += d.line) {
        for (u32 w = 0; w < dims[3]; ++w) {
          dst.data.Move(width, u32{to + w * d.pack}, src.data, u32{from + w * s.pack});
        }
      }
    }
  }
}

std::string ConvertStride(const Source& src, const Target& dst) {
  const Buf& s = src.buf;
  const Buf& d = dst.buf;
  const Format& f = s.format;
  if (f.float_ != d.format.float_ || f.bitdepth != d.format.bitdepth) {
    return " input and output tensor formats differ.";
  }
  if (f.plane_pack != d.format.plane_pack) {
    if (!f.float_ && f.bitdepth != 8 && f.bitdepth != 16) {
      return " unsupported input memory format. Fixed point bitdepth:  " + std::to_string(f.bitdepth);
    }
    if (s.dims.size() < 4 || d.dims.size() < 2 || (d.plane_stride == 0 && d.dims.size() < 3)) return kOwnText;
    // Nothing is divided where nothing moves.
    const bool moves = s.dims[0] != 0 && s.dims[1] != 0 && s.dims[2] != 0 && s.dims[3] != 0;
    if (moves && (f.plane_pack < 1 || d.format.plane_pack < 1)) return kOwnText;
    ChangeInterleaving(f.float_ ? 4 : WidthOf(f.bitdepth), src, dst);
    return {};
  }
  if (s.line_stride == d.line_stride && s.plane_stride == d.plane_stride) {
    dst.data.CopyFrom(0, src.data, 0, src.bytes);
    return {};
  }
  if (s.dims.size() >= 3 && d.dims.size() == 4) {
    const Dims& over = s.line_stride <= d.line_stride ? d.dims : s.dims;
    if (over[0] != 0 && over[1] != 0 && over[2] != 0 && f.plane_pack < 1) return kOwnText;
    if (over[2] == 0 && f.plane_pack < 1) {
      dst.data.Zero(0, dst.bytes);
    } else {
      CopyRows(src, dst);
    }
    return {};
  }
  const std::size_t walked = DimsWalked(d.dims);
  if (d.dims.empty()) return kOwnText;
  if (!HasPads(s, d)) {
    if (walked + 1 < d.dims.size()) throw Skip{};  // lists that cannot be made, and that nobody needs
    return kOwnText;
  }
  if (walked > s.strides.size()) return kOwnText;
  CopyDims(src, dst);
  return {};
}

namespace {

class DataStrideConvModel : public Model {
 public:
  DataStrideConvModel() : Model("vek_datastrideconv.cpp") {}
  bool RunsInPlace(std::size_t) const override {
    return in_.format.plane_pack == out_.format.plane_pack && in_.line_stride == out_.line_stride &&
           in_.plane_stride == out_.plane_stride;
  }

  bool Configure(const AttrMap&, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!CountsAreOne(in, out)) return false;
    const Format& a = in[0].format;
    const Format& b = out[0].format;
    if (a.bitdepth != b.bitdepth || a.q8a != b.q8a || a.float_ != b.float_) {
      return Fail("format conversion is not supported by custom layer.");
    }
    if (!IsPlanarOr4D("input", in[0]) || !IsPlanarOr4D("output", out[0])) return false;
    if (!HasBytes("input buffer", in[0]) || !HasBytes("output buffer", out[0])) return false;
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("datastrideconv custom layer not configured.");
    if (!ArraysGiven(arrays, "in_buffers is NULL.", "out_buffers is NULL.")) return false;
    if (!arrays.in[0] || !arrays.out[0]) throw Skip{};  // nothing is said of it
    const std::string refusal =
        ConvertStride({*arrays.in[0], in_.size, in_}, {*arrays.out[0], out_.size, out_});
    return refusal.empty() || Fail("%s", refusal.c_str());
  }

 private:
  bool IsPlanarOr4D(const char* side, const Buf& buf) {
    return buf.dims.size() == 4 || !buf.IsInterleaved() ||
           Fail(
               "custom layer does not support %s tensor other than 4D (when data is interleaved), received: "
               "%dD.",
               side, D(buf.dims.size()));
  }

  Buf in_;
  Buf out_;
};

}  // namespace

std::unique_ptr<Model> MakeDataStrideConv() { return std::make_unique<DataStrideConvModel>(); }

}  // namespace vek_model
