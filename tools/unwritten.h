/// \file
/// Which elements of an output a layer never wrote: those that two fills both survived in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/buf_attrs.h"

namespace vekrun {

/// Looks at an output after each of two runs: the first over bytes of `kFirstFill`, the second over zeros.
class Unwritten {
 public:
  static constexpr std::byte kFirstFill{0xFF};

  explicit Unwritten(const vek_host::BufAttrs& attrs) : attrs_(attrs) {}
  void AfterFirst(const std::byte* buffer);
  void AfterSecond(const std::byte* buffer);

  /// How many elements no run wrote; padding does not count.
  std::size_t Elements() const { return elements_; }
  /// The first of them in dense order, as "[0,1,0,3]".
  std::string First() const;

 private:
  vek_host::BufAttrs attrs_;
  std::vector<std::uint64_t> survived_;  // a bit for each element, in dense order; empty where none survived
  std::size_t elements_ = 0;
  std::size_t first_ = 0;
};

}  // namespace vekrun
