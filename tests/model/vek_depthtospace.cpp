#include "model/vek_depthtospace.h"

#include "model/blocks.h"

namespace vek_model {

u64 DepthToSpace(u32 width, i32 block, const Shape& i, const Shape& o, Memory& in, Memory& out) {
  const auto b = static_cast<u32>(block);
  const auto out_count = static_cast<i32>(o.Count());
  const u32 rows = o.c * i.h;
  u64 left_out = 0;
  if (b * b == 0 || rows == 0) return 0;  // it would divide by it
  for (u32 p = 0; p < i.Count(); ++p) {
    out.Step();
    const u32 w = p % i.w;
    const u32 q = p / i.w;
    const u32 a = q / rows;
    const u32 r = q % rows;
    const u32 bw = a % b;
    const u32 bh = a / b % b;
    const u32 n = a / (b * b);
    const auto to = static_cast<i32>(bw + b * (w + i.w * (bh + b * (r + n * rows))));
    if (to < out_count) {
      if (to < 0) throw Skip{};  // in front of the output
      out.Move(width, static_cast<u32>(to), in, p);
    } else {
      ++left_out;
    }
  }
  return left_out;
}

namespace {

class DepthToSpaceModel : public BlocksModel {
 public:
  DepthToSpaceModel() : BlocksModel("vek_depthtospace.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!Keep(in, out) || !ReadBlock(attrs, block_)) return false;
    const auto b = static_cast<u32>(block_);
    const Shape i(in_);
    if (b * b == 0 || i.c % (b * b) != 0) {
      return Fail(
          "block_size parameter incorrect: %d, number of channels should be divisible by "
          "block_size*block_size",
          block_);
    }
    return OutputIs(i.n, i.c / (b * b), i.w * b, i.h * b) && TakesBuffers();
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("custom layer not configured.");
    if (!ArraysGiven(arrays, "in_buffers is NULL.", "out_buffers is NULL.")) return false;
    const u32 width = WidthToMove(arrays);
    if (width == 0) return false;
    const u64 left_out = DepthToSpace(width, block_, Shape(in_), Shape(out_), *arrays.in[0], *arrays.out[0]);
    if (left_out > 2000) throw Skip{};
    log.insert(log.end(), left_out, vek_test::Warning("ext_depthtospace.cpp", "buffer overflow attempt"));
    return true;
  }

 private:
  i32 block_ = 0;
};

}  // namespace

std::unique_ptr<Model> MakeDepthToSpace() { return std::make_unique<DepthToSpaceModel>(); }

}  // namespace vek_model
