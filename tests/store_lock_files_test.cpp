// The file of a store lock when it is deleted or replaced, or its descriptor closed and reused.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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

using quorvane::cache::Cache;
using quorvane::cache::make_file_store;
using quorvane::cache::StoreFLock;
using quorvane::cache::StoreKind;
using test::buffer;
using test::buffers;
using test::descriptors_of;
using test::kHangSeconds;
using test::lock_is_lost;
using test::Ran;
using test::root_file;
using test::Signpost;
using test::StoreRoot;
using test::TempDir;
using Messages = std::vector<std::string>;

namespace {

// The descriptor under which the lock file is open, or -1.
int lock_descriptor() {
  const std::vector<int> open = descriptors_of(root_file("lock_maps"));
  return open.empty() ? -1 : open.front();
}

// Opens a file of the program under the lock's descriptor, as happens after a stray close.
// Returns the descriptor.
int replace_descriptor_by(const char* name) {
  const int number = lock_descriptor();
  const int data = open(root_file(name).c_str(), O_RDWR | O_CREAT | O_APPEND, 0644);
  if (number < 0 || dup2(data, number) != number || close(data) != 0) {
    std::abort();
  }
  return number;
}

bool is_open_on(int fd, const std::string& path) {
  struct stat opened;
  struct stat named;
  return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 &&
         opened.st_ino == named.st_ino;
}

}  // namespace

// --- deleted or replaced while it is held ---

// The first lock is held, and a child waits for it. Then the file is deleted, and a third lock
// may create a new one and hold it.
SCENARIO(replaced_lock) {
  alarm(kHangSeconds);
  StoreFLock first("maps");
  first.lock();
  Signpost got_it;
  const pid_t waiter = test::in_child([&] {
    StoreFLock second("maps");
    second.lock();
    got_it.pass();
    return test::is_locked(root_file("lock_maps")) ? 0 : 1;
  });
  const bool waits = test::waits_for_lock(waiter, got_it);
  unlink(root_file("lock_maps").c_str());
  auto third = std::make_unique<StoreFLock>("maps");
  if (arguments.at(0) == "replaced") {
    third->lock();
  } else {
    third.reset();
    unlink(root_file("lock_maps").c_str());
  }
  first.unlock();
  const bool waits_again = arguments.at(0) == "deleted" || test::waits_for_lock(waiter, got_it);
  if (third != nullptr) {
    third->unlock();
  }
  std::printf("%d %d %d", waits, waits_again, test::wait_for(waiter));
  return 0;
}

TEST(StoreFLockFiles, AProcessThatWaitedForAReplacedFileTakesTheNewOne) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("replaced_lock", {"replaced"}).out, "1 1 0");
}

TEST(StoreFLockFiles, AProcessThatWaitedForADeletedFileMakesANewOne) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("replaced_lock", {"deleted"}).out, "1 1 0");
}

SCENARIO(lock_of_a_deleted_root) {
  StoreFLock lock("maps");
  unlink(root_file("lock_maps").c_str());
  rmdir(test::root_path().c_str());
  lock.lock();
  lock.unlock();
  std::printf("%d", lock.is_valid());
  return 0;
}

TEST(StoreFLockFiles, ALockWhoseRootIsGoneIsTakenAllTheSame) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.file("root").c_str(), 0755), 0);
  const Ran ran =
      test::run_scenario("lock_of_a_deleted_root", {{"QV_CACHE_STORE_ROOT", dir.file("root")}});
  EXPECT_EQ(ran.out, "1");
  EXPECT_EQ(ran.messages(), Messages{});
}

// Another lock holds the new file. The store must not lock the old one instead.
SCENARIO(replaced_lock_that_cannot_be_opened) {
  alarm(kHangSeconds);
  quorvane::cache::BasicStore store("maps", std::make_shared<StoreFLock>("maps"), nullptr);
  unlink(root_file("lock_maps").c_str());
  StoreFLock holder("maps");
  holder.lock();
  test::refuse(SYS_openat, EMFILE, test::When{2, O_RDWR | O_CREAT | O_CLOEXEC});
  std::printf("%d", store.try_store_diff(test::entry_map({{"a", {"1"}}})));
  return 0;
}

TEST(StoreFLockFiles, AStoreWhoseNewLockCannotBeOpenedIsNotWrittenTo) {
  const StoreRoot root;
  const Ran ran = root.run_unlimited("replaced_lock_that_cannot_be_opened");
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root.file("lock_maps") +
                                     " lock couldn't be obtained: Too many open files."});
  EXPECT_FALSE(test::exists(root.file("maps")));
}

// A thread is cancelled while it waits for the lock. It must not keep its turn.
SCENARIO(cancelled_wait) {
  alarm(kHangSeconds);
  StoreFLock lock("maps");
  StoreFLock holder("maps");
  holder.lock();
  Signpost never;
  std::thread waiter([&] {
    lock.lock();
    lock.unlock();
    pthread_testcancel();
  });
  const bool waits = test::waits_for_lock(getpid(), never);
  pthread_cancel(waiter.native_handle());
  holder.unlock();
  waiter.join();
  lock.lock();
  lock.unlock();
  std::printf("%d", waits);
  return 0;
}

TEST(StoreFLockFiles, AThreadThatIsCancelledInItsWaitLeavesTheLockFree) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("cancelled_wait").out, "1");
}

// --- a descriptor that the program has reused ---

SCENARIO(number_of_another_file) {
  alarm(kHangSeconds);
  auto lock = std::make_unique<StoreFLock>("maps");
  const bool forks = arguments.at(0) == "child";
  const bool is_held = arguments.at(0) == "held";
  if (is_held) {
    lock->lock();
  }
  const int number = replace_descriptor_by("data");
  const pid_t child = forks ? fork() : 0;
  if (child != 0) {
    return test::wait_for(child);
  }
  if (!is_held) {
    lock->lock();
    const bool locks_its_own = test::is_locked(root_file("lock_maps"));
    const bool locks_the_other = test::is_locked(root_file("data"));
    std::printf("%d %d ", locks_its_own, locks_the_other);
  }
  lock->unlock();
  std::printf("%d ", test::is_locked(root_file("lock_maps")));
  lock.reset();
  std::printf("%d", is_open_on(number, root_file("data")));
  std::fflush(stdout);
  _exit(0);
}

TEST(StoreFLockFiles, ANumberThatTheProgramHasGivenToAnotherFileIsLeftAlone) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("number_of_another_file", {"parent"}).out, "1 0 0 1");
  EXPECT_EQ(root.run_unlimited("number_of_another_file", {"child"}).out, "1 0 0 1");
  EXPECT_EQ(root.run_unlimited("number_of_another_file", {"held"}).out, "0 1");
}

SCENARIO(append_under_a_foreign_number) {
  auto cache = std::make_unique<Cache>("maps", make_file_store(StoreKind::basic, "maps"), false);
  cache->add_value(buffer("a"), buffers({"1"}));
  replace_descriptor_by("data");
  const pid_t child = arguments.at(0) == "child" ? fork() : 0;
  if (child != 0) {
    return test::wait_for(child);
  }
  cache.reset();
  _exit(0);
}

TEST(StoreFLockFiles, AnAppendWritesNothingIntoAFileThatHasTakenTheLocksNumber) {
  for (const char* process : {"parent", "child"}) {
    const StoreRoot root;
    const Ran ran = root.run_unlimited("append_under_a_foreign_number", {process});
    EXPECT_TRUE(ran.exited_with(0)) << process;
    EXPECT_EQ(test::read_file(root.file("data")), "") << process;
    EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"a", {"1"}}})) << process;
    EXPECT_EQ(test::read_file(root.file("lock_maps")), "") << process;
  }
}

// Does what a daemon does: closes the lock's descriptor and leaves the directory that the root
// is relative to.
SCENARIO(daemon_with_a_relative_root) {
  if (chdir(test::root_path().c_str()) != 0) {
    return 2;
  }
  setenv("QV_CACHE_STORE_ROOT", ".", 1);
  auto cache = std::make_unique<Cache>("maps", make_file_store(StoreKind::basic, "maps"), false);
  cache->add_value(buffer("a"), buffers({"1"}));
  setenv("QV_CACHE_STORE_ROOT", arguments.at(0).c_str(), 1);
  close(lock_descriptor());
  if (mkdir("elsewhere", 0755) != 0 || chdir("elsewhere") != 0 || rmdir("../elsewhere") != 0) {
    return 2;
  }
  cache.reset();
  return 0;
}

TEST(StoreFLockFiles, ALockThatCannotBeFoundAgainCostsTheStoreButNotTheProcess) {
  const StoreRoot root;
  const Ran ran = root.run_unlimited("daemon_with_a_relative_root", {root.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(test::without_lines(ran.messages()), lock_is_lost("./lock_maps"));
  EXPECT_FALSE(test::exists(root.file("maps")));
}

// --- standard descriptors that are closed at the start ---

SCENARIO(lock_without_standard_descriptors) {
  std::FILE* const out = fdopen(fcntl(STDOUT_FILENO, F_DUPFD, 100), "w");
  for (const int fd : {0, 1, 2}) {
    close(fd);
  }
  StoreFLock lock("maps");
  const pid_t child = fork();
  const bool is_above = lock_descriptor() > STDERR_FILENO;
  lock.lock();
  lock.unlock();
  if (child == 0) {
    _exit(is_above ? 0 : 1);
  }
  std::fprintf(out, "%d %d", is_above, test::wait_for(child));
  std::fclose(out);
  return 0;
}

TEST(StoreFLockFiles, TheLockNeverHasTheNumberOfAStandardDescriptor) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("lock_without_standard_descriptors").out, "1 0");
}

// --- threads of one process ---

std::atomic<bool> g_is_unlocking{false};
std::atomic<bool> g_second_has_it{false};
std::atomic<bool> g_too_early{false};

// Called inside the call that unlocks the file. The thread that waits for its turn must not
// have it yet.
void look_for_the_second_thread() {
  g_is_unlocking = true;
  for (int i = 0; i < 1000; ++i) {
    sched_yield();
  }
  g_too_early = g_second_has_it.load();
}

SCENARIO(turn_during_an_unlock) {
  alarm(kHangSeconds);
  StoreFLock lock("maps");
  lock.lock();
  std::thread second([&] {
    lock.lock();
    g_second_has_it = true;
    // Doesn't unlock: that call would be intercepted, too.
  });
  test::refuse_after(SYS_flock, 0, test::When{1, LOCK_UN}, &look_for_the_second_thread);
  lock.unlock();
  second.join();
  std::printf("%d %d", g_is_unlocking.load(), g_too_early.load());
  return 0;
}

TEST(StoreFLockFiles, AThreadGetsItsTurnOnlyOnceTheFileIsUnlocked) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("turn_during_an_unlock").out, "1 0");
}
