#include "model/vek_argmax.h"

#include <algorithm>
#include <utility>

namespace vek_model {

Searches::Searches(const Shape& s, const ArgmaxSettings& settings)
    : len(s.c * s.h * s.w), stride(1), slices(s.n), outer(s.n) {
  if (!settings.has_axis) return;
  if (settings.axis == 0) len = s.n, stride = slices = s.c * s.h * s.w, outer = 1;
  if (settings.axis == 1) len = s.c, stride = s.h * s.w, slices = s.n * s.h * s.w;
  if (settings.axis == 2) len = s.h, stride = s.w, slices = s.n * s.c * s.w;
  if (settings.axis == 3) len = s.w, slices = s.n * s.c * s.h;
}

void Argmax(const Shape& s, const ArgmaxSettings& settings, Memory& in, Memory& out) {
  using Pair = std::pair<float, u32>;
  const Searches search(s, settings);
  u32 o = 0;
  for (u32 repetition = 0; repetition < search.outer; ++repetition) {
    u32 base = 0;
    out.Step();
    for (u32 slice = 0; slice < search.slices; ++slice) {
      out.Step();
      std::vector<Pair> found;
      for (u32 k = 0; k < search.len; ++k)
        found.emplace_back(in.Load<float>(u32{base + k * search.stride}), k);
      if (settings.top_k == 1) {
        // Without values there is still a result.
        Pair best = found.empty() ? Pair{0.0F, 0} : found[0];
        for (const Pair& pair : found) {
          if (best.first <= pair.first) best = pair;
        }
        found = {best};
      } else {
        // The standard heaps, by the order of pairs: where neither value is the greater, the index decides.
        const u32 ranks = std::min(settings.top_k, search.len);
        std::partial_sort(found.begin(), found.begin() + ranks, found.end(),
                          [](const Pair& a, const Pair& b) {
                            return a.first > b.first || (!(b.first > a.first) && a.second > b.second);
                          });
        found.resize(ranks);
      }
      for (const Pair& pair : found) {
        if (!settings.out_max_val || !settings.has_axis) out.Store(o++, static_cast<float>(pair.second));
        if (settings.out_max_val) out.Store(o++, pair.first);
      }
      base += !settings.has_axis ? search.len : settings.axis == 3 ? s.w : 1;
      if (settings.has_axis && settings.axis == 2 && (slice + 1) % s.w == 0) base += s.h * s.w - s.w;
    }
  }
}

namespace {

class ArgmaxModel : public Model {
 public:
  ArgmaxModel() : Model("vek_argmax.cpp") {}
  bool Computes() const override { return true; }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!CountsAreOne(in, out)) return false;
    if (!vek_model::IsPlanarFloat(in[0].format)) return Fail("unexpected input buffer format");
    if (!vek_model::IsPlanarFloat(out[0].format)) return Fail("unexpected output buffer format");
    if (!IsNotStrided("input", in[0]) || !IsNotStrided("output", out[0])) return false;
    if (!HasBytes("input buffer", in[0]) || !HasBytes("output buffer", out[0])) return false;
    in_ = in[0];
    out_ = out[0];
    if (attrs.size() != 1) return Fail("expecting exactly one attribute, got: %zu", attrs.size());
    if (const std::string* text = Find(attrs, "axis")) settings_.axis = static_cast<i32>(Long(*text));
    if (const std::string* text = Find(attrs, "top_k")) settings_.top_k = static_cast<u32>(Long(*text));
    if (const std::string* text = Find(attrs, "out_max_val")) settings_.out_max_val = Long(*text) == 1;
    if (in_.dims.size() > static_cast<u32>(settings_.axis)) return configured_ = true;
    return Fail("There are %zu dims, but axis is set to %d", in_.dims.size(), settings_.axis);
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Argmax custom layer not configured.");
    if (!ArraysGiven(arrays, "in_buffers is NULL.", "out_buffers is NULL.")) return false;
    if (!arrays.in[0] || !arrays.out[0]) return Fail("Argmax_v1 input or output buffer is null.");
    if (settings_.axis < 0 || settings_.axis > 3) return Fail("Argmax_v1 wrong argmax axis parameter.");
    const Shape shape(in_);
    const Searches search(shape, settings_);
    const u32 out_count = Product32(out_.dims);
    const u32 needed = search.slices * search.outer * settings_.top_k;
    if (out_count < needed) {
      return Fail("Argmax_v1 output buffer too small, expected: %d, received space for: %d  elements.",
                  D(needed), D(out_count));
    }
    if (Product32(in_.dims) < shape.Count()) return Fail("Argmax_v1 input buffer too small.");
    Argmax(shape, settings_, *arrays.in[0], *arrays.out[0]);
    return true;
  }

 private:
  Buf in_;
  Buf out_;
  ArgmaxSettings settings_;
};

}  // namespace

std::unique_ptr<Model> MakeArgmax() { return std::make_unique<ArgmaxModel>(); }

}  // namespace vek_model
