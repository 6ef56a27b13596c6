// Allocation: every allocation on every path fails in turn, and there are exactly as many as each layer needs.
#include <gtest/gtest.h>

#include <bit>
#include <cstdlib>
#include <new>

#include "support/guarded_buffer.h"
#include "support/random.h"
#include "support/zoo.h"

namespace {

// The allocations made while a scope watches. The replaced operators below serve the library too.
bool g_watching = false;
long g_allocations = 0;  // so far
long g_failing = -1;     // the one that fails, from 0; -1: none
long g_alive = 0;        // not freed yet, watched or not

void* Allocate(std::size_t bytes) {
  if (g_watching && g_allocations++ == g_failing) return nullptr;
  void* memory = std::malloc(bytes == 0 ? 1 : bytes);
  if (memory != nullptr) ++g_alive;
  return memory;
}
void* AllocateOrThrow(std::size_t bytes) {
  void* memory = Allocate(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void Free(void* memory) {
  if (memory != nullptr) --g_alive;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t bytes) { return AllocateOrThrow(bytes); }
void* operator new[](std::size_t bytes) { return AllocateOrThrow(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return Allocate(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return Allocate(bytes); }
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete[](void* memory) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t) noexcept { Free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { Free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { Free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { Free(memory); }

namespace vek_test {
namespace {

class Watch {
 public:
  explicit Watch(long failing = -1) {
    g_allocations = 0;
    g_failing = failing;
    g_watching = true;
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() { g_watching = false; }
  static bool Failed() { return g_failing >= 0 && g_allocations > g_failing; }
};

// A layer with its data, driven without the test's own allocations in between.
struct Stage {
  explicit Stage(const Specimen& specimen)
      : attrs(specimen.setup.attrs), in(MakeList(specimen.setup.in)), out(MakeList(specimen.setup.out)) {
    Random random(1);
    for (const Buf& buf : specimen.setup.in) data.emplace_back(buf.size).FillRandom(random);
    if (specimen.index_below != 0) {
      for (std::uint32_t& index : std::span(data[1].as<std::uint32_t>(), data[1].bytes() / 4)) {
        index %= specimen.index_below;
      }
    }
    for (GuardedBuffer& buffer : data) in_buffers.push_back(buffer.data());
    for (const Buf& buf : specimen.setup.out) results.emplace_back(buf.size).Fill(0);
    for (GuardedBuffer& buffer : results) out_buffers.push_back(buffer.data());
  }
  bool Configure(zeb::PuxDnnCustomLayer& layer) const { return layer.Configure(attrs, in, out); }
  bool Execute(zeb::PuxDnnCustomLayer& layer) { return layer.Execute(in_buffers.data(), out_buffers.data()); }

  AttrMap attrs;
  BufAttrsList in;
  BufAttrsList out;
  std::vector<GuardedBuffer> data;
  std::vector<GuardedBuffer> results;
  std::vector<void*> in_buffers;
  std::vector<void*> out_buffers;
};

// Calls `step` with each of its allocations failing in turn, until it passes without a failure. Returns how
// many failures it met. Each must reach the caller as std::bad_alloc, or as false after a line.
template <typename Before, typename Step>
long FailEachAllocation(Before&& before, Step&& step) {
  constexpr long kMost = 100;
  for (long n = 0; n < kMost; ++n) {
    before();
    bool result = false;
    bool threw = false;
    bool failed = false;
    LogCapture capture;
    try {
      const Watch watch(n);
      result = step();
      failed = Watch::Failed();
    } catch (const std::bad_alloc&) {
      threw = true;
      failed = true;
    }
    const Log log = capture.Stop();
    EXPECT_EQ(!result && !threw, !log.empty()) << "allocation " << n;
    if (!failed) {
      EXPECT_TRUE(result);
      return n;
    }
    EXPECT_FALSE(result) << "allocation " << n << " failed unnoticed";
  }
  ADD_FAILURE() << "no end";
  return kMost;
}

// What the descriptions allocated since their calls were reset: the lists that they return, and clones, each of which is
// an object and its two lists.
long ByDescriptions() { return Buf::calls[kGetDims] + Buf::calls[kGetStrides] + 3 * Buf::calls[kClone]; }

// The allocations of a list that grows to `count` elements one by one.
long Growth(std::size_t count) { return count < 2 ? 1 : static_cast<long>(std::bit_width(count - 1)) + 1; }

// What a layer allocates itself.
struct Own {
  long configure = 0;  // the first one
  long execute = 0;
  long scratch = 0;  // by the first Execute alone
};

Own OwnAllocations(const Specimen& specimen) {
  const std::string& type = specimen.type;
  const Setup& setup = specimen.setup;
  const auto is = [&](const char* name) { return specimen.name.starts_with(name); };
  if (specimen.name == "argmax long list") return {.execute = 1};
  if (type == "NORMALIZE") return {.configure = 1};  // the scales
  if (type == "BROADCAST" || type == "SPACETOBATCH" || type == "BATCHTOSPACE") {
    return {.configure = Growth(4)};  // a list of texts
  }
  if (type == "PAD") return {.configure = Growth(8) + 1};  // the entries of "pad_shape", and its text
  if (type == "GATHER") return {.configure = Growth(2)};   // the clones
  if (type == "SWCONCAT") {
    // In five dims, the dims of what was joined so far.
    return {.configure = Growth(setup.in.size()), .execute = setup.in[0].dims.size() == 5 ? 1 : 0};
  }
  if (type == "ELTWISE") return {.configure = Growth(setup.in.size())};
  if (type == "PERMUTE") {
    const long axes = Growth(is("permute to channel") || is("permute padded") ? 4 : 2);
    const bool is_dense_float = is("permute 32");
    return {.configure = 2 * axes,  // as texts and as numbers
            .scratch = is("permute to channel") || is_dense_float ? 0 : 2};
  }
  return {};
}

class AllocationTest : public testing::TestWithParam<Specimen> {};

TEST_P(AllocationTest, EveryFailureReachesTheHostAndTheLayerGoesOn) {
  const Plugin& plugin = Plugin::Get();
  const std::string type = GetParam().type;
  const Own own = OwnAllocations(GetParam());
  Stage stage(GetParam());
  const long alive_before = g_alive;
  const long clones_before = Buf::alive;

  zeb::PuxDnnCustomLayer* layer = nullptr;
  EXPECT_EQ(FailEachAllocation([] {}, [&] { return (layer = plugin.create_object(type)) != nullptr; }), 1);
  plugin.destroy_object(layer);
  EXPECT_EQ(g_alive, alive_before);

  // On a new layer: it takes a later Configure, and runs.
  layer = nullptr;
  const auto renew = [&] {
    plugin.destroy_object(layer);
    layer = plugin.create_object(type);
    Buf::ResetCalls();
  };
  const long configure = FailEachAllocation(renew, [&] { return stage.Configure(*layer); });
  EXPECT_EQ(configure, ByDescriptions() + own.configure);
  EXPECT_TRUE(stage.Execute(*layer));

  // On a configured layer: it stays configured.
  if (type != "SWCONCAT" && type != "ELTWISE" && type != "PERMUTE") {  // lists that grow with each Configure
    FailEachAllocation([] {}, [&] { return stage.Configure(*layer); });
    EXPECT_TRUE(stage.Execute(*layer));
  }

  const auto configured = [&] {
    renew();
    EXPECT_TRUE(stage.Configure(*layer));
    Buf::ResetCalls();
  };
  const long execute = FailEachAllocation(configured, [&] { return stage.Execute(*layer); });
  EXPECT_EQ(execute, ByDescriptions() + own.execute + own.scratch);
  EXPECT_TRUE(stage.Execute(*layer));

  plugin.destroy_object(layer);
  EXPECT_EQ(Buf::alive, clones_before) << "clones leaked";
  EXPECT_EQ(g_alive, alive_before) << "memory leaked";
}

TEST_P(AllocationTest, ASecondExecuteAllocatesNoScratch) {
  const std::string type = GetParam().type;
  zeb::PuxDnnCustomLayer* layer = Plugin::Get().create_object(type);
  ASSERT_NE(layer, nullptr);
  Stage stage(GetParam());
  ASSERT_TRUE(stage.Configure(*layer));
  ASSERT_TRUE(stage.Execute(*layer));

  Buf::ResetCalls();
  long allocations = 0;
  {
    const Watch watch;
    EXPECT_TRUE(stage.Execute(*layer));
    allocations = g_allocations;
  }
  EXPECT_EQ(allocations, ByDescriptions() + OwnAllocations(GetParam()).execute);
  Plugin::Get().destroy_object(layer);
}

std::string NameOf(const testing::TestParamInfo<Specimen>& info) {
  std::string name = info.param.name;
  for (char& c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  }
  return name;
}

// And a search whose candidates do not fit the stack.
std::vector<Specimen> Specimens() {
  std::vector<Specimen> specimens = Zoo();
  specimens.push_back({"argmax long list", "ARGMAX", {{{"top_k", "600"}}, {Buf::Float({700, 1, 1, 2})}, {}}});
  specimens.back().setup.out.push_back(Buf::Float({1, 1, 1, 1200}));
  return specimens;
}

INSTANTIATE_TEST_SUITE_P(Zoo, AllocationTest, testing::ValuesIn(Specimens()), NameOf);

}  // namespace
}  // namespace vek_test
