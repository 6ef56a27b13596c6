// The reference host: its descriptions, and packing by them.
#include <gtest/gtest.h>

#include <stdexcept>

#include "host/buf_attrs.h"
#include "host/layout.h"
#include "host/plugin.h"

namespace {

using vek_host::BufAttrs;
using Dims = std::vector<unsigned>;

zeb::PuxDnnBufAttrsMemFormat Format(int bits, int pack) {
  zeb::PuxDnnBufAttrsMemFormat format;
  format.bitdepth = bits;
  format.plane_pack = pack;
  return format;
}

TEST(BufAttrs, DensePlanarStridesFollowFromTheShape) {
  const BufAttrs attrs({2, 3, 4, 5}, Format(16, 1));
  EXPECT_EQ(attrs.GetLineStride(), 10U);
  EXPECT_EQ(attrs.GetPlaneStride(), 40U);
  EXPECT_EQ(attrs.GetSize(), 240U);
  EXPECT_FALSE(attrs.IsStrided());
  EXPECT_FALSE(attrs.IsInterleaved());
  EXPECT_EQ(attrs.GetStrides(), (Dims{240, 120, 40, 10}));
}

TEST(BufAttrs, InterleavedPlanesHoldWholePacks) {
  const BufAttrs attrs({2, 5, 3, 2}, Format(8, 4));
  EXPECT_EQ(attrs.GetLineStride(), 8U);
  EXPECT_EQ(attrs.GetPlaneStride(), 24U);
  EXPECT_EQ(attrs.PlanesPerItem(), 2U);
  EXPECT_EQ(attrs.GetSize(), 96U);
  EXPECT_TRUE(attrs.IsInterleaved());
  EXPECT_FALSE(attrs.IsStrided());
}

TEST(BufAttrs, SettersDescribeAnotherLayoutOfTheSameTensor) {
  BufAttrs attrs({1, 6, 2, 3}, Format(8, 4));
  attrs.SetLineStride(16);
  EXPECT_TRUE(attrs.IsStrided());
  attrs.SetPlaneStride(40);
  EXPECT_EQ(attrs.GetSize(), 80U);
  const auto clone = attrs.Clone();
  clone->SetLineStride(3);
  clone->SetPlaneStride(6);
  clone->SetPlanePack(1);
  EXPECT_FALSE(clone->IsStrided());
  EXPECT_FALSE(clone->IsInterleaved());
  EXPECT_EQ(clone->GetSize(), 36U);
  EXPECT_EQ(attrs.GetSize(), 80U);  // the clone is a copy of its own
}

TEST(BufAttrs, AccessorsLookFromTheInnermostDimensionOutwards) {
  const auto sizes = [](const Dims& dims) {
    const BufAttrs attrs(dims, Format(8, 1));
    EXPECT_EQ(attrs.GetNumDims(), dims.size());
    EXPECT_EQ(attrs.GetDims(), dims);
    return Dims{attrs.GetBatch(), attrs.GetChannels(), attrs.GetHeight(), attrs.GetWidth()};
  };
  EXPECT_EQ(sizes({}), (Dims{1, 1, 1, 1}));
  EXPECT_EQ(sizes({7}), (Dims{1, 1, 1, 7}));
  EXPECT_EQ(sizes({2, 3}), (Dims{1, 1, 2, 3}));
  EXPECT_EQ(sizes({2, 3, 4, 5}), (Dims{2, 3, 4, 5}));
  EXPECT_EQ(sizes({2, 3, 4, 5, 6}), (Dims{6, 4, 5, 6}));
}

TEST(BufAttrs, PlanePaddingShowsInTheDimensionOutsideTheRows) {
  BufAttrs attrs({3, 2, 5}, Format(8, 1));
  attrs.SetLineStride(8);
  attrs.SetPlaneStride(20);
  EXPECT_EQ(attrs.GetStrides(), (Dims{3 * 16 + 4, 16, 8}));
}

TEST(Layout, PackAndUnpackFollowTheMemoryWalk) {
  BufAttrs attrs({2, 5, 2, 3}, Format(16, 4));
  attrs.SetLineStride(32);
  attrs.SetPlaneStride(80);
  std::vector<std::uint16_t> dense(60);
  for (std::size_t i = 0; i < dense.size(); ++i) dense[i] = static_cast<std::uint16_t>(i + 1);
  std::vector<std::uint16_t> buffer(attrs.GetSize() / 2, 0xEEEE);
  vek_host::Pack(attrs, reinterpret_cast<const std::byte*>(dense.data()),
                 reinterpret_cast<std::byte*>(buffer.data()));

  std::vector<std::uint16_t> expected(buffer.size(), 0xEEEE);
  for (unsigned n = 0; n < 2; ++n) {
    for (unsigned c = 0; c < 5; ++c) {
      for (unsigned h = 0; h < 2; ++h) {
        for (unsigned w = 0; w < 3; ++w) {
          const unsigned bytes = (n * 2 + c / 4) * 80 + h * 32;
          expected[bytes / 2 + w * 4 + c % 4] = dense[((n * 5 + c) * 2 + h) * 3 + w];
        }
      }
    }
  }
  EXPECT_EQ(buffer, expected);

  std::vector<std::uint16_t> again(60);
  vek_host::Unpack(attrs, reinterpret_cast<const std::byte*>(buffer.data()),
                   reinterpret_cast<std::byte*>(again.data()));
  EXPECT_EQ(again, dense);
}

TEST(Plugin, LoadsServesLayersAndSaysWhatIsMissing) {
  const vek_host::Plugin plugin(VEK_PLUGIN_PATH);
  plugin.SetLogThreshold("WARNING");
  EXPECT_NE(plugin.MakeLayer("SOFTMAX"), nullptr);
  EXPECT_EQ(plugin.MakeLayer("softmax"), nullptr);
  EXPECT_THROW(vek_host::Plugin("./none.so"), std::runtime_error);
  EXPECT_THROW(vek_host::Plugin("libm.so.6"), std::runtime_error);  // a library, but no plug-in
}

}  // namespace
