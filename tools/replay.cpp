#include "replay.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "interruption.h"
#include "new_file.h"
#include "recorded_call.h"
#include "recording_writer.h"
#include "repeated_layer.h"
#include "replay_page.h"
#include "replayed_call.h"
#include "run.h"
#include "run_report.h"
#include "shrink.h"

namespace vekrun {
namespace {

using Json = nlohmann::ordered_json;

// "12.5 us"; "-" where it is not known.
std::string Duration(std::uint64_t nanoseconds) {
  if (nanoseconds == 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f us", static_cast<double>(nanoseconds) * 1e-3);
  return text;
}

// Finds the bytes of tensors of which a recording has the hash alone in the other recordings.
class TensorsByHash {
 public:
  explicit TensorsByHash(const std::vector<RecordedLayer>& layers) {
    for (const RecordedLayer& layer : layers) {
      for (const RecordedExecute& execute : layer.executes) {
        for (const auto* tensors : {&execute.inputs, &execute.outputs}) {
          if (!*tensors) continue;
          for (const RecordedTensor& tensor : **tensors) {
            if (!tensor.file.empty()) known_.emplace(std::pair(tensor.hash, tensor.bytes), &tensor);
          }
        }
      }
    }
  }

  std::optional<FileBytes> Find(const RecordedTensor& tensor) const {
    std::optional<FileBytes> bytes = BytesOf(tensor);
    if (bytes) return bytes;
    const auto found = known_.find({tensor.hash, tensor.bytes});
    return found == known_.end() ? std::nullopt : BytesOf(*found->second);
  }

 private:
  std::map<std::pair<std::uint64_t, std::uint64_t>, const RecordedTensor*> known_;
};

// Tells of files that are no longer what was recorded.
void WarnOfChanges(const RecordedExecute& execute) {
  for (const auto* tensors : {&execute.inputs, &execute.outputs}) {
    if (!*tensors) continue;
    for (const RecordedTensor& tensor : **tensors) {
      if (tensor.file.empty()) continue;
      const std::optional<FileBytes> bytes = BytesOf(tensor);
      if (HashOf(bytes->data.get(), bytes->size) == tensor.hash) continue;
      std::fprintf(stderr, "vekrun: warning: %s has changed since it was recorded\n", tensor.file.c_str());
    }
  }
}

// The table, row by row, and the report.
class ReplayReport {
 public:
  explicit ReplayReport(const std::vector<RecordedLayer>& layers) {
    for (const RecordedLayer& layer : layers) {
      name_width_ = std::max(name_width_, static_cast<int>(layer.name.size()));
      for (const RecordedExecute& execute : layer.executes) {
        call_width_ = std::max(call_width_, static_cast<int>(std::to_string(execute.number).size() + 8));
      }
    }
    Print("layer", "call", "there", "here", "result");
  }

  void Begin(const RecordedLayer& layer) {
    name_ = layer.name;
    json_.push_back({{"folder", layer.folder},
                     {"type", layer.type},
                     {"machine", layer.machine},
                     {"calls", Json::array()}});
  }

  void Add(const char* function, std::uint64_t number, const RecordedOutcome& there, const RepeatedCall& here,
           const ReplayedCall& call) {
    ++calls_;
    equal_ += call.is_equal ? 1 : 0;
    Print(name_, std::string(function) + " " + std::to_string(number), Duration(there.nanoseconds),
          Duration(here.nanoseconds), call.text);
    name_.clear();
    for (const std::string& detail : call.details) Print("", "", "", "", "  " + detail);
    Json json = {{"function", function},
                 {"number", number},
                 {"equal", call.is_equal},
                 {"difference", nullptr},
                 {"along_axes", call.details},
                 {"compared_bytes", call.compared_bytes},
                 {"outcome", nullptr},
                 {"recorded_outcome", nullptr},
                 {"nanoseconds", here.nanoseconds},
                 {"recorded_nanoseconds", there.nanoseconds},
                 {"log", LogToJson(here.log)}};
    if (!call.is_equal) json["difference"] = call.text;
    if (here.what) json["outcome"] = *here.what;
    if (there.what) json["recorded_outcome"] = *there.what;
    json_.back()["calls"].push_back(std::move(json));
  }

  // What became of a call that was to be made smaller.
  void AddShrunk(const std::string& folder, const std::string& command) {
    json_.back()["shrunk"] = {{"folder", folder}, {"command", command}};
    std::printf("  the smallest call is in %s:\n    %s\n", folder.c_str(), command.c_str());
  }

  bool End(const std::string& path) const {
    const bool all = equal_ == calls_;
    std::printf("%zu of %zu calls are equal\n", equal_, calls_);
    if (!path.empty()) {
      NewFile file(path);
      // Texts are bytes; those of a layer need not be UTF-8.
      file.Write(
          Json{{"layers", json_}, {"calls", calls_}, {"equal", equal_}, {"exit_status", all ? 0 : 1}}.dump(
              2, ' ', false, Json::error_handler_t::replace) +
          "\n");
      file.Publish();
    }
    return all;
  }

 private:
  void Print(const std::string& name, const std::string& call, const std::string& there,
             const std::string& here, const std::string& result) const {
    std::printf("%-*s  %-*s  %11s  %11s  %s\n", name_width_, name.c_str(), call_width_, call.c_str(),
                there.c_str(), here.c_str(), result.c_str());
    std::fflush(stdout);
  }

  int name_width_ = 5;
  int call_width_ = 11;
  std::string name_;
  Json json_ = Json::array();
  std::size_t calls_ = 0;
  std::size_t equal_ = 0;
};

}  // namespace

CLI::App* AddReplay(CLI::App* app, ReplayRequest* request) {
  CLI::App* replay = app->add_subcommand("replay", "Repeat recorded calls and compare what they do");
  replay->add_option("FOLDER", request->folders, "A recording, or the folder of one layer in it")->required();
  replay->add_option("--plugin", request->plugin, "The plug-in, as for 'vekrun run'")->type_name("PATH");
  CLI::Option* shrink =
      replay
          ->add_option(
              "--shrink", request->shrink,
              "Write the smallest call that still goes wrong for each layer that does, as a recording of "
              "its own, into this folder")
          ->type_name("FOLDER");
  replay
      ->add_option("--against", request->against,
                   "For --shrink: a plug-in that is right. Without it, only crashes are made smaller")
      ->type_name("PATH")
      ->needs(shrink);
  replay->add_option("--json", request->json, "Also write the report to this file; - is standard output")
      ->type_name("FILE");
  replay->add_option("--html", request->html, "Also write a page of what differs, and how")
      ->type_name("FILE");
  replay->footer(
      "Exit status: 0 all calls are equal, 1 some are not, 2 wrong usage or a file that cannot be read.");
  return replay;
}

bool Replay(const ReplayRequest& request) {
  if (request.json == "-") KeepStandardOutputForFiles();
  std::vector<RecordedLayer> layers;
  for (const std::string& folder : request.folders) {
    for (RecordedLayer& layer : ReadRecording(folder)) layers.push_back(std::move(layer));
  }
  const vek_host::Plugin plugin = LoadPlugin(request.plugin);
  const std::optional<vek_host::Plugin> reference =
      request.against.empty() ? std::nullopt : std::optional(LoadPlugin(request.against));
  const TensorsByHash tensors(layers);
  const FindBytes find = [&](const RecordedTensor& tensor) { return tensors.Find(tensor); };
  ReplayReport report(layers);
  ReplayPage page;
  for (const RecordedLayer& layer : layers) {
    for (const RecordedExecute& execute : layer.executes) WarnOfChanges(execute);
    report.Begin(layer);
    page.Begin(layer);
    RepeatedLayer here;
    {
      const Step step("repeating " + layer.name);
      here = Repeat(plugin, layer, find);
    }
    std::size_t configures = 0;
    const auto add_configures = [&](std::size_t until) {
      for (; configures < until; ++configures) {
        const RecordedConfigure& there = layer.configures[configures];
        const ReplayedCall call = CompareWithRecorded(there, here.configures[configures]);
        report.Add("Configure", configures + 1, there.outcome, here.configures[configures], call);
        page.Add(there, configures + 1, here.configures[configures], call);
      }
    };
    const RecordedExecute* wrong = nullptr;  // the first
    for (std::size_t i = 0; i < layer.executes.size(); ++i) {
      const RecordedExecute& there = layer.executes[i];
      add_configures(there.configures);
      const ReplayedCall call = CompareWithRecorded(layer, there, here.executes[i]);
      report.Add("Execute", there.number, there.outcome, here.executes[i], call);
      page.Add(layer, there, here.executes[i], call,
               RunCommandLine(layer, there, layer.folder, request.plugin));
      if (!call.is_equal && here.executes[i].is_repeated && wrong == nullptr) wrong = &there;
    }
    add_configures(layer.configures.size());
    if (request.shrink.empty() || wrong == nullptr) continue;
    const Step step("shrinking " + layer.name);
    const vek_host::Plugin* const right = reference ? &*reference : nullptr;
    const std::optional<RecordedLayer> shrunk = Shrink(plugin, right, layer, *wrong, find);
    if (!shrunk) {
      std::fprintf(stderr, "vekrun: %s is not made smaller: %s\n", layer.name.c_str(),
                   right != nullptr ? "both plug-ins do the same, or its descriptions contradict each other"
                                    : "it does not crash; --against names a plug-in to compare with");
      continue;
    }
    const std::string folder =
        WriteRecording(request.shrink, *shrunk, (right != nullptr ? *right : plugin).Path());
    report.AddShrunk(folder, shrunk->executes.empty()
                                 ? ""
                                 : RunCommandLine(*shrunk, shrunk->executes[0], folder, request.plugin));
  }
  if (!request.html.empty()) {
    NewFile file(request.html);
    file.Write(page.Text(plugin.Path()));
    file.Publish();
  }
  return report.End(request.json);
}

}  // namespace vekrun
