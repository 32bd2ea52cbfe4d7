// A store lock that the kernel refuses, or whose file it refuses to open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/interrupt.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

using quorvane::cache::StoreFLock;
using test::assertion;
using test::kHangSeconds;
using test::Ran;
using test::root_file;
using test::Signpost;
using test::StoreRoot;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

// The flags that a child reopens its lock file with: through /proc, then by its path.
constexpr std::uint32_t kReopen = O_RDWR | O_CLOEXEC;
constexpr std::uint32_t kOpenByPath = O_RDWR | O_CREAT | O_CLOEXEC;

void refuse_open(std::uint32_t flags, int error = ENOENT) {
  test::refuse(SYS_openat, error, test::When{2, flags});
}

void use_up_descriptors() {
  while (open("/dev/null", O_RDONLY) >= 0) {
  }
}

// Obstructs the ways in which a child that is forked later reopens the lock file.
void make_opening_hard(const std::string& obstacle) {
  if (obstacle == "no descriptors") {
    use_up_descriptors();
  } else if (obstacle == "no /proc") {
    refuse_open(kReopen);
  } else {
    refuse_open(kReopen, EACCES);
    refuse_open(kOpenByPath, EACCES);
  }
}

}  // namespace

SCENARIO(refused_flock) {
  StoreFLock lock("maps");
  if (arguments.at(0) == "unlock") {
    lock.lock();
  }
  test::refuse(SYS_flock, ENOLCK);
  if (arguments.at(0) == "unlock") {
    lock.unlock();
  } else {
    lock.lock();
  }
  return 0;
}

TEST(StoreFLockRefusals, ALockThatTheKernelRefusesEndsTheProcess) {
  const StoreRoot root;
  for (const char* operation : {"lock", "unlock"}) {
    const Ran ran = root.run("refused_flock", {operation});
    EXPECT_TRUE(ran.aborted()) << operation;
    EXPECT_EQ(without_lines(ran.messages()), Messages{assertion("flock_ret == 0")}) << operation;
  }
}

SCENARIO(interrupted_lock) {
  test::let_signals_interrupt();
  StoreFLock first("maps");
  StoreFLock second("maps");
  first.lock();
  Signpost got_it;
  std::atomic<pid_t> tid{0};
  std::thread thread([&] {
    tid = gettid();
    second.lock();
    got_it.pass();
  });
  bool waits = true;
  for (int i = 0; i < 3; ++i) {
    waits = waits && test::waits_for_lock(getpid(), got_it);
    test::interrupt(tid);
  }
  test::print_wait(getpid(), got_it, [&] {
    first.unlock();
    thread.join();
  });
  return waits ? 0 : 1;
}

TEST(StoreFLockRefusals, AnInterruptedLockGoesOnWaiting) {
  const StoreRoot root;
  const Ran ran = root.run("interrupted_lock");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "1 0 1");
  EXPECT_EQ(ran.messages(), Messages{});
}

SCENARIO(lock_in_a_child_that_cannot_open_it_anew) {
  alarm(kHangSeconds);
  Signpost child_has_it;
  Signpost child_may_go;
  const pid_t child = test::in_child([&] {
    StoreFLock lock("maps");
    make_opening_hard(arguments.at(0));
    return test::wait_for(test::in_child([&] {
      lock.lock();
      child_has_it.pass();
      child_may_go.await();
      lock.unlock();
      child_has_it.pass();
      return 0;
    }));
  });
  child_has_it.await();
  std::printf("%d ", test::is_locked(root_file("lock_maps")));
  child_may_go.pass();
  const int status = test::wait_for(child);
  std::printf("%d %d", status, test::is_locked(root_file("lock_maps")));
  return 0;
}

TEST(StoreFLockRefusals, AChildWithoutADescriptorToSpareGetsItsLockAllTheSame) {
  const StoreRoot root;
  EXPECT_EQ(root.run("lock_in_a_child_that_cannot_open_it_anew", {"no descriptors"}).out, "1 0 0");
}

TEST(StoreFLockRefusals, AChildWithoutProcGetsItsLockAllTheSame) {
  const StoreRoot root;
  EXPECT_EQ(root.run("lock_in_a_child_that_cannot_open_it_anew", {"no /proc"}).out, "1 0 0");
}

// A child that has become another user may lack the permission.
TEST(StoreFLockRefusals, AChildThatMayNotWriteToTheLockFileGetsItsLockAllTheSame) {
  const StoreRoot root;
  EXPECT_EQ(root.run("lock_in_a_child_that_cannot_open_it_anew", {"no permission"}).out, "1 0 0");
}

// The child can open the file neither through /proc nor by its path.
SCENARIO(lock_that_a_child_cannot_have) {
  StoreFLock lock("maps");
  refuse_open(kReopen);
  refuse_open(kOpenByPath);
  std::printf("%d", test::wait_for(test::in_child([&] {
                lock.lock();
                return 0;
              })));
  return 0;
}

TEST(StoreFLockRefusals, AChildThatCannotHaveALockOfItsOwnEndsWhenItLocks) {
  const StoreRoot root;
  const Ran ran = root.run("lock_that_a_child_cannot_have");
  EXPECT_EQ(ran.out, std::to_string(test::kKilledBy + SIGABRT));
  EXPECT_EQ(without_lines(ran.messages()), Messages{assertion("fd_ >= 0")});
}
