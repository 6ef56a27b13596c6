#include "workloads.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <span>

#include "kernels/argmax.h"
#include "kernels/batch_to_space.h"
#include "kernels/broadcast.h"
#include "kernels/concat.h"
#include "kernels/depth_to_space.h"
#include "kernels/gather.h"
#include "kernels/l2norm.h"
#include "kernels/layout_conversion.h"
#include "kernels/matmul.h"
#include "kernels/pad.h"
#include "kernels/permute.h"
#include "kernels/pixel_shuffle.h"
#include "kernels/softmax.h"
#include "kernels/space_to_batch.h"
#include "kernels/space_to_depth.h"
#include "math/broadcast.h"
#include "math/exact_math.h"

namespace vek_bench {
namespace {

using vek_host::BufAttrs;
using zeb_custom_ops::detail::Loop;
namespace kernels = zeb_custom_ops::kernels;
namespace detail = zeb_custom_ops::detail;
using AttrMap = zeb::PuxDnnCustomLayer::AttrMap;
using Dims = std::vector<unsigned>;

// --- Decisions. No distribution of the standard library: theirs differ between implementations.

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  std::uint64_t Below(std::uint64_t n) { return engine_() % n; }
  unsigned Between(unsigned low, unsigned high) { return low + static_cast<unsigned>(Below(high - low + 1)); }
  bool OneIn(unsigned n) { return Below(n) == 0; }
  double Fraction() { return static_cast<double>(engine_() >> 11) * 0x1p-53; }
  template <typename T>
  T OneOf(std::initializer_list<T> values) {
    return values.begin()[Below(values.size())];
  }

 private:
  std::mt19937_64 engine_;
};

// From 8 to 4 million.
double AnyCount(Random& random) { return 8 * std::exp2(19 * random.Fraction()); }

// `rank` extents with about `count` elements, of any proportions; an axis in four has an extent of 1.
Dims AnyExtents(Random& random, std::size_t rank, double count) {
  std::vector<double> shares(rank);
  double sum = 0;
  while (sum == 0) {
    for (double& share : shares) sum += share = random.OneIn(4) ? 0 : 0.1 + random.Fraction();
  }
  Dims dims(rank);
  for (std::size_t i = 0; i < rank; ++i) {
    dims[i] = static_cast<unsigned>(std::max(1L, std::lround(std::pow(count, shares[i] / sum))));
  }
  return dims;
}

unsigned Count(const Dims& dims) {
  unsigned count = 1;
  for (unsigned dim : dims) count *= dim;
  return count;
}

// --- Descriptions and their texts.

struct Element {
  int bits;
  bool is_float;
};
Element AnyElement(Random& random) { return random.OneOf<Element>({{32, true}, {16, false}, {8, false}}); }

BufAttrs Describe(Dims dims, Element element, int pack = 1, unsigned row_pad = 0, unsigned plane_pad = 0) {
  zeb::PuxDnnBufAttrsMemFormat format;
  format.bitdepth = element.bits;
  format.float_ = element.is_float;
  format.plane_pack = pack;
  BufAttrs attrs(std::move(dims), format);
  attrs.SetLineStride(attrs.GetLineStride() + row_pad);
  attrs.SetPlaneStride(attrs.GetLineStride() * attrs.GetHeight() + plane_pad);
  return attrs;
}
constexpr Element kFloat = {32, true};
BufAttrs Float(Dims dims) { return Describe(std::move(dims), kFloat); }

std::string Text(const Dims& dims) {
  std::string text;
  for (unsigned dim : dims) text += (text.empty() ? "" : "x") + std::to_string(dim);
  return text;
}
std::string List(const Dims& values) {
  std::string text = "[";
  for (std::size_t i = 0; i < values.size(); ++i) text += (i == 0 ? "" : ",") + std::to_string(values[i]);
  return text + "]";
}
// A list in a field of a table.
std::string Spaced(const Dims& values) {
  std::string text;
  for (unsigned value : values) text += (text.empty() ? "" : " ") + std::to_string(value);
  return text;
}
std::string Text(const BufAttrs& attrs) {
  const zeb::PuxDnnBufAttrsMemFormat& format = attrs.GetMemFormat();
  std::string text = Text(attrs.GetDims()) + (format.float_ ? " f" : " u") + std::to_string(format.bitdepth);
  if (format.plane_pack != 1) text += " pack " + std::to_string(format.plane_pack);
  if (attrs.IsStrided()) {
    text += " lines of " + std::to_string(attrs.GetLineStride()) + " planes of " +
            std::to_string(attrs.GetPlaneStride());
  }
  return text;
}
const char* Name(Data data) {
  constexpr const char* kNames[] = {"positive", "signed", "relu", "peaked"};
  return kNames[static_cast<int>(data)];
}

Workload Make(const char* layer, std::string shape, AttrMap attrs, std::vector<BufAttrs> in, BufAttrs out) {
  Workload work;
  work.layer = layer;
  work.shape = std::move(shape);
  work.attrs.push_back(std::move(attrs));
  work.in = std::move(in);
  work.out.push_back(std::move(out));
  return work;
}

template <typename T>
const T* As(const void* data) {
  return static_cast<const T*>(data);
}
template <typename T>
T* As(void* data) {
  return static_cast<T*>(data);
}

// Makes `plain` of a callable that takes a value of the element's type first.
template <typename T32, typename T16, typename T8, typename Body>
void SetPlain(Workload& work, int bits, Body body) {
  if (bits == 32) {
    work.plain = [body](void* const* in, void* out) mutable { body(T32{}, in, out); };
  } else if (bits == 16) {
    work.plain = [body](void* const* in, void* out) mutable { body(T16{}, in, out); };
  } else {
    work.plain = [body](void* const* in, void* out) mutable { body(T8{}, in, out); };
  }
}

// --- The layers that compute.

Workload Softmax(const Dims& d, unsigned axis, Data data) {
  Workload work = Make("SOFTMAX", Text(d) + " axis " + std::to_string(axis) + " " + Name(data),
                       {{"axis", std::to_string(axis)}}, {Float(d)}, Float(d));
  work.data = data;
  const unsigned H = d[2], W = d[3];
  const kernels::SoftmaxShape s = axis == 0   ? kernels::SoftmaxShape{d[0], d[1] * H * W, d[1] * H * W, 1}
                                  : axis == 1 ? kernels::SoftmaxShape{d[1], H * W, H * W, d[0]}
                                  : axis == 2 ? kernels::SoftmaxShape{H, W, d[1] * W, d[0]}
                                              : kernels::SoftmaxShape{W, 1, d[1] * H, d[0]};
  work.plain = [s](void* const* in, void* out) {
    kernels::PlainSoftmax(As<float>(in[0]), As<float>(out), s);
  };
  return work;
}

Data AnyData(Random& random) {
  return random.OneOf({Data::kPositive, Data::kSigned, Data::kRelu, Data::kPeaked});
}
Dims AnyTensor(Random& random) { return AnyExtents(random, 4, AnyCount(random)); }

Workload AnySoftmax(Random& random) {
  const Dims dims = AnyTensor(random);
  return Softmax(dims, random.Between(0, 3), AnyData(random));
}

Workload Argmax(const Dims& d, unsigned axis, unsigned top_k, Data data) {
  const auto [N, C, H, W] = std::array{d[0], d[1], d[2], d[3]};
  const unsigned plane = H * W;
  kernels::Searches s = {N, C * plane, C * plane, C * plane};
  if (axis == 1) s = {C, plane, N * plane, N * plane};
  if (axis == 2) s = {H, W, W, N * C * W};
  if (axis == 3) s = {W, 1, 1, N * C * H};
  const kernels::Results results = {top_k, true, false, axis == 0 ? 1 : N};
  const unsigned room = s.slices * results.repeats * top_k;
  Workload work =
      Make("ARGMAX",
           Text(d) + " axis " + std::to_string(axis) + " top " + std::to_string(top_k) + " " + Name(data),
           {{"axis", std::to_string(axis)}}, {Float(d)}, Float({1, 1, 1, room}));
  work.attrs.push_back({{"top_k", std::to_string(top_k)}});
  work.data = data;
  work.plain = [s, results, lists = std::vector<kernels::Pair>(std::size_t{top_k} * kernels::kListsAtOnce)](
                   void* const* in, void* out) mutable {
    kernels::PlainArgmax(As<float>(in[0]), As<float>(out), s, results, lists);
  };
  return work;
}

Workload AnyArgmax(Random& random) {
  Dims dims = AnyTensor(random);
  const unsigned axis = random.Between(0, 3);
  if (axis != 0 && dims[0] > 4) {  // all results are repeated for every item
    dims[1] *= dims[0];
    dims[0] = 1;
  }
  return Argmax(dims, axis, random.OneIn(3) ? std::min(dims[axis], random.Between(2, 8)) : 1,
                AnyData(random));
}

Workload Normalize(const Dims& d, bool across_spatial, Data data) {
  Workload work = Make("NORMALIZE", Text(d) + (across_spatial ? " items " : " planes ") + Name(data),
                       {{"across_spatial", across_spatial ? "1" : "0"}}, {Float(d)}, Float(d));
  work.data = data;
  const kernels::NormShape s = {d[0], d[1], d[2] * d[3], across_spatial, true};
  work.plain = [s](void* const* in, void* out) {
    kernels::PlainNormalize(As<float>(in[0]), As<float>(out), s, {});
  };
  return work;
}

Workload AnyNormalize(Random& random) {
  const Dims dims = AnyTensor(random);
  return Normalize(dims, random.OneIn(2), AnyData(random));
}

// Method 0 multiplies, 6 divides; B repeats along the dims of `word`, N to W from its highest bit down.
Workload Zip(const Dims& d, unsigned method, unsigned word) {
  Dims small = d;
  bool along[4];
  for (std::size_t i = 0; i < 4; ++i) {
    along[i] = (word >> (3 - i) & 1) != 0;
    if (along[i]) small[i] = 1;
  }
  Workload work =
      Make("ELTWISE", Text(d) + (method == 0 ? " times " : " over ") + Text(small),
           {{"method", std::to_string(method)}, {"broadcast_B", "1"}, {"word_B", std::to_string(word)}},
           {Float(d), Float(small)}, Float(d));
  const auto [N, C, H, W] = std::array{d[0], d[1], d[2], d[3]};
  constexpr bool kNowhere[4] = {};
  const detail::BroadcastSteps a(kNowhere, C, H, W);
  const detail::BroadcastSteps b(along, C, H, W);
  if (method == 0 && word == 3) {
    work.plain = [=](void* const* in, void* out) {
      detail::PlainMulPlanes(As<float>(in[1]), As<float>(in[0]), As<float>(out), N * C * H * W, H * W);
    };
  } else if (method == 0) {
    work.plain = [=](void* const* in, void* out) {
      detail::PlainZipBroadcast(As<float>(in[0]), a, As<float>(in[1]), b, As<float>(out), N, C, H, W,
                                std::multiplies<>());
    };
  } else {
    work.plain = [=](void* const* in, void* out) {
      detail::PlainZipBroadcast(As<float>(in[0]), a, As<float>(in[1]), b, As<float>(out), N, C, H, W,
                                std::divides<>());
    };
  }
  return work;
}

// Method 1 adds k, 7 raises to the power k.
Workload WithK(const Dims& d, unsigned method, const char* k, Data data) {
  Workload work = Make("ELTWISE", Text(d) + (method == 1 ? " plus " : " power ") + k + " " + Name(data),
                       {{"method", std::to_string(method)}, {"has_k", "1"}, {"k", k}}, {Float(d)}, Float(d));
  work.data = data;
  const unsigned count = Count(d);
  const float value = std::strtof(k, nullptr);
  if (method == 1) {
    work.plain = [=](void* const* in, void* out) {
      for (unsigned i = 0; i < count; ++i) As<float>(out)[i] = As<float>(in[0])[i] + value;
    };
  } else if (value == -1.0F) {
    work.plain = [=](void* const* in, void* out) {
      for (unsigned i = 0; i < count; ++i) As<float>(out)[i] = 1.0F / As<float>(in[0])[i];
    };
  } else {
    work.plain = [=](void* const* in, void* out) {
      for (unsigned i = 0; i < count; ++i) As<float>(out)[i] = detail::PlainPow(As<float>(in[0])[i], value);
    };
  }
  return work;
}

Workload AnyEltwise(Random& random) {
  const Dims dims = AnyTensor(random);
  const unsigned method = random.OneOf({0U, 0U, 6U, 1U, 7U, 7U});
  if (method == 0 || method == 6) return Zip(dims, method, random.OneIn(3) ? 3 : random.Between(0, 15));
  const char* k = method == 1 ? "3" : random.OneOf({"2", "0.5", "-1", "2.2", "3", "-2", "-0.5", "1.7"});
  return WithK(dims, method, k, AnyData(random));
}

Workload Product(unsigned N, unsigned M, unsigned K, unsigned P) {
  Workload work = Make("MATMUL", std::to_string(N) + " of " + Text({M, K}) + " by " + Text({K, P}),
                       {{"trans_b", "0"}}, {Float({N, M, 1, K}), Float({N, K, 1, P})}, Float({N, M, 1, P}));
  work.plain = [=](void* const* in, void* out) {
    kernels::PlainProduct(As<float>(out), As<float>(in[0]), As<float>(in[1]), N, M, K, P, K);
  };
  return work;
}
Workload ProductByTransposed(unsigned N, unsigned M, unsigned K) {
  Workload work = Make("MATMUL", std::to_string(N) + " of " + Text({M, K}) + " by its transpose",
                       {{"trans_b", "1"}}, {Float({N, M, 1, K})}, Float({N, M, 1, M}));
  work.plain = [=](void* const* in, void* out) {
    kernels::PlainProductByTransposed(As<float>(out), As<float>(in[0]), N, M, K);
  };
  return work;
}

Workload AnyMatmul(Random& random) {
  const Dims d = AnyExtents(random, 4, AnyCount(random));
  if (random.OneIn(4)) return ProductByTransposed(d[0], d[1], d[2] * (random.OneIn(2) ? d[3] : 1));
  return Product(d[0], d[1], d[2], d[3]);
}

// --- The layers that move elements.

Workload Moving(Workload work) {
  work.only_moves = true;
  return work;
}

Workload Shuffle(const Dims& d, unsigned r, Element e) {  // `d`: the dims of the output, but H and W by r
  const Dims in = {d[0], d[1] * r * r, d[2], d[3]};
  Workload work =
      Moving(Make("RESHAPE", Text(in) + " by " + std::to_string(r) + " u" + std::to_string(e.bits),
                  {{"pixelshuffler", std::to_string(r)}}, {Describe(in, e)},
                  Describe({d[0], d[1], d[2] * r, d[3] * r}, e)));
  const kernels::PixelShuffleShape s = {in[0], in[1], in[2], in[3], r};
  if (r == 1) {
    const std::size_t bytes = work.out[0].Bytes();
    work.plain_is_copy = true;
    work.plain = [bytes](void* const* from, void* to) { std::memcpy(to, from[0], bytes); };
  } else {
    SetPlain<int, short, char>(work, e.bits, [s](auto element, void* const* from, void* to) {
      using T = decltype(element);
      kernels::PlainPixelShuffle(As<T>(to), As<T>(from[0]), s);
    });
  }
  return work;
}

Workload AnyReshape(Random& random) {
  const unsigned r = random.OneOf({1U, 2U, 2U, 3U, 4U, 5U});
  return Shuffle(AnyExtents(random, 4, std::max(1.0, AnyCount(random) / (r * r))), r, AnyElement(random));
}

kernels::TensorLayout LayoutOf(const BufAttrs& attrs) {
  const unsigned bytes = attrs.ElementBytes();
  const unsigned pack = static_cast<unsigned>(attrs.GetMemFormat().plane_pack);
  const std::uint64_t plane = attrs.GetPlaneStride() / bytes;
  return {pack, attrs.GetLineStride() / bytes, plane, attrs.PlanesPerItem() * plane};
}
kernels::Extents ExtentsOf(const BufAttrs& attrs) {
  return {attrs.GetBatch(), attrs.GetChannels(), attrs.GetHeight(), attrs.GetWidth()};
}

// From one layout of a tensor to another, as a plain twin.
void PlainConvert(const BufAttrs& to, void* dst, const BufAttrs& from, const void* src) {
  const auto convert = [&](auto element) {
    using T = decltype(element);
    kernels::PlainChangeInterleaving(As<T>(dst), to.Bytes(), LayoutOf(to), As<T>(src), LayoutOf(from),
                                     ExtentsOf(from));
  };
  if (to.ElementBytes() == 4) {
    convert(float{});
  } else if (to.ElementBytes() == 2) {
    convert(short{});
  } else {
    using SignedChar = signed char;
    convert(SignedChar{});
  }
}

Workload Convert(BufAttrs from, BufAttrs to) {
  Workload work = Moving(Make("DATA_STRIDE_CONV", Text(from) + " to " + Text(to), {}, {from}, to));
  if (from.GetMemFormat().plane_pack != to.GetMemFormat().plane_pack) {
    work.plain = [from, to](void* const* in, void* out) { PlainConvert(to, out, from, in[0]); };
    return work;
  }
  if (from.Bytes() == to.Bytes() && from.GetLineStride() == to.GetLineStride()) {
    work.plain_is_copy = true;
    work.plain = [bytes = from.Bytes()](void* const* in, void* out) { std::memcpy(out, in[0], bytes); };
    return work;
  }
  work.plain = [from, to](void* const* in, void* out) {
    std::memset(out, 0, to.Bytes());
    const unsigned H = from.GetHeight();
    const unsigned planes = from.GetBatch() * from.PlanesPerItem();
    const auto pads = [&](const BufAttrs& attrs) {
      return std::array{0U, attrs.GetPlaneStride() - H * attrs.GetLineStride(), 0U, attrs.GetLineStride()};
    };
    const std::array extents = {1U, planes, H, 1U};
    const std::array from_pads = pads(from);
    const std::array to_pads = pads(to);
    unsigned src = 0;
    unsigned dst = 0;
    kernels::PlainCopyPaddedRuns(As<signed char>(out), dst, As<signed char>(in[0]), src,
                                 {extents, from_pads, to_pads}, 0);
  };
  return work;
}

BufAttrs AnyLayout(Random& random, const Dims& dims, Element e, bool interleaves = true) {
  const int pack = interleaves && random.OneIn(2) ? random.OneOf({2, 3, 4, 4, 5, 8, 8, 16, 16, 17, 32}) : 1;
  const unsigned unit = static_cast<unsigned>(e.bits) / 8;
  const unsigned row_pad = random.OneIn(2) ? unit * random.Between(1, 32) : 0;
  return Describe(dims, e, pack, row_pad, random.OneIn(3) ? unit * random.Between(1, 64) : 0);
}

Workload AnyConversion(Random& random) {
  const Element e = AnyElement(random);
  const Dims dims = AnyTensor(random);
  BufAttrs from = AnyLayout(random, dims, e);
  BufAttrs to = AnyLayout(random, dims, e);
  if (random.OneIn(3)) {
    to = Describe(dims, e, from.GetMemFormat().plane_pack, random.Between(0, 16) * unsigned(e.bits / 8));
  }
  return Convert(std::move(from), std::move(to));
}

// The dims in another order, from any layout to any.
Workload Permute(BufAttrs from, const Dims& axes, BufAttrs to) {
  Workload work = Moving(Make("PERMUTE", Text(from) + " by " + Spaced(axes) + " to " + Text(to),
                              {{"axes", List(axes)}}, {from}, to));
  const Dims dims = from.GetDims();
  const std::size_t rank = dims.size();
  Dims in_step(rank);
  unsigned step = 1;
  for (std::size_t d = rank; d-- > 0; step *= dims[d]) in_step[d] = step;
  std::vector<Loop> loops(rank);
  step = 1;
  for (std::size_t i = rank; i-- > 0; step *= dims[axes[i]])
    loops[i] = {dims[axes[i]], in_step[axes[i]], step};
  const unsigned count = Count(dims);

  const auto is_dense = [](const BufAttrs& attrs) {
    return attrs.GetMemFormat().plane_pack == 1 && !attrs.IsStrided();
  };
  const BufAttrs dense_from = Describe(dims, {from.GetMemFormat().bitdepth, from.GetMemFormat().float_});
  const BufAttrs dense_to = Describe(to.GetDims(), {to.GetMemFormat().bitdepth, to.GetMemFormat().float_});
  std::vector<std::byte> before(is_dense(from) ? 0 : dense_from.Bytes());
  std::vector<std::byte> behind(is_dense(to) ? 0 : dense_to.Bytes());
  SetPlain<float, short, char>(
      work, from.GetMemFormat().bitdepth, [=](auto element, void* const* in, void* out) mutable {
        using T = decltype(element);
        const void* src = in[0];
        if (!before.empty()) {
          PlainConvert(dense_from, before.data(), from, src);
          src = before.data();
        }
        kernels::PlainPermute(As<T>(behind.empty() ? out : behind.data()), As<T>(src), loops, 0, count);
        if (!behind.empty()) PlainConvert(to, out, dense_to, behind.data());
      });
  return work;
}
Dims Reordered(const Dims& dims, const Dims& axes) {
  Dims to;
  for (unsigned axis : axes) to.push_back(dims[axis]);
  return to;
}

Workload AnyPermute(Random& random) {
  const std::size_t rank = random.OneIn(3) ? random.Between(2, 5) : 4;
  const Element e = rank == 4 ? AnyElement(random) : kFloat;
  const Dims dims = AnyExtents(random, rank, AnyCount(random));
  Dims axes(rank);
  for (unsigned i = 0; i < rank; ++i) axes[i] = i;
  for (std::size_t i = rank; i-- > 1;) std::swap(axes[i], axes[random.Below(i + 1)]);
  if (rank == 4 && random.OneIn(4)) axes = {0, 2, 3, 1};
  if (rank == 4 && random.OneIn(4)) axes = {0, 3, 1, 2};
  const Dims to_dims = Reordered(dims, axes);
  const bool padded = rank == 4 && random.OneIn(3);
  const auto layout = [&](const Dims& of) {
    return padded && random.OneIn(2) ? AnyLayout(random, of, e) : Describe(of, e);
  };
  const BufAttrs from = layout(dims);
  return Permute(from, axes, layout(to_dims));
}

// Along channels, rows and columns, as the bits of `along` say: 4, 2, 1.
Workload Broadcast(const Dims& d, unsigned along, Element e, unsigned in_pad = 0, unsigned out_pad = 0) {
  const bool c = (along & 4) != 0, h = (along & 2) != 0, w = (along & 1) != 0;
  const Dims small = {1, c ? 1 : d[1], h ? 1 : d[2], w ? 1 : d[3]};
  const BufAttrs from = Describe(small, e, 1, in_pad);
  const BufAttrs to = Describe(d, e, 1, out_pad);
  Workload work =
      Moving(Make("BROADCAST", Text(from) + " to " + Text(to), {{"size", List({0, c, h, w})}}, {from}, to));
  const unsigned bytes = from.ElementBytes();
  const kernels::BroadcastShape s = {
      d[1], d[2], d[3], small[2], small[3], from.GetLineStride() / bytes, to.GetLineStride() / bytes,
      c,    h,    w};
  SetPlain<int, short, char>(work, e.bits, [s](auto element, void* const* in, void* out) {
    using T = decltype(element);
    kernels::PlainBroadcast(As<T>(out), As<T>(in[0]), s);
  });
  return work;
}

Workload AnyBroadcast(Random& random) {
  Dims dims = AnyExtents(random, 3, AnyCount(random));
  dims.insert(dims.begin(), 1);
  const Element e = AnyElement(random);
  const auto pad = [&] { return random.OneIn(4) ? random.Between(1, 16) * unsigned(e.bits / 8) : 0; };
  const unsigned in_pad = pad();
  return Broadcast(dims, random.Between(1, 7), e, in_pad, pad());
}

// Parts of these extents along `axis`; the other extents are those of `dims`.
Workload Concat(Dims dims, unsigned axis, const Dims& parts, Element e) {
  std::vector<BufAttrs> in;
  unsigned extent = 0;
  for (unsigned part : parts) {
    dims[axis] = part;
    extent += part;
    in.push_back(Describe(dims, e));
  }
  dims[axis] = extent;
  Workload work = Moving(Make(
      "SWCONCAT",
      Text(dims) + " u" + std::to_string(e.bits) + " axis " + std::to_string(axis) + " of " + Spaced(parts),
      {{"axis", std::to_string(axis)}}, in, Describe(dims, e)));
  std::uint64_t outer = 1;
  unsigned inner = 1;
  for (unsigned d = 0; d < 4; ++d) {
    if (d < axis) outer *= dims[d];
    if (d > axis) inner *= dims[d];
  }
  SetPlain<float, unsigned short, unsigned char>(
      work, e.bits, [=](auto element, void* const* data, void* out) {
        using T = decltype(element);
        kernels::Slab<T> slabs[8];
        for (std::size_t i = 0; i < parts.size(); ++i) slabs[i] = {As<T>(data[i]), parts[i] * inner};
        kernels::PlainConcat(As<T>(out), std::span<const kernels::Slab<T>>(slabs, parts.size()),
                             {outer, extent * inner, 0});
      });
  return work;
}

Workload AnyConcat(Random& random) {
  const Dims dims = AnyTensor(random);
  const unsigned axis = random.Between(0, 3);
  Dims parts(random.Between(2, 5));
  for (unsigned& part : parts) {
    part = axis == 0 ? dims[0] : std::max(1U, random.Between(0, 2 * dims[axis] / unsigned(parts.size())));
  }
  return Concat(dims, axis, parts, AnyElement(random));
}

Workload DepthToSpace(const Dims& d, unsigned b, Element e,
                      bool back) {  // `d`: the deep side's, but C by b * b
  const Dims deep = {d[0], d[1] * b * b, d[2], d[3]};
  const Dims wide = {d[0], d[1], d[2] * b, d[3] * b};
  Workload work =
      Moving(Make(back ? "SPACETODEPTH" : "DEPTHTOSPACE",
                  Text(back ? wide : deep) + " by " + std::to_string(b) + " u" + std::to_string(e.bits),
                  {{"block_size", std::to_string(b)}}, {Describe(back ? wide : deep, e)},
                  Describe(back ? deep : wide, e)));
  const kernels::DepthToSpaceShape s = {deep[0], deep[1], deep[2], deep[3], d[1], b};
  const kernels::SpaceToDepthShape t = {wide[0], wide[1], wide[2], wide[3], deep[1], deep[2], deep[3], b};
  const int count = static_cast<int>(Count(deep));
  SetPlain<int, short, char>(work, e.bits, [=](auto element, void* const* in, void* out) {
    using T = decltype(element);
    if (back) {
      kernels::PlainSpaceToDepth(As<T>(out), As<T>(in[0]), t);
    } else {
      kernels::PlainDepthToSpace(As<T>(out), As<T>(in[0]), s, count);
    }
  });
  return work;
}

Workload AnyDepthToSpace(Random& random, bool back) {
  const unsigned b = random.OneOf({2U, 2U, 3U, 4U, 5U});
  const Dims dims = AnyExtents(random, 4, std::max(1.0, AnyCount(random) / (b * b)));
  return DepthToSpace(dims, b, AnyElement(random), back);
}

// `grids`: the sub-grids' dims but for N, which is the image's; margins are top, bottom, left, right.
Workload SpaceToBatch(const Dims& grids, const Dims& block, const Dims& margins, Element e, bool back) {
  const Dims image = {grids[0], grids[1], grids[2] * block[0] - margins[0] - margins[1],
                      grids[3] * block[1] - margins[2] - margins[3]};
  const Dims items = {grids[0] * block[0] * block[1], grids[1], grids[2], grids[3]};
  Workload work = Moving(Make(back ? "BATCHTOSPACE" : "SPACETOBATCH",
                              Text(back ? items : image) + " by " + Text(block) + " margins " +
                                  Spaced(margins) + " u" + std::to_string(e.bits),
                              {{"block_shape", List(block)}, {back ? "crops" : "paddings", List(margins)}},
                              {Describe(back ? items : image, e)}, Describe(back ? image : items, e)));
  const kernels::SpaceToBatchShape s = {image[0], image[1], image[2], image[3], items[0],   items[1],
                                        items[2], items[3], block[0], block[1], margins[0], margins[2]};
  const kernels::BatchToSpaceShape t = {items[1], items[2], items[3], image[0],   image[1],  image[2],
                                        image[3], block[0], block[1], margins[0], margins[2]};
  SetPlain<int, short, char>(work, e.bits, [=](auto element, void* const* in, void* out) {
    using T = decltype(element);
    if (back) {
      kernels::PlainBatchToSpace(As<T>(out), As<T>(in[0]), t);
    } else {
      kernels::PlainSpaceToBatch(As<T>(out), As<T>(in[0]), s, T{0});
    }
  });
  return work;
}

Workload AnySpaceToBatch(Random& random, bool back) {
  const Dims block = {random.Between(1, 4), random.Between(1, 4)};
  const Dims grids = AnyExtents(random, 4, std::max(1.0, AnyCount(random) / (block[0] * block[1])));
  Dims margins(4);
  for (std::size_t i = 0; i < 4; ++i) {
    const unsigned extent = grids[2 + i / 2] * block[i / 2] - (i % 2 == 1 ? margins[i - 1] : 0);
    if (random.OneIn(2)) margins[i] = std::min(random.Between(0, 4), extent - 1);
  }
  return SpaceToBatch(grids, block, margins, AnyElement(random), back);
}

Workload Gather(const Dims& dims, unsigned axis, unsigned count, Element e) {
  Dims to = dims;
  to[axis] = count;
  Workload work = Moving(Make("GATHER",
                              std::to_string(count) + " of " + Text(dims) + " u" + std::to_string(e.bits) +
                                  " along " + std::to_string(axis),
                              {{"axis", std::to_string(axis)}},
                              {Describe(dims, e), Describe({count, 1, 1, 1}, {32, false})}, Describe(to, e)));
  work.index_below = dims[axis];
  unsigned outer = 1;
  unsigned inner = 1;
  for (unsigned d = 0; d < 4; ++d) (d < axis ? outer : d > axis ? inner : to[0]) *= d == axis ? 1 : dims[d];
  const kernels::GatherShape s = {outer, dims[axis], inner, count, outer * count * inner};
  SetPlain<float, unsigned short, unsigned char>(work, e.bits, [=](auto element, void* const* in, void* out) {
    using T = decltype(element);
    kernels::PlainGather(As<T>(out), As<T>(in[0]), As<std::uint32_t>(in[1]), s);
  });
  return work;
}

Workload AnyGather(Random& random) {
  const Dims dims = AnyTensor(random);
  const unsigned axis = random.Between(0, 3);
  const unsigned count = std::max(1U, static_cast<unsigned>(dims[axis] * (0.2 + random.Fraction())));
  return Gather(dims, axis, count, AnyElement(random));
}

// `pads`: before and after N, C, H and W.
Workload Pad(BufAttrs from, const Dims& pads, int mode, unsigned out_pad = 0) {
  Dims whole = from.GetDims();
  for (std::size_t i = 0; i < 4; ++i) whole[i] += pads[2 * i] + pads[2 * i + 1];
  const Element e = {from.GetMemFormat().bitdepth, from.GetMemFormat().float_};
  const BufAttrs to = Describe(whole, e, 1, out_pad);
  Workload work = Moving(Make(
      "PAD",
      Text(from) + " mode " + std::to_string(mode) + " pads " + Spaced(pads) +
          (out_pad == 0 ? "" : " to " + Text(to)),
      {{"pad_mode", std::to_string(mode)}, {"pad", "0"}, {"pad_shape", List(pads)}, {"format", "[0,1,2,3]"}},
      {from}, to));
  SetPlain<int, short, char>(work, e.bits, [=](auto element, void* const* in, void* out) {
    using T = decltype(element);
    kernels::PlainCopyInterior<T>({As<T>(in[0]), As<T>(out), ExtentsOf(from), LayoutOf(from), LayoutOf(to),
                                   pads[0], pads[2], pads[4], pads[6]});
    std::array<unsigned, 8> p;
    std::copy(pads.begin(), pads.end(), p.begin());
    kernels::PlainPad<T>({As<T>(out), ExtentsOf(from), ExtentsOf(to), LayoutOf(to), p, mode, T{0}});
  });
  return work;
}

Workload AnyPad(Random& random) {
  const Element e = AnyElement(random);
  const Dims dims = AnyTensor(random);
  Dims pads(8);
  for (std::size_t i = 4; i < 8; ++i) pads[i] = random.OneIn(4) ? 0 : random.Between(0, 5);
  if (random.OneIn(6)) pads[2] = random.Between(0, 2), pads[3] = random.Between(0, 2);
  if (random.OneIn(8)) pads[1] = 1;
  const BufAttrs from = random.OneIn(4) ? AnyLayout(random, dims, e) : Describe(dims, e);
  return Pad(from, pads, random.OneOf({1, 2, 3, 4, 4}),
             random.OneIn(5) ? unsigned(e.bits / 8) * random.Between(1, 16) : 0);
}

struct Layer {
  const char* name;
  Workload (*any)(Random&);
};
constexpr Layer kLayers[] = {
    {"ARGMAX", AnyArgmax},
    {"BATCHTOSPACE", [](Random& random) { return AnySpaceToBatch(random, true); }},
    {"BROADCAST", AnyBroadcast},
    {"DATA_STRIDE_CONV", AnyConversion},
    {"DEPTHTOSPACE", [](Random& random) { return AnyDepthToSpace(random, false); }},
    {"ELTWISE", AnyEltwise},
    {"GATHER", AnyGather},
    {"MATMUL", AnyMatmul},
    {"NORMALIZE", AnyNormalize},
    {"PAD", AnyPad},
    {"PERMUTE", AnyPermute},
    {"RESHAPE", AnyReshape},
    {"SOFTMAX", AnySoftmax},
    {"SPACETOBATCH", [](Random& random) { return AnySpaceToBatch(random, false); }},
    {"SPACETODEPTH", [](Random& random) { return AnyDepthToSpace(random, true); }},
    {"SWCONCAT", AnyConcat},
};

}  // namespace

std::uint64_t Workload::MovedBytes() const {
  std::uint64_t read = 0;
  for (const BufAttrs& input : in) read += input.Bytes();
  return index_below != 0 ? out[0].Bytes() : std::max(read, out[0].Bytes());
}

const std::vector<std::string>& Layers() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> all;
    for (const Layer& layer : kLayers) all.emplace_back(layer.name);
    return all;
  }();
  return names;
}

Workload RandomWorkload(const std::string& layer, std::uint64_t seed, unsigned number) {
  for (std::size_t i = 0; i < std::size(kLayers); ++i) {
    if (layer != kLayers[i].name) continue;
    Random random(seed * 1000003 + i * 10007 + number);
    return kLayers[i].any(random);
  }
  return {};
}

std::vector<Workload> SmallWorkloads() {
  const Dims image = {1, 3, 2, 2};
  const Dims row = {1, 8, 1, 1};
  const Element f = kFloat;
  return {
      Softmax({1, 10, 1, 1}, 1, Data::kPositive),
      Argmax({1, 10, 1, 1}, 1, 1, Data::kPositive),
      Normalize(row, true, Data::kPositive),
      Zip(row, 0, 0),
      Zip(row, 0, 3),
      WithK(row, 1, "3", Data::kPositive),
      WithK(row, 7, "2.2", Data::kPositive),
      WithK(row, 7, "2", Data::kSigned),
      Product(1, 1, 8, 8),
      Permute(Describe(image, f), {0, 2, 1, 3}, Describe({1, 2, 3, 2}, f)),
      Permute(Describe(image, f), {0, 2, 3, 1}, Describe({1, 2, 2, 3}, f)),
      Permute(Describe(image, {8, false}), {0, 2, 1, 3}, Describe({1, 2, 3, 2}, {8, false})),
      Pad(Describe(image, f), {0, 0, 0, 0, 1, 1, 1, 1}, kernels::kConstant),
      Pad(Describe(image, f), {0, 0, 0, 0, 1, 1, 1, 1}, kernels::kEdge),
      Concat(image, 1, {3, 3}, f),
      DepthToSpace({1, 1, 2, 2}, 2, f, false),
      DepthToSpace({1, 1, 2, 2}, 2, f, true),
      SpaceToBatch({1, 1, 2, 2}, {2, 2}, {0, 0, 0, 0}, f, false),
      SpaceToBatch({1, 1, 2, 2}, {2, 2}, {0, 0, 0, 0}, f, true),
      Gather(image, 1, 3, f),
      Convert(Describe(image, f), Describe(image, f, 1, 56)),
      Broadcast({1, 4, 2, 2}, 3, f),
      Shuffle({1, 1, 2, 2}, 2, f),
  };
}

}  // namespace vek_bench
