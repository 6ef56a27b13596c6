#include "run.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>

#include "guarded_run.h"
#include "host/plugin.h"
#include "new_file.h"
#include "operand.h"
#include "tensor_file.h"
#include "usage_error.h"

namespace vekrun {
namespace {

Operand ReadInput(const std::string& text, std::size_t i) {
  StoredTensor stored = OpenTensor(ParseFileArgument(text));
  if (!IsLayerType(stored.type)) {
    throw UsageError(stored.file.name + " holds " + Name(stored.type) +
                     " elements, which no layer takes; layers take " + TypeNames(/*of_layers_only=*/true));
  }
  return {"input " + std::to_string(i), stored.file, stored.attrs, stored};
}

Operand MakeOutput(const std::string& text, std::size_t i, const RunRequest& request,
                   const std::vector<Operand>& inputs) {
  const FileArgument file = ParseFileArgument(text);
  if (file.path == "-") KeepStandardOutputForFiles();
  AttrMap attrs;
  for (const AttrMap& configuration : request.configurations) {
    for (const auto& [key, value] : configuration) attrs[key] = value;
  }
  std::vector<const zeb::PuxDnnBufAttrs*> in_attrs;
  for (const Operand& input : inputs) in_attrs.push_back(&input.attrs);

  const LayerInfo* layer = FindLayer(request.type);
  const Dims dims = file.shape         ? *file.shape
                    : layer == nullptr ? in_attrs[0]->GetDims()
                                       : layer->output_shape(attrs, in_attrs);
  const zeb::PuxDnnBufAttrsMemFormat format = file.type ? FormatOf(*file.type) : in_attrs[0]->GetMemFormat();
  const ElementType type = file.type ? *file.type : TypeOf(format);
  if (!IsLayerType(type)) throw UsageError(file.name + ": no layer writes " + Name(type));
  CheckCanHold(file, type, dims);
  const std::string role = request.outputs.size() == 1 ? "the output" : "output " + std::to_string(i);
  return {role, file, Describe(file, dims, format), std::nullopt};
}

// A name for the dynamic loader, which takes the variant for this processor; CMakeLists.txt says where it looks first.
std::string DefaultPlugin() { return "libvekcustom.so"; }

}  // namespace

vek_host::Plugin LoadPlugin(const std::string& path) {
  try {
    return vek_host::Plugin(path.empty() ? DefaultPlugin() : path);
  } catch (const std::runtime_error& error) {
    throw UsageError(std::string("cannot load the plug-in: ") + error.what());
  }
}

bool Run(const RunRequest& request) {
  LayerCall call{request.type, request.configurations, {}, {}};
  for (const std::string& text : request.inputs) call.inputs.push_back(ReadInput(text, call.inputs.size()));
  for (const std::string& text : request.outputs) {
    call.outputs.push_back(MakeOutput(text, call.outputs.size(), request, call.inputs));
  }
  const vek_host::Plugin plugin = LoadPlugin(request.plugin);
  if (!request.log_level.empty()) plugin.SetLogThreshold(request.log_level);
  if (plugin.MakeLayer(request.type) == nullptr)
    throw UsageError("the plug-in has no layer type " + request.type);

  const GuardedResult result = RunGuarded(plugin, call);
  if (result.kind == GuardedResult::Kind::kFailed) {
    std::fprintf(stderr, "vekrun: %s %s\n", request.type.c_str(), result.failure.c_str());
  }
  for (const std::string& text : result.unwritten) {
    std::fprintf(stderr, "vekrun: %s %s\n", request.type.c_str(), text.c_str());
  }
  if (result.kind != GuardedResult::Kind::kDone) return false;

  std::vector<std::unique_ptr<NewFile>> files;
  for (std::size_t i = 0; i < call.outputs.size(); ++i) {
    const Operand& output = call.outputs[i];
    files.push_back(std::make_unique<NewFile>(output.file.path));
    WriteBuffer(output.file, output.attrs, result.outputs[i].Data(), files.back().get());
  }
  for (const auto& file : files) file->Publish();
  for (const Operand& output : call.outputs) {
    std::printf("%s: %s (%s)\n", request.type.c_str(), output.file.name.c_str(),
                TensorText(output.attrs).c_str());
  }
  return true;
}

}  // namespace vekrun
