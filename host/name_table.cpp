#include "host/name_table.h"

#include <elf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace vek_host {
namespace {

struct Segments {
  const ElfW(Dyn) * dynamic = nullptr;
  ElfW(Addr) read_only = 0;
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

template <typename T>
const T* At(ElfW(Addr) base, ElfW(Addr) address) {  // some loaders keep it relative to the library's base
  return reinterpret_cast<const T*>(address < base ? base + address : address);
}

}  // namespace

NameTable::NameTable(const link_map& library) : base_(library.l_addr) {
  Segments segments;
  segments.dynamic = library.l_ld;
  dl_iterate_phdr(FindSegments, &segments);
  read_only_ = segments.read_only;
  read_only_bytes_ = segments.read_only_bytes;
  std::size_t list_bytes[2] = {};
  for (const ElfW(Dyn)* entry = library.l_ld; entry->d_tag != DT_NULL; ++entry) {
    switch (entry->d_tag) {
      case DT_SYMTAB:
        symbols_ = At<ElfW(Sym)>(base_, entry->d_un.d_ptr);
        break;
      case DT_STRTAB:
        names_ = At<char>(base_, entry->d_un.d_ptr);
        break;
      case DT_RELA:
        lists_[0] = At<ElfW(Rela)>(base_, entry->d_un.d_ptr);
        break;
      case DT_RELASZ:
        list_bytes[0] = entry->d_un.d_val;
        break;
      case DT_JMPREL:
        lists_[1] = At<ElfW(Rela)>(base_, entry->d_un.d_ptr);
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

int NameTable::Bind(const char* name, const void* address) const {
  int entries = 0;
  for (int i = 0; i < 2; ++i) {
    for (std::size_t j = 0; j < counts_[i]; ++j) {
      const ElfW(Rela)& entry = lists_[i][j];
      const auto type = static_cast<std::uint64_t>(ELF64_R_TYPE(entry.r_info));
      const ElfW(Sym)& symbol = symbols_[ELF64_R_SYM(entry.r_info)];
      if (!FillsAnEntry(type) || entry.r_addend != 0 || std::strcmp(names_ + symbol.st_name, name) != 0)
        continue;
      if (Write(base_ + entry.r_offset, address)) ++entries;
    }
  }
  return entries;
}

const void* NameTable::TakenElsewhere() const {
  for (int i = 0; i < 2; ++i) {
    for (std::size_t j = 0; j < counts_[i]; ++j) {
      const ElfW(Rela)& entry = lists_[i][j];
      const ElfW(Sym)& symbol = symbols_[ELF64_R_SYM(entry.r_info)];
      if (!FillsAnEntry(static_cast<std::uint64_t>(ELF64_R_TYPE(entry.r_info))) ||
          symbol.st_shndx == SHN_UNDEF || ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || entry.r_addend != 0)
        continue;
      const ElfW(Addr) function = *reinterpret_cast<const ElfW(Addr)*>(base_ + entry.r_offset);
      if (function != base_ + symbol.st_value) return reinterpret_cast<const void*>(function);
    }
  }
  return nullptr;
}

bool NameTable::Write(ElfW(Addr) entry, const void* address) const {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  auto* pages = reinterpret_cast<void*>(entry / page * page);
  // As the loader does: from the page that it begins in, up to the last page that it fills.
  const bool is_protected =
      entry >= read_only_ / page * page && entry < (read_only_ + read_only_bytes_) / page * page;
  if (is_protected && mprotect(pages, page, PROT_READ | PROT_WRITE) != 0) return false;
  __atomic_store_n(reinterpret_cast<const void**>(entry), address, __ATOMIC_RELAXED);
  if (is_protected) mprotect(pages, page, PROT_READ);
  return true;
}

}  // namespace vek_host
