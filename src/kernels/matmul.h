// Products of batches of dense float matrices. Each product of two values is rounded to single precision, widened and
// added, in increasing k, to a sum in double precision that starts at 0; the sum is rounded once.
#pragma once

namespace zeb_custom_ops::kernels {

// Below, `out` must not overlap an input. Nothing is written where N, M or P is 0; zeros are written where K is 0.

// out[n, i, j] = sum over k of a[n, i, k] * b[n, k, j], for N items of M x K values in a, which are dense, and of K x P
// values in b, which are `b_rows` * P elements apart; for every shape: positions wrap at 32 bits.
void PlainProduct(float* out, const float* a, const float* b, unsigned N, unsigned M, unsigned K, unsigned P,
                  unsigned b_rows);

// The same in blocks of vectors, for positions that all fit into 32 bits.
void Product(float* out, const float* a, const float* b, unsigned N, unsigned M, unsigned K, unsigned P,
             unsigned b_rows);

// out[n, i, j] = sum over k of a[n, i, k] * a[n, j, k], for a of N x M x K values and every shape: positions wrap at 32
// bits. Each sum is taken once, and stored on both sides of the diagonal.
void PlainProductByTransposed(float* out, const float* a, unsigned N, unsigned M, unsigned K);

// The same in blocks of vectors, for positions that all fit into 32 bits.
void ProductByTransposed(float* out, const float* a, unsigned N, unsigned M, unsigned K);

}  // namespace zeb_custom_ops::kernels
