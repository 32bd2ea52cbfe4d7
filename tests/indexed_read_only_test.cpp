// Caches on indexed stores that are opened for reading only.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/indexed_cache.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_root.h"

namespace {

using quorvane::cache::Cache;
using quorvane::cache::make_store;
using quorvane::cache::StoreOptions;
using test::add;
using test::get;
using test::in_child;
using test::names_in;
using test::open_cache;
using test::Ran;
using test::StoreRoot;
using test::wait_for;
using testing::ElementsAre;
using testing::IsEmpty;
using Messages = std::vector<std::string>;

const std::string kStatisticsOff = "INFO Statistics capture disabled.";
const std::string kNotCreated = "ERROR Couldn't create maps cache with IndexedStore store type";

StoreOptions read_only(const std::string& root) {
  StoreOptions options = test::indexed_options(root);
  options.read_only = true;
  return options;
}

// A store with one entry.
class ReadOnlyIndexedStore : public testing::Test {
 protected:
  ReadOnlyIndexedStore() { store("key", "value"); }
  ~ReadOnlyIndexedStore() override { chmod(root_.path().c_str(), 0755); }

  void store(const std::string& key, const std::string& value) const {
    ASSERT_TRUE(add(*open_cache(root_.path()), key, value));
  }

  void remove(const std::string& file) const { ASSERT_EQ(unlink(root_.file(file).c_str()), 0); }

  // The names and bytes of all files.
  std::string all_bytes() const {
    std::string bytes;
    for (const std::string& name : names_in(root_.path())) {
      bytes += name + "\n" + test::read_file(root_.file(name)) + "\n";
    }
    return bytes;
  }

  // Opens the store, looks the key up, adds another and flushes. Expects that no file changes.
  Ran use(const std::string& scenario = "read_only") const {
    const std::string before = all_bytes();
    Ran ran = root_.run_unlimited(scenario);
    EXPECT_TRUE(ran.exited_with(0)) << ran.status;
    EXPECT_EQ(all_bytes(), before);
    return ran;
  }

  void expect_useless(const Messages& messages) const {
    const Ran ran = use();
    EXPECT_EQ(ran.out, "0 null 0 1");
    EXPECT_EQ(ran.messages(), messages);
  }

  StoreRoot root_;
};

int use_read_only() {
  const auto cache = open_cache(read_only(test::root_path()));
  const std::string found = get(*cache, "key").value_or("null");
  const bool added = add(*cache, "new", "9");
  std::printf("%d %s %d %d", cache->is_valid(), found.c_str(), added, cache->flush());
  return 0;
}

SCENARIO(read_only) { return use_read_only(); }

TEST_F(ReadOnlyIndexedStore, IsFoundAndStoresNothing) {
  const Ran ran = use();
  EXPECT_EQ(ran.out, "1 value 1 0");
  const std::string refused =
      "WARN Couldn't append to " + root_.file("dat_maps") + ": it is open for reading only";
  const std::string lost = test::expectation("store_->try_store_diff(diff_map_)");
  EXPECT_EQ(test::without_lines(ran.messages()),
            (Messages{kStatisticsOff, refused, lost, refused, lost}));
}

// --- permissions ---

// Root may write to anything, so it becomes another user.
SCENARIO(read_only_without_privileges) {
  if (geteuid() == 0 &&
      (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)) {
    return 2;
  }
  const int writable = open(test::root_file("dat_maps").c_str(), O_RDWR | O_CLOEXEC);
  return writable < 0 ? use_read_only() : 3;
}

TEST_F(ReadOnlyIndexedStore, NeedsNoPermissionToWriteAndNoLockFile) {
  remove("lock_maps");
  for (const std::string& name : names_in(root_.path())) {
    ASSERT_EQ(chmod(root_.file(name).c_str(), 0444), 0);
  }
  ASSERT_EQ(chmod(root_.path().c_str(), 0555), 0);
  EXPECT_EQ(use("read_only_without_privileges").out, "1 value 1 0");
}

SCENARIO(read_only_where_writing_is_refused) {
  test::refuse(SYS_openat, EROFS, test::When{2, O_RDONLY | O_CLOEXEC | O_NONBLOCK, true},
               test::When{2, O_RDONLY | O_CLOEXEC, true});
  return use_read_only();
}

TEST_F(ReadOnlyIndexedStore, OpensEveryFileForReadingOnly) {
  EXPECT_EQ(use("read_only_where_writing_is_refused").out, "1 value 1 0");
}

// --- the lock ---

// Somebody holds the lock all the time.
SCENARIO(read_only_next_to_a_lock) {
  alarm(test::kHangSeconds);
  const int fd = open(test::root_file("lock_maps").c_str(), O_RDWR | O_CLOEXEC);
  return fd < 0 || flock(fd, LOCK_EX) != 0 ? 2 : use_read_only();
}

TEST_F(ReadOnlyIndexedStore, TakesNoLock) {
  EXPECT_EQ(use("read_only_next_to_a_lock").out, "1 value 1 0");
}

// --- what others do ---

TEST_F(ReadOnlyIndexedStore, FindsWhatIsStoredLater) {
  const auto cache = open_cache(read_only(root_.path()));
  EXPECT_EQ(get(*cache, "later"), std::nullopt);
  EXPECT_EQ(wait_for(in_child([&] {
              const auto writer = open_cache(root_.path());
              for (int i = 0; i < 2000; ++i) {  // so that the index grows
                add(*writer, "k" + std::to_string(i), "value");
              }
              return add(*writer, "later", "value") && writer->flush() ? 0 : 1;
            })),
            0);
  EXPECT_EQ(get(*cache, "later"), "value");
  EXPECT_EQ(get(*cache, "k1999"), "value");
  EXPECT_EQ(cache->size(), 2002U);
}

TEST_F(ReadOnlyIndexedStore, FollowsFilesThatTakeThePlaceOfItsOwn) {
  alarm(test::kHangSeconds);
  store("old", "value");
  const auto cache = open_cache(read_only(root_.path()));
  EXPECT_EQ(get(*cache, "key"), "value");
  remove("dat_maps");
  remove("idx_maps");
  EXPECT_EQ(get(*cache, "missing"), std::nullopt);
  store("new", "value");
  while (!get(*cache, "new")) {
  }
  alarm(0);
  EXPECT_EQ(get(*cache, "old"), std::nullopt);
  EXPECT_EQ(get(*cache, "key"), "value");  // found before
}

// --- what can't be opened ---

TEST_F(ReadOnlyIndexedStore, IsNotValidWithoutItsData) {
  remove("dat_maps");
  remove("idx_maps");
  expect_useless({kStatisticsOff,
                  "ERROR " + root_.file("dat_maps") +
                      " is missing or empty. To create the store, open it once for writing",
                  kNotCreated});
  EXPECT_THAT(names_in(root_.path()), ElementsAre("lock_maps"));
}

TEST_F(ReadOnlyIndexedStore, IsNotValidWithoutAnIndexThatFits) {
  const std::string record = "ERROR " + root_.file("idx_maps") +
                             " is missing or doesn't fit its data. To make it again, open the "
                             "store once for writing";
  test::write_file(root_.file("idx_maps"), std::string(5000, 'x'));
  expect_useless({kStatisticsOff, record, kNotCreated});
  remove("idx_maps");
  expect_useless({kStatisticsOff, record, kNotCreated});
  EXPECT_EQ(get(*open_cache(root_.path()), "key"), "value");
  EXPECT_EQ(use().out, "1 value 1 0");
}

SCENARIO(read_only_in_a_missing_root) {
  const std::string root = test::root_file("missing");
  const auto store = make_store(read_only(root));
  std::printf("%d %d", store->is_valid(), open_cache(read_only(root))->is_valid());
  return 0;
}

TEST(ReadOnlyIndexedStoreRoot, MustExist) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("read_only_in_a_missing_root").out, "0 0");
  EXPECT_THAT(names_in(root.path()), IsEmpty());
}

SCENARIO(read_only_that_must_exist) {
  StoreOptions options = read_only(test::root_path());
  options.must_exist = true;
  std::printf("%d", open_cache(options)->is_valid());
  return 0;
}

TEST(ReadOnlyIndexedStoreRoot, HasTheStoreThatMustExist) {
  const StoreRoot root;
  const Ran ran = root.run_unlimited("read_only_that_must_exist");
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(),
            Messages{"ERROR Cache store " + root.file("dat_maps") + " doesn't exist"});
  add(*open_cache(root.path()), "key", "value");
  EXPECT_EQ(root.run_unlimited("read_only_that_must_exist").out, "1");
}

}  // namespace
