/// \file
/// The bytes of a file, mapped where the file can be.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace vekrun {

struct FileBytes {
  std::string path;
  std::shared_ptr<const std::byte> data;
  std::size_t size = 0;
};

/// Maps a file; a pipe or a device is read to its end instead. "-" is standard input.
/// Throws `UsageError` with the system's reason.
FileBytes ReadFileBytes(const std::string& path);

}  // namespace vekrun
