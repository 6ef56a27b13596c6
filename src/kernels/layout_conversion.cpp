// A row copy goes through the target from front to back; a change of interleaving is strided copies of runs of channels.
#include "kernels/layout_conversion.h"

#include <algorithm>
#include <cstring>

#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

using detail::Loop;

namespace {

void Zero(void* dst, std::size_t bytes) {
  if (bytes != 0) std::memset(dst, 0, bytes);
}

}  // namespace

// --- Equal interleaving.

void PlainCopyPaddedRuns(signed char* dst, unsigned& dst_offset, const signed char* src, unsigned& src_offset,
                         const PaddedRuns& runs, std::size_t dim) {
  if (dim + 1 >= runs.extents.size()) {
    const unsigned src_run = runs.src_pads.back();
    const unsigned dst_run = runs.dst_pads.back();
    const unsigned copied = std::min(src_run, dst_run);
    detail::CopyRun(dst + dst_offset, src + src_offset, copied);
    Zero(dst + dst_offset + copied, dst_run - copied);
    dst_offset += dst_run;
    src_offset += src_run;
    return;
  }
  for (unsigned i = 0; i < runs.extents[dim]; ++i) {
    PlainCopyPaddedRuns(dst, dst_offset, src, src_offset, runs, dim + 1);
    dst_offset += runs.dst_pads[dim];
    src_offset += runs.src_pads[dim];
  }
}

namespace {

// Padded rows that are short are set to 0 whole before the elements come over them: that takes less than a gap for each.
constexpr std::size_t kShortRowBytes = 64;
// What stays in the nearest cache meanwhile.
constexpr std::size_t kCachedBytes = 16384;

// Rows that follow each other on both sides, each cut or filled up with zeros.
void CopyUnequalRows(signed char* dst, std::size_t dst_row, const signed char* src, std::size_t src_row,
                     std::size_t count) {
  auto* to = reinterpret_cast<std::byte*>(dst);
  const auto* from = reinterpret_cast<const std::byte*>(src);
  const std::size_t copied = std::min(src_row, dst_row);
  const std::size_t zeros = dst_row - copied;
  const auto src_step = static_cast<std::ptrdiff_t>(src_row);
  const auto dst_step = static_cast<std::ptrdiff_t>(dst_row);

  // Elements and zeros of a few rows in turn, while the rows are in the nearest cache.
  constexpr std::byte kZero{0};
  constexpr std::size_t kBlockBytes = 8192;
  const std::size_t block =
      zeros == 0 ? count : kBlockBytes / std::clamp<std::size_t>(dst_row, 1, kBlockBytes);
  while (count > 0) {
    const std::size_t rows = std::min(block, count);
    const bool fills_first = zeros != 0 && dst_row <= kShortRowBytes && copied <= kShortRowBytes / 2;
    if (fills_first) Zero(to, rows * dst_row);
    detail::CopyRows(to, from, {rows, src_step, dst_step}, copied);
    if (!fills_first) detail::RepeatRows<std::uint8_t>(to + copied, &kZero, {rows, 0, dst_step}, zeros);
    from += rows * src_row;
    to += rows * dst_row;
    count -= rows;
  }
}

// A copy of rows on its way through both buffers. It goes through the target from front to back, so that each
// byte is written once: the result is that of a target filled with zeros first.
class RowCopy {
 public:
  RowCopy(const signed char* src, signed char* dst, std::size_t dst_bytes)
      : src_(src), dst_(dst), zeros_left_(dst_bytes) {}

  void Rows(std::size_t count, std::size_t src_row, std::size_t dst_row) {
    if (src_row == dst_row) {
      detail::CopyRun(dst_, src_, count * dst_row);
    } else {
      CopyUnequalRows(dst_, dst_row, src_, src_row, count);
    }
    src_ += count * src_row;
    Advance(count * dst_row);
  }

  // Steps over padding. What lies beyond the bytes to fill with zeros is left alone.
  void Pad(std::size_t src_pad, std::size_t dst_pad) {
    src_ += src_pad;
    Zero(dst_, std::min(dst_pad, zeros_left_));
    Advance(dst_pad);
  }

  // Behind the last row.
  void Finish() { Pad(0, zeros_left_); }

 private:
  void Advance(std::size_t dst_bytes) {
    dst_ += dst_bytes;
    zeros_left_ -= std::min(dst_bytes, zeros_left_);
  }

  const signed char* src_;
  signed char* dst_;
  std::size_t zeros_left_;  // of the bytes to fill with zeros, those not reached yet
};

}  // namespace

namespace {

// Planes of short rows with padding behind them, some at a time.
void CopySmallPlanes(signed char* dst, std::size_t dst_plane, const signed char* src, std::size_t src_plane,
                     const PaddedPlanes& p) {
  const std::size_t block = kCachedBytes / dst_plane;
  for (std::size_t plane = 0; plane < p.planes; plane += block) {
    const std::size_t planes = std::min(block, p.planes - plane);
    signed char* const to = dst + plane * dst_plane;
    Zero(to, planes * dst_plane);
    detail::StridedCopy(to, src + plane * src_plane,
                        {MakeLoop(planes, src_plane, dst_plane), MakeLoop(p.rows, p.src_line, p.dst_line),
                         MakeLoop(std::min(p.src_line, p.dst_line), 1, 1)});
  }
}

}  // namespace

void CopyPaddedPlanes(signed char* dst, std::size_t dst_bytes, const signed char* src,
                      const PaddedPlanes& p) {
  const std::size_t src_plane = std::size_t{p.rows} * p.src_line + p.src_pad;
  const std::size_t dst_plane = std::size_t{p.rows} * p.dst_line + p.dst_pad;
  if (p.dst_line <= kShortRowBytes && (p.src_pad != 0 || p.dst_pad != 0) && dst_plane != 0 &&
      dst_plane <= kCachedBytes && p.planes * dst_plane <= dst_bytes) {
    CopySmallPlanes(dst, dst_plane, src, src_plane, p);
    return Zero(dst + p.planes * dst_plane, dst_bytes - p.planes * dst_plane);
  }
  RowCopy copy(src, dst, dst_bytes);
  if (p.src_pad == 0 && p.dst_pad == 0) {
    copy.Rows(p.planes * p.rows, p.src_line, p.dst_line);
  } else {
    for (std::uint64_t plane = 0; plane < p.planes; ++plane) {
      copy.Rows(p.rows, p.src_line, p.dst_line);
      copy.Pad(p.src_pad, p.dst_pad);
    }
  }
  copy.Finish();
}

namespace {

// Dimension `dim` and those inside it, down to blocks of `rows` rows next to each other, which are dimension `inner`.
void CopyDimension(RowCopy& copy, const PaddedRuns& runs, std::size_t dim, std::size_t inner,
                   std::size_t rows) {
  if (dim == inner) return copy.Rows(rows, runs.src_pads.back(), runs.dst_pads.back());
  for (unsigned i = 0; i < runs.extents[dim]; ++i) {
    CopyDimension(copy, runs, dim + 1, inner, rows);
    copy.Pad(runs.src_pads[dim], runs.dst_pads[dim]);
  }
}

}  // namespace

void CopyPaddedRuns(signed char* dst, std::size_t dst_bytes, const signed char* src, const PaddedRuns& runs) {
  // Dimensions without padding are rows next to each other.
  std::size_t inner = runs.extents.size() - 1;
  std::size_t rows = 1;
  while (inner > 0 && runs.src_pads[inner - 1] == 0 && runs.dst_pads[inner - 1] == 0) {
    rows *= runs.extents[--inner];
  }
  RowCopy copy(src, dst, dst_bytes);
  if (runs.dst_pads.back() != 0) CopyDimension(copy, runs, 0, inner, rows);
  copy.Finish();
}

// --- A change of interleaving.

template <typename T>
void PlainChangeInterleaving(T* dst, std::size_t dst_bytes, const TensorLayout& d, const T* src,
                             const TensorLayout& s, const Extents& e) {
  Zero(dst, dst_bytes);
  if (e.empty()) return;
  for (unsigned n = 0; n < e.N; ++n) {
    for (unsigned c = 0; c < e.C; ++c) {
      for (unsigned h = 0; h < e.H; ++h) {
        const unsigned from = s.Position(n, c / s.pack, h) + c % s.pack;
        const unsigned to = d.Position(n, c / d.pack, h) + c % d.pack;
        for (unsigned w = 0; w < e.W; ++w) {
          detail::Store(dst + (to + w * d.pack), detail::Load<T>(src + (from + w * s.pack)));
        }
      }
    }
  }
}

namespace {

// Sets the elements of a layout that no channel occupies to 0.
template <typename T>
void ZeroPadding(T* dst, const TensorLayout& layout, const Extents& e) {
  const std::size_t full = e.C / layout.pack;
  const std::size_t row = std::size_t{e.W} * layout.pack;
  const std::size_t rows = std::size_t{e.H} * layout.line;
  for (std::size_t n = 0; n < e.N; ++n) {
    T* item = dst + n * layout.batch;
    T* plane = item;
    for (std::size_t group = 0; group < full; ++group, plane += layout.plane) {
      if (row != layout.line) {
        for (std::size_t h = 0; h < e.H; ++h)
          detail::FillRun(plane + h * layout.line + row, T{}, layout.line - row);
      }
      detail::FillRun(plane + rows, T{}, layout.plane - rows);
    }
    detail::FillRun(plane, T{}, static_cast<std::size_t>(item + layout.batch - plane));
  }
}

// Moves runs of channels that are next to each other on both sides.
template <typename T>
void CopyChannels(T* dst, const TensorLayout& d, const T* src, const TensorLayout& s, const Extents& e) {
  const Loop n = MakeLoop(e.N, s.batch, d.batch);
  const Loop h = MakeLoop(e.H, s.line, d.line);
  const Loop w = MakeLoop(e.W, s.pack, d.pack);
  const auto channel_in = [&](std::size_t c) { return src + c / s.pack * s.plane + c % s.pack; };
  const auto channel_out = [&](std::size_t c) { return dst + c / d.pack * d.plane + c % d.pack; };

  const unsigned small = std::min(s.pack, d.pack);
  const unsigned large = std::max(s.pack, d.pack);
  if (large % small != 0) {
    for (std::size_t c = 0; c < e.C;) {
      const std::size_t run = std::min({s.pack - c % s.pack, d.pack - c % d.pack, e.C - c});
      detail::StridedCopy(channel_out(c), channel_in(c), {n, h, w, {run, 1, 1}});
      c += run;
    }
    return;
  }

  // Small groups inside large ones, then the small groups of a last, partial large one, then a partial small
  // one.
  const std::size_t whole = e.C / large * large;
  const std::size_t rest = (e.C - whole) / small * small;
  const std::size_t last = e.C - whole - rest;
  const std::uint64_t parts = large / small;
  const Loop group = MakeLoop(whole / large, s.pack == small ? parts * s.plane : s.plane,
                              d.pack == small ? parts * d.plane : d.plane);
  Loop part = MakeLoop(parts, s.pack == small ? s.plane : small, d.pack == small ? d.plane : small);
  detail::StridedCopy(dst, src, {n, group, part, h, w, {small, 1, 1}});
  part.extent = rest / small;
  detail::StridedCopy(channel_out(whole), channel_in(whole), {n, part, h, w, {small, 1, 1}});
  detail::StridedCopy(channel_out(whole + rest), channel_in(whole + rest), {n, h, w, {last, 1, 1}});
}

}  // namespace

template <typename T>
void ChangeInterleaving(T* dst, std::size_t dst_bytes, const TensorLayout& d, const T* src,
                        const TensorLayout& s, const Extents& e) {
  const std::size_t tensor_bytes = std::size_t{e.N} * d.batch * sizeof(T);
  if (tensor_bytes > dst_bytes) {
    Zero(dst, dst_bytes);
    return CopyChannels(dst, d, src, s, e);
  }
  Zero(reinterpret_cast<std::byte*>(dst) + tensor_bytes, dst_bytes - tensor_bytes);
  const std::size_t row = std::size_t{e.W} * d.pack;
  if (row == d.line || row * sizeof(T) > kShortRowBytes) {
    ZeroPadding(dst, d, e);
    return CopyChannels(dst, d, src, s, e);
  }
  const std::size_t item_bytes = std::max<std::size_t>(1, d.batch * sizeof(T));
  const std::size_t block = std::max<std::size_t>(1, kCachedBytes / item_bytes);
  for (std::size_t n = 0; n < e.N; n += block) {
    Extents part = e;
    part.N = static_cast<unsigned>(std::min(block, e.N - n));
    Zero(dst + n * d.batch, part.N * d.batch * sizeof(T));
    CopyChannels(dst + n * d.batch, d, src + n * s.batch, s, part);
  }
}

template void PlainChangeInterleaving<signed char>(signed char*, std::size_t, const TensorLayout&,
                                                   const signed char*, const TensorLayout&, const Extents&);
template void PlainChangeInterleaving<short>(short*, std::size_t, const TensorLayout&, const short*,
                                             const TensorLayout&, const Extents&);
template void PlainChangeInterleaving<float>(float*, std::size_t, const TensorLayout&, const float*,
                                             const TensorLayout&, const Extents&);
template void ChangeInterleaving<signed char>(signed char*, std::size_t, const TensorLayout&,
                                              const signed char*, const TensorLayout&, const Extents&);
template void ChangeInterleaving<short>(short*, std::size_t, const TensorLayout&, const short*,
                                        const TensorLayout&, const Extents&);
template void ChangeInterleaving<float>(float*, std::size_t, const TensorLayout&, const float*,
                                        const TensorLayout&, const Extents&);

}  // namespace zeb_custom_ops::kernels
