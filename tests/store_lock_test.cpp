#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "support/interrupt.h"
#include "support/lock_probe.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::StoreFLock;
using test::assertion;
using test::Ran;
using test::run_scenario;
using test::TempDir;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

std::string root_file(const std::string& name) {
  return std::string(getenv("QV_CACHE_STORE_ROOT")) + "/" + name;
}

// The descriptors of this process that have the file open.
std::vector<int> descriptors_of(const std::string& path) {
  std::vector<int> found;
  char target[4096];
  for (int fd = 0; fd < 1024; ++fd) {
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = readlink(link.c_str(), target, sizeof(target));
    if (size > 0 && path == std::string(target, static_cast<std::size_t>(size))) {
      found.push_back(fd);
    }
  }
  return found;
}

// Waits for a child and says how it ended: its status, or 1000 + its signal.
int ended(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

Ran run(const std::string& scenario, const TempDir& root, const test::Arguments& arguments = {}) {
  return run_scenario(scenario, {{"QV_CACHE_STORE_ROOT", root.path()}}, arguments);
}

}  // namespace

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
  const TempDir root;
  const Ran ran = run("make_lock", root, {""});
  EXPECT_EQ(ran.out, "1");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_TRUE(test::exists(root.file("lock")));
}

TEST(StoreFLockFile, IsNamedAfterItsStore) {
  const TempDir root;
  EXPECT_EQ(run("make_lock", root, {"maps"}).out, "1");
  EXPECT_TRUE(test::exists(root.file("lock_maps")));
  EXPECT_FALSE(test::exists(root.file("lock")));
}

TEST(StoreFLockFile, IsForEveryoneLessTheUmask) {
  const TempDir root;
  struct stat st {};
  ASSERT_EQ(run("make_lock", root, {"maps", "umask"}).out, "1");
  ASSERT_EQ(stat(root.file("lock_maps").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST(StoreFLockFile, KeepsWhatItHolds) {
  const TempDir root;
  test::write_file(root.file("lock_maps"), "text");
  EXPECT_EQ(run("make_lock", root, {"maps"}).out, "1");
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
  const TempDir root;
  EXPECT_EQ(run("flags_and_closing", root).out, "1 1 1 0");
}

TEST(StoreFLockFile, ThatCannotBeMadeLeavesAnInvalidLockAndAWarning) {
  const TempDir root;
  const TempDir other;
  const Ran ran = run_scenario("make_lock", {{"QV_CACHE_STORE_ROOT", root.file("none")}}, {"maps"});
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root.file("none/lock_maps") +
                                     " lock couldn't be obtained: No such file or directory."});
}

TEST(StoreFLockFile, ThatCannotBeMadeIsNoRecordAtOff) {
  const TempDir root;
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
    StoreFLock third(std::move(first));  // nothing to take
    std::printf("%d ", third.is_valid());
    second.lock();
    std::printf("%d ", test::is_locked(root_file("lock_maps")));
  }
  // Closing the descriptor ended the lock, too.
  std::printf("%d %zu", test::is_locked(root_file("lock_maps")),
              descriptors_of(root_file("lock_maps")).size());
  return 0;
}

TEST(StoreFLockMove, HandsTheDescriptorOverAndLeavesAnInvalidLock) {
  const TempDir root;
  EXPECT_EQ(run("moved_lock", root).out, "0 1 1 0 1 0 0");
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
  const TempDir root;
  EXPECT_TRUE(run("moved_from_lock_closes_nothing", root).exited_with(0));
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
  const TempDir root;
  for (const char* use : {"lock", "unlock"}) {
    const Ran ran = run("use_of_a_moved_from_lock", root, {use});
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
  lock.unlock();  // of an unlocked lock: nothing happens
  return 0;
}

TEST(StoreFLockLock, IsExclusiveUntilItsRelease) {
  const TempDir root;
  const Ran ran = run("lock_and_unlock", root);
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
  const bool waits = test::waits_for_lock(getpid(), got_it);
  const bool passed_early = got_it.is_passed();
  first.unlock();
  thread.join();
  std::printf("%d %d %d", waits, passed_early, got_it.is_passed());
  return 0;
}

TEST(StoreFLockLock, ASecondLockOfTheSameNameInOneProcessWaits) {
  const TempDir root;
  EXPECT_EQ(run("second_lock_of_one_process", root).out, "1 0 1");
}

SCENARIO(locks_of_two_names) {
  StoreFLock first("maps");
  StoreFLock second("other");
  first.lock();
  second.lock();
  return 0;
}

TEST(StoreFLockLock, LocksOfTwoNamesAreIndependent) {
  const TempDir root;
  EXPECT_TRUE(run("locks_of_two_names", root).exited_with(0));
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
  const TempDir root;
  EXPECT_EQ(run("one_lock_of_two_threads", root).out, "10000");
}

constexpr unsigned kHangSeconds = 60;

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
  const TempDir root;
  EXPECT_EQ(run("locked_twice", root).out, "1 0");
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
  const TempDir root;
  const Ran ran = run("unlocked_by_another_thread", root);
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
  const TempDir root;
  EXPECT_EQ(run("moved_while_held", root).out, "1 1");
}

// --- processes ---

SCENARIO(lock_against_a_process) {
  StoreFLock mine("maps");
  mine.lock();
  test::Signpost got_it;
  const pid_t child = fork();
  if (child == 0) {
    StoreFLock own("maps");
    own.lock();
    got_it.pass();
    _exit(test::is_locked(root_file("lock_maps")) ? 0 : 1);
  }
  const bool waits = test::waits_for_lock(child, got_it);
  const bool passed_early = got_it.is_passed();
  mine.unlock();
  const int status = ended(child);
  std::printf("%d %d %d %d", waits, passed_early, got_it.is_passed(), status);
  return 0;
}

TEST(StoreFLockProcesses, AnotherProcessWaitsForTheRelease) {
  const TempDir root;
  EXPECT_EQ(run("lock_against_a_process", root).out, "1 0 1 0");
}

SCENARIO(inherited_lock) {
  StoreFLock lock("maps");
  lock.lock();
  test::Signpost got_it;
  const pid_t child = fork();
  if (child == 0) {
    lock.lock();
    got_it.pass();
    const bool locked = test::is_locked(root_file("lock_maps"));
    lock.unlock();
    _exit(locked && !test::is_locked(root_file("lock_maps")) ? 0 : 1);
  }
  const bool waits = test::waits_for_lock(child, got_it);
  const bool passed_early = got_it.is_passed();
  lock.unlock();
  const int status = ended(child);
  std::printf("%d %d %d %d", waits, passed_early, got_it.is_passed(), status);
  return 0;
}

TEST(StoreFLockProcesses, AChildWaitsForItsParentOnTheLockItInherited) {
  const TempDir root;
  EXPECT_EQ(run("inherited_lock", root).out, "1 0 1 0");
}

SCENARIO(child_leaves_the_lock) {
  auto lock = std::make_unique<StoreFLock>("maps");
  lock->lock();
  const pid_t child = fork();
  if (child == 0) {
    if (arguments.at(0) == "unlock") {
      lock->unlock();
    }
    lock.reset();
    _exit(0);
  }
  const int status = ended(child);
  std::printf("%d %d", status, test::is_locked(root_file("lock_maps")));
  return 0;
}

TEST(StoreFLockProcesses, AChildsUnlockDoesNotDropTheParentsLock) {
  const TempDir root;
  EXPECT_EQ(run("child_leaves_the_lock", root, {"unlock"}).out, "0 1");
}

TEST(StoreFLockProcesses, AChildsDestructionDoesNotDropTheParentsLock) {
  const TempDir root;
  EXPECT_EQ(run("child_leaves_the_lock", root, {"destroy"}).out, "0 1");
}

SCENARIO(parent_waits_for_child) {
  StoreFLock lock("maps");
  test::Signpost child_has_it;
  test::Signpost child_may_go;
  const pid_t child = fork();
  if (child == 0) {
    lock.lock();
    child_has_it.pass();
    child_may_go.await();
    _exit(0);  // without an unlock
  }
  child_has_it.await();
  test::Signpost got_it;
  std::thread thread([&] {
    lock.lock();
    got_it.pass();
  });
  const bool waits = test::waits_for_lock(getpid(), got_it);
  child_may_go.pass();
  thread.join();
  std::printf("%d %d", waits, ended(child));
  return 0;
}

TEST(StoreFLockProcesses, AParentWaitsForTheChildThatHoldsItsOwnLock) {
  const TempDir root;
  EXPECT_EQ(run("parent_waits_for_child", root).out, "1 0");
}

SCENARIO(killed_holder) {
  test::Signpost child_has_it;
  const pid_t child = fork();
  if (child == 0) {
    StoreFLock lock("maps");
    lock.lock();
    child_has_it.pass();
    for (;;) {
      pause();
    }
  }
  child_has_it.await();
  const bool held = test::is_locked(root_file("lock_maps"));
  kill(child, SIGKILL);
  const int status = ended(child);
  StoreFLock lock("maps");
  lock.lock();
  std::printf("%d %d", held, status);
  return 0;
}

TEST(StoreFLockProcesses, KillingTheHolderFreesTheLock) {
  const TempDir root;
  EXPECT_EQ(run("killed_holder", root).out, "1 1009");
}

// The child inherits a share of the lock of its parent, which is then killed
// without a chance to release it.
SCENARIO(killed_parent) {
  test::Signpost grandchild_has_it;
  test::Signpost holder_has_it;
  int pid_pipe[2];
  if (pipe(pid_pipe) != 0) {
    return 2;
  }
  const pid_t holder = fork();
  if (holder == 0) {
    StoreFLock lock("maps");
    lock.lock();
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      lock.lock();
      grandchild_has_it.pass();
      _exit(0);
    }
    (void)!write(pid_pipe[1], &grandchild, sizeof(grandchild));
    for (;;) {
      pause();
    }
  }
  pid_t grandchild = -1;
  (void)!read(pid_pipe[0], &grandchild, sizeof(grandchild));
  const bool waits = test::waits_for_lock(grandchild, grandchild_has_it);
  kill(holder, SIGKILL);
  ended(holder);
  grandchild_has_it.await();
  std::printf("%d", waits);
  return 0;
}

TEST(StoreFLockProcesses, AChildGetsTheLockOfItsKilledParent) {
  const TempDir root;
  const Ran ran = run("killed_parent", root);
  EXPECT_EQ(ran.out, "1");
}

// --- refusals ---

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
  const TempDir root;
  for (const char* operation : {"lock", "unlock"}) {
    const Ran ran = run("refused_flock", root, {operation});
    EXPECT_TRUE(ran.aborted()) << operation;
    EXPECT_EQ(without_lines(ran.messages()), Messages{assertion("flock_ret == 0")}) << operation;
  }
}

SCENARIO(interrupted_lock) {
  test::let_signals_interrupt();
  StoreFLock first("maps");
  StoreFLock second("maps");
  first.lock();
  test::Signpost got_it;
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
  waits = waits && test::waits_for_lock(getpid(), got_it);
  const bool passed_early = got_it.is_passed();
  first.unlock();
  thread.join();
  std::printf("%d %d %d", waits, passed_early, got_it.is_passed());
  return 0;
}

TEST(StoreFLockRefusals, AnInterruptedLockGoesOnWaiting) {
  const TempDir root;
  const Ran ran = run("interrupted_lock", root);
  EXPECT_EQ(ran.out, "1 0 1");
  EXPECT_EQ(ran.messages(), Messages{});
}

constexpr std::uint32_t kOpenAnew = O_RDWR | O_CLOEXEC;
constexpr std::uint32_t kOpenByPath = O_RDWR | O_CREAT | O_CLOEXEC;

void refuse_open(std::uint32_t flags, int error = ENOENT) {
  test::refuse(SYS_openat, error, test::When{2, flags});
}

void use_up_descriptors() {
  while (open("/dev/null", O_RDONLY) >= 0) {
  }
}

// What keeps the child from opening the lock file through /proc holds at the fork, when
// the child leaves its parent's lock.
void make_opening_hard(const std::string& obstacle) {
  if (obstacle == "no descriptors") {
    use_up_descriptors();
  } else if (obstacle == "no /proc") {
    refuse_open(kOpenAnew);
  } else {
    refuse_open(kOpenAnew, EACCES);
    refuse_open(kOpenByPath, EACCES);
  }
}

SCENARIO(lock_in_a_child_that_cannot_open_it_anew) {
  alarm(kHangSeconds);
  test::Signpost child_has_it;
  test::Signpost child_may_go;
  const pid_t child = fork();
  if (child == 0) {
    StoreFLock lock("maps");
    make_opening_hard(arguments.at(0));
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      lock.lock();
      child_has_it.pass();
      child_may_go.await();
      lock.unlock();
      child_has_it.pass();
      _exit(0);
    }
    _exit(ended(grandchild));
  }
  child_has_it.await();
  std::printf("%d ", test::is_locked(root_file("lock_maps")));
  child_may_go.pass();
  const int status = ended(child);
  std::printf("%d %d", status, test::is_locked(root_file("lock_maps")));
  return 0;
}

TEST(StoreFLockRefusals, AChildWithoutADescriptorToSpareGetsItsLockAllTheSame) {
  const TempDir root;
  EXPECT_EQ(run("lock_in_a_child_that_cannot_open_it_anew", root, {"no descriptors"}).out, "1 0 0");
}

TEST(StoreFLockRefusals, AChildWithoutProcGetsItsLockAllTheSame) {
  const TempDir root;
  EXPECT_EQ(run("lock_in_a_child_that_cannot_open_it_anew", root, {"no /proc"}).out, "1 0 0");
}

// One that has become another user, say.
TEST(StoreFLockRefusals, AChildThatMayNotWriteToTheLockFileGetsItsLockAllTheSame) {
  const TempDir root;
  EXPECT_EQ(run("lock_in_a_child_that_cannot_open_it_anew", root, {"no permission"}).out, "1 0 0");
}

// What the two threads of the next scenario's child tell each other.
std::atomic<bool> g_reopens{false};
std::atomic<bool> g_has_lock{false};
std::atomic<bool> g_waited{false};
std::atomic<pid_t> g_second{0};

// While the first thread is about to open the lock file anew: lets the second one ask
// for the lock, and returns when it sleeps or has it. Without any memory, for the
// handler of a signal.
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

// A raw clone passes the fork handlers by.
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
    test::refuse_after(SYS_openat, ENOENT, test::When{2, kOpenAnew}, &await_second_thread);
    lock.lock();
    lock.unlock();
    second.join();
    _exit(g_waited ? 0 : 1);
  }
  std::printf("%d", ended(child));
  return 0;
}

TEST(StoreFLockProcesses, AThreadOfAChildWaitsForTheOneThatOpensTheFileAnew) {
  const TempDir root;
  EXPECT_EQ(run("two_threads_of_a_child_lock", root).out, "0");
}

SCENARIO(invalid_lock_in_a_child) {
  StoreFLock lock("none/maps");
  mkdir(root_file("lock_none").c_str(), 0755);
  const pid_t child = fork();
  if (child == 0) {
    lock.lock();
    _exit(0);
  }
  std::printf("%d %d", lock.is_valid(), ended(child));
  return 0;
}

TEST(StoreFLockProcesses, AnInvalidLockIsNoBetterInAChild) {
  const TempDir root;
  const Ran ran = run("invalid_lock_in_a_child", root);
  EXPECT_EQ(ran.out, "0 " + std::to_string(1000 + SIGABRT));
  EXPECT_EQ(without_lines(ran.messages()).back(), assertion("fd_ >= 0"));
  EXPECT_FALSE(test::exists(root.file("lock_none/maps")));
}

// The file can be opened neither through /proc nor by its path.
SCENARIO(lock_that_a_child_cannot_have) {
  StoreFLock lock("maps");
  refuse_open(kOpenAnew);
  refuse_open(kOpenByPath);
  const pid_t child = fork();
  if (child == 0) {
    lock.lock();
    _exit(0);
  }
  std::printf("%d", ended(child));
  return 0;
}

TEST(StoreFLockRefusals, AChildThatCannotHaveALockOfItsOwnEndsWhenItLocks) {
  const TempDir root;
  const Ran ran = run("lock_that_a_child_cannot_have", root);
  EXPECT_EQ(ran.out, std::to_string(1000 + SIGABRT));
  EXPECT_EQ(without_lines(ran.messages()), Messages{assertion("fd_ >= 0")});
}
