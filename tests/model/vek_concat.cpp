#include "model/vek_concat.h"

namespace vek_model {

void Concat(u32 width, const std::vector<Dims>& dims, u32 axis, const std::vector<Memory*>& in, Memory& out) {
  u32 outer = 1;
  u32 inner = 1;
  for (std::size_t d = 0; d < axis; ++d) outer *= dims[0][d];
  for (std::size_t d = axis + 1; d < dims[0].size(); ++d) inner *= dims[0][d];
  u32 to = 0;
  for (u32 o = 0; o < outer; ++o) {
    for (std::size_t i = 0; i < dims.size(); ++i) {
      out.Step();
      const u32 slab = dims[i][axis] * inner;
      for (u32 x = 0; x < slab; ++x) out.Move(width, to++, *in[i], u32{o * slab + x});
    }
  }
}

namespace {

class ConcatModel : public Model {
 public:
  ConcatModel() : Model("vek_concat.cpp") {}
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
    if (!HaveMovableFormats(in[0], out[0])) return false;
    const std::size_t rank = in[0].dims.size();
    if (rank != 4 && rank != 5)
      return Fail("Concat supports only 4D and 5D tensors. Can't use %zu dims tensors", rank);
    if (static_cast<u32>(axis_) > rank - 1)
      return Fail("There are %zu dims, but axis is set to %d", rank, axis_);
    u64 total = 0;
    for (const Buf& buf : in) {
      if (!HasRoom("Input", buf, Need(buf))) return false;
      total += buf.size;
    }
    if (!HasRoom("Output", out[0], Need(out[0]))) return false;
    if (total > out[0].size) {
      return Fail("Input buffers occupy %lluB, but output buffer is %dB", LLU(total), D(out[0].size));
    }
    for (const Buf& buf : in) {
      if (!IsPlain("input", "Concat", buf)) return false;
    }
    if (!IsPlain("output", "Concat", out[0])) return false;
    in_.insert(in_.end(), in.begin(), in.end());
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffers array is NULL");
    if (!EntriesGiven(arrays, in_.size())) return false;
    if (arrays.out_null) return Fail("Output buffers array is NULL");
    if (!arrays.out[0]) throw Skip{};  // nothing is said of it
    const Format& f = in_[0].format;
    const u32 width = f.float_ ? 4 : WidthOf(f.bitdepth);
    if (width == 0 || (width == 4 && !f.float_)) {
      Fail("Unsupported data format");
      return Fail("can't calculate Concat");
    }
    // The shape that is walked: dims for 5-D tensors and along the batch, accessors else.
    const bool five = in_[0].dims.size() == 5;
    const auto axis = static_cast<u32>(axis_);
    for (std::size_t i = 1; i < in_.size(); ++i) {
      if (!(five ? Fits5(in_[i - 1], in_[i], axis) : Fits4(in_[i - 1], in_[i], axis))) {
        return Fail("can't calculate Concat");
      }
    }
    if (axis > (five ? 4U : 3U)) return Fail("can't calculate Concat");
    std::vector<Dims> dims;
    for (const Buf& buf : in_) {
      if (axis == 0 && buf.dims.empty()) throw Skip{};  // no batch to ask for
      dims.push_back(five || axis == 0 ? buf.dims : Dims{buf.At(0), buf.At(1), buf.At(2), buf.At(3)});
    }
    Concat(width, dims, axis, arrays.in, *arrays.out[0]);
    return true;
  }

 private:
  static u64 Need(const Buf& buf) {
    return Product(buf.dims) * static_cast<u64>(i64{buf.format.bitdepth}) / 8;
  }
  bool Fits4(const Buf& a, const Buf& b, u32 axis) {
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

}  // namespace

std::unique_ptr<Model> MakeConcat() { return std::make_unique<ConcatModel>(); }

}  // namespace vek_model
