// Runs of consecutive elements, and rows of them: many runs of one length, at a fixed distance or where indices say.
//
// Rows are copied in one of three ways, by their length:
//
//   up to 64 bytes    one to four loads and stores that may overlap, picked once for all rows: no loop, no call
//   up to 512 bytes   pieces of 64 bytes, whose stores are aligned
//   longer            the C library's memcpy
//
// A single run is short moves too, but memcpy from a vector on. Fills and repeated elements are short moves, or vectors
// that hold the pattern.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "copy/loop.h"
#include "simd/simd.h"

namespace zeb_custom_ops::detail {

namespace internal {

// Below, everything is bytes: pointers, steps and run lengths.

// The widest move that the target has.
typedef std::uint8_t Block __attribute__((vector_size(kBlockBytes)));

// Up to here a run fits four vectors of 16 bytes, the least that a target has, and so stays in registers. Beyond it
// stores are aligned: on x86-64, padding was 1.2 to 1.5 times as slow without that (docs/performance.md).
inline constexpr std::size_t kShortRun = 64;

// A short run: `moves` moves next to each other, of which the last one ends where the run ends.
template <typename Move, std::size_t moves>
struct ShortRun {
  Move part[moves];

  [[gnu::always_inline]] static ShortRun From(const std::byte* src, std::size_t last) {
    ShortRun run;
    for (std::size_t k = 0; k + 1 < moves; ++k) run.part[k] = Load<Move>(src + k * sizeof(Move));
    run.part[moves - 1] = Load<Move>(src + (moves > 1 ? last : 0));
    return run;
  }
  [[gnu::always_inline]] static ShortRun Filled(Block pattern) {
    ShortRun run;
    for (Move& move : run.part) std::memcpy(&move, &pattern, sizeof move);
    return run;
  }
  [[gnu::always_inline]] void To(std::byte* dst, std::size_t last) const {
    for (std::size_t k = 0; k + 1 < moves; ++k) Store(dst + k * sizeof(Move), part[k]);
    Store(dst + (moves > 1 ? last : 0), part[moves - 1]);
  }
};

// Calls `body(run, last)` with a ShortRun for runs of 1 to kShortRun bytes; `last` is where its last move starts.
template <typename Body>
[[gnu::always_inline]] inline void WithShortRun(std::size_t bytes, const Body& body) {
  const auto with = [&](auto run) { body(run, bytes - sizeof run.part[0]); };
  if (bytes > 3 * kBlockBytes) {
    with(ShortRun<Block, 4>{});
  } else if (bytes > 2 * kBlockBytes) {
    with(ShortRun<Block, 3>{});
  } else if (bytes > kBlockBytes) {
    with(ShortRun<Block, 2>{});
  } else if (bytes == kBlockBytes) {
    with(ShortRun<Block, 1>{});
  } else if (kBlockBytes > kVecBytes && bytes > kVecBytes) {
    with(ShortRun<Vec<std::uint8_t>, 2>{});
  } else if (kBlockBytes > kVecBytes && bytes == kVecBytes) {
    with(ShortRun<Vec<std::uint8_t>, 1>{});
  } else if (bytes > 8) {
    with(ShortRun<std::uint64_t, 2>{});
  } else if (bytes == 8) {
    with(ShortRun<std::uint64_t, 1>{});
  } else if (bytes > 4) {
    with(ShortRun<std::uint32_t, 2>{});
  } else if (bytes == 4) {
    with(ShortRun<std::uint32_t, 1>{});
  } else if (bytes == 3) {
    with(ShortRun<std::uint16_t, 2>{});
  } else if (bytes == 2) {
    with(ShortRun<std::uint16_t, 1>{});
  } else {
    with(ShortRun<std::uint8_t, 1>{});
  }
}

// Copies one run of a block or more. All stores but the first and the last are aligned: processors split those that
// cross a cache line, and some of them all that are not aligned.
[[gnu::always_inline]] inline void CopyBlocks(std::byte* dst, const std::byte* src, std::size_t bytes) {
  const auto copy = [&](auto run) __attribute__((always_inline)) {
    constexpr std::size_t kLast = sizeof run - kBlockBytes;
    run.From(src, kLast).To(dst, kLast);
    src += sizeof run;
    dst += sizeof run;
    bytes -= sizeof run;
  };
  if (const std::size_t skip = -reinterpret_cast<std::uintptr_t>(dst) % kBlockBytes; skip != 0) {
    Store(dst, Load<Block>(src));
    src += skip;
    dst += skip;
    bytes -= skip;
  }
  while (bytes >= 64) copy(ShortRun<Block, 64 / kBlockBytes>{});
  if ((bytes & 32) != 0) copy(ShortRun<Block, 32 / kBlockBytes>{});
  if (kBlockBytes == 16 && (bytes & 16) != 0) copy(ShortRun<Block, 1>{});
  if (bytes % kBlockBytes != 0) {
    Store(dst + bytes - kBlockBytes, Load<Block>(src + bytes - kBlockBytes));
  }
}

// The run from which on the C library's call costs little compared with its work. Chosen, not measured: no
// record compares others.
inline constexpr std::size_t kCallBytes = 512;

inline void CopyLongRun(std::byte* dst, const std::byte* src, std::size_t bytes) {
  if (bytes > kCallBytes) {
    std::memcpy(dst, src, bytes);
  } else {
    CopyBlocks(dst, src, bytes);
  }
}

// Where the rows of a source start: at a fixed distance, or where a list of indices says.
struct SteppedRows {
  const std::byte* at;
  std::ptrdiff_t step;

  const std::byte* Row(std::ptrdiff_t i) const { return at + i * step; }
  void Advance(std::ptrdiff_t rows) { at += rows * step; }
};
struct IndexedRows {
  const std::byte* base;
  const std::uint32_t* index;
  std::size_t step;

  const std::byte* Row(std::ptrdiff_t i) const { return base + index[i] * step; }
  void Advance(std::ptrdiff_t rows) { index += rows; }
};

// Calls `row(to, from)` for each of `rows` rows, four at a time.
template <typename Source, typename Row>
[[gnu::always_inline]] inline void ForRows(std::byte* dst, std::ptrdiff_t step, Source source,
                                           std::size_t rows, const Row& row) {
  for (; rows >= 4; rows -= 4, dst += 4 * step, source.Advance(4)) {
    row(dst, source.Row(0));
    row(dst + step, source.Row(1));
    row(dst + 2 * step, source.Row(2));
    row(dst + 3 * step, source.Row(3));
  }
  for (; rows > 0; --rows, dst += step, source.Advance(1)) row(dst, source.Row(0));
}

// Copies `rows` runs of `bytes` bytes.
template <typename Source>
inline void CopyRowsFrom(std::byte* dst, std::ptrdiff_t step, Source source, std::size_t rows,
                         std::size_t bytes) {
  if (bytes > kShortRun) {
    for (; rows > 0; --rows, dst += step, source.Advance(1)) CopyLongRun(dst, source.Row(0), bytes);
  } else if (bytes > 0) {
    WithShortRun(bytes, [=](auto run, std::size_t last) {
      ForRows(
          dst, step, source, rows, [=](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
            decltype(run)::From(from, last).To(to, last);
          });
    });
  }
}

}  // namespace internal

// Copies `rows` runs of `bytes` bytes, one behind another: those that `indices` picks from a source of such runs.
inline void GatherRows(std::byte* dst, const std::byte* src, const std::uint32_t* indices, std::size_t rows,
                       std::size_t bytes) {
  internal::CopyRowsFrom(dst, static_cast<std::ptrdiff_t>(bytes), internal::IndexedRows{src, indices, bytes},
                         rows, bytes);
}

namespace internal {

// Copies one run of `bytes` bytes to each of one row or more.
inline void RepeatRun(std::byte* dst, std::ptrdiff_t dst_step, std::size_t rows, const std::byte* src,
                      std::size_t bytes) {
  // The piece that is copied on and on: small enough for the nearest cache. Chosen, not measured, like kCallBytes.
  constexpr std::size_t kCached = 8192;
  if (dst_step != static_cast<std::ptrdiff_t>(bytes) || bytes > kCached) {
    return CopyRowsFrom(dst, dst_step, SteppedRows{src, 0}, rows, bytes);
  }
  // Rows that touch are a pattern with a period. What is written is copied behind itself, so that the period doubles,
  // until it has kCached bytes; then that piece is copied on and on.
  std::memcpy(dst, src, bytes);
  const std::size_t total = rows * bytes;
  std::size_t period = bytes;
  for (std::size_t done = bytes; done < total;) {
    const std::size_t count = std::min(period, total - done);
    if (count < kBlockBytes) {
      std::memcpy(dst + done, dst, count);
    } else {
      CopyBlocks(dst + done, dst, count);
    }
    done += count;
    if (period < kCached) period = done;
  }
}

// Fills `bytes` bytes, a vector or more, with a pattern that starts anew every vector; `bytes` is a multiple of the
// width of the elements that the pattern is made of.
inline void FillVectors(std::byte* dst, Block pattern, std::size_t bytes) {
  std::byte* const end = dst + bytes;
  for (; end - dst >= std::ptrdiff_t{8 * kBlockBytes}; dst += 8 * kBlockBytes) {
    for (std::size_t k = 0; k < 8; ++k) Store(dst + k * kBlockBytes, pattern);
  }
  for (; end - dst >= std::ptrdiff_t{kBlockBytes}; dst += kBlockBytes) Store(dst, pattern);
  Store(end - kBlockBytes, pattern);
}

// A vector that holds `value` in every lane.
template <typename T>
inline Block Pattern(T value) {
  Word<sizeof(T)> word;
  std::memcpy(&word, &value, sizeof word);
  typedef Word<sizeof(T)> Elements __attribute__((vector_size(kBlockBytes)));
  return reinterpret_cast<Block>(Elements{} + word);
}

}  // namespace internal

// Copies `count` consecutive elements.
template <typename T>
void CopyRun(T* dst, const T* src, std::size_t count) {
  const std::size_t bytes = count * sizeof(T);
  if (bytes >= kBlockBytes) {
    std::memcpy(dst, src, bytes);
  } else if (bytes != 0) {
    internal::WithShortRun(bytes, [=](auto run, std::size_t last) {
      decltype(run)::From(reinterpret_cast<const std::byte*>(src), last)
          .To(reinterpret_cast<std::byte*>(dst), last);
    });
  }
}

// Sets `count` consecutive elements to `value`.
template <typename T>
void FillRun(T* dst, T value, std::size_t count) {
  static_assert(sizeof(T) <= 4);
  const std::size_t bytes = count * sizeof(T);
  auto* to = reinterpret_cast<std::byte*>(dst);
  if (bytes > internal::kCallBytes) {
    // The C library knows how to fill memory without reading it first.
    unsigned char byte[sizeof(T)];
    std::memcpy(byte, &value, sizeof(T));
    if (std::all_of(byte, byte + sizeof(T), [&](unsigned char b) { return b == byte[0]; })) {
      std::memset(to, byte[0], bytes);
      return;
    }
  }
  const internal::Block pattern = internal::Pattern(value);
  if (bytes >= kBlockBytes) {
    internal::FillVectors(to, pattern, bytes);
  } else if (bytes != 0) {
    internal::WithShortRun(bytes,
                           [&](auto run, std::size_t last) { decltype(run)::Filled(pattern).To(to, last); });
  }
}

namespace internal {

// Repeats one element of each row along `count` elements.
template <typename T, typename Source>
inline void RepeatElements(std::byte* dst, std::ptrdiff_t step, Source source, std::size_t rows,
                           std::size_t count) {
  const std::size_t bytes = count * sizeof(T);
  if (bytes > 2 * kBlockBytes) {
    for (; rows > 0; --rows, dst += step, source.Advance(1)) {
      FillVectors(dst, Pattern(Load<T>(source.Row(0))), bytes);
    }
  } else if (bytes > 0) {
    WithShortRun(bytes, [=](auto run, std::size_t last) {
      ForRows(
          dst, step, source, rows, [=](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
            decltype(run)::Filled(Pattern(Load<T>(from))).To(to, last);
          });
    });
  }
}

}  // namespace internal

namespace internal {

// The elements that a word or a vector holds, in reverse.
template <typename T, typename W>
[[gnu::always_inline]] inline W Reversed(W word) {
  if constexpr (sizeof(W) == sizeof(T)) {
    return word;
  } else if constexpr (sizeof(W) < 8) {
    using Half = Word<sizeof(W) / 2>;
    constexpr unsigned kHalfBits = 4 * sizeof(W);
    const auto low = Reversed<T>(static_cast<Half>(word));
    const auto high = Reversed<T>(static_cast<Half>(word >> kHalfBits));
    return static_cast<W>(static_cast<W>(low) << kHalfBits | high);
  } else {
    typedef T Elements __attribute__((vector_size(sizeof(W))));
    const auto reversed = [&]<std::size_t... i>(std::index_sequence<i...>) {
      const auto elements = std::bit_cast<Elements>(word);
      return __builtin_shufflevector(elements, elements, (sizeof...(i) - 1 - i)...);
    };
    return std::bit_cast<W>(reversed(std::make_index_sequence<sizeof(W) / sizeof(T)>{}));
  }
}

}  // namespace internal

// Copies rows of `count` elements each in reverse: `src` is the last one in memory. Steps are bytes.
template <typename T>
inline void ReverseRows(std::byte* dst, const std::byte* src, const Loop& rows, std::size_t count) {
  using namespace internal;
  const std::size_t bytes = count * sizeof(T);
  const SteppedRows source{src + sizeof(T) - bytes, rows.src_step};
  if (bytes > kShortRun) {
    const std::size_t last = bytes - kBlockBytes;
    ForRows(dst, rows.dst_step, source, rows.extent, [=](std::byte* to, const std::byte* from) {
      for (std::size_t at = 0; at < last; at += kBlockBytes) {
        Store(to + at, Reversed<T>(Load<Block>(from + (last - at))));
      }
      Store(to + last, Reversed<T>(Load<Block>(from)));
    });
  } else if (bytes > 0) {
    WithShortRun(bytes, [=](auto run, std::size_t last) {
      using Move = std::remove_reference_t<decltype(run.part[0])>;
      constexpr std::size_t kMoves = sizeof run / sizeof(Move);
      ForRows(
          dst, rows.dst_step, source,
          rows.extent, [=](std::byte * to, const std::byte* from) __attribute__((always_inline)) {
            if constexpr (sizeof(Move) >= sizeof(T)) {
              const auto found = decltype(run)::From(from, last);
              for (std::size_t k = 0; k + 1 < kMoves; ++k)
                Store(to + (last - k * sizeof(Move)), Reversed<T>(found.part[k]));
              Store(to, Reversed<T>(found.part[kMoves - 1]));
            }
          });
    });
  }
}

// Copies rows of `bytes` consecutive bytes each; steps are bytes, a source step of 0 repeats.
inline void CopyRows(std::byte* dst, const std::byte* src, const Loop& rows, std::size_t bytes) {
  if (rows.src_step == 0 && rows.extent > 1) {
    return internal::RepeatRun(dst, rows.dst_step, rows.extent, src, bytes);
  }
  internal::CopyRowsFrom(dst, rows.dst_step, internal::SteppedRows{src, rows.src_step}, rows.extent, bytes);
}

// The same for several planes of such rows.
inline void CopyPlanesOfRows(std::byte* dst, const std::byte* src, const Loop& planes, const Loop& rows,
                             std::size_t bytes) {
  using namespace internal;
  if (rows.src_step == 0 && rows.extent > 1) {
    for (std::size_t i = 0; i < planes.extent; ++i) {
      RepeatRun(dst + Offset(i, planes.dst_step), rows.dst_step, rows.extent,
                src + Offset(i, planes.src_step), bytes);
    }
  } else if (bytes > kShortRun) {
    const Loop inner = rows;
    for (std::size_t i = planes.extent; i > 0; --i, dst += planes.dst_step, src += planes.src_step) {
      std::byte* to = dst;
      const std::byte* from = src;
      for (std::size_t row = inner.extent; row > 0; --row, to += inner.dst_step, from += inner.src_step) {
        CopyLongRun(to, from, bytes);
      }
    }
  } else if (bytes > 0) {
    WithShortRun(bytes, [&, planes, rows](auto run, std::size_t last) {
      std::byte* to = dst;
      const std::byte* from = src;
      for (std::size_t i = planes.extent; i > 0; --i, to += planes.dst_step, from += planes.src_step) {
        ForRows(
            to, rows.dst_step, SteppedRows{from, rows.src_step},
            rows.extent, [=](std::byte * row_to, const std::byte* row_from) __attribute__((always_inline)) {
              decltype(run)::From(row_from, last).To(row_to, last);
            });
      }
    });
  }
}

// Repeats one element of each row along `count` elements of the target; steps are bytes.
template <typename T>
inline void RepeatRows(std::byte* dst, const std::byte* src, const Loop& rows, std::size_t count) {
  internal::RepeatElements<T>(dst, rows.dst_step, internal::SteppedRows{src, rows.src_step}, rows.extent,
                              count);
}

}  // namespace zeb_custom_ops::detail
