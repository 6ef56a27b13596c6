#include "run_command.h"

#include <CLI/CLI.hpp>

#include "usage_error.h"

namespace vekrun {
namespace {

// The attributes of each configuration: --attr values in the order given, parted by --then.
std::vector<AttrMap> Configurations(const RunCommand& command) {
  std::vector<AttrMap> configurations(1);
  std::size_t next = 0;
  for (const CLI::Option* option : command.app->parse_order()) {
    if (option == command.then) configurations.emplace_back();
    if (option != command.attr) continue;
    const std::string& text = command.attr->results()[next++];
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) throw UsageError("--attr takes key=value, not '" + text + "'");
    if (!configurations.back().emplace(text.substr(0, equals), text.substr(equals + 1)).second) {
      throw UsageError("--attr " + text.substr(0, equals) + " is given twice");
    }
  }
  return configurations;
}

}  // namespace

CLI::App* AddRun(CLI::App* app, RunCommand* command) {
  RunRequest* const request = &command->request;
  CLI::App* run = app->add_subcommand("run", "Run one layer");
  command->app = run;
  run->add_option("TYPE", request->type, "Layer type, as 'vekrun list' shows them")->required();
  command->attr = run->add_option("--attr", command->attributes, "Attribute")
                      ->allow_extra_args(false)
                      ->type_name("KEY=VALUE");
  command->then = run->add_flag("--then")->description(
      "Configure with the attributes so far, then again with the next ones");
  run->add_option("--in", request->inputs,
                  "Input: a file, or random:SHAPE, ramp:SHAPE, zeros:SHAPE, const:SHAPE")
      ->allow_extra_args(false)
      ->required();
  run->add_option("--out", request->outputs, "Output; - is standard output")->allow_extra_args(false);
  run->add_option("--expect", request->expected,
                  "Compare the output with this file, as 'vekrun compare' does");
  AddToleranceOptions(run, &request->comparison);
  run->add_option("--plugin", request->plugins,
                  "The plug-in; by default the one next to vekrun, then the system's. A second one is "
                  "compared with it")
      ->allow_extra_args(false);
  run->add_option("--log", request->log_level, "Log threshold")
      ->check(CLI::IsMember({"NONE", "ERROR", "WARNING", "INFO", "DEBUG"}));
  CLI::Option* repeat = run->add_option("--repeat", command->timing.repeat, "Time the layer: so many samples")
                            ->check(CLI::Range(1U, 1'000'000'000U));
  run->add_option("--seconds", command->timing.seconds, "Time the layer for so long")
      ->check(CLI::Range(0.001, 86400.0))
      ->excludes(repeat);
  run->add_flag("--cold", command->timing.cold, "Empty the caches before each timed run");
  run->add_option("--shape", request->shapes,
                  "Run once for each shape, which takes the place of {} in --in and --out")
      ->allow_extra_args(false);
  run->add_option("--record", request->record, "Also write a recording into this folder, for 'vekrun replay'")
      ->type_name("FOLDER");
  run->add_option("--json", request->json, "Also write what happened to this file; - is standard output")
      ->type_name("FILE");
  run->footer(
      "Files: .npy, .npz (FILE.npz:MEMBER), .pb (ONNX tensor), .png, .ppm, .pgm, and .bin for a buffer's "
      "bytes as they\n"
      "lie in memory; any other name is that, too, with type= and shape=.\n"
      "Options after a file's name: type=f32|i8|u8|i16|u16|i32|u32 shape=1x3x8x8 pack=CHANNELS line=BYTES "
      "plane=BYTES\n"
      "exp=N zero=N scale=X member=NAME offset=BYTES; of generated inputs seed=N min=X max=X value=X.\n"
      "Exit status: 0 done, 1 the layer refused or failed, or an output is not as expected, 2 wrong usage or "
      "a file that\n"
      "cannot be read or written.");
  return run;
}

RunRequest Finish(const RunCommand& command) {
  RunRequest request = command.request;
  request.configurations = Configurations(command);
  if (command.timing.repeat > 0 || command.timing.seconds > 0) request.timing = command.timing;
  if (command.timing.cold && !request.timing) throw UsageError("--cold is for --repeat or --seconds");
  if (!request.shapes.empty()) {
    std::string all;
    for (const std::string& text : request.inputs) all += text;
    if (all.find("{}") == std::string::npos)
      throw UsageError("--shape takes the place of {} in --in, as in random:{}");
  }
  return request;
}

}  // namespace vekrun
