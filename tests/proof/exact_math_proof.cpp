// Compares the exact functions argument by argument: the vector forms with their plain twins, and the plain twins with
// the functions of the C library that this program runs with.
//
//   prove_math vector|library|both FUNCTION SHARD SHARDS
//
// FUNCTION is "exp" (every float from -0 to minus infinity, +0, every NaN), a power K (powf(x, K) for every float x), or
// "pairs" (2^30 random pairs of floats of all magnitudes). A shard is every SHARDS-th block of 64 Ki arguments, from
// block SHARD on; a SHARD beyond the last block has no arguments. Prints the first differences of each kind, and how
// many there are (all NaNs count as one value), and the seconds of processor. The exit status is 1 when there is one that the list of known differences
// does not name, 2 when FUNCTION is none.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>

#include "math/exact_math.h"

namespace {

namespace detail = zeb_custom_ops::detail;

constexpr std::uint64_t kBlock = 1U << 16;

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
  std::string function;
  bool with_vector = false;
  bool with_library = false;
  std::uint64_t arguments = 0;
  std::uint64_t of_vector = 0;   // differences between the vector form and the plain steps
  std::uint64_t of_library = 0;  // and between these and the C library
  std::uint64_t known = 0;       // of the latter, further ones that the list names

  void CompareVector(float x, float k, float vector, float plain) {
    if (!Same(vector, plain) && of_vector++ < 5) Print("the vector form", x, k, vector, plain);
  }
  void CompareLibrary(float x, float k, float library, float plain) {
    if (Same(library, plain)) return;
    for (const Known& one : kKnown) {
      if (function == one.function && Same(x, one.x) && Same(library, one.library)) {
        ++known;
        return;
      }
    }
    if (of_library++ < 5) Print("the C library", x, k, library, plain);
  }

 private:
  static void Print(const char* who, float x, float k, float got, float plain) {
    std::printf("x = %a, k = %a: %s gives %a, the plain steps %a\n", double{x}, double{k}, who, double{got},
                double{plain});
  }
};

// The C library's, called where the compiler cannot see what is called: it turns powf(x, 2) into x * x.
float (*volatile const LibraryExp)(float) = expf;
float (*volatile const LibraryPow)(float, float) = powf;

void ExpBlock(std::uint64_t first, Tally& tally) {
  for (std::uint64_t bits = first; bits < first + kBlock; bits += detail::kFloatLanes) {
    float x[detail::kFloatLanes];
    float vector[detail::kFloatLanes];
    for (std::uint64_t i = 0; i < detail::kFloatLanes; ++i) {
      x[i] = FromBits(bits + i);
      // What a softmax does not pass: positive numbers.
      if (x[i] > 0.0F) x[i] = 0.0F;
    }
    if (tally.with_vector) detail::Store(vector, detail::ExpNonPositive(detail::Load<detail::Floats>(x)));
    for (std::size_t i = 0; i < detail::kFloatLanes; ++i) {
      const float plain = detail::PlainExp(x[i]);
      if (tally.with_vector) tally.CompareVector(x[i], 0, vector[i], plain);
      if (tally.with_library) tally.CompareLibrary(x[i], 0, LibraryExp(x[i]), plain);
    }
  }
  tally.arguments += kBlock;
}

void ComparePowers(const float* x, float* vector, std::size_t count, float k, Tally& tally) {
  if (tally.with_vector) detail::PowInto(x, vector, count, k);
  for (std::size_t i = 0; i < count; ++i) {
    const float plain = detail::PlainPow(x[i], k);
    if (tally.with_vector) tally.CompareVector(x[i], k, vector[i], plain);
    if (tally.with_library) tally.CompareLibrary(x[i], k, LibraryPow(x[i], k), plain);
  }
  tally.arguments += count;
}

void PowBlock(std::uint64_t first, float k, Tally& tally) {
  static float x[kBlock];
  static float vector[kBlock];
  for (std::uint64_t i = 0; i < kBlock; ++i) x[i] = FromBits(first + i);
  ComparePowers(x, vector, kBlock, k, tally);
}

// Pairs whose result is often a number: bases of all bits, exponents of all magnitudes, now and then special ones.
void PairBlock(std::uint64_t block, Tally& tally) {
  std::mt19937_64 random(block);
  constexpr std::size_t kRun = 64;  // bases with one exponent
  float x[kRun];
  float vector[kRun];
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
    ComparePowers(x, vector, kRun, k, tally);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const auto usage = [&] {
    std::fprintf(stderr, "usage: %s vector|library|both exp|POWER|pairs SHARD SHARDS\n", argv[0]);
    return 2;
  };
  if (argc != 5) return usage();
  const std::string what = argv[1];
  Tally tally;
  tally.function = argv[2];
  tally.with_vector = what != "library";
  tally.with_library = what != "vector";
  char* end = nullptr;
  const float k = std::strtof(argv[2], &end);
  const bool is_power = end != argv[2] && *end == '\0';
  const bool is_pairs = tally.function == "pairs";
  if (what != "vector" && what != "library" && what != "both") return usage();
  if (tally.function != "exp" && !is_pairs && !is_power) return usage();
  const std::uint64_t shard = std::strtoull(argv[3], nullptr, 10);
  const std::uint64_t shards = std::strtoull(argv[4], nullptr, 10);
  if (shards == 0) return usage();

  const std::uint64_t blocks = (std::uint64_t{1} << (is_pairs ? 30 : 32)) / kBlock;
  for (std::uint64_t block = shard; block < blocks; block += shards) {
    const std::uint64_t first = block * kBlock;
    if (is_pairs) {
      PairBlock(block, tally);
    } else if (is_power) {
      PowBlock(first, k, tally);
    } else if (first == 0 || FromBits(first + kBlock - 1) <= 0.0F || std::isnan(FromBits(first + 1))) {
      ExpBlock(first, tally);
    }
  }
  const auto number = [](std::uint64_t n) { return static_cast<unsigned long long>(n); };
  std::printf("%llu arguments, %llu vector, %llu library, %llu known, %.2f seconds\n",
              number(tally.arguments), number(tally.of_vector), number(tally.of_library), number(tally.known),
              static_cast<double>(std::clock()) / CLOCKS_PER_SEC);
  return tally.of_vector + tally.of_library == 0 ? 0 : 1;
}
