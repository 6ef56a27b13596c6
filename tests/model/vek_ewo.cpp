#include "model/vek_ewo.h"

#include <cmath>
#include <cstdlib>

#include "model/exact_math.h"

namespace vek_model {
namespace {

template <typename Combine>
void ForElements(const Shape& s, const Operand& a, Memory& a_data, const Operand& b, Memory& b_data,
                 Memory& out, Combine combine) {
  for (u32 n = 0; n < s.n; ++n) {
    out.Step();
    for (u32 c = 0; c < s.c; ++c) {
      out.Step();
      for (u32 h = 0; h < s.h; ++h) {
        out.Step();
        for (u32 w = 0; w < s.w; ++w) {
          const float x = a_data.Load<float>(a.Index(s, n, c, h, w));
          const float y = b_data.Load<float>(b.Index(s, n, c, h, w));
          out.Store(s.At(n, c, h, w), combine(x, y));
        }
      }
    }
  }
}

}  // namespace

u32 Operand::Index(const Shape& s, u32 n, u32 c, u32 h, u32 w) const {
  if (!repeats) return s.At(n, c, h, w);
  const Shape small(s.n, word & 4 ? 1 : s.c, word & 2 ? 1 : s.h, word & 1 ? 1 : s.w);
  return small.At(word & 8 ? 0 : n, word & 4 ? 0 : c, word & 2 ? 0 : h, word & 1 ? 0 : w);
}

void Add(u32 count, float k, Memory& in, Memory& out) {
  for (u32 i = 0; i < count; ++i) out.Store(i, in.Load<float>(i) + k);
}

void Power(u32 count, float k, Memory& in, Memory& out) {
  for (u32 i = 0; i < count; ++i) {
    const float x = in.Load<float>(i);
    out.Store(i, k != -1.0F ? Pow(x, k) : -k / x);
  }
}

void Multiply(const Shape& shape, const Operand& a, Memory& a_data, const Operand& b, Memory& b_data,
              Memory& out) {
  ForElements(shape, a, a_data, b, b_data, out, [](float x, float y) { return x * y; });
}

void Divide(const Shape& shape, const Operand& a, Memory& a_data, const Operand& b, Memory& b_data,
            Memory& out) {
  ForElements(shape, a, a_data, b, b_data, out, [](float x, float y) { return x / y; });
}

void MultiplyPlanes(const Shape& shape, Memory& full, Memory& per_plane, Memory& out) {
  const u32 plane = shape.h * shape.w;
  for (u32 i = 0; i < shape.Count(); ++i) {
    out.Store(i, per_plane.Load<float>(Quotient(i, plane)) * full.Load<float>(i));
  }
}

namespace {

class EwoModel : public Model {
 public:
  EwoModel() : Model("vek_ewo.cpp") {}
  bool Computes() const override { return true; }
  std::size_t InputsRead() const override { return in_.size(); }
  bool RunsInPlace(std::size_t input) const override {
    if (method_ == 1 || method_ == 7) return input == 0;
    const Operand& operand = input == 0 ? a_ : b_;
    if (method_ == 0 && (a_.word == 3 || b_.word == 3)) return input == (a_.word == 3 ? 1U : 0U);
    return input < 2 && (!operand.repeats || operand.word == 0);
  }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (in.empty()) return Fail("wrong number of inputs, expected at least 1, got: %zu", in.size());
    if (out.size() != 1) return Fail("wrong number of outputs, expected: 1, got: %zu", out.size());
    in_.insert(in_.end(), in.begin(), in.end());
    if (attrs.empty()) return Fail("expecting at least one attribute, got: %zu", attrs.size());
    const std::string* method = Find(attrs, "method");
    if (!method) return Fail("expected EWO method parameter: method not found.");
    method_ = static_cast<i32>(Long(*method));
    if (!IsKnown()) return Fail("unknown EWO method parameter: %d.", method_);
    if ((method_ == 1 || method_ == 7) && in.size() != 1) {
      return Fail("method: %d requires single input buffer, instead got: %zu", method_, in.size());
    }
    if ((method_ == 0 || method_ == 6) && in.size() != 2) {
      return Fail("method: %d requires 2 input buffers, instead got: %zu", method_, in.size());
    }
    const std::string* has_k = Find(attrs, "has_k");
    if (has_k && Long(*has_k) == 1) {
      const std::string* k = Find(attrs, "k");
      if (!k) return Fail("expected EWO k parameter: k not found.");
      k_ = std::strtof(k->c_str(), nullptr);
    }
    if (!ReadOperand(attrs, "broadcast_A", "word_A", a_)) return false;
    if (!ReadOperand(attrs, "broadcast_B", "word_B", b_)) return false;
    for (const Buf& buf : in) {
      if (!IsPlanarFloat("input", buf) || !IsNotStrided("input", buf)) return false;
    }
    if (!IsPlanarFloat("output", out[0]) || !IsNotStrided("output", out[0])) return false;
    for (std::size_t i = 0; i < in.size(); ++i) {
      if (!HasBytes(("input " + std::to_string(i)).c_str(), in[i])) return false;
    }
    return HasBytes("output buffer", out[0]) && (configured_ = true);
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("custom layer not configured.");
    if (!ArraysGiven(arrays, "in_buffers is NULL.", "out_buffers is NULL.")) return false;
    if (!EntriesGiven(arrays, in_.size())) return false;
    if (!IsKnown()) return Fail("EWO operation not supported, method: %d.", method_);
    if (!arrays.out[0]) throw Skip{};  // nothing is said of it
    Memory& out = *arrays.out[0];
    const std::vector<Memory*>& in = arrays.in;
    const Shape shape(in_[0]);
    if (method_ == 1) {
      Add(shape.Count(), k_, *in[0], out);
    } else if (method_ == 7) {
      Power(shape.Count(), k_, *in[0], out);
    } else if (method_ == 6) {
      Divide(shape, a_, *in[0], b_, *in[1], out);
    } else if (a_.word == 3) {
      MultiplyPlanes(Shape(in_[1]), *in[1], *in[0], out);
    } else if (b_.word == 3) {
      MultiplyPlanes(shape, *in[0], *in[1], out);
    } else {
      Multiply(shape, a_, *in[0], b_, *in[1], out);
    }
    return true;
  }

 private:
  bool IsKnown() const { return method_ == 0 || method_ == 1 || method_ == 6 || method_ == 7; }
  bool ReadOperand(const AttrMap& attrs, const char* key, const char* word_key, Operand& operand) {
    const std::string* text = Find(attrs, key);
    if (!text) return true;
    operand.repeats = Long(*text) == 1;
    if (!operand.repeats) return true;
    const std::string* word = Find(attrs, word_key);
    if (!word) return Fail("expected EWO %s parameter: %s not found.", word_key, word_key);
    operand.word = static_cast<u32>(std::strtoul(word->c_str(), nullptr, 0) & 15);
    return true;
  }

  std::vector<Buf> in_;
  i32 method_ = 0;
  float k_ = 1.0F;
  Operand a_;
  Operand b_;
};

}  // namespace

std::unique_ptr<Model> MakeEwo() { return std::make_unique<EwoModel>(); }

}  // namespace vek_model
