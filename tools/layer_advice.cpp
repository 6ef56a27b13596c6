#include "layer_advice.h"

#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "suggestion.h"

namespace vekrun {
namespace {

using Extents = std::array<unsigned int, 4>;
constexpr const char* kNames[] = {"N", "C", "H", "W"};

Extents ExtentsOf(const Operand& operand) {
  return {operand.attrs.GetBatch(), operand.attrs.GetChannels(), operand.attrs.GetHeight(),
          operand.attrs.GetWidth()};
}

ElementType ElementTypeOf(const Operand& operand) { return TypeOf(operand.attrs.GetMemFormat()); }

// The attributes of all configurations, later ones over earlier ones.
AttrMap Merged(const LayerCall& call) {
  AttrMap attrs;
  for (const AttrMap& configuration : call.configurations) {
    for (const auto& [key, value] : configuration) attrs[key] = value;
  }
  return attrs;
}

unsigned long Number(const AttrMap& attrs, const std::string& key, unsigned long fallback) {
  const auto found = attrs.find(key);
  return found == attrs.end() ? fallback : std::strtoul(found->second.c_str(), nullptr, 0);
}

std::vector<unsigned long> Numbers(const AttrMap& attrs, const std::string& key, std::size_t least) {
  std::vector<unsigned long> numbers;
  const auto found = attrs.find(key);
  const char* text = found == attrs.end() ? "" : found->second.c_str();
  while (*text != '\0') {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (end != text) numbers.push_back(value);
    text = end != text ? end : text + 1;
  }
  if (numbers.size() < least) numbers.resize(least);
  return numbers;
}

// "H and W" of the bits 8 N, 4 C, 2 H, 1 W.
std::string Dimensions(unsigned word) {
  std::string text;
  for (unsigned d = 0; d < 4; ++d) {
    if ((word >> (3 - d) & 1) == 0) continue;
    if (!text.empty()) text += (word & ((1U << (3 - d)) - 1)) == 0 ? " and " : ", ";
    text += kNames[d];
  }
  return text;
}

// --- Two operands of ELTWISE, of which one may be repeated.

void AdviseEltwise(const LayerCall& call, const AttrMap& attrs, std::vector<Advice>* list) {
  const unsigned long method = Number(attrs, "method", 0);
  if (call.inputs.size() != 2 || (method != 0 && method != 6)) return;
  const Extents extents[2] = {ExtentsOf(call.inputs[0]), ExtentsOf(call.inputs[1])};
  unsigned given[2];   // the word that holds
  unsigned wanted[2];  // that which the extents ask for
  bool fit = true;
  for (unsigned x = 0; x < 2; ++x) {
    const std::string name(1, x == 0 ? 'A' : 'B');
    given[x] = Number(attrs, "broadcast_" + name, 0) == 1 ? Number(attrs, "word_" + name, 0) & 15U : 0U;
    wanted[x] = 0;
    for (unsigned d = 0; d < 4; ++d) {
      if (extents[x][d] == 1 && extents[1 - x][d] > 1) wanted[x] |= 8U >> d;
      if (extents[x][d] == extents[1 - x][d] || extents[x][d] == 1 || extents[1 - x][d] == 1) continue;
      if (x == 0) {
        list->push_back({std::string(kNames[d]) + " is " + std::to_string(extents[0][d]) + " in A and " +
                             std::to_string(extents[1][d]) + " in B: it must be equal, or 1 and repeated",
                         1});
      }
      fit = false;
    }
  }
  for (unsigned x = 0; x < 2; ++x) {
    for (unsigned d = 0; d < 4; ++d) {
      if ((given[x] & 8U >> d) == 0 || extents[x][d] <= 1) continue;
      const std::string name(1, x == 0 ? 'A' : 'B');
      list->push_back({"word_" + name + " repeats " + name + " along " + kNames[d] + ", where it has " +
                           std::to_string(extents[x][d]) + " values and not one",
                       x});
      fit = false;
    }
  }
  if (!fit) return;
  const auto repeat = [&](unsigned x, unsigned word, char as) {
    return "to repeat it along " + Dimensions(wanted[x]) + " give broadcast_" + as + "=1 word_" + as + "=" +
           std::to_string(word);
  };
  constexpr unsigned kPlane = 3;  // one value for each plane
  if (wanted[0] == 0) {
    if ((wanted[1] & ~given[1]) != 0) list->push_back({repeat(1, wanted[1], 'B'), 1});
    return;
  }
  // The loops run over A's shape, but in a product where A has one value for each plane.
  const bool per_plane = extents[0][2] == 1 && extents[0][3] == 1 && (wanted[0] & ~kPlane) == 0;
  if (wanted[1] == 0 && method == 0 && per_plane) {
    if (given[0] != kPlane) list->push_back({repeat(0, kPlane, 'A'), 0});
  } else if (wanted[1] == 0 && method == 0) {
    list->push_back(
        {"the loops run over the first input's shape, which is the smaller one: swap the inputs; then, " +
             repeat(0, wanted[0], 'B'),
         0});
  } else {
    list->push_back({"the loops run over the first input's shape: to repeat it along " +
                         Dimensions(wanted[0]) + " use BROADCAST first",
                     0});
  }
}

// --- Sizes and types that must fit each other.

void AdviseMatmul(const LayerCall& call, const AttrMap& attrs, std::vector<Advice>* list) {
  const Extents a = ExtentsOf(call.inputs[0]);
  const bool two = call.inputs.size() == 2;
  const auto transposed = attrs.find("trans_b");
  if (!two && transposed != attrs.end() && transposed->second == "1") return;
  const Extents b = two ? ExtentsOf(call.inputs[1]) : a;
  const std::uint64_t row = std::uint64_t{a[2]} * a[3];
  const std::size_t of = two ? 1 : 0;
  if (row != b[1]) {
    list->push_back({std::string("the inner sizes differ: a row of ") + (two ? "A" : "the input") +
                         " is H x W = " + std::to_string(row) + " values, " + (two ? "B" : "it") +
                         " has C = " + std::to_string(b[1]) + " rows" +
                         (two ? "" : "; trans_b=1 multiplies by the transposed"),
                     of});
  }
  if (a[0] != b[0]) {
    list->push_back({"A has " + std::to_string(a[0]) + " batch items, B " + std::to_string(b[0]), of});
  }
}

void AdviseConcat(const LayerCall& call, const AttrMap& attrs, std::vector<Advice>* list) {
  const Dims first = call.inputs[0].attrs.GetDims();
  const unsigned long axis = Number(attrs, "axis", 0);
  for (std::size_t i = 1; i < call.inputs.size(); ++i) {
    const Operand& input = call.inputs[i];
    if (ElementTypeOf(input) != ElementTypeOf(call.inputs[0])) {
      list->push_back({input.role + " holds " + Name(ElementTypeOf(input)) + ", input 0 " +
                           Name(ElementTypeOf(call.inputs[0])) +
                           ": all inputs are taken as the first one's type",
                       i});
    }
    Dims dims = input.attrs.GetDims();
    if (dims.size() == first.size() && axis < dims.size()) dims[axis] = first[axis];
    if (dims != first) {
      list->push_back({input.role + " is " + ShapeText(input.attrs.GetDims()) + ", input 0 " +
                           ShapeText(first) + ": only the axis " + std::to_string(axis) + " may differ",
                       i});
    }
  }
}

void AdviseGather(const LayerCall& call, std::vector<Advice>* list) {
  if (call.inputs.size() < 2) return;
  const ElementType type = ElementTypeOf(call.inputs[1]);
  if (type == ElementType::kUint32 || type == ElementType::kInt32) return;
  list->push_back(
      {std::string("the indices, input 1, are ") + Name(type) +
           ", and their bytes are taken as uint32: 'vekrun convert IN OUT,type=uint32' makes indices of them",
       1});
}

// The constant of a planar, channel-first PAD is stored as it is.
void AdvisePad(const LayerCall& call, const AttrMap& attrs, std::vector<Advice>* list) {
  if (Number(attrs, "pad_mode", 0) != 4 || call.outputs.empty()) return;
  const vek_host::BufAttrs& out = call.outputs[0].attrs;
  const std::vector<unsigned long> format = Numbers(attrs, "format", 4);
  const std::string text = attrs.count("pad") != 0 ? attrs.at("pad") : "";
  const auto pad = static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
  const bool stored = !out.IsInterleaved() && format == std::vector<unsigned long>{0, 1, 2, 3};
  if (!stored || !out.GetMemFormat().float_ || out.GetMemFormat().exp != 0 || pad == 0 || pad >= 0x00800000U)
    return;
  char line[200];
  std::snprintf(line, sizeof line,
                "pad=%u puts these bits into float32 elements: %.2g. The bits of %u.0 are pad=%u", pad,
                static_cast<double>(std::bit_cast<float>(pad)), pad,
                std::bit_cast<std::uint32_t>(static_cast<float>(pad)));
  list->push_back({line, std::nullopt});
}

void AdviseAttributes(const LayerCall& call, const LayerInfo& layer, std::vector<Advice>* list) {
  std::vector<std::string> keys;
  for (const AttributeInfo& attribute : layer.attributes) keys.emplace_back(attribute.key);
  for (const auto& [key, value] : Merged(call)) {
    bool known = false;
    for (const std::string& one : keys) known = known || one == key;
    if (!known)
      list->push_back({call.type + " has no attribute " + key + DidYouMean(key, keys), std::nullopt});
  }
}

// --- What a refusal may be about.

void AdviseMultiple(unsigned int extent, const char* what, std::uint64_t divisor, const std::string& text,
                    std::vector<Advice>* list) {
  if (divisor == 0 || extent % divisor == 0) return;
  list->push_back({std::to_string(extent) + " " + what + " are not a multiple of " + text, 0});
}

void AdviseBlocks(const LayerCall& call, const AttrMap& attrs, std::vector<Advice>* list) {
  const Extents in = ExtentsOf(call.inputs[0]);
  const std::string& type = call.type;
  if (type == "DEPTHTOSPACE" || type == "RESHAPE") {
    const unsigned long b = Number(attrs, type == "RESHAPE" ? "pixelshuffler" : "block_size", 1);
    AdviseMultiple(in[1], "channels", b * b, std::to_string(b) + " x " + std::to_string(b), list);
  } else if (type == "SPACETODEPTH") {
    const unsigned long b = Number(attrs, "block_size", 1);
    AdviseMultiple(in[2], "rows", b, std::to_string(b), list);
    AdviseMultiple(in[3], "columns", b, std::to_string(b), list);
  } else if (type == "SPACETOBATCH") {
    const auto b = Numbers(attrs, "block_shape", 2);
    const auto pads = Numbers(attrs, "paddings", 4);
    AdviseMultiple(static_cast<unsigned>(in[2] + pads[0] + pads[1]), "rows with their padding", b[0],
                   std::to_string(b[0]), list);
    AdviseMultiple(static_cast<unsigned>(in[3] + pads[2] + pads[3]), "columns with their padding", b[1],
                   std::to_string(b[1]), list);
  }
}

void AdviseDims(const LayerCall& call, const LayerInfo& layer, std::vector<Advice>* list) {
  if (std::string(layer.buffers).find("4-D") == std::string::npos) return;
  for (std::size_t i = 0; i < call.inputs.size(); ++i) {
    Dims dims = call.inputs[i].attrs.GetDims();
    if (dims.size() >= 4 || dims.empty()) continue;
    const std::size_t missing = 4 - dims.size();
    dims.insert(missing == 1 ? dims.begin() : dims.end(), missing, 1);
    list->push_back({std::string("give it ") + (missing == 1 ? "a fourth dimension" : "four dimensions") +
                         ": " + call.inputs[i].file.name + ",shape=" + ShapeText(dims),
                     i});
  }
}

void AdviseTypes(const LayerCall& call, const LayerInfo& layer, std::vector<Advice>* list) {
  const std::string takes = layer.buffers;
  if (takes.find("float32") == std::string::npos || takes.find("8 or 16") != std::string::npos ||
      takes.find("16 or 32 bits") != std::string::npos) {
    return;
  }
  for (std::size_t i = 0; i < call.inputs.size(); ++i) {
    const ElementType type = ElementTypeOf(call.inputs[i]);
    if (type == ElementType::kFloat32) continue;
    const FileArgument& file = call.inputs[i].file;
    const bool choosable = KindOf(file) == FileKind::kPicture || KindOf(file) == FileKind::kGenerated;
    list->push_back(
        {file.name + " holds " + Name(type) + ", " + call.type + " takes float32: " +
             (choosable ? file.name + ",type=float32"
                        : "'vekrun convert " + file.name + " floats.npy,type=float32' makes floats of it"),
         i});
  }
}

}  // namespace

std::vector<Advice> AdviseBefore(const LayerCall& call) {
  std::vector<Advice> list;
  const LayerInfo* const layer = FindLayer(call.type);
  if (layer == nullptr || call.inputs.empty()) return list;
  const AttrMap attrs = Merged(call);
  AdviseAttributes(call, *layer, &list);
  if (call.type == "ELTWISE") AdviseEltwise(call, attrs, &list);
  if (call.type == "MATMUL") AdviseMatmul(call, attrs, &list);
  if (call.type == "SWCONCAT") AdviseConcat(call, attrs, &list);
  if (call.type == "GATHER") AdviseGather(call, &list);
  if (call.type == "PAD") AdvisePad(call, attrs, &list);
  if (call.type == "BATCHTOSPACE") {  // takes the others, but does not read them
    const auto b = Numbers(attrs, "block_shape", 2);
    AdviseMultiple(ExtentsOf(call.inputs[0])[0], "batch items", b[0] * b[1],
                   std::to_string(b[0]) + " x " + std::to_string(b[1]), &list);
  }
  return list;
}

std::vector<Advice> AdviseAfterRefusal(const LayerCall& call) {
  std::vector<Advice> list;
  const LayerInfo* const layer = FindLayer(call.type);
  if (layer == nullptr || call.inputs.empty()) return list;
  AdviseDims(call, *layer, &list);
  AdviseTypes(call, *layer, &list);
  AdviseBlocks(call, Merged(call), &list);
  const bool crowded = call.configurations.size() == 1 && call.configurations[0].size() > 1;
  if (call.type == "ARGMAX" && crowded) {
    std::string text;
    for (const AttributeInfo& attribute : layer->attributes) {  // the axis first, which the others refer to
      const auto given = call.configurations[0].find(attribute.key);
      if (given == call.configurations[0].end()) continue;
      text += (text.empty() ? "" : " --then ") + ("--attr " + given->first) + "=" + given->second;
    }
    list.push_back({"it takes one attribute at a time: " + text, std::nullopt});
  }
  return list;
}

std::string AdviseAfterException(const LayerCall& call) {
  for (const auto& [key, value] : Merged(call)) {
    std::size_t start = value.starts_with('[') ? 1 : 0;
    while (start < value.size()) {
      const std::size_t end = std::min(value.find_first_of(",]", start), value.size());
      const std::string entry = value.substr(start, end - start);
      char* rest = nullptr;
      static_cast<void>(std::strtol(entry.c_str(), &rest, 10));
      if (rest == entry.c_str()) return "'" + entry + "' in " + key + "=" + value + " is no number";
      start = end + 1;
      if (end < value.size() && value[end] == ']') break;
    }
  }
  return "";
}

}  // namespace vekrun
