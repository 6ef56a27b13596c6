#include "kernels/concat.h"

#include <algorithm>

#include "copy/runs.h"
#include "kernels/tensor.h"

namespace zeb_custom_ops::kernels {

template <typename T>
void PlainConcat(T* out, std::span<const Slab<T>> slabs, const ConcatRows& rows) {
  for (std::uint64_t o = 0; o < rows.outer; ++o) {
    auto dst = static_cast<unsigned>(o * rows.row + rows.offset);
    for (const Slab<T>& slab : slabs) {
      auto src = static_cast<unsigned>(o * slab.count);
      for (unsigned i = 0; i < slab.count; ++i) out[dst++] = slab.data[src++];
    }
  }
}

template <typename T>
void Concat(T* out, std::span<const Slab<T>> slabs, const ConcatRows& rows) {
  // Rows are taken in blocks, so that the output's lines stay in the cache while all slabs are written to them.
  constexpr std::uint64_t kBlockBytes = 16384;
  const std::uint64_t row = rows.row;
  const std::uint64_t block =
      std::max<std::uint64_t>(1, kBlockBytes / std::max<std::uint64_t>(1, row * sizeof(T)));
  for (std::uint64_t o = 0; o < rows.outer; o += block) {
    const std::uint64_t count = std::min(block, rows.outer - o);
    T* dst = out + (o * row + rows.offset);
    for (const Slab<T>& slab : slabs) {
      const std::size_t bytes = slab.count * sizeof(T);
      const bool is_row = slab.count == rows.row;  // they touch
      detail::CopyRows(reinterpret_cast<std::byte*>(dst),
                       reinterpret_cast<const std::byte*>(slab.data + o * slab.count),
                       MakeLoop(is_row ? 1 : count, bytes, row * sizeof(T)), is_row ? count * bytes : bytes);
      dst += slab.count;
    }
  }
}

template void PlainConcat<float>(float*, std::span<const Slab<float>>, const ConcatRows&);
template void PlainConcat<unsigned short>(unsigned short*, std::span<const Slab<unsigned short>>,
                                          const ConcatRows&);
template void PlainConcat<unsigned char>(unsigned char*, std::span<const Slab<unsigned char>>,
                                         const ConcatRows&);
template void Concat<float>(float*, std::span<const Slab<float>>, const ConcatRows&);
template void Concat<unsigned short>(unsigned short*, std::span<const Slab<unsigned short>>,
                                     const ConcatRows&);
template void Concat<unsigned char>(unsigned char*, std::span<const Slab<unsigned char>>, const ConcatRows&);

}  // namespace zeb_custom_ops::kernels
