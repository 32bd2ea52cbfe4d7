// The file behind a store lock: deleted, replaced, closed by the program, inherited.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/lock_probe.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::make_file_store;
using quorvane::cache::StoreFLock;
using quorvane::cache::StoreKind;
using test::buffer;
using test::buffers;
using test::Ran;
using test::TempDir;
using Messages = std::vector<std::string>;

namespace {

constexpr unsigned kHangSeconds = 60;

std::string root_file(const std::string& name) {
  return std::string(getenv("QV_CACHE_STORE_ROOT")) + "/" + name;
}

int ended(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

Ran run(const std::string& scenario, const TempDir& root, const test::Arguments& arguments = {}) {
  return test::run_scenario(scenario,
                            {{"QV_CACHE_STORE_ROOT", root.path()},
                             {"QV_CACHE_STORE_CLEANUP_THRESHOLD", "0"},
                             {"QV_LOG_LEVEL", "WARN"}},
                            arguments);
}

// The number that the lock file is open under.
int number_of_lock() {
  char target[4096];
  for (int fd = 0; fd < 1024; ++fd) {
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = readlink(link.c_str(), target, sizeof(target));
    if (size > 0 && root_file("lock_maps") == std::string(target, static_cast<std::size_t>(size))) {
      return fd;
    }
  }
  return -1;
}

// Closes the lock's descriptor and opens a file of the program's under its number.
int replace_descriptor_by(const char* name) {
  const int number = number_of_lock();
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

// One process holds the lock, the next waits for it; then the file gets another one in
// its place, which a third process holds.
SCENARIO(replaced_lock) {
  alarm(kHangSeconds);
  StoreFLock first("maps");
  first.lock();
  test::Signpost got_it;
  const pid_t waiter = fork();
  if (waiter == 0) {
    StoreFLock second("maps");
    second.lock();
    got_it.pass();
    _exit(test::is_locked(root_file("lock_maps")) ? 0 : 1);
  }
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
  std::printf("%d %d %d", waits, waits_again, ended(waiter));
  return 0;
}

TEST(StoreFLockFiles, AProcessThatWaitedForAReplacedFileTakesTheNewOne) {
  const TempDir root;
  EXPECT_EQ(run("replaced_lock", root, {"replaced"}).out, "1 1 0");
}

TEST(StoreFLockFiles, AProcessThatWaitedForADeletedFileMakesANewOne) {
  const TempDir root;
  EXPECT_EQ(run("replaced_lock", root, {"deleted"}).out, "1 1 0");
}

SCENARIO(lock_of_a_deleted_root) {
  StoreFLock lock("maps");
  unlink(root_file("lock_maps").c_str());
  rmdir(getenv("QV_CACHE_STORE_ROOT"));
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

// Somebody else holds the new file: the old one must not be taken instead.
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
  const TempDir root;
  const Ran ran = run("replaced_lock_that_cannot_be_opened", root);
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root.file("lock_maps") +
                                     " lock couldn't be obtained: Too many open files."});
  EXPECT_FALSE(test::exists(root.file("maps")));
}

// A thread that waits for the lock is cancelled: its turn must not stay taken.
SCENARIO(cancelled_wait) {
  alarm(kHangSeconds);
  StoreFLock lock("maps");
  StoreFLock holder("maps");
  holder.lock();
  test::Signpost never;
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
  const TempDir root;
  EXPECT_EQ(run("cancelled_wait", root).out, "1");
}

// --- a number that is somebody else's ---

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
    return ended(child);
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
  const TempDir root;
  EXPECT_EQ(run("number_of_another_file", root, {"parent"}).out, "1 0 0 1");
  EXPECT_EQ(run("number_of_another_file", root, {"child"}).out, "1 0 0 1");
  EXPECT_EQ(run("number_of_another_file", root, {"held"}).out, "0 1");
}

SCENARIO(append_under_a_foreign_number) {
  auto cache = std::make_unique<Cache>("maps", make_file_store(StoreKind::basic, "maps"), false);
  cache->add_value(buffer("a"), buffers({"1"}));
  replace_descriptor_by("data");
  const pid_t child = arguments.at(0) == "child" ? fork() : 0;
  if (child != 0) {
    return ended(child);
  }
  cache.reset();
  _exit(0);
}

TEST(StoreFLockFiles, AnAppendWritesNothingIntoAFileThatHasTakenTheLocksNumber) {
  for (const char* process : {"parent", "child"}) {
    const TempDir root;
    const Ran ran = run("append_under_a_foreign_number", root, {process});
    EXPECT_TRUE(ran.exited_with(0)) << process;
    EXPECT_EQ(test::read_file(root.file("data")), "") << process;
    EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"a", {"1"}}})) << process;
    EXPECT_EQ(test::read_file(root.file("lock_maps")), "") << process;
  }
}

Messages lock_is_lost(const std::string& path) {
  return {"WARN Cache store " + path + " lock couldn't be obtained: No such file or directory.",
          test::expectation("store_->try_store_diff(diff_map_)")};
}

// As a daemon does: closes all descriptors and leaves the directory that its relative
// root was found from.
SCENARIO(daemon_with_a_relative_root) {
  if (chdir(getenv("QV_CACHE_STORE_ROOT")) != 0) {
    return 2;
  }
  setenv("QV_CACHE_STORE_ROOT", ".", 1);
  auto cache = std::make_unique<Cache>("maps", make_file_store(StoreKind::basic, "maps"), false);
  cache->add_value(buffer("a"), buffers({"1"}));
  setenv("QV_CACHE_STORE_ROOT", arguments.at(0).c_str(), 1);
  close(number_of_lock());
  if (mkdir("elsewhere", 0755) != 0 || chdir("elsewhere") != 0 || rmdir("../elsewhere") != 0) {
    return 2;
  }
  cache.reset();
  return 0;
}

TEST(StoreFLockFiles, ALockThatCannotBeFoundAgainCostsTheStoreButNotTheProcess) {
  const TempDir root;
  const Ran ran = run("daemon_with_a_relative_root", root, {root.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(test::without_lines(ran.messages()), lock_is_lost("./lock_maps"));
  EXPECT_FALSE(test::exists(root.file("maps")));
}

// --- in a child ---

SCENARIO(child_without_its_lock) {
  auto cache = std::make_unique<Cache>("maps", make_file_store(StoreKind::basic, "maps"), false);
  cache->add_value(buffer("a"), buffers({"1"}));
  if (arguments.at(0) == "refused") {
    test::refuse(SYS_openat, ENOENT, test::When{2, O_RDWR | O_CLOEXEC});
    test::refuse(SYS_openat, ENOENT, test::When{2, O_RDWR | O_CREAT | O_CLOEXEC});
  }
  const pid_t child = fork();
  if (child == 0) {
    if (arguments.at(0) == "chroot" && (chroot("/proc/self/task") != 0 || chdir("/") != 0)) {
      _exit(2);
    }
    cache.reset();
    _exit(0);
  }
  std::printf("%d", ended(child));
  return 0;
}

TEST(StoreFLockFiles, AChildThatCannotHaveALockOfItsOwnLosesItsStoreButNotItsLife) {
  for (const char* reason : {"refused", "chroot"}) {
    const TempDir root;
    const Ran ran = run("child_without_its_lock", root, {reason});
    EXPECT_EQ(ran.out, "0") << reason;
    EXPECT_EQ(test::without_lines(ran.messages()), lock_is_lost(root.file("lock_maps"))) << reason;
    EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"a", {"1"}}})) << reason;
  }
}

// A thread of the process is inside an append (it holds the lock) while another one
// forks a child that goes on living; then the process is killed.
SCENARIO(killed_holder_with_a_child) {
  alarm(kHangSeconds);
  int pids[2];
  if (pipe(pids) != 0) {
    return 2;
  }
  const pid_t holder = fork();
  if (holder == 0) {
    auto* const lock = new StoreFLock("maps");
    test::Signpost held;
    std::thread thread([&] {
      lock->lock();
      held.pass();
      pause();
    });
    held.await();
    const pid_t sleeper = fork();
    if (sleeper == 0) {
      const pid_t self = getpid();
      static_cast<void>(!write(pids[1], &self, sizeof(self)));
      for (;;) {
        pause();
      }
    }
    for (;;) {
      pause();
    }
  }
  pid_t sleeper = -1;
  static_cast<void>(!read(pids[0], &sleeper, sizeof(sleeper)));
  const bool was_held = test::is_locked(root_file("lock_maps"));
  kill(holder, SIGKILL);
  ended(holder);
  const bool is_held = test::is_locked(root_file("lock_maps"));
  kill(sleeper, SIGKILL);
  std::printf("%d %d", was_held, is_held);
  return 0;
}

TEST(StoreFLockFiles, AKilledHoldersLockIsFreeThoughItsChildLivesOn) {
  const TempDir root;
  EXPECT_EQ(run("killed_holder_with_a_child", root).out, "1 0");
}

SCENARIO(child_moves_its_lock) {
  alarm(kHangSeconds);
  StoreFLock inherited("maps");
  inherited.lock();
  const auto child = static_cast<pid_t>(
      arguments.at(0) == "fork" ? fork()
                                : syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
  if (child == 0) {
    StoreFLock moved(std::move(inherited));
    moved.lock();
    moved.unlock();
    _exit(0);
  }
  test::Signpost never;
  const bool waits = test::waits_for_lock(child, never);
  inherited.unlock();
  std::printf("%d %d", waits, ended(child));
  return 0;
}

TEST(StoreFLockFiles, ALockThatAChildHasMovedExcludesItsParent) {
  for (const char* how : {"fork", "clone"}) {
    const TempDir root;
    EXPECT_EQ(run("child_moves_its_lock", root, {how}).out, "1 0") << how;
  }
}

int open_descriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    count += fcntl(fd, F_GETFD) != -1;
  }
  return count;
}

SCENARIO(descriptors_of_a_child) {
  StoreFLock lock("maps");
  StoreFLock other("other");
  const int before = open_descriptors();
  const pid_t child = fork();
  if (child == 0) {
    const int at_first = open_descriptors();
    lock.lock();
    lock.unlock();
    _exit(at_first == before && open_descriptors() == before ? 0 : 1);
  }
  std::printf("%d %d", ended(child), open_descriptors() == before);
  return 0;
}

TEST(StoreFLockFiles, AChildHasAsManyDescriptorsAsItsParent) {
  const TempDir root;
  EXPECT_EQ(run("descriptors_of_a_child", root).out, "0 1");
}

// Ends with the number of descriptors above the standard ones that a program finds open
// which is executed beside a cache in use.
SCENARIO(execute_beside_a_cache) {
  Cache basic("maps", make_file_store(StoreKind::basic, "maps"), false);
  Cache lazy("lazy", make_file_store(StoreKind::lazy_lookup, "lazy"), false);
  if (fork() == 0) {
    execl("/bin/sh", "sh", "-c", "ls /proc/self/fd/ -l", nullptr);
  }
  int status = 0;
  wait(&status);
  return status;
}

TEST(StoreFLockFiles, AnExecutedProgramFindsNoDescriptorOfAStoreOpen) {
  const TempDir root;
  const Ran ran = run("execute_beside_a_cache", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_NE(ran.out.find("0 ->"), std::string::npos);
  EXPECT_EQ(ran.out.find(root.path()), std::string::npos) << ran.out;
}

// --- standard descriptors that are closed at the start ---

SCENARIO(lock_without_standard_descriptors) {
  std::FILE* const out = fdopen(fcntl(STDOUT_FILENO, F_DUPFD, 100), "w");
  for (const int fd : {0, 1, 2}) {
    close(fd);
  }
  StoreFLock lock("maps");
  const pid_t child = fork();
  const bool is_above = number_of_lock() > STDERR_FILENO;
  lock.lock();
  lock.unlock();
  if (child == 0) {
    _exit(is_above ? 0 : 1);
  }
  std::fprintf(out, "%d %d", is_above, ended(child));
  std::fclose(out);
  return 0;
}

TEST(StoreFLockFiles, TheLockNeverHasTheNumberOfAStandardDescriptor) {
  const TempDir root;
  EXPECT_EQ(run("lock_without_standard_descriptors", root).out, "1 0");
}

// --- threads of one process ---

std::atomic<bool> g_is_unlocking{false};
std::atomic<bool> g_second_has_it{false};
std::atomic<bool> g_too_early{false};

// Inside the call that gives the file's lock up: the other thread, which waits for its
// turn, must not have it yet.
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
    // No unlock: it would be refused as well.
  });
  test::refuse_after(SYS_flock, 0, test::When{1, LOCK_UN}, &look_for_the_second_thread);
  lock.unlock();
  second.join();
  std::printf("%d %d", g_is_unlocking.load(), g_too_early.load());
  return 0;
}

TEST(StoreFLockFiles, AThreadGetsItsTurnOnlyOnceTheFileIsUnlocked) {
  const TempDir root;
  EXPECT_EQ(run("turn_during_an_unlock", root).out, "1 0");
}

// --- a fork while another thread holds the lock ---

SCENARIO(fork_beside_a_holder) {
  alarm(kHangSeconds);
  StoreFLock lock("maps");
  test::Signpost held;
  test::Signpost may_go;
  std::thread holder([&] {
    lock.lock();
    held.pass();
    may_go.await();
    lock.unlock();
  });
  held.await();
  test::Signpost child_has_it;
  const pid_t child = fork();
  if (child == 0) {
    lock.lock();  // not held by a thread that is not there
    child_has_it.pass();
    lock.unlock();
    _exit(0);
  }
  const bool waits = test::waits_for_lock(child, child_has_it);
  may_go.pass();
  holder.join();
  std::printf("%d %d", waits, ended(child));
  return 0;
}

TEST(StoreFLockFiles, AChildForkedBesideAHolderWaitsForItAndThenGetsTheLock) {
  const TempDir root;
  EXPECT_EQ(run("fork_beside_a_holder", root).out, "1 0");
}

// --- what the file holds ---

namespace {

std::unique_ptr<Cache> basic_cache() {
  return std::make_unique<Cache>("maps", make_file_store(StoreKind::basic, "maps"), false);
}

void add_one(const std::string& key, std::size_t size) {
  basic_cache()->add_value(buffer(key), buffers({std::string(size, 'v')}));
}

// A process that the kernel kills in the middle of its append, where its file would grow
// beyond the limit.
int killed_in_an_append() {
  const pid_t child = fork();
  if (child == 0) {
    const rlimit limit{10000, 10000};
    setrlimit(RLIMIT_FSIZE, &limit);
    add_one("killed", 20000);
    _exit(0);
  }
  return ended(child);
}

std::string undone(const TempDir& root) {
  return "WARN Undid an append to " + root.file("maps") + " that was cut short";
}

Messages relevant(const Ran& ran) {
  Messages messages = test::without_lines(ran.messages());
  std::erase(messages, "INFO Statistics capture disabled.");
  return messages;
}

}  // namespace

SCENARIO(append_after_a_killed_one) {
  add_one("first", 1);
  std::printf("%d ", killed_in_an_append());
  add_one("second", 1);
  add_one("third", 1);
  return 0;
}

TEST(StoreFLockNote, OfAKilledAppendIsHeededOnceAndWithOneRecord) {
  const TempDir root;
  const Ran ran = run("append_after_a_killed_one", root);
  EXPECT_EQ(ran.out, std::to_string(1000 + SIGXFSZ) + " ");
  EXPECT_EQ(relevant(ran), Messages{undone(root)});
  EXPECT_EQ(test::read_file(root.file("maps")),
            test::basic_file({{"first", {"v"}}, {"second", {"v"}}, {"third", {"v"}}}));
  EXPECT_EQ(test::read_file(root.file("lock_maps")), "");
}

SCENARIO(take_and_leave_the_lock) {
  StoreFLock lock("maps");
  lock.lock();
  lock.unlock();
  return 0;
}

TEST(StoreFLockNote, ThatMakesNoSenseIsClearedInSilence) {
  for (const std::string& text :
       {std::string("text"), std::string(5000, 'x'), std::string(100, '\0')}) {
    const TempDir root;
    test::write_file(root.file("lock_maps"), text);
    test::write_file(root.file("maps"), "what is there");
    const Ran ran = run("take_and_leave_the_lock", root);
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.messages(), Messages{});
    EXPECT_EQ(test::read_file(root.file("lock_maps")), "");
    EXPECT_EQ(test::read_file(root.file("maps")), "what is there");
  }
}

// The note's reader may not write to the lock file: what it appended would be undone by
// the next one.
SCENARIO(append_beside_a_note_that_stays) {
  add_one("first", 1);
  killed_in_an_append();
  const pid_t child = fork();
  if (child == 0) {
    test::refuse(SYS_pwrite64, EBADF);
    test::refuse(SYS_ftruncate, EINVAL);
    StoreFLock lock("maps");
    quorvane::cache::BasicStore store("maps", std::make_shared<StoreFLock>(std::move(lock)),
                                      nullptr);
    std::printf("%d ", store.try_store_diff(test::entry_map({{"second", {"v"}}})));
    std::fflush(stdout);
    _exit(0);
  }
  std::printf("%d", ended(child));
  std::fflush(stdout);
  add_one("third", 1);
  return 0;
}

TEST(StoreFLockNote, ThatCannotBeClearedKeepsItsReaderFromAppending) {
  const TempDir root;
  const Ran ran = run("append_beside_a_note_that_stays", root);
  EXPECT_EQ(ran.out, "0 0");
  EXPECT_EQ(test::read_file(root.file("maps")),
            test::basic_file({{"first", {"v"}}, {"third", {"v"}}}));
}

// A process that may write to the lock file, but has no descriptor for the store's.
SCENARIO(load_without_descriptors) {
  add_one("first", 1);
  killed_in_an_append();
  const pid_t child = fork();
  if (child == 0) {
    auto store = make_file_store(StoreKind::basic, "maps");
    while (open("/dev/null", O_RDONLY) >= 0) {
    }
    quorvane::cache::EntryMap entries;
    _exit(store->try_load(entries) ? 1 : 0);
  }
  std::printf("%d ", ended(child));
  auto cache = basic_cache();
  std::printf("%d %zu", cache->is_valid(), cache->size());
  return 0;
}

TEST(StoreFLockNote, ThatCannotBeHeededStaysForAProcessThatCan) {
  const TempDir root;
  EXPECT_EQ(run("load_without_descriptors", root).out, "0 1 1");
}

// The name of a cache may make its file the lock file of another.
SCENARIO(lock_that_is_a_store) {
  {
    Cache cache("lock_maps", make_file_store(StoreKind::basic, "lock_maps"), false);
    cache.add_value(buffer("a"), buffers({"1"}));
  }
  add_one("first", 1);
  return 0;
}

TEST(StoreFLockNote, IsNotWrittenIntoTheFileOfAStore) {
  const TempDir root;
  EXPECT_TRUE(run("lock_that_is_a_store", root).exited_with(0));
  EXPECT_EQ(test::read_file(root.file("lock_maps")), test::basic_file({{"a", {"1"}}}));
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"first", {"v"}}}));
}

// The disk is full, say: that is no reason not to try.
SCENARIO(append_without_a_note) {
  test::refuse(SYS_pwrite64, ENOSPC);
  add_one("first", 1);
  return 0;
}

TEST(StoreFLockNote, ThatCannotBeWrittenKeepsNobodyFromAppending) {
  const TempDir root;
  const Ran ran = run("append_without_a_note", root);
  EXPECT_EQ(relevant(ran), Messages{});
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"first", {"v"}}}));
}

// An append that has ended must not be undone though its note can't be cut away.
SCENARIO(append_whose_note_cannot_be_cut) {
  const pid_t child = fork();
  if (child == 0) {
    test::refuse(SYS_ftruncate, EIO);
    add_one("first", 1);
    _exit(0);
  }
  return ended(child);
}

TEST(StoreFLockNote, OfAnAppendThatHasEndedIsOverwrittenWhereItCannotBeCut) {
  const TempDir root;
  EXPECT_TRUE(run("append_whose_note_cannot_be_cut", root).exited_with(0));
  const Ran ran = run("take_and_leave_the_lock", root);
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"first", {"v"}}}));
}

// A store may be given a lock that nobody has taken, or one of another kind.
SCENARIO(append_without_the_lock) {
  auto lock = std::make_shared<StoreFLock>("maps");
  quorvane::cache::BasicStore own("maps", lock, nullptr);
  quorvane::cache::BasicStore other("other", std::make_shared<test::CountingLock>(), nullptr);
  StoreFLock holder("maps");
  holder.lock();
  test::write_file(root_file("lock_maps"), "the holder's");
  std::printf("%d %d", own.try_nonlock_append(test::entry_map({{"a", {"1"}}}), {}),
              other.try_nonlock_append(test::entry_map({{"b", {"2"}}}), {}));
  return 0;
}

TEST(StoreFLockNote, IsWrittenByNobodyWhoDoesNotHoldTheLock) {
  const TempDir root;
  EXPECT_EQ(run("append_without_the_lock", root).out, "1 1");
  EXPECT_EQ(test::read_file(root.file("lock_maps")), "the holder's");
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"a", {"1"}}}));
  EXPECT_EQ(test::read_file(root.file("other")), test::basic_file({{"b", {"2"}}}));
}

// Cleaning a lazy store deletes two files.
SCENARIO(clean_that_is_killed) {
  {
    Cache cache("maps", make_file_store(StoreKind::lazy_lookup, "maps"), false);
    cache.add_value(buffer("a"), buffers({"1"}));
  }
  const pid_t child = fork();
  if (child == 0) {
    test::refuse_after(SYS_unlink, 0, test::When{0, static_cast<std::uint32_t>(0), true}, [] {
      unlinkat(AT_FDCWD, root_file("val_maps").c_str(), 0);
      kill(getpid(), SIGKILL);
    });
    quorvane::cache::CleanupController controller(1);
    Cache cache("maps", make_file_store(StoreKind::lazy_lookup, "maps", &controller), false);
    _exit(0);
  }
  std::printf("%d ", ended(child));
  Cache cache("maps", make_file_store(StoreKind::lazy_lookup, "maps"), false);
  std::printf("%d %zu", cache.is_valid(), cache.size());
  return 0;
}

TEST(StoreFLockNote, OfAKilledCleaningHasTheOtherFileDeleted) {
  const TempDir root;
  EXPECT_EQ(run("clean_that_is_killed", root).out, std::to_string(1000 + SIGKILL) + " 1 0");
}

// --- a long wait ---

// Arguments: who holds it. Ends when the record is there.
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
    const TempDir root;
    const Ran ran = run("long_wait", root, {holder});
    EXPECT_TRUE(ran.exited_with(0)) << holder;
    EXPECT_EQ(ran.messages(),
              Messages{"WARN Waiting for cache store lock " + root.file("lock_maps") +
                       " for 5 s, held by process " + std::to_string(ran.pid)})
        << holder;
  }
}
