// Runs of consecutive elements: copies, fills, and many short rows of either without a call for each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "axis.h"
#include "transpose.h"
#include "vec.h"

namespace zeb_custom_ops::detail {

namespace internal {

// The row from which on the C library's call costs nothing beside its work.
inline constexpr std::size_t kCallBytes = 512;

// Calls `body` with the widest word that fits into a run of 1 to 15 bytes: two such words, the second ending where
// the run ends, cover it.
template <typename Body>
inline void WithWordOf(std::size_t bytes, const Body& body) {
  if (bytes >= 8) return body(std::uint64_t{});
  if (bytes >= 4) return body(std::uint32_t{});
  if (bytes >= 2) return body(std::uint16_t{});
  body(std::uint8_t{});
}

// Copies one run of 64 bytes or more.
inline void CopyLongRow(std::byte* dst, const std::byte* src, std::size_t bytes) {
  constexpr std::size_t kStep = 4 * kVecBytes;
  const auto copy = [=](std::size_t at) {
    Vec<std::uint8_t> v[4];
    for (std::size_t i = 0; i < 4; ++i) v[i] = Load<Vec<std::uint8_t>>(src + at + i * kVecBytes);
    for (std::size_t i = 0; i < 4; ++i) Store(dst + at + i * kVecBytes, v[i]);
  };
  std::size_t at = 0;
  for (; at + kStep <= bytes; at += kStep) copy(at);
  if (at < bytes) copy(bytes - kStep);
}

// Copies rows as the moves that start at the given bytes of each; moves may overlap. Four rows at a time.
template <typename Move, std::size_t moves>
inline void CopyRowsBy(std::byte* dst, const std::byte* src, const Axis& rows,
                       const std::size_t (&at)[moves]) {
  const RowSteps dst_rows(rows.dst_step);
  const RowSteps src_rows(rows.src_step);
  const auto copy = [&](auto count) {
    Move v[count][moves];
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t k = 0; k < moves; ++k) v[i][k] = Load<Move>(Row(src, src_rows, i) + at[k]);
    }
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t k = 0; k < moves; ++k) Store(Row(dst, dst_rows, i) + at[k], v[i][k]);
    }
  };
  std::size_t left = rows.extent;
  for (; left >= 4; left -= 4, src += src_rows.four, dst += dst_rows.four) {
    copy(std::integral_constant<std::size_t, 4>{});
  }
  for (; left > 0; --left, src += src_rows.one, dst += dst_rows.one) {
    copy(std::integral_constant<std::size_t, 1>{});
  }
}

}  // namespace internal

// Copies rows of `bytes` consecutive bytes each; steps are bytes.
inline void CopyRows(std::byte* dst, const std::byte* src, const Axis& rows, std::size_t bytes) {
  using Block = Vec<std::uint8_t>;
  if (bytes > internal::kCallBytes) {
    for (std::size_t i = 0; i < rows.extent; ++i) {
      std::memcpy(dst + Offset(i, rows.dst_step), src + Offset(i, rows.src_step), bytes);
    }
  } else if (bytes > 4 * kVecBytes) {
    for (std::size_t i = 0; i < rows.extent; ++i) {
      internal::CopyLongRow(dst + Offset(i, rows.dst_step), src + Offset(i, rows.src_step), bytes);
    }
  } else if (bytes > 2 * kVecBytes) {
    internal::CopyRowsBy<Block, 4>(dst, src, rows, {0, kVecBytes, bytes - 2 * kVecBytes, bytes - kVecBytes});
  } else if (bytes > kVecBytes) {
    internal::CopyRowsBy<Block, 2>(dst, src, rows, {0, bytes - kVecBytes});
  } else if (bytes == kVecBytes) {
    internal::CopyRowsBy<Block, 1>(dst, src, rows, {0});
  } else if (bytes > 0) {
    internal::WithWordOf(bytes, [&](auto word) {
      using Move = decltype(word);
      if (bytes == sizeof(Move)) {
        internal::CopyRowsBy<Move, 1>(dst, src, rows, {0});
      } else {
        internal::CopyRowsBy<Move, 2>(dst, src, rows, {0, bytes - sizeof(Move)});
      }
    });
  }
}

// Copies `count` consecutive elements.
template <typename T>
inline void CopyRun(T* dst, const T* src, std::size_t count) {
  const std::size_t bytes = count * sizeof(T);
  if (bytes == 0) return;
  if (bytes >= kVecBytes) {
    std::memcpy(dst, src, bytes);
    return;
  }
  auto* const to = reinterpret_cast<std::byte*>(dst);
  const auto* const from = reinterpret_cast<const std::byte*>(src);
  internal::WithWordOf(bytes, [&](auto word) {
    using Move = decltype(word);
    const auto head = Load<Move>(from);
    const auto tail = Load<Move>(from + bytes - sizeof(Move));
    Store(to, head);
    Store(to + bytes - sizeof(Move), tail);
  });
}

// Sets `count` consecutive elements to `value`.
template <typename T>
inline void FillRun(T* dst, T value, std::size_t count) {
  static_assert(sizeof(T) <= 4);
  const std::size_t bytes = count * sizeof(T);
  if (bytes == 0) return;
  Word<sizeof(T)> word;
  std::memcpy(&word, &value, sizeof word);
  auto* const to = reinterpret_cast<std::byte*>(dst);
  if constexpr (sizeof(T) == 1) {
    if (bytes > internal::kCallBytes) {
      std::memset(dst, word, bytes);
      return;
    }
  }
  const auto vec = Broadcast(word);
  if (bytes < kVecBytes) {
    const std::uint64_t pattern = reinterpret_cast<Vec<std::uint64_t>>(vec)[0];
    internal::WithWordOf(bytes, [&](auto move) {
      using Move = decltype(move);
      Store(to, static_cast<Move>(pattern));
      Store(to + bytes - sizeof(Move), static_cast<Move>(pattern));
    });
    return;
  }
  std::size_t at = 0;
  for (; at + 4 * kVecBytes <= bytes; at += 4 * kVecBytes) {
    for (std::size_t i = 0; i < 4; ++i) Store(to + at + i * kVecBytes, vec);
  }
  for (; at + kVecBytes <= bytes; at += kVecBytes) Store(to + at, vec);
  Store(to + bytes - kVecBytes, vec);
}

// Repeats one element of each row along `count` elements of the target; steps are bytes.
template <typename T>
inline void RepeatRows(std::byte* dst, const std::byte* src, const Axis& rows, std::size_t count) {
  for (std::size_t i = 0; i < rows.extent; ++i) {
    FillRun(reinterpret_cast<T*>(dst + Offset(i, rows.dst_step)), Load<T>(src + Offset(i, rows.src_step)),
            count);
  }
}

}  // namespace zeb_custom_ops::detail
