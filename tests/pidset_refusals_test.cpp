// What a PID set does when the kernel refuses a call, and the descriptors that it keeps.
#include <quorvane/pidset.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "pidset_test/fixture.h"
#include "support/descriptors.h"
#include "support/lock_probe.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

// While this is true, the library gets no memory.
static bool g_no_memory = false;

#ifdef QV_SANITIZED
#define QV_REAL_CALLOC __interceptor_calloc
#else
#define QV_REAL_CALLOC __libc_calloc
#endif
extern "C" void* QV_REAL_CALLOC(std::size_t count, std::size_t size);
// Not instrumented: a new thread allocates before ThreadSanitizer has set it up, and
// instrumented code would crash there. The library itself is still checked.
extern "C" __attribute__((no_sanitize_thread)) void* calloc(std::size_t count,
                                                            std::size_t size) noexcept {
  if (g_no_memory) {
    errno = ENOMEM;
    return nullptr;
  }
  return QV_REAL_CALLOC(count, size);
}

namespace {

using pidset_test::capacity;
using pidset_test::open_set;
using pidset_test::page_bytes;
using pidset_test::PidSet;
using pidset_test::Set;
using test::open_descriptors;
using test::Ran;

// --- descriptors ---

TEST_F(PidSet, HasOneDescriptorPerHandle) {
  const int before = open_descriptors();
  Set set = open_set(path_);
  EXPECT_EQ(open_descriptors(), before + 1);
  Set clone(qv_pidset_clone(set.get()));
  EXPECT_EQ(open_descriptors(), before + 2);
  set.reset();
  EXPECT_EQ(open_descriptors(), before + 1);
  clone.reset();
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PidSet, TakesADescriptorOver) {
  const int before = open_descriptors();
  const int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  Set set(qv_pidset_open_fd(fd));
  EXPECT_EQ(open_descriptors(), before + 1);
  EXPECT_EQ(qv_pidset_add(set.get(), 1), 0);
  set.reset();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(PidSet, LeavesADescriptorBehindWhenTheFileIsNoSet) {
  test::write_file(path_, std::string(100, '\0'));
  const int before = open_descriptors();
  EXPECT_FALSE(open_set(path_));
  EXPECT_EQ(open_descriptors(), before + 1);
  const int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(qv_pidset_open_fd(fd), nullptr);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  close(fd);
}

TEST_F(PidSet, ClosesTheDescriptorWhenTheCountIsWrong) {
  test::write_file(path_, page_bytes(capacity() + 1, {}));
  const int before = open_descriptors();
  EXPECT_FALSE(open_set(path_));
  const int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(qv_pidset_open_fd(fd), nullptr);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PidSet, LeavesNoDescriptorOfACloneThatFails) {
  const Set set = open_set(path_);
  const int before = open_descriptors();
  test::write_file(path_, page_bytes({}) + "more");
  EXPECT_EQ(qv_pidset_clone(set.get()), nullptr);
  EXPECT_EQ(open_descriptors(), before);
  test::write_file(path_, page_bytes(capacity() + 1, {}));
  EXPECT_EQ(qv_pidset_clone(set.get()), nullptr);
  EXPECT_EQ(open_descriptors(), before);
}

// --- what the kernel refuses ---

const char* error_name() { return strerrorname_np(errno); }

// Prints "null ENOLCK +1": the result of opening the file, and how many descriptors it
// left open.
SCENARIO(refused_open) {
  const std::string& path = arguments.at(0);
  const std::string& what = arguments.at(1);
  const int before = open_descriptors();
  if (what == "open") {
    test::refuse(SYS_openat, EMFILE);
  } else if (what == "flock") {
    test::refuse(SYS_flock, EINTR);  // a retry would never end
  } else if (what == "fstat") {
    test::refuse(SYS_newfstatat, EIO, test::When{3, AT_EMPTY_PATH});
    test::refuse(SYS_fstat, EIO);
  } else if (what == "ftruncate") {
    test::refuse(SYS_ftruncate, ENOSPC);
  } else if (what == "mmap") {
    test::refuse(SYS_mmap, ENOMEM, test::When{2, PROT_WRITE});
  }
  g_no_memory = what == "memory";
  errno = 0;
  const qv_pidset_t* const set = qv_pidset_open(path.c_str());
  const char* const error = error_name();
  g_no_memory = false;
  std::printf("%s %s %+d", set == nullptr ? "null" : "set", error, open_descriptors() - before);
  if (what != "open" && what != "flock") {
    std::printf(" %s", test::is_locked(path) ? "locked" : "unlocked");
  }
  return 0;
}

TEST_F(PidSet, OpensNothingWhenTheKernelRefusesACall) {
  EXPECT_EQ(run("refused_open", {"open"}).out, "null EMFILE +0");
  EXPECT_EQ(run("refused_open", {"flock"}).out, "null EINTR +1");
  EXPECT_EQ(run("refused_open", {"fstat"}).out, "null EIO +1 unlocked");
  EXPECT_EQ(run("refused_open", {"ftruncate"}).out, "null ENOSPC +1 unlocked");
  EXPECT_EQ(bytes(), "");
}

TEST_F(PidSet, OpensNothingWithoutMemory) {
  EXPECT_EQ(run("refused_open", {"memory"}).out, "null ENOMEM +1 unlocked");
  EXPECT_EQ(bytes(), page_bytes({}));
}

// The library doesn't notice a refused mapping: the first access ends the process.
TEST_F(PidSet, EndsTheProcessWhenTheMappingIsRefused) {
  for (const std::string& content : {std::string(), page_bytes({1})}) {
    test::write_file(path_, content);
    const Ran ran = run("refused_open", {"mmap"});
#ifdef QV_SANITIZED
    EXPECT_FALSE(ran.exited_with(0));  // the sanitizer reports the access and exits
#else
    EXPECT_TRUE(ran.killed_by(SIGSEGV));
#endif
    EXPECT_EQ(ran.out, "");
  }
  test::write_file(path_, std::string(100, '\0'));
  EXPECT_EQ(run("refused_open", {"mmap"}).out, "null ENOMEM +1 unlocked");
}

SCENARIO(refused_clone) {
  const Set set = open_set(arguments.at(0));
  const int before = open_descriptors();
  test::refuse(arguments.at(1) == "dup" ? SYS_dup : SYS_flock, EMFILE);
  const qv_pidset_t* const clone = qv_pidset_clone(set.get());
  const char* const error = error_name();
  std::printf("%s %s %+d", clone == nullptr ? "null" : "set", error, open_descriptors() - before);
  return 0;
}

TEST_F(PidSet, ClonesNothingWhenTheKernelRefusesACall) {
  EXPECT_EQ(run("refused_clone", {"dup"}).out, "null EMFILE +0");
  EXPECT_EQ(run("refused_clone", {"flock"}).out, "null EMFILE +0");
}

void print_outcome(const char* name, int result) {
  const char* const error = error_name();
  std::printf("%s %d %s\n", name, result, error);
}

SCENARIO(refused_lock) {
  const Set set = open_set(arguments.at(0));
  test::refuse(SYS_flock, EINTR);  // a retry would never end
  print_outcome("add", qv_pidset_add(set.get(), 4));
  print_outcome("remove", qv_pidset_remove(set.get(), 3));
  print_outcome("lock", qv_pidset_lock_contains(set.get()));
  print_outcome("unlock", qv_pidset_unlock_contains(set.get()));
  return qv_pidset_contains(set.get(), 3) ? 0 : 1;
}

TEST_F(PidSet, ChangesNothingWithoutTheLock) {
  test::write_file(path_, page_bytes({3}));
  const Ran ran = run("refused_lock");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "add 999 EINTR\nremove -1 EINTR\nlock 999 EINTR\nunlock -1 EINTR\n");
  EXPECT_EQ(bytes(), page_bytes({3}));
}

SCENARIO(refused_unlock) {
  const Set set = open_set(arguments.at(0));
  test::refuse(SYS_flock, ENOLCK, test::When{1, LOCK_UN});
  const bool added = qv_pidset_add(set.get(), 4) == 0 && qv_pidset_add(set.get(), 4) == 1;
  print_outcome("remove", qv_pidset_remove(set.get(), 3));
  return added ? 0 : 1;
}

TEST_F(PidSet, TellsOfALockThatStaysOnlyWhenItRemoves) {
  test::write_file(path_, page_bytes({3}));
  const Ran ran = run("refused_unlock");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "remove -1 ENOLCK\n");
  EXPECT_EQ(bytes(), page_bytes(1, {4, 4}));
}

SCENARIO(silent_refusals) {
  const Set set = open_set(arguments.at(0));
  test::refuse(SYS_flock, EIO);
  qv_pidset_add(set.get(), 1);
  qv_pidset_clone(set.get());
  qv_pidset_open("/dev/null/nothing");
  return 0;
}

TEST_F(PidSet, LogsNothing) {
  const Ran ran = run("silent_refusals");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.log, "");
  EXPECT_EQ(ran.err, "");
}

}  // namespace
