// Distinct layers on many threads, the threshold set meanwhile: no race, and the results of one thread alone.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/guarded_buffer.h"
#include "support/random.h"
#include "support/zoo.h"

namespace vek_test {
namespace {

// Makes, configures, runs and destroys one layer on fixed random data; the bytes of its output.
std::vector<std::uint8_t> RunLayer(const Specimen& specimen) {
  const Plugin& plugin = Plugin::Get();
  Random random(7);
  std::vector<std::vector<std::uint8_t>> data;
  std::vector<void*> inputs;
  for (const Buf& buf : specimen.setup.in) {
    data.emplace_back(buf.size);
    // Random words with a middling exponent: floats without NaN, whose bits may differ.
    for (std::size_t i = 0; i + 4 <= buf.size; i += 4) {
      std::uint32_t word = (static_cast<std::uint32_t>(random()) & 0x007fffffU) | 0x3f800000U;
      if (specimen.index_below != 0 && data.size() == 2) word %= specimen.index_below;
      std::memcpy(data.back().data() + i, &word, 4);
    }
  }
  for (auto& bytes : data) inputs.push_back(bytes.data());
  std::vector<std::uint8_t> result(specimen.setup.out[0].size);
  void* outputs[] = {result.data()};

  zeb::PuxDnnCustomLayer* layer = plugin.create_object(specimen.type);
  const BufAttrsList in = MakeList(specimen.setup.in);
  const BufAttrsList out = MakeList(specimen.setup.out);
  const bool ok = layer != nullptr && layer->Configure(specimen.setup.attrs, in, out) &&
                  layer->Execute(inputs.data(), outputs);
  plugin.destroy_object(layer);
  return ok ? result : std::vector<std::uint8_t>{};
}

TEST(Threads, DistinctLayersRunConcurrentlyAndAgree) {
  const std::vector<Specimen> zoo = Zoo();
  std::vector<std::vector<std::uint8_t>> expected;
  for (const Specimen& specimen : zoo) {
    expected.push_back(RunLayer(specimen));
    EXPECT_FALSE(expected.back().empty()) << specimen.name;
  }

  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::thread setter([&] {
    for (unsigned i = 0; !done; ++i) Plugin::Get().set_log_treshold(i % 2 == 0 ? "ERROR" : "WARNING");
  });
  std::vector<std::thread> runners;
  for (std::size_t t = 0; t < 8; ++t) {
    runners.emplace_back([&, t] {
      for (std::size_t round = 0; round < 10; ++round) {
        for (std::size_t i = 0; i < zoo.size(); ++i) {
          const std::size_t which = (i + t * 11) % zoo.size();
          if (RunLayer(zoo[which]) != expected[which]) ++wrong;
        }
      }
    });
  }
  for (std::thread& runner : runners) runner.join();
  done = true;
  setter.join();
  Plugin::Get().set_log_treshold("WARNING");
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace vek_test
