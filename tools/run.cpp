#include "run.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "guarded_run.h"
#include "host/layer_rules.h"
#include "interruption.h"
#include "layer_advice.h"
#include "new_file.h"
#include "operand.h"
#include "recording_writer.h"
#include "run_report.h"
#include "suggestion.h"
#include "tensor_file.h"
#include "timed_run.h"
#include "usage_error.h"

namespace vekrun {
namespace {

using Json = nlohmann::ordered_json;

Operand ReadInput(const std::string& text, std::size_t i) {
  const FileArgument file = ParseFileArgument(text);
  const Step step("reading " + file.name);
  StoredTensor stored = OpenTensor(file);
  if (!IsLayerType(stored.type)) {
    throw UsageError(file.name + " holds " + Name(stored.type) +
                     " elements, which no layer takes; layers take " + TypeNames(/*of_layers_only=*/true) +
                     ", and 'vekrun convert' makes them");
  }
  return {"input " + std::to_string(i), file, stored.attrs, stored};
}

Operand MakeOutput(const std::string& text, const std::string& role, const LayerCall& call) {
  FileArgument file = ParseFileArgument(text);
  AttrMap attrs;
  for (const AttrMap& configuration : call.configurations) {
    for (const auto& [key, value] : configuration) attrs[key] = value;
  }
  std::vector<const zeb::PuxDnnBufAttrs*> in_attrs;
  for (const Operand& input : call.inputs) in_attrs.push_back(&input.attrs);

  const vek_host::LayerRules* layer = vek_host::FindLayerRules(call.type);
  const Dims dims = file.shape         ? *file.shape
                    : layer == nullptr ? in_attrs[0]->GetDims()
                                       : layer->output_shape(attrs, in_attrs);
  const zeb::PuxDnnBufAttrsMemFormat format = file.type ? FormatOf(*file.type) : in_attrs[0]->GetMemFormat();
  if (file.type && !IsLayerType(*file.type))
    throw UsageError(file.name + ": no layer writes " + Name(*file.type));
  if (file.path.empty()) {
    file.name = "not kept";
  } else {
    CheckCanHold(file, TypeOf(format), dims);
  }
  return {role, file, Describe(file, dims, format), std::nullopt};
}

// The text with each {} replaced by the shape.
std::string WithShape(std::string text, const std::string& shape) {
  for (std::size_t at = text.find("{}"); at != std::string::npos; at = text.find("{}", at + shape.size())) {
    text.replace(at, 2, shape);
  }
  return text;
}

LayerCall MakeCall(const RunRequest& request, const std::string& shape) {
  LayerCall call{request.type, request.configurations, {}, {}};
  for (const std::string& text : request.inputs) {
    call.inputs.push_back(ReadInput(shape.empty() ? text : WithShape(text, shape), call.inputs.size()));
  }
  const std::vector<std::string> outputs =
      request.outputs.empty() ? std::vector<std::string>{""} : request.outputs;
  for (const std::string& text : outputs) {
    const std::string role =
        outputs.size() == 1 ? "the output" : "output " + std::to_string(call.outputs.size());
    call.outputs.push_back(MakeOutput(shape.empty() ? text : WithShape(text, shape), role, call));
  }
  return call;
}

// A name for the dynamic loader, which takes the variant for this processor; CMakeLists.txt says where it looks first.
std::string DefaultPlugin() { return "libvekcustom.so"; }

std::vector<vek_host::Plugin> LoadPlugins(const RunRequest& request) {
  std::vector<vek_host::Plugin> plugins;
  if (request.plugins.empty()) plugins.push_back(LoadPlugin(""));
  for (const std::string& path : request.plugins) plugins.push_back(LoadPlugin(path));
  for (const vek_host::Plugin& plugin : plugins) {
    if (!request.log_level.empty()) plugin.SetLogThreshold(request.log_level);
    if (plugin.MakeLayer(request.type) != nullptr) continue;
    std::vector<std::string> types;
    for (const LayerInfo& layer : LayerCatalog()) types.emplace_back(layer.type);
    throw UsageError("the plug-in has no layer type " + request.type + DidYouMean(request.type, types));
  }
  return plugins;
}

// One run, and all that is told of it.
class Session {
 public:
  Session(const RunRequest& request, const std::vector<vek_host::Plugin>& plugins, LayerCall call)
      : request_(request), plugins_(plugins), call_(std::move(call)) {
    report_["layer"] = call_.type;
    report_["attributes"] = call_.configurations;
    for (const Operand& input : call_.inputs) report_["inputs"].push_back(ToJson(input));
    for (const Operand& output : call_.outputs) report_["outputs"].push_back(ToJson(output));
  }

  bool Run() {
    const std::vector<Advice> advice = AdviseBefore(call_);
    GuardedResult result = RunWith(plugins_[0], advice);
    if (!request_.record.empty()) Record();
    if (result.kind != GuardedResult::Kind::kDone) return false;
    for (const Advice& one : advice) {
      Warn((one.input ? call_.inputs[*one.input].role + ": " : "") + one.text);
    }
    for (const std::string& text : result.unwritten) Warn(call_.type + " " + text);
    const std::vector<std::unique_ptr<NewFile>> files = WriteOutputs(result);
    const bool same = CompareWithOtherPlugins(result, advice);
    const bool expected = same && IsAsExpected(result);
    result.outputs.clear();
    if (same && request_.timing && !Time()) return false;
    for (const auto& file : files) file->Publish();
    for (const Operand& output : call_.outputs) {
      if (output.file.path.empty()) continue;
      std::printf("%s: %s (%s)\n", call_.type.c_str(), output.file.name.c_str(),
                  TensorText(output.attrs).c_str());
    }
    return same && expected;
  }

  const Json& Report() const { return report_; }

 private:
  void Warn(const std::string& text) {
    report_["warnings"].push_back(text);
    std::fprintf(stderr, "vekrun: warning: %s\n", text.c_str());
  }

  void Fail(const char* status, const std::string& text) {
    report_["status"] = status;
    report_["message"] = text;
    std::fprintf(stderr, "vekrun: %s\n", text.c_str());
  }

  void Record() const {
    constexpr std::array<const char*, 5> kLevels = {"NONE", "ERROR", "WARNING", "INFO", "DEBUG"};
    const auto* const level = std::find(kLevels.begin(), kLevels.end(), request_.log_level);
    RecordedLayer layer = AsRecorded(call_);
    if (level != kLevels.end()) {
      for (RecordedConfigure& configure : layer.configures)
        configure.outcome.threshold = static_cast<std::int32_t>(level - kLevels.begin());
    }
    TakeOver(Repeat(plugins_[0], layer, BytesOf), &layer);
    const std::string folder = WriteRecording(request_.record, layer, plugins_[0].Path());
    std::printf("%s: recorded in %s\n", call_.type.c_str(), folder.c_str());
  }

  // Tells what went wrong, if anything did.
  GuardedResult RunWith(const vek_host::Plugin& plugin, const std::vector<Advice>& advice) {
    const Step step("running " + call_.type);
    GuardedResult result = RunGuarded(plugin, call_);
    report_["plugin"].push_back(plugin.Path());
    report_["log"] = LogToJson(result.log);
    report_["status"] = "done";
    if (result.kind == GuardedResult::Kind::kRefused) {
      Fail("refused", call_.type + " refused");
      std::vector<Advice> all = AdviseAfterRefusal(call_);
      all.insert(all.end(), advice.begin(), advice.end());
      std::fputs(RefusalText(call_, all).c_str(), stderr);
    } else if (result.kind == GuardedResult::Kind::kFailed) {
      std::string text = call_.type + " " + result.failure;
      const bool threw = result.failure.starts_with("threw");
      const std::string cause = threw ? AdviseAfterException(call_) : "";
      if (!cause.empty()) text += "; " + cause;
      for (const Advice& one : advice) {
        if (result.input && one.input == result.input) text += "; " + one.text;
      }
      Fail(threw ? "threw" : "failed", text);
    }
    return result;
  }

  std::vector<std::unique_ptr<NewFile>> WriteOutputs(const GuardedResult& result) const {
    std::vector<std::unique_ptr<NewFile>> files;
    for (std::size_t i = 0; i < call_.outputs.size(); ++i) {
      const Operand& output = call_.outputs[i];
      if (output.file.path.empty()) continue;
      const Step step("writing " + output.file.name);
      files.push_back(std::make_unique<NewFile>(output.file.path));
      WriteBuffer(output.file, output.attrs, result.outputs[i].Data(), files.back().get());
    }
    return files;
  }

  bool CompareWithOtherPlugins(const GuardedResult& first, const std::vector<Advice>& advice) {
    bool same = true;
    for (std::size_t p = 1; p < plugins_.size(); ++p) {
      const GuardedResult other = RunWith(plugins_[p], advice);
      if (other.kind != GuardedResult::Kind::kDone) return false;
      std::string difference;
      for (std::size_t i = 0; i < call_.outputs.size() && difference.empty(); ++i) {
        const std::byte* const a = first.outputs[i].Data();
        const std::byte* const end = a + first.outputs[i].Bytes();
        const std::byte* const at = std::mismatch(a, end, other.outputs[i].Data()).first;
        if (at != end)
          difference = "from byte " + std::to_string(at - a) + " of " + call_.outputs[i].role + " on";
      }
      if (difference.empty()) {
        std::printf("%s: %s writes the same bytes as %s\n", call_.type.c_str(), plugins_[p].Path().c_str(),
                    plugins_[0].Path().c_str());
        continue;
      }
      same = false;
      Fail("differs", call_.type + ": " + plugins_[p].Path() + " writes other bytes than " +
                          plugins_[0].Path() + ", " + difference);
    }
    return same;
  }

  bool IsAsExpected(const GuardedResult& result) {
    if (request_.expected.empty()) return true;
    const StoredTensor expected = OpenTensor(ParseFileArgument(request_.expected));
    const Operand& output = call_.outputs[0];
    const LaidOut written{output.file.name, TypeOf(output.attrs.GetMemFormat()), output.attrs,
                          result.outputs[0].Data(), result.outputs[0].Bytes()};
    const bool equal = ReportComparison(written, View(expected), request_.comparison);
    report_["as_expected"] = equal;
    return equal;
  }

  bool Time() {
    const Step step("timing " + call_.type);
    const TimedResult timed = RunTimed(plugins_, call_, *request_.timing);
    if (!timed.failure.empty()) {
      Fail("failed", call_.type + " " + timed.failure);
      return false;
    }
    for (std::size_t p = 0; p < plugins_.size(); ++p) {
      report_["times"].push_back(ToJson(timed.layers[p]));
      std::printf("%s: from %s\n%s\n", call_.type.c_str(), plugins_[p].Path().c_str(),
                  TimesText(call_, timed.layers[p], timed.copy).c_str());
      if (p == 0) continue;
      std::printf("%s: takes %.3f of the first plug-in's median\n", call_.type.c_str(),
                  timed.layers[p].median / timed.layers[0].median);
    }
    report_["memcpy"] = ToJson(timed.copy);
    return true;
  }

  const RunRequest& request_;
  const std::vector<vek_host::Plugin>& plugins_;
  LayerCall call_;
  Json report_;
};

}  // namespace

vek_host::Plugin LoadPlugin(const std::string& path) {
  try {
    return vek_host::Plugin(path.empty() ? DefaultPlugin() : path);
  } catch (const std::runtime_error& error) {
    throw UsageError(std::string("cannot load the plug-in: ") + error.what());
  }
}

bool Run(const RunRequest& request) {
  if (request.outputs.empty() && !request.timing && request.expected.empty() && request.record.empty()) {
    throw UsageError(
        "--out is required, but to time a layer, to compare its output or to record it (--repeat, --seconds, "
        "--expect, --record)");
  }
  bool to_standard_output = request.json == "-";
  for (const std::string& output : request.outputs) {
    to_standard_output = to_standard_output || ParseFileArgument(output).path == "-";
  }
  if (to_standard_output) KeepStandardOutputForFiles();

  std::vector<LayerCall> calls;
  if (request.shapes.empty()) calls.push_back(MakeCall(request, ""));
  for (const std::string& shape : request.shapes) calls.push_back(MakeCall(request, shape));
  const std::vector<vek_host::Plugin> plugins = LoadPlugins(request);
  bool good = true;
  Json runs = Json::array();
  for (LayerCall& call : calls) {
    Session session(request, plugins, std::move(call));
    good = session.Run() && good;
    runs.push_back(session.Report());
  }
  if (!request.json.empty()) {
    NewFile file(request.json);
    file.Write(Json{{"runs", runs}, {"exit_status", good ? 0 : 1}}.dump(2) + "\n");
    file.Publish();
  }
  return good;
}

}  // namespace vekrun
