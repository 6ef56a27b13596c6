#include "record/real_library.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "custom_ops/zeb_log.h"
#include "host/name_table.h"
#include "record/log_lines.h"
#include "record/quiet.h"

namespace vek_record {
namespace {

// --- Loading. Without allocating: where memory does not suffice for a recording, there is still a layer.

const char g_here = 0;  // an address in this library, whoever else defines its exported names

RealLibrary g_real;  // a plain record: nothing of it is destroyed before the last layer of a host that exits

// Where the library is, by the rules of `Get`.
struct LibraryPath {
  LibraryPath() {
    Dl_info self{};
    if (const char* chosen = std::getenv("VEKRECORD_LIBRARY"); chosen != nullptr && *chosen != '\0') {
      Set("", 0, chosen);
    } else if (dladdr(&g_here, &self) != 0) {
      const char* slash = std::strrchr(self.dli_fname, '/');
      const std::size_t folder_length =
          slash == nullptr ? 0 : static_cast<std::size_t>(slash + 1 - self.dli_fname);
      Set(self.dli_fname, folder_length, "libvekcustom.real.so");
      if (access(text, F_OK) != 0) Set(self.dli_fname, folder_length, "libvekcustom.so");
    }
  }
  void Set(const char* folder, std::size_t folder_length, const char* name) {
    std::snprintf(text, sizeof text, "%.*s%s", static_cast<int>(folder_length), folder, name);
  }
  char text[4096] = "";
};

template <typename Function>
bool Resolve(void* library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(dlsym(library, name));
  return function != nullptr;
}

// What the library prints passes through the recorder from now on; false where it prints by other ways than ours does.
bool Hear(const vek_host::NameTable& table) {
  int heard = table.Bind("printf", reinterpret_cast<void*>(&PrintHeard));
  heard += table.Bind("__printf_chk", reinterpret_cast<void*>(&PrintCheckedHeard));
  table.Bind("puts", reinterpret_cast<void*>(&PutsHeard));
  return heard != 0;
}

// False where there is no such library; dlerror() then says why.
bool Load(RealLibrary& real) {
  void* library = dlopen(LibraryPath().text, RTLD_NOW | RTLD_LOCAL);
  link_map* map = nullptr;
  if (library == nullptr || dlinfo(library, RTLD_DI_LINKMAP, &map) != 0 ||
      !Resolve(library, "create_object", real.create_object) ||
      !Resolve(library, "destroy_object", real.destroy_object) ||
      !Resolve(library, "set_log_treshold", real.set_log_treshold)) {
    return false;
  }
  real.path = map->l_name;

  const vek_host::NameTable table(*map);
  if (table.Bind("libzeb_log_treshold", &libzeb_log_treshold) == 0 ||
      table.Bind("libzeb_log_str", &libzeb_log_str) == 0) {
    Say("the log's threshold and words stay the library's own: %s does not refer to them by name", real.path);
  }
  if (Recording::IsOn()) {
    real.log_is_heard = Hear(table);
    Dl_info other{};
    if (const void* function = table.TakenElsewhere();
        function != nullptr &&
        dladdr1(function, &other, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) != 0) {
      real.log_is_heard = Hear(vek_host::NameTable(*map)) && real.log_is_heard;
      real.path = *map->l_name != '\0' ? map->l_name : "/proc/self/exe";
      Say("the layers are those of %s, which the process had loaded for all", real.path);
    }
    Recording::Try([&] { real.file = DumpFile(real.path); });
  }
  return true;
}

// Whether the library that was loaded is this one, by mistake: calls would go round in a circle.
bool IsThisOne(const RealLibrary& real) {
  Dl_info self{};
  Dl_info other{};
  return dladdr(&g_here, &self) != 0 && dladdr(reinterpret_cast<void*>(real.create_object), &other) != 0 &&
         self.dli_fbase == other.dli_fbase;
}

}  // namespace

const RealLibrary* RealLibrary::Get() {
  static const bool is_loaded = [] {
    const Quiet quiet;
    Recording::Start();
    if (!Load(g_real)) {
      const char* reason = dlerror();
      Say("there are no layers: %s", reason == nullptr ? "" : reason);
      return false;
    }
    if (IsThisOne(g_real)) {
      Say("there are no layers: %s is the recorder itself; name the library in VEKRECORD_LIBRARY",
          g_real.path);
      return false;
    }
    return true;
  }();
  return is_loaded ? &g_real : nullptr;
}

}  // namespace vek_record
