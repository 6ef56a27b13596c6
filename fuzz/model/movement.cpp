// Models of the layers that move data. Elements of 32, 16 and 8 bits move as unsigned integers.
#include <cmath>
#include <set>

#include "model/model.h"
#include "reference/list_parser_ref.h"

namespace vek_model {
namespace {

using vek_test::ListRef;
using vek_test::ParseListRef;

// Calls `body` with a value of the unsigned type of that width; false for any other width.
template <typename Body>
bool WithWidth(int bitdepth, const Body& body) {
  if (bitdepth == 32) return body(u32{}), true;
  if (bitdepth == 16) return body(std::uint16_t{}), true;
  if (bitdepth == 8) return body(std::uint8_t{}), true;
  return false;
}

template <typename T>
void Move(Memory& out, u64 to, Memory& in, u64 from) {
  out.Store<T>(to, in.Load<T>(from));
}

u32 Quotient(u32 a, u32 b) { return b == 0 ? 0 : a / b; }

// Product in doubles, rounded once, truncated to 32 bits within their range.
u32 Fill(u32 value, int exp, bool to_unsigned) {
  const auto factor = static_cast<i32>(1U << (static_cast<u32>(-i64{exp}) & 31));
  const auto product = static_cast<float>(static_cast<double>(factor) * static_cast<double>(value));
  if (std::isnan(product)) return 0;
  if (to_unsigned) return product <= 0 ? 0 : product >= 4294967296.0F ? ~0U : static_cast<u32>(product);
  if (product >= 2147483648.0F) return 0x7fffffffU;
  if (product <= -2147483648.0F) return 0x80000000U;
  return static_cast<u32>(static_cast<i32>(product));
}

class Reshape : public Model {
 public:
  Reshape() : Model("vek_reshape.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
    const std::string* text = Find(attrs, "pixelshuffler");
    if (!text) return Fail("expected attribute: pixelshuffler, got: %s", attrs.begin()->first.c_str());
    factor_ = static_cast<i32>(Long(*text));
    if (in.size() != 1 || out.size() != 1) {
      return Fail("expected one input and one output, got: %d inputs, %d outputs", D(in.size()),
                  D(out.size()));
    }
    if (in[0].size < Product(in[0].dims)) {
      return Fail("Input buf size should be at least %d, but is %d", D(Product(in[0].dims)), D(in[0].size));
    }
    if (out[0].size < Product(out[0].dims)) {
      return Fail("Output buf size should be at least %d, but is %d", D(Product(out[0].dims)),
                  D(out[0].size));
    }
    if (factor_ <= 0 || static_cast<u32>(factor_) * static_cast<u32>(factor_) == 0) return FailOwn();
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffer is NULL");
    if (arrays.out_null) return Fail("Output buffer is NULL");
    const int bits = in_.format.bitdepth;
    if (bits != out_.format.bitdepth) return Fail(" RESHAPE expected bitdepth of input and output to match");
    const u32 in_count = Product32(in_.dims);
    const u32 out_count = Product32(out_.dims);
    const bool in_packed = Packed(in_);
    if (in_count != out_count) {
      if (!in_packed && !Packed(out_)) {
        return Fail(" RESHAPE input and output size must match,  in_size != out_size (%d != %d)", D(in_count),
                    D(out_count));
      }
      return Fail("can't calculate Reshape");
    }
    if (factor_ == 1) {
      if (bits != 16 && bits != 32 && bits != 8) {
        Fail("unhandled bitdepth (%db)", bits);
        return Fail("can't calculate Reshape");
      }
      if (!arrays.in[0] || !arrays.out[0]) throw Skip{};  // nothing is said of it
      arrays.out[0]->CopyFrom(0, *arrays.in[0], 0, u64{in_count} * static_cast<u32>(bits) / 8);
      return true;
    }
    const int width = in_packed ? bits : 32;
    if (width != 16 && width != 32 && width != 8) return true;
    const Nchw s(in_);
    if (s.n == 0 || s.c == 0)
      return static_cast<u32>(factor_) * static_cast<u32>(factor_) != 0 ? true : throw Skip{};
    const u32 r = static_cast<u32>(factor_);
    if (r * r == 0) return Fail("can't calculate Reshape");
    if (!arrays.in[0] || !arrays.out[0]) throw Skip{};
    WithWidth(width, [&](auto tag) {
      using T = decltype(tag);
      u32 i = 0;
      for (u32 n = 0; n < s.n; ++n) {
        for (u32 c = 0; c < s.c; ++c) {
          budget->Take();
          const u32 oc = c / (r * r);
          const u32 dy = c / r % r;
          const u32 dx = c % (r * r) % r;
          for (u32 h = 0; h < s.h; ++h) {
            budget->Take();
            for (u32 w = 0; w < s.w; ++w) {
              const u32 d = dx + ((n * (s.c / (r * r)) + oc) * (r * s.h) + h * r + dy) * (r * s.w) + w * r;
              Move<T>(*arrays.out[0], d, *arrays.in[0], i++);
            }
          }
        }
      }
    });
    return true;
  }

 private:
  static bool Packed(const Buf& buf) {
    if (buf.format.plane_pack != 1 || buf.dims.empty()) return false;
    return buf.dims.back() * static_cast<u32>(buf.format.bitdepth) / 8 == buf.line_stride;
  }

  i32 factor_ = 0;
  Buf in_;
  Buf out_;
};

// --- The converter between layouts. Its messages stand in vek_datastrideconv.cpp.

class Converter {
 public:
  Converter(Log& log, Budget& budget) : log_(log), budget_(budget) {}

  bool Convert(Memory& src, u64 src_bytes, const Buf& s, Memory& dst, u64 dst_bytes, const Buf& d) {
    const Format& fi = s.format;
    const Format& fo = d.format;
    if (fi.float_ != fo.float_ || fi.bitdepth != fo.bitdepth)
      return Fail(" input and output tensor formats differ.");
    if (s.line_stride == d.line_stride && s.plane_stride == d.plane_stride) {
      if (fi.plane_pack == fo.plane_pack) {
        dst.CopyFrom(0, src, 0, src_bytes);
        return true;
      }
      return Interleave(src, s, dst, dst_bytes, d);
    }
    if (fi.plane_pack == fo.plane_pack) {
      if (s.dims.size() >= 3 && d.dims.size() == 4) return Rows(src, s, dst, dst_bytes, d);
      return General(src, s, dst, dst_bytes, d);
    }
    return Interleave(src, s, dst, dst_bytes, d);
  }

 private:
  bool Fail(std::string text) {
    log_.push_back(Error("vek_datastrideconv.cpp", std::move(text)));
    return false;
  }
  static u32 PadOf(u32 whole, u32 part, u32 times) {
    const u64 used = u64{part} * times;
    return whole > used ? static_cast<u32>(whole - used) : 0;
  }

  bool Rows(Memory& src, const Buf& s, Memory& dst, u64 dst_bytes, const Buf& d) {
    if (s.format.plane_pack < 1) return Fail(kOwnText);
    const u32 sls = s.line_stride;
    const u32 dls = d.line_stride;
    const u32 src_pad = PadOf(s.plane_stride, sls, s.dims[2]);
    const u32 dst_pad = PadOf(d.plane_stride, dls, d.dims[2]);
    dst.Zero(0, dst_bytes);
    const bool widening = sls <= dls;
    const std::vector<unsigned>& over = widening ? d.dims : s.dims;
    const auto pack = static_cast<u32>(d.format.plane_pack);
    u64 from = 0;
    u64 to = 0;
    for (u32 n = 0; n < over[0]; ++n) {
      budget_.Take();
      for (u64 c = 0; c < over[1]; c += pack) {
        budget_.Take();
        for (u32 h = 0; h < over[2]; ++h) {
          dst.CopyFrom(to, src, from, widening ? sls : dls);
          if (widening) dst.Zero(to + sls, dls - sls);
          from += sls;
          to += dls;
        }
        from += src_pad;
        to += dst_pad;
      }
    }
    return true;
  }

  bool General(Memory& src, const Buf& s, Memory& dst, u64 dst_bytes, const Buf& d) {
    const std::vector<unsigned>& si = s.strides;
    const std::vector<unsigned>& so = d.strides;
    const std::size_t k = si.size();
    if (k == 0 || so.size() < k || s.dims.size() + 1 < k || d.dims.size() + 1 < k || d.dims.empty() ||
        d.dims.size() > k + 1) {
      return Fail(kOwnText);
    }
    std::vector<u32> in_pads;
    std::vector<u32> out_pads;
    for (std::size_t i = 0; i + 1 < k; ++i) {
      in_pads.push_back(PadOf(si[i], si[i + 1], s.dims[i]));
      out_pads.push_back(PadOf(so[i], so[i + 1], d.dims[i]));
    }
    in_pads.push_back(si[k - 1]);
    out_pads.push_back(so[k - 1]);
    dst.Zero(0, dst_bytes);
    u32 in_off = 0;
    u32 out_off = 0;
    Dimension(0, d.dims, src, in_pads, in_off, dst, out_pads, out_off);
    return true;
  }

  void Dimension(std::size_t dim, const std::vector<unsigned>& dims, Memory& src,
                 const std::vector<u32>& in_pads, u32& in_off, Memory& dst, const std::vector<u32>& out_pads,
                 u32& out_off) {
    budget_.Take();
    if (dim + 1 >= dims.size()) {
      const u32 lin = in_pads.back();
      const u32 lout = out_pads.back();
      dst.CopyFrom(out_off, src, in_off, std::min(lin, lout));
      if (lin < lout) dst.Zero(u64{out_off} + lin, lout - lin);
      out_off += lout;
      in_off += lin;
      return;
    }
    for (u32 i = 0; i < dims[dim]; ++i) {
      Dimension(dim + 1, dims, src, in_pads, in_off, dst, out_pads, out_off);
      in_off += in_pads[dim];
      out_off += out_pads[dim];
    }
  }

  struct Side {
    Side(const Buf& buf, u32 eb) : pack(static_cast<u32>(buf.format.plane_pack)) {
      line = eb == 0 ? 0 : buf.line_stride / eb;
      plane = buf.plane_stride == 0 ? line * buf.dims[2] : eb == 0 ? 0 : buf.plane_stride / eb;
      batch = static_cast<u32>(ceilf(static_cast<float>(buf.dims[1]) / static_cast<float>(pack))) * plane;
    }
    u32 pack, line, plane, batch;
  };

  bool Interleave(Memory& src, const Buf& s, Memory& dst, u64 dst_bytes, const Buf& d) {
    const Format& f = s.format;
    if (f.plane_pack < 1 || d.format.plane_pack < 1) return Fail(kOwnText);
    if (!f.float_ && f.bitdepth != 8 && f.bitdepth != 16) {
      return Fail(" unsupported input memory format. Fixed point bitdepth:  " + std::to_string(f.bitdepth));
    }
    if (s.dims.size() < 4 || d.dims.size() < 4) return Fail(kOwnText);
    if (f.float_ && f.bitdepth != 32) throw Skip{};  // floats have 32 bits
    const u32 eb = static_cast<u32>(f.bitdepth) / 8;
    const Side a(s, eb);
    const Side b(d, eb);
    dst.Zero(0, dst_bytes);
    WithWidth(f.bitdepth, [&](auto tag) {
      using T = decltype(tag);
      for (u32 n = 0; n < s.dims[0]; ++n) {
        budget_.Take();
        for (u32 c = 0; c < s.dims[1]; ++c) {
          u32 from = n * a.batch + c % a.pack + c / a.pack * a.plane;
          u32 to = n * b.batch + c % b.pack + c / b.pack * b.plane;
          for (u32 h = 0; h < s.dims[2]; ++h, from += a.line, to += b.line) {
            budget_.Take();
            for (u32 w = 0; w < s.dims[3]; ++w)
              Move<T>(dst, u32{to + w * b.pack}, src, u32{from + w * a.pack});
          }
        }
      }
    });
    return true;
  }

  Log& log_;
  Budget& budget_;
};

class StrideConv : public Model {
 public:
  StrideConv() : Model("vek_datastrideconv.cpp") {}

  bool Configure(const AttrMap&, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (in.size() != 1) return Fail("wrong number of inputs, expected: 1, got: %zu", in.size());
    if (out.size() != 1) return Fail("wrong number of outputs, expected: 1, got: %zu", out.size());
    const Format& a = in[0].format;
    const Format& b = out[0].format;
    if (a.bitdepth != b.bitdepth || a.q8a != b.q8a || a.float_ != b.float_) {
      return Fail("format conversion is not supported by custom layer.");
    }
    if (in[0].dims.size() != 4 && in[0].IsInterleaved()) {
      return Fail(
          "custom layer does not support input tensor other than 4D (when data is interleaved), received: "
          "%dD.",
          D(in[0].dims.size()));
    }
    if (out[0].dims.size() != 4 && out[0].IsInterleaved()) {
      return Fail(
          "custom layer does not support output tensor other than 4D (when data is interleaved), received: "
          "%dD.",
          D(out[0].dims.size()));
    }
    if (BytesUp(in[0]) > in[0].size) {
      return Fail("input buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
                  D(in[0].size), static_cast<unsigned long long>(BytesUp(in[0])));
    }
    if (BytesUp(out[0]) > out[0].size) {
      return Fail("output buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
                  D(out[0].size), static_cast<unsigned long long>(BytesUp(out[0])));
    }
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("datastrideconv custom layer not configured.");
    if (arrays.in_null) return Fail("in_buffers is NULL.");
    if (arrays.out_null) return Fail("out_buffers is NULL.");
    if (!arrays.in[0] || !arrays.out[0]) throw Skip{};  // nothing is said of it
    return Converter(log, *budget).Convert(*arrays.in[0], in_.size, in_, *arrays.out[0], out_.size, out_);
  }

 private:
  Buf in_;
  Buf out_;
};

class Permute : public Model {
 public:
  Permute() : Model("vek_permute.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (in.size() != 1) return Fail("wrong number of inputs, expected: 1, got: %zu", in.size());
    if (out.size() != 1) return Fail("wrong number of outputs, expected: 1, got: %zu", out.size());
    in_ = in[0];
    out_ = out[0];
    if (attrs.size() != 1) return Fail("expecting exactly one attribute, got: %zu", attrs.size());
    const std::string* text = Find(attrs, "axes");
    if (!text) return Fail("expected operation parameter: axes not found.");
    const ListRef list = ParseListRef(*text);
    if (!list.ok) return Fail("ERROR: %s", list.error.c_str());
    for (const std::string& element : list.elements) axes_.push_back(static_cast<u32>(Long(element)));
    if (in_.format.bitdepth != out_.format.bitdepth) {
      return Fail("input bitdepth: %d, differs from output bitdepth: %d", in_.format.bitdepth,
                  out_.format.bitdepth);
    }
    if (BytesUp(in_) > in_.size) {
      return Fail("input buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
                  D(in_.size), static_cast<unsigned long long>(BytesUp(in_)));
    }
    if (BytesUp(out_) > out_.size) {
      return Fail("output buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
                  D(out_.size), static_cast<unsigned long long>(BytesUp(out_)));
    }
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("custom layer not configured.");
    if (arrays.in_null) return Fail("in_buffers is NULL.");
    if (arrays.out_null) return Fail("out_buffers is NULL.");
    Memory* in = arrays.in[0];
    Memory* out = arrays.out[0];
    const std::vector<u32> order = Order();
    const Format& fi = in_.format;
    const Format& fo = out_.format;
    const int bits = fi.bitdepth;
    const bool known = bits == 8 || bits == 16 || bits == 32;
    if (order == std::vector<u32>{0, 2, 3, 1} && !out_.IsStrided() && fo.plane_pack == 1) {
      if (!known) return Fail("UnpackToNhwc() - unhandled bitdepth!");
      if (in_.dims.size() < 4 || fi.plane_pack < 1) return FailOwn();
      if (!in || !out) throw Skip{};
      WithWidth(bits, [&](auto tag) { Unpack<decltype(tag)>(*in, *out); });
      return true;
    }
    if (order == std::vector<u32>{0, 3, 1, 2} && !in_.IsStrided() && fi.plane_pack == 1) {
      if (fo.bitdepth != 8 && fo.bitdepth != 16 && fo.bitdepth != 32) {
        return Fail("PackToNchw() - unhandled bitdepth!");
      }
      if (in_.dims.size() < 4 || out_.dims.size() < 4) return FailOwn();
      bool result = false;
      if (!in || !out) throw Skip{};
      WithWidth(fo.bitdepth, [&](auto tag) { result = Pack<decltype(tag)>(*in, *out); });
      return result;
    }
    if (fi.float_ && !in_.IsInterleaved() && !in_.IsStrided() && fo.float_ && !out_.IsInterleaved() &&
        !out_.IsStrided()) {
      return General<u32>(in, in_.dims, in_.size / 4, out, out_.size / 4, order);
    }
    if (in_.dims.size() != 4 || out_.dims.size() != 4 || bits % 8 != 0) {
      return Fail("Execute() - unhandled permute case!");
    }
    if (!known) return Fail("DirectAcessPermute() - unhandled bitdepth!");
    if (!in || !out) throw Skip{};
    bool result = false;
    WithWidth(bits, [&](auto tag) { result = Direct<decltype(tag)>(*in, *out, order); });
    return result;
  }

 private:
  std::vector<u32> Order() const {
    std::vector<u32> order = axes_;
    for (u32 d = 0; d < in_.dims.size(); ++d) {
      if (std::find(order.begin(), order.end(), d) == order.end()) order.push_back(d);
    }
    return order;
  }

  template <typename T>
  bool General(Memory* in, const std::vector<unsigned>& dims, u32 in_count, Memory* out, u32 out_count,
               const std::vector<u32>& order) {
    if (!in || !out) return Fail("Permute_v1 input or output buffer is null.");
    if (in_count != out_count) {
      return Fail("Permute_v1 wrong size of buffers. (input: %d output: %d)", D(in_count), D(out_count));
    }
    const std::size_t n = dims.size();
    for (std::size_t i = 0; i < n; ++i) {
      if (order[i] >= n) return FailOwn();
    }
    std::vector<u32> in_stride(n, 1);
    std::vector<u32> out_stride(n, 1);
    for (std::size_t i = n; i-- > 1;) {
      in_stride[i - 1] = in_stride[i] * dims[i];
      out_stride[i - 1] = out_stride[i] * dims[order[i]];
    }
    for (u32 o = 0; o < out_count; ++o) {
      u32 rem = o;
      u32 off = 0;
      for (std::size_t i = 0; i < n; ++i) {
        const u32 q = Quotient(rem, out_stride[i]);
        rem -= q * out_stride[i];
        off += q * in_stride[order[i]];
      }
      Move<T>(*out, o, *in, off);
    }
    return true;
  }

  template <typename T>
  bool Direct(Memory& in, Memory& out, const std::vector<u32>& order) {
    const u32 count = Product32(in_.dims);
    const u64 bytes = u64{count} * sizeof(T);
    if (bytes > 1 << 20) throw Skip{};
    // What malformed sizes do inside the scratch is the layer's own business.
    for (std::size_t i = 0; i < 4; ++i) {
      if (order[i] >= 4) throw Skip{};
    }
    if (std::set<u32>(order.begin(), order.begin() + 4).size() != 4) throw Skip{};
    for (std::size_t i = 0; i < 4; ++i) {
      if (out_.dims[i] != in_.dims[order[i]]) throw Skip{};
    }
    const auto dense = [&](Buf buf) {
      buf.line_stride = buf.dims[3] * u32{sizeof(T)};
      buf.plane_stride = buf.dims[2] * buf.line_stride;
      buf.format.plane_pack = 1;
      return buf;
    };
    if (in_.size != bytes && in_.line_stride == dense(in_).line_stride &&
        in_.plane_stride == dense(in_).plane_stride) {
      throw Skip{};  // the unchanged copy is cut to what the scratch holds, or leaves some of it as it was
    }
    Memory packed(std::vector<std::uint8_t>{0xA5}, budget);
    Memory permuted(std::vector<std::uint8_t>{0x5A}, budget);
    Converter converter(log, *budget);
    if (!converter.Convert(in, in_.size, in_, packed, bytes, dense(in_))) return false;
    if (packed.bytes().size() > bytes) throw Skip{};
    if (!General<T>(&packed, in_.dims, count, &permuted, count, order)) return false;
    const bool result = converter.Convert(permuted, bytes, dense(out_), out, out_.size, out_);
    if (permuted.bytes().size() > bytes) throw Skip{};
    return result;
  }

  template <typename T>
  void Unpack(Memory& in, Memory& out) {
    const u32 N = in_.dims[0];
    const u32 C = in_.dims[1];
    const u32 H = in_.dims[2];
    const u32 W = in_.dims[3];
    const auto P = static_cast<u32>(in_.format.plane_pack);
    const u32 line = in_.line_stride / u32{sizeof(T)};
    const u32 plane_pad = (in_.plane_stride - in_.line_stride * H) / u32{sizeof(T)};
    u32 src = 0;
    for (u32 n = 0; n < N; ++n) {
      budget->Take();
      for (u64 c0 = 0; c0 < C; c0 += P) {
        for (u32 h = 0; h < H; ++h) {
          budget->Take();
          for (u32 w = 0; w < W; ++w) {
            for (u32 k = 0; k < std::min<u64>(P, C - c0); ++k) {
              Move<T>(out, u32{n * C * H * W + (h * W + w) * C + static_cast<u32>(c0) + k}, in, u32{src + k});
            }
            src += P;
          }
          if (line != 0 && src % line != 0) src += line - src % line;
        }
        src += plane_pad;
      }
    }
  }

  template <typename T>
  bool Pack(Memory& in, Memory& out) {
    const u32 eb = sizeof(T);
    if (eb != 1 && out_.line_stride % eb != 0) return Fail("Unsupported stride in PackToNchw().");
    if (out_.format.plane_pack < 1) return FailOwn();
    const u32 N = out_.dims[0];
    const u32 C = out_.dims[1];
    const u32 H = out_.dims[2];
    const u32 W = out_.dims[3];
    const auto P = static_cast<u32>(out_.format.plane_pack);
    const u32 line = out_.line_stride / eb;
    const u32 row = P * W;
    const u32 line_pad = line >= row ? line - row : line - (line == 0 ? row : row % line);
    const u32 plane_pad = out_.plane_stride / eb - line * H;
    const u32 in_plane = in_.plane_stride / eb;
    const u32 in_row_pad = in_plane - in_.line_stride / eb * in_.dims[2];
    u32 src = 0;
    u32 dst = 0;
    for (u32 n = 0; n < N; ++n) {
      budget->Take();
      if (P >= C) {
        for (u32 h = 0; h < H; ++h) {
          budget->Take();
          if (P == C) {
            for (u32 i = 0; i < row; ++i) Move<T>(out, u32{dst + i}, in, u32{src + i});
            src += row;
            dst += row;
          } else {
            for (u32 w = 0; w < W; ++w) {
              for (u32 c = 0; c < C; ++c) Move<T>(out, u32{dst + c}, in, u32{src + c});
              dst += P;
              src += C;
              budget->Take();
            }
          }
          src += in_row_pad;
          dst += line_pad;
        }
        dst += plane_pad;
        continue;
      }
      for (u64 c0 = 0; c0 < C; c0 += P) {
        for (u32 h = 0; h < H; ++h) {
          budget->Take();
          for (u32 w = 0; w < W; ++w) {
            const u32 from = n * in_plane * in_.dims[1] + static_cast<u32>(c0) + h * in_plane + w * C;
            for (u32 k = 0; k < std::min<u64>(P, C - c0); ++k) Move<T>(out, u32{dst + k}, in, u32{from + k});
            dst += P;
          }
          dst += line - P * W;
        }
        dst += plane_pad;
      }
    }
    return true;
  }

  Buf in_;
  Buf out_;
  std::vector<u32> axes_;
};

class Broadcast : public Model {
 public:
  Broadcast() : Model("vek_broadcast.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (in.size() != 1 || out.size() != 1) {
      return Fail("expected one input and one output, got: %u inputs, %u outputs",
                  static_cast<u32>(in.size()), static_cast<u32>(out.size()));
    }
    if (in[0].dims.size() != 4 && out[0].dims.size() != 4) {
      return Fail("non-4D IO not supported. Got %uD input, %uD output", static_cast<u32>(in[0].dims.size()),
                  static_cast<u32>(out[0].dims.size()));
    }
    if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
    const std::string* text = Find(attrs, "size");
    if (!text) return Fail("expected attribute: size, got: %s", attrs.begin()->first.c_str());
    const ListRef list = ParseListRef(*text);
    if (!list.ok) {
      Fail("broadcast size attribute parse error");
      return Fail("parser msg: %s", list.error.c_str());
    }
    if (list.elements.size() != 4) {
      return Fail("broadcast size attribute of incorrect size. Expected 4, but got %zu",
                  list.elements.size());
    }
    const char* const names[] = {"batch", "channel", "height", "width"};
    for (std::size_t i = 0; i < 4; ++i) {
      if (in[0].At(i) != out[0].At(i) && in[0].At(i) != 1) {
        return Fail("input tensor incompatible %s (is %d, but should be %d or 1)", names[i], D(in[0].At(i)),
                    D(out[0].At(i)));
      }
    }
    bool flags[4];
    for (std::size_t i = 0; i < 4; ++i) flags[i] = std::stoi(list.elements[i]) > 0;
    std::copy(flags, flags + 4, flags_);
    if (flags_[0]) return Fail("Batch dim not supported by broadcast op");
    if (in[0].size < Product(in[0].dims)) {
      return Fail("Input buf size should be at least %u, but is %u", static_cast<u32>(Product(in[0].dims)),
                  in[0].size);
    }
    if (out[0].size < Product(out[0].dims)) {
      return Fail("Output buf size should be at least %u, but is %u", static_cast<u32>(Product(out[0].dims)),
                  out[0].size);
    }
    for (const auto& [buf, side] : {std::pair{&in[0], "input"}, {&out[0], "output"}}) {
      const u32 H = buf->dims.size() > 2 ? buf->dims[2] : buf->At(2);
      if (buf->plane_stride != 0 && buf->plane_stride != buf->line_stride * H) {
        return Fail("data with invalid s_stride detected on %s of Broadcast: Got %u expected %u", side,
                    buf->plane_stride, buf->line_stride * H);
      }
    }
    if (in[0].format.plane_pack != 1) return Fail("Interleaved data in input buffer");
    if (out[0].format.plane_pack != 1) return Fail("Interleaved data in output buffer");
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null || !arrays.in[0]) return Fail("Input buffer is NULL");
    if (arrays.out_null || !arrays.out[0]) return Fail("Output buffer is NULL");
    Memory& in = *arrays.in[0];
    Memory& out = *arrays.out[0];
    return WithWidth(in_.format.bitdepth,
                     [&](auto tag) {
                       using T = decltype(tag);
                       const Nchw o(out_);
                       const Nchw i(in_);
                       const u32 lso = out_.line_stride / u32{sizeof(T)};
                       const u32 lsi = in_.line_stride / u32{sizeof(T)};
                       const u32 plane = o.h * o.w;
                       const auto column = [&](u32 x) { return i.w == 0 ? x : x % i.w; };
                       const auto put = [&](u32 to, u32 from) { Move<T>(out, to, in, from); };
                       const auto first_plane_to_all = [&] {
                         for (u32 c = 1; c < o.c; ++c) {
                           budget->Take();
                           for (u32 x = 0; x < plane; ++x) Move<T>(out, u32{c * plane + x}, out, x);
                         }
                       };
                       const bool bc = flags_[1];
                       const bool bh = flags_[2];
                       const bool bw = flags_[3];
                       if (bc && bh && bw) {
                         for (u32 x = 0; x < o.w; ++x) put(x, column(x));
                         u32 row = o.w;
                         for (u32 h = 1; h < o.h; ++h, row += lso) {
                           budget->Take();
                           for (u32 x = 0; x < o.w; ++x) Move<T>(out, u32{row + x}, out, x);
                         }
                         first_plane_to_all();
                       } else if (bc && bh) {
                         for (u32 h = 0; h < o.h; ++h) {
                           budget->Take();
                           for (u32 x = 0; x < o.w; ++x) put(h * lso + x, x);
                         }
                         first_plane_to_all();
                       } else if (bc && bw) {
                         for (u32 h = 0; h < o.h; ++h) {
                           budget->Take();
                           for (u32 x = 0; x < o.w; ++x) put(h * lso + x, h * lsi + column(x));
                         }
                         first_plane_to_all();
                       } else if (bc) {
                         for (u32 c = 0; c < o.c; ++c) {
                           budget->Take();
                           for (u32 x = 0; x < plane; ++x) put(c * plane + x, x);
                         }
                       } else if (bh || bw) {
                         for (u32 c = 0; c < o.c; ++c) {
                           budget->Take();
                           for (u32 h = 0; h < o.h; ++h) {
                             budget->Take();
                             for (u32 x = 0; x < o.w; ++x) {
                               put(c * o.h * lso + h * lso + x,
                                   (bh ? c * lsi : c * i.h * lsi + h * lsi) + (bw ? column(x) : x));
                             }
                           }
                         }
                       }
                     }) ||
           Fail("Broadcast_v1() - unhandled bitdepth!");
  }

 private:
  Buf in_;
  Buf out_;
  bool flags_[4] = {};
};

class Concat : public Model {
 public:
  Concat() : Model("vek_concat.cpp") {}
  std::size_t InputsRead() const override { return in_.size(); }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (out.size() != 1) return Fail("expected one output, got: %d outputs", D(out.size()));
    if (attrs.empty()) return Fail("'axis' attribute not defined");
    if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
    const std::string* text = Find(attrs, "axis");
    if (!text) return Fail("expected attribute: axis, got: %s", attrs.begin()->first.c_str());
    axis_ = static_cast<i32>(Long(*text));
    if (axis_ < 0 || static_cast<u32>(axis_) > out[0].dims.size()) {
      return Fail("axis = %d, but should be in range [0..3]", axis_);
    }
    if (in.empty()) return FailOwn();
    const auto usable = [](const Format& f) {
      return (f.bitdepth == 8 || f.bitdepth == 16 || f.bitdepth == 32) && f.plane_pack == 1;
    };
    if (!usable(in[0].format)) {
      Fail("unexpected input buffer format");
      PrintFormat(in[0].format);
      return false;
    }
    if (!usable(out[0].format)) {
      Fail("unexpected output buffer format");
      PrintFormat(out[0].format);
      return false;
    }
    if (out[0].format.bitdepth != in[0].format.bitdepth) {
      Fail("incompatible buffer formats");
      PrintFormat(in[0].format);
      PrintFormat(out[0].format);
      return false;
    }
    const std::size_t rank = in[0].dims.size();
    if (rank != 4 && rank != 5)
      return Fail("Concat supports only 4D and 5D tensors. Can't use %zu dims tensors", rank);
    if (static_cast<u32>(axis_) > rank - 1)
      return Fail("There are %zu dims, but axis is set to %d", rank, axis_);
    const auto need = [](const Buf& buf) {
      return Product(buf.dims) * static_cast<u64>(i64{buf.format.bitdepth}) / 8;
    };
    u64 total = 0;
    for (const Buf& buf : in) {
      if (need(buf) > buf.size) {
        return Fail("Input buf size should be at least %llu, but is %d",
                    static_cast<unsigned long long>(need(buf)), D(buf.size));
      }
      total += buf.size;
    }
    if (need(out[0]) > out[0].size) {
      return Fail("Output buf size should be at least %llu, but is %d",
                  static_cast<unsigned long long>(need(out[0])), D(out[0].size));
    }
    if (total > out[0].size) {
      return Fail("Input buffers occupy %lluB, but output buffer is %dB",
                  static_cast<unsigned long long>(total), D(out[0].size));
    }
    for (const Buf& buf : in) {
      if (buf.IsStrided()) return Fail("strided data detected on input of Concat, this is not supported.");
      if (buf.IsInterleaved())
        return Fail("interleaved data detected on input of Concat, this is not supported.");
    }
    if (out[0].IsStrided()) return Fail("strided data detected on output of Concat, this is not supported.");
    if (out[0].IsInterleaved())
      return Fail("interleaved data detected on output of Concat, this is not supported.");
    in_.insert(in_.end(), in.begin(), in.end());
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffers array is NULL");
    for (std::size_t i = 0; i < in_.size(); ++i) {
      if (!arrays.in[i]) return Fail("Input buffer %u pointer is NULL", static_cast<unsigned>(i));
    }
    if (arrays.out_null) return Fail("Output buffers array is NULL");
    if (!arrays.out[0]) throw Skip{};  // nothing is said of it
    const Format& f = in_[0].format;
    const int bits = f.float_ ? 32 : f.bitdepth == 32 ? 0 : f.bitdepth;
    bool result = false;
    if (!WithWidth(bits, [&](auto tag) { result = Copy<decltype(tag)>(arrays); }))
      Fail("Unsupported data format");
    return result || Fail("can't calculate Concat");
  }

 private:
  template <typename T>
  bool Copy(const Arrays& arrays) {
    const bool five = in_[0].dims.size() == 5;
    const auto axis = static_cast<u32>(axis_);
    for (std::size_t i = 1; i < in_.size(); ++i) {
      if (!(five ? Fits5(in_[i - 1], in_[i], axis) : Fits4(i, axis))) return false;
    }
    if (axis > (five ? 4U : 3U)) return false;
    // The shape that is walked: dims for 5-D tensors and along the batch, accessors else.
    const auto along = [&](const Buf& buf) { return five || axis == 0 ? buf.dims[axis] : buf.At(axis); };
    const auto first = [&](std::size_t d) { return five || axis == 0 ? in_[0].dims[d] : in_[0].At(d); };
    u32 outer = 1;
    u32 inner = 1;
    for (std::size_t d = 0; d < axis; ++d) outer *= first(d);
    for (std::size_t d = axis + 1; d < (five ? 5 : 4); ++d) inner *= first(d);
    u32 to = 0;
    for (u32 o = 0; o < outer; ++o) {
      for (std::size_t i = 0; i < in_.size(); ++i) {
        budget->Take();
        const u32 slab = along(in_[i]) * inner;
        for (u32 x = 0; x < slab; ++x) Move<T>(*arrays.out[0], to++, *arrays.in[i], u32{o * slab + x});
      }
    }
    return true;
  }

  bool Fits4(std::size_t i, u32 axis) {
    const Buf& a = in_[i - 1];
    const Buf& b = in_[i];
    if (b.At(0) != in_[0].At(0)) return Fail("Incompatible concat batch dims");
    const char* const names[] = {"width, channels, height for batch", "height, width, batch for channel",
                                 "width, channels, batch for height", "height, channels, batch for width"};
    for (u32 d = 0; d < 4; ++d) {
      if (axis < 4 && d != axis && a.At(d) != b.At(d)) {
        return Fail("All tensors must have the same %s-concat", names[axis]);
      }
    }
    return true;
  }
  bool Fits5(const Buf& a, const Buf& b, u32 axis) {
    if (a.dims.size() != b.dims.size()) return Fail("All tensors must have the same number of dimensions");
    for (u32 d = 0; d < a.dims.size(); ++d) {
      if (d != axis && a.dims[d] != b.dims[d]) {
        return Fail("All tensors must have the same dimensions (except for the concat dimension)");
      }
    }
    return true;
  }

  i32 axis_ = 0;
  std::vector<Buf> in_;
};

// --- Blocks: what the four layers check alike.

class Blocks : public Model {
 protected:
  using Model::Model;

  bool Counts(const std::vector<Buf>& in, const std::vector<Buf>& out) {
    if (in.size() != 1) return Fail("wrong number of inputs, expected: 1, got: %zu", in.size());
    if (out.size() != 1) return Fail("wrong number of outputs, expected: 1, got: %zu", out.size());
    in_ = in[0];
    out_ = out[0];
    return true;
  }
  bool OutputIs(u32 batch, u32 channels, u32 width, u32 height) {
    const Nchw o(out_);
    if (o.n != batch) return Fail("wrong output batch: %d, should be: %d", D(o.n), D(batch));
    if (o.c != channels) return Fail("wrong output channels: %d, should be: %d", D(o.c), D(channels));
    if (o.w != width) return Fail("wrong output width: %d, should be: %d", D(o.w), D(width));
    if (o.h != height) return Fail("wrong output height: %d, should be: %d", D(o.h), D(height));
    return true;
  }
  bool Buffers() {
    if (in_.format.bitdepth != out_.format.bitdepth) {
      return Fail("input bitdepth: %d, differs from output bitdepth: %d", in_.format.bitdepth,
                  out_.format.bitdepth);
    }
    if (in_.format.plane_pack != 1 || out_.format.plane_pack != 1) {
      return Fail("expected interleaving: 1, instead got interleaving on input: %d, on output: %d",
                  in_.format.plane_pack, out_.format.plane_pack);
    }
    if (in_.IsStrided() || out_.IsStrided()) {
      return Fail("buffer with stride detected on input or output, which is not supported.");
    }
    if (BytesUp(in_) > in_.size) {
      return Fail("input buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
                  D(in_.size), static_cast<unsigned long long>(BytesUp(in_)));
    }
    if (BytesUp(out_) > out_.size) {
      return Fail("output buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
                  D(out_.size), static_cast<unsigned long long>(BytesUp(out_)));
    }
    return configured_ = true;
  }
  // The first `count` numbers of a list attribute.
  bool Numbers(const AttrMap& attrs, const char* key, std::initializer_list<u32*> numbers) {
    const std::string* text = Find(attrs, key);
    if (!text) return Fail("expected operation parameter: %s not found.", key);
    const ListRef list = ParseListRef(*text);
    if (!list.ok) return Fail("ERROR: %s", list.error.c_str());
    if (list.elements.size() < numbers.size()) return FailOwn();
    std::size_t i = 0;
    for (u32* number : numbers) *number = static_cast<u32>(Long(list.elements[i++]));
    return true;
  }
  template <typename Body>
  bool ByWidth(const Arrays& arrays, const Body& body) {
    const int bits = in_.format.bitdepth;
    if (bits != 16 && bits != 32 && bits != 8) return Fail("not supported bitdepth: %d.", bits);
    if (!arrays.in[0] || !arrays.out[0]) throw Skip{};  // nothing is said of it
    return WithWidth(bits, body);
  }

  Buf in_;
  Buf out_;
};

class DepthToSpace : public Blocks {
 public:
  DepthToSpace() : Blocks("vek_depthtospace.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!Counts(in, out)) return false;
    if (attrs.size() != 1) return Fail("expecting exactly one attribute, got: %zu", attrs.size());
    const std::string* text = Find(attrs, "block_size");
    if (!text) return Fail("expected operation parameter: block_size not found.");
    block_ = static_cast<i32>(Long(*text));
    if (block_ < 1) return Fail("block_size parameter incorrect: %d", block_);
    const auto b = static_cast<u32>(block_);
    const Nchw i(in_);
    if (b * b == 0 || i.c % (b * b) != 0) {
      return Fail(
          "block_size parameter incorrect: %d, number of channels should be divisible by "
          "block_size*block_size",
          block_);
    }
    return OutputIs(i.n, i.c / (b * b), i.w * b, i.h * b) && Buffers();
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("custom layer not configured.");
    if (arrays.in_null) return Fail("in_buffers is NULL.");
    if (arrays.out_null) return Fail("out_buffers is NULL.");
    return ByWidth(arrays, [&](auto tag) {
      using T = decltype(tag);
      const Nchw i(in_);
      const Nchw o(out_);
      const auto b = static_cast<u32>(block_);
      const auto total_out = static_cast<i32>(o.n * o.c * o.h * o.w);
      const u32 G = o.c * i.h;
      const u32 total_in = i.n * i.c * i.h * i.w;
      if (b * b == 0 || G == 0) return;  // it would divide by it
      for (u32 p = 0; p < total_in; ++p) {
        budget->Take();
        const u32 w = p % i.w;
        const u32 q = p / i.w;
        const u32 a = q / G;
        const u32 r = q % G;
        const u32 bw = a % b;
        const u32 bh = a / b % b;
        const u32 n = a / (b * b);
        const u32 to = bw + b * (w + i.w * (bh + b * (r + n * G)));
        if (static_cast<i32>(to) < total_out) {
          if (static_cast<i32>(to) < 0) throw Skip{};
          Move<T>(*arrays.out[0], to, *arrays.in[0], p);
        } else {
          if (log.size() > 2000) throw Skip{};
          log.push_back(Warning("ext_depthtospace.cpp", "buffer overflow attempt"));
        }
      }
    });
  }

 private:
  i32 block_ = 0;
};

class SpaceToDepth : public Blocks {
 public:
  SpaceToDepth() : Blocks("vek_spacetodepth.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!Counts(in, out)) return false;
    if (attrs.size() != 1) return Fail("expecting exactly one attribute, got: %zu", attrs.size());
    const std::string* text = Find(attrs, "block_size");
    if (!text) return Fail("expected operation parameter: block_size not found.");
    block_ = static_cast<i32>(Long(*text));
    if (block_ < 1) return Fail("block_size parameter incorrect: %d", block_);
    const auto b = static_cast<u32>(block_);
    const Nchw i(in_);
    if (i.w % b != 0) {
      return Fail("block_size parameter incorrect: %d, number of width %d should be divisible by block_size",
                  block_, D(i.w));
    }
    if (i.h % b != 0) {
      return Fail("block_size parameter incorrect: %d, number of height %d should be divisible by block_size",
                  block_, D(i.h));
    }
    return OutputIs(i.n, b * b * i.c, i.w / b, i.h / b) && Buffers();
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("custom layer not configured.");
    if (arrays.in_null) return Fail("in_buffers is NULL.");
    if (arrays.out_null) return Fail("out_buffers is NULL.");
    return ByWidth(arrays, [&](auto tag) {
      using T = decltype(tag);
      const Nchw i(in_);
      const Nchw o(out_);
      const auto b = static_cast<u32>(block_);
      if (i.n == 0 || i.h == 0 || i.w == 0 || i.c == 0 || b == 0) return;
      for (u32 n = 0; n < i.n; ++n) {
        for (u32 h = 0; h < i.h; ++h) {
          for (u32 w = 0; w < i.w; ++w) {
            for (u32 c = 0; c < i.c; ++c) {
              const u32 from = n * i.c * i.h * i.w + c * i.h * i.w + h * i.w + w;
              const u32 channel = (h % b * b + w % b) * i.c + c;
              const u32 to = ((n * o.c + channel) * o.h + h / b) * o.w + w / b;
              Move<T>(*arrays.out[0], to, *arrays.in[0], from);
            }
          }
        }
      }
    });
  }

 private:
  i32 block_ = 0;
};

class SpaceToBatch : public Blocks {
 public:
  SpaceToBatch() : Blocks("vek_spacetobatch.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!Counts(in, out)) return false;
    if (attrs.size() != 2) return Fail("expected 2 attribute, but got %zu", attrs.size());
    if (!Numbers(attrs, "block_shape", {&bh_, &bw_})) return false;
    if (!Numbers(attrs, "paddings", {&top_, &bottom_, &left_, &right_})) return false;
    const Nchw i(in_);
    if (bh_ == 0 || (i.h + top_ + bottom_) % bh_ != 0) {
      return Fail(
          "block_height_ parameter incorrect: %d, number of (height+pad_top_+pad_bot_) (%d + %d + %d ) "
          "should "
          "be divisible by block_height_",
          D(bh_), D(i.h), D(top_), D(bottom_));
    }
    if (bw_ == 0 || (i.w + left_ + right_) % bw_ != 0) {
      return Fail(
          "block_width_ parameter incorrect: %d, number of (width+pad_left+pad_right) (%d + %d + %d) should "
          "be "
          "divisible by block_width_",
          D(bw_), D(i.w), D(left_), D(right_));
    }
    return OutputIs(bw_ * bh_ * i.n, i.c, (left_ + right_ + i.w) / bw_, (top_ + bottom_ + i.h) / bh_) &&
           Buffers();
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffer is NULL");
    if (arrays.out_null) return Fail("Output buffer is NULL");
    const Format& f = in_.format;
    return ByWidth(arrays, [&](auto tag) {
      using T = decltype(tag);
      const T fill = static_cast<T>(Fill(f.q8a ? f.q8a_zero : 0, f.exp, sizeof(T) == 1));
      const Nchw i(in_);
      const Nchw o(out_);
      if (o.n == 0 || o.h == 0 || o.w == 0 || i.n == 0 || bw_ == 0) return;  // it would divide by it
      for (u32 b = 0; b < o.n; ++b) {
        const u32 n = b % i.n;
        const u32 bh = b / i.n / bw_;
        const u32 bw = b / i.n % bw_;
        for (u32 h = 0; h < o.h; ++h) {
          for (u32 w = 0; w < o.w; ++w) {
            budget->Take();
            const u32 hp = bh + h * bh_;
            const u32 wp = bw + w * bw_;
            const bool outside = hp < top_ || hp >= u32{i.h + top_} || wp < left_ || wp >= u32{i.w + left_};
            for (u32 c = 0; c < o.c; ++c) {
              const u32 to = ((b * o.c + c) * o.h + h) * o.w + w;
              if (outside) {
                arrays.out[0]->Store<T>(to, fill);
              } else {
                Move<T>(*arrays.out[0], to, *arrays.in[0],
                        u32{((n * i.c + c) * i.h + (hp - top_)) * i.w + (wp - left_)});
              }
            }
          }
        }
      }
    });
  }

 private:
  u32 bh_ = 0, bw_ = 0, top_ = 0, bottom_ = 0, left_ = 0, right_ = 0;
};

class BatchToSpace : public Blocks {
 public:
  BatchToSpace() : Blocks("vek_batchtospace.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!Counts(in, out)) return false;
    if (attrs.size() != 2) return Fail("expected 2 attribute, but got %zu", attrs.size());
    if (!Numbers(attrs, "block_shape", {&bh_, &bw_})) return false;
    if (!Numbers(attrs, "crops", {&top_, &bottom_, &left_, &right_})) return false;
    if (bh_ == 0 || bw_ == 0 || bw_ * bh_ == 0) return FailOwn();
    const Nchw i(in_);
    return OutputIs(i.n / (bw_ * bh_), i.c, i.w * bw_ - left_ - right_, i.h * bh_ - top_ - bottom_) &&
           Buffers();
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffer is NULL");
    if (arrays.out_null) return Fail("Output buffer is NULL");
    return ByWidth(arrays, [&](auto tag) {
      using T = decltype(tag);
      const Nchw i(in_);
      const Nchw o(out_);
      if (o.n == 0 || o.h == 0 || o.w == 0 || o.c == 0 || bh_ == 0 || bw_ == 0) return;
      // The ends wrap too: a crop just below 2^32 leaves nothing between them.
      for (u32 n = 0; n < o.n; ++n) {
        for (u32 hu = top_; hu < u32{top_ + o.h}; ++hu) {
          for (u32 wu = left_; wu < u32{left_ + o.w}; ++wu) {
            const u32 h = hu - top_;
            const u32 w = wu - left_;
            for (u32 c = 0; c < o.c; ++c) {
              const u32 batch = (hu % bh_ * bw_ + wu % bw_) * o.n + n;
              const u32 from = (batch * i.c + c) * i.h * i.w + hu / bh_ * i.w + wu / bw_;
              Move<T>(*arrays.out[0], u32{((n * o.c + c) * o.h + h) * o.w + w}, *arrays.in[0], from);
            }
          }
        }
      }
    });
  }

 private:
  u32 bh_ = 0, bw_ = 0, top_ = 0, bottom_ = 0, left_ = 0, right_ = 0;
};

class Gather : public Model {
 public:
  Gather() : Model("vek_gather.cpp") {}
  std::size_t InputsRead() const override { return in_.size(); }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.empty()) {
      log.push_back(Info(file_, "'axis' not defined, using axis=0"));
      axis_ = 0;
    } else {
      if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
      const std::string* text = Find(attrs, "axis");
      if (!text) return Fail("expected attribute: axis, got: %s", attrs.begin()->first.c_str());
      axis_ = static_cast<i32>(Long(*text));
      if (axis_ < 0 || axis_ > 3) return Fail("axis = %d, but should be in range [0..3]", axis_);
    }
    if (in.size() != 2 || out.size() != 1) {
      return Fail("expected two inputs and one output, got: %d inputs, %d outputs", D(in.size()),
                  D(out.size()));
    }
    const auto usable = [](const Format& f) {
      return (f.bitdepth == 8 || f.bitdepth == 16 || f.bitdepth == 32) && f.plane_pack == 1;
    };
    if (!usable(in[0].format)) {
      Fail("unexpected input buffer format");
      PrintFormat(in[0].format);
      return false;
    }
    if (!usable(out[0].format)) {
      Fail("unexpected output buffer format");
      PrintFormat(out[0].format);
      return false;
    }
    if (in[0].format.bitdepth != out[0].format.bitdepth) {
      Fail("incompatible buffer formats");
      PrintFormat(in[0].format);
      PrintFormat(out[0].format);
      return false;
    }
    if (static_cast<u64>(axis_) + 1 > in[0].dims.size()) {
      return Fail("There are %zu dims, but axis is set to %d", in[0].dims.size(), axis_);
    }
    const auto need = [](const Buf& buf) {
      return static_cast<u64>(i64{buf.format.bitdepth / 8}) * Product(buf.dims);
    };
    for (const Buf& buf : in) {
      if (buf.format.bitdepth < 0) throw Skip{};  // a size below nothing
      if (buf.size < need(buf)) {
        return Fail("Input buf size should be at least %llu, but is %d",
                    static_cast<unsigned long long>(need(buf)), D(buf.size));
      }
    }
    if (out[0].size < need(out[0])) {
      return Fail("Output buf size should be at least %llu, but is %d",
                  static_cast<unsigned long long>(need(out[0])), D(out[0].size));
    }
    for (const Buf& buf : in) {
      if (buf.IsStrided()) return Fail("strided data detected on input of Gather, this is not supported.");
      if (buf.IsInterleaved())
        return Fail("interleaved data detected on input of Gather, this is not supported.");
    }
    if (out[0].IsStrided()) return Fail("strided data detected on output of Gather, this is not supported.");
    if (out[0].IsInterleaved())
      return Fail("interleaved data detected on output of Gather, this is not supported.");
    in_ = in;
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffers array is NULL");
    for (std::size_t i = 0; i < in_.size(); ++i) {
      if (!arrays.in[i]) return Fail("Input buffer %u pointer is NULL", static_cast<unsigned>(i));
    }
    if (arrays.out_null) return Fail("Output buffers array is NULL");
    const Format& f = in_[0].format;
    const int bits = f.float_ ? 32 : f.bitdepth == 32 ? 0 : f.bitdepth;
    bool result = false;
    WithWidth(bits, [&](auto tag) { result = Kernel<decltype(tag)>(arrays); });
    return result || Fail("can't do Gather operation");
  }

 private:
  bool KernelFails(std::string text) {
    log.push_back(Error("ext_gather.cpp", std::move(text)));
    return false;
  }
  // Product of the dims first ... last - 1, with its two complaints.
  u32 Elements(const std::vector<unsigned>& dims, u32 first, u32 last) {
    if (first > last) {
      KernelFails("fisrt_axis > last_axis (" + std::to_string(first) + " > " + std::to_string(last) + ")");
      return 0;
    }
    if (last > dims.size()) {
      KernelFails("last_axis bigger than num of dims (" + std::to_string(last) + " > " +
                  std::to_string(dims.size()) + ")");
      return 0;
    }
    return Product32({dims.begin() + first, dims.begin() + last});
  }

  template <typename T>
  bool Kernel(const Arrays& arrays) {
    if (!arrays.out[0]) return KernelFails("Gather_v1 output buffer is null");
    const std::vector<unsigned>& dims = in_[0].dims;
    const auto axis = static_cast<u32>(axis_);
    const auto rank = static_cast<u32>(dims.size());
    const u32 outer = Elements(dims, 0, axis);
    u32 size = 0;
    if (axis > rank) {
      KernelFails("dims index (" + std::to_string(axis) + ") is out of dims range (" + std::to_string(rank) +
                  ")");
    } else if (axis < rank) {
      size = dims[axis];
    }
    const u32 inner = Elements(dims, axis + 1, rank);
    const u32 count = Product32(in_[1].dims);
    const Nchw o(out_);
    const u32 capacity = o.n * o.c * o.h * o.w;
    for (u32 i = 0; i < outer; ++i) {
      budget->Take();
      for (u32 j = 0; j < count; ++j) {
        const u32 index = arrays.in[1]->Load<u32>(j);
        if (index >= size) {
          return KernelFails("Operation broken (in_idx >= axis Size, " + std::to_string(D(index)) + ", " +
                             std::to_string(D(size)) + ")");
        }
        const u32 to = (i * count + j) * inner;
        if (u64{to} + inner > capacity) return KernelFails("Operation broken (avoiding memory corruption)");
        for (u32 x = 0; x < inner; ++x) {
          Move<T>(*arrays.out[0], u32{to + x}, *arrays.in[0], u32{(i * size + index) * inner + x});
        }
      }
    }
    return true;
  }

  i32 axis_ = 0;
  std::vector<Buf> in_;
  Buf out_;
};

class Pad : public Model {
 public:
  Pad() : Model("vek_pad.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.size() < 4) return Fail("expected 4 attribute, but got %zu", attrs.size());
    const std::string* text = Find(attrs, "pad_mode");
    if (!text) return Fail("expected attribute pad_mode, but did not get it.");
    mode_ = static_cast<i32>(Long(*text));
    text = Find(attrs, "pad");
    if (!text) return Fail("expected attribute pad, but did not get it.");
    value_ = static_cast<u32>(Long(*text));
    text = Find(attrs, "pad_shape");
    if (!text) return Fail("expected attribute pad_shape, but did not get it.");
    ListRef list = ParseListRef(*text);
    if (!list.ok) return Fail("ERROR: %s", list.error.c_str());
    if (list.elements.size() < 8) return FailOwn();
    for (std::size_t i = 0; i < 8; ++i) p_[i] = static_cast<u32>(Long(list.elements[i]));
    text = Find(attrs, "format");
    if (!text) return Fail("expected attribute format, but did not get it.");
    list = ParseListRef(*text);
    if (!list.ok) return Fail("ERROR: %s", list.error.c_str());
    if (list.elements.size() < 4) return FailOwn();
    for (std::size_t i = 0; i < 4; ++i) format_[i] = static_cast<u32>(Long(list.elements[i]));
    if (in.size() != 1 || out.size() != 1) {
      return Fail("expected one input and one output, got: %d inputs, %d outputs", D(in.size()),
                  D(out.size()));
    }
    if (in[0].size < Product(in[0].dims)) {
      return Fail("Input buf size should be at least %d, but is %d", D(Product(in[0].dims)), D(in[0].size));
    }
    if (out[0].size < Product(out[0].dims)) {
      return Fail("Output buf size should be at least %d, but is %d", D(Product(out[0].dims)),
                  D(out[0].size));
    }
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffer is NULL");
    if (arrays.out_null) return Fail("Output buffer is NULL");
    const std::vector<u32> format(format_, format_ + 4);
    const bool nchw = format == std::vector<u32>{0, 1, 2, 3};
    const bool fast = out_.format.plane_pack == 1 && nchw;
    if (in_.format.q8a && !fast) {
      const float value = static_cast<float>(value_ - in_.format.q8a_zero) * in_.format.q8a_scale;
      if (!(value <= 4294967040.0F)) throw Skip{};  // beyond what a conversion to 32 bits defines
      value_ = value <= 0 ? 0 : static_cast<u32>(value);
    }
    if (fast && arrays.in[0] && arrays.out[0] && in_.format.plane_pack < 1) return FailOwn();
    bool result = false;
    if (fast) {
      const int bits = in_.format.bitdepth;
      if (bits != 16 && bits != 32 && bits != 8) return Fail("CopyBuffer_v1() - unhandled bitdepth!");
      WithWidth(bits, [&](auto tag) { result = Fast<decltype(tag)>(arrays.in[0], arrays.out[0]); });
    } else if (nchw || format == std::vector<u32>{0, 2, 3, 1}) {
      result = Dense(arrays.in[0], arrays.out[0]);
    } else {
      Fail("Unknown format not supported.");
    }
    return result || Fail("can't calculate Pad");
  }

 private:
  // Where the output's elements lie, in elements.
  struct Place {
    u32 batch, plane, line;
    u32 At(u32 n, u32 c, u32 h, u32 w) const { return n * batch + c * plane + h * line + w; }
  };

  bool Dense(Memory* in, Memory* out) {
    if (!in || !out) return Fail("Pad_reflect_v1 input or output buffer is null.");
    const Nchw i(in_);
    const Nchw o(out_);
    const Place place{o.c * o.h * o.w, o.h * o.w, o.w};
    u32 from = 0;
    for (u32 n = 0; n < i.n; ++n) {
      for (u32 c = 0; c < i.c; ++c) {
        budget->Take();
        for (u32 h = 0; h < i.h; ++h) {
          budget->Take();
          for (u32 w = 0; w < i.w; ++w) {
            Move<u32>(*out, place.At(n + p_[0], c + p_[2], h + p_[4], p_[6] + w), *in, from++);
          }
        }
      }
    }
    const auto value = static_cast<float>(value_);
    u32 bits;
    std::memcpy(&bits, &value, sizeof bits);
    Border<u32>(*out, place, i, o, bits);
    return true;
  }

  template <typename T>
  bool Fast(Memory* in, Memory* out) {
    if (!in || !out) return Fail("Pad_reflect_v1 input or output buffer is null.");
    const u32 eb = sizeof(T);
    const Nchw i(in_);
    const Nchw o(out_);
    const auto P = static_cast<u32>(in_.format.plane_pack);
    const u32 groups = static_cast<u32>((u64{i.c} + P - 1) / P);
    const u32 in_line = in_.line_stride / eb;
    const u32 in_plane = in_.plane_stride / eb;
    const Place place{out_.plane_stride / eb * o.c, out_.plane_stride / eb, out_.line_stride / eb};
    for (u32 n = 0; n < i.n; ++n) {
      budget->Take();
      for (u32 g = 0; g < groups; ++g) {
        for (u32 h = 0; h < i.h; ++h) {
          budget->Take();
          for (u32 w = 0; w < i.w; ++w) {
            for (u32 k = 0; k < P && u64{g} * P + k < i.c; ++k) {
              const u32 c = g * P + k;
              const u32 from = n * groups * in_plane + g * in_plane + h * in_line + w * P + k;
              // p0 counts planes here, batches in the border.
              const u32 to =
                  (p_[0] + p_[2] + c) * place.plane + n * place.batch + (p_[4] + h) * place.line + p_[6] + w;
              Move<T>(*out, to, *in, from);
            }
          }
        }
      }
    }
    Border<T>(*out, place, i, o, static_cast<T>(Fill(value_, out_.format.exp, sizeof(T) == 1)));
    return true;
  }

  template <typename T>
  void Border(Memory& out, const Place& at, const Nchw& i, const Nchw& o, T fill) {
    if (mode_ < 1 || mode_ > 4) return;
    // Where rows or planes lie over each other, the order within one side shows, and nothing fixes it.
    if (at.line < o.w || at.plane < u64{at.line} * o.h) throw Skip{};
    const auto copy = [&](u32 to, u32 from) { Move<T>(out, to, out, from); };
    // One side: position k steps away from the interior gets what the mode says of interior index 0, 1, ... seen from
    // that side. `set(k, value)` and `mirror(k, index)`.
    const auto side = [&](u32 pad, u32 size, const auto& clear, const auto& mirror) {
      const u32 r = mode_ == 1 ? 1 : 0;
      for (u32 k = 0; k < pad; ++k) {
        budget->Take();
        if (mode_ == 4) {
          clear(k, fill);
        } else if (mode_ == 2) {
          mirror(k, 0);
        } else if (size >= r && k < size - r) {
          mirror(k, r + k);
        } else {
          clear(k, T{0});
        }
      }
    };
    for (u32 n = 0; n < i.n; ++n) {
      budget->Take();
      const u32 N = p_[0] + n;
      for (u32 c = 0; c < i.c; ++c) {
        budget->Take();
        const u32 C = p_[2] + c;
        for (u32 h = 0; h < i.h; ++h) {
          budget->Take();
          if (i.w == 0 && mode_ != 4) throw Skip{};  // there is nothing to repeat
          const u32 first = at.At(N, C, p_[4] + h, p_[6]);
          const u32 last = first + i.w - 1;
          side(
              p_[6], i.w, [&](u32 k, T v) { out.Store<T>(u32{first - 1 - k}, v); },
              [&](u32 k, u32 index) { copy(first - 1 - k, first + index); });
          side(
              p_[7], i.w, [&](u32 k, T v) { out.Store<T>(u32{last + 1 + k}, v); },
              [&](u32 k, u32 index) { copy(last + 1 + k, last - index); });
        }
        const auto row = [&](u32 h, u32 w) { return at.At(N, C, h, w); };
        const auto row_clear = [&](u32 h, T v) {
          for (u32 w = 0; w < o.w; ++w) out.Store<T>(row(h, w), v);
        };
        const auto row_copy = [&](u32 h, u32 from) {
          for (u32 w = 0; w < o.w; ++w) copy(row(h, w), row(from, w));
        };
        if (i.h == 0 && mode_ != 4 && p_[4] + p_[5] != 0) throw Skip{};
        const u32 top = p_[4];
        const u32 bottom = p_[4] + i.h - 1;
        side(
            p_[4], i.h, [&](u32 k, T v) { row_clear(top - 1 - k, v); },
            [&](u32 k, u32 index) { row_copy(top - 1 - k, top + index); });
        side(
            p_[5], i.h, [&](u32 k, T v) { row_clear(bottom + 1 + k, v); },
            [&](u32 k, u32 index) { row_copy(bottom + 1 + k, bottom - index); });
      }
      const auto plane_clear = [&](u32 c, T v) {
        for (u32 h = 0; h < o.h; ++h) {
          for (u32 w = 0; w < o.w; ++w) out.Store<T>(at.At(N, c, h, w), v);
        }
      };
      const auto plane_copy = [&](u32 c, u32 from) {
        for (u32 h = 0; h < o.h; ++h) {
          for (u32 w = 0; w < o.w; ++w) copy(at.At(N, c, h, w), at.At(N, from, h, w));
        }
      };
      if (i.c == 0 && mode_ != 4 && p_[2] + p_[3] != 0) throw Skip{};
      const u32 front = p_[2];
      const u32 back = p_[2] + i.c - 1;
      side(
          p_[2], i.c, [&](u32 k, T v) { plane_clear(front - 1 - k, v); },
          [&](u32 k, u32 index) { plane_copy(front - 1 - k, front + index); });
      side(
          p_[3], i.c, [&](u32 k, T v) { plane_clear(back + 1 + k, v); },
          [&](u32 k, u32 index) { plane_copy(back + 1 + k, back - index); });
    }
    const auto batch_clear = [&](u32 n, T v) {
      for (u32 c = 0; c < o.c; ++c) {
        for (u32 h = 0; h < o.h; ++h) {
          for (u32 w = 0; w < o.w; ++w) out.Store<T>(at.At(n, c, h, w), v);
        }
      }
    };
    const auto batch_copy = [&](u32 n, u32 from) {
      for (u32 c = 0; c < o.c; ++c) {
        for (u32 h = 0; h < o.h; ++h) {
          for (u32 w = 0; w < o.w; ++w) copy(at.At(n, c, h, w), at.At(from, c, h, w));
        }
      }
    };
    if (i.n == 0 && mode_ != 4 && p_[0] + p_[1] != 0) throw Skip{};
    const u32 first = p_[0];
    const u32 last = p_[0] + i.n - 1;
    side(
        p_[0], i.n, [&](u32 k, T v) { batch_clear(first - 1 - k, v); },
        [&](u32 k, u32 index) { batch_copy(first - 1 - k, first + index); });
    side(
        p_[1], i.n, [&](u32 k, T v) { batch_clear(last + 1 + k, v); },
        [&](u32 k, u32 index) { batch_copy(last + 1 + k, last - index); });
  }

  i32 mode_ = 0;
  u32 value_ = 0;
  u32 p_[8] = {};
  u32 format_[4] = {};
  Buf in_;
  Buf out_;
};

}  // namespace

std::unique_ptr<Model> MakeMovementModel(const std::string& type) {
  if (type == "RESHAPE") return std::make_unique<Reshape>();
  if (type == "DATA_STRIDE_CONV") return std::make_unique<StrideConv>();
  if (type == "PERMUTE") return std::make_unique<Permute>();
  if (type == "BROADCAST") return std::make_unique<Broadcast>();
  if (type == "SWCONCAT") return std::make_unique<Concat>();
  if (type == "DEPTHTOSPACE") return std::make_unique<DepthToSpace>();
  if (type == "SPACETODEPTH") return std::make_unique<SpaceToDepth>();
  if (type == "SPACETOBATCH") return std::make_unique<SpaceToBatch>();
  if (type == "BATCHTOSPACE") return std::make_unique<BatchToSpace>();
  if (type == "GATHER") return std::make_unique<Gather>();
  if (type == "PAD") return std::make_unique<Pad>();
  return nullptr;
}

}  // namespace vek_model
