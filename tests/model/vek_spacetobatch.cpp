#include "model/vek_spacetobatch.h"

#include "model/blocks.h"

namespace vek_model {

void SpaceToBatch(u32 width, const Padding& p, const Shape& i, const Shape& o, Memory& in, Memory& out) {
  if (o.n == 0 || o.h == 0 || o.w == 0 || i.n == 0 || p.block_width == 0) return;  // it would divide by it
  for (u32 b = 0; b < o.n; ++b) {
    const u32 n = b % i.n;
    const u32 bh = b / i.n / p.block_width;
    const u32 bw = b / i.n % p.block_width;
    for (u32 h = 0; h < o.h; ++h) {
      for (u32 w = 0; w < o.w; ++w) {
        out.Step();
        const u32 hp = bh + h * p.block_height;
        const u32 wp = bw + w * p.block_width;
        const bool outside = hp < p.top || hp >= u32{i.h + p.top} || wp < p.left || wp >= u32{i.w + p.left};
        for (u32 c = 0; c < o.c; ++c) {
          if (outside) {
            out.Fill(width, o.At(b, c, h, w), p.fill);
          } else {
            out.Move(width, o.At(b, c, h, w), in, i.At(n, c, hp - p.top, wp - p.left));
          }
        }
      }
    }
  }
}

namespace {

class SpaceToBatchModel : public BlocksModel {
 public:
  SpaceToBatchModel() : BlocksModel("vek_spacetobatch.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!Keep(in, out)) return false;
    if (attrs.size() != 2) return Fail("expected 2 attribute, but got %zu", attrs.size());
    if (!ReadNumbers(attrs, "block_shape", {&bh_, &bw_})) return false;
    if (!ReadNumbers(attrs, "paddings", {&top_, &bottom_, &left_, &right_})) return false;
    const Shape i(in_);
    if (bh_ == 0 || (i.h + top_ + bottom_) % bh_ != 0) {
      return Fail(
          "block_height_ parameter incorrect: %d, number of (height+pad_top_+pad_bot_) (%d + %d + %d ) "
          "should be divisible by block_height_",
          D(bh_), D(i.h), D(top_), D(bottom_));
    }
    if (bw_ == 0 || (i.w + left_ + right_) % bw_ != 0) {
      return Fail(
          "block_width_ parameter incorrect: %d, number of (width+pad_left+pad_right) (%d + %d + %d) should "
          "be divisible by block_width_",
          D(bw_), D(i.w), D(left_), D(right_));
    }
    return OutputIs(bw_ * bh_ * i.n, i.c, (left_ + right_ + i.w) / bw_, (top_ + bottom_ + i.h) / bh_) &&
           TakesBuffers();
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (!ArraysGiven(arrays, "Input buffer is NULL", "Output buffer is NULL")) return false;
    const u32 width = WidthToMove(arrays);
    if (width == 0) return false;
    const Format& f = in_.format;
    const Padding padding{bh_, bw_, top_, left_, FixedPointFill(f.q8a ? f.q8a_zero : 0, f.exp, width == 1)};
    SpaceToBatch(width, padding, Shape(in_), Shape(out_), *arrays.in[0], *arrays.out[0]);
    return true;
  }

 private:
  u32 bh_ = 0, bw_ = 0, top_ = 0, bottom_ = 0, left_ = 0, right_ = 0;
};

}  // namespace

std::unique_ptr<Model> MakeSpaceToBatch() { return std::make_unique<SpaceToBatchModel>(); }

}  // namespace vek_model
