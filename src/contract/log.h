// The log macros. A message stands whole, as one literal, beside the condition that it reports, in the file
// whose name the line must show.
#pragma once

#include <cstdio>

#include "custom_ops/zeb_log.h"

// clang-format off
#define VEK_LEVEL_ERROR   1
#define VEK_LEVEL_WARNING 2
#define VEK_LEVEL_INFO    3
// clang-format on

// One printf. The threshold is read first and once; the arguments are evaluated only when the line is
// printed; the level's word is read from the exported array at that moment.
#define VEK_LOG(level, text, ...)                                                 \
  do {                                                                            \
    if (__atomic_load_n(&libzeb_log_treshold, __ATOMIC_RELAXED) >= (level)) {     \
      std::printf("[%s] %s:%d: " text "\n", libzeb_log_str[level], __FILE_NAME__, \
                  __LINE__ __VA_OPT__(, ) __VA_ARGS__);                           \
    }                                                                             \
  } while (false)

#define VEK_LOG_ERROR(text, ...) VEK_LOG(VEK_LEVEL_ERROR, text __VA_OPT__(, ) __VA_ARGS__)
#define VEK_LOG_WARNING(text, ...) VEK_LOG(VEK_LEVEL_WARNING, text __VA_OPT__(, ) __VA_ARGS__)
#define VEK_LOG_INFO(text, ...) VEK_LOG(VEK_LEVEL_INFO, text __VA_OPT__(, ) __VA_ARGS__)
