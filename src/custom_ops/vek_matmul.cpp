// Layer type "MATMUL".
#include "custom_ops/vek_matmul.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/positions.h"
#include "contract/sizes.h"
#include "copy/transpose.h"
#include "simd/simd.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::Fits;
using detail::Saturating;

const std::string VekMatmul::k_expected_attr_ = "trans_b";

bool VekMatmul::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(attrs.size() == 1, "expected 1 attribute, but got %zu", attrs.size());
  const std::string* trans_b = detail::Find(attrs, k_expected_attr_);
  VEK_REQUIRE(trans_b != nullptr, "expected attribute: %s, got: %s", k_expected_attr_.c_str(),
              attrs.begin()->first.c_str());
  // Deliberate: both stay stored when a later check refuses.
  trans_b_ = *trans_b == "1";
  num_inputs_ = detail::AsUnsigned(inputs.size());

  VEK_REQUIRE((inputs.size() == 1 || inputs.size() == 2) && outputs.size() == 1,
              "expected one/two input and one output, got: %d inputs, %d outputs", AsInt(inputs.size()),
              AsInt(outputs.size()));
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  // Deliberate: elements are compared with bytes.
  const std::uint64_t in_count = detail::Elements64(in.GetDims());
  VEK_REQUIRE(in_count <= in.GetSize(), "First input buf size should be at least %d, but is %d",
              AsInt(in_count), AsInt(in.GetSize()));
  const std::uint64_t out_count = detail::Elements64(out.GetDims());
  VEK_REQUIRE(out_count <= out.GetSize(), "Output buf size should be at least %d, but is %d",
              AsInt(out_count), AsInt(out.GetSize()));
  VEK_REQUIRE(detail::IsPlanarFloat(in.GetMemFormat()), "unexpected input buffer format");
  VEK_REQUIRE(detail::IsPlanarFloat(out.GetMemFormat()), "unexpected output buffer format");

  // Deliberate: these stay when the second input is refused.
  in_attrs_ = in.Clone();
  in2_attrs_ = in.Clone();
  out_attrs_ = out.Clone();

  if (inputs.size() == 2) {
    const zeb::PuxDnnBufAttrs& in2 = *inputs[1];
    const std::uint64_t in2_count = detail::Elements64(in2.GetDims());
    VEK_REQUIRE(in2_count <= in2.GetSize(), "Second input buf size should be at least %d, but is %d",
                AsInt(in2_count), AsInt(in2.GetSize()));
    VEK_REQUIRE(detail::IsPlanarFloat(in2.GetMemFormat()), "unexpected input buffer format");
    in2_attrs_ = in2.Clone();
  }
  configured_ = true;
  return true;
}

bool VekMatmul::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffer is NULL");
  VEK_REQUIRE(out_buffers != nullptr, "Output buffer is NULL");
  VEK_REQUIRE(in_attrs_ != nullptr, "first input buffer attrs are NULL");
  VEK_REQUIRE(in2_attrs_ != nullptr, "second input buffer attrs are NULL");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");

  // A refused Configure may have left another number of inputs behind.
  VEK_REQUIRE((num_inputs_ == 1 || num_inputs_ == 2) && in_attrs_->GetMemFormat().bitdepth == 32,
              "can't calculate Matmul");
  float* const out = static_cast<float*>(out_buffers[0]);
  float* const a = static_cast<float*>(in_buffers[0]);
  if (num_inputs_ == 2 && in_buffers[0] != in_buffers[1]) {
    AB(out, a, *in_attrs_, static_cast<float*>(in_buffers[1]), *in2_attrs_);
  } else if (trans_b_) {
    AAT(out, a, *in_attrs_);
  } else {
    AB(out, a, *in_attrs_, a, *in_attrs_);
  }
  return true;
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

// Lays `depth` rows of up to kPanel columns of B side by side, zeros behind them. Either the rows of B are dense, or
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

template <typename T>
void AB(T* out, T* a, const zeb::PuxDnnBufAttrs& a_attrs, T* b, const zeb::PuxDnnBufAttrs& b_attrs) {
  const unsigned N = a_attrs.GetBatch();
  const unsigned M = a_attrs.GetChannels();
  const unsigned K = a_attrs.GetHeight() * a_attrs.GetWidth();
  const unsigned C_b = b_attrs.GetChannels();
  const unsigned P = b_attrs.GetHeight() * b_attrs.GetWidth();
  if (N == 0 || M == 0 || P == 0) return;

  if (Fits(Saturating(N) * M * K) && Fits(Saturating(N) * M * P) && Fits(Saturating(N) * C_b * P) &&
      Fits(Saturating(K) * P) && std::uint64_t{N - 1} * C_b * P + std::uint64_t{K} * P <= 0xFFFFFFFFU) {
    for (std::size_t n = 0; n < N; ++n) {
      Multiply(out + n * M * P, {a + n * M * K, K, 1}, {b + n * C_b * P, P, 1}, M, K, P);
    }
    return;
  }
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned i = 0; i < M; ++i) {
      for (unsigned j = 0; j < P; ++j) {
        double sum = 0.0;
        for (unsigned k = 0; k < K; ++k) {
          sum += static_cast<double>(a[n * M * K + i * K + k] * b[n * C_b * P + k * P + j]);
        }
        out[n * M * P + i * P + j] = static_cast<T>(sum);
      }
    }
  }
}

template <typename T>
void AAT(T* out, T* a, const zeb::PuxDnnBufAttrs& a_attrs) {
  const unsigned N = a_attrs.GetBatch();
  const unsigned M = a_attrs.GetChannels();
  const unsigned K = a_attrs.GetHeight() * a_attrs.GetWidth();
  if (Fits(Saturating(N) * M * K) && Fits(Saturating(N) * M * M)) {
    for (std::size_t n = 0; n < N; ++n) {
      MultiplyByTransposed(out + n * M * M, {a + n * M * K, K, 1}, M, K);
    }
    return;
  }
  for (unsigned n = 0; n < N; ++n) {
    for (unsigned i = 0; i < M; ++i) {
      for (unsigned j = i; j < M; ++j) {
        double sum = 0.0;
        for (unsigned k = 0; k < K; ++k) {
          sum += static_cast<double>(a[n * M * K + i * K + k] * a[n * M * K + j * K + k]);
        }
        const T rounded = static_cast<T>(sum);
        out[n * M * M + i * M + j] = rounded;
        out[n * M * M + j * M + i] = rounded;
      }
    }
  }
}

template void AB<float>(float*, float*, const zeb::PuxDnnBufAttrs&, float*, const zeb::PuxDnnBufAttrs&);
template void AAT<float>(float*, float*, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
