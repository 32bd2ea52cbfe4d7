// An indexed store that is bound to a size: what a clean keeps, and what it leaves alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;

constexpr std::uint64_t kLimit = std::uint64_t{200} << 10;
constexpr int kBatch = 50;  // entries, of 256 bytes each

std::unique_ptr<Engine> make(const std::string& root, bool read_only = false) {
  setenv("QV_CACHE_STORE_ROOT", root.c_str(), 1);
  return std::make_unique<Engine>(root, "maps", std::make_shared<StoreFLock>("maps"), read_only);
}

std::unique_ptr<Engine> open_store(const std::string& root) {
  auto store = make(root);
  EXPECT_TRUE(store->open());
  return store;
}

std::string key_of(int number) { return "key" + std::to_string(number); }

EntryMap entries(int from, int to) {
  EntryMap map;
  for (int i = from; i < to; ++i) {
    map.emplace(buffer(key_of(i)), buffers({"value" + std::to_string(i), std::string(200, 'x')}));
  }
  return map;
}

std::optional<std::string> first_atom(Engine& store, const std::string& key) {
  std::vector<RoBuffer> value;
  if (!store.find(buffer(key), value)) {
    return std::nullopt;
  }
  return std::string(reinterpret_cast<const char*>(value[0].get_buffer()), value[0].get_size());
}

// Which of the entries there are. A wrong value fails the test.
std::set<int> found(Engine& store, int from, int to) {
  std::set<int> numbers;
  for (int i = from; i < to; ++i) {
    if (const auto value = first_atom(store, key_of(i))) {
      EXPECT_EQ(*value, "value" + std::to_string(i));
      numbers.insert(i);
    }
  }
  return numbers;
}

// Stores entries in batches as small as a process makes them.
void store_batches(Engine& store, int from, int to, std::uint64_t limit = ~std::uint64_t{0}) {
  for (int i = from; i < to; i += kBatch) {
    EXPECT_TRUE(store.store(entries(i, std::min(i + kBatch, to)), limit));
  }
}

class IndexedClean : public testing::Test {
 protected:
  std::unique_ptr<Engine> open() const { return open_store(root_.path()); }
  std::string data() const { return root_.file("dat_maps"); }
  std::string index() const { return root_.file("idx_maps"); }
  std::string cleaned_data() const { return root_.file("newdat_maps"); }
  std::string cleaned_index() const { return root_.file("newidx_maps"); }

  // The names in the root.
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(root_.path())) {
      names.insert(file.path().filename());
    }
    return names;
  }

  test::StoreRoot root_;
};

const std::set<std::string> kFiles{"dat_maps", "idx_maps", "lock_maps"};

TEST_F(IndexedClean, KeepsTheNewestEntriesUpToHalfOfTheLimit) {
  const auto store = open();
  store_batches(*store, 0, 1000);
  const std::uint64_t before = store->usage();
  ASSERT_GT(before, kLimit);
  ASSERT_TRUE(store->clean(kLimit));
  EXPECT_LE(store->usage(), kLimit / 2);
  EXPECT_GT(store->usage(), kLimit / 2 - 1000);
  const std::uint64_t kept = store->entries();
  EXPECT_EQ(store->kept(), kept);
  EXPECT_EQ(store->dropped(), 1000 - kept);
  const auto fresh = open();
  EXPECT_EQ(fresh->entries(), kept);
  const std::set<int> there = found(*fresh, 0, 1000);
  EXPECT_EQ(there.size(), kept);
  EXPECT_EQ(*there.begin(), 1000 - static_cast<int>(kept));
  EXPECT_EQ(files(), kFiles);
}

TEST_F(IndexedClean, KeepsOlderEntriesThatThisProcessHasFound) {
  store_batches(*open(), 0, 1000);
  const auto store = open();
  EXPECT_EQ(found(*store, 10, 30).size(), 20U);
  ASSERT_TRUE(store->clean(kLimit));
  EXPECT_LE(store->usage(), kLimit / 2);
  EXPECT_EQ(found(*store, 0, 100).size(), 20U);
  EXPECT_EQ(found(*store, 10, 30).size(), 20U);
  EXPECT_EQ(found(*store, 950, 1000).size(), 50U);
}

TEST_F(IndexedClean, KeepsFoundEntriesUpToAQuarterOfTheLimitAndTheNewestOfThem) {
  store_batches(*open(), 0, 2000);
  const auto store = open();
  EXPECT_EQ(found(*store, 0, 500).size(), 500U);
  ASSERT_TRUE(store->clean(kLimit));
  const std::set<int> there = found(*store, 0, 500);
  EXPECT_GT(there.size() * 256, kLimit / 4 - 1000);
  EXPECT_LE(there.size() * 256, kLimit / 4);
  EXPECT_EQ(*there.begin(), 500 - static_cast<int>(there.size()));
  EXPECT_EQ(found(*store, 1950, 2000).size(), 50U);
  EXPECT_LE(store->usage(), kLimit / 2);
}

TEST_F(IndexedClean, LeavesAStoreAloneThatIsWithinTheLimit) {
  const auto store = open();
  store_batches(*store, 0, 500);
  const std::string bytes = test::read_file(data());
  ASSERT_TRUE(store->clean(store->usage()));
  EXPECT_EQ(test::read_file(data()), bytes);
  EXPECT_EQ(store->dropped(), 0U);
}

TEST_F(IndexedClean, EmptiesAStoreWhoseLimitIsSmallerThanAnyStore) {
  const auto store = open();
  store_batches(*store, 0, 1000);
  ASSERT_TRUE(store->clean(0));
  EXPECT_EQ(store->entries(), 0U);
  EXPECT_EQ(found(*store, 0, 1000).size(), 0U);
  const std::uint64_t size = store->usage();
  ASSERT_TRUE(store->clean(0));  // nothing left to do
  EXPECT_EQ(store->usage(), size);
  EXPECT_EQ(store->dropped(), 1000U);
}

TEST_F(IndexedClean, NeverLetsAppendsExceedTheLimit) {
  const auto store = open();
  for (int from = 0; from < 8000; from += kBatch) {
    ASSERT_TRUE(store->store(entries(from, from + kBatch), kLimit));
    ASSERT_LE(store->usage(), kLimit) << from;
    ASSERT_EQ(found(*store, from, from + kBatch).size(), std::size_t{kBatch}) << from;
  }
  EXPECT_GT(store->dropped(), 6000U);
  EXPECT_EQ(files(), kFiles);
  EXPECT_EQ(found(*open(), 0, 8000).size(), store->entries());
}

TEST_F(IndexedClean, MakesRoomForEntriesThatTakeMostOfTheLimit) {
  const auto store = open();
  store_batches(*store, 0, 500, kLimit);
  ASSERT_TRUE(store->store(entries(1000, 1600), kLimit));
  EXPECT_LE(store->usage(), kLimit);
  EXPECT_EQ(found(*store, 1000, 1600).size(), 600U);
}

TEST_F(IndexedClean, KeepsTheIndexWithinTheLimitToo) {
  const auto store = open();
  for (int from = 0; from < 20000; from += 100) {
    EntryMap small;
    for (int i = from; i < from + 100; ++i) {
      small.emplace(buffer(std::to_string(i)), buffers({"v"}));
    }
    ASSERT_TRUE(store->store(small, kLimit));
    ASSERT_LE(store->usage(), kLimit) << from;
  }
  EXPECT_GT(store->dropped(), 0U);
}

TEST_F(IndexedClean, AnotherProcessFindsTheNewFilesWithItsNextLookUp) {
  store_batches(*open(), 0, 1000);
  const auto reader = open();
  const auto writer = open();
  ASSERT_TRUE(writer->clean(kLimit));
  ASSERT_TRUE(writer->store(entries(5000, 5001)));
  EXPECT_EQ(found(*reader, 5000, 5001).size(), 1U);
  EXPECT_EQ(reader->entries(), writer->entries());
}

TEST_F(IndexedClean, AKeyHasOneValueForAllProcesses) {
  const auto reader = open();
  const auto writer = open();
  EntryMap old;
  old.emplace(buffer("key"), buffers({"old"}));
  ASSERT_TRUE(writer->store(old));
  EXPECT_EQ(first_atom(*reader, "key"), "old");
  store_batches(*writer, 0, 1000);
  ASSERT_TRUE(writer->clean(kLimit));
  EntryMap anew;
  anew.emplace(buffer("key"), buffers({"new"}));
  ASSERT_TRUE(writer->store(anew));
  EXPECT_EQ(first_atom(*writer, "key"), "new");
  EXPECT_EQ(first_atom(*reader, "key"), "new");
}

TEST_F(IndexedClean, TheNewFilesAreWholeWithoutTheirIndex) {
  {
    const auto store = open();
    store_batches(*store, 0, 1000);
    ASSERT_TRUE(store->clean(kLimit));
    store_batches(*store, 1000, 1100);
  }
  ASSERT_EQ(unlink(index().c_str()), 0);
  const auto store = open();
  EXPECT_EQ(found(*store, 900, 1100).size(), 200U);
}

TEST_F(IndexedClean, DropsAnEntryThatIsDamaged) {
  const auto store = open();
  store_batches(*store, 0, 1000);
  const std::string bytes = test::read_file(data());
  const std::size_t at = bytes.find("value995");
  ASSERT_NE(at, std::string::npos);
  const int file = ::open(data().c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(pwrite(file, "V", 1, static_cast<off_t>(at)), 1);
  close(file);
  ASSERT_TRUE(store->clean(kLimit));
  ASSERT_EQ(unlink(index().c_str()), 0);
  EXPECT_EQ(found(*open(), 990, 1000).size(), 9U);
}

// --- what killed cleaners leave ---

TEST_F(IndexedClean, DeletesWhatAKilledCleanerHasLeft) {
  const auto store = open();
  ASSERT_TRUE(store->store(entries(0, 10)));
  test::write_file(cleaned_data(), "half a copy");
  test::write_file(cleaned_index(), "half an index");
  ASSERT_TRUE(store->store(entries(10, 20)));
  EXPECT_EQ(files(), kFiles);
  EXPECT_EQ(found(*store, 0, 20).size(), 20U);
}

// Leaves the files as a cleaner does that is killed between its two renames.
class HalfRenamed : public IndexedClean {
 protected:
  HalfRenamed() {
    const auto store = open();
    store_batches(*store, 0, 1000);
    std::filesystem::copy_file(data(), root_.file("kept"));
    EXPECT_TRUE(store->clean(kLimit));
    kept_ = static_cast<int>(store->entries());
    std::filesystem::rename(data(), cleaned_data());
    std::filesystem::rename(root_.file("kept"), data());
  }

  int kept_ = 0;
};

TEST_F(HalfRenamed, IsReadUnderTheOldName) {
  const auto store = open();
  EXPECT_EQ(static_cast<int>(found(*store, 0, 1000).size()), kept_);
  EXPECT_TRUE(std::filesystem::exists(cleaned_data()));
}

TEST_F(HalfRenamed, IsFinishedByTheNextAppend) {
  const auto store = open();
  const ino_t index_before = [this] {
    struct stat status;
    return stat(index().c_str(), &status) == 0 ? status.st_ino : 0;
  }();
  ASSERT_TRUE(store->store(entries(1000, 1010)));
  struct stat status;
  ASSERT_EQ(stat(index().c_str(), &status), 0);
  EXPECT_EQ(status.st_ino, index_before);  // not made anew
  EXPECT_EQ(files(), kFiles);
  EXPECT_EQ(static_cast<int>(found(*store, 0, 1010).size()), kept_ + 10);
}

// --- live cleaners ---

// A cleaner of which only the mark lives.
class Cleaner {
 public:
  explicit Cleaner(const std::string& path)
      : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
    EXPECT_EQ(flock(fd_, LOCK_EX | LOCK_NB), 0);
  }
  ~Cleaner() { close(fd_); }
  Cleaner(const Cleaner&) = delete;
  Cleaner& operator=(const Cleaner&) = delete;

 private:
  const int fd_;
};

TEST_F(IndexedClean, AppendsWhileAnotherProcessCleans) {
  const Cleaner cleaner(cleaned_data());
  const auto store = open();
  ASSERT_TRUE(store->store(entries(0, 10), kLimit));
  EXPECT_EQ(found(*store, 0, 10).size(), 10U);
  EXPECT_TRUE(std::filesystem::exists(cleaned_data()));
}

TEST_F(IndexedClean, WaitsForALiveCleanerWithoutTheStoreLock) {
  store_batches(*open(), 0, 1000);
  auto cleaner = std::make_unique<Cleaner>(cleaned_data());
  test::Signpost done;
  const pid_t child = test::in_child([&] {
    cleaner.reset();  // its copy
    const auto store = open_store(root_.path());
    const bool is_clean = store->clean(kLimit);
    done.pass();
    return is_clean && store->usage() <= kLimit / 2 ? 0 : 1;
  });
  EXPECT_TRUE(test::waits_for_lock(child, done));
  EXPECT_TRUE(open()->store(entries(1000, 1010)));  // takes the store lock
  EXPECT_FALSE(done.is_passed());
  cleaner.reset();
  EXPECT_EQ(test::wait_for(child), 0);
  EXPECT_EQ(found(*open(), 1000, 1010).size(), 10U);
  EXPECT_EQ(files(), kFiles);
}

// --- refusals ---

TEST_F(IndexedClean, RefusesAnEntryThatExceedsTheLimitAlone) {
  const test::Ran ran = root_.run("stores_a_large_entry", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_THAT(ran.messages(),
              testing::ElementsAre("WARN Couldn't append to " + data() +
                                   ": 300048 bytes of entries don't fit into a store of "
                                   "204800 bytes"));
}

TEST_F(IndexedClean, KeepsTheLastOfEntriesThatExceedTheLimitTogether) {
  const auto store = open();
  EXPECT_TRUE(store->store(entries(0, 100), kLimit));
  EXPECT_TRUE(store->store(entries(1000, 4000), kLimit));
  EXPECT_LE(store->usage(), kLimit);
  const auto rest = found(*store, 0, 4000);
  EXPECT_GT(rest.size(), 300U);
  EXPECT_EQ(rest.size(), store->entries());
  EXPECT_EQ(found(*store, 3700, 4000).size(), 300U);
}

TEST_F(IndexedClean, SaysWhatItHasCleaned) {
  const test::Ran ran = root_.run("cleans", {}, "INFO");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_THAT(ran.messages(), testing::ElementsAre("INFO Cleaned " + data() + ": kept " + ran.out));
}

TEST_F(IndexedClean, BeginsEmptyOnADiskWithoutRoomForCopies) {
  const test::Ran ran = root_.run("cleans_on_a_full_disk", {"40000"}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "1 0");
  EXPECT_THAT(ran.messages(),
              testing::ElementsAre("WARN Couldn't copy the entries of " + data() +
                                   " that were to stay, so it begins empty: File too large"));
  EXPECT_EQ(files(), kFiles);
}

TEST_F(IndexedClean, LeavesTheStoreAsItIsOnADiskWithoutRoomForAnyFile) {
  const test::Ran ran = root_.run("cleans_on_a_full_disk", {"4000"}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "0 1000");
  EXPECT_THAT(ran.messages(),
              testing::ElementsAre("WARN Couldn't clean " + data() + ": File too large"));
  EXPECT_EQ(files(), kFiles);
}

TEST_F(IndexedClean, LeavesTheStoreAsItIsWhenNoFileCanBeRenamed) {
  const test::Ran ran = root_.run("cleans_without_renaming", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "0 1000");
  EXPECT_THAT(ran.messages(),
              testing::ElementsAre("WARN Couldn't clean " + data() + ": Input/output error"));
  EXPECT_EQ(files(), kFiles);
}

}  // namespace

SCENARIO(stores_a_large_entry) {
  const auto store = open_store(test::root_path());
  EXPECT_TRUE(store->store(entries(0, 100), kLimit));
  EntryMap diff = entries(100, 110);
  diff.emplace(buffer("large"), buffers({std::string(300'000, 'x')}));
  return !store->store(diff, kLimit) && found(*store, 0, 110).size() == 110 ? 0 : 1;
}

SCENARIO(cleans) {
  const auto store = open_store(test::root_path());
  store_batches(*store, 0, 1000);
  const std::uint64_t before = store->usage();
  const bool is_clean = store->clean(kLimit);
  std::printf("%lu entries, dropped %lu; %lu bytes before, %lu after", store->kept(),
              store->dropped(), before, store->usage());
  return is_clean ? 0 : 1;
}

// Argument: how long a file may be.
SCENARIO(cleans_on_a_full_disk) {
  const auto store = open_store(test::root_path());
  store_batches(*store, 0, 1000);
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{std::stoul(arguments.at(0)), RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &limit);
  const bool is_clean = store->clean(kLimit);
  std::printf("%d %lu", is_clean, store->entries());
  return 0;
}

SCENARIO(cleans_without_renaming) {
  const auto store = open_store(test::root_path());
  store_batches(*store, 0, 1000);
  test::refuse(SYS_rename, EIO);
  const bool is_clean = store->clean(kLimit);
  std::printf("%d %zu", is_clean, found(*store, 0, 1000).size());
  return 0;
}
