// MATMUL, output by output.
#pragma once

#include <cstdint>

namespace vek_test {

inline void ABRef(float* out, const float* a, std::uint32_t N, std::uint32_t M, std::uint32_t K,
                  const float* b, std::uint32_t C_b, std::uint32_t P) {
  for (std::uint32_t n = 0; n < N; ++n) {
    for (std::uint32_t i = 0; i < M; ++i) {
      for (std::uint32_t j = 0; j < P; ++j) {
        double sum = 0.0;
        for (std::uint32_t k = 0; k < K; ++k) {
          const float product = a[n * M * K + i * K + k] * b[n * C_b * P + k * P + j];
          sum += double{product};
        }
        out[n * M * P + i * P + j] = static_cast<float>(sum);
      }
    }
  }
}

inline void AATRef(float* out, const float* a, std::uint32_t N, std::uint32_t M, std::uint32_t K) {
  for (std::uint32_t n = 0; n < N; ++n) {
    for (std::uint32_t i = 0; i < M; ++i) {
      for (std::uint32_t j = i; j < M; ++j) {
        double sum = 0.0;
        for (std::uint32_t k = 0; k < K; ++k) {
          const float product = a[n * M * K + i * K + k] * a[n * M * K + j * K + k];
          sum += double{product};
        }
        out[n * M * M + i * M + j] = static_cast<float>(sum);
        out[n * M * M + j * M + i] = static_cast<float>(sum);
      }
    }
  }
}

}  // namespace vek_test
