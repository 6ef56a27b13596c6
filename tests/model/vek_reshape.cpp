#include "model/vek_reshape.h"

namespace vek_model {

void PixelShuffle(u32 width, u32 r, const Shape& s, Memory& in, Memory& out) {
  if (s.n == 0 || s.c == 0) return;
  u32 i = 0;
  for (u32 n = 0; n < s.n; ++n) {
    for (u32 c = 0; c < s.c; ++c) {
      out.Step();
      const u32 oc = c / (r * r);
      const u32 dy = c / r % r;
      const u32 dx = c % (r * r) % r;
      for (u32 h = 0; h < s.h; ++h) {
        out.Step();
        u32 d = dx + ((n * (s.c / (r * r)) + oc) * (r * s.h) + h * r + dy) * (r * s.w);
        for (u32 w = 0; w < s.w; ++w, d += r) out.Move(width, d, in, i++);
      }
    }
  }
}

namespace {

class ReshapeModel : public Model {
 public:
  ReshapeModel() : Model("vek_reshape.cpp") {}
  bool RunsInPlace(std::size_t) const override { return factor_ == 1; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
    const std::string* text = Find(attrs, "pixelshuffler");
    if (!text) return Fail("expected attribute: pixelshuffler, got: %s", attrs.begin()->first.c_str());
    factor_ = static_cast<i32>(Long(*text));
    if (!IsOneInOneOut(in, out) || !HasElements("Input", in[0]) || !HasElements("Output", out[0])) {
      return false;
    }
    if (!HasQuotients()) return FailOwn();
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (!ArraysGiven(arrays, "Input buffer is NULL", "Output buffer is NULL")) return false;
    const int bits = in_.format.bitdepth;
    if (bits != out_.format.bitdepth) return Fail(" RESHAPE expected bitdepth of input and output to match");
    const u32 in_count = Product32(in_.dims);
    const u32 out_count = Product32(out_.dims);
    if (in_count != out_count) {
      if (!IsPacked(in_) && !IsPacked(out_)) {
        return Fail(" RESHAPE input and output size must match,  in_size != out_size (%d != %d)", D(in_count),
                    D(out_count));
      }
      return Fail("can't calculate Reshape");
    }
    Memory* in = arrays.in[0];
    Memory* out = arrays.out[0];
    if (factor_ == 1) {
      if (WidthOf(bits) == 0) {
        Fail("unhandled bitdepth (%db)", bits);
        return Fail("can't calculate Reshape");
      }
      if (!in || !out) throw Skip{};  // nothing is said of it
      out->CopyFrom(0, *in, 0, u64{in_count} * WidthOf(bits));
      return true;
    }
    const u32 width = IsPacked(in_) ? WidthOf(bits) : 4;
    const Shape shape(in_);
    if (width == 0 || shape.n == 0 || shape.c == 0) return true;
    if (!HasQuotients()) return Fail("can't calculate Reshape");
    if (!in || !out) throw Skip{};  // nothing is said of it
    PixelShuffle(width, static_cast<u32>(factor_), shape, *in, *out);
    return true;
  }

 private:
  // By the factor and by its square.
  bool HasQuotients() const {
    return factor_ > 0 && static_cast<u32>(factor_) * static_cast<u32>(factor_) != 0;
  }
  static bool IsPacked(const Buf& buf) {
    if (buf.format.plane_pack != 1 || buf.dims.empty()) return false;
    return buf.dims.back() * static_cast<u32>(buf.format.bitdepth) / 8 == buf.line_stride;
  }

  i32 factor_ = 0;
  Buf in_;
  Buf out_;
};

}  // namespace

std::unique_ptr<Model> MakeReshape() { return std::make_unique<ReshapeModel>(); }

}  // namespace vek_model
