/// \file
/// When elements of two tensors agree.
#pragma once

#include <cmath>
#include <cstring>
#include <optional>

#include "element_values.h"

namespace vekrun {

/// When two elements agree: where they are equal, or within one of the tolerances. NaN equals NaN, -0 equals +0.
struct Tolerance {
  double absolute = 0;        ///< |a - b| <= absolute + relative * |b|
  double relative = 0;        ///< b is the expected one
  std::optional<double> ulp;  ///< units in the last place; of integers, the difference
  bool bits = false;          ///< only the same bits are equal: NaN by payload, zeros by sign
  bool real = false;          ///< compares what fixed-point elements stand for, not what is stored
};

/// Tells whether elements of one tensor agree with those of another, by their addresses.
template <typename Number>
class Judge {
 public:
  Judge(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance)
      : a_type_(a.type),
        b_type_(b.type),
        a_format_(a.attrs.GetMemFormat()),
        b_format_(b.attrs.GetMemFormat()),
        tolerance_(tolerance) {}

  Number A(const std::byte* address) const { return Read(a_type_, a_format_, address); }
  Number B(const std::byte* address) const { return Read(b_type_, b_format_, address); }

  bool AreEqual(Number x, Number y, const std::byte* a, const std::byte* b) const {
    if (tolerance_.bits) return std::memcmp(a, b, ElementBytes(a_type_)) == 0;
    return x == y || (std::isnan(x) && std::isnan(y));
  }
  /// \return whether two that are not equal agree within the tolerance.
  bool AreWithin(Number x, Number y, const std::byte* a, const std::byte* b) const {
    if (tolerance_.bits || std::isinf(x) || std::isinf(y)) return false;
    if (tolerance_.ulp && UlpDistance(a_type_, a, b) <= *tolerance_.ulp) return true;
    return static_cast<double>(std::fabs(x - y)) <=
           tolerance_.absolute + tolerance_.relative * static_cast<double>(std::fabs(y));
  }
  bool Agree(const std::byte* a, const std::byte* b) const {
    const Number x = A(a);
    const Number y = B(b);
    return AreEqual(x, y, a, b) || AreWithin(x, y, a, b);
  }

 private:
  Number Read(ElementType type, const zeb::PuxDnnBufAttrsMemFormat& format, const std::byte* address) const {
    const Number stored = ReadElement<Number>(type, address);
    return tolerance_.real ? Real(format, stored) : stored;
  }

  ElementType a_type_, b_type_;
  zeb::PuxDnnBufAttrsMemFormat a_format_, b_format_;
  Tolerance tolerance_;
};

/// Calls run(Number{}) with the kind of numbers that holds the elements of both exactly.
template <typename Run>
auto WithNumber(const LaidOut& a, const LaidOut& b, Run run) {
  return FitsDouble(a.type) && FitsDouble(b.type) ? run(double{}) : run(static_cast<long double>(0));
}

}  // namespace vekrun
