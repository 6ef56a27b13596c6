// Compares the vector forms of expf and powf with the C library's functions, argument by argument.
//
//   prove_math exp           SHARD SHARDS   every float from -0.0 to minus infinity, +0.0, and every NaN
//   prove_math pow K         SHARD SHARDS   powf(x, K) for every float x
//
// A shard is every SHARDS-th block of 64 Ki floats, from block SHARD on. Prints the number of arguments and
// of results that differ in a bit (all NaNs count as one value); the exit status is 1 when one does.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "math/exact_math.h"

namespace {

constexpr std::uint64_t kBlock = 1U << 16;

struct Tally {
  std::uint64_t arguments = 0;
  std::uint64_t differences = 0;
};

void Compare(float x, float got, float want, Tally& tally) {
  ++tally.arguments;
  if (std::bit_cast<std::uint32_t>(got) == std::bit_cast<std::uint32_t>(want)) return;
  if (std::isnan(got) && std::isnan(want)) return;
  if (tally.differences++ < 5)
    std::printf("x = %a: %a instead of %a\n", double{x}, double{got}, double{want});
}

float FromBits(std::uint64_t bits) { return std::bit_cast<float>(static_cast<std::uint32_t>(bits)); }

void ExpBlock(std::uint64_t first, Tally& tally) {
  namespace detail = zeb_custom_ops::detail;
  for (std::uint64_t bits = first; bits < first + kBlock; bits += detail::kFloatLanes) {
    float x[detail::kFloatLanes];
    float got[detail::kFloatLanes];
    for (std::uint64_t i = 0; i < detail::kFloatLanes; ++i) {
      x[i] = FromBits(bits + i);
      // What a softmax does not pass: positive numbers.
      if (x[i] > 0.0F) x[i] = 0.0F;
    }
    detail::Store(got, detail::ExpNonPositive(detail::Load<detail::Floats>(x)));
    for (std::size_t i = 0; i < detail::kFloatLanes; ++i) Compare(x[i], got[i], std::exp(x[i]), tally);
  }
}

void PowBlock(std::uint64_t first, float k, Tally& tally) {
  static float x[kBlock];
  static float got[kBlock];
  for (std::uint64_t i = 0; i < kBlock; ++i) x[i] = FromBits(first + i);
  zeb_custom_ops::detail::PowInto(x, got, kBlock, k);
  for (std::uint64_t i = 0; i < kBlock; ++i) Compare(x[i], got[i], std::pow(x[i], k), tally);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string function = argc > 1 ? argv[1] : "";
  const bool is_pow = function == "pow";
  if ((!is_pow && function != "exp") || argc != (is_pow ? 5 : 4)) {
    std::fprintf(stderr, "usage: %s exp SHARD SHARDS | pow K SHARD SHARDS\n", argv[0]);
    return 2;
  }
  const float k = is_pow ? std::strtof(argv[2], nullptr) : 0.0F;
  const std::uint64_t shard = std::strtoull(argv[argc - 2], nullptr, 10);
  const std::uint64_t shards = std::strtoull(argv[argc - 1], nullptr, 10);
  if (shards == 0) return 2;

  Tally tally;
  for (std::uint64_t block = shard; block < (std::uint64_t{1} << 32) / kBlock; block += shards) {
    const std::uint64_t first = block * kBlock;
    if (is_pow) {
      PowBlock(first, k, tally);
    } else if (first == 0 || FromBits(first + kBlock - 1) <= 0.0F || std::isnan(FromBits(first + 1))) {
      ExpBlock(first, tally);
    }
  }
  std::printf("%s shard %llu/%llu: %llu arguments, %llu differences\n",
              is_pow ? ("powf(x, " + std::string(argv[2]) + ")").c_str() : "expf(x), x <= 0",
              static_cast<unsigned long long>(shard), static_cast<unsigned long long>(shards),
              static_cast<unsigned long long>(tally.arguments),
              static_cast<unsigned long long>(tally.differences));
  return tally.differences == 0 ? 0 : 1;
}
