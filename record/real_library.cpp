#include "record/real_library.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "custom_ops/zeb_log.h"
#include "record/log_lines.h"
#include "record/quiet.h"

namespace vek_record {
namespace {

// --- Names in a loaded library's table.
//
// A library reaches what other libraries may define through a table of addresses, one entry for each name, which the
// dynamic loader has filled. Writing another address there is what the loader does where a name is found elsewhere
// first; it concerns this library alone, and its file stays as it is. docs/decisions.md has what was refused for it.

struct Segments {
  ElfW(Addr) base = 0;
  const ElfW(Dyn) * dynamic = nullptr;
  ElfW(Addr) read_only = 0;  // the part of the table that is write-protected after loading
  std::size_t read_only_bytes = 0;
};

int FindSegments(dl_phdr_info* info, std::size_t /*bytes*/, void* result) {
  auto& segments = *static_cast<Segments*>(result);
  const ElfW(Dyn)* dynamic = nullptr;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    if (header.p_type == PT_DYNAMIC) {
      dynamic = reinterpret_cast<const ElfW(Dyn)*>(info->dlpi_addr + header.p_vaddr);
    }
  }
  if (dynamic != segments.dynamic) return 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    if (header.p_type != PT_GNU_RELRO) continue;
    segments.read_only = info->dlpi_addr + header.p_vaddr;
    segments.read_only_bytes = header.p_memsz;
  }
  return 1;
}

bool FillsAnEntry(std::uint64_t type) {
#if defined(__aarch64__)
  return type == R_AARCH64_GLOB_DAT || type == R_AARCH64_JUMP_SLOT || type == R_AARCH64_ABS64;
#elif defined(__x86_64__)
  return type == R_X86_64_GLOB_DAT || type == R_X86_64_JUMP_SLOT || type == R_X86_64_64;
#else
#error "this processor's relocations are not known"
#endif
}

class Table {
 public:
  explicit Table(const link_map& library) {
    segments_.base = library.l_addr;
    segments_.dynamic = library.l_ld;
    dl_iterate_phdr(FindSegments, &segments_);
    std::size_t list_bytes[2] = {};
    for (const ElfW(Dyn)* entry = library.l_ld; entry->d_tag != DT_NULL; ++entry) {
      switch (entry->d_tag) {
        case DT_SYMTAB:
          symbols_ = At<ElfW(Sym)>(entry->d_un.d_ptr);
          break;
        case DT_STRTAB:
          names_ = At<char>(entry->d_un.d_ptr);
          break;
        case DT_RELA:
          lists_[0] = At<ElfW(Rela)>(entry->d_un.d_ptr);
          break;
        case DT_RELASZ:
          list_bytes[0] = entry->d_un.d_val;
          break;
        case DT_JMPREL:
          lists_[1] = At<ElfW(Rela)>(entry->d_un.d_ptr);
          break;
        case DT_PLTRELSZ:
          list_bytes[1] = entry->d_un.d_val;
          break;
        default:
          break;
      }
    }
    for (int i = 0; i < 2; ++i) counts_[i] = lists_[i] == nullptr ? 0 : list_bytes[i] / sizeof(ElfW(Rela));
  }

  // Writes `address` into every entry of `name`; how many there are.
  int Bind(const char* name, const void* address) const {
    int entries = 0;
    for (int i = 0; i < 2; ++i) {
      for (std::size_t j = 0; j < counts_[i]; ++j) {
        const ElfW(Rela)& entry = lists_[i][j];
        const auto type = static_cast<std::uint64_t>(ELF64_R_TYPE(entry.r_info));
        const ElfW(Sym)& symbol = symbols_[ELF64_R_SYM(entry.r_info)];
        if (!FillsAnEntry(type) || entry.r_addend != 0 || std::strcmp(names_ + symbol.st_name, name) != 0)
          continue;
        if (Write(segments_.base + entry.r_offset, address)) ++entries;
      }
    }
    return entries;
  }

 private:
  template <typename T>
  const T* At(ElfW(Addr) address) const {  // some loaders keep it relative to the library's base
    return reinterpret_cast<const T*>(address < segments_.base ? segments_.base + address : address);
  }

  bool Write(ElfW(Addr) entry, const void* address) const {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    auto* pages = reinterpret_cast<void*>(entry / page * page);
    // As the loader does: from the page that it begins in, up to the last page that it fills.
    const bool is_protected = entry >= segments_.read_only / page * page &&
                              entry < (segments_.read_only + segments_.read_only_bytes) / page * page;
    if (is_protected && mprotect(pages, page, PROT_READ | PROT_WRITE) != 0) return false;
    __atomic_store_n(reinterpret_cast<const void**>(entry), address, __ATOMIC_RELAXED);
    if (is_protected) mprotect(pages, page, PROT_READ);
    return true;
  }

  Segments segments_;
  const ElfW(Sym) * symbols_ = nullptr;
  const char* names_ = nullptr;
  const ElfW(Rela) * lists_[2] = {};
  std::size_t counts_[2] = {};
};

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

  const Table table(*map);
  if (table.Bind("libzeb_log_treshold", &libzeb_log_treshold) == 0 ||
      table.Bind("libzeb_log_str", &libzeb_log_str) == 0) {
    Say("the log's threshold and words stay the library's own: %s does not refer to them by name", real.path);
  }
  if (Recording::IsOn()) {
    Recording::Try([&] { real.file = DumpFile(real.path); });
    int heard = table.Bind("printf", reinterpret_cast<void*>(&PrintHeard));
    heard += table.Bind("__printf_chk", reinterpret_cast<void*>(&PrintCheckedHeard));
    table.Bind("puts", reinterpret_cast<void*>(&PutsHeard));
    real.log_is_heard = heard != 0;
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
