#include "layer_catalog.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

namespace vekrun {
namespace {

using Inputs = std::vector<const zeb::PuxDnnBufAttrs*>;

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

Dims SameAsInput(const AttrMap&, const Inputs& inputs) { return inputs[0]->GetDims(); }

Dims Reshape(const AttrMap& attrs, const Inputs& inputs) {
  const unsigned int factor = Number(attrs, "pixelshuffler", 1);
  if (factor == 1) return inputs[0]->GetDims();
  const Nchw in(*inputs[0]);
  return {in.n, Quotient(in.c, factor * factor), in.h * factor, in.w * factor};
}

Dims Broadcast(const AttrMap& attrs, const Inputs& inputs) {
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
Dims Argmax(const AttrMap& attrs, const Inputs& inputs) {
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

Dims Matmul(const AttrMap& attrs, const Inputs& inputs) {
  const Nchw a(*inputs[0]);
  if (inputs.size() > 1) {
    const Nchw b(*inputs[1]);
    return {a.n, a.c, b.h, b.w};
  }
  const char* trans_b = Text(attrs, "trans_b");
  if (trans_b != nullptr && std::string(trans_b) == "1") return {a.n, a.c, 1, a.c};
  return {a.n, a.c, a.h, a.w};
}

Dims Permute(const AttrMap& attrs, const Inputs& inputs) {
  const Dims in = inputs[0]->GetDims();
  Dims axes = List(attrs, "axes", 0);
  for (unsigned int d = 0; d < in.size(); ++d) {
    if (std::find(axes.begin(), axes.end(), d) == axes.end()) axes.push_back(d);
  }
  Dims dims;
  for (std::size_t i = 0; i < in.size(); ++i) dims.push_back(axes[i] < in.size() ? in[axes[i]] : 1);
  return dims;
}

Dims Concat(const AttrMap& attrs, const Inputs& inputs) {
  Dims dims = inputs[0]->GetDims();
  const std::size_t axis = Number(attrs, "axis", 0);
  for (std::size_t i = 1; i < inputs.size(); ++i) {
    const Dims more = inputs[i]->GetDims();
    if (axis < dims.size() && axis < more.size()) dims[axis] += more[axis];
  }
  return dims;
}

Dims DepthToSpace(const AttrMap& attrs, const Inputs& inputs) {
  const unsigned int block = Number(attrs, "block_size", 1);
  const Nchw in(*inputs[0]);
  return {in.n, Quotient(in.c, block * block), in.h * block, in.w * block};
}

Dims SpaceToDepth(const AttrMap& attrs, const Inputs& inputs) {
  const unsigned int block = Number(attrs, "block_size", 1);
  const Nchw in(*inputs[0]);
  return {in.n, in.c * block * block, Quotient(in.h, block), Quotient(in.w, block)};
}

Dims SpaceToBatch(const AttrMap& attrs, const Inputs& inputs) {
  const Dims block = List(attrs, "block_shape", 2);
  const Dims pads = List(attrs, "paddings", 4);
  const Nchw in(*inputs[0]);
  return {in.n * block[0] * block[1], in.c, Quotient(in.h + pads[0] + pads[1], block[0]),
          Quotient(in.w + pads[2] + pads[3], block[1])};
}

Dims BatchToSpace(const AttrMap& attrs, const Inputs& inputs) {
  const Dims block = List(attrs, "block_shape", 2);
  const Dims crops = List(attrs, "crops", 4);
  const Nchw in(*inputs[0]);
  return {Quotient(in.n, block[0] * block[1]), in.c, in.h * block[0] - crops[0] - crops[1],
          in.w * block[1] - crops[2] - crops[3]};
}

Dims Pad(const AttrMap& attrs, const Inputs& inputs) {
  const Dims pads = List(attrs, "pad_shape", 8);
  const Nchw in(*inputs[0]);
  return {in.n + pads[0] + pads[1], in.c + pads[2] + pads[3], in.h + pads[4] + pads[5],
          in.w + pads[6] + pads[7]};
}

Dims Gather(const AttrMap& attrs, const Inputs& inputs) {
  Dims dims = inputs[0]->GetDims();
  const std::size_t axis = Number(attrs, "axis", 0);
  if (inputs.size() < 2 || axis >= dims.size()) return dims;
  const Dims indices = inputs[1]->GetDims();
  const auto place = dims.erase(dims.begin() + static_cast<std::ptrdiff_t>(axis));
  dims.insert(place, indices.begin(), indices.end());
  return dims;
}

// The sizes are those of input 0, but where it is the N x C x 1 x 1 operand of a product.
Dims Eltwise(const AttrMap& attrs, const Inputs& inputs) {
  const char* word = Text(attrs, "word_A");
  const bool per_channel = Number(attrs, "method", 0) == 0 && inputs.size() > 1 &&
                           Number(attrs, "broadcast_A", 0) == 1 && word != nullptr &&
                           (std::strtoul(word, nullptr, 0) & 15) == 3;
  return inputs[per_channel ? 1 : 0]->GetDims();
}

const std::vector<LayerInfo> kCatalog = {
    {"SOFTMAX",
     "softmax along one axis",
     "1 input: float32, 4-D, planar, unpadded",
     {{"axis", "1", "0 to 3 for N, C, H, W"}},
     nullptr,
     SameAsInput,
     "Softmax",
     "numpy.exp, numpy.sum"},
    {"DATA_STRIDE_CONV",
     "the same tensor in another layout",
     "1 input: 8, 16 or 32 bits; any padding; any pack if 4-D, though 32-bit integers keep theirs",
     {},
     "The layouts are those of --in and --out: pack, line, plane.",
     SameAsInput,
     "none: only the layout changes",
     "numpy.copyto between strided views"},
    {"RESHAPE",
     "another shape, or pixel shuffle",
     "1 input: 8, 16 or 32 bits, planar, unpadded",
     {{"pixelshuffler", nullptr,
       "1 reshapes (give the output's shape), r moves r*r channels into r x r pixels"}},
     nullptr,
     Reshape,
     "Reshape; DepthToSpace with mode CRD",
     "numpy.reshape"},
    {"BROADCAST",
     "repeats along C, H, W",
     "1 input: 8, 16 or 32 bits, planar; rows may be padded; one batch item",
     {{"size", nullptr,
       "[n,c,h,w]; repeats where above 0, taken as the output's extent unless a shape is given"}},
     nullptr,
     Broadcast,
     "Expand",
     "numpy.broadcast_to"},
    {"ARGMAX",
     "positions or values of the largest",
     "1 input: float32, 4-D, planar, unpadded",
     {{"axis", "0", "0 to 3 for N, C, H, W"},
      {"top_k", "1", "how many, largest first"},
      {"out_max_val", "0", "1: values instead of positions"}},
     "Takes exactly one attribute per configuration: part them with --then.",
     Argmax,
     "ArgMax, TopK",
     "numpy.argmax, numpy.argsort"},
    {"NORMALIZE",
     "divides by the L2 norm",
     "1 input: float32, planar, unpadded",
     {{"across_spatial", "1", "1: norm of a batch item, else of each channel's plane"},
      {"channel_shared", "1", "1: one scale for all channels (all scales are 1.0)"}},
     nullptr,
     SameAsInput,
     "LpNormalization with p = 2",
     "numpy.linalg.norm"},
    {"MATMUL",
     "matrix product, batch by batch; rows are channels, a row is H x W",
     "1 input: A x A or A x A^T; 2 inputs: A x B; float32, planar",
     {{"trans_b", nullptr, "1: the second of two equal factors is transposed"}},
     nullptr,
     Matmul,
     "MatMul",
     "numpy.matmul"},
    {"PERMUTE",
     "reorders dimensions",
     "1 input: 8, 16 or 32 bits, 4-D in any layout; other ranks float32, unpadded",
     {{"axes", nullptr,
       "[0,2,3,1]: output dimension i is input dimension axes[i]; the rest follow in order"}},
     nullptr,
     Permute,
     "Transpose",
     "numpy.transpose"},
    {"SWCONCAT",
     "joins tensors along one axis",
     "1 or more inputs: float32, 8 or 16 bits, 4-D or 5-D, planar, unpadded",
     {{"axis", nullptr, "0 to 3, or to 4 for 5-D tensors"}},
     nullptr,
     Concat,
     "Concat",
     "numpy.concatenate"},
    {"DEPTHTOSPACE",
     "channel blocks into space",
     "1 input: 8, 16 or 32 bits, 4-D, planar, unpadded",
     {{"block_size", nullptr, "at least 1; its square divides the channels"}},
     nullptr,
     DepthToSpace,
     "DepthToSpace with mode DCR",
     "numpy.reshape, numpy.transpose"},
    {"PAD",
     "a border around a tensor",
     "1 input: 8, 16 or 32 bits, 4-D; with an interleaved output 32 bits, taken as dense",
     {{"pad_mode", nullptr, "1 reflect, 2 edge, 3 symmetric, 4 constant"},
      {"pad", nullptr, "the constant; bits as they are: of floats 7 is 9.8e-45, and 1088421888 is 7.0"},
      {"pad_shape", nullptr, "[n,n,c,c,h,h,w,w]: before and after, in elements"},
      {"format", nullptr, "[0,1,2,3], or [0,2,3,1] for 32 bits, taken as dense"}},
     nullptr,
     Pad,
     "Pad",
     "numpy.pad"},
    {"GATHER",
     "slices chosen by indices",
     "2 inputs: float32, 8 or 16 bits, planar, unpadded; uint32 indices of any shape",
     {{"axis", "0", "0 to 3, the dimension that the indices count along"}},
     nullptr,
     Gather,
     "Gather",
     "numpy.take"},
    {"ELTWISE",
     "one operation per element",
     "1 input or 2: float32, planar, unpadded",
     {{"method", nullptr, "0 A*B, 1 A+k, 6 A/B, 7 A to the power k"},
      {"has_k", "0", "1: take k"},
      {"k", "1.0", "the constant or the exponent"},
      {"broadcast_A", "0", "1: repeat A as word_A says"},
      {"word_A", "0", "8 repeats along N, 4 along C, 2 along H, 1 along W; their sum"},
      {"broadcast_B", "0", "1: repeat B as word_B says"},
      {"word_B", "0", "as word_A"}},
     "The loops run over A's shape: make the full tensor A, unless A is N x C x 1 x 1 in a product.",
     Eltwise,
     "Mul, Add, Div, Pow",
     "numpy.multiply, numpy.add, numpy.divide, numpy.power"},
    {"SPACETOBATCH",
     "padded spatial blocks into the batch",
     "1 input: 8, 16 or 32 bits, 4-D, planar, unpadded",
     {{"block_shape", nullptr, "[height,width]"}, {"paddings", nullptr, "[top,bottom,left,right]"}},
     nullptr,
     SpaceToBatch,
     "none: Pad, Reshape, Transpose",
     "numpy.pad, numpy.reshape, numpy.transpose"},
    {"SPACETODEPTH",
     "spatial blocks into channels",
     "1 input: 8, 16 or 32 bits, 4-D, planar, unpadded",
     {{"block_size", nullptr, "at least 1; divides height and width"}},
     nullptr,
     SpaceToDepth,
     "SpaceToDepth",
     "numpy.reshape, numpy.transpose"},
    {"BATCHTOSPACE",
     "batch items into spatial blocks, cropped",
     "1 input: 8, 16 or 32 bits, 4-D, planar, unpadded",
     {{"block_shape", nullptr, "[height,width]"}, {"crops", nullptr, "[top,bottom,left,right]"}},
     nullptr,
     BatchToSpace,
     "none: Reshape, Transpose, Slice",
     "numpy.reshape, numpy.transpose"},
};

}  // namespace

const std::vector<LayerInfo>& LayerCatalog() { return kCatalog; }

const LayerInfo* FindLayer(const std::string& type) {
  const auto found = std::find_if(kCatalog.begin(), kCatalog.end(),
                                  [&type](const LayerInfo& layer) { return layer.type == type; });
  return found == kCatalog.end() ? nullptr : &*found;
}

}  // namespace vekrun
