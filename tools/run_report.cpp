#include "run_report.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

namespace vekrun {
namespace {

using Json = nlohmann::ordered_json;

std::size_t TotalBytes(const std::vector<Operand>& operands) {
  std::size_t bytes = 0;
  for (const Operand& operand : operands) bytes += operand.attrs.Bytes();
  return bytes;
}

std::string Fixed(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string Microseconds(double seconds) { return Fixed(seconds * 1e6, 3) + " us"; }

// Columns as wide as their widest text.
std::string Table(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line = " ";
    for (std::size_t i = 0; i < row.size(); ++i)
      line += " " + row[i] + std::string(widths[i] - row[i].size() + 1, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

}  // namespace

std::string RefusalText(const LayerCall& call, const std::vector<Advice>& advice) {
  std::vector<std::vector<std::string>> rows;
  for (const auto* operands : {&call.inputs, &call.outputs}) {
    for (const Operand& operand : *operands) {
      rows.push_back({operand.role, operand.file.name, ShapeText(operand.attrs.GetDims()),
                      Name(TypeOf(operand.attrs.GetMemFormat())), LayoutText(operand.attrs),
                      std::to_string(operand.attrs.Bytes()) + " bytes"});
    }
  }
  std::string text = Table(rows);
  const LayerInfo* const layer = FindLayer(call.type);
  if (layer != nullptr) {
    text += "  " + call.type + " takes " + layer->buffers + "\n";
    rows.clear();
    for (const AttributeInfo& attribute : layer->attributes) {
      rows.push_back(
          {attribute.key,
           attribute.fallback == nullptr ? "mandatory" : std::string("default ") + attribute.fallback,
           attribute.meaning});
    }
    text += Table(rows);
  }
  for (const Advice& one : advice) text += "  " + one.text + "\n";
  return text;
}

std::string TimesText(const LayerCall& call, const Times& times, const Times& copy) {
  const std::size_t in = TotalBytes(call.inputs);
  const std::size_t out = TotalBytes(call.outputs);
  std::string text = call.type + " " + TensorText(call.inputs[0].attrs) + ": median " +
                     Microseconds(times.median) + ", min " + Microseconds(times.min) + ", p95 " +
                     Microseconds(times.p95) + ", p99 " + Microseconds(times.p99) + " (" +
                     std::to_string(times.samples) +
                     (times.batch == 1 ? " runs" : " samples of " + std::to_string(times.batch) + " runs") +
                     ", " + std::to_string(times.warm_up) + " to warm up)";
  if (times.median > 0) {
    text += ", " + Fixed(static_cast<double>(in + out) / times.median * 1e-9, 3) + " GB/s" + " (" +
            std::to_string(in) + " bytes in, " + std::to_string(out) + " out)";
  }
  if (copy.median > 0) {
    text += "; memcpy of as many bytes " + Microseconds(copy.median) + ", which is " +
            Fixed(copy.median / std::max(times.median, 1e-12), 2) + " of it";
  }
  return text;
}

Json ToJson(const Operand& operand) {
  const zeb::PuxDnnBufAttrsMemFormat& format = operand.attrs.GetMemFormat();
  Json json = {{"file", operand.file.name},
               {"shape", operand.attrs.GetDims()},
               {"type", Name(TypeOf(format))},
               {"pack", format.plane_pack},
               {"line", operand.attrs.GetLineStride()},
               {"plane", operand.attrs.GetPlaneStride()},
               {"exp", format.exp},
               {"bytes", operand.attrs.Bytes()}};
  if (format.q8a) {
    json["zero"] = format.q8a_zero;
    json["scale"] = format.q8a_scale;
  }
  return json;
}

Json ToJson(const Times& times) {
  return {{"samples", times.samples}, {"runs_per_sample", times.batch}, {"warm_up_runs", times.warm_up},
          {"min_s", times.min},       {"median_s", times.median},       {"p95_s", times.p95},
          {"p99_s", times.p99}};
}

Json LogToJson(const std::string& log) {
  Json lines = Json::array();
  std::istringstream stream(log);
  for (std::string line; std::getline(stream, line);) {
    // "[ERROR] vek_softmax.cpp:61: text"
    const std::size_t bracket = line.find("] ");
    const std::size_t colon = line.find(':');
    const std::size_t second = colon == std::string::npos ? colon : line.find(": ", colon + 1);
    if (!line.starts_with('[') || bracket == std::string::npos || second == std::string::npos ||
        colon < bracket) {
      lines.push_back({{"text", line}});
      continue;
    }
    lines.push_back({{"level", line.substr(1, bracket - 1)},
                     {"file", line.substr(bracket + 2, colon - bracket - 2)},
                     {"line", std::atoi(line.c_str() + colon + 1)},
                     {"text", line.substr(second + 2)}});
  }
  return lines;
}

}  // namespace vekrun
