#include "new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "interruption.h"
#include "usage_error.h"

namespace vekrun {
namespace {

int standard_output = STDOUT_FILENO;

}  // namespace

void KeepStandardOutputForFiles() {
  if (standard_output != STDOUT_FILENO) return;
  standard_output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (standard_output < 0)
    throw UsageError(std::string("cannot write to standard output: ") + std::strerror(errno));
  dup2(STDERR_FILENO, STDOUT_FILENO);
}

NewFile::NewFile(std::string path) : path_(std::move(path)), file_(standard_output) {
  if (path_ == "-") return;
  struct stat status = {};
  const bool exists = stat(path_.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) Fail(EISDIR);
  if (exists && !S_ISREG(status.st_mode)) {  // A device or a pipe stays what it is.
    file_ = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    if (file_ < 0) Fail(errno);
    return;
  }
  temporary_ = path_ + ".part-" + std::to_string(getpid());
  file_ = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (file_ < 0) {
    temporary_.clear();
    Fail(errno);
  }
  unfinished_ = RegisterUnfinished(temporary_);
}

NewFile::~NewFile() {
  if (file_ >= 0 && file_ != standard_output) close(file_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
  ForgetUnfinished(unfinished_);
}

void NewFile::Fail(int error) { throw UsageError("cannot write " + path_ + ": " + std::strerror(error)); }

void NewFile::Write(const void* data, std::size_t bytes) {
  constexpr std::size_t kPiece = std::size_t{1} << 28;  // a signal waits for no more than this
  const auto* next = static_cast<const char*>(data);
  while (bytes > 0) {
    const ssize_t written = write(file_, next, bytes < kPiece ? bytes : kPiece);
    if (written < 0 && errno != EINTR) Fail(errno);
    if (written < 0) continue;
    next += written;
    bytes -= static_cast<std::size_t>(written);
  }
}

void NewFile::Publish() {
  if (temporary_.empty()) return;
  if (close(std::exchange(file_, -1)) != 0) Fail(errno);
  if (rename(temporary_.c_str(), path_.c_str()) != 0) Fail(errno);
  temporary_.clear();
  ForgetUnfinished(std::exchange(unfinished_, -1));
}

}  // namespace vekrun
