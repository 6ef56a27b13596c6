#include "list.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "layer_catalog.h"
#include "suggestion.h"
#include "usage_error.h"

namespace vekrun {
namespace {

void Print(const LayerInfo& layer) {
  std::printf("%s: %s\n  %s\n", layer.type, layer.summary, layer.buffers);
  for (const AttributeInfo& attribute : layer.attributes) {
    const std::string state =
        attribute.fallback == nullptr ? "mandatory" : std::string("default ") + attribute.fallback;
    std::printf("  %-15s %-12s %s\n", attribute.key, state.c_str(), attribute.meaning);
  }
  if (layer.note != nullptr) std::printf("  %s\n", layer.note);
  std::printf("  ONNX: %s\n  NumPy: %s\n", layer.onnx, layer.numpy);
}

nlohmann::ordered_json TextOrNull(const char* text) {
  return text == nullptr ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

nlohmann::ordered_json ToJson(const LayerInfo& layer) {
  nlohmann::ordered_json attributes = nlohmann::ordered_json::array();
  for (const AttributeInfo& attribute : layer.attributes) {
    attributes.push_back({{"key", attribute.key},
                          {"default", TextOrNull(attribute.fallback)},
                          {"mandatory", attribute.fallback == nullptr},
                          {"meaning", attribute.meaning}});
  }
  return {{"type", layer.type},       {"summary", layer.summary},       {"buffers", layer.buffers},
          {"attributes", attributes}, {"note", TextOrNull(layer.note)}, {"onnx", layer.onnx},
          {"numpy", layer.numpy}};
}

}  // namespace

CLI::App* AddList(CLI::App* app, ListRequest* request) {
  CLI::App* list = app->add_subcommand("list", "The layer types: attributes, defaults, accepted formats");
  list->add_option("TYPE", request->types, "Only these types");
  list->add_flag("--json", request->json, "Print them as JSON");
  return list;
}

void List(const ListRequest& request) {
  std::vector<const LayerInfo*> layers;
  std::vector<std::string> names;
  for (const LayerInfo& layer : LayerCatalog()) {
    names.emplace_back(layer.type);
    if (request.types.empty()) layers.push_back(&layer);
  }
  for (const std::string& type : request.types) {
    layers.push_back(FindLayer(type));
    if (layers.back() == nullptr)
      throw UsageError("there is no layer type " + type + DidYouMean(type, names));
  }
  nlohmann::ordered_json json = nlohmann::ordered_json::array();
  for (const LayerInfo* layer : layers) {
    if (request.json) {
      json.push_back(ToJson(*layer));
      continue;
    }
    Print(*layer);
    if (request.types.empty()) std::putchar('\n');
  }
  if (request.json) std::printf("%s\n", json.dump(2).c_str());
}

}  // namespace vekrun
