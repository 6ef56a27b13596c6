#include "recorded_call.h"

#include <algorithm>
#include <bit>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <unordered_map>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "tensor.h"
#include "usage_error.h"

namespace vekrun {
namespace {

using RecordedJson = nlohmann::json;

// A text's bytes: each is a character of the same number.
std::string BytesOfText(const RecordedJson& json) {
  const auto& text = json.get_ref<const std::string&>();
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x80 && i + 1 < text.size()) {
      const auto next = static_cast<unsigned char>(text[++i]);
      if (byte > 0xc3) throw std::runtime_error("a text has a character beyond 255");
      byte = static_cast<unsigned char>((byte & 3U) << 6U | (next & 0x3fU));
    }
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

std::uint64_t HexadecimalOf(const RecordedJson& json) {
  const auto& text = json.get_ref<const std::string&>();
  std::size_t end = 0;
  const std::uint64_t number = text.starts_with("0x") ? std::stoull(text, &end, 16) : 0;
  if (end == 0 || end != text.size()) throw std::runtime_error(text + " is no hexadecimal number");
  return number;
}

RecordedOutcome OutcomeOf(const RecordedJson& json) {
  RecordedOutcome outcome;
  const RecordedJson& what = json.at("outcome");
  if (!what.is_null()) outcome.what = BytesOfText(what);
  outcome.nanoseconds = json.value("nanoseconds", std::uint64_t{0});
  if (json.contains("threshold")) outcome.threshold = json["threshold"].get<std::int32_t>();
  if (json.contains("log") && !json["log"].is_null()) {
    outcome.log.emplace();
    for (const RecordedJson& line : json["log"]) outcome.log->push_back(BytesOfText(line));
  }
  return outcome;
}

RecordedAttrs::Answers AnswersOf(const RecordedJson& json) {
  RecordedAttrs::Answers answers;
  json.at("dims").get_to(answers.dims);
  json.at("num_dims").get_to(answers.num_dims);
  json.at("size").get_to(answers.size);
  const RecordedJson& format = json.at("format");
  format.at("bitdepth").get_to(answers.format.bitdepth);
  format.at("plane_pack").get_to(answers.format.plane_pack);
  format.at("exp").get_to(answers.format.exp);
  format.at("signed").get_to(answers.format.signed_);
  format.at("float").get_to(answers.format.float_);
  format.at("q8a").get_to(answers.format.q8a);
  format.at("q8a_zero").get_to(answers.format.q8a_zero);
  answers.format.q8a_scale =
      std::bit_cast<float>(static_cast<std::uint32_t>(HexadecimalOf(format.at("q8a_scale_bits"))));
  const RecordedJson& nchw = json.at("nchw");
  nchw.at(0).get_to(answers.batch);
  nchw.at(1).get_to(answers.channels);
  nchw.at(2).get_to(answers.height);
  nchw.at(3).get_to(answers.width);
  json.at("line_stride").get_to(answers.line_stride);
  json.at("plane_stride").get_to(answers.plane_stride);
  json.at("strides").get_to(answers.strides);
  json.at("strided").get_to(answers.is_strided);
  json.at("interleaved").get_to(answers.is_interleaved);
  return answers;
}

std::vector<std::shared_ptr<const RecordedAttrs>> BuffersOf(const RecordedJson& json) {
  std::vector<std::shared_ptr<const RecordedAttrs>> buffers;
  for (const RecordedJson& buffer : json) {
    buffers.push_back(buffer.is_null() ? nullptr : std::make_shared<const RecordedAttrs>(AnswersOf(buffer)));
  }
  return buffers;
}

std::optional<std::vector<RecordedTensor>> TensorsOf(const RecordedJson& json, const std::string& folder) {
  if (json.is_null()) return std::nullopt;
  std::vector<RecordedTensor> tensors;
  for (const RecordedJson& tensor : json) {
    RecordedTensor& one = tensors.emplace_back();
    one.address = HexadecimalOf(tensor.at("address"));
    tensor.at("size").get_to(one.size);
    tensor.at("bytes").get_to(one.bytes);
    one.hash = HexadecimalOf(tensor.at("xxh64"));
    if (one.bytes > one.size) throw std::runtime_error("a tensor has more bytes than its size");
    if (one.address + one.size < one.address) throw std::runtime_error("a tensor ends beyond all addresses");
    if (tensor.at("file").is_null()) continue;
    const std::string name = BytesOfText(tensor["file"]);
    if (name.find('/') != std::string::npos) throw std::runtime_error(name + " lies in another folder");
    one.file = folder + "/" + name;
  }
  return tensors;
}

// Reads a JSON file and hands it on; what is wrong with it is told with its name.
template <typename Use>
void UseJson(const std::string& path, const Use& use) {
  const FileBytes file = ReadFileBytes(path);
  const auto* const text = reinterpret_cast<const char*>(file.data.get());
  try {
    use(RecordedJson::parse(text, text + file.size));
  } catch (const UsageError&) {
    throw;
  } catch (const std::exception& error) {
    throw UsageError(path + " is not as a recorder writes it: " + error.what());
  }
}

RecordedLayer ReadLayer(const std::filesystem::path& folder) {
  RecordedLayer layer;
  layer.folder = folder.string();
  layer.name = folder.filename().string();
  UseJson(layer.folder + "/layer.json", [&](const RecordedJson& json) {
    if (json.at("format") != "vekrecord 1") throw std::runtime_error("its format is not \"vekrecord 1\"");
    layer.type = BytesOfText(json.at("type"));
    json.at("machine").get_to(layer.machine);
    for (const RecordedJson& configure : json.at("configures")) {
      RecordedConfigure& one = layer.configures.emplace_back();
      for (const RecordedJson& pair : configure.at("attributes")) {
        one.attributes.emplace_back(BytesOfText(pair.at(0)), BytesOfText(pair.at(1)));
      }
      one.inputs = BuffersOf(configure.at("inputs"));
      one.outputs = BuffersOf(configure.at("outputs"));
      one.outcome = OutcomeOf(configure);
    }
  });
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with("call-") || !name.ends_with(".json")) continue;
    UseJson(entry.path().string(), [&](const RecordedJson& json) {
      RecordedExecute& one = layer.executes.emplace_back();
      json.at("call").get_to(one.number);
      json.at("configures").get_to(one.configures);
      one.inputs = TensorsOf(json.at("inputs"), layer.folder);
      one.outputs = TensorsOf(json.at("outputs"), layer.folder);
      one.outcome = OutcomeOf(json);
      if (one.configures > layer.configures.size()) {
        throw std::runtime_error("layer.json has fewer calls of Configure than it says");
      }
    });
  }
  std::sort(layer.executes.begin(), layer.executes.end(),
            [](const RecordedExecute& a, const RecordedExecute& b) { return a.number < b.number; });
  return layer;
}

}  // namespace

RecordedAttrs::RecordedAttrs(const zeb::PuxDnnBufAttrs& attrs)
    : answers_{attrs.GetDims(),       attrs.GetNumDims(),     attrs.GetSize(),    attrs.GetMemFormat(),
               attrs.GetBatch(),      attrs.GetChannels(),    attrs.GetHeight(),  attrs.GetWidth(),
               attrs.GetLineStride(), attrs.GetPlaneStride(), attrs.GetStrides(), attrs.IsStrided(),
               attrs.IsInterleaved()} {}

void RecordedAttrs::SetPlanePack(std::int32_t channels) {
  answers_.format.plane_pack = channels;
  FollowLayout();
}

void RecordedAttrs::SetLineStride(unsigned int bytes) {
  answers_.line_stride = bytes;
  FollowLayout();
}

void RecordedAttrs::SetPlaneStride(unsigned int bytes) {
  answers_.plane_stride = bytes;
  FollowLayout();
}

void RecordedAttrs::FollowLayout() {
  const std::int32_t pack = answers_.format.plane_pack;
  const std::uint64_t row_bytes =
      std::uint64_t{answers_.width} * static_cast<unsigned int>(pack * (answers_.format.bitdepth / 8));
  answers_.is_interleaved = pack > 1;
  answers_.is_strided = answers_.line_stride > row_bytes ||
                        answers_.plane_stride > std::uint64_t{answers_.height} * answers_.line_stride;
}

std::optional<vek_host::BufAttrs> LayoutOf(const RecordedAttrs& attrs) {
  const RecordedAttrs::Answers& answers = attrs.All();
  const std::int32_t width = answers.format.bitdepth;
  if ((width != 8 && width != 16 && width != 32) || answers.format.plane_pack < 1) return std::nullopt;
  vek_host::BufAttrs layout(answers.dims, answers.format);
  const std::uint64_t row_bytes = layout.RowBytes();
  if (answers.is_strided || answers.is_interleaved) {
    layout.SetLineStride(answers.line_stride);
    layout.SetPlaneStride(answers.plane_stride);
    const bool fits = layout.GetBatch() == answers.batch && layout.GetChannels() == answers.channels &&
                      layout.GetHeight() == answers.height && layout.GetWidth() == answers.width &&
                      answers.line_stride >= row_bytes &&
                      answers.plane_stride >= std::uint64_t{answers.height} * answers.line_stride;
    if (!fits) return std::nullopt;
  }
  if (ElementCount(answers.dims) == 0 || layout.Bytes() > answers.size) return std::nullopt;
  return layout;
}

std::optional<FileBytes> BytesOf(const RecordedTensor& tensor) {
  if (tensor.held) return tensor.held;
  if (tensor.file.empty()) return tensor.bytes == 0 ? std::optional<FileBytes>(FileBytes{}) : std::nullopt;
  FileBytes file = ReadFileBytes(tensor.file);
  if (file.size != tensor.bytes) {
    throw UsageError(tensor.file + " has " + std::to_string(file.size) + " bytes instead of " +
                     std::to_string(tensor.bytes));
  }
  return file;
}

std::uint64_t HashOf(const void* data, std::size_t bytes) { return XXH64(data, bytes, 0); }

const RecordedConfigure* RecordedLayer::ConfigureOf(const RecordedExecute& execute) const {
  for (std::size_t i = execute.configures; i-- > 0;) {
    if (configures[i].outcome.what == "accepted") return &configures[i];
  }
  return nullptr;
}

std::vector<RecordedLayer> ReadRecording(const std::string& folder) {
  namespace fs = std::filesystem;
  std::vector<fs::path> paths;
  std::error_code error;
  // The name of "captures/" is that of "captures".
  const fs::path path =
      folder.ends_with('/') && folder.size() > 1 ? folder.substr(0, folder.size() - 1) : folder;
  if (fs::exists(path / "layer.json", error)) paths.push_back(path);
  if (paths.empty()) {
    for (fs::directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error)) {
      if (fs::exists(entry->path() / "layer.json")) paths.push_back(entry->path());
    }
    if (error) throw UsageError("cannot read " + folder + ": " + error.message());
  }
  if (paths.empty()) throw UsageError(folder + " holds no recording");
  // By number: they may have more than four digits.
  std::sort(paths.begin(), paths.end(), [](const fs::path& a, const fs::path& b) {
    const auto number = [](const fs::path& of) { return std::strtoull(of.filename().c_str(), nullptr, 10); };
    return std::pair(number(a), a) < std::pair(number(b), b);
  });
  std::vector<RecordedLayer> layers;
  for (const fs::path& one : paths) layers.push_back(ReadLayer(one));
  return layers;
}

}  // namespace vekrun
