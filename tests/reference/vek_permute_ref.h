// Permute by its formulas, one element at a time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "reference/vek_datastrideconv_ref.h"
#include "support/fake_buf_attrs.h"

namespace vek_test::reference {

// How an Execute ends: the text of its ERROR line, empty for success, and the file that says it.
struct PermuteOutcome {
  std::string error = {};
  std::string file = "vek_permute.cpp";
};

inline std::vector<unsigned> CompletedOrder(std::vector<unsigned> axes, std::size_t rank) {
  for (unsigned d = 0; d < rank; ++d) {
    if (std::count(axes.begin(), axes.end(), d) == 0) axes.push_back(d);
  }
  return axes;
}

inline std::uint32_t Product(const std::vector<unsigned>& v, std::size_t start) {
  std::uint32_t product = 1;
  for (std::size_t i = start; i < v.size(); ++i) product *= v[i];
  return product;
}

inline void CopyElement(std::uint32_t width, Bytes& src, std::uint64_t from, Bytes& dst, std::uint64_t to) {
  CopyBytes(src, from * width, dst, to * width, width);
}

// The general kernel; `width` is that of its element type.
inline std::string PermuteDense(std::uint32_t width, const std::vector<unsigned>& axes,
                                const std::vector<unsigned>& in_dims, Bytes& src, std::uint32_t in_count,
                                Bytes& dst, std::uint32_t out_count) {
  if (in_count != out_count) {
    return "Permute_v1 wrong size of buffers. (input: " + std::to_string(static_cast<int>(in_count)) +
           " output: " + std::to_string(static_cast<int>(out_count)) + ")";
  }
  const std::size_t n = in_dims.size();
  const std::vector<unsigned> order = CompletedOrder(axes, n);
  std::vector<unsigned> out_dims;
  for (std::size_t i = 0; i < n; ++i) {
    if (order[i] >= n) return kOwnText;
    out_dims.push_back(in_dims[order[i]]);
  }
  std::vector<unsigned> in_stride(n);
  std::vector<unsigned> out_stride(n);
  for (std::size_t i = 0; i < n; ++i) {
    in_stride[i] = i + 1 < n ? Product(in_dims, i + 1) : 1;
    out_stride[i] = i + 1 < n ? Product(out_dims, i + 1) : 1;
  }
  if (!dst.Takes(out_count)) return "";
  for (std::uint32_t o = 0; o < out_count; ++o) {
    std::uint32_t rem = o;
    std::uint32_t off = 0;
    for (std::size_t i = 0; i < n; ++i) {
      const std::uint32_t q = out_stride[i] == 0 ? 0 : rem / out_stride[i];
      rem -= q * out_stride[i];
      off += q * in_stride[order[i]];
    }
    CopyElement(width, src, off, dst, o);
  }
  return "";
}

inline std::uint32_t OrZero(std::uint32_t dividend, std::uint32_t divisor) {
  return divisor == 0 ? 0 : dividend / divisor;
}

inline void Unpack(std::uint32_t width, const Buf& in, Bytes& src_data, Bytes& dst_data) {
  const std::uint32_t N = in.dims[0], C = in.dims[1], H = in.dims[2], W = in.dims[3];
  const auto P = static_cast<std::uint32_t>(in.format.plane_pack);
  const std::uint32_t eb = in.format.bitdepth < 8 ? 0 : static_cast<std::uint32_t>(in.format.bitdepth) / 8;
  const std::uint32_t line = OrZero(in.line_stride, eb);
  const std::uint32_t plane_pad = OrZero(in.plane_stride - in.line_stride * H, eb);
  std::uint32_t src = 0;
  for (std::uint32_t n = 0; n < N; ++n) {
    for (std::uint32_t c0 = 0; c0 < C; c0 += P) {
      for (std::uint32_t h = 0; h < H && src_data.InTest(); ++h) {
        for (std::uint32_t w = 0; w < W; ++w) {
          for (std::uint32_t p = 0; p < std::min(P, C - c0); ++p) {
            CopyElement(width, src_data, std::uint64_t{src} + p, dst_data,
                        n * C * H * W + (h * W + w) * C + c0 + p);
          }
          src += P;
        }
        while (line != 0 && src % line != 0) ++src;
      }
      src += plane_pad;
    }
  }
}

inline bool IsEmpty(const Buf& b) { return std::count(b.dims.begin(), b.dims.end(), 0U) != 0; }

inline std::string Pack(std::uint32_t width, const Buf& in, Bytes& src_data, const Buf& out,
                        Bytes& dst_data) {
  if (in.dims.size() < 3 || out.dims.size() < 4) return kOwnText;
  if (out.line_stride % width != 0) return "Unsupported stride in PackToNchw().";
  if (IsEmpty(out)) return "";
  if (out.format.plane_pack < 1) return kOwnText;
  const std::uint32_t N = out.dims[0], C = out.dims[1], H = out.dims[2], W = out.dims[3];
  const auto P = static_cast<std::uint32_t>(out.format.plane_pack);
  const std::uint32_t out_line = out.line_stride / width;
  const std::uint32_t row = P * W;
  std::uint32_t line_pad = 0;
  if (out_line >= row) {
    line_pad = out_line - row;
  } else {
    const std::uint32_t quotient = out_line == 0 ? 0 : row / out_line;
    line_pad = out_line - (row - quotient * out_line);
  }
  const std::uint32_t plane_pad = out.plane_stride / width - out_line * H;
  const std::uint32_t in_plane = in.plane_stride / width;
  const std::uint32_t in_row_pad = in_plane - (in.line_stride / width) * in.dims[2];
  const auto in_test = [&] { return src_data.InTest() && dst_data.InTest(); };

  std::uint32_t src = 0;
  std::uint32_t dst = 0;
  if (P == C) {
    for (std::uint32_t n = 0; n < N; ++n) {
      for (std::uint32_t h = 0; h < H && in_test(); ++h) {
        for (std::uint32_t i = 0; i < row; ++i) {
          CopyElement(width, src_data, std::uint64_t{src} + i, dst_data, std::uint64_t{dst} + i);
        }
        src += row + in_row_pad;
        dst += row + line_pad;
      }
      dst += plane_pad;
    }
  } else if (P == 1 && P < C) {
    for (std::uint32_t n = 0; n < N; ++n) {
      for (std::uint32_t c = 0; c < C; ++c) {
        for (std::uint32_t h = 0; h < H && in_test(); ++h) {
          for (std::uint32_t w = 0; w < W; ++w) {
            CopyElement(width, src_data, n * in_plane * in.dims[1] + h * in_plane + w * C + c, dst_data,
                        dst++);
          }
          dst += out_line - W;
        }
        dst += plane_pad;
      }
    }
  } else if (P < C) {
    for (std::uint32_t n = 0; n < N; ++n) {
      for (std::uint32_t c0 = 0; c0 < C; c0 += P) {
        for (std::uint32_t h = 0; h < H && in_test(); ++h) {
          for (std::uint32_t w = 0; w < W; ++w) {
            const std::uint32_t from = n * in_plane * in.dims[1] + c0 + h * in_plane + w * C;
            for (std::uint32_t p = 0; p < std::min(P, C - c0); ++p) {
              CopyElement(width, src_data, std::uint64_t{from} + p, dst_data, std::uint64_t{dst} + p);
            }
            dst += P;
          }
          dst += out_line - P * W;
        }
        dst += plane_pad;
      }
    }
  } else {
    for (std::uint32_t n = 0; n < N; ++n) {
      for (std::uint32_t h = 0; h < H && in_test(); ++h) {
        for (std::uint32_t w = 0; w < W; ++w) {
          for (std::uint32_t c = 0; c < C; ++c) {
            CopyElement(width, src_data, std::uint64_t{src} + c, dst_data, std::uint64_t{dst} + c);
          }
          dst += P;
          src += C;
        }
        src += in_row_pad;
        dst += line_pad;
      }
      dst += plane_pad;
    }
  }
  return "";
}

inline Buf DenseCopyOf(const Buf& b, std::uint32_t width) {
  Buf dense = b;
  dense.line_stride = dense.dims[3] * width;
  dense.plane_stride = dense.dims[2] * dense.line_stride;
  dense.format.plane_pack = 1;
  return dense;
}

inline PermuteOutcome Direct(std::uint32_t width, const std::vector<unsigned>& axes, const Buf& in,
                             Bytes& src, const Buf& out, Bytes& dst) {
  const std::string converter = "vek_datastrideconv.cpp";
  const std::uint32_t count = Product(in.dims, 0);
  const std::uint32_t bytes = count * width;
  if (!dst.Takes(in.Count() * width)) return {};
  Bytes aux_in(1);
  Bytes aux_out(2);

  const Buf dense_in = DenseCopyOf(in, width);
  const bool as_it_is = in.format.plane_pack == 1 && in.line_stride == dense_in.line_stride &&
                        in.plane_stride == dense_in.plane_stride;
  if (as_it_is && in.size < bytes) dst.Takes(Bytes::kMost + 1);  // the rest of the scratch is undefined
  std::string error = ConvertStride(src, std::min(in.size, bytes), in, aux_in, bytes, dense_in);
  if (!error.empty()) return {error, converter};
  if (aux_in.reach() > bytes) return {kOwnText};

  error = PermuteDense(width, axes, in.dims, aux_in, count, aux_out, count);
  if (!error.empty()) return {error};
  if (aux_in.reach() > bytes) return {kOwnText};

  const Buf dense_out = DenseCopyOf(out, width);
  const bool is_dense = out.format.plane_pack == 1 && out.line_stride == dense_out.line_stride &&
                        out.plane_stride == dense_out.plane_stride;
  if (!is_dense) {  // what the converter does not refuse has to fit the scratch
    Bytes trial = dst;
    Bytes permuted = aux_out;
    error = ConvertStride(permuted, bytes, dense_out, trial, out.size, out);
    if (!error.empty()) return {error, converter};
    if (out.Count() * width > bytes) return {kOwnText};
  }
  error = ConvertStride(aux_out, bytes, dense_out, dst, out.size, out);
  if (!error.empty()) return {error, converter};
  if (aux_out.reach() > bytes) return {kOwnText};
  return {};
}

// Executes a configured layer with these axes.
inline PermuteOutcome ExecutePermute(const std::vector<unsigned>& axes, const Buf& in, Bytes& src,
                                     const Buf& out, Bytes& dst) {
  const std::vector<unsigned> order = CompletedOrder(axes, in.dims.size());
  const int bits = in.format.bitdepth;
  const auto width_of = [](int bitdepth) {
    return bitdepth == 8 || bitdepth == 16 || bitdepth == 32 ? static_cast<std::uint32_t>(bitdepth) / 8 : 0;
  };
  if (order == std::vector<unsigned>{0, 2, 3, 1} && !out.IsStrided() && out.format.plane_pack == 1) {
    if (width_of(bits) == 0) return {"UnpackToNhwc() - unhandled bitdepth!"};
    if (in.dims.size() < 4) return {kOwnText};
    if (IsEmpty(in)) return {};
    if (in.format.plane_pack < 1) return {kOwnText};
    Unpack(width_of(bits), in, src, dst);
    return {};
  }
  if (order == std::vector<unsigned>{0, 3, 1, 2} && !in.IsStrided() && in.format.plane_pack == 1) {
    if (width_of(out.format.bitdepth) == 0) return {"PackToNchw() - unhandled bitdepth!"};
    return {Pack(width_of(out.format.bitdepth), in, src, out, dst)};
  }
  const auto plain_float = [](const Buf& b) {
    return b.format.float_ && !b.IsInterleaved() && !b.IsStrided();
  };
  if (plain_float(in) && plain_float(out)) {
    return {PermuteDense(4, axes, in.dims, src, in.size / 4, dst, out.size / 4)};
  }
  if (in.dims.size() != 4 || out.dims.size() != 4 || bits % 8 != 0) {
    return {"Execute() - unhandled permute case!"};
  }
  if (width_of(bits) == 0) return {"DirectAcessPermute() - unhandled bitdepth!"};
  return Direct(width_of(bits), axes, in, src, out, dst);
}

// What Configure says after its counts and the axes are fine, empty where it accepts the buffers.
inline std::string ConfigurePermute(const Buf& in, const Buf& out) {
  if (in.format.bitdepth != out.format.bitdepth) {
    return "input bitdepth: " + std::to_string(in.format.bitdepth) +
           ", differs from output bitdepth: " + std::to_string(out.format.bitdepth);
  }
  if (WantedBytes(in) > in.size) return ShortBuffer("input", in);
  if (WantedBytes(out) > out.size) return ShortBuffer("output", out);
  return "";
}

}  // namespace vek_test::reference
