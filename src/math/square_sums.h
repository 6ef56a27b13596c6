// Sums of squares in single precision, each a chain of fused multiply-adds in memory order,
//
//     sum = 0;  for k = 0, 1, ...: sum = fma(x[k], x[k], sum)
//
// as fast as their bits allow. Several rows are lanes side by side. A single long row is cut open by this
// argument:
//
// Let 2^e <= sum < 2^(e+1), and u = 2^(e-23) the distance of neighbouring floats there. As long as the chain
// stays below 2^(e+1), every step adds to `sum`, a multiple of u, the multiple of u that is nearest to x^2.
// Which one that is does not depend on `sum`, unless x^2 lies half way between two: then the even float wins,
// and the parity of sum / u decides. So without such ties the steps add the same multiples whatever float in
// [2^e, 2^(e+1)) they start from, and multiples of u below 2^24 u add exactly, in any order: lanes may each
// run a part of the row, from 2^e, and what they gained in all is what the chain gains.
//
// Ties show themselves when every lane runs twice, from 2^e and from 2^e + u. Before a tie the two differ by
// u. At a tie one is even and the other odd, and both become even; they keep the same parity, and never differ
// by u again. That the chain stays below 2^(e+1) shows in the end, since nothing it adds is negative. Where
// either test fails, NaN and infinity included, the piece runs again as the plain chain.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "simd/simd.h"

namespace zeb_custom_ops::detail {

// The plain chain, from `sum` on.
inline float ChainOfSquares(const float* row, std::size_t count, float sum) {
  std::size_t k = 0;
  for (; k + 4 <= count; k += 4) {
    sum = std::fma(row[k], row[k], sum);
    sum = std::fma(row[k + 1], row[k + 1], sum);
    sum = std::fma(row[k + 2], row[k + 2], sum);
    sum = std::fma(row[k + 3], row[k + 3], sum);
  }
  for (; k < count; ++k) sum = std::fma(row[k], row[k], sum);
  return sum;
}

namespace internal {

inline constexpr std::size_t kChainVectors = 4;  // side by side, each twice
inline constexpr std::size_t kChainStep = kChainVectors * kFloatLanes;
inline constexpr std::size_t kShortPiece = 64;
inline constexpr std::size_t kLongPiece = 8 * kShortPiece;

// Runs `count` values, a multiple of kChainStep, as lanes from `sum`, which it replaces. Returns false, and
// leaves `sum`, where the lanes cannot tell what the chain gives.
inline bool AddSquaresAsLanes(const float* row, std::size_t count, float& sum) {
  // Far enough from the denormal numbers and from infinity for u and 2^(e+1) to be normal numbers.
  if (!(sum >= 0x1p-100F && sum < 0x1p126F)) return false;
  const float base = std::bit_cast<float>(std::bit_cast<std::uint32_t>(sum) & 0xff800000U);
  const float unit = base * 0x1p-23F;

  Floats even[kChainVectors];
  Floats odd[kChainVectors];
  for (std::size_t i = 0; i < kChainVectors; ++i) {
    even[i] = Splat(base);
    odd[i] = Splat(base + unit);
  }
  for (std::size_t k = 0; k < count; k += kChainStep) {
    for (std::size_t i = 0; i < kChainVectors; ++i) {
      const Floats x = Load<Floats>(row + k + i * kFloatLanes);
      even[i] = Fma(x, x, even[i]);
      odd[i] = Fma(x, x, odd[i]);
    }
  }
  Ints regular = odd[0] - even[0] == unit;
  Floats gains = even[0] - base;
  for (std::size_t i = 1; i < kChainVectors; ++i) {
    regular &= odd[i] - even[i] == unit;
    gains += even[i] - base;
  }
  // A lane that left the binade has gained at least `base`, and so have all together.
  float gain = 0.0F;
  for (std::size_t lane = 0; lane < kFloatLanes; ++lane) gain += gains[lane];
  if (!AllLanes(regular) || !(sum + gain < 2 * base)) return false;
  sum += gain;
  return true;
}

inline constexpr std::size_t kGroups = 16 / kFloatLanes;  // vectors of rows side by side

}  // namespace internal

// As many rows as run side by side: one where the target does not fuse multiply-adds.
inline constexpr std::size_t kSideBySide = kHasFma ? internal::kGroups * kFloatLanes : 1;

// sums[i] = the chain of rows[i], for kSideBySide rows of `count` values.
inline void SumSquaresSideBySide(const float* const* rows, std::size_t count, float* sums) {
  using namespace internal;
  if constexpr (!kHasFma) {
    sums[0] = ChainOfSquares(rows[0], count, 0.0F);
    return;
  }
  Floats sum[kGroups] = {};
  std::size_t k = 0;
  for (; k + 4 <= count; k += 4) {
    for (std::size_t g = 0; g < kGroups; ++g) {
      // Four values of each row become, four times, one value of each row.
      Floats x[4];
      for (std::size_t i = 0; i < 4; ++i) x[i] = LoadFours(rows + g * kFloatLanes, i, k);
      Transpose4x4(x);
      for (const Floats& values : x) sum[g] = Fma(values, values, sum[g]);
    }
  }
  for (; k < count; ++k) {
    for (std::size_t g = 0; g < kGroups; ++g) {
      Floats x;
      for (std::size_t lane = 0; lane < kFloatLanes; ++lane) x[lane] = rows[g * kFloatLanes + lane][k];
      sum[g] = Fma(x, x, sum[g]);
    }
  }
  for (std::size_t g = 0; g < kGroups; ++g) Store(sums + g * kFloatLanes, sum[g]);
}

// The chain of one row.
inline float SumSquares(const float* row, std::size_t count) {
  using namespace internal;
  if constexpr (!kHasFma) return ChainOfSquares(row, count, 0.0F);
  float sum = 0.0F;
  std::size_t plain = kShortPiece;  // values to run plainly before lanes are tried again
  for (std::size_t k = 0; k < count;) {
    if (count - k >= kLongPiece && k >= plain && AddSquaresAsLanes(row + k, kLongPiece, sum)) {
      k += kLongPiece;
      continue;
    }
    // The sum leaves its binade here, or there are ties. Data full of ties is left to the plain chain for
    // a while.
    const std::size_t end = k + std::min(kLongPiece, count - k);
    bool any = false;
    while (k < end) {
      const std::size_t piece = std::min(kShortPiece, end - k);
      if (piece == kShortPiece && k >= plain && AddSquaresAsLanes(row + k, piece, sum)) {
        any = true;
      } else {
        sum = ChainOfSquares(row + k, piece, sum);
      }
      k += piece;
    }
    if (!any && k >= plain) plain = k + 8 * kLongPiece;
  }
  return sum;
}

}  // namespace zeb_custom_ops::detail
