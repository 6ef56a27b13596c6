/// \file
/// Inputs without files: random numbers, a ramp, zeros, a constant.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tensor.h"

namespace vekrun {

/// What is not given has its default.
struct GeneratedInput {
  std::string kind;                   ///< "random", "ramp", "zeros" or "const"
  std::optional<std::uint64_t> seed;  ///< of random: 0
  std::optional<double> min;          ///< of random: a type's least, -1 for floats
  std::optional<double> max;    ///< of random: a type's largest, which is reached; 1 for floats, which is not
  std::optional<double> value;  ///< of const
};

/// \return whether there is such a kind of input.
bool IsGeneratedKind(const std::string& kind);

/// Makes the tensor. The numbers are the same on every machine: element i of "random" follows from the seed and i by
/// 64-bit integers (SplitMix64) and, for floats, exact steps of double precision; element i of "ramp" is i, modulo the
/// integer's range.
/// Throws `UsageError` for a range or a value that the type does not hold.
Tensor Generate(const GeneratedInput& input, ElementType type, const Dims& dims);

}  // namespace vekrun
