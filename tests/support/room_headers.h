// What the rooms define in their headers, as functions that are compiled once for each build of the library, with its
// options. A test that calls them, and otherwise what the rooms' headers only declare, is itself compiled once for all of
// these builds: it takes nothing else from the headers that depends on the processor.
#pragma once

#include <cstddef>
#include <cstdint>

#include "math/broadcast.h"

namespace vek_test::room {

// contract/fixed_point.h; T is int, short, char or unsigned char.
std::int32_t TruncateToInt32(float value);
std::uint32_t TruncateToUint32(float value);
template <typename T>
T FillValue(std::uint32_t value, std::int32_t exp);

// copy/runs.h; T is an unsigned integer of 8 or 16 bits, int or float.
template <typename T>
void FillRun(T* dst, T value, std::size_t count);

// kernels/argmax.h
std::size_t ListsAtOnce();

// math/broadcast.h; Op is std::multiplies<> or std::divides<>.
using zeb_custom_ops::detail::BroadcastSteps;
template <typename Op>
void PlainZipBroadcast(const float* a, const BroadcastSteps& a_steps, const float* b,
                       const BroadcastSteps& b_steps, float* out, unsigned N, unsigned C, unsigned H,
                       unsigned W);
template <typename Op>
void ZipBroadcast(const float* a, const BroadcastSteps& a_steps, const float* b,
                  const BroadcastSteps& b_steps, float* out, unsigned N, unsigned C, unsigned H, unsigned W);
void PlainMulPlanes(const float* per_plane, const float* full, float* out, unsigned count, unsigned plane);
void MulPlanes(const float* per_plane, const float* full, float* out, std::size_t planes, std::size_t plane);

// math/exact_math.h: out[i] = ExpNonPositive(x)[i] for a vector of FloatLanes() values.
std::size_t FloatLanes();
void ExpNonPositive(const float* x, float* out);

}  // namespace vek_test::room
