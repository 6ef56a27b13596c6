/// \file
/// A file that appears whole or not at all.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vekrun {

/// From now on, what the process prints goes to standard error, and to standard output only what is written to "-".
void KeepStandardOutputForFiles();

/// Written under a temporary name next to it, then renamed. "-" is standard output, written at once;
/// `KeepStandardOutputForFiles` was called before.
class NewFile {
 public:
  /// Opens the temporary file. Throws `UsageError`.
  explicit NewFile(std::string path);
  /// Removes what was never published.
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  /// Appends bytes. Throws `UsageError`.
  void Write(const void* data, std::size_t bytes);
  void Write(std::string_view text) { Write(text.data(), text.size()); }

  /// Gives the file its name, replacing what had it. Throws `UsageError`.
  void Publish();

 private:
  [[noreturn]] void Fail(int error);

  std::string path_;
  std::string temporary_;  // empty once it is published, and for standard output
  int file_;
  int unfinished_ = -1;  // its registration for interruptions
};

}  // namespace vekrun
