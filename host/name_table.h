/// \file
/// The names that a loaded library finds elsewhere, bound to other addresses.
#pragma once

#include <link.h>

#include <cstddef>
#include <cstdint>

namespace vek_host {

/// A library reaches what other libraries may define through a table of addresses, one entry for each name, which the
/// dynamic loader has filled. Writing another address there is what the loader does where a name is found elsewhere
/// first; it concerns this library alone, and its file stays as it is. docs/decisions.md has what was refused for it.
/// Allocates nothing.
class NameTable {
 public:
  /// The table of a library that is loaded and stays so.
  explicit NameTable(const link_map& library);

  /// Writes `address` into every entry of `name`.
  /// \return how many there are.
  int Bind(const char* name, const void* address) const;

  /// \return where a function begins that the library defines and yet takes from elsewhere: from what stands before it
  ///     in the process and has one of that name, such as another copy of it. Null where it takes all from itself.
  const void* TakenElsewhere() const;

 private:
  bool Write(ElfW(Addr) entry, const void* address) const;

  ElfW(Addr) base_ = 0;
  ElfW(Addr) read_only_ = 0;  // the part of the table that is write-protected after loading
  std::size_t read_only_bytes_ = 0;
  const ElfW(Sym) * symbols_ = nullptr;
  const char* names_ = nullptr;
  const ElfW(Rela) * lists_[2] = {};
  std::size_t counts_[2] = {};
};

}  // namespace vek_host
