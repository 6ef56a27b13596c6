// The log: threshold, level words, prefix, and what is evaluated when nothing is printed.
#include "custom_ops/zeb_log.h"

#include <gtest/gtest.h>

#include "custom_ops/vek_common.h"
#include "support/plugin.h"

namespace vek_test::zeb_log {
namespace {

// Puts the level words and the threshold back.
class LogTest : public testing::Test {
 protected:
  void SetUp() override { std::copy_n(plugin.log_str, 5, words); }
  void TearDown() override {
    std::copy_n(words, 5, plugin.log_str);
    *plugin.log_treshold = kWarning;
  }
  const Plugin& plugin = Plugin::Get();
  const char* words[5] = {};
};

Log RefusedExecute() {
  Layer layer("SOFTMAX");
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  return layer.log;
}

TEST_F(LogTest, TheThresholdBeginsAtWarning) { EXPECT_EQ(*plugin.log_treshold, 2); }

TEST_F(LogTest, TheLevelsHaveTheirWords) {
  const std::vector<std::string> expected = {"NONE", "ERROR", "WARNING", "INFO", "DEBUG"};
  EXPECT_EQ(std::vector<std::string>(plugin.log_str, plugin.log_str + 5), expected);
}

TEST_F(LogTest, EveryWordSetsItsLevel) {
  for (std::int32_t level = 0; level < 5; ++level) {
    EXPECT_EQ(CaptureLog([&] { plugin.set_log_treshold(words[level]); }), Log{});
    EXPECT_EQ(*plugin.log_treshold, level);
  }
}

TEST_F(LogTest, AnUnknownWordIsReportedAndKeepsTheThreshold) {
  const Log unknown = {{"", "", "ERROR: Unknown log treshold."}};
  for (const char* name : {"info", "INFO ", "", "ERR"}) {
    EXPECT_EQ(CaptureLog([&] { plugin.set_log_treshold(name); }), unknown) << name;
    EXPECT_EQ(*plugin.log_treshold, 2);
  }
}

TEST_F(LogTest, AnErrorPrintsFromThresholdErrorOn) {
  const Log error = {Error("vek_softmax.cpp", "Can't run Execute() without Configure()")};
  for (std::int32_t level : {-1, 0}) {
    *plugin.log_treshold = level;
    EXPECT_EQ(RefusedExecute(), Log{}) << level;
  }
  for (std::int32_t level : {1, 2, 3, 4, 5}) {
    *plugin.log_treshold = level;
    EXPECT_EQ(RefusedExecute(), error) << level;
  }
}

TEST_F(LogTest, AReplacedWordIsPrintedAndAcceptedInPlaceOfTheOld) {
  plugin.log_str[1] = "FEHLER";
  EXPECT_EQ(RefusedExecute(),
            (Log{{"FEHLER", "vek_softmax.cpp", "Can't run Execute() without Configure()"}}));

  plugin.set_log_treshold("FEHLER");
  EXPECT_EQ(*plugin.log_treshold, 1);
  *plugin.log_treshold = kWarning;
  EXPECT_EQ(CaptureLog([&] { plugin.set_log_treshold("ERROR"); }).size(), 1U);
  EXPECT_EQ(*plugin.log_treshold, 2);
}

TEST_F(LogTest, OfTwoEqualWordsTheLowerLevelWins) {
  plugin.log_str[3] = "ERROR";
  plugin.set_log_treshold("ERROR");
  EXPECT_EQ(*plugin.log_treshold, 1);
}

TEST_F(LogTest, ArgumentsAreEvaluatedOnlyForAPrintedLine) {
  Buf small = Buf::Float({1, 2, 1, 1});
  small.size = 7;
  const auto get_size_calls = [&](std::int32_t level) {
    *plugin.log_treshold = level;
    Buf::ResetCalls();
    Layer layer("SOFTMAX");
    EXPECT_FALSE(layer.Configure({}, {small}, {small}));
    return Buf::calls[kGetSize].load();
  };
  EXPECT_LT(get_size_calls(kNone), get_size_calls(kError));
}

TEST_F(LogTest, TheFormatRecordPrintsAtInfoOnly) {
  Format format = Buf::Planar(32, true);
  EXPECT_EQ(CaptureLog([&] { zeb_custom_ops::PrintMemFmt(format); }), Log{});
  *plugin.log_treshold = kInfo;
  EXPECT_EQ(
      CaptureLog([&] { zeb_custom_ops::PrintMemFmt(format); }),
      (Log{Info(
          "vek_common.cpp",
          "bitdepth=32, plane_pack=1, exp=0, signed=0, float=1, q8a=0, q8a_zero=0, q8a_scale=1.000000")}));

  format.bitdepth = -8;
  format.plane_pack = 16;
  format.exp = -3;
  format.signed_ = true;
  format.float_ = false;
  format.q8a = true;
  format.q8a_zero = 255;
  format.q8a_scale = 0.5F;
  EXPECT_EQ(CaptureLog([&] { zeb_custom_ops::PrintMemFmt(format); }),
            (Log{Info("vek_common.cpp",
                      "bitdepth=-8, plane_pack=16, exp=-3, signed=1, float=0, q8a=1, q8a_zero=255, "
                      "q8a_scale=0.500000")}));
}

}  // namespace
}  // namespace vek_test::zeb_log
