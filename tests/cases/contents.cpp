#include "cases/contents.h"

#include <bit>

namespace vek_cases {
namespace {

using vek_model::i32;
using vek_model::Memory;
using vek_model::u32;
using vek_model::u64;
using vek_test::FloatOf;
using vek_test::Random;

// Well mixed bits for each index.
u64 Mixed(u64 seed, u64 index) {
  u64 bits = (seed + index) * 0x9E3779B97F4A7C15U;
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9U;
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EBU;
  return bits ^ bits >> 31;
}
u64 Seed(Random& random) { return random.Below(65536) << 32; }

// In [-1, 1).
float Fraction(u64 bits) { return static_cast<float>(static_cast<i32>(bits)) * 0x1p-31F; }

}  // namespace

Memory::Words AnyFloats(Random& random) {
  const u64 seed = Seed(random);
  const auto kind = random.Below(8);
  const float scale = random.OneOf({1.0F, 5.0F, 60.0F, 300.0F, 1e19F, 0x1p-70F});
  const u64 block = random.OneOf({1U, 4U, 16U, 33U});
  return [=](u64 index) {
    const u64 bits = Mixed(seed, index);
    const auto number = [&]() -> float {
      switch (kind) {
        case 0:  // fractions of small integers
          return static_cast<float>(static_cast<i32>(bits % 200) - 100) / 8.0F;
        case 1:
          return Fraction(bits) * scale;
        case 2:  // seldom something special
          return (bits >> 32) % 40 == 0 ? FloatOf(bits) : Fraction(bits);
        case 3:
          return FloatOf(bits);
        case 4:  // many equal ones
          return static_cast<float>(bits % (block + 1));
        case 5:  // blocks of zeros
          return Mixed(~seed, index / block) % 3 == 0 ? -0.0F : Fraction(bits);
        case 6:  // not negative
          return static_cast<float>(bits % 2000) / 64.0F;
        default:  // infinities and NaN in some places only
          return Mixed(~seed, index / 64) % 8 == 0 ? FloatOf(bits) : Fraction(bits) * scale;
      }
    };
    return std::bit_cast<u32>(number());
  };
}

Memory::Words AnyBits(Random& random) {
  const u64 seed = Seed(random);
  return [=](u64 index) { return static_cast<u32>(Mixed(seed, index)); };
}

Memory::Words AnyIndices(Random& random, u32 limit) {
  const u64 seed = Seed(random);
  const u64 wrong = random.OneIn(5) ? random.Below(20) : ~u64{0};
  const u32 instead = random.OneIn(2) ? ~0U : limit;
  return [=](u64 index) { return index == wrong ? instead : static_cast<u32>(Mixed(seed, index) % limit); };
}

}  // namespace vek_cases
