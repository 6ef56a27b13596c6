// `expf` and `powf` for vectors, with the C library's results in every bit.
//
// The C libraries of 64-bit Linux compute both functions by the method of Arm's optimized routines
// (https://github.com/ARM-software/optimized-routines, math/expf.c and math/powf.c): in double precision,
// with fused multiply-adds where the processor has them. The same steps in the same order give the same bits;
// the figures below are those that the routines publish. scripts/prove-math compares every argument that the
// layers can pass with the C library. Outside the range proven, and where the build's target has no fused
// multiply-add, the C library is called.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "simd/simd.h"

namespace zeb_custom_ops::detail {

namespace internal {

// Entry i is the bits of 2^(i / 32), correctly rounded, minus i << 47. For an integer n = 32 * q + i the bits of
// 2^(n / 32) are those of 2^(i / 32) with q added to the exponent, q << 52: together, entry i plus n << 47. The 32
// entries are there eight times over, as LookUp32 takes them.
inline constexpr std::array<std::uint64_t, 256> kExp2Table = [] {
  constexpr double kPowers[32] = {
      0x1.0000000000000p+0, 0x1.059b0d3158574p+0, 0x1.0b5586cf9890fp+0, 0x1.11301d0125b51p+0,
      0x1.172b83c7d517bp+0, 0x1.1d4873168b9aap+0, 0x1.2387a6e756238p+0, 0x1.29e9df51fdee1p+0,
      0x1.306fe0a31b715p+0, 0x1.371a7373aa9cbp+0, 0x1.3dea64c123422p+0, 0x1.44e086061892dp+0,
      0x1.4bfdad5362a27p+0, 0x1.5342b569d4f82p+0, 0x1.5ab07dd485429p+0, 0x1.6247eb03a5585p+0,
      0x1.6a09e667f3bcdp+0, 0x1.71f75e8ec5f74p+0, 0x1.7a11473eb0187p+0, 0x1.82589994cce13p+0,
      0x1.8ace5422aa0dbp+0, 0x1.93737b0cdc5e5p+0, 0x1.9c49182a3f090p+0, 0x1.a5503b23e255dp+0,
      0x1.ae89f995ad3adp+0, 0x1.b7f76f2fb5e47p+0, 0x1.c199bdd85529cp+0, 0x1.cb720dcef9069p+0,
      0x1.d5818dcfba487p+0, 0x1.dfc97337b9b5fp+0, 0x1.ea4afa2a490dap+0, 0x1.f50765b6e4540p+0,
  };
  std::array<std::uint64_t, 256> bits{};
  for (std::uint64_t i = 0; i < 256; ++i)
    bits[i] = std::bit_cast<std::uint64_t>(kPowers[i % 32]) - (i % 32 << 47);
  return bits;
}();

// 2^(n / 32) * 2^(r / 32) for an integer n and the rest r: a power from the table times a cubic.
inline Doubles Exp2Steps(Split z) {
  constexpr Doubles kZero = {};
  const Doubles r = z.rest;
  const auto scale = reinterpret_cast<Doubles>(LookUp32(kExp2Table.data(), z.integer) + (z.integer << 47));
  const Doubles u =
      Fma(kZero + 0x1.c6af84b912394p-5 / 32 / 32 / 32, r, kZero + 0x1.ebfce50fac4f3p-3 / 32 / 32);
  const Doubles y = Fma(kZero + 0x1.62e42ff0c52d6p-1 / 32, r, kZero + 1.0);
  return Fma(u, r * r, y) * scale;
}

// The mantissas fall in 16 intervals; for a point c in each, the bits of 1 / c and of log2(c).
struct LogTable {
  std::array<std::uint64_t, 16> reciprocal;
  std::array<std::uint64_t, 16> log2;
};
inline constexpr LogTable kLogTable = [] {
  constexpr double kFigures[16][2] = {
      {0x1.661ec79f8f3bep+0, -0x1.efec65b963019p-2}, {0x1.571ed4aaf883dp+0, -0x1.b0b6832d4fca4p-2},
      {0x1.49539f0f010bp+0, -0x1.7418b0a1fb77bp-2},  {0x1.3c995b0b80385p+0, -0x1.39de91a6dcf7bp-2},
      {0x1.30d190c8864a5p+0, -0x1.01d9bf3f2b631p-2}, {0x1.25e227b0b8eap+0, -0x1.97c1d1b3b7afp-3},
      {0x1.1bb4a4a1a343fp+0, -0x1.2f9e393af3c9fp-3}, {0x1.12358f08ae5bap+0, -0x1.960cbbf788d5cp-4},
      {0x1.0953f419900a7p+0, -0x1.a6f9db6475fcep-5}, {0x1p+0, 0x0p+0},
      {0x1.e608cfd9a47acp-1, 0x1.338ca9f24f53dp-4},  {0x1.ca4b31f026aap-1, 0x1.476a9543891bap-3},
      {0x1.b2036576afce6p-1, 0x1.e840b4ac4e4d2p-3},  {0x1.9c2d163a1aa2dp-1, 0x1.40645f0c6651cp-2},
      {0x1.886e6037841edp-1, 0x1.88e9c2c1b9ff8p-2},  {0x1.767dcf5534862p-1, 0x1.ce0a44eb17bccp-2},
  };
  LogTable table{};
  for (std::size_t i = 0; i < 16; ++i) {
    table.reciprocal[i] = std::bit_cast<std::uint64_t>(kFigures[i][0]);
    table.log2[i] = std::bit_cast<std::uint64_t>(kFigures[i][1]);
  }
  return table;
}();

// log2(mantissa * 2^exponent): log2(c) plus a polynomial in mantissa / c - 1; `reciprocal` and `log2` are the
// bits of 1 / c and of log2(c).
inline Doubles Log2Steps(Doubles mantissa, Doubles exponent, ULongs reciprocal, ULongs log2) {
  constexpr Doubles kZero = {};
  const Doubles r = Fma(mantissa, reinterpret_cast<Doubles>(reciprocal), kZero - 1.0);
  const Doubles r2 = r * r;
  const Doubles y = Fma(kZero + 0x1.27616c9496e0bp-2, r, kZero - 0x1.71969a075c67ap-2);
  const Doubles p = Fma(kZero + 0x1.ec70a6ca7baddp-2, r, kZero - 0x1.7154748bef6c8p-1);
  const Doubles q =
      Fma(p, r2, Fma(kZero + 0x1.71547652ab82bp0, r, reinterpret_cast<Doubles>(log2) + exponent));
  return Fma(y, r2 * r2, q);
}

// Beyond this magnitude of k, integers below could leave their range.
inline constexpr float kGreatestPower = 65536.0F;

// The powers of one vector of values, and the lanes in which they are proven to be powf's; the others hold
// anything.
struct Powers {
  Floats value;
  Ints proven;
};

// x to the power k, which is not 0 and at most kGreatestPower in magnitude.
inline Powers PowSteps(Floats x, float k) {
  const auto bits = reinterpret_cast<UInts>(x);
  // A mantissa from 1 to 2 becomes one from 0.7 to 1.4, so that logarithms near 0 are exact.
  const UInts offset = bits - 0x3f330000U;
  const UInts exponent_bits = offset & 0xff800000U;
  const Wide<Doubles> mantissa = Widen(reinterpret_cast<Floats>(bits - exponent_bits));
  const Wide<Doubles> exponent = Widen(reinterpret_cast<Ints>(exponent_bits) >> 23);
  const UInts interval = (offset >> 19) & 15U;
  const Wide<ULongs> reciprocal = LookUp16(kLogTable.reciprocal.data(), interval);
  const Wide<ULongs> log2 = LookUp16(kLogTable.log2.data(), interval);

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

  // Proven for positive normal numbers and results well inside the normal range: integers from -4031 to 4095.
  return {Narrow(power), (bits - 0x00800000U < 0x7f000000U) & (LowWords(integer) + 4031U <= 8126U)};
}

// Stores whole vectors of powers until one holds a lane that is not proven, or none is left; returns the
// number of elements stored. `rest` is that vector. The calls for its lanes are outside of this loop, which would
// otherwise lose its constants from the registers.
inline std::size_t StoreWhileProven(const float* in, float* out, std::size_t count, float k, Powers& rest) {
  std::size_t i = 0;
  for (; i + kFloatLanes <= count; i += kFloatLanes) {
    rest = PowSteps(Load<Floats>(in + i), k);
    if (!AllLanes(rest.proven)) break;
    Store(out + i, rest.value);
  }
  return i;
}

}  // namespace internal

// expf of values that are at most 0, minus infinity included, or NaN.
inline Floats ExpNonPositive(Floats x) {
  if constexpr (!kHasFma) {
    for (std::size_t lane = 0; lane < kFloatLanes; ++lane) x[lane] = std::exp(x[lane]);
    return x;
  }
  constexpr double kThirtySecondsPerUnit = 32 * 0x1.71547652b82fep0;  // 32 / log(2)
  // From -104 down the result is 0. The steps give that at -104; further down their exponent would wrap.
  Wide<Doubles> wide = Widen(Max(Splat(-104.0F), x));
  const Doubles factor = Doubles{} + kThirtySecondsPerUnit;
  for (Doubles& part : wide.part) part = internal::Exp2Steps(SplitProductAtInteger(part, factor));
  return Narrow(wide);
}

// out[i] = powf(in[i], k); `out` may be `in`.
inline void PowInto(const float* in, float* out, std::size_t count, float k) {
  std::size_t i = 0;
  if (kHasFma && k != 0.0F && std::abs(k) <= internal::kGreatestPower) {
    while (i < count) {
      internal::Powers rest;
      i += internal::StoreWhileProven(in + i, out + i, count - i, k, rest);
      const std::size_t left = std::min<std::size_t>(count - i, kFloatLanes);
      if (left < kFloatLanes) rest = internal::PowSteps(LoadSome(in + i, left), k);
      for (std::size_t lane = 0; lane < left; ++lane, ++i) {
        out[i] = rest.proven[lane] != 0 ? rest.value[lane] : std::pow(in[i], k);
      }
    }
  }
  for (; i < count; ++i) out[i] = std::pow(in[i], k);
}

}  // namespace zeb_custom_ops::detail
