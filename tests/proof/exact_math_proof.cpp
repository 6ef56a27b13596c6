// Compares the exact functions argument by argument: the vector forms with their plain twins, and the plain twins with
// the functions of the C library that this program runs with.
//
//   prove_math vector  FUNCTION SHARD SHARDS
//   prove_math library FUNCTION SHARD SHARDS
//
// FUNCTION is "exp" (every float from -0 to minus infinity, +0, every NaN), a power K (powf(x, K) for every float x), or
// "pairs" (2^30 random pairs of floats of all magnitudes). A shard is every SHARDS-th block of 64 Ki arguments, from
// block SHARD on. Prints each difference, and their number (all NaNs count as one value); the exit status is 1 when
// there is one that the list of known differences does not name.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "math/exact_math.h"

namespace {

namespace detail = zeb_custom_ops::detail;

constexpr std::uint64_t kBlock = 1U << 16;
using Values = std::vector<float>;

float FromBits(std::uint64_t bits) { return std::bit_cast<float>(static_cast<std::uint32_t>(bits)); }
bool Same(float a, float b) {
  return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b) ||
         (std::isnan(a) && std::isnan(b));
}

// Results of the C library that are known to differ, and why: x86-64 with fused multiply-adds fuses one product more.
struct Known {
  const char* function;
  float x;
  float library;
};
constexpr Known kKnown[] = {{"exp", -0x1.f8cbb2p+5F, 0x1.f45326p-92F}};

struct Tally {
  std::uint64_t arguments = 0;
  std::uint64_t differences = 0;
  std::uint64_t known = 0;

  void Compare(const std::string& function, float x, float k, float got, float want) {
    ++arguments;
    if (Same(got, want)) return;
    for (const Known& one : kKnown) {
      if (function == one.function && Same(x, one.x) && Same(want, one.library)) {
        ++known;
        return;
      }
    }
    if (differences++ < 5)
      std::printf("x = %a, k = %a: %a instead of %a\n", double{x}, double{k}, double{got}, double{want});
  }
};

// The C library's, with an exponent that the compiler cannot see: it turns powf(x, 2) into x * x.
__attribute__((noipa)) float LibraryExp(float x) { return expf(x); }
__attribute__((noipa)) float LibraryPow(float x, float k) { return powf(x, k); }

void ExpBlock(bool vector, std::uint64_t first, Tally& tally) {
  for (std::uint64_t bits = first; bits < first + kBlock; bits += detail::kFloatLanes) {
    float x[detail::kFloatLanes];
    float got[detail::kFloatLanes];
    for (std::uint64_t i = 0; i < detail::kFloatLanes; ++i) {
      x[i] = FromBits(bits + i);
      // What a softmax does not pass: positive numbers.
      if (x[i] > 0.0F) x[i] = 0.0F;
    }
    detail::Store(got, detail::ExpNonPositive(detail::Load<detail::Floats>(x)));
    for (std::size_t i = 0; i < detail::kFloatLanes; ++i) {
      const float plain = detail::PlainExp(x[i]);
      if (vector) {
        tally.Compare("exp", x[i], 0, got[i], plain);
      } else {
        tally.Compare("exp", x[i], 0, plain, LibraryExp(x[i]));
      }
    }
  }
}

void PowBlock(bool vector, std::uint64_t first, const std::string& name, float k, Tally& tally) {
  static float x[kBlock];
  static float got[kBlock];
  for (std::uint64_t i = 0; i < kBlock; ++i) x[i] = FromBits(first + i);
  if (vector) detail::PowInto(x, got, kBlock, k);
  for (std::uint64_t i = 0; i < kBlock; ++i) {
    const float plain = detail::PlainPow(x[i], k);
    if (vector) {
      tally.Compare(name, x[i], k, got[i], plain);
    } else {
      tally.Compare(name, x[i], k, plain, LibraryPow(x[i], k));
    }
  }
}

// Pairs whose result is often a number: bases of all bits, exponents of all magnitudes, now and then special ones.
void PairBlock(bool vector, std::uint64_t block, Tally& tally) {
  std::mt19937_64 random(block);
  constexpr std::size_t kRun = 64;  // bases with one exponent
  float x[kRun];
  float got[kRun];
  for (std::uint64_t i = 0; i < kBlock; i += kRun) {
    const std::uint64_t word = random();
    float k = FromBits(word >> 32);
    if ((word & 15) < 8) k = static_cast<float>(static_cast<std::int32_t>(word >> 32)) * 0x1p-26F;
    if ((word & 15) == 8) k = static_cast<float>(static_cast<std::int32_t>(word >> 56) - 128);
    if ((word & 15) == 9) k = static_cast<float>(static_cast<std::int32_t>(word >> 48) - 32768) / 64.0F;
    for (std::size_t j = 0; j < kRun; j += 2) {
      const std::uint64_t two = random();
      x[j] = FromBits(two >> 32);
      x[j + 1] = FromBits((two & 0x07ffffffU) + 0x3c000000U);  // near 1
    }
    if (vector) detail::PowInto(x, got, kRun, k);
    for (std::size_t j = 0; j < kRun; ++j) {
      const float plain = detail::PlainPow(x[j], k);
      if (vector) {
        tally.Compare("pairs", x[j], k, got[j], plain);
      } else {
        tally.Compare("pairs", x[j], k, plain, LibraryPow(x[j], k));
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const auto usage = [&] {
    std::fprintf(stderr, "usage: %s vector|library exp|POWER|pairs SHARD SHARDS\n", argv[0]);
    return 2;
  };
  if (argc != 5) return usage();
  const std::string what = argv[1];
  const std::string function = argv[2];
  char* end = nullptr;
  const float k = std::strtof(argv[2], &end);
  const bool is_power = end != argv[2] && *end == '\0';
  if ((what != "vector" && what != "library") || (function != "exp" && function != "pairs" && !is_power))
    return usage();
  const std::uint64_t shard = std::strtoull(argv[3], nullptr, 10);
  const std::uint64_t shards = std::strtoull(argv[4], nullptr, 10);
  if (shards == 0) return usage();

  Tally tally;
  const bool vector = what == "vector";
  const std::uint64_t blocks =
      (function == "pairs" ? std::uint64_t{1} << 30 : std::uint64_t{1} << 32) / kBlock;
  for (std::uint64_t block = shard; block < blocks; block += shards) {
    const std::uint64_t first = block * kBlock;
    if (function == "pairs") {
      PairBlock(vector, block, tally);
    } else if (is_power) {
      PowBlock(vector, first, function, k, tally);
    } else if (first == 0 || FromBits(first + kBlock - 1) <= 0.0F || std::isnan(FromBits(first + 1))) {
      ExpBlock(vector, first, tally);
    }
  }
  std::printf(
      "%llu arguments, %llu differences, %llu known\n", static_cast<unsigned long long>(tally.arguments),
      static_cast<unsigned long long>(tally.differences), static_cast<unsigned long long>(tally.known));
  return tally.differences == 0 ? 0 : 1;
}
