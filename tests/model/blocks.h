// What the layers that move blocks share: DEPTHTOSPACE, SPACETODEPTH, SPACETOBATCH, BATCHTOSPACE.
#pragma once

#include "model/model.h"

namespace vek_model {

class BlocksModel : public Model {
 protected:
  using Model::Model;

  // The counts; then the descriptions are kept.
  bool Keep(const std::vector<Buf>& in, const std::vector<Buf>& out);
  bool OutputIs(u32 batch, u32 channels, u32 width, u32 height);
  // Formats, layouts and sizes; then the layer is configured.
  bool TakesBuffers();
  bool ReadBlock(const AttrMap& attrs, i32& block);
  // The first numbers of a list attribute.
  bool ReadNumbers(const AttrMap& attrs, const char* key, std::initializer_list<u32*> numbers);
  // The element width, 0 after a refusal.
  u32 WidthToMove(const Arrays& arrays);

  Buf in_;
  Buf out_;
};

}  // namespace vek_model
