// The log threshold, the words of the levels, and the setter.
#include "custom_ops/zeb_log.h"

#include <cstdio>
#include <cstring>

std::int32_t libzeb_log_treshold = 2;

const char* libzeb_log_str[5] = {"NONE", "ERROR", "WARNING", "INFO", "DEBUG"};

void set_log_treshold(const char* name) {
  for (std::int32_t level = 0; level < 5; ++level) {
    if (std::strcmp(name, libzeb_log_str[level]) == 0) {
      // Relaxed, as in VEK_LOG: threads that run layers meanwhile see the old value or the new one.
      __atomic_store_n(&libzeb_log_treshold, level, __ATOMIC_RELAXED);
      return;
    }
  }
  std::puts("ERROR: Unknown log treshold.");
}
