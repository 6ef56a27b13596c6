#include "cases/kernel_forms.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "cases/contents.h"
#include "support/floats.h"
#include "support/guarded_buffer.h"

namespace vek_cases {
namespace {

using vek_model::Budget;
using vek_model::Memory;
using vek_model::u64;
using vek_test::Buf;
using vek_test::Guard;
using vek_test::GuardedBuffer;
using Bytes = std::vector<std::uint8_t>;

// How often the forms were compared.
struct Tally {
  unsigned plain = 0;
  unsigned fast = 0;
  unsigned in_place = 0;
  unsigned plain_only = 0;  // where the fast form is ruled out and something is written
};

GuardedBuffer BufferOf(const Memory& memory, unsigned width, Guard guard) {
  // Elements stay aligned where a size is no multiple of them.
  return vek_test::Guarded(memory.Initial(), memory.reach() % width == 0 ? guard : Guard::kBefore);
}

void ExpectSame(const GuardedBuffer& actual, const Memory& expected, bool computes, const std::string& what) {
  const Bytes want = expected.Get();
  const Bytes got = actual.Get();
  if (got == want) return;
  if (computes) return vek_test::ExpectSameFloats(actual.Get<float>(), expected.Get<float>(), what);
  const auto at = std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin();
  ADD_FAILURE() << what << ": byte " << at << " of " << got.size() << " differs";
}

// Runs one form in exact buffers behind, or in front of, which nothing is mapped.
void CompareForm(const std::function<void(FormData&)>& form, const std::string& name, const KernelCase& c,
                 const ModelData& expected, Guard guard) {
  std::vector<GuardedBuffer> buffers;
  FormData data;
  for (const Memory* memory : expected.in) {
    buffers.push_back(BufferOf(*memory, c.width, guard));
    data.in.push_back(buffers.back().data());
    if (memory == &expected.out) data.out = buffers.back().data();
  }
  if (data.out == nullptr) {
    buffers.push_back(BufferOf(expected.out, c.width, guard));
    data.out = buffers.back().data();
  }
  form(data);
  EXPECT_EQ(data.answer, expected.answer) << name;
  for (std::size_t i = 0; i < buffers.size(); ++i) {
    const bool is_input = i < expected.in.size();
    const Memory& memory = is_input ? *expected.in[i] : expected.out;
    ExpectSame(buffers[i], memory, c.computes, name + (is_input ? ", buffer of an input" : ", output"));
  }
}

// With an output of its own, and in each input's buffer that it may be in.
void Compare(const KernelCase& c, Random& random, const Budget& allowed, Tally& tally) {
  const Guard guard = random.OneIn(2) ? Guard::kBefore : Guard::kAfter;
  const Memory::Words out_words = c.computes ? AnyFloats(random) : AnyBits(random);
  for (std::size_t run = 0; run <= c.in_place.size(); ++run) {
    Budget budget = allowed;
    std::vector<std::unique_ptr<Memory>> memories;
    for (const Memory::Words& words : c.in) memories.push_back(std::make_unique<Memory>(words, &budget));
    memories.push_back(std::make_unique<Memory>(out_words, &budget));
    ModelData expected{{}, *memories[run == 0 ? c.in.size() : c.in_place[run - 1]]};
    for (std::size_t i = 0; i < c.in.size(); ++i) expected.in.push_back(memories[i].get());
    try {
      c.model(expected);
    } catch (const vek_model::Skip&) {
      return;
    }
    const std::string place =
        run == 0 ? "" : " in the buffer of input " + std::to_string(c.in_place[run - 1]);
    if (c.plain) CompareForm(c.plain, "the plain form" + place, c, expected, guard);
    if (c.fast) CompareForm(c.fast, "the fast form" + place, c, expected, guard);
    if (run == 0) {
      tally.plain += c.plain ? 1U : 0U;
      tally.fast += c.fast ? 1U : 0U;
      tally.plain_only += c.plain && !c.fast && expected.out.reach() != 0 ? 1U : 0U;
    } else {
      ++tally.in_place;
    }
  }
}

// A valid setup in which the products of some extents pass 2^32, and are small again modulo it, or in which a stride
// is almost 2^32.
Setup WrappingSetup(const std::string& type, Random& random) {
  static const std::vector<std::pair<unsigned, unsigned>> extents = {
      {3, 0xAAAAAAABU}, {0xAAAAAAABU, 3},           {0xCCCCCCCDU, 5}, {641, 6700417},
      {6700417, 641},   {0xFFFFFFFFU, 0xFFFFFFFFU}, {65536, 65536},   {65537, 65536},
      {2, 0x80000001U}, {0x80000001U, 2},           {4, 0x40000001U}, {1, 0x80000000U}};
  Setup setup = ValidSetup(type, random);
  const std::pair<unsigned, unsigned> two = random.OneOf(extents);
  const std::size_t first = random.Below(4);
  const std::size_t second = (first + 1 + random.Below(3)) % 4;
  const auto stride = [&](unsigned& bytes) {
    if (random.OneIn(8)) bytes = random.OneOf({0xFFFFFFF0U, 0xFFFFFFFCU, 0x80000000U, 0x80000004U, 0U});
  };
  const auto wrap = [&](Buf& buf) {
    for (unsigned& dim : buf.dims) dim = std::clamp(dim, 1U, 4U);  // long loops over nothing take long, too
    if (buf.dims.size() > std::max(first, second)) {
      buf.dims[std::min(first, second)] = two.first;
      buf.dims[std::max(first, second)] = two.second;
    }
    stride(buf.line_stride);
    stride(buf.plane_stride);
    for (unsigned& bytes : buf.strides) stride(bytes);
  };
  for (const char* key : {"pixelshuffler", "block_size"}) {
    if (setup.attrs.count(key) != 0 && random.OneIn(2)) {
      setup.attrs[key] = random.OneOf({"2147483649", "4294967295", "65535", "1073741825"});
    }
  }
  for (const char* key : {"block_shape", "paddings", "crops"}) {
    if (setup.attrs.count(key) != 0 && random.OneIn(4)) {
      setup.attrs[key] = random.OneOf(
          {"[4294967295,1,1,4294967295]", "[1,2147483649,2147483649,1]", "[2,4294967294,0,4294967295]"});
    }
  }
  const bool wrap_all = random.OneIn(2);
  for (std::vector<Buf>* list : {&setup.in, &setup.out}) {
    for (Buf& buf : *list) {
      if (wrap_all || random.OneIn(2)) wrap(buf);
    }
  }
  return setup;
}

template <typename MakeSetup>
Tally CompareAll(const Kernel& kernel, std::uint64_t cases, const Budget& budget,
                 const MakeSetup& make_setup) {
  Tally tally;
  vek_test::ForRandomCases(cases, [&](Random& random) {
    const Setup setup = make_setup(random);
    if (const auto c = kernel.make(setup, random)) Compare(*c, random, budget, tally);
  });
  testing::Test::RecordProperty("plain", static_cast<int>(tally.plain));
  testing::Test::RecordProperty("fast", static_cast<int>(tally.fast));
  testing::Test::RecordProperty("in_place", static_cast<int>(tally.in_place));
  testing::Test::RecordProperty("plain_only", static_cast<int>(tally.plain_only));
  return tally;
}

bool RunsFewerCases(std::uint64_t cases) { return vek_test::EnvNumber("VEK_RANDOM_CASES", cases) < cases; }

}  // namespace

void ExpectFormsEqualTheModel(const Kernel& kernel) {
  constexpr std::uint64_t kCases = 240;
  const std::uint64_t cases = vek_test::CasesOfRun(kCases);
  const Tally tally = CompareAll(kernel, cases, {200000, 1 << 20}, [&](Random& random) {
    return random.OneIn(2) ? AnySetup(kernel.type, random) : ValidSetup(kernel.type, random);
  });
  if (RunsFewerCases(cases)) return;
  // An eighth; of a part of the cases half as many, for it may have fewer of a kind than its share.
  const std::uint64_t least = cases / (cases < kCases ? 16 : 8);
  EXPECT_GE(tally.fast, least);
  EXPECT_GE(tally.plain, kernel.has_plain ? 2 * least : 0U);
  EXPECT_GE(tally.in_place, kernel.in_place ? least : 0);
}

void ExpectPlainFormWraps(const Kernel& kernel) {
  const std::uint64_t cases = vek_test::CasesOfRun(1200);
  const Tally tally = CompareAll(kernel, cases, {20000, 1 << 18},
                                 [&](Random& random) { return WrappingSetup(kernel.type, random); });
  if (RunsFewerCases(cases)) return;
  EXPECT_GE(tally.plain_only, kernel.wraps ? cases / 400 : 0);
}

}  // namespace vek_cases
