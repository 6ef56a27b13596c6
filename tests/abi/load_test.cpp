// Loading as a runtime does it: by name, without having linked the library; and unloading again.
#include <gtest/gtest.h>

#include "support/plugin.h"

namespace vek_test {
namespace {

bool IsLoaded() {
  void* handle = dlopen(VEK_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

TEST(Load, OpensRunsAndClosesAgainAndAgain) {
  ASSERT_FALSE(IsLoaded()) << "this program must not link the library";
  for (int round = 0; round < 3; ++round) {
    const Plugin plugin = Plugin::Open(VEK_PLUGIN_PATH);
    EXPECT_EQ(*plugin.log_treshold, kWarning) << "a fresh copy each time";
    EXPECT_STREQ(plugin.log_str[1], "ERROR");
    plugin.set_log_treshold("DEBUG");
    EXPECT_EQ(*plugin.log_treshold, kDebug);

    zeb::PuxDnnCustomLayer* layer = plugin.create_object("SOFTMAX");
    ASSERT_NE(layer, nullptr);
    {
      BufAttrsList in = MakeList({Buf::Float({1, 2, 1, 1})});
      BufAttrsList out = MakeList({Buf::Float({1, 2, 1, 1})});
      EXPECT_TRUE(layer->Configure({{"axis", "1"}}, in, out));
    }
    float data[2] = {3, 3};
    void* buffer = data;
    EXPECT_TRUE(layer->Execute(&buffer, &buffer));
    EXPECT_EQ(data[0], 0.5F);
    EXPECT_EQ(data[1], 0.5F);
    plugin.destroy_object(layer);

    EXPECT_EQ(dlclose(plugin.handle), 0);
    EXPECT_FALSE(IsLoaded());
  }
}

}  // namespace
}  // namespace vek_test
