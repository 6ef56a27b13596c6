// Layer type "RESHAPE": reshape and pixel shuffle.
#include "custom_ops/vek_reshape.h"

#include "contract/attr_text.h"
#include "contract/checks.h"
#include "contract/element.h"
#include "contract/positions.h"
#include "contract/shape.h"
#include "contract/sizes.h"
#include "copy/runs.h"
#include "kernels/pixel_shuffle.h"

namespace zeb_custom_ops {

using detail::AsInt;
using detail::Fits;
using detail::Saturating;

const std::string VekReshape::k_expected_attr_ = "pixelshuffler";

namespace {

// A factor that no shuffle has: one below 1, or one whose square, by which the kernel divides, is 0 in 32 bits.
bool IsNoFactor(int factor) {
  const unsigned r = static_cast<unsigned>(factor);
  return factor < 1 || r * r == 0;
}

// Planar, with rows that end where their elements end.
bool IsPacked(const zeb::PuxDnnBufAttrsMemFormat& format, const std::vector<unsigned>& dims,
              const zeb::PuxDnnBufAttrs& attrs) {
  return format.plane_pack == 1 && !dims.empty() &&
         dims.back() * static_cast<unsigned>(format.bitdepth) / 8 == attrs.GetLineStride();
}

}  // namespace

bool VekReshape::Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) {
  VEK_REQUIRE(attrs.size() == 1, "expected 1 attribute, but got %zu", attrs.size());
  const std::string* factor = detail::Find(attrs, k_expected_attr_);
  VEK_REQUIRE(factor != nullptr, "expected attribute: %s, got: %s", k_expected_attr_.c_str(),
              attrs.begin()->first.c_str());
  // Deliberate: the factor is stored before any buffer is checked; a refused Configure leaves the new one in
  // place.
  pixelshuffler_ = detail::ToInt(*factor);

  VEK_REQUIRE(inputs.size() == 1 && outputs.size() == 1,
              "expected one input and one output, got: %d inputs, %d outputs", AsInt(inputs.size()),
              AsInt(outputs.size()));
  const zeb::PuxDnnBufAttrs& in = *inputs[0];
  const zeb::PuxDnnBufAttrs& out = *outputs[0];

  // Deliberate: elements are compared with bytes, whatever the element's width.
  const std::uint64_t in_count = detail::Elements64(in.GetDims());
  VEK_REQUIRE(in_count <= in.GetSize(), "Input buf size should be at least %d, but is %d", AsInt(in_count),
              AsInt(in.GetSize()));
  const std::uint64_t out_count = detail::Elements64(out.GetDims());
  VEK_REQUIRE(out_count <= out.GetSize(), "Output buf size should be at least %d, but is %d",
              AsInt(out_count), AsInt(out.GetSize()));

  VEK_REQUIRE(!IsNoFactor(pixelshuffler_),
              "pixelshuffler = %d, but should be at least 1 and no multiple of 65536", pixelshuffler_);

  in_attrs_ = in.Clone();
  out_attrs_ = out.Clone();
  configured_ = true;
  return true;
}

bool VekReshape::Execute(void** in_buffers, void** out_buffers) {
  VEK_REQUIRE(configured_, "Can't run Execute() without Configure()");
  VEK_REQUIRE(in_buffers != nullptr, "Input buffer is NULL");
  VEK_REQUIRE(out_buffers != nullptr, "Output buffer is NULL");
  VEK_REQUIRE(in_attrs_ != nullptr, "input buffer attrs are NULL");
  VEK_REQUIRE(out_attrs_ != nullptr, "output buffer attrs are NULL");

  const zeb::PuxDnnBufAttrsMemFormat in_format = in_attrs_->GetMemFormat();
  const zeb::PuxDnnBufAttrsMemFormat out_format = out_attrs_->GetMemFormat();
  const std::vector<unsigned> in_dims = in_attrs_->GetDims();
  const std::vector<unsigned> out_dims = out_attrs_->GetDims();
  const std::uint32_t in_count = detail::Elements32(in_dims);
  const std::uint32_t out_count = detail::Elements32(out_dims);

  VEK_REQUIRE(in_format.bitdepth == out_format.bitdepth,
              " RESHAPE expected bitdepth of input and output to match");
  const bool in_packed = IsPacked(in_format, in_dims, *in_attrs_);
  const bool out_packed = IsPacked(out_format, out_dims, *out_attrs_);

  if (in_count != out_count) {
    VEK_REQUIRE(in_packed || out_packed,
                " RESHAPE input and output size must match,  in_size != out_size (%d != %d)", AsInt(in_count),
                AsInt(out_count));
    VEK_REQUIRE(false, "can't calculate Reshape");
  }

  if (pixelshuffler_ == 1) {
    return detail::DispatchWidth(
        in_format.bitdepth,
        [&](auto width) {
          using T = decltype(width);
          const auto* in = static_cast<const T*>(in_buffers[0]);
          auto* out = static_cast<T*>(out_buffers[0]);
          if (out != in) detail::CopyRun(out, in, in_count);
          return true;
        },
        [&] {
          VEK_LOG_ERROR("unhandled bitdepth (%db)", in_format.bitdepth);
          VEK_LOG_ERROR("can't calculate Reshape");
          return false;
        });
  }

  // Deliberate: an input with padded rows or several channels per plane goes through the 32-bit kernel
  // whatever its elements are, and a width that no kernel has leaves the output alone.
  const int bitdepth = in_packed ? in_format.bitdepth : 32;
  return detail::DispatchWidth(
      bitdepth,
      [&](auto width) {
        using T = decltype(width);
        // A refused Configure may have left such a factor behind; without items or channels nothing divides by it.
        VEK_REQUIRE(
            !IsNoFactor(pixelshuffler_) || in_attrs_->GetBatch() == 0 || in_attrs_->GetChannels() == 0,
            "can't calculate Reshape");
        pixelshuffle(static_cast<T*>(out_buffers[0]), static_cast<T*>(in_buffers[0]), pixelshuffler_,
                     *in_attrs_);
        return true;
      },
      [] { return true; });
}

template <typename T>
void pixelshuffle(T* out, T* in, int factor, const zeb::PuxDnnBufAttrs& in_attrs) {
  const auto [N, C, H, W] = detail::Shape(in_attrs);
  const unsigned r = static_cast<unsigned>(factor);
  if (N == 0 || C == 0) return;
  const kernels::PixelShuffleShape shape = {N, C, H, W, r};

  // Whole groups of r * r channels, and no position wraps.
  // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): Execute refuses a factor whose square is 0
  if (Fits(Saturating(r) * r) && C % (r * r) == 0 && Fits(Saturating(N) * C * H * W)) {
    kernels::PixelShuffle(out, in, shape);
  } else {
    kernels::PlainPixelShuffle(out, in, shape);
  }
}

template void pixelshuffle<int>(int*, int*, int, const zeb::PuxDnnBufAttrs&);
template void pixelshuffle<short>(short*, short*, int, const zeb::PuxDnnBufAttrs&);
template void pixelshuffle<char>(char*, char*, int, const zeb::PuxDnnBufAttrs&);

}  // namespace zeb_custom_ops
