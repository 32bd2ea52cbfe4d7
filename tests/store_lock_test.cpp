// A store lock: its file, moving it, and locking it with one thread or several.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/lock_probe.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::StoreFLock;
using test::assertion;
using test::descriptors_of;
using test::kHangSeconds;
using test::Ran;
using test::root_file;
using test::run_scenario;
using test::StoreRoot;
using test::without_lines;
using Messages = std::vector<std::string>;

// --- the lock file ---

SCENARIO(make_lock) {
  if (arguments.size() > 1) {
    umask(0027);
  }
  const StoreFLock lock(arguments.at(0));
  std::printf("%d", lock.is_valid());
  return 0;
}

TEST(StoreFLockFile, IsNamedLockForTheEmptyName) {
  const StoreRoot root;
  const Ran ran = root.run("make_lock", {""});
  EXPECT_EQ(ran.out, "1");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_TRUE(test::exists(root.file("lock")));
}

TEST(StoreFLockFile, IsNamedAfterItsStore) {
  const StoreRoot root;
  EXPECT_EQ(root.run("make_lock", {"maps"}).out, "1");
  EXPECT_TRUE(test::exists(root.file("lock_maps")));
  EXPECT_FALSE(test::exists(root.file("lock")));
}

TEST(StoreFLockFile, IsForEveryoneLessTheUmask) {
  const StoreRoot root;
  struct stat st {};
  ASSERT_EQ(root.run("make_lock", {"maps", "umask"}).out, "1");
  ASSERT_EQ(stat(root.file("lock_maps").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST(StoreFLockFile, KeepsWhatItHolds) {
  const StoreRoot root;
  test::write_file(root.file("lock_maps"), "text");
  EXPECT_EQ(root.run("make_lock", {"maps"}).out, "1");
  EXPECT_EQ(test::read_file(root.file("lock_maps")), "text");
}

SCENARIO(flags_and_closing) {
  std::vector<int> open_ones;
  {
    const StoreFLock lock("maps");
    open_ones = descriptors_of(root_file("lock_maps"));
    std::printf("%zu %d ", open_ones.size(), (fcntl(open_ones.at(0), F_GETFD) & FD_CLOEXEC) != 0);
    std::printf("%d ", (fcntl(open_ones.at(0), F_GETFL) & O_ACCMODE) == O_RDWR);
  }
  std::printf("%zu", descriptors_of(root_file("lock_maps")).size());
  return 0;
}

TEST(StoreFLockFile, IsOpenForReadingAndWritingUntilTheLockGoesAndNotAcrossExec) {
  const StoreRoot root;
  EXPECT_EQ(root.run("flags_and_closing").out, "1 1 1 0");
}

TEST(StoreFLockFile, ThatCannotBeMadeLeavesAnInvalidLockAndAWarning) {
  const StoreRoot root;
  const Ran ran = run_scenario("make_lock", {{"QV_CACHE_STORE_ROOT", root.file("none")}}, {"maps"});
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root.file("none/lock_maps") +
                                     " lock couldn't be obtained: No such file or directory."});
}

TEST(StoreFLockFile, ThatCannotBeMadeIsNoRecordAtOff) {
  const StoreRoot root;
  const Ran ran = run_scenario(
      "make_lock", {{"QV_CACHE_STORE_ROOT", root.file("none")}, {"QV_LOG_LEVEL", "OFF"}}, {"maps"});
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.log, "");
}

TEST(StoreFLockFile, WithoutARootIsReportedTwice) {
  const Ran ran = run_scenario("make_lock", {}, {"maps"});
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(),
            (Messages{"ERROR Caching enabled, but QV_CACHE_STORE_ROOT not set.",
                      "WARN Cache store  lock couldn't be obtained: No such file or directory."}));
}

TEST(StoreFLockFile, WithAnEmptyRootIsReportedOnce) {
  const Ran ran = run_scenario("make_lock", {{"QV_CACHE_STORE_ROOT", ""}}, {"maps"});
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(),
            Messages{"WARN Cache store  lock couldn't be obtained: No such file or directory."});
}

// --- moving ---

SCENARIO(moved_lock) {
  StoreFLock first("maps");
  const auto before = descriptors_of(root_file("lock_maps"));
  {
    StoreFLock second(std::move(first));
    std::printf("%d %d ", first.is_valid(), second.is_valid());
    std::printf("%d ", descriptors_of(root_file("lock_maps")) == before);
    StoreFLock third(std::move(first));  // already moved from
    std::printf("%d ", third.is_valid());
    second.lock();
    std::printf("%d ", test::is_locked(root_file("lock_maps")));
  }
  // The destructor closed the descriptor, which released the lock.
  std::printf("%d %zu", test::is_locked(root_file("lock_maps")),
              descriptors_of(root_file("lock_maps")).size());
  return 0;
}

TEST(StoreFLockMove, HandsTheDescriptorOverAndLeavesAnInvalidLock) {
  const StoreRoot root;
  EXPECT_EQ(root.run("moved_lock").out, "0 1 1 0 1 0 0");
}

SCENARIO(moved_from_lock_closes_nothing) {
  const int stranger = open("/dev/null", O_RDONLY);
  {
    StoreFLock first("maps");
    StoreFLock second(std::move(first));
    (void)second;
  }
  return fcntl(stranger, F_GETFD) >= 0 && fcntl(STDIN_FILENO, F_GETFD) >= 0 ? 0 : 1;
}

TEST(StoreFLockMove, AMovedFromLockClosesNothing) {
  const StoreRoot root;
  EXPECT_TRUE(root.run("moved_from_lock_closes_nothing").exited_with(0));
}

SCENARIO(use_of_a_moved_from_lock) {
  StoreFLock first("maps");
  const StoreFLock second(std::move(first));
  if (arguments.at(0) == "lock") {
    first.lock();
  } else {
    first.unlock();
  }
  return 0;
}

TEST(StoreFLockMove, UseOfAnInvalidLockEndsTheProcess) {
  const StoreRoot root;
  for (const char* use : {"lock", "unlock"}) {
    const Ran ran = root.run("use_of_a_moved_from_lock", {use});
    EXPECT_TRUE(ran.aborted()) << use;
    EXPECT_EQ(without_lines(ran.messages()), Messages{assertion("fd_ >= 0")}) << use;
  }
}

// --- locking ---

SCENARIO(lock_and_unlock) {
  StoreFLock lock("maps");
  const std::string path = root_file("lock_maps");
  std::printf("%d ", test::is_locked(path));
  for (int round = 0; round < 3; ++round) {
    lock.lock();
    std::printf("%d ", test::is_locked(path));
    lock.unlock();
    std::printf("%d ", test::is_locked(path));
  }
  lock.unlock();  // not locked: does nothing
  return 0;
}

TEST(StoreFLockLock, IsExclusiveUntilItsRelease) {
  const StoreRoot root;
  const Ran ran = root.run("lock_and_unlock");
  EXPECT_EQ(ran.out, "0 1 0 1 0 1 0 ");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
}

SCENARIO(second_lock_of_one_process) {
  StoreFLock first("maps");
  StoreFLock second("maps");
  test::Signpost got_it;
  first.lock();
  std::thread thread([&] {
    second.lock();
    got_it.pass();
    second.unlock();
  });
  test::print_wait(getpid(), got_it, [&] {
    first.unlock();
    thread.join();
  });
  return 0;
}

TEST(StoreFLockLock, ASecondLockOfTheSameNameInOneProcessWaits) {
  const StoreRoot root;
  EXPECT_EQ(root.run("second_lock_of_one_process").out, "1 0 1");
}

SCENARIO(locks_of_two_names) {
  StoreFLock first("maps");
  StoreFLock second("other");
  first.lock();
  second.lock();
  return 0;
}

TEST(StoreFLockLock, LocksOfTwoNamesAreIndependent) {
  const StoreRoot root;
  EXPECT_TRUE(root.run("locks_of_two_names").exited_with(0));
}

SCENARIO(one_lock_of_two_threads) {
  StoreFLock lock("maps");
  int counter = 0;
  const auto count = [&] {
    for (int i = 0; i < 5000; ++i) {
      lock.lock();
      ++counter;
      lock.unlock();
    }
  };
  std::thread other(count);
  count();
  other.join();
  std::printf("%d", counter);
  return 0;
}

TEST(StoreFLockLock, TwoThreadsOnOneObjectExcludeEachOther) {
  const StoreRoot root;
  EXPECT_EQ(root.run("one_lock_of_two_threads").out, "10000");
}

SCENARIO(locked_twice) {
  alarm(kHangSeconds);
  StoreFLock lock("maps");
  lock.lock();
  lock.lock();
  std::printf("%d ", test::is_locked(root_file("lock_maps")));
  lock.unlock();
  std::printf("%d", test::is_locked(root_file("lock_maps")));
  return 0;
}

TEST(StoreFLockLock, TwiceByOneThreadIsReleasedAtOnce) {
  const StoreRoot root;
  EXPECT_EQ(root.run("locked_twice").out, "1 0");
}

SCENARIO(unlocked_by_another_thread) {
  alarm(kHangSeconds);
  StoreFLock lock("maps");
  std::thread([&] { lock.lock(); }).join();
  std::printf("%d ", test::is_locked(root_file("lock_maps")));
  lock.unlock();
  std::printf("%d ", test::is_locked(root_file("lock_maps")));
  lock.lock();
  std::thread([&] { lock.unlock(); }).join();
  std::printf("%d ", test::is_locked(root_file("lock_maps")));
  std::thread([&] { lock.lock(); }).join();
  std::printf("%d", test::is_locked(root_file("lock_maps")));
  return 0;
}

TEST(StoreFLockLock, AnyThreadMayReleaseIt) {
  const StoreRoot root;
  const Ran ran = root.run("unlocked_by_another_thread");
  EXPECT_EQ(ran.out, "1 0 0 1");
  EXPECT_TRUE(ran.exited_with(0));
}

SCENARIO(moved_while_held) {
  alarm(kHangSeconds);
  StoreFLock first("maps");
  first.lock();
  StoreFLock second(std::move(first));
  test::Signpost got_it;
  std::thread thread([&] {
    second.lock();
    got_it.pass();
  });
  std::printf("%d ", test::waits_for_lock(getpid(), got_it));
  second.unlock();
  thread.join();
  std::printf("%d", got_it.is_passed());
  return 0;
}

TEST(StoreFLockMove, ALockThatIsHeldStaysHeldAgainstOtherThreads) {
  const StoreRoot root;
  EXPECT_EQ(root.run("moved_while_held").out, "1 1");
}

// --- a long wait ---

// Argument: what is held, the "turn" on the lock object or the "file". Holds it until the
// record is logged.
SCENARIO(long_wait) {
  alarm(kHangSeconds);
  auto lock = std::make_unique<StoreFLock>("maps");
  StoreFLock other("maps");
  StoreFLock& held = arguments.at(0) == "turn" ? *lock : other;
  held.lock();
  std::thread waiter([&] {
    lock->lock();
    lock->unlock();
  });
  std::size_t size = 0;
  while (size == 0) {
    size = test::read_file(getenv("QV_LOG_FILE")).size();
    usleep(10000);
  }
  held.unlock();
  waiter.join();
  return 0;
}

TEST(StoreFLockWait, OfFiveSecondsIsLoggedWithTheFileAndTheHolder) {
  for (const char* holder : {"turn", "file"}) {
    const StoreRoot root;
    const Ran ran = root.run("long_wait", {holder}, "WARN");
    EXPECT_TRUE(ran.exited_with(0)) << holder;
    EXPECT_EQ(ran.messages(),
              Messages{"WARN Waiting for cache store lock " + root.file("lock_maps") +
                       " for 5 s, held by process " + std::to_string(ran.pid)})
        << holder;
  }
}
