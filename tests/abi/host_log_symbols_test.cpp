// A host executable that defines the log's variables itself: its own win over the plug-in's, because the
// plug-in reaches them by name through the dynamic symbol table.
#include <gtest/gtest.h>

#include <array>

#include "support/plugin.h"

extern "C" {
std::int32_t libzeb_log_treshold = 1;
const char* libzeb_log_str[5] = {"none", "trouble", "doubt", "news", "noise"};
}

namespace vek_test {
namespace {

// What an unconfigured layer says when it is executed.
Log Complaint() {
  Layer layer("SOFTMAX");
  EXPECT_FALSE(layer.Execute({nullptr}, {nullptr}));
  return layer.log;
}

TEST(HostLogSymbols, WordsOfTheHostStandInTheLines) {
  EXPECT_EQ(Complaint(), (Log{{"trouble", "vek_softmax.cpp", "Can't run Execute() without Configure()"}}));
}

TEST(HostLogSymbols, ThresholdOfTheHostGates) {
  libzeb_log_treshold = 0;
  EXPECT_EQ(Complaint(), Log{});
  libzeb_log_treshold = 1;
}

TEST(HostLogSymbols, SetterKnowsTheHostsWordsAndWritesTheHostsThreshold) {
  Plugin::Get().set_log_treshold("news");
  EXPECT_EQ(libzeb_log_treshold, 3);
  const Log log = CaptureLog([] { Plugin::Get().set_log_treshold("ERROR"); });
  EXPECT_EQ(log, (Log{{"", "", "ERROR: Unknown log treshold."}}));
  EXPECT_EQ(libzeb_log_treshold, 3);
  Plugin::Get().set_log_treshold("trouble");
  EXPECT_EQ(libzeb_log_treshold, 1);
}

}  // namespace
}  // namespace vek_test
