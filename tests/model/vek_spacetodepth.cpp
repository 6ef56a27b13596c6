#include "model/vek_spacetodepth.h"

#include "model/blocks.h"

namespace vek_model {

void SpaceToDepth(u32 width, i32 block, const Shape& i, const Shape& o, Memory& in, Memory& out) {
  const auto b = static_cast<u32>(block);
  if (i.IsEmpty() || b == 0) return;
  for (u32 n = 0; n < i.n; ++n) {
    for (u32 h = 0; h < i.h; ++h) {
      for (u32 w = 0; w < i.w; ++w) {
        for (u32 c = 0; c < i.c; ++c) {
          const u32 channel = (h % b * b + w % b) * i.c + c;
          out.Move(width, o.At(n, channel, h / b, w / b), in, i.At(n, c, h, w));
        }
      }
    }
  }
}

namespace {

class SpaceToDepthModel : public BlocksModel {
 public:
  SpaceToDepthModel() : BlocksModel("vek_spacetodepth.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!Keep(in, out) || !ReadBlock(attrs, block_)) return false;
    const auto b = static_cast<u32>(block_);
    const Shape i(in_);
    if (i.w % b != 0) {
      return Fail("block_size parameter incorrect: %d, number of width %d should be divisible by block_size",
                  block_, D(i.w));
    }
    if (i.h % b != 0) {
      return Fail("block_size parameter incorrect: %d, number of height %d should be divisible by block_size",
                  block_, D(i.h));
    }
    return OutputIs(i.n, b * b * i.c, i.w / b, i.h / b) && TakesBuffers();
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("custom layer not configured.");
    if (!ArraysGiven(arrays, "in_buffers is NULL.", "out_buffers is NULL.")) return false;
    const u32 width = WidthToMove(arrays);
    if (width == 0) return false;
    SpaceToDepth(width, block_, Shape(in_), Shape(out_), *arrays.in[0], *arrays.out[0]);
    return true;
  }

 private:
  i32 block_ = 0;
};

}  // namespace

std::unique_ptr<Model> MakeSpaceToDepth() { return std::make_unique<SpaceToDepthModel>(); }

}  // namespace vek_model
