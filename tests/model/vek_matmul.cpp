#include "model/vek_matmul.h"

namespace vek_model {
namespace {

// A row and a column, or two rows: single-precision products, summed in doubles.
float Dot(u32 count, Memory& a, u32 a_start, Memory& b, u32 b_start, u32 b_step) {
  double sum = 0;
  for (u32 k = 0; k < count; ++k) {
    const float product = a.Load<float>(u32{a_start + k}) * b.Load<float>(u32{b_start + k * b_step});
    sum += double{product};
  }
  return static_cast<float>(sum);
}

}  // namespace

void AB(Memory& out, Memory& a, const Shape& as, Memory& b, const Shape& bs) {
  const u32 M = as.c;
  const u32 K = as.h * as.w;
  const u32 P = bs.h * bs.w;
  if (as.n == 0 || M == 0 || P == 0) return;
  for (u32 n = 0; n < as.n; ++n) {
    for (u32 i = 0; i < M; ++i) {
      for (u32 j = 0; j < P; ++j) {
        out.Store(u32{n * M * P + i * P + j}, Dot(K, a, n * M * K + i * K, b, n * bs.c * P + j, P));
      }
    }
  }
}

void AAT(Memory& out, Memory& a, const Shape& as) {
  const u32 M = as.c;
  const u32 K = as.h * as.w;
  for (u32 n = 0; n < as.n; ++n) {
    out.Step();
    for (u32 i = 0; i < M; ++i) {
      for (u32 j = i; j < M; ++j) {
        const float sum = Dot(K, a, n * M * K + i * K, a, n * M * K + j * K, 1);
        out.Store(u32{n * M * M + i * M + j}, sum);
        out.Store(u32{n * M * M + j * M + i}, sum);
      }
    }
  }
}

namespace {

class MatmulModel : public Model {
 public:
  MatmulModel() : Model("vek_matmul.cpp") {}
  bool Computes() const override { return true; }
  std::size_t InputsRead() const override { return num_inputs_ == 2 ? 2 : 1; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
    const std::string* trans_b = Find(attrs, "trans_b");
    if (!trans_b) return Fail("expected attribute: trans_b, got: %s", attrs.begin()->first.c_str());
    trans_b_ = *trans_b == "1";
    num_inputs_ = in.size();
    if (in.empty() || in.size() > 2 || out.size() != 1) {
      return Fail("expected one/two input and one output, got: %d inputs, %d outputs", D(in.size()),
                  D(out.size()));
    }
    if (!HasElements("First input", in[0]) || !HasElements("Output", out[0])) return false;
    if (!vek_model::IsPlanarFloat(in[0].format)) return Fail("unexpected input buffer format");
    if (!vek_model::IsPlanarFloat(out[0].format)) return Fail("unexpected output buffer format");
    a_ = b_ = in[0];
    if (in.size() == 2) {
      if (!HasElements("Second input", in[1])) return false;
      if (!vek_model::IsPlanarFloat(in[1].format)) return Fail("unexpected input buffer format");
      b_ = in[1];
    }
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (!ArraysGiven(arrays, "Input buffer is NULL", "Output buffer is NULL")) return false;
    if (num_inputs_ != 1 && num_inputs_ != 2) return Fail("can't calculate Matmul");
    Memory* a = arrays.in[0];
    Memory* b = num_inputs_ == 2 ? arrays.in[1] : a;
    Memory* out = arrays.out[0];
    if (!a || !b || !out) throw Skip{};  // nothing is said of it
    if (a != b) {
      AB(*out, *a, Shape(a_), *b, Shape(b_));
    } else if (trans_b_) {
      AAT(*out, *a, Shape(a_));
    } else {
      AB(*out, *a, Shape(a_), *a, Shape(a_));
    }
    return true;
  }

 private:
  bool trans_b_ = false;
  std::size_t num_inputs_ = 0;
  Buf a_;
  Buf b_;
};

}  // namespace

std::unique_ptr<Model> MakeMatmul() { return std::make_unique<MatmulModel>(); }

}  // namespace vek_model
