#include "run.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "file_argument.h"
#include "host/layout.h"
#include "host/plugin.h"
#include "new_file.h"
#include "tensor_file.h"
#include "usage_error.h"

namespace vekrun {
namespace {

// A tensor's memory as the layer sees it, between two margins that tell when a layer writes outside.
class Buffer {
 public:
  explicit Buffer(vek_host::BufAttrs attrs)
      : attrs_(std::move(attrs)), bytes_(attrs_.Bytes()), memory_(bytes_ + 2 * kMargin, kMark) {
    std::fill_n(Data(), bytes_, std::byte{0});
  }

  const vek_host::BufAttrs& Attrs() const { return attrs_; }
  std::byte* Data() { return memory_.data() + kMargin; }
  const std::byte* Data() const { return memory_.data() + kMargin; }
  std::size_t Bytes() const { return bytes_; }

  bool MarginsAreWhole() const {
    const auto marked = [](std::byte b) { return b == kMark; };
    return std::all_of(memory_.begin(), memory_.begin() + kMargin, marked) &&
           std::all_of(memory_.end() - kMargin, memory_.end(), marked);
  }

 private:
  static constexpr std::ptrdiff_t kMargin = 4096;
  static constexpr std::byte kMark{0xA5};

  vek_host::BufAttrs attrs_;
  std::size_t bytes_;
  std::vector<std::byte> memory_;
};

std::string TensorText(const vek_host::BufAttrs& attrs) {
  return ShapeText(attrs.GetDims()) + " " + Name(TypeOf(attrs.GetMemFormat()));
}

Buffer ReadInput(const std::string& text) {
  const StoredTensor stored = OpenTensor(ParseFileArgument(text));
  if (!IsLayerType(stored.type)) {
    throw UsageError(stored.file.name + " holds " + Name(stored.type) +
                     " elements, which no layer takes; layers take " + TypeNames(/*of_layers_only=*/true));
  }
  Buffer buffer(stored.attrs);
  Load(stored, buffer.Data());
  return buffer;
}

Buffer MakeOutput(const FileArgument& file, const RunRequest& request, const std::vector<Buffer>& inputs) {
  AttrMap attrs;
  for (const AttrMap& configuration : request.configurations) {
    for (const auto& [key, value] : configuration) attrs[key] = value;
  }
  std::vector<const zeb::PuxDnnBufAttrs*> in_attrs;
  for (const Buffer& input : inputs) in_attrs.push_back(&input.Attrs());

  const LayerInfo* layer = FindLayer(request.type);
  const Dims dims = file.shape         ? *file.shape
                    : layer == nullptr ? in_attrs[0]->GetDims()
                                       : layer->output_shape(attrs, in_attrs);
  const zeb::PuxDnnBufAttrsMemFormat format = file.type ? FormatOf(*file.type) : in_attrs[0]->GetMemFormat();
  Buffer output(Describe(file, dims, format));
  CheckCanHold(file, TypeOf(format), dims);
  return output;
}

// A name for the dynamic loader, which takes the variant for this processor; CMakeLists.txt says where it looks first.
std::string DefaultPlugin() { return "libvekcustom.so"; }

std::vector<std::unique_ptr<zeb::PuxDnnBufAttrs>> Descriptions(const std::vector<Buffer>& buffers) {
  std::vector<std::unique_ptr<zeb::PuxDnnBufAttrs>> list;
  for (const Buffer& buffer : buffers) list.push_back(buffer.Attrs().Clone());
  return list;
}

std::vector<void*> Pointers(std::vector<Buffer>* buffers) {
  std::vector<void*> list;
  for (Buffer& buffer : *buffers) list.push_back(buffer.Data());
  return list;
}

void ReportTime(const std::string& type, std::vector<double> seconds, std::size_t in_bytes,
                std::size_t out_bytes) {
  const auto middle = seconds.begin() + static_cast<std::ptrdiff_t>(seconds.size() / 2);
  std::nth_element(seconds.begin(), middle, seconds.end());
  const auto bytes = static_cast<double>(in_bytes + out_bytes);
  std::printf("%s: %zu runs, median %.3f us, %.3f GB/s (%zu bytes in, %zu bytes out)\n", type.c_str(),
              seconds.size(), *middle * 1e6, *middle > 0 ? bytes / *middle * 1e-9 : 0.0, in_bytes, out_bytes);
}

// Configures and executes; everything that the layer refuses ends here.
bool RunLayer(zeb::PuxDnnCustomLayer* layer, const RunRequest& request, std::vector<Buffer>* inputs,
              std::vector<Buffer>* outputs) {
  const auto in_attrs = Descriptions(*inputs);
  const auto out_attrs = Descriptions(*outputs);
  for (const AttrMap& attrs : request.configurations) {
    if (!layer->Configure(attrs, in_attrs, out_attrs)) return false;
  }
  std::vector<void*> in_data = Pointers(inputs);
  std::vector<void*> out_data = Pointers(outputs);
  std::vector<double> seconds;
  for (unsigned int i = 0; i < std::max(request.repeat, 1U); ++i) {
    const auto start = std::chrono::steady_clock::now();
    if (!layer->Execute(in_data.data(), out_data.data())) return false;
    seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  if (request.repeat > 0) {
    const auto total = [](const std::vector<Buffer>& buffers) {
      std::size_t bytes = 0;
      for (const Buffer& buffer : buffers) bytes += buffer.Bytes();
      return bytes;
    };
    ReportTime(request.type, std::move(seconds), total(*inputs), total(*outputs));
  }
  return true;
}

}  // namespace

vek_host::Plugin LoadPlugin(const std::string& path) {
  try {
    return vek_host::Plugin(path.empty() ? DefaultPlugin() : path);
  } catch (const std::runtime_error& error) {
    throw UsageError(std::string("cannot load the plug-in: ") + error.what());
  }
}

bool Run(const RunRequest& request) {
  std::vector<Buffer> inputs;
  for (const std::string& text : request.inputs) inputs.push_back(ReadInput(text));
  std::vector<FileArgument> targets;
  std::vector<Buffer> outputs;
  for (const std::string& text : request.outputs) {
    const FileArgument file = ParseFileArgument(text);
    if (file.path == "-") KeepStandardOutputForFiles();
    outputs.push_back(MakeOutput(file, request, inputs));
    targets.push_back(file);
  }

  const vek_host::Plugin plugin = LoadPlugin(request.plugin);
  if (!request.log_level.empty()) plugin.SetLogThreshold(request.log_level);
  if (request.repeat > 0) std::printf("%s: from %s\n", request.type.c_str(), plugin.Path().c_str());
  const vek_host::Plugin::Layer layer = plugin.MakeLayer(request.type);
  if (layer == nullptr) throw UsageError("the plug-in has no layer type " + request.type);

  bool done = false;
  try {
    done = RunLayer(layer.get(), request, &inputs, &outputs);
  } catch (const std::exception& error) {
    // What the layer lets through: a failed allocation, a number that is none.
    std::fprintf(stderr, "vekrun: %s threw an exception: %s\n", request.type.c_str(), error.what());
  }
  if (!done) return false;
  for (const Buffer& output : outputs) {
    if (!output.MarginsAreWhole()) {
      std::fprintf(stderr, "vekrun: %s wrote outside its output buffer\n", request.type.c_str());
      return false;
    }
  }

  std::vector<std::unique_ptr<NewFile>> files;
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    files.push_back(std::make_unique<NewFile>(targets[i].path));
    WriteBuffer(targets[i], outputs[i].Attrs(), outputs[i].Data(), files.back().get());
  }
  for (const auto& file : files) file->Publish();
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    std::printf("%s: %s (%s)\n", request.type.c_str(), targets[i].path.c_str(),
                TensorText(outputs[i].Attrs()).c_str());
  }
  return true;
}

}  // namespace vekrun
