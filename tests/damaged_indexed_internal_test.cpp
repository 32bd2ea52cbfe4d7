// Single kinds of damage to an indexed store's files, and what the store makes of each.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/hostile.h"
#include "support/indexed_store.h"
#include "support/scenario.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::EntryMap;
using quorvane::cache::indexed::DataHeader;
using quorvane::cache::indexed::EntryHeader;
using quorvane::cache::indexed::IndexPage;
using quorvane::cache::indexed::kFirstEntry;
using test::data_path;
using test::Entry;
using test::index_path;
using test::Ran;
using test::StoreRoot;
using Messages = std::vector<std::string>;

namespace {

constexpr int kStored = 10;

const std::vector<Entry> kEntries = test::numbered_entries(0, kStored);

bool write_store() {
  const auto store = test::indexed_store();
  return store->open() && store->store(test::entry_map(kEntries));
}

std::string flipped(std::string bytes, std::size_t at, unsigned bit = 0) {
  bytes[at] = static_cast<char>(bytes[at] ^ (1 << bit));
  return bytes;
}

// Prints whether the store opens, and how many of its entries it finds.
void open_and_count() {
  const auto store = test::indexed_store();
  const bool is_open = store->open();
  std::printf("%d %d", is_open, test::count_found(*store, kEntries));
}

Ran run(const StoreRoot& root, const std::string& scenario, const test::Arguments& arguments = {}) {
  return root.run(scenario, arguments, "INFO");
}

std::string not_found(const std::string& file, std::size_t offset) {
  return "WARN The entry at offset " + std::to_string(offset) + " of " + file +
         " is damaged, and so is not found";
}

}  // namespace

// --- the data ---

SCENARIO(flip_a_value) {
  write_store();
  const std::string data = test::read_file(data_path());
  test::write_file(data_path(), flipped(data, data.find("value3")));
  unlink(index_path().c_str());
  open_and_count();
  std::printf(" %zu", test::entry_offsets(data)[3]);
  return 0;
}

TEST(DamagedIndexedStore, RefusesDamageBetweenEntriesWithOneRecordThatSaysWhere) {
  const StoreRoot root;
  const Ran ran = run(root, "flip_a_value");
  ASSERT_EQ(ran.out.substr(0, 4), "0 0 ");
  EXPECT_EQ(ran.messages(), Messages{"ERROR " + root.file("dat_maps") + " is damaged at offset " +
                                     ran.out.substr(4) + ": no whole entry, but others follow"});
}

// A damaged size may reach beyond the end of the file, as that of a torn entry does.
SCENARIO(flip_each_bit_of_a_header) {
  write_store();
  const std::string data = test::read_file(data_path());
  const std::size_t header = test::entry_offsets(data)[3];
  int opened = 0;
  for (unsigned bit = 0; bit < 8 * sizeof(EntryHeader); ++bit) {
    unlink(data_path().c_str());
    test::write_file(data_path(), flipped(data, header + bit / 8, bit % 8));
    unlink(index_path().c_str());
    opened += test::indexed_store()->open() ? 1 : 0;
  }
  std::printf("%d", opened);
  return 0;
}

TEST(DamagedIndexedStore, TakesNoDamagedHeaderForATornEntry) {
  const Ran ran = run(StoreRoot(), "flip_each_bit_of_a_header");
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages().size(), 8 * sizeof(EntryHeader));
}

// The value of the last entry holds whole entries, at offsets where entries may begin.
SCENARIO(tear_the_last_entry) {
  write_store();
  const Entry nested{"nested", {"12345678" + test::read_file(data_path())}};
  const auto writer = test::indexed_store();
  if (!writer->open() || !writer->store(test::entry_map({nested}))) {
    return 1;
  }
  const std::string data = test::read_file(data_path());
  for (std::size_t size = test::entry_offsets(data)[kStored] + 1; size < data.size(); ++size) {
    unlink(data_path().c_str());  // rewriting a file may wait for the disk
    test::write_file(data_path(), data.substr(0, size));
    unlink(index_path().c_str());
    const auto store = test::indexed_store();
    const bool holds = store->open() && test::count_found(*store, kEntries) == kStored &&
                       !test::look_up(*store, "nested") &&
                       store->store(test::entry_map({nested})) &&
                       test::count_found(*store, {nested}) == 1;
    unlink(index_path().c_str());
    const auto next = test::indexed_store();
    if (!holds || !next->open() || test::count_found(*next, {nested}) != 1) {
      std::printf("%zu bytes\n", size);
    }
  }
  return 0;
}

TEST(DamagedIndexedStore, PassesOverAnEntryTornAtAnyByteAndReplacesItByTheNextAppend) {
  const Ran ran = run(StoreRoot(), "tear_the_last_entry");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.messages(), Messages{});
}

SCENARIO(look_damaged_entries_up_repeatedly) {
  write_store();
  const auto store = test::indexed_store();
  store->open();
  std::string data = test::read_file(data_path());
  for (const char* value : {"value3", "value7"}) {
    data = flipped(data, data.find(value));
  }
  const int fd = open(data_path().c_str(), O_WRONLY | O_CLOEXEC);
  const bool written = pwrite(fd, data.data(), data.size(), 0) == static_cast<ssize_t>(data.size());
  close(fd);
  int found = 0;
  for (int round = 0; round < 5; ++round) {
    found += test::count_found(*store, kEntries);
  }
  EntryMap all;
  const bool is_read = store->read_all(all);
  const std::vector<std::size_t> offsets = test::entry_offsets(data);
  std::printf("%d %d %d %zu %zu %zu", written, found, is_read, all.size(), offsets[3], offsets[7]);
  return 0;
}

TEST(DamagedIndexedStore, ReportsEachDamagedEntryOnceHoweverOftenItIsLookedUp) {
  const StoreRoot root;
  const Ran ran = run(root, "look_damaged_entries_up_repeatedly");
  std::size_t offsets[2] = {};
  ASSERT_EQ(std::sscanf(ran.out.c_str(), "1 40 1 8 %zu %zu", &offsets[0], &offsets[1]), 2)
      << ran.out;
  EXPECT_EQ(ran.messages(), (Messages{not_found(root.file("dat_maps"), offsets[0]),
                                      not_found(root.file("dat_maps"), offsets[1])}));
}

// Each header counts as written and claims the rest of the file.
SCENARIO(open_a_file_of_forged_headers) {
  alarm(test::kHangSeconds);
  write_store();
  std::string data = test::read_file(data_path()).substr(0, kFirstEntry);
  data.resize(std::size_t{16} << 20);
  for (std::size_t at = kFirstEntry + 16; at + 64 <= data.size(); at += 32) {
    test::put(data, at + offsetof(EntryHeader, size), data.size() - at);
    test::put(data, at + offsetof(EntryHeader, key_size), std::uint32_t{1});
    test::put(data, at + offsetof(EntryHeader, atoms), std::uint32_t{1});
    test::put(data, at + sizeof(EntryHeader), data.size() - at - sizeof(EntryHeader) - 9);
    test::mark_header(data, at);
  }
  test::write_file(data_path(), data);
  unlink(index_path().c_str());
  open_and_count();
  return 0;
}

TEST(DamagedIndexedStore, ReadsAFileOfForgedHeadersInTheTimeOfItsSize) {
  const Ran ran = run(StoreRoot(), "open_a_file_of_forged_headers");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(ran.out, "0 0");
}

// --- the index ---

SCENARIO(flip_each_bit_of_the_index_page) {
  write_store();
  const std::string index = test::read_file(index_path());
  for (unsigned bit = 0; bit < 8 * offsetof(IndexPage, covered); ++bit) {
    test::write_file(index_path(), flipped(index, bit / 8, bit % 8));
    const auto store = test::indexed_store();
    if (!store->open() || test::count_found(*store, kEntries) != kStored) {
      std::printf("bit %u\n", bit);
    }
  }
  return 0;
}

TEST(DamagedIndexedStore, MakesAnIndexAgainWhateverBitOfItsFixedWordsIsWrong) {
  const Ran ran = run(StoreRoot(), "flip_each_bit_of_the_index_page");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.messages(), Messages{});
}

// What is at an index's name instead of it.
SCENARIO(replace_the_index) {
  write_store();
  const std::string index = test::read_file(index_path());
  const std::function<void()> replacements[] = {
      [] { test::write_file(index_path(), ""); },
      [] { test::write_file(index_path(), "short"); },
      [&] { test::write_file(index_path(), index.substr(0, index.size() - 8)); },
      [&] { test::write_file(index_path(), index + index); },
      [&] { test::write_file(index_path(), std::string(index.size(), '\0')); },
      [] { mkfifo(index_path().c_str(), 0600); },
      [] { static_cast<void>(symlink("/dev/zero", index_path().c_str())); },
  };
  alarm(test::kHangSeconds);
  for (const auto& replace : replacements) {
    unlink(index_path().c_str());
    replace();
    open_and_count();
    std::printf("\n");
  }
  return 0;
}

TEST(DamagedIndexedStore, MakesAnIndexAgainInPlaceOfAnythingElse) {
  const Ran ran = run(StoreRoot(), "replace_the_index");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "1 10\n1 10\n1 10\n1 10\n1 10\n1 10\n1 10\n");
  EXPECT_EQ(ran.messages(), Messages{});
}

SCENARIO(lower_covered) {
  write_store();
  const std::string index = test::read_file(index_path());
  const std::vector<std::size_t> offsets = test::entry_offsets(test::read_file(data_path()));
  for (const std::size_t covered : {kFirstEntry, offsets[5], offsets[5] + 16, offsets[9]}) {
    std::string damaged = index;
    test::put(damaged, offsetof(IndexPage, covered), std::uint64_t{covered});
    test::put(damaged, offsetof(IndexPage, indexed), std::uint64_t{covered});
    test::write_file(index_path(), damaged);
    const auto store = test::indexed_store();
    const bool stored = store->open() && store->store(test::entry_map({{"more", {"m"}}}));
    std::printf("%d %d %lu\n", stored, test::count_found(*store, kEntries), store->entries());
  }
  return 0;
}

TEST(DamagedIndexedStore, CutsNoEntryOffWhenTheIndexCoversTooLittle) {
  const Ran ran = run(StoreRoot(), "lower_covered");
  EXPECT_EQ(ran.out, "1 10 11\n1 10 11\n1 10 11\n1 10 11\n");
  EXPECT_EQ(ran.messages(), Messages{});
}

// Slots of other tags fill the index, which claims to be empty.
SCENARIO(fill_the_index) {
  alarm(test::kHangSeconds);
  write_store();
  std::string index = test::read_file(index_path());
  for (std::size_t at = quorvane::cache::indexed::kIndexPageSize; at < index.size(); at += 8) {
    if (test::number_at<std::uint64_t>(index, at) == 0) {
      test::put(index, at, std::uint64_t{kFirstEntry});
    }
  }
  test::put(index, offsetof(IndexPage, entries), std::uint64_t{0});
  test::write_file(index_path(), index);
  const auto store = test::indexed_store();
  const auto absent = test::buffer("absent");
  const bool is_open = store->open();
  store->prefetch(&absent, 1);
  const bool found = test::look_up(*store, "absent").has_value();
  const bool stored = store->store(test::entry_map({{"more", {"m"}}}));
  std::printf("%d %d %d %d %lu", is_open, found, stored, test::count_found(*store, kEntries),
              store->entries());
  return 0;
}

TEST(DamagedIndexedStore, ReplacesAnIndexWithoutAFreeSlotAtTheNextAppend) {
  const Ran ran = run(StoreRoot(), "fill_the_index");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(ran.out, "1 0 1 10 11");
  EXPECT_EQ(ran.messages(), Messages{});
}

// --- other versions ---

SCENARIO(open_another_version) {
  write_store();
  const bool of_data = arguments.at(0) == "data";
  const std::string path = of_data ? data_path() : index_path();
  std::string bytes = test::read_file(path);
  test::put(bytes, of_data ? offsetof(DataHeader, version) : offsetof(IndexPage, version),
            std::uint32_t{7});
  if (!of_data) {
    test::seal_index(bytes);
  }
  test::write_file(path, bytes);
  open_and_count();
  return test::read_file(path) == bytes ? 0 : 1;
}

// Not made again: a program with the other version may run beside this one, and would do the
// same to this version's index.
TEST(DamagedIndexedStore, NamesTheVersionOfAFileAndLeavesItAlone) {
  for (const std::string file : {"data", "index"}) {
    const StoreRoot root;
    const Ran ran = run(root, "open_another_version", {file});
    EXPECT_TRUE(ran.exited_with(0)) << file;
    EXPECT_EQ(ran.out, "0 0");
    EXPECT_EQ(ran.messages(),
              Messages{"ERROR " + root.file(file == "data" ? "dat_maps" : "idx_maps") +
                       " has version 7 of its format, this library knows version 1"});
  }
}

// --- no files ---

SCENARIO(open_something_else) {
  alarm(test::kHangSeconds);
  const std::string& what = arguments.at(0);
  const std::string path = arguments.at(1) == "data" ? data_path() : index_path();
  if (what == "directory") {
    mkdir(path.c_str(), 0700);
  } else if (what == "FIFO") {
    mkfifo(path.c_str(), 0600);
  } else {
    static_cast<void>(symlink("/dev/zero", path.c_str()));
  }
  open_and_count();
  return 0;
}

TEST(DamagedIndexedStore, RefusesADirectoryAFifoAndADeviceAsItsData) {
  for (const std::string what : {"directory", "FIFO", "device"}) {
    const StoreRoot root;
    const Ran ran = run(root, "open_something_else", {what, "data"});
    EXPECT_TRUE(ran.exited_with(0)) << what;
    EXPECT_EQ(ran.out, "0 0") << what;
    EXPECT_EQ(ran.messages(),
              Messages{"ERROR Couldn't open " + root.file("dat_maps") + ": Invalid argument"});
  }
}

TEST(DamagedIndexedStore, RefusesADirectoryAsItsIndex) {
  const StoreRoot root;
  const Ran ran = run(root, "open_something_else", {"directory", "index"});
  EXPECT_EQ(ran.out, "0 0");
  EXPECT_EQ(ran.messages(),
            Messages{"ERROR Couldn't open " + root.file("idx_maps") + ": Is a directory"});
}
