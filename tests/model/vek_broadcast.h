// BROADCAST.
#pragma once

#include "model/model.h"

namespace vek_model {

// Elements of `width` bytes, which repeat along C, H and W as told.
void Broadcast(u32 width, const Buf& in, const Buf& out, bool c, bool h, bool w, Memory& in_data,
               Memory& out_data);

std::unique_ptr<Model> MakeBroadcast();

}  // namespace vek_model
