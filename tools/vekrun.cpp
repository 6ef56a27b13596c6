// vekrun: runs one layer of the plug-in by hand, and tells whether a build gives the recorded results.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <vector>

#include "certify.h"
#include "compare.h"
#include "convert.h"
#include "drawing.h"
#include "info.h"
#include "layer_catalog.h"
#include "run.h"
#include "usage_error.h"

namespace vekrun {
namespace {

enum ExitStatus { kDone = 0, kRefused = 1, kDiffers = 1, kUsage = 2 };

void PrintLayer(const LayerInfo& layer) {
  std::printf("%s: %s\n  %s\n", layer.type, layer.summary, layer.buffers);
  for (const AttributeInfo& attribute : layer.attributes) {
    const std::string state =
        attribute.fallback == nullptr ? "mandatory" : std::string("default ") + attribute.fallback;
    std::printf("  %-15s %-12s %s\n", attribute.key, state.c_str(), attribute.meaning);
  }
  if (layer.note != nullptr) std::printf("  %s\n", layer.note);
}

void List(const std::vector<std::string>& types) {
  for (const std::string& type : types) {
    const LayerInfo* layer = FindLayer(type);
    if (layer == nullptr) throw UsageError("there is no layer type " + type);
    PrintLayer(*layer);
  }
  if (!types.empty()) return;
  for (const LayerInfo& layer : LayerCatalog()) {
    PrintLayer(layer);
    std::putchar('\n');
  }
}

// The attributes of each configuration: --attr values in the order given, parted by --then.
std::vector<AttrMap> Configurations(const CLI::App& run, const CLI::Option* attr, const CLI::Option* then) {
  std::vector<AttrMap> configurations(1);
  std::size_t next = 0;
  for (const CLI::Option* option : run.parse_order()) {
    if (option == then) configurations.emplace_back();
    if (option != attr) continue;
    const std::string& text = attr->results()[next++];
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) throw UsageError("--attr takes key=value, not '" + text + "'");
    if (!configurations.back().emplace(text.substr(0, equals), text.substr(equals + 1)).second) {
      throw UsageError("--attr " + text.substr(0, equals) + " is given twice");
    }
  }
  return configurations;
}

ExitStatus Main(int argc, char** argv) {
  CLI::App app("Runs one layer of libvekcustom.so by hand: from files, to a file.", "vekrun");
  app.set_version_flag("--version", "vekrun " VEK_VERSION);
  app.require_subcommand(1);

  std::vector<std::string> listed;
  CLI::App* list = app.add_subcommand("list", "The layer types: attributes, defaults, accepted formats");
  list->add_option("TYPE", listed, "Only these types");

  RunRequest request;
  std::vector<std::string> attrs;
  CLI::App* run = app.add_subcommand("run", "Run one layer");
  run->add_option("TYPE", request.type, "Layer type, as 'vekrun list' shows them")->required();
  CLI::Option* attr =
      run->add_option("--attr", attrs, "Attribute")->allow_extra_args(false)->type_name("KEY=VALUE");
  CLI::Option* then = run->add_flag("--then")->description(
      "Configure with the attributes so far, then again with the next ones");
  run->add_option("--in", request.inputs, "Input")->allow_extra_args(false)->required();
  run->add_option("--out", request.outputs, "Output")->allow_extra_args(false)->required();
  run->add_option("--plugin", request.plugin,
                  "The plug-in; by default the one next to vekrun, then the system's");
  run->add_option("--log", request.log_level, "Log threshold")
      ->check(CLI::IsMember({"NONE", "ERROR", "WARNING", "INFO", "DEBUG"}));
  run->add_option("--repeat", request.repeat,
                  "Execute so often; print the plug-in's file, the median time and bytes per second")
      ->check(CLI::Range(1U, 1'000'000'000U));
  run->footer(
      "Files: .npy (float32, int8, uint8, int16, uint16, int32, uint32), .png, .ppm, .pgm, and .bin for a "
      "buffer's\n"
      "bytes as they lie in memory.\n"
      "Options after a file's name: pack=CHANNELS line=BYTES plane=BYTES exp=N zero=N scale=X shape=1x3x8x8\n"
      "type=float32|int8|uint8|int16|uint16|int32|uint32\n"
      "Exit status: 0 done, 1 the layer refused, 2 wrong usage or a file that cannot be read or written.");

  CertifyRequest certificate;
  CLI::App* certify =
      app.add_subcommand("certify", "Compare what the plug-in computes with the recorded certificate");
  certify->add_option("TYPE", certificate.types, "Only these types");
  certify->add_option("--plugin", certificate.plugin, "The plug-in, as for 'vekrun run'");
  certify->add_option("--record", certificate.record, "The certificate; by default the installed one");
  CLI::Option* print =
      certify->add_flag("--print", certificate.print, "Print this build's certificate instead");
  certify->add_option("--cases", certificate.cases, "Print the hash of each case of a layer instead")
      ->type_name("TYPE")
      ->excludes(print);
  certify->footer("Exit status: 0 equal, 1 different, 2 wrong usage.");

  CompareRequest comparison;
  const CLI::App* compare = AddCompare(&app, &comparison);
  InfoRequest looking;
  const CLI::App* info = AddInfo(&app, &looking);
  ConvertRequest conversion;
  const CLI::App* convert = AddConvert(&app, &conversion);
  LayoutRequest drawing;
  const CLI::App* layout = AddLayout(&app, &drawing);

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {  // --help, --version
    app.exit(success);
    return kDone;
  }
  if (*list) {
    List(listed);
    return kDone;
  }
  if (*compare) return Compare(comparison) ? kDone : kDiffers;
  if (*convert) return Convert(conversion) ? kDone : kRefused;
  if (*info) {
    Info(looking);
    return kDone;
  }
  if (*layout) {
    Layout(drawing);
    return kDone;
  }
  if (*certify) return Certify(certificate) ? kDone : kDiffers;
  request.configurations = Configurations(*run, attr, then);
  return Run(request) ? kDone : kRefused;
}

}  // namespace
}  // namespace vekrun

int main(int argc, char** argv) {
  try {
    return vekrun::Main(argc, argv);
  } catch (const std::exception& error) {  // UsageError, a parse error, memory that a file asks for
    std::fflush(stdout);
    std::fprintf(stderr, "vekrun: %s\n", error.what());
    return vekrun::kUsage;
  }
}
