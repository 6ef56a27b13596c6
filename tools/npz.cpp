#include "npz.h"

#include <minizip/unzip.h>

#include <algorithm>
#include <array>
#include <climits>
#include <type_traits>
#include <vector>

#include "tensor.h"
#include "usage_error.h"

namespace vekrun {
namespace {

// Reads the archive from its mapped bytes.
struct Cursor {
  const FileBytes* file;
  std::size_t at = 0;
};

zlib_filefunc64_def FromMemory(Cursor* cursor) {
  zlib_filefunc64_def functions = {};
  functions.opaque = cursor;
  functions.zopen64_file = [](voidpf opaque, const void*, int) -> voidpf { return opaque; };
  functions.zread_file = [](voidpf opaque, voidpf, void* target, uLong size) -> uLong {
    auto* from = static_cast<Cursor*>(opaque);
    const std::size_t left = from->file->size - from->at;
    const std::size_t bytes = size < left ? size : left;
    std::copy_n(from->file->data.get() + from->at, bytes, static_cast<std::byte*>(target));
    from->at += bytes;
    return bytes;
  };
  functions.ztell64_file = [](voidpf opaque, voidpf) -> ZPOS64_T { return static_cast<Cursor*>(opaque)->at; };
  functions.zseek64_file = [](voidpf opaque, voidpf, ZPOS64_T offset, int origin) -> long {
    auto* from = static_cast<Cursor*>(opaque);
    const std::size_t base = origin == ZLIB_FILEFUNC_SEEK_SET   ? 0
                             : origin == ZLIB_FILEFUNC_SEEK_CUR ? from->at
                                                                : from->file->size;
    if (base + offset > from->file->size) return -1;
    from->at = base + offset;
    return 0;
  };
  functions.zclose_file = [](voidpf, voidpf) { return 0; };
  functions.zerror_file = [](voidpf, voidpf) { return 0; };
  return functions;
}

[[noreturn]] void NotWhole(const std::string& path) { throw UsageError(path + " is not a whole .npz file"); }

std::string WithoutExtension(const std::string& name) {
  return name.ends_with(".npy") ? name.substr(0, name.size() - 4) : name;
}

}  // namespace

FileBytes ReadArchiveMember(const FileBytes& archive, const std::optional<std::string>& member) {
  Cursor cursor{&archive};
  zlib_filefunc64_def functions = FromMemory(&cursor);
  const std::unique_ptr<std::remove_pointer_t<unzFile>, int (*)(unzFile)> zip(
      unzOpen2_64(archive.path.c_str(), &functions), unzClose);
  if (zip == nullptr) NotWhole(archive.path);

  std::vector<std::string> names;
  std::optional<unz64_file_pos> found;
  for (int more = unzGoToFirstFile(zip.get()); more == UNZ_OK; more = unzGoToNextFile(zip.get())) {
    std::array<char, 1024> name;
    if (unzGetCurrentFileInfo64(zip.get(), nullptr, name.data(), name.size() - 1, nullptr, 0, nullptr, 0) !=
        UNZ_OK) {
      NotWhole(archive.path);
    }
    name.back() = '\0';
    names.push_back(WithoutExtension(name.data()));
    if (member && names.back() != WithoutExtension(*member)) continue;
    found.emplace();
    unzGetFilePos64(zip.get(), &*found);
  }
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : ", ") + name;
  if (names.empty()) throw UsageError(archive.path + " has no members");
  if (!found) throw UsageError(archive.path + " has no member " + *member + "; it has " + list);
  if (!member && names.size() > 1) {
    throw UsageError(archive.path + ": which member? " + archive.path + ":" + names[0] + " takes one of " +
                     list);
  }

  unz_file_info64 info = {};
  int method = 0;
  if (unzGoToFilePos64(zip.get(), &*found) != UNZ_OK ||
      unzGetCurrentFileInfo64(zip.get(), &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK ||
      unzOpenCurrentFile2(zip.get(), &method, nullptr, /*raw=*/0) != UNZ_OK) {
    NotWhole(archive.path);
  }
  const std::string path = archive.path + ":" + (member ? WithoutExtension(*member) : names[0]);
  if (method == 0 && (info.flag & 1) == 0) {  // stored as it is, not encrypted
    const std::size_t start = unzGetCurrentFileZStreamPos64(zip.get());
    if (start > archive.size || archive.size - start < info.uncompressed_size) NotWhole(archive.path);
    return {path, {archive.data, archive.data.get() + start}, info.uncompressed_size};
  }
  const auto data = NewBytes(info.uncompressed_size);
  std::size_t at = 0;
  while (at < info.uncompressed_size) {
    const std::size_t left = info.uncompressed_size - at;
    const int got = unzReadCurrentFile(zip.get(), data.get() + at,
                                       static_cast<unsigned>(left < INT_MAX ? left : INT_MAX));
    if (got <= 0) NotWhole(archive.path);
    at += static_cast<std::size_t>(got);
  }
  if (unzCloseCurrentFile(zip.get()) != UNZ_OK) NotWhole(archive.path);  // its checksum
  return {path, data, info.uncompressed_size};
}

}  // namespace vekrun
