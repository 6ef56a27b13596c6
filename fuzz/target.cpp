// One fuzz target: VEK_FUZZ_TARGET names the layer type, or "list".
#include "run_target.h"

// The generator allocates and frees so much that what finds wrong uses of memory outside the library costs most: where a
// block came from, what it holds at first, and how long it stays unused.
extern "C" const char* __asan_default_options() {
  return "malloc_context_size=2:max_malloc_fill_size=0:quarantine_size_mb=1";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vek_fuzz::RunTarget(VEK_FUZZ_TARGET, data, size);
  return 0;
}
