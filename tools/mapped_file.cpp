#include "mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "usage_error.h"

namespace vekrun {
namespace {

[[noreturn]] void Fail(const std::string& path, int error) {
  throw UsageError("cannot read " + path + ": " + std::strerror(error));
}

struct Descriptor {
  int number;
  ~Descriptor() {
    if (number > 0) close(number);
  }
};

FileBytes ReadToTheEnd(const std::string& path, int file) {
  const auto bytes = std::make_shared<std::vector<std::byte>>();
  std::array<std::byte, 1 << 16> piece;
  while (true) {
    const ssize_t got = read(file, piece.data(), piece.size());
    if (got == 0) break;
    if (got < 0 && errno != EINTR) Fail(path, errno);
    if (got > 0) bytes->insert(bytes->end(), piece.begin(), piece.begin() + got);
  }
  return {path, {bytes, bytes->data()}, bytes->size()};
}

}  // namespace

FileBytes ReadFileBytes(const std::string& path) {
  const Descriptor file{path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (file.number < 0) Fail(path, errno);
  struct stat status = {};
  if (fstat(file.number, &status) != 0) Fail(path, errno);
  if (S_ISDIR(status.st_mode)) Fail(path, EISDIR);
  const auto size = static_cast<std::size_t>(status.st_size);
  if (!S_ISREG(status.st_mode) || size == 0) return ReadToTheEnd(path, file.number);
  void* const memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.number, 0);
  if (memory == MAP_FAILED) return ReadToTheEnd(path, file.number);
  madvise(memory, size, MADV_SEQUENTIAL);
  const auto unmap = [size](const std::byte* data) { munmap(const_cast<std::byte*>(data), size); };
  return {path, std::shared_ptr<const std::byte>(static_cast<const std::byte*>(memory), unmap), size};
}

}  // namespace vekrun
