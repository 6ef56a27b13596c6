// Models of the layers that compute.
#include <cmath>

#include "model/model.h"

namespace vek_model {
namespace {

class Softmax : public Model {
 public:
  Softmax() : Model("vek_softmax.cpp") {}
  bool Computes() const override { return true; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.empty()) {
      char line[80];
      std::snprintf(line, sizeof line, "'axis' attribute not defined, using default (%d)", D(axis_));
      log.push_back(Info(file_, line));
    } else {
      if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
      const std::string* axis = Find(attrs, "axis");
      if (!axis) return Fail("expected attribute: axis, got: %s", attrs.begin()->first.c_str());
      axis_ = static_cast<u32>(Long(*axis));
      if (axis_ > 3) return Fail("axis = %d, but should be in range [0..3]", D(axis_));
    }
    if (in.size() != 1 || out.size() != 1) {
      return Fail("expected one input and one output, got: %d inputs, %d outputs", D(in.size()),
                  D(out.size()));
    }
    if (!PlanarFloat(in[0].format)) {
      Fail("unexpected input buffer format");
      PrintFormat(in[0].format);
      return false;
    }
    if (!PlanarFloat(out[0].format)) {
      Fail("unexpected output buffer format");
      PrintFormat(out[0].format);
      return false;
    }
    const std::size_t rank = in[0].dims.size();
    // "greater than D - 1" in unsigned numbers, D being at least the entries there are
    if (axis_ + u64{1} > rank) return Fail("There are %zu dims, but axis is set to %d", rank, D(axis_));
    const u64 need_in = Product(in[0].dims) * 4;
    if (need_in > in[0].size) {
      return Fail("Input buf size should be at least %llu, but is %d",
                  static_cast<unsigned long long>(need_in), D(in[0].size));
    }
    const u64 need_out = Product(out[0].dims) * 4;
    if (need_out > out[0].size) {
      return Fail("Output buf size should be at least %llu, but is %d",
                  static_cast<unsigned long long>(need_out), D(out[0].size));
    }
    if (in[0].IsStrided()) return Fail("strided data detected on input of Softmax, this is not supported.");
    if (in[0].IsInterleaved())
      return Fail("interleaved data detected on input of Softmax, this is not supported.");
    if (out[0].IsStrided()) return Fail("strided data detected on output of Softmax, this is not supported.");
    if (out[0].IsInterleaved())
      return Fail("interleaved data detected on output of Softmax, this is not supported.");
    if (rank < 4) return Fail("Softmax expects input buf dims >= 4, but got %zu", rank);
    if (out[0].dims.size() < 4)
      return Fail("Softmax expects output buf dims >= 4, but got %zu", out[0].dims.size());
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffer is NULL");
    if (arrays.out_null) return Fail("Output buffer is NULL");
    return Kernel(arrays.in[0], arrays.out[0]) || Fail("can't calculate Softmax");
  }

 private:
  bool Kernel(Memory* in, Memory* out) {
    if (!in) return Fail("Softmax_v1 input buffer is null");
    if (!out) return Fail("Softmax_v1 output buffer is null");
    const u32 in_size = Product32(in_.dims);
    const u32 out_size = Product32(out_.dims);
    if (in_size != out_size)
      return Fail("Softmax_v1: in_size != out_size, (%d != %d)", D(in_size), D(out_size));
    const Nchw s(in_);
    u32 len = 0;
    u32 step = 0;
    u32 inner = 0;
    u32 outer = s.n;
    u32 advance = 1;
    switch (axis_) {
      case 0:
        len = s.n, step = s.c * s.h * s.w, inner = step, outer = 1;
        break;
      case 1:
        len = s.c, step = s.h * s.w, inner = step;
        break;
      case 2:
        len = s.h, step = s.w, inner = s.c * s.w;
        break;
      case 3:
        len = s.w, step = 1, inner = s.c * s.h, advance = s.w;
        break;
      default:
        return Fail("Softmax_v1: axis parameter = %d, should be in range [0..3]", D(axis_));
    }
    for (u32 o = 0; o < outer; ++o) {
      budget->Take();
      u32 p = o * inner * len;
      for (u32 i = 0; i < inner; ++i) {
        budget->Take();
        if (len != 0) {
          float m = in->Load<float>(p);
          for (u32 k = 0; k < len; ++k) {
            const float v = in->Load<float>(u32{p + k * step});
            if (v > m) m = v;
          }
          if (out_size < len * step) {
            return Fail("Softmax_v1 tries to access outside of allocated output buffer size");
          }
          float sum = 0;
          for (u32 k = 0; k < len; ++k) {
            const float e = expf(in->Load<float>(u32{p + k * step}) - m);
            out->Store<float>(u32{p + k * step}, e);
            sum += e;
          }
          const float r = 1.0F / sum;
          for (u32 k = 0; k < len; ++k) {
            out->Store<float>(u32{p + k * step}, out->Load<float>(u32{p + k * step}) * r);
          }
        }
        p += advance;
        if (axis_ == 2 && (i + 1) % s.w == 0) p += s.h * s.w - s.w;
      }
    }
    return true;
  }

  u32 axis_ = 1;
  Buf in_;
  Buf out_;
};

class Argmax : public Model {
 public:
  Argmax() : Model("vek_argmax.cpp") {}
  bool Computes() const override { return true; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (in.size() != 1) return Fail("wrong number of inputs, expected: 1, got: %zu", in.size());
    if (out.size() != 1) return Fail("wrong number of outputs, expected: 1, got: %zu", out.size());
    if (!PlanarFloat(in[0].format)) return Fail("unexpected input buffer format");
    if (!PlanarFloat(out[0].format)) return Fail("unexpected output buffer format");
    if (in[0].IsStrided()) return Fail("strided data detected on input, this is not supported.");
    if (out[0].IsStrided()) return Fail("strided data detected on output, this is not supported.");
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
    if (attrs.size() != 1) return Fail("expecting exactly one attribute, got: %zu", attrs.size());
    if (const std::string* text = Find(attrs, "axis")) axis_ = static_cast<i32>(Long(*text));
    if (const std::string* text = Find(attrs, "top_k")) top_k_ = static_cast<u32>(Long(*text));
    if (const std::string* text = Find(attrs, "out_max_val")) out_max_val_ = Long(*text) == 1;
    if (in_.dims.size() > static_cast<u32>(axis_)) return configured_ = true;
    return Fail("There are %zu dims, but axis is set to %d", in_.dims.size(), axis_);
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Argmax custom layer not configured.");
    if (arrays.in_null) return Fail("in_buffers is NULL.");
    if (arrays.out_null) return Fail("out_buffers is NULL.");
    Memory* in = arrays.in[0];
    Memory* out = arrays.out[0];
    if (!in || !out) return Fail("Argmax_v1 input or output buffer is null.");
    const Nchw s(in_);
    const u32 plane = s.h * s.w;
    u32 L = 0;
    u32 stride = 1;
    u32 slices = 0;
    u32 outer = s.n;
    u32 step = 1;
    switch (axis_) {
      case 0:
        L = s.n, stride = s.c * plane, slices = s.c * plane, outer = 1;
        break;
      case 1:
        L = s.c, stride = plane, slices = s.n * plane;
        break;
      case 2:
        L = s.h, stride = s.w, slices = s.n * s.c * s.w;
        break;
      case 3:
        L = s.w, slices = s.n * s.c * s.h, step = s.w;
        break;
      default:
        return Fail("Argmax_v1 wrong argmax axis parameter.");
    }
    const u32 out_count = Product32(out_.dims);
    const u32 needed = slices * outer * top_k_;
    if (out_count < needed) {
      return Fail("Argmax_v1 output buffer too small, expected: %d, received space for: %d  elements.",
                  D(needed), D(out_count));
    }
    if (Product32(in_.dims) < s.n * s.c * s.h * s.w) return Fail("Argmax_v1 input buffer too small.");
    u32 o = 0;
    for (u32 repetition = 0; repetition < outer; ++repetition) {
      u32 base = 0;
      for (u32 slice = 0; slice < slices; ++slice) {
        budget->Take();
        Search(*in, *out, base, L, stride, o);
        base += step;
        if (axis_ == 2 && (slice + 1) % s.w == 0) base += s.h * s.w - s.w;
      }
    }
    return true;
  }

 private:
  using Pair = std::pair<float, u32>;

  void Write(Memory& out, u32& o, const Pair& pair) {
    out.Store<float>(o++, out_max_val_ ? pair.first : static_cast<float>(pair.second));
  }

  void Search(Memory& in, Memory& out, u32 base, u32 L, u32 stride, u32& o) {
    // An axis without elements has no first one to begin with.
    if (L == 0) throw Skip{};
    if (top_k_ == 1) {
      Pair best{in.Load<float>(base), 0};
      for (u32 k = 0; k < L; ++k) {
        const float v = in.Load<float>(u32{base + k * stride});
        if (best.first <= v) best = {v, k};
      }
      return Write(out, o, best);
    }
    if (top_k_ > L) throw Skip{};
    std::vector<Pair> pairs;
    for (u32 k = 0; k < L; ++k) pairs.emplace_back(in.Load<float>(u32{base + k * stride}), k);
    const auto middle = pairs.begin() + top_k_;
    // The standard heaps, by the order of pairs: where neither value is the greater, the index decides.
    std::partial_sort(pairs.begin(), middle, pairs.end(), [](const Pair& a, const Pair& b) {
      return a.first > b.first || (!(b.first > a.first) && a.second > b.second);
    });
    for (auto it = pairs.begin(); it != middle; ++it) Write(out, o, *it);
  }

  Buf in_;
  Buf out_;
  i32 axis_ = 0;
  u32 top_k_ = 1;
  bool out_max_val_ = false;
};

class L2Norm : public Model {
 public:
  L2Norm() : Model("vek_l2norm.cpp") {}
  bool Computes() const override { return true; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (in.size() != 1) return Fail("wrong number of inputs, expected: 1, got: %zu", in.size());
    if (out.size() != 1) return Fail("wrong number of outputs, expected: 1, got: %zu", out.size());
    if (!PlanarFloat(in[0].format)) {
      Fail("unexpected input buffer format");
      PrintFormat(in[0].format);
      return false;
    }
    if (!PlanarFloat(out[0].format)) {
      Fail("unexpected output buffer format");
      PrintFormat(out[0].format);
      return false;
    }
    if (in[0].IsStrided()) return Fail("strided data detected on input, this is not supported.");
    if (out[0].IsStrided()) return Fail("strided data detected on output, this is not supported.");
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
    if (const std::string* text = Find(attrs, "across_spatial")) across_ = Long(*text) == 1;
    if (const std::string* text = Find(attrs, "channel_shared")) shared_ = Long(*text) == 1;
    if (!shared_ && in_.At(1) > 1 << 16) throw Skip{};  // a list of so many scales
    scales_ = shared_ ? 1 : in_.At(1);
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("L2Norm custom layer not configured.");
    if (arrays.in_null) return Fail("in_buffers is NULL.");
    if (arrays.out_null) return Fail("out_buffers is NULL.");
    Memory* in = arrays.in[0];
    Memory* out = arrays.out[0];
    if (!in || !out) return Fail("L2norm_v1 input or output buffer is null.");
    if (Product32(in_.dims) != Product32(out_.dims)) return Fail("L2norm_v1 wrong size of buffers.");
    const Nchw s(in_);
    if (!shared_ && scales_ != s.c) {
      return Fail("L2norm_v1 scale is not shared between channels, not enough scale params.");
    }
    const u32 plane = s.h * s.w;
    for (u32 n = 0; n < s.n; ++n) {
      budget->Take();
      const u32 start = n * s.c * plane;
      if (across_) {
        One(*in, *out, start, s.c * plane);
      } else {
        for (u32 c = 0; c < s.c; ++c) One(*in, *out, start + c * plane, plane);
      }
    }
    return true;
  }

 private:
  void One(Memory& in, Memory& out, u32 start, u32 count) {
    budget->Take();
    float sum = 0;
    for (u32 i = 0; i < count; ++i) {
      const float x = in.Load<float>(u32{start + i});
      sum = fmaf(x, x, sum);
    }
    const float norm = sqrtf(sum);
    for (u32 i = 0; i < count; ++i) {
      const float x = in.Load<float>(u32{start + i});
      out.Store<float>(u32{start + i}, norm != 0.0F ? x / norm : x);
    }
  }

  Buf in_;
  Buf out_;
  bool across_ = true;
  bool shared_ = true;
  u32 scales_ = 0;
};

class Eltwise : public Model {
 public:
  Eltwise() : Model("vek_ewo.cpp") {}
  bool Computes() const override { return true; }
  std::size_t InputsRead() const override { return in_.size(); }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (in.empty()) return Fail("wrong number of inputs, expected at least 1, got: %zu", in.size());
    if (out.size() != 1) return Fail("wrong number of outputs, expected: 1, got: %zu", out.size());
    in_.insert(in_.end(), in.begin(), in.end());
    if (attrs.empty()) return Fail("expecting at least one attribute, got: %zu", attrs.size());
    const std::string* method = Find(attrs, "method");
    if (!method) return Fail("expected EWO method parameter: method not found.");
    method_ = static_cast<i32>(Long(*method));
    if (method_ != 0 && method_ != 1 && method_ != 6 && method_ != 7) {
      return Fail("unknown EWO method parameter: %d.", method_);
    }
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
    if (const std::string* text = Find(attrs, "broadcast_A")) {
      if ((a_.on = Long(*text) == 1)) {
        const std::string* word = Find(attrs, "word_A");
        if (!word) return Fail("expected EWO word_A parameter: word_A not found.");
        a_.word = std::strtoul(word->c_str(), nullptr, 0) & 15;
      }
    }
    if (const std::string* text = Find(attrs, "broadcast_B")) {
      if ((b_.on = Long(*text) == 1)) {
        const std::string* word = Find(attrs, "word_B");
        if (!word) return Fail("expected EWO word_B parameter: word_B not found.");
        b_.word = std::strtoul(word->c_str(), nullptr, 0) & 15;
      }
    }
    for (const Buf& buf : in) {
      if (!PlanarFloat(buf.format)) {
        Fail("unexpected input buffer format");
        PrintFormat(buf.format);
        return false;
      }
      if (buf.IsStrided()) return Fail("strided data detected on input, this is not supported.");
    }
    if (!PlanarFloat(out[0].format)) {
      Fail("unexpected output buffer format");
      PrintFormat(out[0].format);
      return false;
    }
    if (out[0].IsStrided()) return Fail("strided data detected on output, this is not supported.");
    for (std::size_t i = 0; i < in.size(); ++i) {
      if (in[i].size < BytesUp(in[i])) {
        return Fail("input %d size too small, size: %d bytes vs expected at least: %llu bytes.", D(i),
                    D(in[i].size), static_cast<unsigned long long>(BytesUp(in[i])));
      }
    }
    if (out[0].size < BytesUp(out[0])) {
      return Fail("output buffer size too small, size: %d bytes vs expected at least: %llu bytes.",
                  D(out[0].size), static_cast<unsigned long long>(BytesUp(out[0])));
    }
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("custom layer not configured.");
    if (arrays.in_null) return Fail("in_buffers is NULL.");
    if (arrays.out_null) return Fail("out_buffers is NULL.");
    for (std::size_t i = 0; i < in_.size(); ++i) {
      if (!arrays.in[i]) return Fail("Input buffer %u pointer is NULL", static_cast<unsigned>(i));
    }
    if (method_ != 0 && method_ != 1 && method_ != 6 && method_ != 7) {
      return Fail("EWO operation not supported, method: %d.", method_);
    }
    if (!arrays.out[0]) throw Skip{};  // nothing is said of it
    Memory& out = *arrays.out[0];
    const Nchw s(in_[0]);
    if (method_ == 1 || method_ == 7) {
      for (u32 i = 0; i < s.n * s.c * s.h * s.w; ++i) {
        const float x = arrays.in[0]->Load<float>(i);
        out.Store<float>(i, method_ == 1 ? x + k_ : k_ != -1.0F ? powf(x, k_) : -k_ / x);
      }
    } else if (method_ == 0 && a_.word == 3) {
      PerChannel(*arrays.in[1], *arrays.in[0], out, Nchw(in_[1]));
    } else if (method_ == 0 && b_.word == 3) {
      PerChannel(*arrays.in[0], *arrays.in[1], out, s);
    } else {
      for (u32 n = 0; n < s.n; ++n) {
        for (u32 c = 0; c < s.c; ++c) {
          for (u32 h = 0; h < s.h; ++h) {
            budget->Take();
            for (u32 w = 0; w < s.w; ++w) {
              const float a = arrays.in[0]->Load<float>(a_.Index(s, n, c, h, w));
              const float b = arrays.in[1]->Load<float>(b_.Index(s, n, c, h, w));
              out.Store<float>(u32{n * s.c * s.h * s.w + c * s.h * s.w + h * s.w + w},
                               method_ == 0 ? a * b : a / b);
            }
          }
          budget->Take();
        }
        budget->Take();
      }
    }
    return true;
  }

 private:
  struct Operand {
    bool on = false;
    u64 word = 0;  // stays when it is switched off, and still chooses the kernel of products

    u32 Index(const Nchw& s, u32 n, u32 c, u32 h, u32 w) const {
      if (!on) return n * s.c * s.h * s.w + c * s.h * s.w + h * s.w + w;
      const u32 C = word & 4 ? 1 : s.c;
      const u32 H = word & 2 ? 1 : s.h;
      const u32 W = word & 1 ? 1 : s.w;
      return (word & 8 ? 0 : n * C * H * W) + (word & 4 ? 0 : c * H * W) + (word & 2 ? 0 : h * W) +
             (word & 1 ? 0 : w);
    }
  };

  void PerChannel(Memory& full, Memory& per_channel, Memory& out, const Nchw& s) {
    const u32 plane = s.h * s.w;
    for (u32 i = 0; i < s.n * s.c * s.h * s.w; ++i) {
      out.Store<float>(i, per_channel.Load<float>(plane == 0 ? 0 : i / plane) * full.Load<float>(i));
    }
  }

  std::vector<Buf> in_;
  i32 method_ = 0;
  float k_ = 1.0F;
  Operand a_;
  Operand b_;
};

class Matmul : public Model {
 public:
  Matmul() : Model("vek_matmul.cpp") {}
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
    if (Product(in[0].dims) > in[0].size) {
      return Fail("First input buf size should be at least %d, but is %d", D(Product(in[0].dims)),
                  D(in[0].size));
    }
    if (Product(out[0].dims) > out[0].size) {
      return Fail("Output buf size should be at least %d, but is %d", D(Product(out[0].dims)),
                  D(out[0].size));
    }
    if (!PlanarFloat(in[0].format)) return Fail("unexpected input buffer format");
    if (!PlanarFloat(out[0].format)) return Fail("unexpected output buffer format");
    a_ = b_ = in[0];
    if (in.size() == 2) {
      if (Product(in[1].dims) > in[1].size) {
        return Fail("Second input buf size should be at least %d, but is %d", D(Product(in[1].dims)),
                    D(in[1].size));
      }
      if (!PlanarFloat(in[1].format)) return Fail("unexpected input buffer format");
      b_ = in[1];
    }
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffer is NULL");
    if (arrays.out_null) return Fail("Output buffer is NULL");
    if (num_inputs_ != 1 && num_inputs_ != 2) return Fail("can't calculate Matmul");
    if (!arrays.in[0] || !arrays.out[0] || (num_inputs_ == 2 && !arrays.in[1]))
      throw Skip{};  // nothing is said of it
    Memory& out = *arrays.out[0];
    if (num_inputs_ == 2 && arrays.in[0] != arrays.in[1]) {
      AB(out, *arrays.in[0], *arrays.in[1], Nchw(a_), Nchw(b_));
    } else if (trans_b_) {
      AAT(out, *arrays.in[0], Nchw(a_));
    } else {
      AB(out, *arrays.in[0], *arrays.in[0], Nchw(a_), Nchw(a_));
    }
    return true;
  }

 private:
  void AB(Memory& out, Memory& a, Memory& b, const Nchw& as, const Nchw& bs) {
    const u32 M = as.c;
    const u32 K = as.h * as.w;
    const u32 P = bs.h * bs.w;
    if (as.n == 0 || M == 0 || P == 0) return;
    for (u32 n = 0; n < as.n; ++n) {
      for (u32 i = 0; i < M; ++i) {
        for (u32 j = 0; j < P; ++j) {
          double sum = 0;
          for (u32 k = 0; k < K; ++k) {
            const float product =
                a.Load<float>(u32{n * M * K + i * K + k}) * b.Load<float>(u32{n * bs.c * P + k * P + j});
            sum += double{product};
          }
          out.Store<float>(u32{n * M * P + i * P + j}, static_cast<float>(sum));
        }
      }
    }
  }
  void AAT(Memory& out, Memory& a, const Nchw& s) {
    const u32 M = s.c;
    const u32 K = s.h * s.w;
    for (u32 n = 0; n < s.n; ++n) {
      budget->Take();
      for (u32 i = 0; i < M; ++i) {
        for (u32 j = i; j < M; ++j) {
          double sum = 0;
          for (u32 k = 0; k < K; ++k) {
            const float product =
                a.Load<float>(u32{n * M * K + i * K + k}) * a.Load<float>(u32{n * M * K + j * K + k});
            sum += double{product};
          }
          out.Store<float>(u32{n * M * M + i * M + j}, static_cast<float>(sum));
          out.Store<float>(u32{n * M * M + j * M + i}, static_cast<float>(sum));
        }
      }
    }
  }

  bool trans_b_ = false;
  std::size_t num_inputs_ = 0;
  Buf a_;
  Buf b_;
};

}  // namespace

std::unique_ptr<Model> MakeNumericModel(const std::string& type) {
  if (type == "SOFTMAX") return std::make_unique<Softmax>();
  if (type == "ARGMAX") return std::make_unique<Argmax>();
  if (type == "NORMALIZE") return std::make_unique<L2Norm>();
  if (type == "ELTWISE") return std::make_unique<Eltwise>();
  if (type == "MATMUL") return std::make_unique<Matmul>();
  return nullptr;
}

}  // namespace vek_model
