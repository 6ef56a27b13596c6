#include "host/plugin.h"

#include <dlfcn.h>
#include <link.h>

#include <stdexcept>

namespace vek_host {
namespace {

void* Open(const std::string& path) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(dlerror());
  return library;
}

template <typename Function>
void Resolve(void* library, const char* name, Function** function) {
  *function = reinterpret_cast<Function*>(dlsym(library, name));
  if (*function == nullptr) throw std::runtime_error(dlerror());
}

}  // namespace

Plugin::Plugin(const std::string& path) : library_(Open(path), dlclose) {
  Resolve(library_.get(), "create_object", &create_object_);
  Resolve(library_.get(), "destroy_object", &destroy_object_);
  Resolve(library_.get(), "set_log_treshold", &set_log_treshold_);
}

std::string Plugin::Path() const {
  link_map* map = nullptr;
  if (dlinfo(library_.get(), RTLD_DI_LINKMAP, &map) != 0) throw std::runtime_error(dlerror());
  return map->l_name;
}

}  // namespace vek_host
