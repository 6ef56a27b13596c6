#include "generated_input.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "usage_error.h"

namespace vekrun {
namespace {

// SplitMix64: number i of a seed.
std::uint64_t RandomWord(std::uint64_t seed, std::uint64_t i) {
  std::uint64_t word = seed + (i + 1) * 0x9E3779B97F4A7C15ULL;
  word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9ULL;
  word = (word ^ (word >> 27)) * 0x94D049BB133111EBULL;
  return word ^ (word >> 31);
}

template <typename Element>
Element Checked(double value, const char* name) {
  if constexpr (std::is_integral_v<Element>) {
    // The type's limits are exact in double precision for up to 32 bits.
    const bool fits = value >= static_cast<double>(std::numeric_limits<Element>::min()) &&
                      value <= static_cast<double>(std::numeric_limits<Element>::max()) &&
                      std::trunc(value) == value;
    if (!fits) throw UsageError(std::string(name) + "= is not a value of the type");
  }
  return static_cast<Element>(value);
}

template <typename Element>
void FillRandom(const GeneratedInput& input, Tensor* tensor, std::byte* data) {
  const std::uint64_t seed = input.seed.value_or(0);
  if constexpr (std::is_integral_v<Element>) {
    using Limits = std::numeric_limits<Element>;
    const auto least =
        static_cast<std::int64_t>(input.min ? Checked<Element>(*input.min, "min") : Limits::min());
    const auto most =
        static_cast<std::int64_t>(input.max ? Checked<Element>(*input.max, "max") : Limits::max());
    if (least > most) throw UsageError("min= is above max=");
    const auto values = static_cast<std::uint64_t>(most - least) + 1;
    for (std::size_t i = 0; i < tensor->Elements(); ++i) {
      // The high 32 bits, scaled to the number of values.
      const std::uint64_t step = (RandomWord(seed, i) >> 32) * values >> 32;
      const auto value = static_cast<Element>(least + static_cast<std::int64_t>(step));
      std::memcpy(data + i * sizeof value, &value, sizeof value);
    }
  } else {
    const double least = input.min.value_or(-1);
    const double most = input.max.value_or(1);
    if (!(least <= most)) throw UsageError("min= is above max=");
    for (std::size_t i = 0; i < tensor->Elements(); ++i) {
      const double part = static_cast<double>(RandomWord(seed, i) >> 40) / (1 << 24);  // 24 bits: exact
      const auto value = static_cast<Element>(least + (most - least) * part);
      std::memcpy(data + i * sizeof value, &value, sizeof value);
    }
  }
}

template <typename Element>
void FillAs(const GeneratedInput& input, Tensor* tensor, std::byte* data) {
  if (input.kind == "random") {
    FillRandom<Element>(input, tensor, data);
    return;
  }
  const Element constant = Checked<Element>(input.value.value_or(0), "value");
  for (std::size_t i = 0; i < tensor->Elements(); ++i) {
    const Element value = input.kind == "ramp" ? static_cast<Element>(i) : constant;
    std::memcpy(data + i * sizeof value, &value, sizeof value);
  }
}

}  // namespace

bool IsGeneratedKind(const std::string& kind) {
  return kind == "random" || kind == "ramp" || kind == "zeros" || kind == "const";
}

Tensor Generate(const GeneratedInput& input, ElementType type, const Dims& dims) {
  if (input.kind == "const" && !input.value) throw UsageError("const: which value? const:1x3x8x8,value=7");
  if (input.value && input.kind != "const") throw UsageError("value= is for const:");
  if ((input.seed || input.min || input.max) && input.kind != "random") {
    throw UsageError("seed=, min= and max= are for random:");
  }
  Tensor tensor{type, dims, {}};
  const auto data = NewBytes(tensor.Bytes());
  switch (type) {
    case ElementType::kFloat32:
      FillAs<float>(input, &tensor, data.get());
      break;
    case ElementType::kInt8:
      FillAs<std::int8_t>(input, &tensor, data.get());
      break;
    case ElementType::kUint8:
      FillAs<std::uint8_t>(input, &tensor, data.get());
      break;
    case ElementType::kInt16:
      FillAs<std::int16_t>(input, &tensor, data.get());
      break;
    case ElementType::kUint16:
      FillAs<std::uint16_t>(input, &tensor, data.get());
      break;
    case ElementType::kInt32:
      FillAs<std::int32_t>(input, &tensor, data.get());
      break;
    case ElementType::kUint32:
      FillAs<std::uint32_t>(input, &tensor, data.get());
      break;
    case ElementType::kFloat64:
      FillAs<double>(input, &tensor, data.get());
      break;
    default:
      throw UsageError(std::string("generated inputs are of a type that layers take, or float64, not ") +
                       Name(type));
  }
  tensor.data = data;
  return tensor;
}

}  // namespace vekrun
