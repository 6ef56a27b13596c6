// Captures what the library prints, as lines that tests compare. Line numbers are not looked at.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>
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

// While it lives, what is printed to `stdout` goes to memory. Exceptions may pass through its scope.
class LogCapture {
 public:
  LogCapture() : stdout_(stdout) {
    std::fflush(stdout);
    std::rewind(Stream().file);
    stdout = Stream().file;
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { Stop(); }

  // Gives standard output back and returns what was printed.
  Log Stop() {
    if (stdout_ == nullptr) return {};
    stdout = std::exchange(stdout_, nullptr);
    std::fflush(Stream().file);
    const std::string_view text(Stream().data, static_cast<std::size_t>(std::ftell(Stream().file)));
    Log log;
    for (std::size_t begin = 0; begin < text.size();) {
      const std::size_t end = text.find('\n', begin);
      EXPECT_NE(end, std::string_view::npos) << "the last line has no end";
      if (end == std::string_view::npos) break;
      log.push_back(ParseLogLine(std::string(text.substr(begin, end - begin))));
      begin = end + 1;
    }
    return log;
  }

 private:
  // A stream in memory, which the C library allows `stdout` to be. It lives as long as the process. (Not one that grows:
  // that clears memory by an instruction which the emulator does not know where memory is tagged.)
  struct MemoryStream {
    static constexpr std::size_t kMostBytes = 1 << 20;
    char* data = static_cast<char*>(std::malloc(kMostBytes));
    std::FILE* file = fmemopen(data, kMostBytes, "w");
  };
  static MemoryStream& Stream() {
    static MemoryStream stream;
    return stream;
  }

  std::FILE* stdout_;
};

// What `call` prints.
template <typename Call>
Log CaptureLog(Call&& call) {
  LogCapture capture;
  call();
  return capture.Stop();
}

}  // namespace vek_test
