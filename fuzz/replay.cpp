// Runs fuzz cases without a fuzzing engine: the committed corpus, and random bytes.
//
//   fuzz_replay CORPUS [CASES [SEED]]    CORPUS holds a file for each layer type, and one named "list": an input a
//                                        line, in hexadecimal digits
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

Input FromHex(const std::string& digits) {
  Input input;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    input.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return input;
}

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
    std::size_t lines = 0;
    std::ifstream file(corpus / target);
    for (std::string line; std::getline(file, line);) {
      g_running = target + ", line " + std::to_string(++lines) + " of the corpus";
      Run(target, FromHex(line));
    }
    for (std::uint64_t i = 0; i < cases; ++i) {
      g_running = target + ", random case " + std::to_string(seed + i) +
                  ": repeat it with fuzz_replay CORPUS 1 " + std::to_string(seed + i);
      std::mt19937_64 random(seed + i);
      Input input(16 + random() % 240);
      for (std::uint8_t& byte : input) byte = static_cast<std::uint8_t>(random());
      Run(target, input);
    }
    std::printf("%s: %zu inputs of the corpus, %llu random cases\n", target.c_str(), lines,
                static_cast<unsigned long long>(cases));
  }
  return 0;
}
