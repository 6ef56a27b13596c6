#include "record/log_lines.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace vek_record {
namespace {

// The initial-exec model takes its few bytes when this library is loaded; others may allocate at the first use, and end
// the process where that fails.
thread_local constinit LogLines* g_lines __attribute__((tls_model("initial-exec"))) = nullptr;

// Keeps what a print of `args` writes.
__attribute__((format(printf, 1, 0))) void Hear(const char* format, va_list args) {
  if (g_lines == nullptr) return;
  const int errno_before = errno;
  char* line = nullptr;
  const int length = vasprintf(&line, format, args);
  if (length < 0) {
    g_lines->Lose();
  } else {
    g_lines->Keep({line, static_cast<std::size_t>(length)});
    std::free(line);
  }
  errno = errno_before;
}

}  // namespace

LogLines::LogLines() { g_lines = this; }

void LogLines::Stop() {
  if (g_lines == this) g_lines = nullptr;
}

void LogLines::Keep(std::string_view text) noexcept {
  try {
    text_ += text;
  } catch (const std::exception&) {
    Lose();
  }
}

int PrintHeard(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Hear(format, args);
  va_end(args);
  va_start(args, format);
  const int length = std::vprintf(format, args);
  va_end(args);
  return length;
}

int PrintCheckedHeard(int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Hear(format, args);
  va_end(args);
  va_start(args, format);
  const int length = std::vprintf(format, args);
  va_end(args);
  return length;
}

int PutsHeard(const char* text) {
  if (g_lines != nullptr) {
    g_lines->Keep(text);
    g_lines->Keep("\n");
  }
  return std::puts(text);
}

}  // namespace vek_record
