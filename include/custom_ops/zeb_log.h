/// \file
/// The log of the library: one process-wide threshold and the words that name the levels.
///
/// Lines go to standard output as "[LEVEL] file:line: text". Both variables are reached through the dynamic
/// symbol table, so that a host executable which defines one of them wins.
#pragma once

#include <cstdint>

#include "zeb/export.h"

extern "C" {

/// Messages of a level above this number are not printed: 0 NONE, 1 ERROR, 2 WARNING (the default), 3 INFO,
/// 4 DEBUG. The spelling is part of the interface.
ZEB_EXPORT extern std::int32_t libzeb_log_treshold;

/// The word of each level, read at the moment a line is printed or a name is looked up.
ZEB_EXPORT extern const char* libzeb_log_str[5];

/// Sets the threshold to the level whose word in `libzeb_log_str` equals `name` exactly. An unknown name is
/// reported on standard output and changes nothing.
ZEB_EXPORT void set_log_treshold(const char* name);

}  // extern "C"
