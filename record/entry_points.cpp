// The recorder's door: the entry points and log symbols of the plug-in, for a runtime that loads this library instead.
#include "custom_ops/vek_common.h"
#include "custom_ops/zeb_log.h"
#include "record/real_library.h"
#include "record/recorded_layer.h"
#include "record/recording.h"

// The real library's log reads these: see RealLibrary. A host executable that exports variables of these names wins over
// them as it does over the library's.
std::int32_t libzeb_log_treshold = 2;
const char* libzeb_log_str[5] = {"NONE", "ERROR", "WARNING", "INFO", "DEBUG"};

void set_log_treshold(const char* name) {
  if (const auto* real = vek_record::RealLibrary::Get()) real->set_log_treshold(name);
}

zeb::PuxDnnCustomLayer* create_object(const std::string& type) {
  const auto* real = vek_record::RealLibrary::Get();
  if (real == nullptr) return nullptr;
  zeb::PuxDnnCustomLayer* layer = real->create_object(type);
  // Where recording is off the host gets the library's own layers, whose calls then cost nothing more.
  if (!vek_record::Recording::IsOn() || layer == nullptr) return layer;
  zeb::PuxDnnCustomLayer* recorded = vek_record::RecordedLayer::Make(*real, layer, type);
  return recorded != nullptr ? recorded : layer;
}

void destroy_object(zeb::PuxDnnCustomLayer* layer) {
  if (layer == nullptr) return;
  if (auto* recorded = vek_record::RecordedLayer::Find(layer)) {
    delete recorded;
  } else if (const auto* real = vek_record::RealLibrary::Get()) {
    real->destroy_object(layer);
  }
}
