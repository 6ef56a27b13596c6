#include "element_values.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace vekrun {
namespace {

// IEEE half precision: what only files have. A bool is a byte of its own kind, too: any but 0 is true.
struct Half {
  std::uint16_t bits;
};
enum class Truth : std::uint8_t { kFalse, kTrue };

double Widen(Half half) {
  const int exponent = half.bits >> 10 & 31;
  const int fraction = half.bits & 1023;
  const double sign = (half.bits & 0x8000) != 0 ? -1 : 1;
  if (exponent == 31) return sign * (fraction == 0 ? HUGE_VAL : std::numeric_limits<double>::quiet_NaN());
  if (exponent == 0) return sign * std::ldexp(fraction, -24);
  return sign * std::ldexp(1024 + fraction, exponent - 25);
}

// The nearest half, ties to even; what lies beyond the largest becomes infinite.
template <typename Number>
Half Narrow(Number value) {
  const std::uint16_t sign = std::signbit(value) ? 0x8000 : 0;
  const Number magnitude = std::fabs(value);
  if (std::isnan(value)) return {static_cast<std::uint16_t>(sign | 0x7E00)};
  if (magnitude >= 65520) return {static_cast<std::uint16_t>(sign | 0x7C00)};
  if (magnitude == 0) return {sign};
  // In units of the last place: that of subnormals is 2^-24. A fraction that rounds up to 2048 carries into the exponent.
  int exponent = 0;
  std::frexp(magnitude, &exponent);
  const int unit = std::max(exponent - 11, -24);
  const auto units = static_cast<unsigned int>(std::nearbyint(std::ldexp(magnitude, -unit)));
  const unsigned int base = unit == -24 ? 0U : static_cast<unsigned int>(unit + 24) << 10;
  return {static_cast<std::uint16_t>(sign | (base + units))};
}

template <typename T>
T Load(const std::byte* address) {
  T value;
  std::memcpy(&value, address, sizeof value);
  return value;
}

// Calls visit(T{}) with a value of the C++ type of such elements.
template <typename Visit>
auto WithType(ElementType type, Visit visit) {
  switch (type) {
    case ElementType::kFloat32:
      return visit(float{});
    case ElementType::kInt8:
      return visit(std::int8_t{});
    case ElementType::kUint8:
      return visit(std::uint8_t{});
    case ElementType::kInt16:
      return visit(std::int16_t{});
    case ElementType::kUint16:
      return visit(std::uint16_t{});
    case ElementType::kInt32:
      return visit(std::int32_t{});
    case ElementType::kUint32:
      return visit(std::uint32_t{});
    case ElementType::kFloat64:
      return visit(double{});
    case ElementType::kFloat16:
      return visit(Half{});
    case ElementType::kInt64:
      return visit(std::int64_t{});
    case ElementType::kUint64:
      return visit(std::uint64_t{});
    case ElementType::kBool:
      break;
  }
  return visit(Truth{});
}

template <typename T>
constexpr bool kIsInteger = std::is_integral_v<T>;
template <typename T>
constexpr bool kIsFloat = std::is_floating_point_v<T> || std::is_same_v<T, Half>;

template <typename T>
constexpr double kLargest = std::numeric_limits<T>::max();
template <>
constexpr double kLargest<Half> = 65504;

template <typename T, typename Number>
T Nearest(Number value) {
  if constexpr (std::is_same_v<T, Half>) {
    return Narrow(value);
  } else {
    return static_cast<T>(value);
  }
}

// Floats in order: neighbours differ by 1, both zeros are 0.
template <typename Signed>
Signed Ordered(Signed bits) {
  return bits >= 0 ? bits : static_cast<Signed>(std::numeric_limits<Signed>::min() - bits);
}

}  // namespace

LaidOut View(const StoredTensor& stored) {
  zeb::PuxDnnBufAttrsMemFormat format = stored.attrs.GetMemFormat();
  if (!stored.is_laid_out) format.plane_pack = 1;
  const vek_host::BufAttrs dense(stored.attrs.GetDims(), format);
  const vek_host::BufAttrs& attrs = stored.is_laid_out ? stored.attrs : dense;
  return {stored.file.name, stored.type, attrs, stored.data.get(), attrs.Bytes()};
}

OffsetTable Offsets(const vek_host::BufAttrs& attrs) {
  const std::vector<unsigned int> dims = attrs.GetDims();
  const std::size_t element = attrs.ElementBytes();
  const auto pack = static_cast<std::size_t>(attrs.GetMemFormat().plane_pack);
  OffsetTable offsets(dims.size());
  std::size_t items = 1;  // of all dimensions between this one and the channels
  for (std::size_t d = dims.size(); d-- > 0;) {
    const std::size_t from_innermost = dims.size() - 1 - d;
    for (std::size_t i = 0; i < dims[d]; ++i) {
      switch (from_innermost) {
        case 0:
          offsets[d].push_back(i * pack * element);
          break;
        case 1:
          offsets[d].push_back(i * attrs.GetLineStride());
          break;
        case 2:
          offsets[d].push_back(i / pack * attrs.GetPlaneStride() + i % pack * element);
          break;
        default:
          offsets[d].push_back(i * items * attrs.PlanesPerItem() * attrs.GetPlaneStride());
          break;
      }
    }
    if (from_innermost > 2) items *= dims[d];
  }
  return offsets;
}

bool FitsDouble(ElementType type) { return type != ElementType::kInt64 && type != ElementType::kUint64; }

template <typename Number>
Number ReadElement(ElementType type, const std::byte* address) {
  return WithType(type, [address](auto kind) -> Number {
    using T = decltype(kind);
    const T value = Load<T>(address);
    if constexpr (std::is_same_v<T, Half>) {
      return static_cast<Number>(Widen(value));
    } else if constexpr (std::is_same_v<T, Truth>) {
      return value == Truth::kFalse ? 0 : 1;
    } else {
      return static_cast<Number>(value);
    }
  });
}
template double ReadElement<double>(ElementType, const std::byte*);
template long double ReadElement<long double>(ElementType, const std::byte*);

double UlpDistance(ElementType type, const std::byte* a, const std::byte* b) {
  const auto x = ReadElement<long double>(type, a);
  const auto y = ReadElement<long double>(type, b);
  if (std::isnan(x) || std::isnan(y)) return std::isnan(x) && std::isnan(y) ? 0 : HUGE_VAL;
  const auto distance = [a, b](auto bits) {
    using Bits = decltype(bits);
    return std::fabs(static_cast<double>(static_cast<long double>(Ordered(Load<Bits>(a))) -
                                         static_cast<long double>(Ordered(Load<Bits>(b)))));
  };
  switch (type) {
    case ElementType::kFloat16:
      return distance(std::int16_t{});
    case ElementType::kFloat32:
      return distance(std::int32_t{});
    case ElementType::kFloat64:
      return distance(std::int64_t{});
    default:
      return static_cast<double>(std::fabs(x - y));
  }
}

template <typename Number>
Fit WriteElement(ElementType type, Number value, Rounding rounding, std::byte* address) {
  return WithType(type, [type, value, rounding, address](auto kind) {
    using T = decltype(kind);
    T element{};
    Fit fit = Fit::kExact;
    if constexpr (kIsFloat<T>) {
      element = Nearest<T>(value);
      const auto stored = ReadElement<Number>(type, reinterpret_cast<const std::byte*>(&element));
      if (std::isinf(stored) && !std::isinf(value)) {
        fit = Fit::kBeyond;
        element = Nearest<T>(std::copysign(static_cast<Number>(kLargest<T>), value));
      } else if (stored != value && !std::isnan(value)) {
        fit = Fit::kRounded;
      }
    } else {
      using Integer = std::conditional_t<kIsInteger<T>, T, std::uint8_t>;
      using Limits = std::numeric_limits<Integer>;
      const Integer most = kIsInteger<T> ? Limits::max() : Integer{1};
      // The number above the last element is a power of 2, which any kind of number holds.
      const auto above = 2 * (static_cast<Number>(most / 2) + 1);
      const Number whole = rounding == Rounding::kNearest ? std::nearbyint(value) : std::trunc(value);
      if (std::isnan(value)) {
        fit = Fit::kBeyond;
      } else if (whole < static_cast<Number>(Limits::min())) {
        fit = Fit::kBeyond;
        element = static_cast<T>(Limits::min());
      } else if (whole >= above) {
        fit = Fit::kBeyond;
        element = static_cast<T>(most);
      } else {
        fit = whole == value ? Fit::kExact : Fit::kRounded;
        element = static_cast<T>(whole);
      }
    }
    std::memcpy(address, &element, sizeof element);
    return fit;
  });
}
template Fit WriteElement<double>(ElementType, double, Rounding, std::byte*);
template Fit WriteElement<long double>(ElementType, long double, Rounding, std::byte*);

template <typename Number>
Number Real(const zeb::PuxDnnBufAttrsMemFormat& format, Number stored) {
  if (format.float_) return stored;
  if (format.q8a) return (stored - Number{static_cast<double>(format.q8a_zero)}) * Number{format.q8a_scale};
  return std::ldexp(stored, format.exp);
}
template double Real<double>(const zeb::PuxDnnBufAttrsMemFormat&, double);
template long double Real<long double>(const zeb::PuxDnnBufAttrsMemFormat&, long double);

std::string ElementText(ElementType type, const std::byte* address) {
  return WithType(type, [address](auto kind) -> std::string {
    using T = decltype(kind);
    const T value = Load<T>(address);
    if constexpr (std::is_same_v<T, Truth>) {
      return value == Truth::kFalse ? "false" : "true";
    } else {
      if constexpr (std::is_floating_point_v<T>) {
        if (std::isnan(value)) return "nan";  // its sign means nothing
      }
      std::array<char, 32> text{};
      std::to_chars_result end{};
      if constexpr (std::is_same_v<T, Half>) {
        // The digits that tell half-precision numbers apart.
        const double number = Widen(value);
        if (std::isnan(number)) return "nan";
        end = std::to_chars(text.begin(), text.end(), number, std::chars_format::general, 5);
      } else if constexpr (kIsInteger<T> && sizeof(T) == 1) {
        end = std::to_chars(text.begin(), text.end(), static_cast<int>(value));
      } else {
        end = std::to_chars(text.begin(), text.end(), value);
      }
      return {text.begin(), end.ptr};
    }
  });
}

std::string NumberText(double number) {
  if (std::isnan(number)) return "nan";
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.begin(), text.end(), number, std::chars_format::general, 6);
  return {text.begin(), end.ptr};
}

std::string IndexText(const std::vector<unsigned int>& index) {
  std::string text = "[";
  for (const unsigned int i : index) text.append(text.size() > 1 ? "," : "").append(std::to_string(i));
  return text + "]";
}

}  // namespace vekrun
