// The basic store: its entries, its state between operations, its size, and the caches on it.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/basic_root.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_maps.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::BasicStore;
using quorvane::cache::Cache;
using quorvane::cache::StoreKind;
using quorvane::util::RwBuffer;
using test::basic_file;
using test::BasicRoot;
using test::buffer;
using test::buffers;
using test::entry_bytes;
using test::expectation;
using test::kEntries;
using test::Ran;
using test::root_file;
using test::without_lines;
using Maps = test::Maps<BasicStore>;
using Messages = std::vector<std::string>;

// --- entries ---

TEST(BasicStoreEntry, TakesFourAndEightAndEightBytesAndItsPiecesWithTheirSizes) {
  EXPECT_EQ(BasicStore::get_entry_representation_size(buffer("abc"), buffers({"ab", "c"})), 42u);
  EXPECT_EQ(BasicStore::get_entry_representation_size(buffer("k"), {}), 21u);
}

TEST(BasicStoreEntry, IsWrittenAsMagicNumberKeyAndValue) {
  RwBuffer bytes(42);
  quorvane::util::BufferWriter writer = bytes.writer();
  ASSERT_TRUE(BasicStore::write_entry(writer, buffer("abc"), buffers({"ab", "c"})));
  EXPECT_EQ(test::bytes_of(bytes), entry_bytes({"abc", {"ab", "c"}}));
}

SCENARIO(entry_without_room) {
  for (const std::size_t size : {3u, 12u, 30u}) {
    RwBuffer bytes(size);
    quorvane::util::BufferWriter writer = bytes.writer();
    std::printf("%d", BasicStore::write_entry(writer, buffer("abc"), buffers({"ab", "c"})));
  }
  return 0;
}

TEST(BasicStoreEntry, StopsAtTheFirstPieceThatDoesNotFit) {
  const Ran ran = test::run_scenario("entry_without_room");
  EXPECT_EQ(ran.out, "000");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER)"),
                      expectation("fwriter.put_raw(key.get_buffer(), key.get_size())"),
                      expectation("fwriter.put(val_atom.get_size())")}));
}

// --- the state between operations ---

SCENARIO(vanished_file) {
  Maps maps;
  maps.load();
  std::remove(root_file("maps").c_str());
  std::printf("consistent %d\n", maps.store.check_consistent_state());
  maps.load();
  maps.scan();
  maps.append({{"k", {"v"}}});
  return 0;
}

TEST(BasicStoreState, AFileThatVanishedAfterItsLoadFailsEverything) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("vanished_file");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nconsistent 0\nload 0\nscan 0\nappend 0\n");
  const std::string gone = expectation("file_last_size_ == 0 || file_exists(fpath_)");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), root.loaded(), gone, gone, gone, gone}));
  EXPECT_FALSE(test::exists(root.maps()));
}

SCENARIO(vanished_after_failed_load) {
  Maps maps;
  maps.load();
  std::remove(root_file("maps").c_str());
  std::printf("consistent %d\n", maps.store.check_consistent_state());
  maps.append(kEntries);
  return 0;
}

TEST(BasicStoreState, AFailedLoadLeavesTheLastSizeAsItWas) {
  const BasicRoot root(basic_file(kEntries) + "damage");
  const Ran ran = root.run("vanished_after_failed_load");
  EXPECT_EQ(ran.out, "load 0\nb=2,3\naa=1\nconsistent 1\nappend 1\n");
  EXPECT_EQ(root.bytes(), basic_file(kEntries));
}

// --- disk usage and cleaning ---

SCENARIO(usage) { return test::print_usage<BasicStore>(arguments); }

TEST(BasicStoreUsage, IsTheSizeOfTheFile) {
  const BasicRoot root(basic_file(kEntries));
  const std::string size = std::to_string(basic_file(kEntries).size());
  EXPECT_EQ(root.run("usage").out, size + " " + size);
}

TEST(BasicStoreUsage, IsZeroWithoutAFileAndACheckOfSeverity3) {
  const BasicRoot root;
  EXPECT_EQ(root.run("usage").out, "0 0");
  EXPECT_EQ(root.run("usage").messages(), Messages{});
  const std::string check = expectation("stat(fpath_.c_str(), &st) == 0");
  EXPECT_EQ(without_lines(root.run("usage", {"loud"}).messages()), (Messages{check, check}));
}

SCENARIO(clean) {
  Maps maps;
  maps.store.nonlock_clean();
  maps.store.clean();
  return 0;
}

TEST(BasicStoreClean, RemovesTheFileAndSaysSoWhateverTheResult) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("clean");
  EXPECT_FALSE(test::exists(root.maps()));
  const std::string cleaned = "DEBUG Cachemap file " + root.maps() + " cleaned";
  EXPECT_EQ(ran.messages(), (Messages{cleaned, cleaned}));
  EXPECT_EQ(root.run("clean", {}, "INFO").messages(), Messages{});
}

SCENARIO(locked_load_with_threshold) { return test::load_under_threshold<BasicStore>(arguments); }

TEST(BasicStoreClean, AFileLargerThanTheThresholdIsRemovedBeforeItIsLoaded) {
  const BasicRoot root(basic_file(kEntries));
  const std::string size = std::to_string(basic_file(kEntries).size());
  EXPECT_EQ(root.run("locked_load_with_threshold", {size}).out, "1 2\n");
  const std::string less = std::to_string(basic_file(kEntries).size() - 1);
  const Ran ran = root.run("locked_load_with_threshold", {less});
  EXPECT_EQ(ran.out, "1 0\n");
  EXPECT_FALSE(test::exists(root.maps()));
  EXPECT_EQ(ran.messages(),
            (Messages{"TRACE Cache store usage is " + size + " / " + less + " bytes.",
                      "DEBUG Cachemap file " + root.maps() + " cleaned",
                      "TRACE Cache store usage is 0 / " + less + " bytes.",
                      "INFO Cache store cleaned."}));
}

// --- with a cache on top ---

SCENARIO(cache_adds) {
  Cache cache("maps", test::maps_store(StoreKind::basic), false);
  std::printf("%s", test::listing(cache).c_str());
  for (const std::string& key : arguments) {
    cache.add_value(buffer(key), buffers({"of " + key}));
  }
  return 0;
}

TEST(BasicStoreCache, WhatOneProcessAddsTheNextOneLoads) {
  const BasicRoot root;
  const Ran first = root.run("cache_adds", {"k", "aa"});
  EXPECT_EQ(first.out, "");
  EXPECT_EQ(first.messages(),
            (Messages{"INFO Created maps cache with BasicStore store type", root.stored(),
                      "DEBUG Stored maps cache diff data with BasicStore store type, "
                      "num diff entries = 2"}));
  const Ran second = root.run("cache_adds", {"b", "k"});
  EXPECT_EQ(second.out, "k=of k\naa=of aa\n");
  EXPECT_EQ(second.messages(),
            (Messages{root.opened(), root.loaded(),
                      "INFO Loaded maps cache data with BasicStore store type, num entries = 2",
                      "INFO Created maps cache with BasicStore store type", root.opened(),
                      root.scanned(), root.stored(),
                      "DEBUG Stored maps cache diff data with BasicStore store type, "
                      "num diff entries = 1"}));
  EXPECT_EQ(root.bytes(), basic_file({{"k", {"of k"}}, {"aa", {"of aa"}}, {"b", {"of b"}}}));
}

SCENARIO(two_caches_add_one_key) { return test::add_one_key_to_two_caches<BasicStore>(); }

TEST(BasicStoreCache, AppendSkipsAKeyThatAnotherCacheStoredFirst) {
  const BasicRoot root;
  EXPECT_TRUE(root.run("two_caches_add_one_key").exited_with(0));
  EXPECT_EQ(root.bytes(), basic_file({{"k", {"second"}}, {"own", {"1"}}}));
}
