#include "host/layer_rules.h"

#include <algorithm>
#include <cstdlib>

namespace vek_host {
namespace {

// --- Attribute texts, read as the layers read well-formed ones. What is missing reads as 0.

const char* Text(const AttrMap& attrs, const char* key) {
  const auto found = attrs.find(key);
  return found == attrs.end() ? nullptr : found->second.c_str();
}

unsigned int Number(const AttrMap& attrs, const char* key, unsigned int fallback) {
  const char* text = Text(attrs, key);
  return text == nullptr ? fallback : static_cast<unsigned int>(std::strtol(text, nullptr, 10));
}

// The numbers of a list, nested or not; at least `least` of them.
Dims List(const AttrMap& attrs, const char* key, std::size_t least) {
  Dims numbers;
  const char* text = Text(attrs, key);
  while (text != nullptr && *text != '\0') {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end != text) numbers.push_back(static_cast<unsigned int>(value));
    text = end != text ? end : text + 1;
  }
  numbers.resize(std::max(numbers.size(), least));
  return numbers;
}

unsigned int Quotient(unsigned int value, unsigned int divisor) { return divisor == 0 ? 0 : value / divisor; }

// Layers that are defined on four sizes see any tensor through the four accessors.
struct Nchw {
  explicit Nchw(const zeb::PuxDnnBufAttrs& attrs)
      : n(attrs.GetBatch()), c(attrs.GetChannels()), h(attrs.GetHeight()), w(attrs.GetWidth()) {}
  unsigned int n, c, h, w;
};

// --- One function per shape rule.

Dims SameAsInput(const AttrMap&, const InputAttrs& inputs) { return inputs[0]->GetDims(); }

Dims Reshape(const AttrMap& attrs, const InputAttrs& inputs) {
  const unsigned int factor = Number(attrs, "pixelshuffler", 1);
  if (factor == 1) return inputs[0]->GetDims();
  const Nchw in(*inputs[0]);
  return {in.n, Quotient(in.c, factor * factor), in.h * factor, in.w * factor};
}

Dims Broadcast(const AttrMap& attrs, const InputAttrs& inputs) {
  const Dims size = List(attrs, "size", 4);
  const Nchw in(*inputs[0]);
  Dims dims = {in.n, in.c, in.h, in.w};
  for (std::size_t i = 0; i < dims.size(); ++i) {
    if (static_cast<int>(size[i]) > 0) dims[i] = size[i];
  }
  return dims;
}

// Searches run over the three other dimensions in order, each writes its `top_k` results side by side, and
// for every axis but the batch the whole is written once per batch item.
Dims Argmax(const AttrMap& attrs, const InputAttrs& inputs) {
  const Nchw in(*inputs[0]);
  const unsigned int axis = Number(attrs, "axis", 0);
  const unsigned int top_k = Number(attrs, "top_k", 1);
  Dims dims = {in.n, in.c, in.h, in.w};
  if (axis > 3) return dims;
  if (axis != 0) dims[0] *= in.n;
  dims[axis] = 1;
  if (top_k == 1) return dims;
  dims.erase(dims.begin() + axis);
  dims.push_back(top_k);
  return dims;
}

Dims Matmul(const AttrMap& attrs, const InputAttrs& inputs) {
  const Nchw a(*inputs[0]);
  if (inputs.size() > 1) {
    const Nchw b(*inputs[1]);
    return {a.n, a.c, b.h, b.w};
  }
  const char* trans_b = Text(attrs, "trans_b");
  if (trans_b != nullptr && std::string(trans_b) == "1") return {a.n, a.c, 1, a.c};
  return {a.n, a.c, a.h, a.w};
}

Dims Permute(const AttrMap& attrs, const InputAttrs& inputs) {
  const Dims in = inputs[0]->GetDims();
  Dims axes = List(attrs, "axes", 0);
  for (unsigned int d = 0; d < in.size(); ++d) {
    if (std::find(axes.begin(), axes.end(), d) == axes.end()) axes.push_back(d);
  }
  Dims dims;
  for (std::size_t i = 0; i < in.size(); ++i) dims.push_back(axes[i] < in.size() ? in[axes[i]] : 1);
  return dims;
}

Dims Concat(const AttrMap& attrs, const InputAttrs& inputs) {
  Dims dims = inputs[0]->GetDims();
  const std::size_t axis = Number(attrs, "axis", 0);
  for (std::size_t i = 1; i < inputs.size(); ++i) {
    const Dims more = inputs[i]->GetDims();
    if (axis < dims.size() && axis < more.size()) dims[axis] += more[axis];
  }
  return dims;
}

Dims DepthToSpace(const AttrMap& attrs, const InputAttrs& inputs) {
  const unsigned int block = Number(attrs, "block_size", 1);
  const Nchw in(*inputs[0]);
  return {in.n, Quotient(in.c, block * block), in.h * block, in.w * block};
}

Dims SpaceToDepth(const AttrMap& attrs, const InputAttrs& inputs) {
  const unsigned int block = Number(attrs, "block_size", 1);
  const Nchw in(*inputs[0]);
  return {in.n, in.c * block * block, Quotient(in.h, block), Quotient(in.w, block)};
}

Dims SpaceToBatch(const AttrMap& attrs, const InputAttrs& inputs) {
  const Dims block = List(attrs, "block_shape", 2);
  const Dims pads = List(attrs, "paddings", 4);
  const Nchw in(*inputs[0]);
  return {in.n * block[0] * block[1], in.c, Quotient(in.h + pads[0] + pads[1], block[0]),
          Quotient(in.w + pads[2] + pads[3], block[1])};
}

Dims BatchToSpace(const AttrMap& attrs, const InputAttrs& inputs) {
  const Dims block = List(attrs, "block_shape", 2);
  const Dims crops = List(attrs, "crops", 4);
  const Nchw in(*inputs[0]);
  return {Quotient(in.n, block[0] * block[1]), in.c, in.h * block[0] - crops[0] - crops[1],
          in.w * block[1] - crops[2] - crops[3]};
}

Dims Pad(const AttrMap& attrs, const InputAttrs& inputs) {
  const Dims pads = List(attrs, "pad_shape", 8);
  const Nchw in(*inputs[0]);
  return {in.n + pads[0] + pads[1], in.c + pads[2] + pads[3], in.h + pads[4] + pads[5],
          in.w + pads[6] + pads[7]};
}

Dims Gather(const AttrMap& attrs, const InputAttrs& inputs) {
  Dims dims = inputs[0]->GetDims();
  const std::size_t axis = Number(attrs, "axis", 0);
  if (inputs.size() < 2 || axis >= dims.size()) return dims;
  const Dims indices = inputs[1]->GetDims();
  const auto place = dims.erase(dims.begin() + static_cast<std::ptrdiff_t>(axis));
  dims.insert(place, indices.begin(), indices.end());
  return dims;
}

// The sizes are those of input 0, but where it is the N x C x 1 x 1 operand of a product.
Dims Eltwise(const AttrMap& attrs, const InputAttrs& inputs) {
  const char* word = Text(attrs, "word_A");
  const bool per_channel = Number(attrs, "method", 0) == 0 && inputs.size() > 1 &&
                           Number(attrs, "broadcast_A", 0) == 1 && word != nullptr &&
                           (std::strtoul(word, nullptr, 0) & 15) == 3;
  return inputs[per_channel ? 1 : 0]->GetDims();
}

constexpr const char* kFloat32 = "float32";
constexpr const char* kAllButInt32 = "float32 int8 uint8 int16 uint16";
constexpr const char* kAll = "float32 int8 uint8 int16 uint16 int32 uint32";

const std::vector<LayerRules> kRules = {
    {"SOFTMAX", SameAsInput, kFloat32},
    {"DATA_STRIDE_CONV", SameAsInput, kAll},
    {"RESHAPE", Reshape, kAll},
    {"BROADCAST", Broadcast, kAll},
    {"ARGMAX", Argmax, kFloat32},
    {"NORMALIZE", SameAsInput, kFloat32},
    {"MATMUL", Matmul, kFloat32},
    {"PERMUTE", Permute, kAll},
    {"SWCONCAT", Concat, kAllButInt32},
    {"DEPTHTOSPACE", DepthToSpace, kAll},
    {"PAD", Pad, kAll},
    {"GATHER", Gather, kAllButInt32},
    {"ELTWISE", Eltwise, kFloat32},
    {"SPACETOBATCH", SpaceToBatch, kAll},
    {"SPACETODEPTH", SpaceToDepth, kAll},
    {"BATCHTOSPACE", BatchToSpace, kAll},
};

}  // namespace

const std::vector<LayerRules>& AllLayerRules() { return kRules; }

const LayerRules* FindLayerRules(const std::string& type) {
  const auto found = std::find_if(kRules.begin(), kRules.end(),
                                  [&type](const LayerRules& rules) { return rules.type == type; });
  return found == kRules.end() ? nullptr : &*found;
}

}  // namespace vek_host
