// Division of rows of floats by their Euclidean norm:
//
//     out[i] = in[i] / sqrt(sum over j of in[j]^2)     for i, j within one row
//
// in single precision; the squares are added in increasing j, with one fused multiply-add each, from 0. A row whose norm
// is 0 is copied.
#pragma once

#include <span>

namespace zeb_custom_ops::kernels {

// A dense tensor of N items of C planes of `plane` values. A row is an item where `across_spatial` is set, else a plane.
struct NormShape {
  unsigned N;
  unsigned C;
  unsigned plane;
  bool across_spatial;
  bool channel_shared;
};

// Then the values of an item are multiplied by the first of the `scales`, if there is one, where `channel_shared` is
// set, else those of each plane by its channel's; not by a scale of 1. `out` may be `in`, and must not overlap it
// otherwise. Nothing is written where an extent is 0.

// The formula, for every shape: positions wrap at 32 bits.
void PlainNormalize(const float* in, float* out, NormShape s, std::span<const float> scales);

// The same in vectors, for positions that all fit into 32 bits.
void Normalize(const float* in, float* out, NormShape s, std::span<const float> scales);

}  // namespace zeb_custom_ops::kernels
