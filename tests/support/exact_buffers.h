// Buffers for a layer or a kernel in place of its model's memories: exactly the bytes that the model touched, as they
// were before it, with nothing mapped next to them. Afterwards every byte is compared.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "model/memory.h"
#include "support/floats.h"
#include "support/guarded_buffer.h"
#include "support/random.h"

namespace vek_test {

inline Guard AnyGuard(Random& random) { return random.OneIn(2) ? Guard::kBefore : Guard::kAfter; }

class ExactBuffers {
 public:
  using Memory = vek_model::Memory;

  explicit ExactBuffers(Guard guard) : guard_(guard) {}

  // What to hand over in place of a memory that the model is done with.
  template <typename T = void>
  T* Of(const Memory& memory) {
    for (const auto& [known, buffer] : buffers_) {
      if (known == &memory) return static_cast<T*>(buffer.data());
    }
    buffers_.emplace_back(&memory, Guarded(memory.Initial(), guard_));
    return static_cast<T*>(buffers_.back().second.data());
  }

  // The first byte, or computed float, that is not as the model made it; empty for none. Any NaN is like another.
  std::string Difference(bool computes = false) const {
    for (std::size_t i = 0; i < buffers_.size(); ++i) {
      const auto& [memory, buffer] = buffers_[i];
      const std::string difference =
          computes ? FirstDifference("float", buffer.Get<float>(), memory->Get<float>(), SameFloat)
                   : FirstDifference("byte", buffer.Get<std::int8_t>(), memory->Get<std::int8_t>(),
                                     std::equal_to());
      if (!difference.empty()) return "buffer " + std::to_string(i) + ": " + difference;
    }
    return {};
  }

 private:
  template <typename T, typename Same>
  static std::string FirstDifference(const char* what, const std::vector<T>& actual,
                                     const std::vector<T>& expected, const Same& same) {
    const auto [got, want] = std::mismatch(actual.begin(), actual.end(), expected.begin(), same);
    if (got == actual.end()) return {};
    std::ostringstream text;
    text << what << " " << got - actual.begin() << " of " << actual.size() << std::hexfloat << " is " << +*got
         << ", expected " << +*want;
    return text.str();
  }

  Guard guard_;
  std::vector<std::pair<const Memory*, GuardedBuffer>> buffers_;  // in the order in which they were asked for
};

}  // namespace vek_test
