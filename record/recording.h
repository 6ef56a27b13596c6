// The folder that a recording is written into, how much of it, and its end where something fails.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <string>

#include "record/quiet.h"

namespace vek_record {

// Prints one line to standard error, "vekrecord: " before it. Allocates nothing.
__attribute__((format(printf, 1, 2))) void Say(const char* format, ...) noexcept;

// One for the process. Its functions may be called by several threads at once: the runtime may run distinct layers in
// threads of its own. (The rule that the library takes no lock is for the library; the recorder is another.) What threads
// share are counters and a flag, all atomic; files and folders have names of their own.
class Recording {
 public:
  enum class Which { kFirst, kFailed };

  // How much is recorded, from the environment: docs/recording.md.
  struct Settings {
    std::string folder;           // absolute; empty: nothing is recorded
    std::uint64_t calls = 1;      // of Execute, for each layer
    Which which = Which::kFirst;  // of them
    bool keeps_bytes = true;      // of tensors, not hashes alone
    std::uint64_t limit_bytes = std::uint64_t{1} << 30;
  };

  // Reads the settings and makes the folder; without any, or where that fails, recording stays off. Once, before others.
  static void Start() noexcept;
  static bool IsOn() noexcept { return is_on_.load(std::memory_order_relaxed); }
  // Ends recording for good, with one line that says why.
  static void Stop(const char* reason) noexcept;
  static const Settings& Chosen() noexcept;

  // Runs `step`, which may throw, and gives up recording where it does. Nothing of it reaches the calling thread.
  template <typename Step>
  static void Try(const Step& step) noexcept {
    if (!IsOn()) return;
    const Quiet quiet;
    try {
      step();
    } catch (const std::bad_alloc&) {
      Stop("out of memory");
    } catch (const std::exception& error) {
      Stop(error.what());
    } catch (...) {  // what a host's description throws
      Stop("a description threw an exception");
    }
  }

  // --- These throw std::runtime_error, with the file's name and the reason.

  // Makes a folder for the next layer of `type`, and returns its path.
  static std::string NewLayerFolder(const std::string& type);
  // Takes that many bytes of the limit.
  static void Take(std::uint64_t bytes);
  static void GiveBack(std::uint64_t bytes) noexcept;
  // Writes a file whole: who reads it while it is replaced, or after the process was killed meanwhile, finds the old
  // text or the new.
  static void WriteText(const std::string& path, const std::string& text);
  // Removes a file; that there is none is no failure.
  static void Remove(const std::string& path) noexcept;

 private:
  inline static std::atomic<bool> is_on_{false};
  inline static std::atomic<std::uint64_t> taken_bytes_{0};
  inline static std::atomic<std::uint64_t> layers_{0};  // the number of the last folder
};

// What could be read of a host's buffer.
struct Dump {
  std::uint64_t bytes = 0;  // as many as said, or as far as memory is mapped
  std::uint64_t hash = 0;   // XXH64 of these
};
// Reads `bytes` bytes from `memory` and writes them to the file `path`, or nowhere if that is empty. The recorder must
// not crash where a description promises more than there is: the kernel copies, and reports what is not mapped. What is
// written is taken of the limit, and added to `taken_bytes`.
Dump DumpMemory(const void* memory, std::uint64_t bytes, const std::string& path, std::uint64_t& taken_bytes);
// Copies `bytes` bytes, and zeros in place of what is not mapped.
void CopyMemory(const void* memory, std::uint64_t bytes, void* copy);
// How large a file is, and its hash.
Dump DumpFile(const std::string& path);

}  // namespace vek_record
