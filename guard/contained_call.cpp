#include "guard/contained_call.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/single_threaded.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace vek_guard {
namespace {

// What the child tells its parent, in memory that they share.
struct Message {
  bool returned;
  bool value;
  bool threw;
  std::array<char, 4096> exception;
  int signal;
  int code;
  const void* address;
  Access access;
};

Message* message = nullptr;  // the child's signal handler needs it

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

// Whether a fault read or wrote, where the processor says so.
Access AccessOf(const ucontext_t& context) {
#if defined(__x86_64__)
  constexpr greg_t kWrote = 2;
  return (context.uc_mcontext.gregs[REG_ERR] & kWrote) != 0 ? Access::kWrite : Access::kRead;
#elif defined(__aarch64__)
  // Records of a magic number and a size, up to a magic number of 0; one of them is the syndrome register.
  constexpr std::uint32_t kSyndrome = 0x45535201;
  constexpr std::uint64_t kWrote = 1U << 6;
  const unsigned char* const records = context.uc_mcontext.__reserved;
  std::size_t at = 0;
  while (at + 16 <= sizeof context.uc_mcontext.__reserved) {
    struct {
      std::uint32_t magic;
      std::uint32_t size;
      std::uint64_t syndrome;
    } record;
    std::memcpy(&record, records + at, sizeof record);
    if (record.magic == 0 || record.size == 0) break;
    if (record.magic == kSyndrome) return (record.syndrome & kWrote) != 0 ? Access::kWrite : Access::kRead;
    at += record.size;
  }
  return Access::kUnknown;
#else
  return Access::kUnknown;
#endif
}

// Calls nothing that is not safe in a signal handler.
void Tell(int signal, siginfo_t* info, void* context) {
  message->signal = signal;
  message->code = info->si_code;
  message->address = info->si_addr;
  message->access = signal == SIGSEGV ? AccessOf(*static_cast<ucontext_t*>(context)) : Access::kUnknown;
  _exit(1);
}

void CatchSignals() {
  // A stack of their own, for where the call has used up its own.
  static std::array<std::byte, 1 << 16> handler_stack;
  stack_t stack = {};
  stack.ss_sp = handler_stack.data();
  stack.ss_size = handler_stack.size();
  sigaltstack(&stack, nullptr);
  struct sigaction action = {};
  action.sa_sigaction = Tell;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  for (const int signal : kSignals) sigaction(signal, &action, nullptr);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_DFL);
}

[[noreturn]] void RunChild(const std::function<bool()>& call, int output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // It does not outlive its parent.
  dup2(output, STDOUT_FILENO);
  // Nothing that it prints waits in a buffer while it crashes.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  CatchSignals();
  try {
    message->value = call();
    message->returned = true;
  } catch (const std::exception& error) {
    std::strncpy(message->exception.data(), error.what(), message->exception.size() - 1);
    message->threw = true;
  } catch (...) {
    std::strncpy(message->exception.data(), "not a std::exception", message->exception.size() - 1);
    message->threw = true;
  }
  std::fflush(stdout);
  _exit(0);
}

std::string ReadAll(int pipe, bool show) {
  std::string text;
  std::array<char, 1 << 14> piece;
  while (true) {
    const ssize_t got = read(pipe, piece.data(), piece.size());
    if (got == 0 || (got < 0 && errno != EINTR)) break;
    if (got < 0) continue;
    text.append(piece.data(), static_cast<std::size_t>(got));
    if (show) {
      std::fwrite(piece.data(), 1, static_cast<std::size_t>(got), stdout);
      std::fflush(stdout);
    }
  }
  return text;
}

[[noreturn]] void Fail(const char* what) {
  throw std::runtime_error(std::string("cannot ") + what + ": " + std::strerror(errno));
}

}  // namespace

Ending CallContained(const std::function<bool()>& call, bool show) {
  void* const shared =
      mmap(nullptr, sizeof(Message), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) Fail("share memory");
  message = static_cast<Message*>(shared);
  const auto unmap = [](void* memory) { munmap(memory, sizeof(Message)); };
  const std::unique_ptr<void, decltype(unmap)> owner(shared, unmap);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) Fail("make a pipe");
  std::fflush(stdout);
  // In a process of one thread without the handlers of fork(): the recorder's would leave the child's calls out. Of
  // several threads another one may hold the allocator's locks at this moment, and fork() sees to that.
  const pid_t child = __libc_single_threaded ? _Fork() : fork();
  if (child == 0) RunChild(call, ends[1]);
  close(ends[1]);
  Ending ending;
  if (child > 0) ending.output = ReadAll(ends[0], show);
  close(ends[0]);
  if (child < 0) Fail("start a process");

  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  ending.returned = message->returned;
  ending.value = message->value;
  ending.threw = message->threw;
  ending.exception = message->exception.data();
  ending.signal = message->signal != 0 ? message->signal : WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  ending.code = message->code;
  ending.address = message->address;
  ending.access = message->access;
  ending.status = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
  return ending;
}

}  // namespace vek_guard
