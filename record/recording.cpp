#include "record/recording.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace vek_record {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  const char* reason = std::strerror(errno);
  throw std::runtime_error(what + ": " + reason);
}

// An open file, or one end of a pipe.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  int operator*() const { return number_; }
  bool IsOpen() const { return number_ >= 0; }

 private:
  int number_;
};

Descriptor Create(const std::string& path) {
  Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!file.IsOpen()) Fail(path);
  return file;
}

void WriteAll(const Descriptor& file, const void* data, std::size_t bytes, const std::string& path) {
  for (const auto* next = static_cast<const char*>(data); bytes > 0;) {
    const ssize_t written = write(*file, next, bytes);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) Fail(path);
    next += written;
    bytes -= static_cast<std::size_t>(written);
  }
}

// Reads memory by way of a pipe: a write from what is not mapped is an error, where a load would be a signal. Opened for
// each use and not kept, for a host may close descriptors that it does not know, and open others by the same number.
class MemoryReader {
 public:
  static constexpr std::size_t kMost = 65536;  // bytes at once

  MemoryReader() : MemoryReader(Pipe()) {}

  // Copies at least one byte and at most `bytes` from `memory`; 0 where the first is not mapped.
  std::size_t Read(const std::byte* memory, std::size_t bytes, void* copy) {
    static const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    ssize_t taken = Write(memory, std::min(bytes, kMost));
    if (taken < 0 && errno == EFAULT) {  // an emulator takes all or nothing
      const std::size_t rest_of_page = page - reinterpret_cast<std::uintptr_t>(memory) % page;
      taken = Write(memory, std::min(bytes, rest_of_page));
    }
    if (taken < 0 && errno == EFAULT) return 0;
    if (taken < 0) Fail("pipe");
    std::size_t got = 0;
    while (got < static_cast<std::size_t>(taken)) {
      const ssize_t more =
          read(*ends_.out, static_cast<char*>(copy) + got, static_cast<std::size_t>(taken) - got);
      if (more < 0 && errno == EINTR) continue;
      if (more <= 0) Fail("pipe");
      got += static_cast<std::size_t>(more);
    }
    return got;
  }

 private:
  struct Ends {
    Descriptor out;
    Descriptor in;
  };
  static Ends Pipe() {
    int ends[2];
    // A full pipe must not be waited for: nobody else empties it.
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) Fail("pipe");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
  }
  explicit MemoryReader(Ends ends) : ends_(std::move(ends)) {}

  // Deliberate: the system call itself. Sanitizers look into the C library's function, and would find fault with memory
  // that the host promised and does not have.
  ssize_t Write(const std::byte* memory, std::size_t bytes) {
    for (;;) {
      const long written = syscall(SYS_write, *ends_.in, memory, bytes);
      if (written >= 0 || errno != EINTR) return written;
    }
  }

  Ends ends_;
};

// --- Settings.

const char* Text(const char* name) {
  const char* text = std::getenv(name);
  return text == nullptr ? "" : text;
}

[[noreturn]] void Refuse(const char* name) {
  throw std::runtime_error(std::string(name) + "=" + Text(name) + " is not understood");
}

// A number, with K, M or G for powers of 1024 where `units` are allowed.
std::uint64_t Number(const char* name, std::uint64_t otherwise, bool units) {
  const std::string text = Text(name);
  if (text.empty()) return otherwise;
  char* end = nullptr;
  errno = 0;
  const std::uint64_t number = std::strtoull(text.c_str(), &end, 10);
  if (text[0] < '0' || text[0] > '9' || errno != 0) Refuse(name);
  const std::string_view unit = end;
  const unsigned shift = unit == "K" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : 0;
  if (!(unit.empty() || (units && shift != 0)) || number > (~std::uint64_t{0} >> shift)) Refuse(name);
  return number << shift;
}

// Whether the word is the second of the two; the first where there is none.
bool IsSecond(const char* name, std::string_view first, std::string_view second) {
  const std::string_view text = Text(name);
  if (text.empty() || text == first) return false;
  if (text != second) Refuse(name);
  return true;
}

Recording::Settings& MutableSettings() {
  // Never destroyed: a host's layers may outlive this library's end.
  static auto& settings = *new Recording::Settings;
  return settings;
}

std::string Absolute(const std::string& path) {
  if (path[0] == '/') return path;
  char* here = getcwd(nullptr, 0);
  if (here == nullptr) Fail(path);
  const std::unique_ptr<char, decltype(&std::free)> keeper(here, std::free);
  return std::string(here) + "/" + path;
}

// With the folders that it is to lie in.
void MakeFolder(const std::string& path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) Fail(folder);
    if (slash == std::string::npos) break;
  }
}

// The highest number that a layer's folder in `folder` begins with: what is recorded now goes behind it.
std::uint64_t HighestNumber(const std::string& folder) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
  if (entries == nullptr) Fail(folder);
  std::uint64_t highest = 0;
  while (const dirent* entry = readdir(entries.get())) {
    highest = std::max<std::uint64_t>(highest, std::strtoull(entry->d_name, nullptr, 10));
  }
  return highest;
}

}  // namespace

const Recording::Settings& Recording::Chosen() noexcept { return MutableSettings(); }

void Say(const char* format, ...) noexcept {
  char line[1024] = "vekrecord: ";
  const std::size_t begin = std::strlen(line);
  va_list args;
  va_start(args, format);
  std::vsnprintf(line + begin, sizeof line - begin - 1, format, args);
  va_end(args);
  std::strcat(line, "\n");
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, line, std::strlen(line));
}

void Recording::Start() noexcept {
  if (*Text("VEKRECORD_FOLDER") == '\0') return;
  is_on_ = true;
  Try([] {
    Settings& settings = MutableSettings();
    settings.folder = Absolute(Text("VEKRECORD_FOLDER"));
    settings.calls = Text("VEKRECORD_CALLS") == std::string_view("all") ? ~std::uint64_t{0}
                                                                        : Number("VEKRECORD_CALLS", 1, false);
    settings.which = IsSecond("VEKRECORD_WHICH", "first", "failed") ? Which::kFailed : Which::kFirst;
    settings.keeps_bytes = !IsSecond("VEKRECORD_TENSORS", "bytes", "hashes");
    settings.limit_bytes = Number("VEKRECORD_LIMIT", settings.limit_bytes, true);
    MakeFolder(settings.folder);
    layers_ = HighestNumber(settings.folder);
    // A child would write the files of its parent's layers.
    pthread_atfork(nullptr, nullptr, [] { is_on_ = false; });
  });
}

void Recording::Stop(const char* reason) noexcept {
  if (is_on_.exchange(false)) Say("recording stops: %s", reason);
}

std::string Recording::NewLayerFolder(const std::string& type) {
  std::string name = type;
  for (char& c : name) {
    const bool is_plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    if (!is_plain) c = '_';
  }
  for (;;) {  // another process may have made it meanwhile
    char number[32];
    std::snprintf(number, sizeof number, "%04llu-", static_cast<unsigned long long>(++layers_));
    std::string path = Chosen().folder + "/" + number + name;
    if (mkdir(path.c_str(), 0777) == 0) return path;
    if (errno != EEXIST) Fail(path);
  }
}

void Recording::Take(std::uint64_t bytes) {
  if (taken_bytes_.fetch_add(bytes) + bytes <= Chosen().limit_bytes) return;
  GiveBack(bytes);
  throw std::runtime_error("VEKRECORD_LIMIT is reached, " + std::to_string(Chosen().limit_bytes) + " bytes");
}

void Recording::GiveBack(std::uint64_t bytes) noexcept { taken_bytes_.fetch_sub(bytes); }

void Recording::WriteText(const std::string& path, const std::string& text) {
  const std::string part = path + ".part";
  try {
    const Descriptor file = Create(part);
    WriteAll(file, text.data(), text.size(), path);
    if (rename(part.c_str(), path.c_str()) != 0) Fail(path);
  } catch (...) {
    Remove(part);
    throw;
  }
}

void Recording::Remove(const std::string& path) noexcept { unlink(path.c_str()); }

// On the heap: a host's thread may have a small stack.
using Copy = std::vector<char>;

Dump DumpMemory(const void* memory, std::uint64_t bytes, const std::string& path,
                std::uint64_t& taken_bytes) {
  const Descriptor file = path.empty() ? Descriptor() : Create(path);
  Dump dump;
  XXH64_state_t state;
  XXH64_reset(&state, 0);
  if (bytes != 0 && memory != nullptr) {
    MemoryReader reader;
    Copy copy(std::min<std::uint64_t>(bytes, MemoryReader::kMost));
    while (dump.bytes < bytes) {
      const std::size_t got =
          reader.Read(static_cast<const std::byte*>(memory) + dump.bytes,
                      std::min<std::uint64_t>(bytes - dump.bytes, copy.size()), copy.data());
      if (got == 0) break;
      XXH64_update(&state, copy.data(), got);
      if (file.IsOpen()) {
        Recording::Take(got);
        taken_bytes += got;
        WriteAll(file, copy.data(), got, path);
      }
      dump.bytes += got;
    }
  }
  dump.hash = XXH64_digest(&state);
  return dump;
}

void CopyMemory(const void* memory, std::uint64_t bytes, void* copy) {
  std::memset(copy, 0, bytes);
  MemoryReader reader;
  for (std::uint64_t got = 0; got < bytes;) {
    const std::size_t more =
        reader.Read(static_cast<const std::byte*>(memory) + got, bytes - got, static_cast<char*>(copy) + got);
    if (more == 0) break;
    got += more;
  }
}

Dump DumpFile(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) Fail(path);
  Dump dump;
  XXH64_state_t state;
  XXH64_reset(&state, 0);
  Copy part(65536);
  for (;;) {
    const ssize_t got = read(*file, part.data(), part.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) Fail(path);
    if (got == 0) break;
    XXH64_update(&state, part.data(), static_cast<std::size_t>(got));
    dump.bytes += static_cast<std::uint64_t>(got);
  }
  dump.hash = XXH64_digest(&state);
  return dump;
}

}  // namespace vek_record
