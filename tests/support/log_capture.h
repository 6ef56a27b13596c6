// Captures what the library prints, as lines that tests compare. Line numbers are not looked at.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace vek_test {

// One printed line. Without the "[LEVEL] file:line: " prefix, level and file are empty.
struct LogLine {
  std::string level;
  std::string file;
  std::string text;

  bool operator==(const LogLine&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << "[" << line.level << "] " << line.file << ": " << line.text;
  }
};
using Log = std::vector<LogLine>;

inline LogLine Error(std::string file, std::string text) {
  return {"ERROR", std::move(file), std::move(text)};
}
inline LogLine Warning(std::string file, std::string text) {
  return {"WARNING", std::move(file), std::move(text)};
}
inline LogLine Info(std::string file, std::string text) { return {"INFO", std::move(file), std::move(text)}; }

inline LogLine ParseLogLine(const std::string& line) {
  // "[LEVEL] file:123: text"
  const std::size_t level_end = line.find("] ");
  if (line.empty() || line[0] != '[' || level_end == std::string::npos) return {"", "", line};
  const std::size_t file = level_end + 2;
  const std::size_t number = line.find(':', file);
  if (number == std::string::npos) return {"", "", line};
  const std::size_t text = line.find_first_not_of("0123456789", number + 1);
  if (text == std::string::npos || text == number + 1 || line.compare(text, 2, ": ") != 0)
    return {"", "", line};
  return {line.substr(1, level_end - 1), line.substr(file, number - file), line.substr(text + 2)};
}

// While it lives, standard output goes to memory. Exceptions may pass through its scope.
class LogCapture {
 public:
  LogCapture() {
    std::fflush(stdout);
    stdout_ = dup(STDOUT_FILENO);
    if (ftruncate(Memory(), 0) != 0) std::perror("ftruncate");
    lseek(Memory(), 0, SEEK_SET);
    dup2(Memory(), STDOUT_FILENO);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { Stop(); }

  // Gives standard output back and returns what was printed.
  Log Stop() {
    if (stdout_ < 0) return {};
    std::fflush(stdout);
    dup2(stdout_, STDOUT_FILENO);
    close(stdout_);
    stdout_ = -1;

    std::string text(static_cast<std::size_t>(lseek(Memory(), 0, SEEK_END)), '\0');
    const ssize_t got = pread(Memory(), text.data(), text.size(), 0);
    EXPECT_EQ(static_cast<std::size_t>(got), text.size());
    Log log;
    for (std::size_t begin = 0; begin < text.size();) {
      const std::size_t end = text.find('\n', begin);
      EXPECT_NE(end, std::string::npos) << "the last line has no end";
      if (end == std::string::npos) break;
      log.push_back(ParseLogLine(text.substr(begin, end - begin)));
      begin = end + 1;
    }
    return log;
  }

 private:
  static int Memory() {
    static const int file = memfd_create("log", MFD_CLOEXEC);
    return file;
  }
  int stdout_ = -1;
};

// What `call` prints.
template <typename Call>
Log CaptureLog(Call&& call) {
  LogCapture capture;
  call();
  return capture.Stop();
}

}  // namespace vek_test
