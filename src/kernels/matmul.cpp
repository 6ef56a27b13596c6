#include "kernels/matmul.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "copy/transpose.h"
#include "simd/simd.h"

namespace zeb_custom_ops::kernels {

void PlainProduct(float* out, const float* a, const float* b, unsigned N, unsigned M, unsigned K, unsigned P,
                  unsigned b_rows) {
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned i = 0; i < M; ++i) {
      for (unsigned j = 0; j < P; ++j) {
        double sum = 0.0;
        for (unsigned k = 0; k < K; ++k) {
          sum += static_cast<double>(a[n * M * K + i * K + k] * b[n * b_rows * P + k * P + j]);
        }
        out[n * M * P + i * P + j] = static_cast<float>(sum);
      }
    }
  }
}

void PlainProductByTransposed(float* out, const float* a, unsigned N, unsigned M, unsigned K) {
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned i = 0; i < M; ++i) {
      for (unsigned j = i; j < M; ++j) {
        double sum = 0.0;
        for (unsigned k = 0; k < K; ++k) {
          sum += static_cast<double>(a[n * M * K + i * K + k] * a[n * M * K + j * K + k]);
        }
        const float rounded = static_cast<float>(sum);
        out[n * M * M + i * M + j] = rounded;
        out[n * M * M + j * M + i] = rounded;
      }
    }
  }
}

namespace {

// How the blocks are cut.
constexpr std::size_t kTileRows = detail::kProductTile.rows;
constexpr std::size_t kPanelVectors = detail::kProductTile.vectors;
constexpr std::size_t kPanel = kPanelVectors * detail::kFloatLanes;  // columns of a tile
constexpr std::size_t kBlockRows = 60;                               // rows of sums kept while B is packed
constexpr std::size_t kBlockDepth = 256;                             // steps of k packed at a time

// One matrix as the kernel reads it: element (row, column) is data[row * row_step + column * column_step].
struct Matrix {
  const float* data;
  std::size_t row_step;
  std::size_t column_step;

  const float* At(std::size_t row, std::size_t column) const {
    return data + row * row_step + column * column_step;
  }
  // The part from an element on.
  Matrix From(std::size_t row, std::size_t column) const { return {At(row, column), row_step, column_step}; }
  Matrix Transposed() const { return {data, column_step, row_step}; }
};

// The sums of `rows` x (`vectors` vectors) outputs, `depth` steps of k further, at least one: every output adds
// its products, each rounded to single precision, in increasing k. `b` holds whole vectors of columns, `b_step`
// elements from k to k; `sums` holds `sums_step` sums per row.
template <std::size_t rows, std::size_t vectors>
void AddProducts(const Matrix& a, const float* b, std::size_t b_step, std::size_t depth, double* sums,
                 std::size_t sums_step) {
  detail::WideSums s[rows][vectors];
  for (std::size_t i = 0; i < rows; ++i) {
    for (std::size_t v = 0; v < vectors; ++v) s[i][v].Read(sums + i * sums_step + v * detail::kFloatLanes);
  }

  float a_values[rows];
  detail::Floats b_values[vectors];
  detail::Floats products[rows][vectors];
  const auto load = [&](std::size_t k) {
    for (std::size_t v = 0; v < vectors; ++v) {
      b_values[v] = detail::Load<detail::Floats>(b + k * b_step + v * detail::kFloatLanes);
    }
    for (std::size_t i = 0; i < rows; ++i) a_values[i] = *a.At(i, k);
  };
  const auto multiply = [&] {
    for (std::size_t i = 0; i < rows; ++i) {
      for (std::size_t v = 0; v < vectors; ++v) products[i][v] = b_values[v] * detail::Splat(a_values[i]);
    }
  };
  const auto add = [&] {
    for (std::size_t i = 0; i < rows; ++i) {
      for (std::size_t v = 0; v < vectors; ++v) s[i][v].Add(products[i][v]);
    }
  };
  if constexpr (detail::kProductTile.loads_ahead) {
    load(0);
    for (std::size_t k = 1; k < depth; ++k) {
      multiply();
      load(k);
      add();
    }
    multiply();
    add();
  } else {
    for (std::size_t k = 0; k < depth; ++k) {
      load(k);
      multiply();
      add();
    }
  }

  for (std::size_t i = 0; i < rows; ++i) {
    for (std::size_t v = 0; v < vectors; ++v) s[i][v].Write(sums + i * sums_step + v * detail::kFloatLanes);
  }
}

// The same for `rows` rows of a packed panel, a tile's or fewer.
template <std::size_t tile_rows = kTileRows>
void AddTile(std::size_t rows, const Matrix& a, const float* panel, std::size_t depth, double* sums) {
  if constexpr (tile_rows > 1) {
    if (rows < tile_rows) return AddTile<tile_rows - 1>(rows, a, panel, depth, sums);
  }
  AddProducts<tile_rows, kPanelVectors>(a, panel, kPanel, depth, sums, kPanel);
}

// Lays `depth` rows of up to kPanel columns of B one behind the other, each filled up with zeros. Either the rows of B are dense, or
// its columns are.
void PackPanel(const Matrix& b, std::size_t depth, std::size_t columns, float* panel) {
  if (columns == kPanel && b.column_step == 1) {
    for (std::size_t k = 0; k < depth; ++k)
      std::memcpy(panel + k * kPanel, b.At(k, 0), kPanel * sizeof(float));
    return;
  }
  if (columns < kPanel) std::fill_n(panel, depth * kPanel, 0.0F);
  if (b.column_step == 1) {
    for (std::size_t k = 0; k < depth; ++k) std::copy_n(b.At(k, 0), columns, panel + k * kPanel);
  } else if (depth >= 2 && columns >= 2) {
    constexpr auto kBytes = static_cast<std::ptrdiff_t>(sizeof(float));
    detail::TransposePlane<std::uint32_t>(
        reinterpret_cast<std::byte*>(panel), reinterpret_cast<const std::byte*>(b.data),
        {columns, static_cast<std::ptrdiff_t>(b.column_step) * kBytes, kBytes},
        {depth, kBytes, static_cast<std::ptrdiff_t>(kPanel) * kBytes});
  } else {
    for (std::size_t k = 0; k < depth; ++k) {
      for (std::size_t j = 0; j < columns; ++j) panel[k * kPanel + j] = *b.At(k, j);
    }
  }
}

// Sums of up to kBlockRows x kPanel outputs over the whole of K, from a packed panel of B.
void SumBlock(const Matrix& a, std::size_t rows, const Matrix& b, std::size_t columns, std::size_t K,
              double* sums) {
  float panel[kBlockDepth * kPanel];
  std::fill_n(sums, rows * kPanel, 0.0);
  for (std::size_t k = 0; k < K; k += kBlockDepth) {
    const std::size_t depth = std::min(kBlockDepth, K - k);
    PackPanel(b.From(k, 0), depth, columns, panel);
    for (std::size_t i = 0; i < rows; i += kTileRows) {
      AddTile(rows - i, a.From(i, k), panel, depth, sums + i * kPanel);
    }
  }
}

// Rounds a row of sums to its outputs, `out_step` elements apart.
void RoundRow(const double* sums, std::size_t columns, float* out, std::size_t out_step) {
  std::size_t j = 0;
  if (out_step == 1) {
    for (; j + detail::kFloatLanes <= columns; j += detail::kFloatLanes) {
      detail::WideSums s;
      s.Read(sums + j);
      detail::Store(out + j, s.Rounded());
    }
  }
  for (; j < columns; ++j) out[j * out_step] = static_cast<float>(sums[j]);
}

// out = a (M x K) times b (K x P); the output (i, j) goes to out[i * row_step + j * column_step].
void MultiplyBlocks(float* out, std::size_t row_step, std::size_t column_step, const Matrix& a,
                    const Matrix& b, std::size_t M, std::size_t K, std::size_t P) {
  double sums[kBlockRows * kPanel];
  for (std::size_t i = 0; i < M; i += kBlockRows) {
    const std::size_t rows = std::min(kBlockRows, M - i);
    for (std::size_t j = 0; j < P; j += kPanel) {
      const std::size_t columns = std::min(kPanel, P - j);
      SumBlock(a.From(i, 0), rows, b.From(0, j), columns, K, sums);
      for (std::size_t row = 0; row < rows; ++row) {
        RoundRow(sums + row * kPanel, columns, out + (i + row) * row_step + j * column_step, column_step);
      }
    }
  }
}

// The same into a dense output, for so few rows that packing B, which is dense, would not pay. A wide block of
// sums is kept instead, and B is read in long stretches of a few rows, as prefetchers like it.
template <std::size_t rows>
void MultiplyFewRows(float* out, const Matrix& a, const Matrix& b, std::size_t K, std::size_t P) {
  constexpr std::size_t kColumns = 512;
  constexpr std::size_t kDepth = 16;
  constexpr std::size_t kVectors = kTileRows * kPanelVectors / rows;
  constexpr std::size_t kStep = kVectors * detail::kFloatLanes;
  const std::size_t whole_vectors = P - P % detail::kFloatLanes;
  double sums[rows * kColumns];
  for (std::size_t first = 0; first < whole_vectors; first += kColumns) {
    const std::size_t columns = std::min(kColumns, whole_vectors - first);
    std::fill_n(sums, rows * kColumns, 0.0);
    for (std::size_t k = 0; k < K; k += kDepth) {
      const std::size_t depth = std::min(kDepth, K - k);
      const Matrix a_part = a.From(0, k);
      std::size_t j = 0;
      for (; j + kStep <= columns; j += kStep) {
        AddProducts<rows, kVectors>(a_part, b.At(k, first + j), P, depth, sums + j, kColumns);
      }
      for (; j < columns; j += detail::kFloatLanes) {
        AddProducts<rows, 1>(a_part, b.At(k, first + j), P, depth, sums + j, kColumns);
      }
    }
    for (std::size_t i = 0; i < rows; ++i) RoundRow(sums + i * kColumns, columns, out + i * P + first, 1);
  }
  MultiplyBlocks(out + whole_vectors, P, 1, a, b.From(0, whole_vectors), rows, K, P - whole_vectors);
}

// out (M x P, dense) = a (M x K) times b (K x P), both dense.
void Multiply(float* out, const Matrix& a, const Matrix& b, std::size_t M, std::size_t K, std::size_t P) {
  if (P <= 3 && P < M) {  // the other way round: few rows, many columns
    MultiplyBlocks(out, 1, P, b.Transposed(), a.Transposed(), P, K, M);
  } else if (M == 1) {
    MultiplyFewRows<1>(out, a, b, K, P);
  } else if (M == 2) {
    MultiplyFewRows<2>(out, a, b, K, P);
  } else if (M == 3) {
    MultiplyFewRows<3>(out, a, b, K, P);
  } else {
    MultiplyBlocks(out, P, 1, a, b, M, K, P);
  }
}

// out (M x M, dense) = a (M x K) times its transpose, from the panels on and above the diagonal.
void MultiplyByTransposed(float* out, const Matrix& a, std::size_t M, std::size_t K) {
  double sums[kBlockRows * kPanel];
  const Matrix b = a.Transposed();
  for (std::size_t j = 0; j < M; j += kPanel) {
    const std::size_t columns = std::min(kPanel, M - j);
    const std::size_t last_row = j + columns;
    for (std::size_t i = 0; i < last_row; i += kBlockRows) {
      const std::size_t rows = std::min(kBlockRows, last_row - i);
      SumBlock(a.From(i, 0), rows, b.From(0, j), columns, K, sums);
      for (std::size_t column = 0; column < columns; ++column) {
        for (std::size_t row = 0; row < rows && i + row <= j + column; ++row) {
          const float rounded = static_cast<float>(sums[row * kPanel + column]);
          out[(i + row) * M + j + column] = rounded;
          out[(j + column) * M + i + row] = rounded;
        }
      }
    }
  }
}

}  // namespace

void Product(float* out, const float* a, const float* b, unsigned N, unsigned M, unsigned K, unsigned P,
             unsigned b_rows) {
  const std::size_t a_step = std::size_t{M} * K;
  const std::size_t b_step = std::size_t{b_rows} * P;
  const std::size_t out_step = std::size_t{M} * P;
  for (unsigned n = 0; n < N; ++n, out += out_step, a += a_step, b += b_step) {
    Multiply(out, {a, K, 1}, {b, P, 1}, M, K, P);
  }
}

void ProductByTransposed(float* out, const float* a, unsigned N, unsigned M, unsigned K) {
  for (std::size_t n = 0; n < N; ++n) {
    MultiplyByTransposed(out + n * M * M, {a + n * M * K, K, 1}, M, K);
  }
}

}  // namespace zeb_custom_ops::kernels
