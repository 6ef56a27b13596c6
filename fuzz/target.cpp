// One fuzz target: VEK_FUZZ_TARGET names the layer type, or "list".
#include "run_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vek_fuzz::RunTarget(VEK_FUZZ_TARGET, data, size);
  return 0;
}
