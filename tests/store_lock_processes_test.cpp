// A store lock among processes: parents, children and killed holders.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::StoreFLock;
using test::assertion;
using test::kHangSeconds;
using test::Ran;
using test::root_file;
using test::Signpost;
using test::StoreRoot;
using test::without_lines;

namespace {

// The flags that a child reopens its lock file with.
constexpr std::uint32_t kReopen = O_RDWR | O_CLOEXEC;

// Forks a child that runs `take` while this process holds `lock`, and prints how the child
// waited and how it ended.
template <typename Take>
void print_wait_of_child(StoreFLock& lock, const Signpost& got_it, Take take) {
  const pid_t child = test::in_child(take);
  int status = -1;
  test::print_wait(child, got_it, [&] {
    lock.unlock();
    status = test::wait_for(child);
  });
  std::printf(" %d", status);
}

}  // namespace

SCENARIO(lock_against_a_process) {
  StoreFLock mine("maps");
  mine.lock();
  Signpost got_it;
  print_wait_of_child(mine, got_it, [&] {
    StoreFLock own("maps");
    own.lock();
    got_it.pass();
    return test::is_locked(root_file("lock_maps")) ? 0 : 1;
  });
  return 0;
}

TEST(StoreFLockProcesses, AnotherProcessWaitsForTheRelease) {
  const StoreRoot root;
  EXPECT_EQ(root.run("lock_against_a_process").out, "1 0 1 0");
}

SCENARIO(inherited_lock) {
  StoreFLock lock("maps");
  lock.lock();
  Signpost got_it;
  print_wait_of_child(lock, got_it, [&] {
    lock.lock();
    got_it.pass();
    const bool locked = test::is_locked(root_file("lock_maps"));
    lock.unlock();
    return locked && !test::is_locked(root_file("lock_maps")) ? 0 : 1;
  });
  return 0;
}

TEST(StoreFLockProcesses, AChildWaitsForItsParentOnTheLockItInherited) {
  const StoreRoot root;
  EXPECT_EQ(root.run("inherited_lock").out, "1 0 1 0");
}

SCENARIO(child_leaves_the_lock) {
  auto lock = std::make_unique<StoreFLock>("maps");
  lock->lock();
  const int status = test::wait_for(test::in_child([&] {
    if (arguments.at(0) == "unlock") {
      lock->unlock();
    }
    lock.reset();
    return 0;
  }));
  std::printf("%d %d", status, test::is_locked(root_file("lock_maps")));
  return 0;
}

TEST(StoreFLockProcesses, AChildsUnlockDoesNotDropTheParentsLock) {
  const StoreRoot root;
  EXPECT_EQ(root.run("child_leaves_the_lock", {"unlock"}).out, "0 1");
}

TEST(StoreFLockProcesses, AChildsDestructionDoesNotDropTheParentsLock) {
  const StoreRoot root;
  EXPECT_EQ(root.run("child_leaves_the_lock", {"destroy"}).out, "0 1");
}

SCENARIO(parent_waits_for_child) {
  StoreFLock lock("maps");
  Signpost child_has_it;
  Signpost child_may_go;
  const pid_t child = test::in_child([&] {
    lock.lock();
    child_has_it.pass();
    child_may_go.await();
    return 0;  // without an unlock
  });
  child_has_it.await();
  Signpost got_it;
  std::thread thread([&] {
    lock.lock();
    got_it.pass();
  });
  const bool waits = test::waits_for_lock(getpid(), got_it);
  child_may_go.pass();
  thread.join();
  std::printf("%d %d", waits, test::wait_for(child));
  return 0;
}

TEST(StoreFLockProcesses, AParentWaitsForTheChildThatHoldsItsOwnLock) {
  const StoreRoot root;
  EXPECT_EQ(root.run("parent_waits_for_child").out, "1 0");
}

SCENARIO(killed_holder) {
  Signpost child_has_it;
  const pid_t child = test::in_child([&] {
    StoreFLock lock("maps");
    lock.lock();
    child_has_it.pass();
    return test::sleep_until_killed();
  });
  child_has_it.await();
  const bool held = test::is_locked(root_file("lock_maps"));
  kill(child, SIGKILL);
  const int status = test::wait_for(child);
  StoreFLock lock("maps");
  lock.lock();
  std::printf("%d %d", held, status);
  return 0;
}

TEST(StoreFLockProcesses, KillingTheHolderFreesTheLock) {
  const StoreRoot root;
  EXPECT_EQ(root.run("killed_holder").out, "1 1009");
}

// The child inherits the descriptor of the lock. Then its parent is killed and can't release
// the lock.
SCENARIO(killed_parent) {
  Signpost grandchild_has_it;
  test::PidPipe pids;
  const pid_t holder = test::in_child([&] {
    StoreFLock lock("maps");
    lock.lock();
    pids.send(test::in_child([&] {
      lock.lock();
      grandchild_has_it.pass();
      return 0;
    }));
    return test::sleep_until_killed();
  });
  const bool waits = test::waits_for_lock(pids.receive(), grandchild_has_it);
  kill(holder, SIGKILL);
  test::wait_for(holder);
  grandchild_has_it.await();
  std::printf("%d", waits);
  return 0;
}

TEST(StoreFLockProcesses, AChildGetsTheLockOfItsKilledParent) {
  const StoreRoot root;
  const Ran ran = root.run("killed_parent");
  EXPECT_EQ(ran.out, "1");
}

SCENARIO(invalid_lock_in_a_child) {
  StoreFLock lock("none/maps");
  mkdir(root_file("lock_none").c_str(), 0755);
  const pid_t child = test::in_child([&] {
    lock.lock();
    return 0;
  });
  std::printf("%d %d", lock.is_valid(), test::wait_for(child));
  return 0;
}

TEST(StoreFLockProcesses, AnInvalidLockIsNoBetterInAChild) {
  const StoreRoot root;
  const Ran ran = root.run("invalid_lock_in_a_child");
  EXPECT_EQ(ran.out, "0 " + std::to_string(test::kKilledBy + SIGABRT));
  EXPECT_EQ(without_lines(ran.messages()).back(), assertion("fd_ >= 0"));
  EXPECT_FALSE(test::exists(root.file("lock_none/maps")));
}

// --- a child of a raw clone ---

// What the two threads of the child tell each other.
std::atomic<bool> g_reopens{false};
std::atomic<bool> g_has_lock{false};
std::atomic<bool> g_waited{false};
std::atomic<pid_t> g_second{0};

// Called while the first thread is about to reopen the lock file. Lets the second one ask for
// the lock, and returns once it sleeps or has it. Runs in a signal handler, so it allocates
// nothing.
void await_second_thread() {
  g_reopens = true;
  while (g_second == 0) {
    sched_yield();
  }
  char path[64];
  std::snprintf(path, sizeof(path), "/proc/self/task/%d/syscall", g_second.load());
  char call[32] = "";
  while (!g_has_lock && std::atol(call) != SYS_futex) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    call[std::max<ssize_t>(read(fd, call, sizeof(call) - 1), 0)] = '\0';
    close(fd);
  }
  g_waited = !g_has_lock;
}

// A raw clone runs no fork handlers.
SCENARIO(two_threads_of_a_child_lock) {
  StoreFLock lock("maps");
  const auto child =
      static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
  if (child == 0) {
    alarm(kHangSeconds);
    std::thread second([&] {
      while (!g_reopens) {
        sched_yield();
      }
      g_second = gettid();
      lock.lock();
      g_has_lock = true;
      lock.unlock();
    });
    test::refuse_after(SYS_openat, ENOENT, test::When{2, kReopen}, &await_second_thread);
    lock.lock();
    lock.unlock();
    second.join();
    _exit(g_waited ? 0 : 1);
  }
  std::printf("%d", test::wait_for(child));
  return 0;
}

TEST(StoreFLockProcesses, AThreadOfAChildWaitsForTheOneThatOpensTheFileAnew) {
  const StoreRoot root;
  EXPECT_EQ(root.run("two_threads_of_a_child_lock").out, "0");
}
