// The published steps of Arm's optimized routines (expf.c, powf.c) with an instruction that rounds halves away from zero,
// and multiply-adds fused: in double precision, the result rounded once.
#include "model/exact_math.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace vek_model {
namespace {

// 2^(i / 32), correctly rounded.
constexpr double kRoots[32] = {
    0x1.0000000000000p+0, 0x1.059b0d3158574p+0, 0x1.0b5586cf9890fp+0, 0x1.11301d0125b51p+0,
    0x1.172b83c7d517bp+0, 0x1.1d4873168b9aap+0, 0x1.2387a6e756238p+0, 0x1.29e9df51fdee1p+0,
    0x1.306fe0a31b715p+0, 0x1.371a7373aa9cbp+0, 0x1.3dea64c123422p+0, 0x1.44e086061892dp+0,
    0x1.4bfdad5362a27p+0, 0x1.5342b569d4f82p+0, 0x1.5ab07dd485429p+0, 0x1.6247eb03a5585p+0,
    0x1.6a09e667f3bcdp+0, 0x1.71f75e8ec5f74p+0, 0x1.7a11473eb0187p+0, 0x1.82589994cce13p+0,
    0x1.8ace5422aa0dbp+0, 0x1.93737b0cdc5e5p+0, 0x1.9c49182a3f090p+0, 0x1.a5503b23e255dp+0,
    0x1.ae89f995ad3adp+0, 0x1.b7f76f2fb5e47p+0, 0x1.c199bdd85529cp+0, 0x1.cb720dcef9069p+0,
    0x1.d5818dcfba487p+0, 0x1.dfc97337b9b5fp+0, 0x1.ea4afa2a490dap+0, 0x1.f50765b6e4540p+0};

// 2^z; halves of thirty-seconds go away from zero.
float TwoTo(double z) {
  const double n = std::round(32 * z);
  const double r = z - n / 32;
  const auto whole = static_cast<long>(std::floor(n / 32));
  const double root = kRoots[static_cast<long>(n) - 32 * whole];
  const double cubic = std::fma(std::fma(0x1.c6af84b912394p-5, r, 0x1.ebfce50fac4f3p-3), r * r,
                                std::fma(0x1.62e42ff0c52d6p-1, r, 1.0));
  return static_cast<float>(cubic * std::ldexp(root, static_cast<int>(whole)));
}

// log2 of a positive float: of 1 / c, log2(c) for a c near the mantissa, and a polynomial in what is left.
double Log2(float x) {
  constexpr double kNear[16][2] = {
      {0x1.661ec79f8f3bep+0, -0x1.efec65b963019p-2}, {0x1.571ed4aaf883dp+0, -0x1.b0b6832d4fca4p-2},
      {0x1.49539f0f010bp+0, -0x1.7418b0a1fb77bp-2},  {0x1.3c995b0b80385p+0, -0x1.39de91a6dcf7bp-2},
      {0x1.30d190c8864a5p+0, -0x1.01d9bf3f2b631p-2}, {0x1.25e227b0b8eap+0, -0x1.97c1d1b3b7afp-3},
      {0x1.1bb4a4a1a343fp+0, -0x1.2f9e393af3c9fp-3}, {0x1.12358f08ae5bap+0, -0x1.960cbbf788d5cp-4},
      {0x1.0953f419900a7p+0, -0x1.a6f9db6475fcep-5}, {0x1p+0, 0x0p+0},
      {0x1.e608cfd9a47acp-1, 0x1.338ca9f24f53dp-4},  {0x1.ca4b31f026aap-1, 0x1.476a9543891bap-3},
      {0x1.b2036576afce6p-1, 0x1.e840b4ac4e4d2p-3},  {0x1.9c2d163a1aa2dp-1, 0x1.40645f0c6651cp-2},
      {0x1.886e6037841edp-1, 0x1.88e9c2c1b9ff8p-2},  {0x1.767dcf5534862p-1, 0x1.ce0a44eb17bccp-2}};
  // x = m * 2^e with m from 0x3f330000 (about 0.7) up, in sixteen steps of 2^19 of its bits.
  int e = 0;
  float m = std::frexp(x, &e);
  std::uint32_t bits;
  std::memcpy(&bits, &m, sizeof bits);
  if (bits < 0x3f330000) {
    m *= 2;
    e -= 1;
    std::memcpy(&bits, &m, sizeof bits);
  }
  const double* near = kNear[(bits - 0x3f330000) >> 19];
  const double r = std::fma(double{m}, near[0], -1.0);
  const double r2 = r * r;
  double y = near[1] + e;
  y = std::fma(0x1.71547652ab82bp0, r, y);
  y = std::fma(std::fma(0x1.ec70a6ca7baddp-2, r, -0x1.7154748bef6c8p-1), r2, y);
  return std::fma(std::fma(0x1.27616c9496e0bp-2, r, -0x1.71969a075c67ap-2), r2 * r2, y);
}

// A NaN with the quiet bit clear, which not even the power 0 makes 1.
bool IsSignallingNaN(float x) {
  std::uint32_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  return std::isnan(x) && (bits & 0x00400000) == 0;
}

}  // namespace

float Exp(float x) {
  if (std::isnan(x)) return x;
  if (x <= -104) return 0;
  // In thirty-seconds of a power of two: the product is rounded before it is split.
  return TwoTo(double{x} * (32 * 0x1.71547652b82fep0) / 32);
}

float Pow(float x, float k) {
  const float infinity = std::numeric_limits<float>::infinity();
  const bool signals = IsSignallingNaN(x) || IsSignallingNaN(k);
  if (!signals && (k == 0 || x == 1)) return 1;
  if (std::isnan(x) || std::isnan(k)) return std::numeric_limits<float>::quiet_NaN();
  const float size = std::fabs(x);
  if (std::isinf(k)) return size == 1 ? 1 : (size > 1) == (k > 0) ? infinity : 0;
  const bool whole = std::floor(k) == k;
  const bool odd = whole && std::fabs(std::fmod(k, 2.0F)) == 1;
  const float sign = std::signbit(x) && odd ? -1.0F : 1.0F;
  if (size == 0 || std::isinf(x)) return sign * ((size == 0) == (k > 0) ? 0 : infinity);
  if (x < 0 && !whole) return std::numeric_limits<float>::quiet_NaN();
  const double power = k * Log2(size);
  if (power > 0x1.fffffffd1d571p+6) return sign * infinity;
  return power <= -150 ? sign * 0.0F : sign * TwoTo(power);
}

}  // namespace vek_model
