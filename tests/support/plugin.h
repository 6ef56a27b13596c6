// The plug-in as a host sees it: opened by path, layers made by name and driven through their virtual
// functions.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/fake_buf_attrs.h"
#include "support/log_capture.h"

namespace vek_test {

struct Plugin {
  void* handle = nullptr;
  zeb::PuxDnnCustomLayer* (*create_object)(const std::string&) = nullptr;
  void (*destroy_object)(zeb::PuxDnnCustomLayer*) = nullptr;
  void (*set_log_treshold)(const char*) = nullptr;
  std::int32_t* log_treshold = nullptr;
  const char** log_str = nullptr;

  // The library under test, opened once for the process: the one that was built, or that VEK_PLUGIN in the environment
  // names, which stands in front of it.
  static const Plugin& Get() {
    const char* other = std::getenv("VEK_PLUGIN");
    static const Plugin plugin = Open(other != nullptr ? other : VEK_PLUGIN_PATH);
    return plugin;
  }

  static Plugin Open(const char* path) {
    Plugin plugin;
    plugin.handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (plugin.handle == nullptr) {
      ADD_FAILURE() << dlerror();
      std::abort();
    }
    plugin.Find("create_object", plugin.create_object);
    plugin.Find("destroy_object", plugin.destroy_object);
    plugin.Find("set_log_treshold", plugin.set_log_treshold);
    plugin.FindFirst("libzeb_log_treshold", plugin.log_treshold);
    plugin.FindFirst("libzeb_log_str", plugin.log_str);
    return plugin;
  }

 private:
  // A variable of the log: where the program links the library, the library's, whichever plug-in was opened.
  template <typename Pointer>
  void FindFirst(const char* name, Pointer& pointer) const {
    pointer = reinterpret_cast<Pointer>(dlsym(RTLD_DEFAULT, name));
    if (pointer == nullptr) Find(name, pointer);
  }
  template <typename Pointer>
  void Find(const char* name, Pointer& pointer) const {
    pointer = reinterpret_cast<Pointer>(dlsym(handle, name));
    EXPECT_NE(pointer, nullptr) << name;
  }
};

enum Level : std::int32_t { kNone, kError, kWarning, kInfo, kDebug };

// Sets the log threshold for a scope.
class ScopedThreshold {
 public:
  explicit ScopedThreshold(std::int32_t level) : before_(*Plugin::Get().log_treshold) {
    *Plugin::Get().log_treshold = level;
  }
  ScopedThreshold(const ScopedThreshold&) = delete;
  ScopedThreshold& operator=(const ScopedThreshold&) = delete;
  ~ScopedThreshold() { *Plugin::Get().log_treshold = before_; }

 private:
  std::int32_t before_;
};

// One layer. `log` holds what the last call printed.
class Layer {
 public:
  explicit Layer(const std::string& type) : layer_(Plugin::Get().create_object(type)) {
    EXPECT_NE(layer_, nullptr) << type;
  }
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;
  ~Layer() { Plugin::Get().destroy_object(layer_); }

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& inputs, const std::vector<Buf>& outputs) {
    const BufAttrsList in = MakeList(inputs);
    const BufAttrsList out = MakeList(outputs);
    return Captured([&] { return layer_->Configure(attrs, in, out); });
  }
  bool Execute(std::vector<void*> inputs, std::vector<void*> outputs) {
    return ExecuteRaw(inputs.data(), outputs.data());
  }
  bool ExecuteRaw(void** inputs, void** outputs) {
    return Captured([&] { return layer_->Execute(inputs, outputs); });
  }

  zeb::PuxDnnCustomLayer* get() { return layer_; }

  Log log;

 private:
  template <typename Call>
  bool Captured(Call&& call) {
    log.clear();
    LogCapture capture;
    const bool result = call();
    log = capture.Stop();
    return result;
  }
  zeb::PuxDnnCustomLayer* layer_;
};

}  // namespace vek_test
