// The library that the recorder stands in front of.
#pragma once

#include <string>

#include "record/recording.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace vek_record {

// A loaded library and its entry points. Its log reads the recorder's two variables, not its own: a host that writes them
// reaches it at once.
//
// Where the process has another copy of the library for all to use, one that the host links, say, then the loader takes
// the layers' functions from that one: here as without the recorder. It is what runs, so it is what is heard and named.
struct RealLibrary {
  zeb::PuxDnnCustomLayer* (*create_object)(const std::string& type) = nullptr;
  void (*destroy_object)(zeb::PuxDnnCustomLayer* layer) = nullptr;
  void (*set_log_treshold)(const char* name) = nullptr;
  const char* path = "";      // of the one that runs, as the dynamic loader names it
  Dump file;                  // its size and hash, where recording is on
  bool log_is_heard = false;  // what it prints passes through the recorder

  // The library, loaded at the first call; null, after a line on standard error, where that fails. It is found by
  // VEKRECORD_LIBRARY; without, beside the recorder, as libvekcustom.real.so or else as libvekcustom.so. Safe in threads.
  static const RealLibrary* Get();
};

}  // namespace vek_record
