#include "model/vek_softmax.h"

#include <cmath>

#include "model/exact_math.h"

namespace vek_model {

bool Softmax(const Shape& s, u32 axis, Memory& in, u32 count, Memory& out) {
  u32 len = s.n;
  u32 step = s.c * s.h * s.w;
  u32 inner = step;
  u32 outer = 1;
  if (axis == 1) len = s.c, step = inner = s.h * s.w, outer = s.n;
  if (axis == 2) len = s.h, step = s.w, inner = s.c * s.w, outer = s.n;
  if (axis == 3) len = s.w, step = 1, inner = s.c * s.h, outer = s.n;
  for (u32 o = 0; o < outer; ++o) {
    u32 p = o * inner * len;
    out.Step();
    for (u32 i = 0; i < inner; ++i) {
      out.Step();
      const auto at = [&](u32 k) { return u32{p + k * step}; };
      if (len != 0) {
        float largest = in.Load<float>(p);
        for (u32 k = 0; k < len; ++k) {
          const float value = in.Load<float>(at(k));
          if (value > largest) largest = value;
        }
        if (count < len * step) return false;
        float sum = 0;
        for (u32 k = 0; k < len; ++k) {
          const float e = Exp(in.Load<float>(at(k)) - largest);
          out.Store(at(k), e);
          sum += e;
        }
        const float reciprocal = 1.0F / sum;
        for (u32 k = 0; k < len; ++k) out.Store(at(k), out.Load<float>(at(k)) * reciprocal);
      }
      p += axis == 3 ? s.w : 1;
      if (axis == 2 && (i + 1) % s.w == 0) p += s.h * s.w - s.w;
    }
  }
  return true;
}

namespace {

class SoftmaxModel : public Model {
 public:
  SoftmaxModel() : Model("vek_softmax.cpp") {}
  bool Computes() const override { return true; }
  bool RunsInPlace(std::size_t) const override { return true; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.empty()) {
      Inform("'axis' attribute not defined, using default (%d)", D(axis_));
    } else {
      if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
      const std::string* axis = Find(attrs, "axis");
      if (!axis) return Fail("expected attribute: axis, got: %s", attrs.begin()->first.c_str());
      axis_ = static_cast<u32>(Long(*axis));
      if (axis_ > 3) return Fail("axis = %d, but should be in range [0..3]", D(axis_));
    }
    if (!IsOneInOneOut(in, out) || !IsPlanarFloat("input", in[0]) || !IsPlanarFloat("output", out[0])) {
      return false;
    }
    const std::size_t rank = in[0].dims.size();
    if (axis_ + u64{1} > rank) return Fail("There are %zu dims, but axis is set to %d", rank, D(axis_));
    if (!HasRoom("Input", in[0], Product(in[0].dims) * 4)) return false;
    if (!HasRoom("Output", out[0], Product(out[0].dims) * 4)) return false;
    if (!IsPlain("input", "Softmax", in[0]) || !IsPlain("output", "Softmax", out[0])) return false;
    if (rank < 4) return Fail("Softmax expects input buf dims >= 4, but got %zu", rank);
    if (out[0].dims.size() < 4)
      return Fail("Softmax expects output buf dims >= 4, but got %zu", out[0].dims.size());
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (!ArraysGiven(arrays, "Input buffer is NULL", "Output buffer is NULL")) return false;
    return Kernel(arrays.in[0], arrays.out[0]) || Fail("can't calculate Softmax");
  }

 private:
  bool Kernel(Memory* in, Memory* out) {
    if (!in) return Fail("Softmax_v1 input buffer is null");
    if (!out) return Fail("Softmax_v1 output buffer is null");
    const u32 in_count = Product32(in_.dims);
    const u32 out_count = Product32(out_.dims);
    if (in_count != out_count)
      return Fail("Softmax_v1: in_size != out_size, (%d != %d)", D(in_count), D(out_count));
    if (axis_ > 3) return Fail("Softmax_v1: axis parameter = %d, should be in range [0..3]", D(axis_));
    return Softmax(Shape(in_), axis_, *in, out_count, *out) ||
           Fail("Softmax_v1 tries to access outside of allocated output buffer size");
  }

  u32 axis_ = 1;
  Buf in_;
  Buf out_;
};

}  // namespace

std::unique_ptr<Model> MakeSoftmax() { return std::make_unique<SoftmaxModel>(); }

}  // namespace vek_model
