// One vocabulary of vectors. types.h has the types; the file of the target's architecture has what neither the
// portable vector types nor the compilers' lowering of them give:
//
//   kBlockBytes                   bytes of the widest plain move
//   kShufflesBytes                whether single bytes are shuffled freely: everywhere but on the baseline of x86-64
//   kLookUpVectors                vectors in which LookUpBytes looks bytes up at most: as many as pay, or none
//   kHasFma                       whether multiply-adds are fused by an instruction; elsewhere `Fma` is a call per lane
//   kProductTile                  how many sums of a matrix product stay in registers, see kernels/matmul.cpp
//   kMapVectors                   vectors of an element-wise function that are computed before they are stored
//   Splat(x)                      the same value in all lanes
//   Sqrt(v)                       the square root
//   Max(a, b)                     the greater, lane by lane. A NaN in `b` stays; one in `a` may give either
//   MaxLane(v)                    the greatest lane; of lanes among which there is a NaN, any
//   AllLanes(holds)               of a comparison's result: true when it holds in every lane
//   Widen(v), Narrow(w)           floats and integers to doubles and back, rounded to nearest
//   LowWords(w)                   the low half of every 64-bit lane
//   Fma(a, b, c)                  a * b + c, rounded once
//   LookUp32(table, i)            table[i modulo 32], lane by lane. `table` holds its 32 entries eight times over, 256 in
//                                 all: a target that indexes memory uses the low byte of `i`, which is at hand
//   LookUp16(table, i)            table[i], lane by lane, for i below 16
//   LookUpBytes<n>(table, i)      the bytes number i, lane by lane, of those that n vectors hold
//   SplitAtInteger(z)             the nearest integer to z, and the rest; two that are as near differ by target
//   LoadFours(rows, i, k)         rows[i][k] to rows[i][k + 3]; behind them, in a vector of eight lanes, the same of row i + 4
//   kInterleavedVectors           vectors that StoreInterleaved and LoadInterleaved take at most
//   StoreInterleaved<T, k>, LoadInterleaved<T, k>
//                                 k vectors, two or more, to and from memory in which their elements alternate
#pragma once

#include "simd/shuffles.h"
#include "simd/types.h"

#if defined(__aarch64__)
#include "simd/arm64.h"
#elif defined(__AVX512F__) && defined(__FMA__)
#include "simd/x86_512.h"
#elif defined(__AVX2__) && defined(__FMA__)
#include "simd/x86_256.h"
#elif defined(__x86_64__)
#include "simd/x86_128.h"
#else
#error "Built for 64-bit Arm and x86-64: another architecture needs its own file in simd/."
#endif

namespace zeb_custom_ops::detail {

// The first `count` lanes from memory, fewer than a vector has; the others are 0.
inline Floats LoadSome(const float* src, std::size_t count) {
  Floats value = {};
  for (std::size_t i = 0; i < count; ++i) value[i] = src[i];
  return value;
}
inline void StoreSome(float* dst, Floats value, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) dst[i] = value[i];
}

namespace internal {

template <std::size_t parts>
struct WideSumsOf;

template <>
struct WideSumsOf<1> {
  Doubles sums;

  void Clear() { sums = Doubles{}; }
  void Read(const double* src) { sums = Load<Doubles>(src); }
  void Write(double* dst) const { Store(dst, sums); }
  void Add(Floats v) { sums += Widen(v).part[0]; }
  Floats Rounded() const { return Narrow({{sums}}); }
};

// Not an array: GCC keeps members in registers that it spills as an array.
template <>
struct WideSumsOf<2> {
  Doubles low;
  Doubles high;

  void Clear() { low = high = Doubles{}; }
  void Read(const double* src) {
    low = Load<Doubles>(src);
    high = Load<Doubles>(src + kDoubleLanes);
  }
  void Write(double* dst) const {
    Store(dst, low);
    Store(dst + kDoubleLanes, high);
  }
  void Add(Floats v) {
    const Wide<Doubles> wide = Widen(v);
    low += wide.part[0];
    high += wide.part[kWideParts - 1];
  }
  Floats Rounded() const {
    Wide<Doubles> wide;
    wide.part[0] = low;
    wide.part[kWideParts - 1] = high;
    return Narrow(wide);
  }
};

}  // namespace internal

// As many sums in double precision as a vector has floats: `Add` widens the lanes and adds them.
using WideSums = internal::WideSumsOf<kWideParts>;

}  // namespace zeb_custom_ops::detail
