#include "kernels/matmul.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

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
constexpr std::size_t kPackedColumn = 1024;  // the longest column of B packed as a row

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

// Where a tile's sums start from and go to: memory, `step` sums to a row.
struct SumsInMemory {
  double* sums;
  std::size_t step;

  void Start(detail::WideSums& s, std::size_t i, std::size_t v) const { s.Read(At(i, v)); }
  void Finish(const detail::WideSums& s, std::size_t i, std::size_t v) const { s.Write(At(i, v)); }
  double* At(std::size_t i, std::size_t v) const { return sums + i * step + v * detail::kFloatLanes; }
};
// The same of outputs, `step` to a row: from zeros, rounded.
struct RoundedOutputs {
  float* out;
  std::size_t step;

  void Start(detail::WideSums& s, std::size_t, std::size_t) const { s.Clear(); }
  void Finish(const detail::WideSums& s, std::size_t i, std::size_t v) const {
    detail::Store(out + i * step + v * detail::kFloatLanes, s.Rounded());
  }
};

// Calls body(0) to body(count - 1) with constants. GCC keeps an array in registers where it sees no other index from the
// start: with loops, sums went through the stack, and a product took a fifth more instructions.
template <std::size_t count, typename Body>
[[gnu::always_inline]] inline void ForConstants(const Body& body) {
  [&]<std::size_t... i>(std::index_sequence<i...>) __attribute__((always_inline)) {
    (body(std::integral_constant<std::size_t, i>{}), ...);
  }
  (std::make_index_sequence<count>{});
}

// The sums of `rows` x (`vectors` vectors) outputs, `depth` steps of k further, at least one: every output adds its products,
// each rounded to single precision, in increasing k. `b` holds whole vectors of columns, `b_step` elements from k to k.
// Not inlined: the loops around it would take its registers.
template <std::size_t rows, std::size_t vectors, typename Target>
[[gnu::noinline]] void AddProducts(const Matrix& a, const float* b, std::size_t b_step, std::size_t depth,
                                   Target target) {
#define VEK_HERE __attribute__((always_inline))
  constexpr std::size_t kSums = rows * vectors;
  detail::WideSums s[kSums];
  ForConstants<kSums>([&](auto t) VEK_HERE { target.Start(s[t], t / vectors, t % vectors); });

  float a_values[rows];
  detail::Floats b_values[vectors];
  detail::Floats products[kSums];
  const auto load = [&](std::size_t k) VEK_HERE {
    ForConstants<vectors>([&](auto v) VEK_HERE {
      b_values[v] = detail::Load<detail::Floats>(b + k * b_step + v * detail::kFloatLanes);
    });
    ForConstants<rows>([&](auto i) VEK_HERE { a_values[i] = *a.At(i, k); });
  };
  const auto multiply = [&]() VEK_HERE {
    ForConstants<kSums>(
        [&](auto t) VEK_HERE { products[t] = b_values[t % vectors] * detail::Splat(a_values[t / vectors]); });
  };
  const auto add = [&]() VEK_HERE { ForConstants<kSums>([&](auto t) VEK_HERE { s[t].Add(products[t]); }); };
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

  ForConstants<kSums>([&](auto t) VEK_HERE { target.Finish(s[t], t / vectors, t % vectors); });
#undef VEK_HERE
}

// The same for `rows` rows of a packed panel, a tile's or fewer.
template <std::size_t tile_rows = kTileRows, typename Target>
void AddTile(std::size_t rows, const Matrix& a, const float* panel, std::size_t depth, Target target) {
  if constexpr (tile_rows > 1) {
    if (rows < tile_rows) return AddTile<tile_rows - 1>(rows, a, panel, depth, target);
  }
  AddProducts<tile_rows, kPanelVectors>(a, panel, kPanel, depth, target);
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
      AddTile(rows - i, a.From(i, k), panel, depth, SumsInMemory{sums + i * kPanel, kPanel});
    }
  }
}

// Rounds a row of sums to its outputs.
void RoundRow(const double* sums, std::size_t columns, float* out) {
  std::size_t j = 0;
  for (; j + detail::kFloatLanes <= columns; j += detail::kFloatLanes) {
    detail::WideSums s;
    s.Read(sums + j);
    detail::Store(out + j, s.Rounded());
  }
  for (; j < columns; ++j) out[j] = static_cast<float>(sums[j]);
}

// out (M x P, dense) = a (M x K) times b (K x P) for K up to kBlockDepth: sums stay in registers.
void MultiplyShallowBlocks(float* out, const Matrix& a, const Matrix& b, std::size_t M, std::size_t K,
                           std::size_t P) {
  constexpr std::size_t kCached = 8192;  // elements of a that stay in the cache while b is packed
  const std::size_t block_rows = std::max(kBlockRows, kCached / K / kTileRows * kTileRows);
  float panel[kBlockDepth * kPanel];
  for (std::size_t first = 0; first < M; first += block_rows) {
    const std::size_t last = std::min(first + block_rows, M);
    for (std::size_t j = 0; j < P; j += kPanel) {
      const std::size_t columns = std::min(kPanel, P - j);
      PackPanel(b.From(0, j), K, columns, panel);
      for (std::size_t i = first; i < last; i += kTileRows) {
        const std::size_t rows = std::min(kTileRows, last - i);
        float* const to = out + i * P + j;
        if (columns == kPanel) {
          AddTile(rows, a.From(i, 0), panel, K, RoundedOutputs{to, P});
          continue;
        }
        float tile[kTileRows * kPanel];
        AddTile(rows, a.From(i, 0), panel, K, RoundedOutputs{tile, kPanel});
        for (std::size_t row = 0; row < rows; ++row) {
          for (std::size_t column = 0; column < columns; ++column)
            to[row * P + column] = tile[row * kPanel + column];
        }
      }
    }
  }
}

// The same for any K, by blocks of sums in memory.
void MultiplyBlocks(float* out, const Matrix& a, const Matrix& b, std::size_t M, std::size_t K,
                    std::size_t P) {
  if (K == 0) return static_cast<void>(std::fill_n(out, M * P, 0.0F));
  if (K <= kBlockDepth) return MultiplyShallowBlocks(out, a, b, M, K, P);
  double sums[kBlockRows * kPanel];
  for (std::size_t i = 0; i < M; i += kBlockRows) {
    const std::size_t rows = std::min(kBlockRows, M - i);
    for (std::size_t j = 0; j < P; j += kPanel) {
      const std::size_t columns = std::min(kPanel, P - j);
      SumBlock(a.From(i, 0), rows, b.From(0, j), columns, K, sums);
      for (std::size_t row = 0; row < rows; ++row) {
        RoundRow(sums + row * kPanel, columns, out + (i + row) * P + j);
      }
    }
  }
}

// Four sums of products of two rows each, in increasing k: out[i] = a[i] times b[i], K values each. Four floats, whatever
// the target's width: a value of each pair of rows.
void DotFourRows(const float* const (&a)[4], const float* const (&b)[4], std::size_t K, float (&out)[4]) {
  using Quad = detail::Vec<float>;
  using Pair = detail::Vec<double>;
  Pair low = {};
  Pair high = {};
  const auto add = [&](Quad products) {
    low += Pair{static_cast<double>(products[0]), static_cast<double>(products[1])};
    high += Pair{static_cast<double>(products[2]), static_cast<double>(products[3])};
  };
  std::size_t k = 0;
  for (; k + 4 <= K; k += 4) {
    Quad products[4];
    for (std::size_t i = 0; i < 4; ++i)
      products[i] = detail::Load<Quad>(a[i] + k) * detail::Load<Quad>(b[i] + k);
    detail::Transpose4x4(products);
    for (const Quad& column : products) add(column);
  }
  for (; k < K; ++k) {
    add(Quad{a[0][k] * b[0][k], a[1][k] * b[1][k], a[2][k] * b[2][k], a[3][k] * b[3][k]});
  }
  for (std::size_t i = 0; i < 4; ++i) out[i] = static_cast<float>(i < 2 ? low[i] : high[i - 2]);
}

// out[i * out_step] = row i of a times row i of b, `a_step` and `b_step` elements from row to row.
void DotRows(float* out, std::size_t out_step, const float* a, std::size_t a_step, const float* b,
             std::size_t b_step, std::size_t rows, std::size_t K) {
  for (std::size_t row = 0; row < rows; row += 4) {
    const std::size_t count = std::min<std::size_t>(4, rows - row);
    const float* a_rows[4];
    const float* b_rows[4];
    for (std::size_t i = 0; i < 4; ++i) {  // missing rows are replaced by the last one
      a_rows[i] = a + (row + std::min(i, count - 1)) * a_step;
      b_rows[i] = b + (row + std::min(i, count - 1)) * b_step;
    }
    float sums[4];
    DotFourRows(a_rows, b_rows, K, sums);
    for (std::size_t i = 0; i < count; ++i) out[(row + i) * out_step] = sums[i];
  }
}

// The depth of B that is read in long stretches at a time.
constexpr std::size_t kStretchDepth = 24;

// The same into a dense output, for few rows and so small a depth that sums need not leave the registers.
template <std::size_t rows>
void MultiplyFewShallowRows(float* out, const Matrix& a, const Matrix& b, std::size_t K, std::size_t P) {
  constexpr std::size_t kVectors = kTileRows * kPanelVectors / rows;
  const auto multiply = [&](auto vectors, std::size_t j) {
    AddProducts<rows, vectors>(a, b.At(0, j), P, K, RoundedOutputs{out + j, P});
  };
  std::size_t j = 0;
  const auto multiply_all = [&](auto vectors) {
    constexpr std::size_t kStep = vectors * detail::kFloatLanes;
    for (; j + kStep <= P; j += kStep) multiply(vectors, j);
  };
  multiply_all(std::integral_constant<std::size_t, kVectors>{});
  if constexpr (kVectors > 2) multiply_all(std::integral_constant<std::size_t, 2>{});
  constexpr std::integral_constant<std::size_t, 1> kOne;
  multiply_all(kOne);
  if (j < P) multiply(kOne, P - detail::kFloatLanes);
}

// The same into a dense output, for so few rows that packing B, which is dense, would not pay. A wide block of
// sums is kept instead, and B is read in long stretches of a few rows, as prefetchers like it.
template <std::size_t rows>
void MultiplyFewRows(float* out, const Matrix& a, const Matrix& b, std::size_t K, std::size_t P) {
  if (K != 0 && K <= kStretchDepth) return MultiplyFewShallowRows<rows>(out, a, b, K, P);
  constexpr std::size_t kColumns = 512;
  constexpr std::size_t kVectors = kTileRows * kPanelVectors / rows;
  constexpr std::size_t kStep = kVectors * detail::kFloatLanes;
  // At least a vector; where the last columns do not fill one, it shares columns with the one before.
  double sums[rows * kColumns];
  for (std::size_t first = 0; first < P;) {
    const std::size_t left = P - first;
    const std::size_t columns = std::min(kColumns, left - left % detail::kFloatLanes);
    if (columns == 0) {
      first = P - detail::kFloatLanes;
      continue;
    }
    std::fill_n(sums, rows * columns, 0.0);
    for (std::size_t k = 0; k < K; k += kStretchDepth) {
      const std::size_t depth = std::min(kStretchDepth, K - k);
      const Matrix a_part = a.From(0, k);
      std::size_t j = 0;
      for (; j + kStep <= columns; j += kStep) {
        AddProducts<rows, kVectors>(a_part, b.At(k, first + j), P, depth, SumsInMemory{sums + j, columns});
      }
      for (; j < columns; j += detail::kFloatLanes) {
        AddProducts<rows, 1>(a_part, b.At(k, first + j), P, depth, SumsInMemory{sums + j, columns});
      }
    }
    for (std::size_t i = 0; i < rows; ++i) RoundRow(sums + i * columns, columns, out + i * P + first);
    first += columns;
  }
}

// The same for so few columns that vectors are better filled by rows of a, which are dense.
void MultiplyFewColumns(float* out, const Matrix& a, const Matrix& b, std::size_t M, std::size_t K,
                        std::size_t P) {
  float column[kPackedColumn];
  for (std::size_t j = 0; j < P; ++j) {
    const float* data = b.data;
    if (P > 1) {
      for (std::size_t k = 0; k < K; ++k) column[k] = *b.At(k, j);
      data = column;
    }
    DotRows(out + j, P, a.data, K, data, 0, M, K);
  }
}

// out (M x P, dense) = a (M x K) times b (K x P), both dense.
void Multiply(float* out, const Matrix& a, const Matrix& b, std::size_t M, std::size_t K, std::size_t P) {
  if (P == 1 || (P <= 3 && M >= 4 && K >= 4 && K <= kPackedColumn)) {
    MultiplyFewColumns(out, a, b, M, K, P);
  } else if (P < detail::kFloatLanes) {
    MultiplyBlocks(out, a, b, M, K, P);
  } else if (M == 1) {
    MultiplyFewRows<1>(out, a, b, K, P);
  } else if (M == 2) {
    MultiplyFewRows<2>(out, a, b, K, P);
  } else if (M == 3) {
    MultiplyFewRows<3>(out, a, b, K, P);
  } else {
    MultiplyBlocks(out, a, b, M, K, P);
  }
}

// out (M x M, dense) = a (M x K) times its transpose, from the panels on and above the diagonal.
void MultiplyByTransposed(float* out, const Matrix& a, std::size_t M, std::size_t K) {
  const Matrix b = a.Transposed();
  const auto store = [&](std::size_t i, std::size_t j, float value) {
    out[i * M + j] = value;
    out[j * M + i] = value;
  };
  double sums[kBlockRows * kPanel];
  float panel[kBlockDepth * kPanel];
  for (std::size_t j = 0; j < M; j += kPanel) {
    const std::size_t columns = std::min(kPanel, M - j);
    const std::size_t last_row = j + columns;
    if (K != 0 && K <= kBlockDepth) {
      PackPanel(b.From(0, j), K, columns, panel);
      for (std::size_t i = 0; i < last_row; i += kTileRows) {
        const std::size_t rows = std::min(kTileRows, last_row - i);
        float tile[kTileRows * kPanel];
        AddTile(rows, a.From(i, 0), panel, K, RoundedOutputs{tile, kPanel});
        for (std::size_t row = 0; row < rows; ++row) {
          for (std::size_t column = i + row > j ? i + row - j : 0; column < columns; ++column) {
            store(i + row, j + column, tile[row * kPanel + column]);
          }
        }
      }
      continue;
    }
    for (std::size_t i = 0; i < last_row; i += kBlockRows) {
      const std::size_t rows = std::min(kBlockRows, last_row - i);
      SumBlock(a.From(i, 0), rows, b.From(0, j), columns, K, sums);
      for (std::size_t column = 0; column < columns; ++column) {
        for (std::size_t row = 0; row < rows && i + row <= j + column; ++row) {
          store(i + row, j + column, static_cast<float>(sums[row * kPanel + column]));
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
  if (M == 1 && P == 1) return DotRows(out, 1, a, a_step, b, b_step, N, K);
  for (unsigned n = 0; n < N; ++n, out += out_step, a += a_step, b += b_step) {
    Multiply(out, {a, K, 1}, {b, P, 1}, M, K, P);
  }
}

void ProductByTransposed(float* out, const float* a, unsigned N, unsigned M, unsigned K) {
  if (M == 1) return DotRows(out, 1, a, K, a, K, N, K);
  for (std::size_t n = 0; n < N; ++n) {
    MultiplyByTransposed(out + n * M * M, {a + n * M * K, K, 1}, M, K);
  }
}

}  // namespace zeb_custom_ops::kernels
