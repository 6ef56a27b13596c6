// DEPTHTOSPACE: values, the kernel against its formula, what it leaves out. The rest is in block_layers_test.cpp.
#include "custom_ops/vek_depthtospace.h"

#include <gtest/gtest.h>

#include "model/vek_depthtospace.h"
#include "support/formula_check.h"

namespace vek_test::depthtospace {
namespace {

std::vector<int> BlocksOfTwo(const std::vector<unsigned>& in_dims, const std::vector<unsigned>& out_dims,
                             const std::vector<int>& values) {
  return Outputs<int>("DEPTHTOSPACE", {{"block_size", "2"}}, Buf::Int(32, in_dims), Buf::Int(32, out_dims),
                      values);
}

TEST(DepthToSpace, FourChannelsBecomeOneBlock) {
  EXPECT_EQ(BlocksOfTwo({1, 4, 1, 1}, {1, 1, 2, 2}, {0, 1, 2, 3}), (std::vector{0, 1, 2, 3}));
}

TEST(DepthToSpace, ChannelsOfTheBlockAreOutermost) {
  EXPECT_EQ(BlocksOfTwo({1, 8, 1, 1}, {1, 2, 2, 2}, {0, 1, 2, 3, 4, 5, 6, 7}),
            (std::vector{0, 2, 4, 6, 1, 3, 5, 7}));
}

TEST(DepthToSpace, PositionsBeyondTheOutputAreLeftOutWithAWarningEach) {
  const AttrMap attrs = {{"block_size", "2"}};
  const Buf in = Buf::Int(16, {1, 4, 1, 1});
  Buf out = Buf::Int(16, {1, 1, 2, 2});
  Layer layer("DEPTHTOSPACE");
  ASSERT_TRUE(layer.Configure(attrs, {in}, {out}));
  out.dims = {1, 1, 2, 1};  // refused, but kept
  EXPECT_FALSE(layer.Configure(attrs, {in}, {out}));
  const GuardedBuffer from = Guarded<short>({1, 2, 3, 4});
  const GuardedBuffer to = Guarded<short>({-1, -1});
  EXPECT_TRUE(layer.Execute({from.data()}, {to.data()}));
  EXPECT_EQ(layer.log, (Log(2, Warning("ext_depthtospace.cpp", "buffer overflow attempt"))));
  EXPECT_EQ(to.Get<short>(), (std::vector<short>{1, 2}));
  EXPECT_EQ(from.Get<short>(), (std::vector<short>{1, 2, 3, 4}));

  const ScopedThreshold errors_only(kError);
  EXPECT_TRUE(layer.Execute({from.data()}, {to.data()}));
  EXPECT_EQ(layer.log, Log{});
}

TEST(DepthToSpace, CountsWrapIn32Bits) {
  // 65536 * 65536 elements are none.
  const Buf in = Buf::Int(8, {65536, 65536, 1, 1});
  const Log log = CaptureLog([&] { zeb_custom_ops::depthtospace<char>(nullptr, nullptr, 1, in, in); });
  EXPECT_EQ(log, Log{});
  // The output's count is signed: 2^31 elements are fewer than none.
  const Buf small = Buf::Int(8, {1, 1, 1, 1});
  Buf out = small;
  out.dims = {1, 1, 0x10000, 0x8000};
  char value = 1;
  const Log skipped = CaptureLog([&] { zeb_custom_ops::depthtospace<char>(nullptr, &value, 1, small, out); });
  EXPECT_EQ(skipped, (Log{Warning("ext_depthtospace.cpp", "buffer overflow attempt")}));
}

TEST(DepthToSpace, TheKernelEqualsTheFormula) {
  ForWidths([](auto element) {
    using T = decltype(element);
    Random random(4);
    for (int b = 1; b <= 5; ++b) {
      SCOPED_TRACE(std::to_string(sizeof(T)) + " bytes, block " + std::to_string(b));
      const auto block = static_cast<unsigned>(b);
      ForShapes([&](unsigned N, unsigned C, unsigned H, unsigned W) {
        const Buf in = Buf::Int(8, {N, C * block * block, H, W});
        const Buf out = Buf::Int(8, {N, C, H * block, W * block});
        ExpectSameBytes(
            random,
            [&](auto& from, auto& to) {
              vek_model::DepthToSpace(sizeof(T), b, vek_model::Shape(in), vek_model::Shape(out), from, to);
            },
            [&](void* from, void* to) {
              zeb_custom_ops::depthtospace(static_cast<T*>(to), static_cast<T*>(from), b, in, out);
            });
      });
    }
  });
}

}  // namespace
}  // namespace vek_test::depthtospace
