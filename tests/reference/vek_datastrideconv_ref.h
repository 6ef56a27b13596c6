// The converter between memory layouts by its formulas, one byte or element at a time.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "support/fake_buf_attrs.h"

namespace vek_test::reference {

// A buffer of any length that notes how far it was read or written. Bytes that nobody wrote hold a pattern.
class Bytes {
 public:
  static constexpr std::uint64_t kMost = 1U << 16;  // what a test's buffer holds at most

  explicit Bytes(std::uint64_t seed) : seed_(seed) {}

  std::uint8_t Get(std::uint64_t at) {
    Reach(at + 1);
    return at < bytes_.size() ? bytes_[at] : 0;
  }
  void Set(std::uint64_t at, std::uint8_t value) {
    Reach(at + 1);
    if (at < bytes_.size()) bytes_[at] = value;
  }
  void Zero(std::uint64_t at, std::uint64_t count) {
    if (!Takes(count)) return;
    for (std::uint64_t i = 0; i < count; ++i) Set(at + i, 0);
  }
  // Notes that `count` is to be walked; false when that is more than a test takes.
  bool Takes(std::uint64_t count) {
    if (count > kMost) reach_ = kMost + 1;
    return count <= kMost;
  }

  std::uint64_t reach() const { return reach_; }
  bool InTest() const { return reach_ <= kMost; }
  // The first `count` bytes.
  std::vector<std::uint8_t> Front(std::uint64_t count) {
    Grow(count);
    return {bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(count)};
  }

 private:
  void Reach(std::uint64_t end) {
    if (end > reach_) reach_ = end;
    if (end <= kMost) Grow(end);
  }
  void Grow(std::uint64_t count) {
    while (bytes_.size() < count) {
      const std::uint64_t mixed = (seed_ + bytes_.size() + 1) * 0x9E3779B97F4A7C15U;
      bytes_.push_back(static_cast<std::uint8_t>(mixed >> 56));
    }
  }
  std::uint64_t seed_;
  std::uint64_t reach_ = 0;
  std::vector<std::uint8_t> bytes_;
};

// A refusal whose text is the library's own.
inline const std::string kOwnText = "(a text of its own)";

inline void CopyBytes(Bytes& src, std::uint64_t from, Bytes& dst, std::uint64_t to, std::uint64_t count) {
  if (!src.Takes(count)) return;
  for (std::uint64_t i = 0; i < count; ++i) dst.Set(to + i, src.Get(from + i));
}

inline std::uint64_t NotNegative(std::int64_t value) {
  return value > 0 ? static_cast<std::uint64_t>(value) : 0;
}

inline void CopyRows(Bytes& src, const Buf& s, Bytes& dst, std::uint32_t dst_bytes, const Buf& d) {
  const std::uint64_t sls = s.line_stride;
  const std::uint64_t dls = d.line_stride;
  const std::uint64_t src_pad =
      NotNegative(std::int64_t{s.plane_stride} - static_cast<std::int64_t>(sls * s.dims[2]));
  const std::uint64_t dst_pad =
      NotNegative(std::int64_t{d.plane_stride} - static_cast<std::int64_t>(dls * d.dims[2]));
  dst.Zero(0, dst_bytes);

  const bool widen = sls <= dls;
  const std::vector<unsigned>& dims = widen ? d.dims : s.dims;
  if (dims[2] == 0) return;
  const std::int64_t pack = widen ? d.format.plane_pack : s.format.plane_pack;
  std::uint64_t from = 0;
  std::uint64_t to = 0;
  for (unsigned n = 0; n < dims[0]; ++n) {
    for (std::int64_t c = 0; c < std::int64_t{dims[1]}; c += pack) {
      for (unsigned h = 0; h < dims[2] && dst.InTest(); ++h) {
        CopyBytes(src, from, dst, to, widen ? sls : dls);
        if (widen) dst.Zero(to + sls, dls - sls);
        from += sls;
        to += dls;
      }
      from += src_pad;
      to += dst_pad;
    }
  }
}

inline void CopyDimension(std::size_t dim, const std::vector<unsigned>& dims, Bytes& src,
                          const std::vector<unsigned>& in_pads, std::uint32_t& in_off, Bytes& dst,
                          const std::vector<unsigned>& out_pads, std::uint32_t& out_off) {
  if (dim + 1 >= dims.size()) {
    const unsigned lin = in_pads.back();
    const unsigned lout = out_pads.back();
    CopyBytes(src, in_off, dst, out_off, lin < lout ? lin : lout);
    if (lin < lout) dst.Zero(std::uint64_t{out_off} + lin, lout - lin);
    in_off += lin;
    out_off += lout;
    return;
  }
  for (unsigned i = 0; i < dims[dim] && dst.InTest() && src.InTest(); ++i) {
    CopyDimension(dim + 1, dims, src, in_pads, in_off, dst, out_pads, out_off);
    in_off += in_pads[dim];
    out_off += out_pads[dim];
  }
}

// False where the lists are too short for the formula.
inline bool CopyAnyRank(Bytes& src, const Buf& s, Bytes& dst, std::uint32_t dst_bytes, const Buf& d) {
  const std::size_t k = s.strides.size();
  if (d.dims.empty()) return false;
  // The first dim without an extent ends the recursion.
  for (std::size_t i = 0; i + 1 < d.dims.size() && i <= k; ++i) {
    if (d.dims[i] != 0) continue;
    dst.Zero(0, dst_bytes);
    return true;
  }
  if (k == 0 || d.strides.size() < k) return false;
  if (s.dims.size() < k - 1 || d.dims.size() < k - 1 || d.dims.size() - 1 > k) return false;
  std::vector<unsigned> in_pads;
  std::vector<unsigned> out_pads;
  const auto pad = [](const Buf& b, std::size_t i) {
    const std::int64_t inside = static_cast<std::int64_t>(std::uint64_t{b.dims[i]} * b.strides[i + 1]);
    return static_cast<unsigned>(NotNegative(std::int64_t{b.strides[i]} - inside));
  };
  for (std::size_t i = 0; i + 1 < k; ++i) {
    in_pads.push_back(pad(s, i));
    out_pads.push_back(pad(d, i));
  }
  in_pads.push_back(s.strides[k - 1]);
  out_pads.push_back(d.strides[k - 1]);
  dst.Zero(0, dst_bytes);
  std::uint32_t in_off = 0;
  std::uint32_t out_off = 0;
  CopyDimension(0, d.dims, src, in_pads, in_off, dst, out_pads, out_off);
  return true;
}

struct InterleavedSide {
  std::uint32_t P, line, plane, batch;
  explicit InterleavedSide(const Buf& b) {
    const std::uint32_t eb = b.format.bitdepth < 8 ? 0 : static_cast<std::uint32_t>(b.format.bitdepth) / 8;
    P = static_cast<std::uint32_t>(b.format.plane_pack);
    line = eb == 0 ? 0 : b.line_stride / eb;
    plane = b.plane_stride == 0 ? line * b.dims[2] : eb == 0 ? 0 : b.plane_stride / eb;
    const float groups = std::ceil(static_cast<float>(b.dims[1]) / static_cast<float>(P));
    batch = P == 0 ? 0 : static_cast<std::uint32_t>(static_cast<std::uint64_t>(groups)) * plane;
  }
};

inline void ChangeInterleaving(std::uint32_t width, Bytes& src, const Buf& source, Bytes& dst,
                               std::uint32_t dst_bytes, const Buf& target) {
  const InterleavedSide s(source);
  const InterleavedSide d(target);
  dst.Zero(0, dst_bytes);
  const std::vector<unsigned>& dims = source.dims;
  if (dims[2] == 0 || dims[3] == 0) return;
  for (std::uint32_t n = 0; n < dims[0]; ++n) {
    for (std::uint32_t c = 0; c < dims[1]; ++c) {
      std::uint32_t si = n * s.batch + (c % s.P) + (c / s.P) * s.plane;
      std::uint32_t di = n * d.batch + (c % d.P) + (c / d.P) * d.plane;
      for (std::uint32_t h = 0; h < dims[2] && dst.InTest() && src.InTest(); ++h) {
        for (std::uint32_t w = 0; w < dims[3]; ++w) {
          const std::uint32_t to = di + w * d.P;
          const std::uint32_t from = si + w * s.P;
          CopyBytes(src, std::uint64_t{from} * width, dst, std::uint64_t{to} * width, width);
        }
        si += s.line;
        di += d.line;
      }
    }
  }
}

// Converts. Returns the text of the refusal, empty where there is none.
inline std::string ConvertStride(Bytes& src, std::uint32_t src_bytes, const Buf& s, Bytes& dst,
                                 std::uint32_t dst_bytes, const Buf& d) {
  const Format& fi = s.format;
  const Format& fo = d.format;
  if (fi.float_ != fo.float_ || fi.bitdepth != fo.bitdepth) return " input and output tensor formats differ.";
  const bool are_packs = fi.plane_pack >= 1 && fo.plane_pack >= 1;
  const auto has_none = [](const std::vector<unsigned>& dims, std::size_t count) {
    return std::count(dims.begin(), dims.begin() + static_cast<std::ptrdiff_t>(count), 0U) != 0;
  };
  if (fi.plane_pack == fo.plane_pack) {
    if (s.line_stride == d.line_stride && s.plane_stride == d.plane_stride) {
      CopyBytes(src, 0, dst, 0, src_bytes);
      return "";
    }
    if (s.dims.size() >= 3 && d.dims.size() == 4) {
      if (!are_packs && !has_none(s.line_stride <= d.line_stride ? d.dims : s.dims, 3)) return kOwnText;
      CopyRows(src, s, dst, dst_bytes, d);
      return "";
    }
    return CopyAnyRank(src, s, dst, dst_bytes, d) ? "" : kOwnText;
  }
  if (!fi.float_ && fi.bitdepth != 8 && fi.bitdepth != 16) {
    return " unsupported input memory format. Fixed point bitdepth:  " + std::to_string(fi.bitdepth);
  }
  if (s.dims.size() < 4 || d.dims.size() < (d.plane_stride == 0 ? 3 : 2)) return kOwnText;
  if (!are_packs && !has_none(s.dims, 4)) return kOwnText;
  const std::uint32_t width = fi.float_ ? 4 : static_cast<std::uint32_t>(fi.bitdepth) / 8;
  ChangeInterleaving(width, src, s, dst, dst_bytes, d);
  return "";
}

// Bytes that a layer wants for the elements of a description: whole bytes, rounded up.
inline std::uint64_t WantedBytes(const Buf& b) {
  return b.format.float_ ? b.Count() * 4
                         : (static_cast<std::uint64_t>(b.format.bitdepth) * b.Count() + 7) / 8;
}

inline std::string ShortBuffer(const std::string& side, const Buf& b) {
  return side + " buffer size too small, size: " + std::to_string(static_cast<int>(b.size)) +
         " bytes vs expected at least: " + std::to_string(WantedBytes(b)) + " bytes.";
}

// What Configure says of one input and one output, empty where it accepts them.
inline std::string ConfigureDataStrideConv(const Buf& in, const Buf& out) {
  const auto not_4d = [](const std::string& side, const Buf& b) {
    return "custom layer does not support " + side +
           " tensor other than 4D (when data is interleaved), received: " + std::to_string(b.dims.size()) +
           "D.";
  };
  if (in.format.bitdepth != out.format.bitdepth || in.format.q8a != out.format.q8a ||
      in.format.float_ != out.format.float_) {
    return "format conversion is not supported by custom layer.";
  }
  if (in.dims.size() != 4 && in.IsInterleaved()) return not_4d("input", in);
  if (out.dims.size() != 4 && out.IsInterleaved()) return not_4d("output", out);
  if (WantedBytes(in) > in.size) return ShortBuffer("input", in);
  if (WantedBytes(out) > out.size) return ShortBuffer("output", out);
  return "";
}

}  // namespace vek_test::reference
