#include "model/vek_l2norm.h"

#include <cmath>

namespace vek_model {
namespace {

// One norm.
void Normalize(u32 start, u32 count, Memory& in, Memory& out) {
  out.Step();
  float sum = 0;
  for (u32 i = 0; i < count; ++i) {
    const float x = in.Load<float>(u32{start + i});
    sum = fmaf(x, x, sum);
  }
  const float norm = sqrtf(sum);
  for (u32 i = 0; i < count; ++i) {
    const float x = in.Load<float>(u32{start + i});
    out.Store(u32{start + i}, norm != 0.0F ? x / norm : x);
  }
}

void Scale(u32 start, u32 count, float scale, Memory& out) {
  if (scale == 1.0F) return;
  for (u32 i = 0; i < count; ++i) out.Store(u32{start + i}, out.Load<float>(u32{start + i}) * scale);
}

}  // namespace

void L2Norm(const Shape& s, bool across_spatial, bool channel_shared, const std::vector<float>& scales,
            Memory& in, Memory& out) {
  const u32 plane = s.h * s.w;
  for (u32 n = 0; n < s.n; ++n) {
    const u32 start = n * s.c * plane;
    out.Step();
    if (across_spatial) {
      Normalize(start, s.c * plane, in, out);
    } else {
      for (u32 c = 0; c < s.c; ++c) Normalize(start + c * plane, plane, in, out);
    }
    if (channel_shared) {
      Scale(start, s.c * plane, scales[0], out);
    } else {
      for (u32 c = 0; c < s.c; ++c) Scale(start + c * plane, plane, scales[c], out);
    }
  }
}

namespace {

class L2NormModel : public Model {
 public:
  L2NormModel() : Model("vek_l2norm.cpp") {}
  bool Computes() const override { return true; }
  bool RunsInPlace(std::size_t) const override { return true; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!CountsAreOne(in, out)) return false;
    if (!IsPlanarFloat("input", in[0]) || !IsPlanarFloat("output", out[0])) return false;
    if (!IsNotStrided("input", in[0]) || !IsNotStrided("output", out[0])) return false;
    if (!HasBytes("input buffer", in[0]) || !HasBytes("output buffer", out[0])) return false;
    in_ = in[0];
    out_ = out[0];
    if (const std::string* text = Find(attrs, "across_spatial")) across_ = Long(*text) == 1;
    if (const std::string* text = Find(attrs, "channel_shared")) shared_ = Long(*text) == 1;
    if (!shared_ && in_.At(1) > 1 << 16) throw Skip{};  // a list of so many scales
    scales_.assign(shared_ ? 1 : in_.At(1), 1.0F);
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("L2Norm custom layer not configured.");
    if (!ArraysGiven(arrays, "in_buffers is NULL.", "out_buffers is NULL.")) return false;
    if (!arrays.in[0] || !arrays.out[0]) return Fail("L2norm_v1 input or output buffer is null.");
    if (Product32(in_.dims) != Product32(out_.dims)) return Fail("L2norm_v1 wrong size of buffers.");
    const Shape shape(in_);
    if (!shared_ && scales_.size() != shape.c) {
      return Fail("L2norm_v1 scale is not shared between channels, not enough scale params.");
    }
    L2Norm(shape, across_, shared_, scales_, *arrays.in[0], *arrays.out[0]);
    return true;
  }

 private:
  Buf in_;
  Buf out_;
  bool across_ = true;
  bool shared_ = true;
  std::vector<float> scales_;
};

}  // namespace

std::unique_ptr<Model> MakeL2Norm() { return std::make_unique<L2NormModel>(); }

}  // namespace vek_model
