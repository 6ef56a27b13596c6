// What the real library prints: it calls these in place of the C library's functions.
#pragma once

#include <string>
#include <string_view>

namespace vek_record {

// While it lives, what the real library prints in this thread is kept too. One at a time for each thread.
class LogLines {
 public:
  LogLines();
  LogLines(const LogLines&) = delete;
  LogLines& operator=(const LogLines&) = delete;
  ~LogLines() { Stop(); }

  // Ends it early.
  void Stop();
  // All that was printed.
  const std::string& Text() const { return text_; }
  // Whether memory ran out, so that some of it is missing.
  bool IsSomeLost() const { return some_lost_; }

  void Keep(std::string_view text) noexcept;
  void Lose() noexcept { some_lost_ = true; }

 private:
  std::string text_;
  bool some_lost_ = false;
};

// Each prints as its namesake does, to the same stream.
__attribute__((format(printf, 1, 2))) int PrintHeard(const char* format, ...);
__attribute__((format(printf, 2, 3))) int PrintCheckedHeard(int flag, const char* format, ...);
int PutsHeard(const char* text);

}  // namespace vek_record
