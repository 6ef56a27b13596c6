// Runs a corpus without a fuzzing engine.
//
//   fuzz_replay CORPUS       CORPUS holds a file for each target: an input a line, in hexadecimal digits
//   fuzz_replay --targets    lists the targets: the layer types, and "list"
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cases/setups.h"
#include "run_target.h"

namespace {

std::vector<std::uint8_t> FromHex(const std::string& digits) {
  std::vector<std::uint8_t> input;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    input.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return input;
}

// The input that runs, for the message of one that fails.
std::string g_running;
void SayWhatRan(int) {
  std::fprintf(stderr, "failed: %s\n", g_running.c_str());
  std::_Exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return std::fputs("usage: fuzz_replay CORPUS | --targets\n", stderr), 2;
  std::vector<std::string> targets = vek_cases::kLayerTypes;
  targets.emplace_back("list");
  if (std::string(argv[1]) == "--targets") {
    for (const std::string& target : targets) std::puts(target.c_str());
    return 0;
  }
  std::signal(SIGABRT, SayWhatRan);
  std::signal(SIGSEGV, SayWhatRan);
  std::signal(SIGBUS, SayWhatRan);

  for (const std::string& target : targets) {
    std::size_t lines = 0;
    std::ifstream file(std::filesystem::path(argv[1]) / target);
    for (std::string line; std::getline(file, line);) {
      g_running = target + ", line " + std::to_string(++lines) + " of the corpus";
      const std::vector<std::uint8_t> input = FromHex(line);
      vek_fuzz::RunTarget(target, input.data(), input.size());
    }
    std::printf("%s: %zu inputs\n", target.c_str(), lines);
    if (lines == 0) return std::fprintf(stderr, "the corpus has none\n"), 1;
  }
  return 0;
}
