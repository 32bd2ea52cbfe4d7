// Lazy stores to which the kernel refuses room, descriptors, the mappings or the files' sizes,
// and what a process leaves that is killed during an append.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/lazy_root.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using test::buffer;
using test::buffers;
using test::Entry;
using test::expectation;
using test::expectation_at;
using test::kEntries;
using test::lazy_files;
using test::lazy_lines;
using test::LazyFiles;
using test::LazyRoot;
using test::Ran;
using test::root_file;
using Messages = std::vector<std::string>;

namespace {

const std::string kWriteOfKey = expectation_at(
    "key_file .write(reinterpret_cast<const char *>( key_fbuffer.get_buffer()), "
    "key_fbuffer.get_size()) .good()",
    1096);
const std::string kWriteOfValue = expectation_at(
    "val_file .write(reinterpret_cast<const char *>( val_fbuffer.get_buffer()), "
    "val_fbuffer.get_size()) .good()",
    1115);
const std::string kNotStored =
    expectation_at("!fbuffer_corrupted && key_file.good() && val_file.good()", 1126);
const std::string kDiffLost = expectation("store_->try_store_diff(diff_map_)");
const std::string kNoCache = "ERROR Couldn't create maps cache with LazyLookupStore store type";

std::unique_ptr<Store> maps_store() { return test::maps_store(StoreKind::lazy_lookup); }

void limit_file_size(rlim_t bytes) {
  const rlimit limit{bytes, bytes};
  setrlimit(RLIMIT_FSIZE, &limit);
}

// In the order in which an append opens them.
enum File { KEY_FILE, VAL_FILE };

File file_named(const std::string& name) { return name == "key" ? KEY_FILE : VAL_FILE; }

// The messages `before`, then those of an append that loses the files.
Messages lost_messages(const LazyRoot& root, const Messages& before) {
  Messages messages = before;
  messages.push_back(kNotStored);
  messages.push_back("WARN Error removing file " + root.key() + ": ");
  messages.push_back("WARN Error removing file " + root.val() + ": ");
  messages.push_back(root.removed());
  messages.push_back(kDiffLost);
  return messages;
}

// Expects that a scenario logs `before`, loses the files and exits normally.
void expect_lost(const std::string& scenario, const test::Arguments& arguments,
                 const Messages& before) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run(scenario, arguments, "WARN");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_TRUE(root.has_neither());
  EXPECT_EQ(test::without_errno(lazy_lines(ran)), lost_messages(root, before));
}

}  // namespace

// --- no room ---

SCENARIO(append_beyond_a_size_limit) {
  signal(SIGXFSZ, SIG_IGN);
  limit_file_size(64 * 1024);
  {
    Cache cache("maps", maps_store(), false);
    cache.add_value(buffer("a"), buffers({std::string(10000, 'x')}));
    cache.add_value(buffer(std::string(std::stoul(arguments.at(0)), 'k')),
                    buffers({std::string(std::stoul(arguments.at(1)), 'y')}));
    cache.add_value(buffer(std::string(std::stoul(arguments.at(0)), 'l')), buffers({"never"}));
  }
  return 0;
}

TEST(LazyStoreRefusals, AValueBeyondTheSizeLimitCostsBothFiles) {
  expect_lost("append_beyond_a_size_limit", {"1", "100000"}, {kWriteOfValue});
}

TEST(LazyStoreRefusals, AKeyBeyondTheSizeLimitCostsBothFiles) {
  expect_lost("append_beyond_a_size_limit", {"100000", "1"}, {kWriteOfKey});
}

SCENARIO(append_to_a_full_disk) {
  const std::string mounted = root_file("small");
  mkdir(mounted.c_str(), 0755);
  // A process that can't mount gets a size limit instead.
  if (mount("tmpfs", mounted.c_str(), "tmpfs", 0, "size=64k") != 0) {
    signal(SIGXFSZ, SIG_IGN);
    limit_file_size(64 * 1024);
  }
  setenv("QV_CACHE_STORE_ROOT", mounted.c_str(), 1);
  {
    Cache cache("maps", maps_store(), false);
    cache.add_value(buffer("a"), buffers({std::string(100000, 'x')}));
    std::printf("%d ", cache.is_valid());
  }
  std::printf("%d%d ", test::exists(mounted + "/key_maps"), test::exists(mounted + "/val_maps"));
  {
    Cache next("maps", maps_store(), false);
    std::printf("%d %zu", next.is_valid(), next.size());
  }
  std::fflush(stdout);
  umount2(mounted.c_str(), MNT_DETACH);
  return 0;
}

TEST(LazyStoreRefusals, AFullDiskCostsBothFilesAndTheNextCacheIsEmpty) {
  const LazyRoot root;
  const Ran ran = root.run("append_to_a_full_disk", {}, "ERROR");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "1 00 1 0");
  EXPECT_EQ(lazy_lines(ran), (Messages{kWriteOfValue, kNotStored, kDiffLost}));
}

// The entry fits into the streams' buffers, so the kernel refuses only the flush.
SCENARIO(refused_flush) {
  Cache cache("maps", maps_store(), false);
  cache.add_value(buffer("a"), buffers({std::string(200, 'x')}));
  test::refuse_writes_to_the_next_file(file_named(arguments.at(0)));
  return 0;
}

TEST(LazyStoreRefusals, ARefusalThatShowsOnlyAtTheFlushOfEitherFileCostsBoth) {
  expect_lost("refused_flush", {"val"}, {});
  expect_lost("refused_flush", {"key"}, {});
}

// Only a network file system refuses a close in this way.
SCENARIO(refused_close) {
  Cache cache("maps", maps_store(), false);
  cache.add_value(buffer("a"), buffers({"1"}));
  test::refuse(SYS_close, EDQUOT);
  return 0;
}

TEST(LazyStoreRefusals, ARefusalThatShowsOnlyAtTheCloseCostsBothFiles) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("refused_close", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_TRUE(root.has_neither());
  const std::string not_closed = expectation("::close(fd_) == 0", "util/src/mmapped_file:75");
  // Closing the mappings of the scan and of the values fails too.
  Messages expected = lost_messages(root, {not_closed});
  expected.push_back(not_closed);
  EXPECT_EQ(test::without_errno(ran.messages()).size(), expected.size());
  EXPECT_EQ(test::without_errno(lazy_lines(ran)),
            test::without_lines(expected, test::kFirstLazyLine));
}

SCENARIO(refused_close_of_one) {
  CleanupController controller(0);
  quorvane::cache::LazyLookupStore store("maps", std::make_shared<test::CountingLock>(),
                                         &controller);
  const auto diff = test::entry_map({{"a", {"1"}}});
  // A sanitizer checks each type once and opens a pipe for that. This append makes it do so
  // before a descriptor is refused.
  store.try_nonlock_append({}, {});
  test::refuse(SYS_close, EDQUOT,
               test::When{0, test::next_descriptor(file_named(arguments.at(0)))});
  std::printf("%d", store.try_nonlock_append(diff, {}));
  return 0;
}

TEST(LazyStoreRefusals, ACloseThatIsRefusedForOneOfTheFilesCostsBoth) {
  for (const char* file : {"key", "val"}) {
    const LazyRoot root(lazy_files(kEntries));
    const Ran ran = root.run("refused_close_of_one", {file}, "WARN");
    EXPECT_EQ(ran.out, "0") << file;
    EXPECT_TRUE(root.has_neither()) << file;
    Messages expected = lost_messages(root, {});
    expected.pop_back();  // only a cache logs kDiffLost
    EXPECT_EQ(test::without_errno(ran.messages()), expected) << file;
  }
}

SCENARIO(refused_close_of_a_mapping) {
  {
    Cache cache("maps", maps_store(), false);
    cache.add_value(buffer("ccc"), buffers({"4"}));
    test::refuse(SYS_close, EIO, test::When{0, test::next_descriptor()});
  }
  return 0;
}

TEST(LazyStoreRefusals, AMappingThatCannotBeClosedIsReportedAndTheAppendGoesOn) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("refused_close_of_a_mapping", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(lazy_lines(ran), Messages{expectation("::close(fd_) == 0", "util/src/mmapped_file")});
  EXPECT_EQ(root.files(), test::add_to(lazy_files(kEntries), {{"ccc", {"4"}}}));
}

SCENARIO(refused_header) {
  auto lock = maps_store();  // creates the lock file
  std::remove(root_file("key_maps").c_str());
  std::remove(root_file("val_maps").c_str());
  // The new store opens its lock file first.
  const test::When to_it{0, test::next_descriptor(1 + file_named(arguments.at(0)))};
  test::refuse(SYS_write, ENOSPC, to_it);
  test::refuse(SYS_writev, ENOSPC, to_it);
  std::unique_ptr<Store> store = maps_store();
  // A sanitizer may open a pipe, which must not get the refused descriptor.
  while (open("/dev/null", O_RDONLY | O_CLOEXEC) < static_cast<int>(to_it.value)) {
  }
  std::printf("%d", Cache("maps", std::move(store), false).is_valid());
  return 0;
}

TEST(LazyStoreRefusals, AHeaderThatCannotBeWrittenLeavesNoHalfOfAPair) {
  for (const char* file : {"key", "val"}) {
    const LazyRoot root;
    const Ran ran = root.run("refused_header", {file}, "WARN");
    EXPECT_EQ(ran.out, "0");
    EXPECT_TRUE(root.has_neither());
    EXPECT_EQ(ran.messages(),
              (Messages{"ERROR Writing header file failed (" +
                            (file == std::string("key") ? root.key() : root.val()) + ")",
                        kNoCache}));
  }
}

// --- files that can't be opened or mapped ---

// Refuses to open files: at a real limit, a sanitizer's runtime would end the process.
void leave_no_descriptor() { test::refuse(SYS_openat, EMFILE); }

SCENARIO(no_descriptor_for_the_append) {
  Cache cache("maps", maps_store(), true);
  cache.add_value(buffer("k"), buffers({"v"}));
  leave_no_descriptor();
  return 0;
}

TEST(LazyStoreRefusals, WithoutADescriptorForTheScanLoadedFilesAreLeftAlone) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("no_descriptor_for_the_append", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(lazy_lines(ran),
            (Messages{expectation_at("key_file.is_open()", 1276),
                      expectation("loaded_map_last_size_ == 0 || new_keys_loaded"), kDiffLost}));
  EXPECT_EQ(root.files(), lazy_files(kEntries));
}

TEST(LazyStoreRefusals, WithoutADescriptorForTheAppendEmptyFilesAreLeftAlone) {
  const LazyRoot root;
  const Ran ran = root.run("no_descriptor_for_the_append", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(lazy_lines(ran),
            (Messages{expectation_at("key_file.is_open()", 1276), expectation("file.good()"),
                      expectation("file.good()"), kDiffLost}));
  EXPECT_EQ(root.files(), lazy_files({}));
}

// Arguments: the call that the kernel refuses during a load, and the file that it concerns.
SCENARIO(refused_load) {
  std::unique_ptr<Store> store = maps_store();
  const std::string& what = arguments.at(0);
  const File file = file_named(arguments.at(1));
  if (what == "open") {
    leave_no_descriptor();
  } else if (what == "mmap") {
    test::refuse(SYS_mmap, ENOMEM, test::When{4, test::next_descriptor(file)});
  } else {
    test::refuse(SYS_newfstatat, EIO, test::When{0, test::next_descriptor(file)});
    test::refuse(SYS_fstat, EIO, test::When{0, test::next_descriptor(file)});
  }
  std::printf("%d", Cache("maps", std::move(store), true).is_valid());
  return 0;
}

Messages refused_load(const LazyRoot& root, const std::string& what, const std::string& file) {
  const Ran ran = root.run("refused_load", {what, file}, "WARN");
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(root.files(), lazy_files(kEntries));
  return ran.messages();
}

const std::string kKeyNotOpen = expectation_at("key_file.is_open()", 1163);
const std::string kValNotOpen = expectation_at("val_file_.is_open()", 1169);

TEST(LazyStoreRefusals, WithoutADescriptorTheLoadFails) {
  const LazyRoot root(lazy_files(kEntries));
  EXPECT_EQ(refused_load(root, "open", "key"), (Messages{kKeyNotOpen, kNoCache}));
}

TEST(LazyStoreRefusals, AValueFileThatCannotBeOpenedFailsTheLoad) {
  const LazyRoot root;
  test::write_file(root.key(), lazy_files(kEntries).key);
  ASSERT_EQ(mknod(root.val().c_str(), S_IFSOCK | 0600, 0), 0);
  EXPECT_EQ(root.run("no_descriptor_for_the_append", {}, "WARN").messages(),
            (Messages{kValNotOpen, kNoCache}));
}

TEST(LazyStoreRefusals, AMappingThatIsRefusedFailsTheLoad) {
  const LazyRoot root(lazy_files(kEntries));
  EXPECT_EQ(refused_load(root, "mmap", "key"), (Messages{kKeyNotOpen, kNoCache}));
  EXPECT_EQ(refused_load(root, "mmap", "val"), (Messages{kValNotOpen, kNoCache}));
}

TEST(LazyStoreRefusals, ASizeThatIsRefusedFailsTheLoad) {
  const LazyRoot root(lazy_files(kEntries));
  const std::string end = ") failed with error: Input/output error";
  EXPECT_EQ(refused_load(root, "fstat", "key"),
            (Messages{"ERROR fstat(" + root.key() + end, kKeyNotOpen, kNoCache}));
  EXPECT_EQ(refused_load(root, "fstat", "val"),
            (Messages{"ERROR fstat(" + root.val() + end, kValNotOpen, kNoCache}));
}

// --- files that can't be removed ---

SCENARIO(unremovable) {
  test::refuse(SYS_unlink, EBUSY);
  test::refuse(SYS_unlinkat, EBUSY);
  Cache cache("maps", maps_store(), false);
  cache.add_value(buffer("a"), buffers({std::string(200, 'x')}));
  test::refuse_writes_to_the_next_file(VAL_FILE);
  return 0;
}

TEST(LazyStoreRefusals, FilesThatCannotBeRemovedAreReportedAsRemoved) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("unremovable", {}, "WARN");
  EXPECT_EQ(root.files(), lazy_files(kEntries));
  // The library logs a removal error only if the removal succeeded.
  EXPECT_EQ(lazy_lines(ran), (Messages{kNotStored, root.removed(), kDiffLost}));
}

// --- killed during an append ---

// The kernel kills a process that writes beyond the limit: here, at the first byte that is
// appended to the longer of the two files.
SCENARIO(killed_at_the_longer_file) {
  const LazyFiles files = test::read_lazy_files(test::root_path());
  Cache cache("maps", maps_store(), false);
  cache.add_value(buffer("new"), buffers({"value"}));
  cache.add_value(buffer("another"), buffers({"of", "two"}));
  limit_file_size(std::max(files.key.size(), files.val.size()));
  return 0;
}

const std::vector<Entry> kNew{{"new", {"value"}}, {"another", {"of", "two"}}};

TEST(LazyStoreKilled, BeforeTheKeysLeavesTheValuesAndNoKeyOfThem) {
  const LazyFiles before = lazy_files({{std::string(1000, 'k'), {"v"}}});
  const LazyRoot root(before);
  EXPECT_TRUE(root.run("killed_at_the_longer_file", {}, "WARN").killed_by(SIGXFSZ));
  EXPECT_EQ(root.files().key, before.key);
  EXPECT_EQ(root.files().val, test::add_to(before, kNew).val);
  const test::LazyWalk walk = test::walk_lazy_files(root.files(), root.key(), true);
  EXPECT_EQ(walk.messages, Messages{});
}

TEST(LazyStoreKilled, BeforeTheValuesLeavesBothFilesAsTheyWere) {
  const LazyFiles before = lazy_files({{"k", {std::string(1000, 'v')}}});
  const LazyRoot root(before);
  EXPECT_TRUE(root.run("killed_at_the_longer_file", {}, "WARN").killed_by(SIGXFSZ));
  EXPECT_EQ(root.files(), before);
}

// Enough values for many writes of their stream. At the limit the kernel makes a short write,
// and kills the process at the next one.
SCENARIO(killed_amid_many_values) {
  Cache cache("maps", maps_store(), false);
  for (int i = 0; i < 2000; ++i) {
    cache.add_value(buffer("key" + std::to_string(i)), buffers({std::string(100, 'v')}));
  }
  limit_file_size(100000);
  return 0;
}

TEST(LazyStoreKilled, AmidManyValuesLeavesNoKeyAtAll) {
  const LazyRoot root;
  EXPECT_TRUE(root.run("killed_amid_many_values", {}, "WARN").killed_by(SIGXFSZ));
  EXPECT_EQ(root.files().val.size(), 100000u);
  EXPECT_EQ(root.files().key, lazy_files({}).key);
}
