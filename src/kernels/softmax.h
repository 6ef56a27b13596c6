// Softmaxes along one axis of a dense tensor of floats:
//
//     out[k] = exp(in[k] - max) * (1 / sum over j of exp(in[j] - max))     for k, j along the axis
//
// in single precision; the sum is taken in increasing j.
#pragma once

namespace zeb_custom_ops::kernels {

// `outer` blocks of `inner` softmaxes; a softmax has `len` values, `step` elements apart. In a block, groups of `step`
// softmaxes start at neighbouring elements: number i of block o starts at
//
//     o * inner * len  +  i / step * len * step  +  i % step
//
// Where an extent is 0, nothing is read or written.
struct SoftmaxShape {
  unsigned len;
  unsigned step;
  unsigned inner;
  unsigned outer;
};

// `out` may be `in`, and must not overlap it otherwise.

// The formula, for every shape: positions wrap at 32 bits.
void PlainSoftmax(const float* in, float* out, SoftmaxShape s);

// The same in vectors, for whole blocks (`inner` is a multiple of `step`) whose positions all fit into 32 bits.
void Softmax(const float* in, float* out, SoftmaxShape s);

}  // namespace zeb_custom_ops::kernels
