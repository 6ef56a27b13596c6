// Runs workloads of every layer, each next to the plain twin of its kernel and to a memcpy of as many bytes, and prints a
// table with commas: the workload, then the cost of each of the three.
//
//   vek_sweep [--plugin PATH] [--small] [--seed N] [--count N] [--layer TYPE] [--number N] [--instructions]
//
// --count workloads of each layer (64), or the fixed list of small calls. Costs are nanoseconds, the least of several
// runs with the buffers in the cache where they fit it; with --instructions, under QEMU with instruction_counter.c, executed
// instructions of one run, and a last column with what the host's own descriptions execute of them. The output is compared
// with the plain twin's: a difference is told, and ends the run with status 1.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "host/buf_attrs.h"
#include "host/plugin.h"
#include "host/reserved_slots.h"
#include "workloads.h"

namespace {

using vek_bench::Data;
using vek_bench::Workload;
using vek_host::BufAttrs;

// A description that counts what it is asked, so that the host's share of a call can be measured by itself.
class AskedAttrs final : public vek_host::ReservedSlots {
 public:
  enum Question { kClone, kSize, kDims, kNumDims, kStrides, kFormat, kExtent, kStride, kQuestions };
  inline static std::array<unsigned, kQuestions> asked{};

  explicit AskedAttrs(const BufAttrs& attrs) : attrs_(attrs) {}

  std::unique_ptr<PuxDnnBufAttrs> Clone() const override {
    return Count(kClone), std::make_unique<AskedAttrs>(*this);
  }
  std::uint32_t GetSize() const override { return Count(kSize), attrs_.GetSize(); }
  std::vector<unsigned int> GetDims() const override { return Count(kDims), attrs_.GetDims(); }
  unsigned int GetNumDims() const override { return Count(kNumDims), attrs_.GetNumDims(); }
  std::vector<unsigned int> GetStrides() const override { return Count(kStrides), attrs_.GetStrides(); }
  const zeb::PuxDnnBufAttrsMemFormat& GetMemFormat() const override {
    return Count(kFormat), attrs_.GetMemFormat();
  }
  void SetPlanePack(std::int32_t channels) override { attrs_.SetPlanePack(channels); }
  unsigned int GetBatch() const override { return Count(kExtent), attrs_.GetBatch(); }
  unsigned int GetChannels() const override { return Count(kExtent), attrs_.GetChannels(); }
  unsigned int GetHeight() const override { return Count(kExtent), attrs_.GetHeight(); }
  unsigned int GetWidth() const override { return Count(kExtent), attrs_.GetWidth(); }
  unsigned int GetLineStride() const override { return Count(kStride), attrs_.GetLineStride(); }
  unsigned int GetPlaneStride() const override { return Count(kStride), attrs_.GetPlaneStride(); }
  void SetLineStride(unsigned int bytes) override { attrs_.SetLineStride(bytes); }
  void SetPlaneStride(unsigned int bytes) override { attrs_.SetPlaneStride(bytes); }
  bool IsStrided() const override { return Count(kStride), attrs_.IsStrided(); }
  bool IsInterleaved() const override { return Count(kStride), attrs_.IsInterleaved(); }

  // Asks each question as often as `times` says.
  static void Ask(const PuxDnnBufAttrs& attrs, const std::array<unsigned, kQuestions>& times) {
    for (unsigned i = 0; i < times[kClone]; ++i) attrs.Clone();
    for (unsigned i = 0; i < times[kSize]; ++i) attrs.GetSize();
    for (unsigned i = 0; i < times[kDims]; ++i) attrs.GetDims();
    for (unsigned i = 0; i < times[kNumDims]; ++i) attrs.GetNumDims();
    for (unsigned i = 0; i < times[kStrides]; ++i) attrs.GetStrides();
    for (unsigned i = 0; i < times[kFormat]; ++i) attrs.GetMemFormat();
    for (unsigned i = 0; i < times[kExtent]; ++i) attrs.GetWidth();
    for (unsigned i = 0; i < times[kStride]; ++i) attrs.GetLineStride();
  }

 private:
  static void Count(Question question) { ++asked[question]; }
  BufAttrs attrs_;
};

float Value(Data data, std::uint64_t bits) {
  const float u = static_cast<float>(bits >> 40) * 0x1p-22F;  // [0, 4)
  switch (data) {
    case Data::kSigned:
      return u - 2;
    case Data::kPeaked:
      return 10 * (u - 2);
    case Data::kRelu:
      return bits % 2 != 0 ? 0.0F : 0.1F + u;
    default:
      return 0.1F + u;
  }
}

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};
using Buffer = std::unique_ptr<void, Free>;

Buffer Allocate(std::uint64_t bytes) { return Buffer(std::aligned_alloc(64, (bytes + 127) / 64 * 64)); }

void Fill(const Workload& work, std::size_t input, void* memory) {
  std::mt19937_64 random(7 + input);
  const std::size_t words = work.in[input].Bytes() / 4;
  for (std::size_t i = 0; i < words; ++i) {
    auto word = static_cast<std::uint32_t>(random());
    if (work.index_below != 0 && input == 1) {
      word = static_cast<std::uint32_t>(random() % work.index_below);
    } else if (work.in[input].GetMemFormat().float_) {
      const float value = Value(work.data, random());
      std::memcpy(&word, &value, sizeof word);
    }
    std::memcpy(static_cast<std::byte*>(memory) + 4 * i, &word, sizeof word);
  }
}

void Mark() { syscall(4242); }

// The cost of one call.
class Meter {
 public:
  explicit Meter(bool instructions) : instructions_(instructions) {}

  // Prints it behind a comma.
  template <typename Call>
  void Print(const Call& call) const {
    call();
    std::fflush(stdout);
    if (instructions_) {
      Mark();
      call();
      Mark();
      return;
    }
    using Clock = std::chrono::steady_clock;
    const auto time = [&](unsigned calls) {
      const auto begin = Clock::now();
      for (unsigned i = 0; i < calls; ++i) call();
      return std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / calls;
    };
    constexpr double kRound = 1e6;  // nanoseconds
    const double first = std::min(time(1), time(1));
    const auto calls = static_cast<unsigned>(std::clamp(kRound / std::max(first, 1.0), 1.0, 1e5));
    double least = std::numeric_limits<double>::infinity();
    for (int round = 0; round < 7; ++round) least = std::min(least, time(calls));
    std::printf(",%.1f", least);
  }

 private:
  bool instructions_;
};

// Returns whether the layer gave what its plain twin gives.
bool Run(const vek_host::Plugin& plugin, const Workload& work, unsigned number, const Meter& meter,
         bool instructions) {
  const vek_host::Plugin::Layer layer = plugin.MakeLayer(work.layer);
  zeb::PuxDnnCustomLayer::BufAttrsList in_attrs;
  zeb::PuxDnnCustomLayer::BufAttrsList out_attrs;
  for (const BufAttrs& attrs : work.in) in_attrs.push_back(std::make_unique<AskedAttrs>(attrs));
  out_attrs.push_back(std::make_unique<AskedAttrs>(work.out[0]));
  bool is_taken = layer != nullptr;
  for (const auto& attrs : work.attrs) is_taken = is_taken && layer->Configure(attrs, in_attrs, out_attrs);

  std::vector<Buffer> data;
  std::vector<void*> in;
  for (std::size_t i = 0; i < work.in.size(); ++i) {
    in.push_back(data.emplace_back(Allocate(std::max(work.in[i].Bytes(), work.MovedBytes()))).get());
    Fill(work, i, in.back());
  }
  const std::uint64_t room = std::max(work.out[0].Bytes(), work.MovedBytes());
  const Buffer out = Allocate(room);
  const Buffer plain_out = Allocate(room);
  std::memset(out.get(), 0x55, room);
  std::memset(plain_out.get(), 0x55, room);
  void* outputs[] = {out.get()};

  AskedAttrs::asked = {};
  is_taken = is_taken && layer->Execute(in.data(), outputs);
  const auto asked = AskedAttrs::asked;
  work.plain(in.data(), plain_out.get());
  const bool agrees = is_taken && std::memcmp(out.get(), plain_out.get(), work.out[0].Bytes()) == 0;

  std::uint64_t elements = 1;
  for (unsigned dim : work.out[0].GetDims()) elements *= dim;
  std::printf("%s,%u,%s,%d,%d,%llu,%llu", work.layer.c_str(), number, work.shape.c_str(),
              work.only_moves ? 1 : 0, work.plain_is_copy ? 1 : 0, static_cast<unsigned long long>(elements),
              static_cast<unsigned long long>(work.MovedBytes()));
  if (is_taken) {
    meter.Print([&] { layer->Execute(in.data(), outputs); });
    meter.Print([&] { work.plain(in.data(), plain_out.get()); });
    meter.Print([&] { std::memcpy(plain_out.get(), in[0], work.MovedBytes()); });
    if (instructions) meter.Print([&] { AskedAttrs::Ask(*in_attrs[0], asked); });
  }
  std::printf("\n");
  std::fflush(stdout);
  if (!agrees) {
    std::fprintf(stderr, "%s %u %s: %s\n", work.layer.c_str(), number, work.shape.c_str(),
                 is_taken ? "differs from its plain twin" : "refused");
  }
  return agrees;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = VEK_PLUGIN_PATH;
  std::string only_layer;
  bool small = false;
  bool instructions = false;
  std::uint64_t seed = 1;
  unsigned count = 64;
  long only_number = -1;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const auto value = [&] { return i + 1 < argc ? argv[++i] : ""; };
    if (option == "--plugin") {
      path = value();
    } else if (option == "--small") {
      small = true;
    } else if (option == "--instructions") {
      instructions = true;
    } else if (option == "--seed") {
      seed = std::strtoull(value(), nullptr, 10);
    } else if (option == "--count") {
      count = static_cast<unsigned>(std::strtoul(value(), nullptr, 10));
    } else if (option == "--layer") {
      only_layer = value();
    } else if (option == "--number") {
      only_number = std::strtol(value(), nullptr, 10);
    } else {
      std::fprintf(stderr, "unknown option %s\n", option.c_str());
      return 2;
    }
  }

  const vek_host::Plugin plugin(path);
  const Meter meter(instructions);
  bool all_agree = true;
  std::printf("layer,number,shape,moves,plain_copies,elements,bytes,library,plain,memcpy%s\n",
              instructions ? ",host" : "");
  const auto run = [&](const Workload& work, unsigned number) {
    if (only_number >= 0 && number != static_cast<unsigned long>(only_number)) return;
    if (!only_layer.empty() && work.layer != only_layer) return;
    all_agree = Run(plugin, work, number, meter, instructions) && all_agree;
  };
  if (small) {
    unsigned number = 0;
    for (const Workload& work : vek_bench::SmallWorkloads()) run(work, number++);
  } else {
    for (const std::string& layer : vek_bench::Layers()) {
      if (!only_layer.empty() && layer != only_layer) continue;
      for (unsigned number = 0; number < count; ++number) {
        if (only_number >= 0 && number != static_cast<unsigned long>(only_number)) continue;
        run(vek_bench::RandomWorkload(layer, seed, number), number);
      }
    }
  }
  return all_agree ? 0 : 1;
}
