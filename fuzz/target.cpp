// One fuzz target: VEK_FUZZ_TARGET names the layer type, or "list".
#include <cstring>

#include "layer_case.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (std::strcmp(VEK_FUZZ_TARGET, "list") == 0) {
    vek_fuzz::RunListCase(data, size);
  } else {
    vek_fuzz::RunLayerCase(VEK_FUZZ_TARGET, data, size);
  }
  return 0;
}
