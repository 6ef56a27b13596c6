// The kernels that compute, plain and fast, next to the model's formulas.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>

#include "cases/contents.h"
#include "cases/kernel_forms.h"
#include "contract/positions.h"
#include "kernels/argmax.h"
#include "kernels/l2norm.h"
#include "kernels/matmul.h"
#include "kernels/softmax.h"
#include "model/vek_argmax.h"
#include "model/vek_ewo.h"
#include "model/vek_l2norm.h"
#include "model/vek_matmul.h"
#include "model/vek_softmax.h"
#include "support/guarded_buffer.h"
#include "support/room_headers.h"

namespace vek_cases::numeric_kernels {
namespace {

namespace detail = zeb_custom_ops::detail;
namespace kernels = zeb_custom_ops::kernels;
namespace room = vek_test::room;
using detail::Fits;
using detail::Saturating;
using vek_model::Shape;
using vek_model::u32;

KernelCase FloatCase(std::vector<vek_model::Memory::Words> in) {
  KernelCase c;
  c.computes = true;
  c.in = std::move(in);
  return c;
}

bool AllFit(const Shape& s) { return Fits(Saturating(s.n) * s.c * s.h * s.w); }

u32 AttrOr(const Setup& setup, const char* key, u32 otherwise) {
  const std::string* text = vek_model::Find(setup.attrs, key);
  return text == nullptr ? otherwise : static_cast<u32>(vek_model::Long(*text));
}

std::optional<KernelCase> Softmax(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  const Shape s(setup.in[0]);
  const u32 axis = AttrOr(setup, "axis", random.Between(0, 3)) % 4;
  const kernels::SoftmaxShape shapes[] = {{s.n, s.c * s.h * s.w, s.c * s.h * s.w, 1},
                                          {s.c, s.h * s.w, s.h * s.w, s.n},
                                          {s.h, s.w, s.c * s.w, s.n},
                                          {s.w, 1, s.c * s.h, s.n}};
  const kernels::SoftmaxShape shape = shapes[axis];
  KernelCase c = FloatCase({AnyFloats(random)});
  c.in_place = {0};
  c.model = [=](ModelData& d) { vek_model::Softmax(s, axis, *d.in[0], ~0U, d.out); };
  c.plain = [=](FormData& d) { kernels::PlainSoftmax(d.In<float>(), d.Out<float>(), shape); };
  if (AllFit(s)) c.fast = [=](FormData& d) { kernels::Softmax(d.In<float>(), d.Out<float>(), shape); };
  return c;
}

// The settings of several calls of Configure together, and those of whole items.
std::optional<KernelCase> Argmax(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  const Shape s(setup.in[0]);
  vek_model::ArgmaxSettings settings;
  settings.has_axis = !random.OneIn(6);
  settings.axis = static_cast<vek_model::i32>(AttrOr(setup, "axis", random.Between(0, 3)) % 4);
  settings.top_k = AttrOr(setup, "top_k", random.OneOf({1U, 1U, 1U, 2U, 4U, 9U, 40U}));
  settings.out_max_val = random.OneIn(3);
  const vek_model::Searches searched(s, settings);
  const u32 columns = !settings.has_axis || settings.axis == 3 ? 1
                      : settings.axis == 2                     ? s.w
                                                               : searched.slices;
  const kernels::Searches searches{searched.len, searched.stride, columns, searched.slices};
  const u32 ranks = settings.top_k == 1 ? 1 : std::min(settings.top_k, searched.len);
  const kernels::Results results{ranks, !settings.out_max_val || !settings.has_axis, settings.out_max_val,
                                 searched.outer};
  if (ranks == 0 || ranks > 1 << 12) return {};  // searches for nothing, or too long a list
  const auto with_lists = [=](const auto& kernel) {
    return [=](FormData& d) {
      const std::size_t pairs = ranks * room::ListsAtOnce();
      const vek_test::GuardedBuffer lists(pairs * sizeof(kernels::Pair));
      kernel(d.In<float>(), d.Out<float>(), searches, results, std::span(lists.as<kernels::Pair>(), pairs));
    };
  };
  KernelCase c = FloatCase({AnyFloats(random)});
  c.model = [=](ModelData& d) { vek_model::Argmax(s, settings, *d.in[0], d.out); };
  c.plain = with_lists(&kernels::PlainArgmax);
  const bool has_zero = s.IsEmpty() || searched.outer == 0;
  if (AllFit(s) && !has_zero && searched.len <= std::numeric_limits<vek_model::i32>::max()) {
    c.fast = with_lists(&kernels::Argmax);
  }
  return c;
}

std::optional<KernelCase> L2Norm(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  const Shape s(setup.in[0]);
  const kernels::NormShape shape{s.n, s.c, s.h * s.w, AttrOr(setup, "across_spatial", 1) == 1,
                                 AttrOr(setup, "channel_shared", 1) == 1};
  if (s.c > 1 << 12 && !shape.channel_shared) return {};
  std::vector<float> scales(shape.channel_shared ? 1 : s.c, 1.0F);
  for (float& scale : scales) {
    if (random.OneIn(3)) scale = random.AnyFloat();
  }
  // Without a scale nothing is scaled.
  const bool has_scales = !shape.channel_shared || random.OneIn(4);
  if (!has_scales) scales[0] = 1.0F;
  const std::vector<float> given = has_scales ? scales : std::vector<float>();
  KernelCase c = FloatCase({AnyFloats(random)});
  c.in_place = {0};
  c.model = [=](ModelData& d) {
    vek_model::L2Norm(s, shape.across_spatial, shape.channel_shared, scales, *d.in[0], d.out);
  };
  c.plain = [=](FormData& d) { kernels::PlainNormalize(d.In<float>(), d.Out<float>(), shape, given); };
  if (AllFit(s))
    c.fast = [=](FormData& d) { kernels::Normalize(d.In<float>(), d.Out<float>(), shape, given); };
  return c;
}

// Of two inputs, or of one by itself.
std::optional<KernelCase> Product(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  const Shape a(setup.in.front());
  const Shape b(setup.in.back());
  const bool by_itself = setup.in.size() == 1 || random.OneIn(8);
  const u32 N = a.n, M = a.c, K = a.h * a.w, P = b.h * b.w;
  // Nothing is written then, but the loops that are not empty run.
  if ((N == 0 || M == 0 || P == 0) && std::max({N, M, P}) > 1 << 8) return {};
  KernelCase c = FloatCase({AnyFloats(random)});
  if (!by_itself) c.in.push_back(AnyFloats(random));
  c.model = [=](ModelData& d) { vek_model::AB(d.out, *d.in.front(), a, *d.in.back(), b); };
  const auto form = [=](auto kernel) {
    return [=](FormData& d) {
      kernel(d.Out<float>(), d.In<float>(), static_cast<const float*>(d.in.back()), N, M, K, P, b.c);
    };
  };
  c.plain = form(&kernels::PlainProduct);
  const Saturating b_rows = N == 0 ? Saturating(0) : Saturating(N - 1) * b.c + K;
  if (Fits(Saturating(N) * M * K) && Fits(Saturating(N) * M * P) && Fits(b_rows * P)) {
    c.fast = form(&kernels::Product);
  }
  return c;
}

std::optional<KernelCase> ProductByTransposed(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  const Shape a(setup.in[0]);
  const u32 K = a.h * a.w;
  KernelCase c = FloatCase({AnyFloats(random)});
  c.model = [=](ModelData& d) { vek_model::AAT(d.out, *d.in[0], a); };
  const auto form = [=](auto kernel) {
    return [=](FormData& d) { kernel(d.Out<float>(), d.In<float>(), a.n, a.c, K); };
  };
  c.plain = form(&kernels::PlainProductByTransposed);
  if (Fits(Saturating(a.n) * a.c * K) && Fits(Saturating(a.n) * a.c * a.c)) {
    c.fast = form(&kernels::ProductByTransposed);
  }
  return c;
}

vek_model::Operand OperandOf(const Setup& setup, const std::string& letter, Random& random) {
  const std::string* word = vek_model::Find(setup.attrs, ("word_" + letter).c_str());
  return {AttrOr(setup, ("broadcast_" + letter).c_str(), 0) == 1,
          word != nullptr ? static_cast<u32>(std::strtoul(word->c_str(), nullptr, 0) & 15)
                          : random.Between(0, 15)};
}

room::BroadcastSteps StepsOf(const vek_model::Operand& operand, const Shape& s) {
  const u32 word = operand.repeats ? operand.word : 0;
  const bool along[4] = {(word & 8) != 0, (word & 4) != 0, (word & 2) != 0, (word & 1) != 0};
  return {along, s.c, s.h, s.w};
}

template <typename Op>
std::optional<KernelCase> ZipBroadcast(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  constexpr bool is_product = std::is_same_v<Op, std::multiplies<>>;
  const Shape s(setup.in[0]);
  const vek_model::Operand a = OperandOf(setup, "A", random);
  const vek_model::Operand b = OperandOf(setup, "B", random);
  const room::BroadcastSteps a_steps = StepsOf(a, s);
  const room::BroadcastSteps b_steps = StepsOf(b, s);
  KernelCase c = FloatCase({AnyFloats(random), AnyFloats(random)});
  if (!a.repeats || a.word == 0) c.in_place.push_back(0);
  if (!b.repeats || b.word == 0) c.in_place.push_back(1);
  c.model = [=](ModelData& d) {
    const auto model = is_product ? &vek_model::Multiply : &vek_model::Divide;
    model(s, a, *d.in[0], b, *d.in[1], d.out);
  };
  c.plain = [=](FormData& d) {
    room::PlainZipBroadcast<Op>(d.In<float>(0), a_steps, d.In<float>(1), b_steps, d.Out<float>(), s.n, s.c,
                                s.h, s.w);
  };
  if (AllFit(s)) {
    c.fast = [=](FormData& d) {
      room::ZipBroadcast<Op>(d.In<float>(0), a_steps, d.In<float>(1), b_steps, d.Out<float>(), s.n, s.c, s.h,
                             s.w);
    };
  }
  return c;
}

std::optional<KernelCase> MulPlanes(const Setup& setup, Random& random) {
  if (setup.in.empty()) return {};
  const Shape s(setup.in[0]);
  const u32 plane = s.h * s.w;
  KernelCase c = FloatCase({AnyFloats(random), AnyFloats(random)});
  c.in_place = {1};
  c.model = [=](ModelData& d) { vek_model::MultiplyPlanes(s, *d.in[1], *d.in[0], d.out); };
  c.plain = [=](FormData& d) {
    room::PlainMulPlanes(d.In<float>(0), d.In<float>(1), d.Out<float>(), s.Count(), plane);
  };
  if (AllFit(s)) {
    c.fast = [=](FormData& d) {
      room::MulPlanes(d.In<float>(0), d.In<float>(1), d.Out<float>(), std::size_t{s.n} * s.c, plane);
    };
  }
  return c;
}

const std::vector<Kernel> kKernels = {
    {.name = "Softmax", .type = "SOFTMAX", .make = Softmax, .in_place = true},
    {.name = "Argmax", .type = "ARGMAX", .make = Argmax},
    {.name = "Normalize", .type = "NORMALIZE", .make = L2Norm, .in_place = true},
    {.name = "Product", .type = "MATMUL", .make = Product},
    {.name = "ProductByTransposed", .type = "MATMUL", .make = ProductByTransposed, .wraps = false},
    {.name = "ZipBroadcastMultiplies",
     .type = "ELTWISE",
     .make = ZipBroadcast<std::multiplies<>>,
     .wraps = false,
     .in_place = true},
    {.name = "ZipBroadcastDivides",
     .type = "ELTWISE",
     .make = ZipBroadcast<std::divides<>>,
     .wraps = false,
     .in_place = true},
    {.name = "MulPlanes", .type = "ELTWISE", .make = MulPlanes, .in_place = true},
};

class NumericKernels : public testing::TestWithParam<Kernel> {};

TEST_P(NumericKernels, FormsEqualTheModel) { ExpectFormsEqualTheModel(GetParam()); }
TEST_P(NumericKernels, PlainFormWraps) { ExpectPlainFormWraps(GetParam()); }

INSTANTIATE_TEST_SUITE_P(All, NumericKernels, testing::ValuesIn(kKernels),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace vek_cases::numeric_kernels
