// The steps of expf and powf, plain and in vectors, and the choice between them.
#include "math/exact_math.h"

#include <cmath>
#include <limits>

namespace zeb_custom_ops::detail {

namespace {

using internal::kExp2Cubic;
using internal::kExp2Table;
using internal::kLog2Table;
using internal::kReciprocalTable;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr std::uint32_t kSignBit = 0x80000000U;
constexpr std::uint32_t kInfinityBits = 0x7f800000U;
constexpr std::uint32_t kQuietBit = 0x00400000U;
constexpr std::uint32_t kOneBits = 0x3f800000U;
constexpr std::uint32_t kLeastNormalBits = 0x00800000U;

// --- One value at a time.

// 2^(z / 32), rounded once. The nearest integer lies away from zero where two are as near.
float PlainExp2(double z) {
  const double nearest = std::round(z);
  const auto n = static_cast<std::uint64_t>(static_cast<std::int64_t>(nearest));
  const double r = z - nearest;
  const double power = std::bit_cast<double>(kExp2Table[n % 32] + (n << 47));
  const double u = std::fma(kExp2Cubic[0], r, kExp2Cubic[1]);
  const double y = std::fma(kExp2Cubic[2], r, 1.0);
  return static_cast<float>(std::fma(u, r * r, y) * power);
}

constexpr double kLog2Polynomial[5] = {0x1.27616c9496e0bp-2, -0x1.71969a075c67ap-2, 0x1.ec70a6ca7baddp-2,
                                       -0x1.7154748bef6c8p-1, 0x1.71547652ab82bp0};

// A mantissa from 1 to 2 becomes one from 0.7 to 1.4, so that logarithms near 0 are exact.
constexpr std::uint32_t kLowestMantissaBits = 0x3f330000U;
constexpr std::uint32_t kExponentBits = 0xff800000U;

// log2 of the positive normal number with these bits; the bits of a subnormal one come with an exponent below 1.
double PlainLog2(std::uint32_t bits) {
  const std::uint32_t offset = bits - kLowestMantissaBits;
  const std::uint32_t exponent_bits = offset & kExponentBits;
  const std::size_t i = offset >> 19 & 15U;
  const double exponent = static_cast<std::int32_t>(exponent_bits) >> 23;
  const auto mantissa = static_cast<double>(std::bit_cast<float>(bits - exponent_bits));
  const auto& a = kLog2Polynomial;
  const double r = std::fma(mantissa, std::bit_cast<double>(kReciprocalTable[i]), -1.0);
  const double r2 = r * r;
  const double y = std::fma(a[0], r, a[1]);
  const double p = std::fma(a[2], r, a[3]);
  const double q = std::fma(p, r2, std::fma(a[4], r, std::bit_cast<double>(kLog2Table[i]) + exponent));
  return std::fma(y, r2 * r2, q);
}

std::uint32_t Magnitude(std::uint32_t bits) { return bits & ~kSignBit; }
bool IsNaN(std::uint32_t bits) { return Magnitude(bits) > kInfinityBits; }

enum class Integer { kNot, kOdd, kEven };
Integer Kind(float k) {
  const float half = k * 0.5F;
  return std::trunc(k) != k ? Integer::kNot : std::trunc(half) != half ? Integer::kOdd : Integer::kEven;
}

// k of 0, infinite or NaN.
float PowOfSpecialExponent(float x, float k) {
  const std::uint32_t x_bits = std::bit_cast<std::uint32_t>(x);
  const std::uint32_t k_bits = std::bit_cast<std::uint32_t>(k);
  // Even of a NaN, but of a signalling one, which has the quiet bit clear.
  const bool signals =
      (IsNaN(x_bits) && (x_bits & kQuietBit) == 0) || (IsNaN(k_bits) && (k_bits & kQuietBit) == 0);
  if (!signals && (Magnitude(k_bits) == 0 || x_bits == kOneBits)) return 1.0F;
  if (IsNaN(x_bits) || IsNaN(k_bits)) return x + k;
  if (Magnitude(x_bits) == kOneBits) return 1.0F;
  return (Magnitude(x_bits) > kOneBits) == (k > 0.0F) ? kInfinity : 0.0F;
}

}  // namespace

float PlainExp(float x) {
  if (x <= internal::kExpIsZero) return 0.0F;
  if (x != x) return x + x;
  return PlainExp2(static_cast<double>(x) * internal::kThirtySecondsPerUnit);
}

float PlainPow(float x, float k) {
  const std::uint32_t k_bits = std::bit_cast<std::uint32_t>(k);
  if (Magnitude(k_bits) == 0 || Magnitude(k_bits) >= kInfinityBits) return PowOfSpecialExponent(x, k);

  std::uint32_t bits = std::bit_cast<std::uint32_t>(x);
  if (IsNaN(bits)) return x + k;
  const bool negative = bits >= kSignBit;
  bits = Magnitude(bits);
  const bool negates = negative && Kind(k) == Integer::kOdd;
  const auto with_sign = [negates](float value) { return negates ? -value : value; };
  if (bits == 0) return with_sign(k < 0.0F ? kInfinity : 0.0F);
  if (bits == kInfinityBits) return with_sign(k < 0.0F ? 0.0F : kInfinity);
  if (negative && Kind(k) == Integer::kNot) return std::numeric_limits<float>::quiet_NaN();
  if (bits < kLeastNormalBits) {
    // 2^23 times as large, which the exponent gives back.
    bits = std::bit_cast<std::uint32_t>(std::bit_cast<float>(bits) * 0x1p23F) - (std::uint32_t{23} << 23);
  }

  const double log2 = static_cast<double>(k) * PlainLog2(bits);
  if (log2 > 0x1.fffffffd1d571p+6) return with_sign(kInfinity);
  if (log2 <= -150.0) return with_sign(0.0F);
  return with_sign(PlainExp2(32.0 * log2));
}

// --- The steps of PlainPow for a vector of positive normal numbers.

namespace {

// The powers of one vector of values, and the lanes in which they are PlainPow's; the others hold anything.
struct Powers {
  Floats value;
  Ints proven;
};

// Beyond this magnitude of k, integers below could leave their range.
constexpr float kGreatestPower = 65536.0F;

inline Doubles Log2Steps(Doubles mantissa, Doubles exponent, ULongs reciprocal, ULongs log2) {
  constexpr Doubles kZero = {};
  const auto& a = kLog2Polynomial;
  const Doubles r = Fma(mantissa, reinterpret_cast<Doubles>(reciprocal), kZero - 1.0);
  const Doubles r2 = r * r;
  const Doubles y = Fma(kZero + a[0], r, kZero + a[1]);
  const Doubles p = Fma(kZero + a[2], r, kZero + a[3]);
  const Doubles q = Fma(p, r2, Fma(kZero + a[4], r, reinterpret_cast<Doubles>(log2) + exponent));
  return Fma(y, r2 * r2, q);
}

inline Doubles Exp2Steps(Split z) {
  constexpr Doubles kZero = {};
  const Doubles r = z.rest;
  const auto power = reinterpret_cast<Doubles>(LookUp32(kExp2Table.data(), z.integer) + (z.integer << 47));
  const Doubles u = Fma(kZero + kExp2Cubic[0], r, kZero + kExp2Cubic[1]);
  const Doubles y = Fma(kZero + kExp2Cubic[2], r, kZero + 1.0);
  return Fma(u, r * r, y) * power;
}

// x to the power k, which is not 0 and at most kGreatestPower in magnitude.
inline Powers PowSteps(Floats x, float k) {
  const auto bits = reinterpret_cast<UInts>(x);
  const UInts offset = bits - kLowestMantissaBits;
  const UInts exponent_bits = offset & kExponentBits;
  const Wide<Doubles> mantissa = Widen(reinterpret_cast<Floats>(bits - exponent_bits));
  const Wide<Doubles> exponent = Widen(reinterpret_cast<Ints>(exponent_bits) >> 23);
  const UInts interval = (offset >> 19) & 15U;
  const Wide<ULongs> reciprocal = LookUp16(kReciprocalTable.data(), interval);
  const Wide<ULongs> log2 = LookUp16(kLog2Table.data(), interval);

  const double factor = 32.0 * static_cast<double>(k);
  Wide<Doubles> power;
  Wide<ULongs> integer;
  for (std::size_t i = 0; i < kWideParts; ++i) {
    // k * log2(x), in thirty-seconds.
    const Split z = SplitAtInteger(
        Log2Steps(mantissa.part[i], exponent.part[i], reciprocal.part[i], log2.part[i]) * factor);
    power.part[i] = Exp2Steps(z);
    integer.part[i] = z.integer;
  }

  // Positive normal numbers, and results well inside the normal range: integers from -4031 to 4095.
  return {Narrow(power), (bits - kLeastNormalBits < kInfinityBits - kLeastNormalBits) &
                             (LowWords(integer) + 4031U <= 8126U)};
}

// Replaces what is not proven of the first `lanes` lanes.
inline Floats Completed(Powers powers, Floats x, float k, std::size_t lanes = kFloatLanes) {
  for (std::size_t lane = 0; lane < lanes; ++lane) {
    if (powers.proven[lane] == 0) powers.value[lane] = PlainPow(x[lane], k);
  }
  return powers.value;
}

// What a power k makes of zeros and of signs.
struct Signs {
  float of_zero;           // of +0
  float of_negative;       // NaN where negative numbers have no power
  bool negatives_are_nan;  //
  std::uint32_t kept;      // the bits that the result takes from x: the sign, for an odd k

  explicit Signs(float k)
      : of_zero(PlainPow(0.0F, k)),
        of_negative(PlainPow(-1.0F, k)),
        negatives_are_nan(Kind(k) == Integer::kNot),
        kept(Kind(k) == Integer::kOdd ? kSignBit : 0) {}
};

// The steps on the magnitude: zeros of both signs and negative normal numbers too.
inline Powers PowStepsOfAnySign(Floats x, float k, const Signs& signs) {
  const auto bits = reinterpret_cast<UInts>(x);
  const auto magnitude = reinterpret_cast<Floats>(bits & ~kSignBit);
  Powers powers = PowSteps(magnitude, k);
  const Ints is_zero = magnitude == 0.0F;
  powers.value = is_zero ? Splat(signs.of_zero) : powers.value;
  powers.value = reinterpret_cast<Floats>(reinterpret_cast<UInts>(powers.value) | (bits & signs.kept));
  if (signs.negatives_are_nan) powers.value = x < 0.0F ? Splat(signs.of_negative) : powers.value;
  powers.proven |= is_zero;
  return powers;
}

// --- Loops over whole vectors. Each stores until it meets a vector, or a block of them, that it cannot give, or none is
// left, and returns the number of elements stored. Calls for single lanes stay outside of them: a loop with a call loses
// its constants from the registers.

// Positive data, as most data is of which powers are taken.
[[gnu::noinline]] std::size_t StorePowersOfPositive(const float* in, float* out, std::size_t count, float k) {
  std::size_t i = 0;
  for (; i + kFloatLanes <= count; i += kFloatLanes) {
    const Powers powers = PowSteps(Load<Floats>(in + i), k);
    if (!AllLanes(powers.proven)) break;
    Store(out + i, powers.value);
  }
  return i;
}

[[gnu::noinline]] std::size_t StorePowersOfAnySign(const float* in, float* out, std::size_t count, float k,
                                                   const Signs& signs) {
  std::size_t i = 0;
  for (; i + kFloatLanes <= count; i += kFloatLanes) {
    const Powers powers = PowStepsOfAnySign(Load<Floats>(in + i), k, signs);
    if (!AllLanes(powers.proven)) break;
    Store(out + i, powers.value);
  }
  return i;
}

// The same, with single lanes completed: all whole vectors.
std::size_t StorePowers(const float* in, float* out, std::size_t count, float k, const Signs& signs) {
  std::size_t i = StorePowersOfAnySign(in, out, count, k, signs);
  while (i + kFloatLanes <= count) {
    const Floats x = Load<Floats>(in + i);
    Store(out + i, Completed(PowStepsOfAnySign(x, k, signs), x, k));
    i += kFloatLanes;
    i += StorePowersOfAnySign(in + i, out + i, count - i, k, signs);
  }
  return i;
}

// --- Squares and square roots by exact arithmetic. The double that the steps round differs from the power by at most
// 0.00175 units in the last place of the float, so only a power that lies that near to the middle between two floats
// can round otherwise: one in 280. Such a lane is done by the steps; all others have their result already.
// scripts/prove-math compares both functions over every float.

// The magnitude below which the tests would underflow, as what is added to a factor or taken from it: it makes their
// lanes doubtful, but for 0, and changes nothing for larger numbers.
constexpr float kUnderflowGuard = 0x1p-70F;

inline Floats Magnitude(Floats v) { return reinterpret_cast<Floats>(reinterpret_cast<UInts>(v) & ~kSignBit); }

// The results of a vector, and whether they are sure.
struct SquareOf {
  static constexpr float kMargin = 0x1p-23F * 0.0018F;

  Floats value;
  Ints sure;

  // Sure where the square rounds alike with the margin added and taken away.
  explicit SquareOf(Floats x) {
    const Floats magnitude = Magnitude(x);
    const Floats margin = magnitude * Fma(magnitude, Splat(kMargin), Splat(kUnderflowGuard));
    value = Fma(x, x, margin);
    sure = value == Fma(x, x, -margin);
  }
};

struct RootOf {
  // What x is more than the square of its root where it lies in the middle between the squares of two floats, in units
  // of the root times the power of two in it; less the margin.
  static constexpr float kMiddle = 0x1p-23F * (1.0F - 0.0036F);

  Floats value;
  Ints sure;

  explicit RootOf(Floats x) {
    value = Sqrt(Magnitude(x));                 // of -0 it is +0
    const Floats rest = Fma(-value, value, x);  // exact; large where x is negative
    const auto power_of_two = reinterpret_cast<Floats>(reinterpret_cast<UInts>(value) & kExponentBits);
    sure = Magnitude(rest) <= value * Fma(power_of_two, Splat(kMiddle), Splat(-kUnderflowGuard));
  }
};

constexpr std::size_t kBlock = 4 * kFloatLanes;

template <typename Result>
[[gnu::noinline]] std::size_t StoreSureBlocks(const float* in, float* out, std::size_t count) {
  std::size_t i = 0;
  for (; i + kBlock <= count; i += kBlock) {
    const Result r0(Load<Floats>(in + i));
    const Result r1(Load<Floats>(in + i + kFloatLanes));
    const Result r2(Load<Floats>(in + i + 2 * kFloatLanes));
    const Result r3(Load<Floats>(in + i + 3 * kFloatLanes));
    if (!AllLanes((r0.sure & r1.sure) & (r2.sure & r3.sure))) break;
    Store(out + i, r0.value);
    Store(out + i + kFloatLanes, r1.value);
    Store(out + i + 2 * kFloatLanes, r2.value);
    Store(out + i + 3 * kFloatLanes, r3.value);
  }
  return i;
}

// All whole vectors; a lane that is not sure is done by the plain steps.
template <typename Result>
std::size_t StoreSquaresOrRoots(const float* in, float* out, std::size_t count, float k) {
  std::size_t i = StoreSureBlocks<Result>(in, out, count);
  while (i + kFloatLanes <= count) {
    for (const std::size_t end = std::min(i + kBlock, count); i + kFloatLanes <= end; i += kFloatLanes) {
      const Floats x = Load<Floats>(in + i);
      const Result result(x);
      Store(out + i, Completed({result.value, result.sure}, x, k));
    }
    i += StoreSureBlocks<Result>(in + i, out + i, count - i);
  }
  return i;
}

// All whole vectors. Where data has been found not to be positive, it is likely to go on so for a while.
std::size_t StoreVectors(const float* in, float* out, std::size_t count, float k) {
  if (k == 2.0F) return StoreSquaresOrRoots<SquareOf>(in, out, count, k);
  if (k == 0.5F) return StoreSquaresOrRoots<RootOf>(in, out, count, k);
  constexpr std::size_t kWhile = 512;
  std::size_t i = StorePowersOfPositive(in, out, count, k);
  if (i + kFloatLanes > count) return i;
  const Signs signs(k);
  while (i + kFloatLanes <= count) {
    i += StorePowers(in + i, out + i, std::min(kWhile, count - i), k, signs);
    i += StorePowersOfPositive(in + i, out + i, count - i, k);
  }
  return i;
}

}  // namespace

void PowInto(const float* in, float* out, std::size_t count, float k) {
  std::size_t i = 0;
  if (kHasFma && k != 0.0F && std::abs(k) <= kGreatestPower) {
    i = StoreVectors(in, out, count, k);
    if (const std::size_t rest = count - i; rest != 0) {
      const Floats x = LoadSome(in + i, rest);
      StoreSome(out + i, Completed(PowSteps(x, k), x, k, rest), rest);
    }
    return;
  }
  for (; i < count; ++i) out[i] = PlainPow(in[i], k);
}

}  // namespace zeb_custom_ops::detail
