// Stores that load and never write.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/lock_probe.h"
#include "support/made_store.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::EntryMap;
using quorvane::cache::make_store;
using quorvane::cache::Store;
using quorvane::cache::StoreOptions;
using test::kStoredListing;
using test::names_in;
using test::options_of;
using test::Ran;
using test::TempDir;
using testing::Contains;
using testing::Each;
using testing::IsEmpty;
using Messages = std::vector<std::string>;

namespace {

constexpr int kReadOnlyOpen = O_RDONLY | O_CLOEXEC | O_NONBLOCK;

std::string root_file(const std::string& name) {
  return std::string(getenv("QV_CACHE_STORE_ROOT")) + "/" + name;
}

const std::string kLoaded = "valid 1\nload 1\n" + kStoredListing;

// For both kinds of store. The root has a store with entries of each kind.
class ReadOnlyStore : public testing::TestWithParam<std::string> {
 protected:
  ReadOnlyStore() {
    test::write_stores(root_.path());
    test::write_file(root_.file("lock_maps"), "");
  }
  ~ReadOnlyStore() override { chmod(root_.path().c_str(), 0755); }

  Ran run(std::vector<std::string> words, const std::string& scenario = "use",
          const std::string& size = "0") const {
    words.insert(words.begin(), {GetParam(), "read-only"});
    Ran ran = test::run_scenario(scenario,
                                 {{"QV_CACHE_STORE_ROOT", root_.path()},
                                  {"QV_CACHE_STORE_SIZE", size},
                                  {"QV_LOG_LEVEL", "WARN"}},
                                 words);
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    return ran;
  }

  std::string file() const { return root_.file(GetParam() == "lazy" ? "key_maps" : "maps"); }
  std::string lock() const { return root_.file("lock_maps"); }
  std::string stores_nothing() const {
    return "WARN Cache store " + file() + " is read-only, nothing is stored";
  }
  std::string no_lock(const std::string& reason) const {
    return "WARN Cache store " + lock() + " lock couldn't be obtained: " + reason + ".";
  }
  void remove_stores() const {
    for (const char* name : {"maps", "key_maps", "val_maps"}) {
      unlink(root_.file(name).c_str());
    }
  }

  TempDir root_;
};

// The bytes of every file, one after the other.
std::string all_bytes(const std::string& root) {
  std::string bytes;
  for (const std::string& name : names_in(root)) {
    bytes += name + "\n" + test::read_file(root + "/" + name) + "\n";
  }
  return bytes;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, ReadOnlyStore, testing::Values("basic", "lazy"),
                         [](const auto& kind) { return kind.param; });

SCENARIO(use) { return test::make_and_use_store(arguments); }

// --- what it does ---

TEST_P(ReadOnlyStore, LoadsWhatIsStored) {
  const std::string before = all_bytes(root_.path());
  const Ran ran = run({"load"});
  EXPECT_EQ(ran.out, kLoaded);
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(all_bytes(root_.path()), before);
}

TEST_P(ReadOnlyStore, StoresNothingAndSaysSo) {
  const std::string before = all_bytes(root_.path());
  const Ran ran = run({"load", "store"});
  EXPECT_EQ(ran.out, kLoaded + "store 0\n");
  EXPECT_EQ(ran.messages(), Messages{stores_nothing()});
  EXPECT_EQ(all_bytes(root_.path()), before);
}

TEST_P(ReadOnlyStore, HasStoredNothingAtAllWithoutARecord) {
  const Ran ran = run({"load", "store-nothing"});
  EXPECT_EQ(ran.out, kLoaded + "store nothing 1\n");
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST_P(ReadOnlyStore, CreatesNoFile) {
  remove_stores();
  unlink(lock().c_str());
  const Ran ran = run({"load", "store", "store-nothing"});
  EXPECT_EQ(ran.out, GetParam() == "lazy" ? "valid 1\nload 0\nstore 0\nstore nothing 1\n"
                                          : "valid 1\nload 1\nstore 0\nstore nothing 1\n");
  EXPECT_THAT(names_in(root_.path()), IsEmpty());
}

TEST_P(ReadOnlyStore, IsNotCleaned) {
  EXPECT_EQ(run({"load", "store"}, "use", "1").out, kLoaded + "store 0\n");
  EXPECT_EQ(run({"limit=1", "load", "store"}).out, kLoaded + "store 0\n");
  EXPECT_TRUE(test::exists(file()));
}

SCENARIO(cache_that_reads_only) {
  Cache cache("maps", make_store(options_of(arguments)), false);
  cache.add_value(test::buffer("new"), test::buffers({"9"}));
  std::printf("%zu", cache.size());
  return 0;
}

TEST_P(ReadOnlyStore, ServesACacheThatForgetsWhatIsAdded) {
  const std::string before = all_bytes(root_.path());
  const Ran ran = run({}, "cache_that_reads_only");
  EXPECT_EQ(ran.out, "3");
  EXPECT_THAT(ran.messages(), Contains(stores_nothing()));
  EXPECT_EQ(all_bytes(root_.path()), before);
}

// --- permissions ---

// Root may write to anything, so it becomes another user.
SCENARIO(use_without_privileges) {
  if (geteuid() == 0 &&
      (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)) {
    return 2;
  }
  const int writable = open(root_file("lock_maps").c_str(), O_RDWR | O_CLOEXEC);
  return writable < 0 ? test::make_and_use_store(arguments) : 3;
}

TEST_P(ReadOnlyStore, NeedsNoPermissionToWrite) {
  for (const std::string& name : names_in(root_.path())) {
    ASSERT_EQ(chmod(root_.file(name).c_str(), 0444), 0);
  }
  ASSERT_EQ(chmod(root_.path().c_str(), 0555), 0);
  const Ran ran = run({"load", "store"}, "use_without_privileges");
  EXPECT_EQ(ran.out, kLoaded + "store 0\n");
  EXPECT_EQ(ran.messages(), Messages{stores_nothing()});
}

TEST_P(ReadOnlyStore, IsNotValidWhenItsLockFileMayNotBeRead) {
  ASSERT_EQ(chmod(lock().c_str(), 0), 0);
  ASSERT_EQ(chmod(root_.path().c_str(), 0555), 0);
  const Ran ran = run({}, "use_without_privileges");
  EXPECT_EQ(ran.out, "valid 0\n");
  EXPECT_EQ(ran.messages(), Messages{no_lock("Permission denied")});
}

SCENARIO(use_where_only_reading_is_allowed) {
  test::refuse(SYS_openat, EROFS, test::When{2, kReadOnlyOpen, true});
  return test::make_and_use_store(arguments);
}

TEST_P(ReadOnlyStore, OpensEveryFileForReadingOnly) {
  EXPECT_EQ(run({"load"}, "use_where_only_reading_is_allowed").out, kLoaded);
}

TEST_P(ReadOnlyStore, IsNotValidWithoutItsRoot) {
  const Ran ran = run({"root=" + root_.file("none")});
  EXPECT_EQ(ran.out, "valid 0\n");
  EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root_.file("none/lock_maps") +
                                     " lock couldn't be obtained: No such file or directory."});
}

// --- the lock ---

// The first argument after the options is an operation of flock(2).
SCENARIO(load_next_to_a_lock) {
  alarm(test::kHangSeconds);
  const int fd = open(root_file("lock_maps").c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0 || flock(fd, arguments.back() == "shared" ? LOCK_SH : LOCK_EX) != 0) {
    return 2;
  }
  test::Signpost loaded;
  const pid_t child = test::in_child([&] {
    const auto store = make_store(options_of(arguments));
    EntryMap out;
    const bool ok = store->try_load(out);
    loaded.pass();
    return ok ? 0 : 1;
  });
  const bool waits = test::waits_for_lock(child, loaded);
  flock(fd, LOCK_UN);
  std::printf("%d %d", waits, test::wait_for(child));
  return 0;
}

TEST_P(ReadOnlyStore, WaitsForAWriter) {
  EXPECT_EQ(run({"exclusive"}, "load_next_to_a_lock").out, "1 0");
}

TEST_P(ReadOnlyStore, DoesNotWaitForAnotherReader) {
  EXPECT_EQ(run({"shared"}, "load_next_to_a_lock").out, "0 0");
}

// A writer is in the middle of an append: the lock file holds something.
SCENARIO(make_next_to_a_writer) {
  alarm(test::kHangSeconds);
  const int fd = open(root_file("lock_maps").c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0 || flock(fd, LOCK_EX) != 0 || write(fd, "note", 4) != 4) {
    return 2;
  }
  test::Signpost made;
  const pid_t child = test::in_child([&] {
    const auto store = make_store(options_of(arguments));
    made.pass();
    return store->is_valid() ? 0 : 1;
  });
  const bool waits = test::waits_for_lock(child, made);
  flock(fd, LOCK_UN);
  std::printf("%d %d", waits, test::wait_for(child));
  return 0;
}

TEST_P(ReadOnlyStore, IsMadeWithoutWaitingForAWriter) {
  EXPECT_EQ(run({}, "make_next_to_a_writer").out, "0 0");
  EXPECT_EQ(run({"must-exist"}, "make_next_to_a_writer").out, "0 0");
}

TEST_P(ReadOnlyStore, LoadsWithoutALockFile) {
  unlink(lock().c_str());
  const Ran ran = run({"load", "load"}, GetParam() == "lazy" ? "use_once" : "use");
  EXPECT_EQ(ran.out, GetParam() == "lazy" ? kLoaded : kLoaded + "load 1\n" + kStoredListing);
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_FALSE(test::exists(lock()));
}

// A second load of a lazy store aborts.
SCENARIO(use_once) {
  test::Arguments words = arguments;
  words.pop_back();
  return test::make_and_use_store(words);
}

SCENARIO(load_after_a_writer_came) {
  alarm(test::kHangSeconds);
  unlink(root_file("lock_maps").c_str());
  const auto store = make_store(options_of(arguments));
  const int fd = open(root_file("lock_maps").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  flock(fd, LOCK_EX);
  test::Signpost loaded;
  const pid_t child = test::in_child([&] {
    test::use_store(*store, {"load"});
    std::fflush(stdout);
    loaded.pass();
    return 0;
  });
  const bool waits = test::waits_for_lock(child, loaded);
  flock(fd, LOCK_UN);
  std::printf("%d", waits + 2 * test::wait_for(child));
  return 0;
}

TEST_P(ReadOnlyStore, TakesALockFileThatIsCreatedLater) {
  EXPECT_EQ(run({}, "load_after_a_writer_came").out, "load 1\n" + kStoredListing + "1");
}

SCENARIO(load_after_a_foreign_writer_came) {
  unlink(root_file("lock_maps").c_str());
  const auto store = make_store(options_of(arguments));
  test::write_file(root_file("lock_maps"), "");
  test::refuse(SYS_openat, EACCES, test::When{2, kReadOnlyOpen});
  std::printf("%d", store->is_valid());
  test::use_store(*store, {"load"});
  return 0;
}

TEST_P(ReadOnlyStore, DoesNotLoadWithoutTheLockOfAFileThatItMayNotRead) {
  const Ran ran = run({}, "load_after_a_foreign_writer_came");
  EXPECT_EQ(ran.out, "1load 0\n");
  EXPECT_EQ(ran.messages(), Messages{no_lock("Permission denied")});
}

SCENARIO(load_after_the_lock_file_is_gone) {
  const auto store = make_store(options_of(arguments));
  unlink(root_file("lock_maps").c_str());
  const pid_t child = test::in_child([&] {
    EntryMap out;
    return store->try_load(out) ? 0 : 1;
  });
  std::printf("child %d\n", test::wait_for(child));
  test::use_store(*store, {"load"});
  return 0;
}

TEST_P(ReadOnlyStore, LoadsInParentAndChildWhenItsLockFileIsDeleted) {
  const Ran ran = run({}, "load_after_the_lock_file_is_gone");
  EXPECT_EQ(ran.out, "child 0\nload 1\n" + kStoredListing);
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_FALSE(test::exists(lock()));
}

// The child's descriptor must not share its parent's lock, and is for reading only, too.
SCENARIO(load_in_a_child) {
  alarm(test::kHangSeconds);
  const auto store = make_store(options_of(arguments));
  test::refuse(SYS_openat, EROFS, test::When{2, kReadOnlyOpen, true});
  const pid_t child = test::in_child([&] {
    EntryMap out;
    return store->try_load(out) ? 0 : 1;
  });
  std::printf("child %d\n", test::wait_for(child));
  return 0;
}

TEST_P(ReadOnlyStore, LoadsInAChild) { EXPECT_EQ(run({}, "load_in_a_child").out, "child 0\n"); }

SCENARIO(load_where_the_lock_is_a_pipe) {
  alarm(test::kHangSeconds);
  unlink(root_file("lock_maps").c_str());
  return mkfifo(root_file("lock_maps").c_str(), 0644) == 0 ? test::make_and_use_store(arguments)
                                                           : 2;
}

TEST_P(ReadOnlyStore, DoesNotWaitForAPipeInThePlaceOfItsLockFile) {
  EXPECT_EQ(run({"load"}, "load_where_the_lock_is_a_pipe").out, kLoaded);
}

// --- an append that was cut short ---

SCENARIO(load_after_a_killed_append) {
  alarm(test::kHangSeconds);
  StoreOptions options = options_of(arguments);
  options.read_only = false;
  if (!test::append_and_be_killed(options)) {
    return 2;
  }
  const std::string before = all_bytes(getenv("QV_CACHE_STORE_ROOT"));
  test::make_and_use_store(arguments);
  std::printf("unchanged %d\n", before == all_bytes(getenv("QV_CACHE_STORE_ROOT")));
  return 0;
}

TEST_P(ReadOnlyStore, IsNotLoadedAfterAKilledAppendAndLeavesEverythingAsItIs) {
  const Ran ran = run({"load"}, "load_after_a_killed_append");
  EXPECT_EQ(ran.out, "valid 1\nload 0\nunchanged 1\n");
  EXPECT_EQ(ran.messages(),
            Messages{"WARN Cache store " + file() +
                     " is not loaded: an append to it was cut short, open it once for writing"});
  EXPECT_NE(test::read_file(lock()), "");
}

SCENARIO(load_once_for_writing) {
  StoreOptions options = options_of(arguments);
  options.read_only = false;
  EntryMap out;
  return make_store(options)->try_load(out) ? 0 : 1;
}

TEST_P(ReadOnlyStore, IsLoadedOnceAWriterHasUndoneAKilledAppend) {
  run({"load"}, "load_after_a_killed_append");
  run({}, "load_once_for_writing");
  const Ran ran = run({"load"});
  EXPECT_EQ(ran.out, kLoaded);
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST_P(ReadOnlyStore, IsLoadedNextToALockFileWhoseBytesAreNoNote) {
  test::write_file(lock(), "nonsense");
  EXPECT_EQ(run({"load"}).out, kLoaded);
  EXPECT_EQ(test::read_file(lock()), "nonsense");
}
