// Links the library instead of loading it, and talks to its entry points and log by name.
#include <custom_ops/vek_common.h>
#include <custom_ops/vek_softmax.h>
#include <custom_ops/zeb_log.h>

#include <string>
#include <vector>

int main() {
  set_log_treshold("NONE");
  if (libzeb_log_treshold != 0) return 1;

  zeb::PuxDnnCustomLayer* layer = create_object("SOFTMAX");
  if (dynamic_cast<zeb_custom_ops::VekSoftmax*>(layer) == nullptr) return 2;
  if (layer->Execute(nullptr, nullptr)) return 3;
  destroy_object(layer);

  if (zeb_custom_ops::VekSoftmax::k_expected_attr_ != "axis") return 4;
  std::vector<std::string> elements;
  std::string error;
  if (!zeb_custom_ops::sw_ops_parser::ParseTensor("[1,2]", &elements, &error) || elements.size() != 2)
    return 5;
  return 0;
}
