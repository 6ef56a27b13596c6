/// \file
/// Loads the plug-in as the runtime does: by path, through the dynamic loader.
#pragma once

#include <memory>
#include <string>

#include "zeb/pux_dnn_custom_layer.h"

namespace vek_host {

/// A loaded plug-in. Its layers must be gone before it is.
class Plugin {
 public:
  /// A layer goes back to the plug-in that made it.
  using Layer = std::unique_ptr<zeb::PuxDnnCustomLayer, void (*)(zeb::PuxDnnCustomLayer*)>;

  /// Loads the library; a name without a slash is searched for as the dynamic loader does.
  /// Throws `std::runtime_error` with the loader's text where it or one of its entry points is missing.
  explicit Plugin(const std::string& path);

  /// \return the file that was loaded, as the dynamic loader names it: of several for a name, the one that it took.
  std::string Path() const;

  /// \return a new layer, or null for a type name that the plug-in does not serve.
  Layer MakeLayer(const std::string& type) const { return {create_object_(type), destroy_object_}; }

  /// Sets the threshold of the plug-in's log: "NONE", "ERROR", "WARNING", "INFO" or "DEBUG".
  void SetLogThreshold(const std::string& level) const { set_log_treshold_(level.c_str()); }

 private:
  std::unique_ptr<void, int (*)(void*)> library_;
  zeb::PuxDnnCustomLayer* (*create_object_)(const std::string&);
  void (*destroy_object_)(zeb::PuxDnnCustomLayer*);
  void (*set_log_treshold_)(const char*);
};

}  // namespace vek_host
