// Stores to which the kernel refuses room, a writable root, descriptors, the mapping or the
// file's size.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <vector>

#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using test::basic_file;
using test::buffer;
using test::buffers;
using test::expectation;
using test::kEntries;
using test::Ran;
using test::root_path;
using test::StoreRoot;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

std::unique_ptr<Store> maps_store() { return test::maps_store(StoreKind::basic); }

Ran run(const std::string& scenario, const StoreRoot& root, const test::Arguments& arguments = {}) {
  return root.run(scenario, arguments, "WARN");
}

void limit_file_size(rlim_t bytes) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{bytes, bytes};
  setrlimit(RLIMIT_FSIZE, &limit);
}

// Expects the records of an append for which the disk had no room. Ignores the error text of
// the removal: its errno is left over from the failed write.
void expect_lost(const Messages& messages, const std::string& maps, bool at_write) {
  Messages expected;
  if (at_write) {
    expected.push_back(expectation(
        "file.write(reinterpret_cast<const char *>(fbuffer.get_buffer()), fbuffer.get_size()) "
        ".good()"));
  }
  expected.push_back(expectation("!fbuffer_corrupted && file.good()"));
  expected.push_back("WARN Error removing file " + maps + ": ");
  expected.push_back("WARN Cache file " + maps + " removed as it couldn't be stored correctly");
  expected.push_back(expectation("store_->try_store_diff(diff_map_)"));
  ASSERT_EQ(messages.size(), expected.size());
  for (std::size_t i = 0; i < messages.size(); ++i) {
    if (expected[i].back() == ' ') {
      EXPECT_EQ(messages[i].substr(0, expected[i].size()), expected[i]);
      EXPECT_EQ(messages[i].back(), '\n');
    } else {
      EXPECT_EQ(messages[i], expected[i]);
    }
  }
}

}  // namespace

// --- no room ---

// Arguments: what limits the room, and the size of a value that exceeds it.
SCENARIO(append_without_room) {
  const std::string mounted = root_path() + "/small";
  // A process that can't mount gets a size limit instead.
  if (arguments.at(0) == "size limit" ||
      mount("tmpfs", mounted.c_str(), "tmpfs", 0, "size=64k") != 0) {
    limit_file_size(64 * 1024);
  }
  setenv("QV_CACHE_STORE_ROOT", mounted.c_str(), 1);
  {
    Cache cache("maps", maps_store(), false);
    cache.add_value(buffer("a"), buffers({std::string(10000, 'x')}));
    cache.add_value(buffer("b"), buffers({std::string(std::stoul(arguments.at(1)), 'y')}));
    std::printf("%d ", cache.is_valid());
  }
  std::printf("%d ", test::exists(mounted + "/maps"));
  Cache next("maps", maps_store(), false);
  std::printf("%d %zu", next.is_valid(), next.size());
  std::fflush(stdout);
  umount2(mounted.c_str(), MNT_DETACH);
  return 0;
}

void expect_no_room(const std::string& how) {
  const StoreRoot root;
  ASSERT_EQ(mkdir(root.file("small").c_str(), 0755), 0);
  const Ran ran = run("append_without_room", root, {how, "100000"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "1 0 1 0") << how;
  expect_lost(without_lines(ran.messages()), root.file("small/maps"), true);
}

TEST(CacheRefusals, AFullDiskCostsTheWholeFileAndTheNextCacheIsEmpty) {
  expect_no_room("full disk");
}

TEST(CacheRefusals, AFileSizeLimitCostsTheWholeFileAndTheNextCacheIsEmpty) {
  expect_no_room("size limit");
}

// The entry fits into the stream's buffer, so the kernel refuses only the flush.
int append_with_a_refused_flush() {
  {
    Cache cache("maps", maps_store(), false);
    cache.add_value(buffer("a"), buffers({std::string(200, 'x')}));
    test::refuse_writes_to_the_next_file();
  }
  return 0;
}

SCENARIO(refused_flush) { return append_with_a_refused_flush(); }

TEST(CacheRefusals, ARefusalThatShowsOnlyAtTheFlushCostsTheWholeFile) {
  const StoreRoot root;
  test::write_file(root.file("maps"), basic_file(kEntries));
  const Ran ran = run("refused_flush", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_FALSE(test::exists(root.file("maps")));
  expect_lost(without_lines(ran.messages()), root.file("maps"), false);
}

// Only a network file system refuses a close in this way.
SCENARIO(refused_close) {
  {
    Cache cache("maps", maps_store(), false);
    cache.add_value(buffer("a"), buffers({"1"}));
    test::refuse(SYS_close, EDQUOT);
  }
  return 0;
}

TEST(CacheRefusals, ARefusalThatShowsOnlyAtTheCloseCostsTheWholeFile) {
  const StoreRoot root;
  const Ran ran = run("refused_close", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_FALSE(test::exists(root.file("maps")));
  expect_lost(without_lines(ran.messages()), root.file("maps"), false);
}

// The file stays open, so its descriptor isn't reused.
SCENARIO(refused_close_of_a_mapping) {
  {
    Cache cache("maps", maps_store(), false);
    cache.add_value(buffer("ccc"), buffers({"4"}));
    test::refuse(SYS_close, EIO, test::When{0, test::next_descriptor()});
  }
  return 0;
}

TEST(CacheRefusals, AMappingThatCannotBeClosedIsReportedAndTheAppendGoesOn) {
  const StoreRoot root;
  test::write_file(root.file("maps"), basic_file(kEntries));
  const Ran ran = run("refused_close_of_a_mapping", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(without_lines(ran.messages()),
            Messages{expectation("::close(fd_) == 0", "util/src/mmapped_file")});
  EXPECT_EQ(test::read_file(root.file("maps")),
            basic_file(kEntries) + test::entry_bytes({"ccc", {"4"}}));
}

TEST(CacheRefusals, AHeaderThatCannotBeWrittenIsReported) {
  const StoreRoot root;
  const Ran ran = run("refused_flush", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_FALSE(test::exists(root.file("maps")));
  Messages messages = without_lines(ran.messages());
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages[0], "ERROR Writing header file failed (" + root.file("maps") + ")");
  messages.erase(messages.begin());
  expect_lost(messages, root.file("maps"), false);
}

// --- a read-only root ---

SCENARIO(read_only_root) {
  const std::string mounted = root_path() + "/small";
  // A process that can't mount gets a refusal instead.
  if (arguments.at(0) == "refusal" ||
      mount("tmpfs", mounted.c_str(), "tmpfs", MS_RDONLY, "size=64k") != 0) {
    test::refuse(SYS_openat, EROFS, test::When{2, O_RDWR | O_CREAT | O_CLOEXEC});
  }
  setenv("QV_CACHE_STORE_ROOT", mounted.c_str(), 1);
  std::unique_ptr<Store> store = maps_store();
  {
    Cache cache("maps", std::move(store), false);
    Cache fallback("maps", std::move(store), true);
    std::printf("%d %d %d", cache.is_valid(), fallback.is_valid(), store != nullptr);
    std::fflush(stdout);
  }
  umount2(mounted.c_str(), MNT_DETACH);
  return 0;
}

TEST(CacheRefusals, AReadOnlyRootGivesNoLockAndSoNoValidStore) {
  for (const char* how : {"mount", "refusal"}) {
    const StoreRoot root;
    ASSERT_EQ(mkdir(root.file("small").c_str(), 0755), 0);
    const Ran ran = run("read_only_root", root, {how});
    EXPECT_EQ(ran.out, "0 1 1") << how;
    EXPECT_TRUE(ran.exited_with(0)) << how;
    EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root.file("small/lock_maps") +
                                       " lock couldn't be obtained: Read-only file system."})
        << how;
  }
}

// --- no descriptors ---

// Refuses to open files: at a real limit, a sanitizer's runtime would end the process.
void leave_no_descriptor() { test::refuse(SYS_openat, EMFILE); }

SCENARIO(no_descriptor_for_the_lock) {
  leave_no_descriptor();
  Cache cache("maps", maps_store(), true);
  std::printf("%d", cache.is_valid());
  return 0;
}

TEST(CacheRefusals, WithoutADescriptorForTheLockTheStoreIsInvalid) {
  const StoreRoot root;
  const Ran ran = run("no_descriptor_for_the_lock", root);
  EXPECT_EQ(ran.out, "1");
  EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root.file("lock_maps") +
                                     " lock couldn't be obtained: Too many open files."});
}

SCENARIO(no_descriptor_for_the_file) {
  std::unique_ptr<Store> store = maps_store();
  leave_no_descriptor();
  Cache cache("maps", std::move(store), true);
  std::printf("%d", cache.is_valid());
  return 0;
}

TEST(CacheRefusals, WithoutADescriptorForTheFileTheLoadFails) {
  const StoreRoot root;
  test::write_file(root.file("maps"), basic_file(kEntries));
  const Ran ran = run("no_descriptor_for_the_file", root);
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("file.is_open()"),
                      "ERROR Couldn't create maps cache with BasicStore store type"}));
}

SCENARIO(no_descriptor_for_the_append) {
  {
    Cache cache("maps", maps_store(), true);
    cache.add_value(buffer("k"), buffers({"v"}));
    leave_no_descriptor();
  }
  return 0;
}

TEST(CacheRefusals, WithoutADescriptorForTheAppendTheFileIsGivenUp) {
  const StoreRoot root;
  const Ran ran = run("no_descriptor_for_the_append", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("file.good()"), expectation("!fbuffer_corrupted && file.good()"),
                      "WARN Cache file " + root.file("maps") +
                          " removed as it couldn't be stored correctly",
                      expectation("store_->try_store_diff(diff_map_)")}));
}

TEST(CacheRefusals, WithoutADescriptorForTheScanALoadedFileIsLeftAlone) {
  const StoreRoot root;
  test::write_file(root.file("maps"), basic_file(kEntries));
  const Ran ran = run("no_descriptor_for_the_append", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("file.is_open()"),
                      expectation("loaded_map_last_size_ == 0 || new_keys_loaded"),
                      expectation("store_->try_store_diff(diff_map_)")}));
  EXPECT_EQ(test::read_file(root.file("maps")), basic_file(kEntries));
}

// --- refused calls ---

// Argument: the call that the kernel refuses once the store is made.
SCENARIO(refused_load) {
  std::unique_ptr<Store> store = maps_store();
  const std::string& what = arguments.at(0);
  if (what == "mmap") {
    test::refuse(SYS_mmap, ENOMEM, test::When{3, MAP_PRIVATE | MAP_POPULATE});
  } else if (what == "fstat") {
    test::refuse(SYS_newfstatat, EIO, test::When{3, AT_EMPTY_PATH});
    test::refuse(SYS_fstat, EIO);
  } else {
    test::refuse(SYS_flock, ENOLCK);
  }
  Cache cache("maps", std::move(store), true);
  std::printf("%d", cache.is_valid());
  return 0;
}

Ran refused_load(const StoreRoot& root, const std::string& what) {
  test::write_file(root.file("maps"), basic_file(kEntries));
  return run("refused_load", root, {what});
}

TEST(CacheRefusals, AMappingThatIsRefusedFailsTheLoad) {
  const StoreRoot root;
  const Ran ran = refused_load(root, "mmap");
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("file.is_open()"),
                      "ERROR Couldn't create maps cache with BasicStore store type"}));
}

TEST(CacheRefusals, ASizeThatIsRefusedFailsTheLoad) {
  const StoreRoot root;
  const Ran ran = refused_load(root, "fstat");
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(
      without_lines(ran.messages()),
      (Messages{"ERROR fstat(" + root.file("maps") + ") failed with error: " + "Input/output error",
                expectation("file.is_open()"),
                "ERROR Couldn't create maps cache with BasicStore store type"}));
}

TEST(CacheRefusals, ALockThatIsRefusedEndsTheProcess) {
  const StoreRoot root;
  const Ran ran = refused_load(root, "flock");
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(without_lines(ran.messages()), Messages{test::assertion("flock_ret == 0")});
  EXPECT_EQ(test::read_file(root.file("maps")), basic_file(kEntries));
}

// --- a file that can't be removed ---

SCENARIO(unremovable) {
  test::refuse(SYS_unlink, EBUSY);
  test::refuse(SYS_unlinkat, EBUSY);
  return append_with_a_refused_flush();
}

TEST(CacheRefusals, AFileThatCannotBeRemovedIsReportedAsRemoved) {
  const StoreRoot root;
  test::write_file(root.file("maps"), basic_file(kEntries));
  const Ran ran = run("unremovable", root);
  EXPECT_TRUE(test::exists(root.file("maps")));
  // The library logs a removal error only if the removal succeeded.
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("!fbuffer_corrupted && file.good()"),
                      "WARN Cache file " + root.file("maps") +
                          " removed as it couldn't be stored correctly",
                      expectation("store_->try_store_diff(diff_map_)")}));
}
