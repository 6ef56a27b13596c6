/// \file
/// The calls that a certificate is made of: fixed ones, the same on every machine and with every standard library.
///
/// Nothing here draws from the standard library's distributions, asks a hash map for its order, or computes with
/// floats: decisions and contents are made of 64-bit integers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "host/buf_attrs.h"
#include "layer_catalog.h"

namespace vekrun {

/// Numbers that follow from a seed (SplitMix64).
class Draws {
 public:
  explicit Draws(std::uint64_t seed) : state_(seed) {}

  std::uint64_t operator()() {
    state_ += 0x9E3779B97F4A7C15U;
    std::uint64_t bits = state_;
    bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9U;
    bits = (bits ^ bits >> 27) * 0x94D049BB133111EBU;
    return bits ^ bits >> 31;
  }
  /// \return a number below n, which is not 0.
  unsigned int Below(std::uint64_t n) { return static_cast<unsigned int>((*this)() % n); }
  /// \return a number from `low` to `high`, both included.
  unsigned int Between(unsigned int low, unsigned int high) {
    return low + Below(std::uint64_t{high} - low + 1);
  }
  bool OneIn(unsigned int n) { return Below(n) == 0; }
  template <typename T>
  T OneOf(std::initializer_list<T> values) {
    return values.begin()[Below(values.size())];
  }

 private:
  std::uint64_t state_;
};

/// What the inputs hold.
enum class Contents {
  kBits,        ///< any
  kModerate,    ///< floats about 1, some of them special
  kAnyFloats,   ///< any floats, among them many special ones: infinities, NaN, denormals, zeros of both signs
  kEighths,     ///< a few multiples of 1/8, so that many are equal
  kSpread,      ///< floats from 2^-70 to 2^70
  kExponents,   ///< from -120 to 10: the range of a softmax
  kDenormals,   ///< and small normal floats
  kZeroBlocks,  ///< zeros of both signs, with floats about 1 between them
};

/// The life of one layer.
struct CertificateCase {
  std::vector<AttrMap> configurations;  ///< attributes of each call of `Configure`
  std::vector<vek_host::BufAttrs> inputs;
  std::vector<vek_host::BufAttrs> outputs;
  Contents contents = Contents::kBits;
  std::uint64_t seed = 0;          ///< of the contents
  unsigned int indices_below = 0;  ///< input 1 holds numbers below this one, unless it is 0
  bool has_bad_index = false;      ///< but for one of them
  bool is_in_place = false;        ///< output 0 lies in input 0
  bool is_one_input = false;       ///< all inputs lie in input 0
  unsigned int executions = 1;
  bool is_called_with_nulls = false;  ///< before that: null instead of the inputs, then of the outputs
  /// Something is wrong with it: what `Configure` then accepts is not executed, as its shapes may lead anywhere.
  bool is_spoilt = false;
};

/// \return the cases of a layer type of the catalog.
std::vector<CertificateCase> CertificateCases(const std::string& type);

/// Fills memory with floats or bits; `bytes` need not be a multiple of 4.
void FillContents(Contents contents, std::uint64_t seed, std::byte* data, std::size_t bytes);

/// Fills memory with 32-bit numbers below `limit`, one of which is `limit` itself if one shall be bad.
void FillIndices(std::uint64_t seed, unsigned int limit, bool has_bad_index, std::byte* data,
                 std::size_t bytes);

/// \return a line that describes the case.
std::string CaseText(const CertificateCase& c);

}  // namespace vekrun
