// `expf` and `powf` with the same bits on every machine and under every C library.
//
// What is promised: the results that the steps of Arm's optimized routines
// (https://github.com/ARM-software/optimized-routines, math/expf.c and math/powf.c) give on 64-bit Arm, where they round
// to integers with an instruction and fuse multiply-adds. The C libraries of today's 64-bit Arm devices are built from
// these routines, so the results equal theirs. Nothing here calls a C library's `expf` or `powf`, which differ: between
// processors (x86-64 fuses one more product, and gives another float for one argument of expf), and between versions
// (correctly rounded functions change a float in a few thousand).
//
// `PlainExp` and `PlainPow` are those steps, one value at a time. The vector forms give the same floats faster;
// scripts/prove-math compares them over every float.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "simd/simd.h"

namespace zeb_custom_ops::detail {

// e to the power x, for x of at most 0, minus infinity and NaN included.
float PlainExp(float x);

// x to the power k, for any two floats: the special values are those of the C standard's annex on IEC 60559 arithmetic.
// No errno.
float PlainPow(float x, float k);

// out[i] = PlainPow(in[i], k), by vectors where they give it. `out` may be `in`.
void PowInto(const float* in, float* out, std::size_t count, float k);

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

// The cubic that stands for 2^(r / 32), r from -1/2 to 1/2: 1 + c[2] r + c[1] r^2 + c[0] r^3.
inline constexpr double kExp2Cubic[3] = {0x1.c6af84b912394p-5 / 32 / 32 / 32, 0x1.ebfce50fac4f3p-3 / 32 / 32,
                                         0x1.62e42ff0c52d6p-1 / 32};

inline constexpr double kThirtySecondsPerUnit = 32 * 0x1.71547652b82fep0;  // 32 / log(2)

// expf rounds to 0 from here down, and no sooner than -103.97.
inline constexpr float kExpIsZero = -104.0F;

// The mantissas fall in 16 intervals. For a point c in each, the bits of 1 / c and of log2(c).
constexpr std::array<std::uint64_t, 16> Bits(const double (&numbers)[16]) {
  std::array<std::uint64_t, 16> bits{};
  for (std::size_t i = 0; i < 16; ++i) bits[i] = std::bit_cast<std::uint64_t>(numbers[i]);
  return bits;
}
inline constexpr std::array<std::uint64_t, 16> kReciprocalTable =
    Bits({0x1.661ec79f8f3bep+0, 0x1.571ed4aaf883dp+0, 0x1.49539f0f010bp+0, 0x1.3c995b0b80385p+0,
          0x1.30d190c8864a5p+0, 0x1.25e227b0b8eap+0, 0x1.1bb4a4a1a343fp+0, 0x1.12358f08ae5bap+0,
          0x1.0953f419900a7p+0, 0x1p+0, 0x1.e608cfd9a47acp-1, 0x1.ca4b31f026aap-1, 0x1.b2036576afce6p-1,
          0x1.9c2d163a1aa2dp-1, 0x1.886e6037841edp-1, 0x1.767dcf5534862p-1});
inline constexpr std::array<std::uint64_t, 16> kLog2Table =
    Bits({-0x1.efec65b963019p-2, -0x1.b0b6832d4fca4p-2, -0x1.7418b0a1fb77bp-2, -0x1.39de91a6dcf7bp-2,
          -0x1.01d9bf3f2b631p-2, -0x1.97c1d1b3b7afp-3, -0x1.2f9e393af3c9fp-3, -0x1.960cbbf788d5cp-4,
          -0x1.a6f9db6475fcep-5, 0x0p+0, 0x1.338ca9f24f53dp-4, 0x1.476a9543891bap-3, 0x1.e840b4ac4e4d2p-3,
          0x1.40645f0c6651cp-2, 0x1.88e9c2c1b9ff8p-2, 0x1.ce0a44eb17bccp-2});

// a * b + c, in one rounding where the target has an instruction for it: for steps that are proven either way.
inline Doubles MultiplyAdd(Doubles a, Doubles b, Doubles c) {
  if constexpr (kHasFma) return Fma(a, b, c);
  return a * b + c;
}

}  // namespace internal

// PlainExp, lane by lane.
//
// The cubic is multiplied out otherwise than in PlainExp, with one operation less: power + power * (the cubic without
// its 1). The double differs, the float that it rounds to does not, for any argument, fused or not.
inline Floats ExpNonPositive(Floats x) {
  using namespace internal;
  // Below kExpIsZero the steps' exponent would wrap.
  Wide<Doubles> wide = Widen(Max(Splat(kExpIsZero), x));
  constexpr Doubles kZero = {};
  for (Doubles& part : wide.part) {
    const Split z = SplitAtInteger(part * kThirtySecondsPerUnit);
    const auto power = reinterpret_cast<Doubles>(LookUp32(kExp2Table.data(), z.integer) + (z.integer << 47));
    const Doubles u = MultiplyAdd(kZero + kExp2Cubic[0], z.rest, kZero + kExp2Cubic[1]);
    const Doubles g = MultiplyAdd(u, z.rest, kZero + kExp2Cubic[2]) * z.rest;
    part = MultiplyAdd(power, g, power);
  }
  return Narrow(wide);
}

}  // namespace zeb_custom_ops::detail
