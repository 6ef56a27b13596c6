// A host for the tests of the recorder: it loads a plug-in by path alone, and prints what it sees of it. With a recorder
// in between it must print the same.
//
//     record_host PLUGIN all             every specimen: results, log lines, outputs, what was asked of descriptions
//     record_host PLUGIN one TYPE        the first specimen of a type, configured once and executed three times
//     record_host PLUGIN forever         layer after layer, until it is killed
//     record_host PLUGIN threads         every specimen in each of several threads
//     record_host PLUGIN allocations     a child process for each allocation, which fails there
//     record_host PLUGIN crash           a layer that reads beyond its buffer
//     record_host PLUGIN short           a description that promises more memory than there is
//     record_host PLUGIN moved           changes the working directory, and closes all files that it did not open
//     record_host PLUGIN child           goes on in a child process
//     record_host PLUGIN none            asks for a layer
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "support/guarded_buffer.h"
#include "support/random.h"
#include "support/zoo.h"

namespace {

bool g_watching = false;
long g_allocations = 0;  // while it watches
long g_failing = -1;     // the one that fails, from 0

void* Allocate(std::size_t bytes) {
  if (g_watching && g_allocations++ == g_failing) return nullptr;
  return std::malloc(bytes == 0 ? 1 : bytes);
}
void* AllocateOrThrow(std::size_t bytes) {
  void* memory = Allocate(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t bytes) { return AllocateOrThrow(bytes); }
void* operator new[](std::size_t bytes) { return AllocateOrThrow(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return Allocate(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return Allocate(bytes); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace vek_test {
namespace {

// A layer with its data.
struct Stage {
  explicit Stage(const Specimen& specimen)
      : attrs(specimen.setup.attrs), in(MakeList(specimen.setup.in)), out(MakeList(specimen.setup.out)) {
    Random random(7);
    for (const Buf& buf : specimen.setup.in) {
      data.emplace_back(buf.size);
      // Random words with a middling exponent: floats without NaN, whose bits may differ.
      for (std::size_t i = 0; i + 4 <= buf.size; i += 4) {
        std::uint32_t word = (static_cast<std::uint32_t>(random()) & 0x007fffffU) | 0x3f800000U;
        if (specimen.index_below != 0 && data.size() == 2) word %= specimen.index_below;
        std::memcpy(data.back().as<char>() + i, &word, 4);
      }
    }
    for (const Buf& buf : specimen.setup.out) data.emplace_back(buf.size).Fill(0xEE);
    for (std::size_t i = 0; i < data.size(); ++i)
      (i < in.size() ? inputs : outputs).push_back(data[i].data());
  }

  AttrMap attrs;
  BufAttrsList in;
  BufAttrsList out;
  std::vector<GuardedBuffer> data;
  std::vector<void*> inputs;
  std::vector<void*> outputs;
};

// What a call did: t, f, or x for an exception.
template <typename Call>
char Did(const Call& call) {
  try {
    return call() ? 't' : 'f';
  } catch (const std::exception&) {
    return 'x';
  }
}

// Drives one layer, and returns what its calls did and what it wrote.
std::string Drive(const Plugin& plugin, const Specimen& specimen, int executions) {
  Stage stage(specimen);
  std::string text;
  zeb::PuxDnnCustomLayer* layer = plugin.create_object(specimen.type);
  if (layer == nullptr) return "no layer";
  text += Did([&] { return layer->Execute(stage.inputs.data(), stage.outputs.data()); });
  // A refusal, but for those whose lists grow even so: their Execute would look for more buffers than there are.
  if (specimen.type != "SWCONCAT" && specimen.type != "ELTWISE" && specimen.type != "PERMUTE") {
    text += Did([&] { return layer->Configure({{"?", "\x01\xff\"\\"}}, stage.out, stage.in); });
  }
  text += Did([&] { return layer->Configure(stage.attrs, stage.in, stage.out); });
  for (int i = 0; i < executions; ++i) {
    text += Did([&] { return layer->Execute(stage.inputs.data(), stage.outputs.data()); });
  }
  text += Did([&] { return layer->Execute(nullptr, stage.outputs.data()); });
  plugin.destroy_object(layer);
  for (std::size_t i = stage.in.size(); i < stage.data.size(); ++i) {
    text += ' ';
    for (const std::uint8_t byte : stage.data[i].span()) {
      char digits[4];
      std::snprintf(digits, sizeof digits, "%02x", unsigned{byte});
      text += digits;
    }
  }
  return text;
}

void All(const Plugin& plugin) {
  *plugin.log_treshold = kInfo;
  for (const Specimen& specimen : Zoo()) {
    Buf::ResetCalls();
    const std::string text = Drive(plugin, specimen, 2);
    std::printf("%s: %s, %ld clones, %ld alive\n", specimen.name.c_str(), text.c_str(),
                Buf::calls[kClone].load(), Buf::alive.load());
    for (const Slot setter : {kSetPlanePack, kSetLineStride, kSetPlaneStride}) {
      if (Buf::calls[setter] != 0) std::printf("setter %d was called\n", setter);
    }
  }
  // The log's threshold and words, by all that a host can change of them.
  const auto complain = [&] {
    zeb::PuxDnnCustomLayer* layer = plugin.create_object("SOFTMAX");
    std::printf("%d\n", layer->Execute(nullptr, nullptr));
    plugin.destroy_object(layer);
  };
  *plugin.log_treshold = kNone;
  complain();
  plugin.set_log_treshold("info");
  plugin.set_log_treshold("ERROR");
  std::printf("threshold %d\n", *plugin.log_treshold);
  plugin.log_str[1] = "trouble";
  complain();
  plugin.set_log_treshold("trouble");
  std::printf("%d %d\n", plugin.create_object("Softmax") == nullptr, plugin.create_object("") == nullptr);
  plugin.destroy_object(nullptr);
}

const Specimen& First(const std::vector<Specimen>& zoo, const std::string& type) {
  for (const Specimen& specimen : zoo) {
    if (specimen.type == type) return specimen;
  }
  std::abort();
}

void One(const Plugin& plugin, const std::string& type) {
  const std::vector<Specimen> zoo = Zoo();
  const Specimen& specimen = First(zoo, type);
  Stage stage(specimen);
  zeb::PuxDnnCustomLayer* layer = plugin.create_object(type);
  std::string text;
  text += Did([&] { return layer->Configure(stage.attrs, stage.in, stage.out); });
  text += Did([&] { return layer->Execute(stage.inputs.data(), stage.outputs.data()); });
  text += Did([&] { return layer->Execute(nullptr, stage.outputs.data()); });
  text += Did([&] { return layer->Execute(stage.inputs.data(), stage.outputs.data()); });
  plugin.destroy_object(layer);
  std::puts(text.c_str());
}

void Forever(const Plugin& plugin) {
  for (;;) {
    for (const Specimen& specimen : Zoo()) Drive(plugin, specimen, 3);
  }
}

void Threads(const Plugin& plugin) {
  *plugin.log_treshold = kNone;
  const std::vector<Specimen> zoo = Zoo();
  std::vector<std::string> expected;
  for (const Specimen& specimen : zoo) expected.push_back(Drive(plugin, specimen, 2));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (std::size_t i = 0; i < zoo.size(); ++i) {
        const std::size_t which = (i + t * 11) % zoo.size();
        if (Drive(plugin, zoo[which], 2) != expected[which]) {
          std::printf("%s is wrong\n", zoo[which].name.c_str());
          ++wrong;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::printf("%d wrong\n", wrong.load());
}

// One line for each allocation of create_object, Configure and two of Execute: what the calls did where it failed.
void Allocations(const Plugin& plugin) {
  *plugin.log_treshold = kNone;
  const std::vector<Specimen> zoo = Zoo();
  const Specimen& specimen = First(zoo, "SWCONCAT");
  for (long n = 0; n < 2000; ++n) {
    Stage stage(specimen);
    const std::string type = specimen.type;
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      char did[5] = "----";
      g_failing = n;
      g_watching = true;
      zeb::PuxDnnCustomLayer* layer = nullptr;
      did[0] = Did([&] { return (layer = plugin.create_object(type)) != nullptr; });
      if (layer != nullptr) {
        did[1] = Did([&] { return layer->Configure(stage.attrs, stage.in, stage.out); });
        did[2] = Did([&] { return layer->Execute(stage.inputs.data(), stage.outputs.data()); });
        did[3] = Did([&] { return layer->Execute(stage.inputs.data(), stage.outputs.data()); });
        plugin.destroy_object(layer);
      }
      g_watching = false;
      std::puts(did);
      std::fflush(stdout);
      _exit(g_allocations <= n ? 1 : 0);  // 1: all went well
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status)) std::puts("died");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return;
  }
}

void Crash(const Plugin& plugin) {
  const Specimen specimen{"", "RESHAPE", {{{"pixelshuffler", "1"}}, {Buf::Float({1, 1, 64, 64})}, {}}};
  Stage stage(specimen);
  stage.out = MakeList({Buf::Float({1, 1, 64, 64})});
  GuardedBuffer page(64);
  stage.outputs = {page.data()};
  zeb::PuxDnnCustomLayer* layer = plugin.create_object("RESHAPE");
  layer->Configure(stage.attrs, stage.in, stage.out);
  layer->Execute(stage.inputs.data(), stage.outputs.data());
}

void Short(const Plugin& plugin) {
  Buf promise = Buf::Float({1, 10, 1, 1});
  promise.size = 100000;
  const BufAttrsList in = MakeList({promise});
  const BufAttrsList out = MakeList({promise});
  GuardedBuffer data(40);
  data.Fill(0);
  void* buffers[] = {data.data()};
  zeb::PuxDnnCustomLayer* layer = plugin.create_object("SOFTMAX");
  std::printf("%d", layer->Configure({{"axis", "1"}}, in, out));
  std::printf("%d\n", layer->Execute(buffers, buffers));
  plugin.destroy_object(layer);
}

void Moved(const Plugin& plugin) {
  plugin.destroy_object(plugin.create_object("PAD"));
  for (int file = 3; file < 64; ++file) close(file);
  if (chdir("/") != 0) std::abort();
  One(plugin, "SOFTMAX");
}

void Child(const Plugin& plugin) {
  One(plugin, "SOFTMAX");
  std::fflush(stdout);
  if (fork() == 0) {
    One(plugin, "PAD");
    std::fflush(stdout);
    _exit(0);
  }
  wait(nullptr);
  One(plugin, "ELTWISE");
}

}  // namespace
}  // namespace vek_test

int main(int argc, char** argv) {
  using namespace vek_test;
  if (argc < 3) return 2;
  const Plugin plugin = Plugin::Open(argv[1]);
  const std::string what = argv[2];
  if (what == "all") All(plugin);
  if (what == "one" && argc > 3) One(plugin, argv[3]);
  if (what == "forever") Forever(plugin);
  if (what == "threads") Threads(plugin);
  if (what == "allocations") Allocations(plugin);
  if (what == "crash") Crash(plugin);
  if (what == "short") Short(plugin);
  if (what == "moved") Moved(plugin);
  if (what == "child") Child(plugin);
  if (what == "none") std::puts(plugin.create_object("PAD") == nullptr ? "null" : "a layer");
  return 0;
}
