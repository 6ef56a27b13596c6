// Runs fuzz cases without a fuzzing engine: the committed corpus, and random bytes.
//
//   fuzz_replay CORPUS [CASES [SEED]]    CORPUS holds a folder for each layer type, and one named "list"
//   fuzz_replay --targets                lists them; VEK_FUZZ_ONLY=TARGET runs only that one
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "layer_case.h"

namespace {

using Input = std::vector<std::uint8_t>;

void Run(const std::string& target, const Input& input) {
  if (target == "list") return vek_fuzz::RunListCase(input.data(), input.size());
  vek_fuzz::RunLayerCase(target, input.data(), input.size());
}

// The case that runs, for the message of one that fails.
std::string g_running;
void SayWhatRan(int) {
  std::fprintf(stderr, "failed: %s\n", g_running.c_str());
  std::_Exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> targets(std::begin(vek_fuzz::kLayerTypes), std::end(vek_fuzz::kLayerTypes));
  targets.emplace_back("list");
  if (argc < 2) return std::fputs("usage: fuzz_replay CORPUS [CASES [SEED]] | --targets\n", stderr), 2;
  if (std::string(argv[1]) == "--targets") {
    for (const std::string& target : targets) std::puts(target.c_str());
    return 0;
  }
  const std::filesystem::path corpus = argv[1];
  const std::uint64_t cases = argc > 2 ? std::strtoull(argv[2], nullptr, 0) : 2000;
  const std::uint64_t seed = argc > 3 ? std::strtoull(argv[3], nullptr, 0) : 1;
  std::signal(SIGABRT, SayWhatRan);
  std::signal(SIGSEGV, SayWhatRan);
  std::signal(SIGBUS, SayWhatRan);

  for (const std::string& target : targets) {
    if (const char* only = std::getenv("VEK_FUZZ_ONLY"); only != nullptr && target != only) continue;
    std::size_t files = 0;
    if (std::filesystem::exists(corpus / target)) {
      for (const auto& entry : std::filesystem::directory_iterator(corpus / target)) {
        g_running = entry.path().string();
        std::ifstream file(entry.path(), std::ios::binary);
        Run(target, Input(std::istreambuf_iterator<char>(file), {}));
        ++files;
      }
    }
    for (std::uint64_t i = 0; i < cases; ++i) {
      g_running = target + ", random case " + std::to_string(seed + i) +
                  ": repeat it with fuzz_replay CORPUS 1 " + std::to_string(seed + i);
      std::mt19937_64 random(seed + i);
      Input input(16 + random() % 240);
      for (std::uint8_t& byte : input) byte = static_cast<std::uint8_t>(random());
      Run(target, input);
    }
    std::printf("%s: %zu files, %llu random cases\n", target.c_str(), files,
                static_cast<unsigned long long>(cases));
  }
  return 0;
}
