#include "model/blocks.h"

#include "model/list.h"

namespace vek_model {

bool BlocksModel::Keep(const std::vector<Buf>& in, const std::vector<Buf>& out) {
  if (!CountsAreOne(in, out)) return false;
  in_ = in[0];
  out_ = out[0];
  return true;
}

bool BlocksModel::OutputIs(u32 batch, u32 channels, u32 width, u32 height) {
  const Shape o(out_);
  if (o.n != batch) return Fail("wrong output batch: %d, should be: %d", D(o.n), D(batch));
  if (o.c != channels) return Fail("wrong output channels: %d, should be: %d", D(o.c), D(channels));
  if (o.w != width) return Fail("wrong output width: %d, should be: %d", D(o.w), D(width));
  if (o.h != height) return Fail("wrong output height: %d, should be: %d", D(o.h), D(height));
  return true;
}

bool BlocksModel::TakesBuffers() {
  if (in_.format.bitdepth != out_.format.bitdepth) {
    return Fail("input bitdepth: %d, differs from output bitdepth: %d", in_.format.bitdepth,
                out_.format.bitdepth);
  }
  if (in_.format.plane_pack != 1 || out_.format.plane_pack != 1) {
    return Fail("expected interleaving: 1, instead got interleaving on input: %d, on output: %d",
                in_.format.plane_pack, out_.format.plane_pack);
  }
  if (in_.IsStrided() || out_.IsStrided()) {
    return Fail("buffer with stride detected on input or output, which is not supported.");
  }
  if (!HasBytes("input buffer", in_) || !HasBytes("output buffer", out_)) return false;
  return configured_ = true;
}

bool BlocksModel::ReadBlock(const AttrMap& attrs, i32& block) {
  if (attrs.size() != 1) return Fail("expecting exactly one attribute, got: %zu", attrs.size());
  const std::string* text = Find(attrs, "block_size");
  if (!text) return Fail("expected operation parameter: block_size not found.");
  block = static_cast<i32>(Long(*text));
  return block >= 1 || Fail("block_size parameter incorrect: %d", block);
}

bool BlocksModel::ReadNumbers(const AttrMap& attrs, const char* key, std::initializer_list<u32*> numbers) {
  const std::string* text = Find(attrs, key);
  if (!text) return Fail("expected operation parameter: %s not found.", key);
  const List list = ParseList(*text);
  if (!list.ok) return Fail("ERROR: %s", list.error.c_str());
  if (list.elements.size() < numbers.size()) return FailOwn();
  std::size_t i = 0;
  for (u32* number : numbers) *number = static_cast<u32>(Long(list.elements[i++]));
  return true;
}

u32 BlocksModel::WidthToMove(const Arrays& arrays) {
  const u32 width = WidthOf(in_.format.bitdepth);
  if (width == 0) Fail("not supported bitdepth: %d.", in_.format.bitdepth);
  if (width != 0 && (!arrays.in[0] || !arrays.out[0])) throw Skip{};  // nothing is said of it
  return width;
}

}  // namespace vek_model
