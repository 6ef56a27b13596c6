// The control of the runs with tagged memory: a byte behind a buffer on the heap, and one in front of it, must fault.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "support/guarded_buffer.h"

namespace vek_test {
namespace {

// Whether a process of its own dies of a fault when it writes `offset` bytes from the start of a buffer of 40.
bool Faults(Guard guard, std::ptrdiff_t offset) {
  const pid_t child = fork();
  if (child == 0) {
    const GuardedBuffer buffer(40, guard);
    static_cast<volatile char*>(buffer.data())[offset] = 1;
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV;
}

TEST(Tagging, AByteOutsideOfABufferOnTheHeapFaults) {
  ASSERT_NE(std::getenv("VEK_HEAP_BUFFERS"), nullptr) << "buffers are not on the heap";
  EXPECT_TRUE(Faults(Guard::kAfter, 40));
  EXPECT_TRUE(Faults(Guard::kBefore, -1));
}

TEST(Tagging, ItsOwnBytesDoNot) {
  EXPECT_FALSE(Faults(Guard::kAfter, 39));
  EXPECT_FALSE(Faults(Guard::kAfter, 0));
  EXPECT_FALSE(Faults(Guard::kBefore, 0));
  EXPECT_FALSE(Faults(Guard::kBefore, 39));
}

}  // namespace
}  // namespace vek_test
