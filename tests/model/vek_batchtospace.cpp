#include "model/vek_batchtospace.h"

#include "model/blocks.h"

namespace vek_model {

void BatchToSpace(u32 width, const Crop& crop, const Shape& i, const Shape& o, Memory& in, Memory& out) {
  const u32 bh = crop.block_height;
  const u32 bw = crop.block_width;
  if (o.IsEmpty() || bh == 0 || bw == 0) return;
  // The ends wrap too: a crop just below 2^32 leaves nothing between them.
  for (u32 n = 0; n < o.n; ++n) {
    out.Step();
    for (u32 hu = crop.top; hu < u32{crop.top + o.h}; ++hu) {
      out.Step();
      for (u32 wu = crop.left; wu < u32{crop.left + o.w}; ++wu) {
        for (u32 c = 0; c < o.c; ++c) {
          const u32 batch = (hu % bh * bw + wu % bw) * o.n + n;
          const u32 from = (batch * i.c + c) * i.h * i.w + hu / bh * i.w + wu / bw;
          out.Move(width, o.At(n, c, hu - crop.top, wu - crop.left), in, from);
        }
      }
    }
  }
}

namespace {

class BatchToSpaceModel : public BlocksModel {
 public:
  BatchToSpaceModel() : BlocksModel("vek_batchtospace.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!Keep(in, out)) return false;
    if (attrs.size() != 2) return Fail("expected 2 attribute, but got %zu", attrs.size());
    if (!ReadNumbers(attrs, "block_shape", {&bh_, &bw_})) return false;
    if (!ReadNumbers(attrs, "crops", {&top_, &bottom_, &left_, &right_})) return false;
    if (bh_ == 0 || bw_ == 0 || bw_ * bh_ == 0) return FailOwn();
    const Shape i(in_);
    return OutputIs(i.n / (bw_ * bh_), i.c, i.w * bw_ - left_ - right_, i.h * bh_ - top_ - bottom_) &&
           TakesBuffers();
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (!ArraysGiven(arrays, "Input buffer is NULL", "Output buffer is NULL")) return false;
    const u32 width = WidthToMove(arrays);
    if (width == 0) return false;
    BatchToSpace(width, {bh_, bw_, top_, left_}, Shape(in_), Shape(out_), *arrays.in[0], *arrays.out[0]);
    return true;
  }

 private:
  u32 bh_ = 0, bw_ = 0, top_ = 0, bottom_ = 0, left_ = 0, right_ = 0;
};

}  // namespace

std::unique_ptr<Model> MakeBatchToSpace() { return std::make_unique<BatchToSpaceModel>(); }

}  // namespace vek_model
