// Caches on indexed stores whose files are damaged or from another version.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/hostile.h"
#include "support/indexed_cache.h"
#include "support/scenario.h"
#include "support/store_root.h"

namespace {

using quorvane::cache::Cache;
using test::add;
using test::changed;
using test::get;
using test::open_cache;
using test::Ran;
using test::StoreRoot;
using testing::Contains;
using Messages = std::vector<std::string>;

const std::string kStatisticsOff = "INFO Statistics capture disabled.";
const std::string kNotCreated = "ERROR Couldn't create maps cache with IndexedStore store type";

// A store with three entries, whose files a test changes.
class DamagedIndexedStore : public testing::Test {
 protected:
  DamagedIndexedStore() {
    const auto cache = open_cache(root_.path());
    add(*cache, "a", "value of a");
    add(*cache, "b", "value of b");
    add(*cache, "c", "value of c");
  }

  std::string data() const { return root_.file("dat_maps"); }
  std::string index() const { return root_.file("idx_maps"); }

  // Opens the store, looks all keys up twice, and adds one.
  Ran use() const { return root_.run_unlimited("use_a_damaged_store"); }

  // Expects the record about the file, and that the files stay as they are.
  void expect_refused(const std::string& record) const {
    const std::string bytes = test::read_file(data());
    const Ran ran = use();
    EXPECT_EQ(ran.out, "0 null null null null null null 0 0");
    EXPECT_EQ(ran.messages(), (Messages{kStatisticsOff, "ERROR " + record, kNotCreated}));
    EXPECT_EQ(test::read_file(data()), bytes);
  }

  StoreRoot root_;
};

SCENARIO(use_a_damaged_store) {
  const auto cache = open_cache(test::root_path());
  std::printf("%d", cache->is_valid());
  for (const char* key : {"a", "b", "c", "a", "b", "c"}) {
    std::printf(" %s", get(*cache, key).value_or("null").c_str());
  }
  const bool added = add(*cache, "d", "value of d");
  std::printf(" %d %zu", added, cache->size());
  return 0;
}

const std::string kAll = "value of a value of b value of c";
const std::string kEverything = "1 " + kAll + " " + kAll + " 1 4";

TEST_F(DamagedIndexedStore, IsRefusedWithoutAHeader) {
  test::write_file(data(), changed(test::read_file(data()), 0, "x"));
  expect_refused(data() + " is damaged at offset 0: no header");
}

TEST_F(DamagedIndexedStore, IsRefusedWhenItIsOfAnotherVersion) {
  test::write_file(data(), changed(test::read_file(data()), 4, std::string("\2\0\0\0", 4)));
  expect_refused(data() + " has version 2 of its format, this library knows version 1");
}

TEST_F(DamagedIndexedStore, IsRefusedWhenADamagedEntryHidesOthers) {
  const std::string bytes = test::read_file(data());
  const std::size_t second = test::indexed_offsets(bytes).at(1);
  test::write_file(data(), changed(bytes, second + 30, "X"));
  std::filesystem::remove(index());  // otherwise nobody reads the data as a whole
  expect_refused(data() + " is damaged at offset " + std::to_string(second) +
                 ": no whole entry, but others follow");
}

TEST_F(DamagedIndexedStore, IsRefusedWhenADirectoryIsInItsPlace) {
  std::filesystem::remove(data());
  std::filesystem::create_directory(data());
  const Ran ran = use();
  EXPECT_EQ(ran.out, "0 null null null null null null 0 0");
  EXPECT_EQ(ran.messages(),
            (Messages{kStatisticsOff, "ERROR Couldn't open " + data() + ": Invalid argument",
                      kNotCreated}));
}

// The checksum is verified at a look-up. The other entries are found.
TEST_F(DamagedIndexedStore, DoesNotFindAnEntryThatIsDamagedAndSaysSo) {
  const std::string bytes = test::read_file(data());
  const std::size_t second = test::indexed_offsets(bytes).at(1);
  test::write_file(data(), changed(bytes, bytes.find("value of b"), "VALUE"));
  const Ran ran = use();
  EXPECT_EQ(ran.out, "1 value of a null value of c value of a null value of c 1 4");
  EXPECT_THAT(ran.messages(), Contains("WARN The entry at offset " + std::to_string(second) +
                                       " of " + data() + " is damaged, and so is not found"));
}

TEST_F(DamagedIndexedStore, IsWholeAgainWhenOnlyItsIndexIsDamaged) {
  const std::string whole = test::read_file(index());
  for (const std::string& damaged :
       {std::string(), std::string(5000, 'x'), whole.substr(0, 4096), changed(whole, 64, "\x7f"),
        changed(whole, 16, "x"), whole + "x"}) {
    test::write_file(index(), damaged);
    const Ran ran = use();
    EXPECT_EQ(ran.out, kEverything);
    EXPECT_EQ(ran.messages(), Messages{kStatisticsOff});
    std::filesystem::remove(data());
    std::filesystem::remove(index());
    const auto cache = open_cache(root_.path());
    for (const char* key : {"a", "b", "c"}) {
      add(*cache, key, std::string("value of ") + key);
    }
  }
}

// What a killed append leaves, is not part of the store.
TEST_F(DamagedIndexedStore, LosesNothingByATornEntryAtItsEnd) {
  const std::string bytes = test::read_file(data());
  test::write_file(data(), bytes + bytes.substr(64, 20));
  EXPECT_EQ(use().out, kEverything);
  std::filesystem::remove(index());
  const Ran again = use();
  EXPECT_EQ(again.out, "1 " + kAll + " " + kAll + " 0 4");
}

TEST_F(DamagedIndexedStore, IsEmptyWhenItsDataFileIs) {
  test::write_file(data(), "");
  EXPECT_EQ(use().out, "1 null null null null null null 1 1");
}

}  // namespace
