#include "model/vek_gather.h"

namespace vek_model {

std::string Gather(u32 width, const Dims& dims, u32 axis, Memory& params, Memory& indices, u32 count,
                   Memory& out, u32 capacity) {
  u32 outer = 1;
  u32 inner = 1;
  for (std::size_t d = 0; d < axis; ++d) outer *= dims[d];
  for (std::size_t d = axis + 1; d < dims.size(); ++d) inner *= dims[d];
  for (u32 o = 0; o < outer; ++o) {
    out.Step();
    for (u32 j = 0; j < count; ++j) {
      const u32 index = indices.Load<u32>(j);
      if (index >= dims[axis]) {
        return "Operation broken (in_idx >= axis Size, " + std::to_string(D(index)) + ", " +
               std::to_string(D(dims[axis])) + ")";
      }
      const u32 to = (o * count + j) * inner;
      if (u64{to} + inner > capacity) return "Operation broken (avoiding memory corruption)";
      for (u32 x = 0; x < inner; ++x) {
        out.Move(width, u32{to + x}, params, u32{(o * dims[axis] + index) * inner + x});
      }
    }
  }
  return {};
}

namespace {

class GatherModel : public Model {
 public:
  GatherModel() : Model("vek_gather.cpp") {}
  std::size_t InputsRead() const override { return in_.size(); }
  u32 IndicesBelow(std::size_t input) const override {
    return input == 1 && !in_.empty() && static_cast<u32>(axis_) < in_[0].dims.size()
               ? in_[0].dims[static_cast<std::size_t>(axis_)]
               : 0;
  }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.empty()) {
      Inform("'axis' not defined, using axis=0");
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
    if (!HaveMovableFormats(in[0], out[0])) return false;
    if (static_cast<u64>(axis_) + 1 > in[0].dims.size()) {
      return Fail("There are %zu dims, but axis is set to %d", in[0].dims.size(), axis_);
    }
    for (const Buf& buf : in) {
      if (!HasRoom("Input", buf, Need(buf))) return false;
    }
    if (!HasRoom("Output", out[0], Need(out[0]))) return false;
    for (const Buf& buf : in) {
      if (!IsPlain("input", "Gather", buf)) return false;
    }
    if (!IsPlain("output", "Gather", out[0])) return false;
    in_ = in;
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null) return Fail("Input buffers array is NULL");
    if (!EntriesGiven(arrays, in_.size())) return false;
    if (arrays.out_null) return Fail("Output buffers array is NULL");
    const Format& f = in_[0].format;
    const u32 width = f.float_ ? 4 : WidthOf(f.bitdepth);
    const bool known = width != 0 && (width != 4 || f.float_);
    return (known && Kernel(width, arrays)) || Fail("can't do Gather operation");
  }

 private:
  static u64 Need(const Buf& buf) {
    if (buf.format.bitdepth < 0) throw Skip{};  // a size below nothing
    return static_cast<u64>(i64{buf.format.bitdepth / 8}) * Product(buf.dims);
  }
  bool KernelFails(std::string text) {
    log.push_back(vek_test::Error("ext_gather.cpp", std::move(text)));
    return false;
  }
  bool Kernel(u32 width, const Arrays& arrays) {
    if (!arrays.out[0]) return KernelFails("Gather_v1 output buffer is null");
    const Dims& dims = in_[0].dims;
    const auto axis = static_cast<u32>(axis_);
    const auto rank = static_cast<u32>(dims.size());
    if (axis >= rank) return BeyondTheRank(axis, rank, *arrays.in[1]);
    const std::string complaint = Gather(width, dims, axis, *arrays.in[0], *arrays.in[1],
                                         Product32(in_[1].dims), *arrays.out[0], Shape(out_).Count());
    return complaint.empty() || KernelFails(complaint);
  }
  // A refused Configure left an axis that the tensor does not have: the functions on dims complain, and nothing is moved.
  bool BeyondTheRank(u32 axis, u32 rank, Memory& indices) {
    if (axis > rank) {
      KernelFails("last_axis bigger than num of dims (" + std::to_string(axis) + " > " +
                  std::to_string(rank) + ")");
      KernelFails("dims index (" + std::to_string(axis) + ") is out of dims range (" + std::to_string(rank) +
                  ")");
    }
    const u32 behind = axis + 1;
    if (behind > rank) {
      KernelFails("fisrt_axis > last_axis (" + std::to_string(behind) + " > " + std::to_string(rank) + ")");
    }
    const bool searches = axis == rank && Product32(in_[0].dims) != 0 && Product32(in_[1].dims) != 0;
    return !searches || KernelFails("Operation broken (in_idx >= axis Size, " +
                                    std::to_string(indices.Load<i32>(0)) + ", 0)");
  }

  i32 axis_ = 0;
  std::vector<Buf> in_;
  Buf out_;
};

}  // namespace

std::unique_ptr<Model> MakeGather() { return std::make_unique<GatherModel>(); }

}  // namespace vek_model
