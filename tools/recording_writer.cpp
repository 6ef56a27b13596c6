#include "recording_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <system_error>

#include "new_file.h"
#include "record/description.h"
#include "replayed_call.h"
#include "usage_error.h"

namespace vekrun {
namespace {

constexpr std::int32_t kDefaultThreshold = 2;

std::vector<std::shared_ptr<const RecordedAttrs>> Recorded(const std::vector<vek_host::BufAttrs>& buffers) {
  std::vector<std::shared_ptr<const RecordedAttrs>> list;
  for (const vek_host::BufAttrs& attrs : buffers)
    list.push_back(std::make_shared<const RecordedAttrs>(attrs));
  return list;
}

FileBytes Held(std::vector<std::byte> bytes) {
  const auto owner = std::make_shared<const std::vector<std::byte>>(std::move(bytes));
  return {"", {owner, owner->data()}, owner->size()};
}

zeb::PuxDnnCustomLayer::BufAttrsList Cloned(const std::vector<std::shared_ptr<const RecordedAttrs>>& list) {
  zeb::PuxDnnCustomLayer::BufAttrsList clones;
  for (const auto& attrs : list) clones.push_back(attrs == nullptr ? nullptr : attrs->Clone());
  return clones;
}

void WriteWhole(const std::string& path, const void* data, std::size_t bytes) {
  NewFile file(path);
  file.Write(data, bytes);
  file.Publish();
}

std::string Outcome(const RecordedOutcome& outcome, const std::string& indent) {
  if (!outcome.what) return indent + "\"outcome\": null\n";
  std::string log;
  if (outcome.log) {
    for (const std::string& line : *outcome.log) log += line + "\n";
  }
  return vek_record::OutcomeMembers(*outcome.what, outcome.nanoseconds,
                                    outcome.threshold.value_or(kDefaultThreshold),
                                    outcome.log ? &log : nullptr, indent);
}

std::string Tensors(const std::string& stem, const char* kind,
                    const std::optional<std::vector<RecordedTensor>>& tensors) {
  if (!tensors) return "null";
  std::vector<std::string> items;
  for (std::size_t i = 0; i < tensors->size(); ++i) {
    const RecordedTensor& tensor = (*tensors)[i];
    const std::optional<FileBytes> bytes = tensor.address == 0 ? std::nullopt : BytesOf(tensor);
    if (!bytes) {
      items.push_back(vek_record::TensorItem(tensor.address, tensor.size, tensor.bytes, tensor.hash, ""));
      continue;
    }
    const std::string path = stem + "-" + kind + std::to_string(i) + ".bin";
    WriteWhole(path, bytes->data.get(), bytes->size);
    items.push_back(vek_record::TensorItem(tensor.address, tensor.size, bytes->size,
                                           HashOf(bytes->data.get(), bytes->size),
                                           path.substr(path.rfind('/') + 1)));
  }
  return vek_record::List(items, "  ");
}

// A new folder, numbered behind those that are there.
std::string NewFolder(const std::string& folder, const std::string& type) {
  namespace fs = std::filesystem;
  try {
    fs::create_directories(folder);
    unsigned long long highest = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
      highest = std::max(highest, std::strtoull(entry.path().filename().c_str(), nullptr, 10));
    }
    std::string name = type;
    const auto is_plain = [](char c) {
      return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    };
    std::replace_if(
        name.begin(), name.end(), [&](char c) { return !is_plain(c); }, '_');
    while (true) {  // another process may have made it meanwhile
      char number[32];
      std::snprintf(number, sizeof number, "%04llu-", ++highest);
      const std::string path = folder + "/" + number + name;
      if (fs::create_directory(path)) return path;
    }
  } catch (const fs::filesystem_error& error) {
    throw UsageError("cannot write " + folder + ": " + error.code().message());
  }
}

}  // namespace

RecordedLayer AsRecorded(const std::string& type, const std::vector<AttributeList>& attributes,
                         const std::vector<vek_host::BufAttrs>& inputs,
                         const std::vector<vek_host::BufAttrs>& outputs,
                         std::vector<std::vector<std::byte>> bytes) {
  RecordedLayer layer;
  layer.type = layer.folder = layer.name = type;
  layer.machine = ThisMachine();
  for (const AttributeList& list : attributes) {
    RecordedConfigure& configure = layer.configures.emplace_back();
    configure.attributes = list;
    configure.inputs = Recorded(inputs);
    configure.outputs = Recorded(outputs);
    configure.outcome.what = "accepted";
  }
  RecordedExecute& execute = layer.executes.emplace_back();
  execute.configures = layer.configures.size();
  std::uint64_t address = 0x10000;  // each buffer begins a page of its own
  const auto make = [&address](const vek_host::BufAttrs& attrs) {
    RecordedTensor tensor;
    tensor.address = address;
    tensor.size = tensor.bytes = attrs.Bytes();
    address += tensor.size / 4096 * 4096 + 8192;
    return tensor;
  };
  execute.inputs.emplace();
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    execute.inputs->push_back(make(inputs[i]));
    execute.inputs->back().held = Held(std::move(bytes[i]));
  }
  execute.outputs.emplace();
  for (const vek_host::BufAttrs& output : outputs) execute.outputs->push_back(make(output));
  return layer;
}

RecordedLayer AsRecorded(const LayerCall& call) {
  std::vector<AttributeList> attributes;
  for (const AttrMap& attrs : call.configurations) attributes.emplace_back(attrs.begin(), attrs.end());
  std::vector<vek_host::BufAttrs> inputs;
  std::vector<std::vector<std::byte>> bytes;
  for (const Operand& input : call.inputs) {
    inputs.push_back(input.attrs);
    bytes.emplace_back(input.attrs.Bytes());
    Load(*input.stored, bytes.back().data());
  }
  std::vector<vek_host::BufAttrs> outputs;
  for (const Operand& output : call.outputs) outputs.push_back(output.attrs);
  return AsRecorded(call.type, attributes, inputs, outputs, std::move(bytes));
}

void TakeOver(RepeatedLayer here, RecordedLayer* layer) {
  const auto take = [](const RepeatedCall& call, RecordedOutcome* outcome) {
    outcome->what = call.failure.empty() ? call.what : std::nullopt;
    outcome->nanoseconds = call.nanoseconds;
    outcome->threshold = outcome->threshold.value_or(kDefaultThreshold);
    outcome->log = LinesOf(call.log);
  };
  for (std::size_t i = 0; i < layer->configures.size(); ++i) {
    take(here.configures[i], &layer->configures[i].outcome);
    if (layer->configures[i].outcome.what == "accepted") continue;
    layer->configures.resize(i + 1);
    std::erase_if(layer->executes, [i](const RecordedExecute& one) { return one.configures > i; });
  }
  for (std::size_t i = 0; i < layer->executes.size(); ++i) {
    RecordedExecute& execute = layer->executes[i];
    take(here.executes[i], &execute.outcome);
    if (!execute.outcome.what) execute.outputs.reset();
    for (std::size_t o = 0; execute.outputs && o < execute.outputs->size(); ++o) {
      RecordedTensor& output = (*execute.outputs)[o];
      output.file.clear();
      output.held = Held(std::move(here.executes[i].over_zeros[o]));
      output.bytes = output.held->size;
    }
  }
}

std::string WriteRecording(const std::string& folder, const RecordedLayer& layer,
                           const std::string& library) {
  const FileBytes file = ReadFileBytes(library);
  const std::string path = NewFolder(folder, layer.type);
  for (const RecordedExecute& execute : layer.executes) {
    char name[32];
    std::snprintf(name, sizeof name, "/call-%04llu", static_cast<unsigned long long>(execute.number));
    const std::string stem = path + name;
    std::string text = vek_record::CallHead(execute.number, execute.configures);
    text += "  \"inputs\": " + Tensors(stem, "in", execute.inputs) + ",\n";
    text += "  \"outputs\": " + Tensors(stem, "out", execute.outputs) + ",\n";
    text += Outcome(execute.outcome, "  ") + "}\n";
    WriteWhole(stem + ".json", text.data(), text.size());
  }
  std::vector<std::string> configures;
  for (const RecordedConfigure& configure : layer.configures) {
    AttrMap attrs;
    for (auto pair = configure.attributes.rbegin(); pair != configure.attributes.rend(); ++pair)
      attrs.insert(*pair);
    const vek_record::Description description(attrs, Cloned(configure.inputs), Cloned(configure.outputs));
    configures.push_back("{\n" + description.members + Outcome(configure.outcome, "      ") + "    }");
  }
  const std::string head =
      vek_record::LayerHead(layer.type, library.c_str(), file.size, HashOf(file.data.get(), file.size));
  const std::string text = vek_record::LayerText(head, configures);
  // Last: a folder without it is none of a recording.
  WriteWhole(path + "/layer.json", text.data(), text.size());
  return path;
}

}  // namespace vekrun
