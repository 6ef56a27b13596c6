// The fast permutation is the strided copy itself; only its formula is here.
#include "kernels/permute.h"

#include <algorithm>

#include "copy/strided_copy.h"

namespace zeb_custom_ops::kernels {

using detail::Loop;

// --- Any permutation.

unsigned SourceOf(unsigned index, std::span<const Loop> loops) {
  unsigned source = 0;
  for (const Loop& loop : loops) {
    const auto out_step = static_cast<unsigned>(loop.dst_step);
    const unsigned coordinate = Quotient(index, out_step);
    index -= coordinate * out_step;
    source += coordinate * static_cast<unsigned>(loop.src_step);
  }
  return source;
}

template <typename T>
void PlainPermute(T* out, const T* in, std::span<const Loop> loops, unsigned first, unsigned last) {
  for (unsigned o = first; o < last; ++o) out[o] = in[SourceOf(o, loops)];
}

// --- Channel-first and channel-last.

template <typename T>
void PlainUnpackToNhwc(T* out, const T* in, const ChannelPlanes& in_planes) {
  if (in_planes.extents.empty()) return;
  const auto [N, C, H, W] = in_planes.extents;
  const unsigned P = in_planes.pack;
  const unsigned line = in_planes.line;
  const std::uint64_t groups = in_planes.Groups();
  unsigned src = 0;
  for (unsigned n = 0; n < N; ++n) {
    for (std::uint64_t group = 0; group < groups; ++group, src += in_planes.plane_pad) {
      const unsigned c0 = static_cast<unsigned>(group) * P;
      const unsigned run = std::min(P, C - c0);
      for (unsigned h = 0; h < H; ++h) {
        for (unsigned w = 0; w < W; ++w, src += P) {
          detail::CopyRun(out + (n * C * H * W + (h * W + w) * C + c0), in + src, run);
        }
        // Deliberate: the position is rounded up to a multiple of the line, wherever the plane began.
        if (line != 0 && src % line != 0) src += line - src % line;
      }
    }
  }
}

template <typename T>
void PlainPackToNchw(T* out, const ChannelPlanes& out_planes, const T* in, const PixelRows& in_pixels) {
  if (out_planes.extents.empty()) return;
  const auto [N, C, H, W] = out_planes.extents;
  const unsigned P = out_planes.pack;
  const unsigned row = P * W;
  const unsigned line = out_planes.line;
  unsigned dst = 0;
  if (P < C) {
    const std::uint64_t groups = out_planes.Groups();
    for (unsigned n = 0; n < N; ++n) {
      for (std::uint64_t group = 0; group < groups; ++group, dst += out_planes.plane_pad) {
        const unsigned c0 = static_cast<unsigned>(group) * P;
        const unsigned run = std::min(P, C - c0);
        for (unsigned h = 0; h < H; ++h, dst += line - row) {
          for (unsigned w = 0; w < W; ++w, dst += P) {
            const unsigned src = n * in_pixels.row * in_pixels.rows + c0 + h * in_pixels.row + w * C;
            detail::CopyRun(out + dst, in + src, run);
          }
        }
      }
    }
    return;
  }

  // Deliberate: a line too short for its row is followed by the rest of the row, counted in lines.
  const unsigned line_pad = line >= row ? line - row : line - (row - Quotient(row, line) * line);
  unsigned src = 0;
  for (unsigned n = 0; n < N; ++n, dst += out_planes.plane_pad) {
    for (unsigned h = 0; h < H; ++h, src += in_pixels.row_pad, dst += line_pad) {
      for (unsigned w = 0; w < W; ++w, src += C, dst += P) detail::CopyRun(out + dst, in + src, C);
    }
  }
}

template <typename T>
void CopyChannelGroups(T* out, const T* in, const Loop& n, Loop group, const Loop& h, const Loop& w,
                       unsigned C, unsigned pack) {
  group.extent = C / pack;
  const auto whole = static_cast<std::ptrdiff_t>(group.extent);
  detail::StridedCopy(out, in, {n, group, h, w, {pack, 1, 1}});
  detail::StridedCopy(out + whole * group.dst_step, in + whole * group.src_step, {n, h, w, {C % pack, 1, 1}});
}

template void PlainPermute<float>(float*, const float*, std::span<const Loop>, unsigned, unsigned);
template void PlainPermute<short>(short*, const short*, std::span<const Loop>, unsigned, unsigned);
template void PlainPermute<char>(char*, const char*, std::span<const Loop>, unsigned, unsigned);
template void PlainUnpackToNhwc<int>(int*, const int*, const ChannelPlanes&);
template void PlainUnpackToNhwc<short>(short*, const short*, const ChannelPlanes&);
template void PlainUnpackToNhwc<char>(char*, const char*, const ChannelPlanes&);
template void PlainPackToNchw<int>(int*, const ChannelPlanes&, const int*, const PixelRows&);
template void PlainPackToNchw<short>(short*, const ChannelPlanes&, const short*, const PixelRows&);
template void PlainPackToNchw<char>(char*, const ChannelPlanes&, const char*, const PixelRows&);
template void CopyChannelGroups<int>(int*, const int*, const Loop&, Loop, const Loop&, const Loop&, unsigned,
                                     unsigned);
template void CopyChannelGroups<short>(short*, const short*, const Loop&, Loop, const Loop&, const Loop&,
                                       unsigned, unsigned);
template void CopyChannelGroups<char>(char*, const char*, const Loop&, Loop, const Loop&, const Loop&,
                                      unsigned, unsigned);

}  // namespace zeb_custom_ops::kernels
