#include "unwritten.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "host/layout.h"

namespace vekrun {
namespace {

// Calls visit(first, mask) for every 64 elements in dense order: bit i is whether element first + i equals `wanted` in
// all bytes.
template <typename Word, typename Visit>
void ForEach64(const std::byte* dense, std::size_t first, std::size_t count, Word wanted, Visit visit) {
  for (std::size_t i = 0; i < count; i += 64) {
    const std::size_t n = std::min<std::size_t>(64, count - i);
    Word words[64];
    std::memcpy(words, dense + i * sizeof(Word), n * sizeof(Word));
    unsigned any = 0;
    for (std::size_t j = 0; j < n; ++j) any |= words[j] == wanted ? 1U : 0U;
    if (any == 0) continue;
    std::uint64_t mask = 0;
    for (std::size_t j = 0; j < n; ++j) mask |= std::uint64_t{words[j] == wanted} << j;
    visit(first + i, mask);
  }
}

template <typename Visit>
void ForEach64(const std::byte* dense, std::size_t first, std::size_t count, std::size_t element_bytes,
               std::byte wanted, Visit visit) {
  const auto repeated = static_cast<std::uint32_t>(wanted) * 0x01010101U;
  if (element_bytes == 1) {
    ForEach64(dense, first, count, static_cast<std::uint8_t>(repeated), visit);
  } else if (element_bytes == 2) {
    ForEach64(dense, first, count, static_cast<std::uint16_t>(repeated), visit);
  } else {
    ForEach64(dense, first, count, repeated, visit);
  }
}

// The same over a buffer of any layout: a few rows at a time, a multiple of 64 of them.
template <typename Visit>
void ForEach64(const vek_host::BufAttrs& attrs, const std::byte* buffer, std::byte wanted, Visit visit) {
  const std::size_t bytes = attrs.ElementBytes();
  const std::size_t rows = vek_host::Rows(attrs);
  const std::size_t width = attrs.GetWidth();
  if (!attrs.IsStrided() && !attrs.IsInterleaved()) {
    ForEach64(buffer, 0, rows * width, bytes, wanted, visit);
    return;
  }
  const std::size_t step = 64 * std::max<std::size_t>(1, 4096 / std::max<std::size_t>(1, width * bytes));
  std::vector<std::byte> dense(std::min(step, rows) * width * bytes);
  for (std::size_t row = 0; row < rows; row += step) {
    const std::size_t count = std::min(step, rows - row);
    vek_host::UnpackRows(attrs, buffer, row, count, dense.data());
    ForEach64(dense.data(), row * width, count * width, bytes, wanted, visit);
  }
}

}  // namespace

void Unwritten::AfterFirst(const std::byte* buffer) {
  const std::size_t elements = vek_host::Rows(attrs_) * attrs_.GetWidth();
  ForEach64(attrs_, buffer, kFirstFill, [&](std::size_t first, std::uint64_t mask) {
    if (survived_.empty()) survived_.resize((elements + 63) / 64);
    survived_[first / 64] = mask;
  });
}

void Unwritten::AfterSecond(const std::byte* buffer) {
  if (survived_.empty()) return;
  ForEach64(attrs_, buffer, std::byte{0}, [&](std::size_t first, std::uint64_t mask) {
    mask &= survived_[first / 64];
    if (mask == 0) return;
    if (elements_ == 0) first_ = first + static_cast<std::size_t>(std::countr_zero(mask));
    elements_ += static_cast<std::size_t>(std::popcount(mask));
  });
}

std::string Unwritten::First() const {
  std::string text;
  std::size_t rest = first_;
  const std::vector<unsigned int> dims = attrs_.GetDims();
  for (std::size_t d = dims.size(); d-- > 0;) {
    text = std::to_string(rest % dims[d]) + (text.empty() ? "" : ",") + text;
    rest /= dims[d];
  }
  return "[" + text + "]";
}

}  // namespace vekrun
