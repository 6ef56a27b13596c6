// The factory: sixteen names, compared exactly, each with its class.
#include <gtest/gtest.h>

#include <typeinfo>

#include "custom_ops/vek_argmax.h"
#include "custom_ops/vek_batchtospace.h"
#include "custom_ops/vek_broadcast.h"
#include "custom_ops/vek_concat.h"
#include "custom_ops/vek_datastrideconv.h"
#include "custom_ops/vek_depthtospace.h"
#include "custom_ops/vek_ewo.h"
#include "custom_ops/vek_gather.h"
#include "custom_ops/vek_l2norm.h"
#include "custom_ops/vek_matmul.h"
#include "custom_ops/vek_pad.h"
#include "custom_ops/vek_permute.h"
#include "custom_ops/vek_reshape.h"
#include "custom_ops/vek_softmax.h"
#include "custom_ops/vek_spacetobatch.h"
#include "custom_ops/vek_spacetodepth.h"
#include "support/plugin.h"

namespace vek_test::factory {
namespace {

using namespace zeb_custom_ops;

template <typename Op>
void ExpectMakes(const std::string& name) {
  zeb::PuxDnnCustomLayer* layer = Plugin::Get().create_object(name);
  ASSERT_NE(layer, nullptr) << name;
  EXPECT_EQ(typeid(*layer), typeid(Op)) << name;
  Plugin::Get().destroy_object(layer);
}

TEST(Factory, EveryNameMakesItsClass) {
  ExpectMakes<VekSoftmax>("SOFTMAX");
  ExpectMakes<VekDataStrideConv>("DATA_STRIDE_CONV");
  ExpectMakes<VekReshape>("RESHAPE");
  ExpectMakes<VekBroadcast>("BROADCAST");
  ExpectMakes<VekArgmax>("ARGMAX");
  ExpectMakes<VekL2Norm>("NORMALIZE");
  ExpectMakes<VekMatmul>("MATMUL");
  ExpectMakes<VekPermute>("PERMUTE");
  ExpectMakes<VekConcat>("SWCONCAT");
  ExpectMakes<VekDepthToSpace>("DEPTHTOSPACE");
  ExpectMakes<VekPad>("PAD");
  ExpectMakes<VekGather>("GATHER");
  ExpectMakes<VekEwo>("ELTWISE");
  ExpectMakes<VekSpaceToBatch>("SPACETOBATCH");
  ExpectMakes<VekSpaceToDepth>("SPACETODEPTH");
  ExpectMakes<VekBatchToSpace>("BATCHTOSPACE");
}

TEST(Factory, AnyOtherNameGivesNullAndSaysNothing) {
  for (const std::string name : {"softmax", "SOFTMAX ", " SOFTMAX", "", "SOFT", "CONCAT", "L2NORM", "EWO"}) {
    const Log log = CaptureLog([&] { EXPECT_EQ(Plugin::Get().create_object(name), nullptr) << name; });
    EXPECT_EQ(log, Log{});
  }
  EXPECT_EQ(Plugin::Get().create_object(std::string("SOFTMAX\0", 8)), nullptr);
}

TEST(Factory, DestroyingNullDoesNothing) { Plugin::Get().destroy_object(nullptr); }

}  // namespace
}  // namespace vek_test::factory
