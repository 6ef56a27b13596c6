#include "kernels/broadcast.h"

#include <cstddef>
#include <cstdint>

#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

using detail::Loop;

template <typename T>
void PlainBroadcast(T* out, const T* in, const BroadcastShape& shape) {
  const auto [C, H, W, H_in, W_in, in_line, out_line, repeat_c, repeat_h, repeat_w] = shape;
  const unsigned plane = H * W;
  const unsigned period = repeat_w ? W_in : 0;
  const auto column = [=](unsigned x) { return x - (period == 0 ? 0 : x / period) * period; };

  if (!repeat_c && !repeat_h && !repeat_w) return;
  if (!repeat_c) {
    for (unsigned c = 0; c < C; ++c) {
      for (unsigned h = 0; h < H; ++h) {
        const unsigned in_row = repeat_h ? c * in_line : (c * H_in + h) * in_line;
        for (unsigned x = 0; x < W; ++x) out[(c * H + h) * out_line + x] = in[in_row + column(x)];
      }
    }
    return;
  }
  if (!repeat_h && !repeat_w) {
    // Deliberate: a dense block of the input, also where its rows are padded.
    for (unsigned c = 0; c < C; ++c) {
      for (unsigned i = 0; i < plane; ++i) out[c * plane + i] = in[i];
    }
    return;
  }
  if (repeat_h && repeat_w) {
    // Deliberate: the second row follows the first one's elements, not its line stride.
    for (unsigned x = 0; x < W; ++x) out[x] = in[column(x)];
    for (unsigned h = 1; h < H; ++h) {
      for (unsigned x = 0; x < W; ++x) out[W + (h - 1) * out_line + x] = out[x];
    }
  } else {
    for (unsigned h = 0; h < H; ++h) {
      const unsigned in_row = repeat_h ? 0 : h * in_line;
      for (unsigned x = 0; x < W; ++x) out[h * out_line + x] = in[in_row + column(x)];
    }
  }
  // Deliberate: planes are repeated as dense blocks, also where the output's rows are padded.
  for (unsigned c = 1; c < C; ++c) {
    for (unsigned i = 0; i < plane; ++i) out[c * plane + i] = out[i];
  }
}

namespace {

Loop LoopOf(std::size_t extent, std::uint64_t src_step, std::uint64_t dst_step) {
  return {extent, static_cast<std::ptrdiff_t>(src_step), static_cast<std::ptrdiff_t>(dst_step)};
}

// Rows of planes, which must not overlap: each of `count` elements, of which the first `period` repeat; a period of 0
// repeats nothing.
template <typename T>
void RepeatColumns(T* dst, const T* src, const Loop& planes, const Loop& rows, unsigned period,
                   unsigned count) {
  if (period == 0 || period >= count) return detail::StridedCopy(dst, src, {planes, rows, {count, 1, 1}});
  detail::StridedCopy(dst, src, {planes, rows, {count / period, 0, period}, {period, 1, 1}});
  const unsigned whole = count / period * period;
  if (whole < count) detail::StridedCopy(dst + whole, src, {planes, rows, {count - whole, 1, 1}});
}

}  // namespace

template <typename T>
void Broadcast(T* out, const T* in, const BroadcastShape& shape) {
  const auto [C, H, W, H_in, W_in, in_line, out_line, repeat_c, repeat_h, repeat_w] = shape;
  constexpr Loop kOne = {1, 0, 0};
  const unsigned period = repeat_w ? W_in : W;
  const std::uint64_t dense_plane = std::uint64_t{H} * W;

  if (!repeat_c) {
    const std::uint64_t in_plane = repeat_h ? in_line : std::uint64_t{H_in} * in_line;
    const std::uint64_t out_plane = std::uint64_t{H} * out_line;
    RepeatColumns(out, in, LoopOf(C, in_plane, out_plane), LoopOf(H, repeat_h ? 0 : in_line, out_line),
                  period, W);
    return;
  }
  if (repeat_h && out_line == W && C != 0 && H != 0) {
    // All rows of all planes are the same, and they touch.
    RepeatColumns(out, in, kOne, LoopOf(std::uint64_t{C} * H, 0, W), period, W);
    return;
  }
  const T* first_plane = out;
  unsigned first_copy = 1;
  if (!repeat_h && !repeat_w) {
    first_plane = in;
    first_copy = 0;
  } else if (repeat_h && repeat_w) {
    RepeatColumns(out, in, kOne, kOne, period, W);
    if (H > 1) detail::StridedCopy(out + W, out, {LoopOf(H - 1, 0, out_line), {W, 1, 1}});
  } else {
    RepeatColumns(out, in, kOne, LoopOf(H, repeat_h ? 0 : in_line, out_line), period, W);
  }
  if (first_copy < C) {
    detail::StridedCopy(out + first_copy * dense_plane, first_plane,
                        {LoopOf(C - first_copy, 0, dense_plane), LoopOf(dense_plane, 1, 1)});
  }
}

template void PlainBroadcast<int>(int*, const int*, const BroadcastShape&);
template void PlainBroadcast<short>(short*, const short*, const BroadcastShape&);
template void PlainBroadcast<char>(char*, const char*, const BroadcastShape&);
template void Broadcast<int>(int*, const int*, const BroadcastShape&);
template void Broadcast<short>(short*, const short*, const BroadcastShape&);
template void Broadcast<char>(char*, const char*, const BroadcastShape&);

}  // namespace zeb_custom_ops::kernels
