#include "model/vek_permute.h"

#include "model/list.h"
#include "model/vek_datastrideconv.h"

namespace vek_model {

Dims CompletedOrder(const Dims& axes, std::size_t rank) {
  Dims order = axes;
  for (u32 d = 0; d < rank; ++d) {
    if (std::find(order.begin(), order.end(), d) == order.end()) order.push_back(d);
  }
  return order;
}

bool PermuteDense(u32 width, const Dims& dims, const Dims& order, Memory& in, Memory& out, u32 count) {
  const std::size_t n = dims.size();
  for (std::size_t i = 0; i < n; ++i) {
    if (order[i] >= n) return false;
  }
  Dims in_stride(n, 1);
  Dims out_stride(n, 1);
  for (std::size_t i = n; i-- > 1;) {
    in_stride[i - 1] = in_stride[i] * dims[i];
    out_stride[i - 1] = out_stride[i] * dims[order[i]];
  }
  for (u32 o = 0; o < count; ++o) {
    u32 rem = o;
    u32 off = 0;
    for (std::size_t i = 0; i < n; ++i) {
      const u32 q = Quotient(rem, out_stride[i]);
      rem -= q * out_stride[i];
      off += q * in_stride[order[i]];
    }
    out.Move(width, o, in, off);
  }
  return true;
}

void UnpackToNhwc(u32 width, const Buf& in, Memory& in_data, Memory& out_data) {
  const u32 N = in.dims[0];
  const u32 C = in.dims[1];
  const u32 H = in.dims[2];
  const u32 W = in.dims[3];
  const auto P = static_cast<u32>(in.format.plane_pack);
  const u32 element_bytes = in.format.bitdepth < 8 ? 0 : static_cast<u32>(in.format.bitdepth) / 8;
  const u32 line = Quotient(in.line_stride, element_bytes);
  const u32 plane_pad = Quotient(in.plane_stride - in.line_stride * H, element_bytes);
  u32 src = 0;
  for (u32 n = 0; n < N; ++n) {
    out_data.Step();
    for (u64 c0 = 0; c0 < C; c0 += P) {
      out_data.Step();
      for (u32 h = 0; h < H; ++h) {
        out_data.Step();
        for (u32 w = 0; w < W; ++w, src += P) {
          for (u32 k = 0; k < std::min<u64>(P, C - c0); ++k) {
            const u32 to = n * C * H * W + (h * W + w) * C + static_cast<u32>(c0);
            out_data.Move(width, u64{to} + k, in_data, u64{src} + k);
          }
        }
        if (line != 0 && src % line != 0) src += line - src % line;
      }
      src += plane_pad;
    }
  }
}

std::string PackToNchw(u32 width, const Buf& in, Memory& in_data, const Buf& out, Memory& out_data) {
  if (in.dims.size() < 3 || out.dims.size() < 4) return kOwnText;
  if (out.line_stride % width != 0) return "Unsupported stride in PackToNchw().";
  const u32 N = out.dims[0];
  const u32 C = out.dims[1];
  const u32 H = out.dims[2];
  const u32 W = out.dims[3];
  const bool moves = N != 0 && C != 0 && H != 0 && W != 0;
  if (out.format.plane_pack < 1) return moves ? kOwnText : "";
  const auto P = static_cast<u32>(out.format.plane_pack);
  const u32 line = out.line_stride / width;
  const u32 row = P * W;
  const u32 line_pad = line >= row ? line - row : line - (line == 0 ? row : row % line);
  const u32 plane_pad = out.plane_stride / width - line * H;
  const u32 in_plane = in.plane_stride / width;
  const u32 in_row_pad = in_plane - in.line_stride / width * in.dims[2];
  u32 src = 0;
  u32 dst = 0;
  const auto copy = [&](u32 from, u32 count) {
    for (u32 i = 0; i < count; ++i) out_data.Move(width, u64{dst} + i, in_data, u64{from} + i);
  };
  for (u32 n = 0; n < N; ++n) {
    out_data.Step();
    if (P >= C) {  // one plane
      for (u32 h = 0; h < H; ++h) {
        out_data.Step();
        for (u32 w = 0; w < W; ++w, src += C, dst += P) {
          out_data.Step();
          copy(src, C);
        }
        src += in_row_pad;
        dst += line_pad;
      }
      dst += plane_pad;
      continue;
    }
    for (u64 c0 = 0; c0 < C; c0 += P) {
      out_data.Step();
      for (u32 h = 0; h < H; ++h) {
        out_data.Step();
        for (u32 w = 0; w < W; ++w, dst += P) {
          const u32 from = n * in_plane * in.dims[1] + static_cast<u32>(c0) + h * in_plane + w * C;
          copy(from, static_cast<u32>(std::min<u64>(P, C - c0)));
        }
        dst += line - row;
      }
      dst += plane_pad;
    }
  }
  return {};
}

PermuteResult PermuteThroughScratch(u32 width, const Dims& order, const Buf& in, Memory& in_data,
                                    const Buf& out, Memory& out_data) {
  const std::string converter = "vek_datastrideconv.cpp";
  const auto dense = [width](Buf buf) {
    buf.line_stride = buf.dims[3] * width;
    buf.plane_stride = buf.dims[2] * buf.line_stride;
    buf.format.plane_pack = 1;
    return buf;
  };
  const auto equal = [](const Buf& a, const Buf& b) {
    return a.line_stride == b.line_stride && a.plane_stride == b.plane_stride &&
           a.format.plane_pack == b.format.plane_pack;
  };
  if (Product(in.dims) * width >> 32 != 0) throw Skip{};  // a scratch whose size wraps
  const u32 count = Product32(in.dims);
  const u32 bytes = count * width;
  const Buf dense_in = dense(in);
  const Buf dense_out = dense(out);
  const auto zeros = [](u64) { return 0U; };
  Memory packed(zeros, out_data.budget());
  Memory permuted(zeros, out_data.budget());
  Memory trial(zeros, out_data.budget());

  // What an unchanged copy leaves of the scratch is cut, what it does not reach holds anything.
  const bool as_it_is = equal(in, dense_in);
  if (as_it_is && in.size < bytes) throw Skip{};
  std::string refusal = ConvertStride({in_data, as_it_is ? bytes : in.size, in}, {packed, bytes, dense_in});
  if (!refusal.empty()) return {refusal, converter};
  if (packed.reach() > bytes) return {kOwnText};
  if (!PermuteDense(width, in.dims, order, packed, permuted, count) || packed.reach() > bytes)
    return {kOwnText};

  // Where both layouts agree, exactly the scratch is copied, whatever the output holds. Else the output has to fit.
  if (!equal(dense_out, out)) {
    refusal = ConvertStride({permuted, bytes, dense_out}, {trial, out.size, out});
    if (refusal.empty() && permuted.reach() > bytes) return {kOwnText};
    if (refusal.empty() && Product(out.dims) * width > bytes) throw Skip{};  // it just fits, by what is cut
  }
  refusal = ConvertStride({permuted, bytes, dense_out}, {out_data, out.size, out});
  return refusal.empty() ? PermuteResult{} : PermuteResult{refusal, converter};
}

namespace {

class PermuteModel : public Model {
 public:
  PermuteModel() : Model("vek_permute.cpp") {}
  bool RunsInPlace(std::size_t) const override { return PathTaken() == kScratch; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!CountsAreOne(in, out)) return false;
    in_ = in[0];
    out_ = out[0];
    if (attrs.size() != 1) return Fail("expecting exactly one attribute, got: %zu", attrs.size());
    const std::string* text = Find(attrs, "axes");
    if (!text) return Fail("expected operation parameter: axes not found.");
    const List list = ParseList(*text);
    if (!list.ok) return Fail("ERROR: %s", list.error.c_str());
    for (const std::string& element : list.elements) axes_.push_back(static_cast<u32>(Long(element)));
    if (in_.format.bitdepth != out_.format.bitdepth) {
      return Fail("input bitdepth: %d, differs from output bitdepth: %d", in_.format.bitdepth,
                  out_.format.bitdepth);
    }
    if (!HasBytes("input buffer", in_) || !HasBytes("output buffer", out_)) return false;
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("custom layer not configured.");
    if (!ArraysGiven(arrays, "in_buffers is NULL.", "out_buffers is NULL.")) return false;
    Memory* in = arrays.in[0];
    Memory* out = arrays.out[0];
    const int bits = in_.format.bitdepth;
    const u32 width = WidthOf(bits);
    switch (PathTaken()) {
      case kUnpack:
        if (width == 0) return Fail("UnpackToNhwc() - unhandled bitdepth!");
        if (in_.dims.size() < 4) return FailOwn();
        if (in_.format.plane_pack < 1) {
          return Shape(in_.dims[0], in_.dims[1], in_.dims[2], in_.dims[3]).IsEmpty() || FailOwn();
        }
        if (!in || !out) throw Skip{};  // nothing is said of it
        UnpackToNhwc(width, in_, *in, *out);
        return true;
      case kPack: {
        if (WidthOf(out_.format.bitdepth) == 0) return Fail("PackToNchw() - unhandled bitdepth!");
        if (!in || !out) throw Skip{};  // nothing is said of it
        const std::string refusal = PackToNchw(WidthOf(out_.format.bitdepth), in_, *in, out_, *out);
        return refusal.empty() || Fail("%s", refusal.c_str());
      }
      case kPlainFloats: {
        if (!in || !out) return Fail("Permute_v1 input or output buffer is null.");
        const u32 in_count = in_.size / 4;
        const u32 out_count = out_.size / 4;
        if (in_count != out_count) {
          return Fail("Permute_v1 wrong size of buffers. (input: %d output: %d)", D(in_count), D(out_count));
        }
        return PermuteDense(4, in_.dims, Order(), *in, *out, in_count) || FailOwn();
      }
      default: {
        if (in_.dims.size() != 4 || out_.dims.size() != 4 || bits % 8 != 0) {
          return Fail("Execute() - unhandled permute case!");
        }
        if (width == 0) return Fail("DirectAcessPermute() - unhandled bitdepth!");
        if (!in || !out) throw Skip{};  // nothing is said of it
        const PermuteResult result = PermuteThroughScratch(width, Order(), in_, *in, out_, *out);
        if (!result.refusal.empty()) log.push_back(vek_test::Error(result.file, result.refusal));
        return result.refusal.empty();
      }
    }
  }

 private:
  enum Path { kUnpack, kPack, kPlainFloats, kScratch };

  Dims Order() const { return CompletedOrder(axes_, in_.dims.size()); }
  Path PathTaken() const {
    const auto plain_floats = [](const Buf& buf) {
      return buf.format.float_ && !buf.IsInterleaved() && !buf.IsStrided();
    };
    const Dims order = Order();
    if (order == Dims{0, 2, 3, 1} && !out_.IsStrided() && out_.format.plane_pack == 1) return kUnpack;
    if (order == Dims{0, 3, 1, 2} && !in_.IsStrided() && in_.format.plane_pack == 1) return kPack;
    return plain_floats(in_) && plain_floats(out_) ? kPlainFloats : kScratch;
  }

  Buf in_;
  Buf out_;
  Dims axes_;
};

}  // namespace

std::unique_ptr<Model> MakePermute() { return std::make_unique<PermuteModel>(); }

}  // namespace vek_model
