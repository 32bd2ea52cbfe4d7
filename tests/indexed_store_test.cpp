// Caches on indexed stores: what a program sees of them.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/indexed_cache.h"
#include "support/library_path.h"
#include "support/log_records.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using quorvane::cache::make_store;
using quorvane::cache::StoreOptions;
using test::add;
using test::buffer;
using test::buffers;
using test::get;
using test::indexed_options;
using test::TempDir;

class IndexedCache : public testing::Test {
 protected:
  std::unique_ptr<Cache> open() const { return test::open_cache(root_.path()); }
  std::vector<std::string> files() const { return test::names_in(root_.path()); }

  TempDir root_;
};

TEST_F(IndexedCache, IsTheDefaultKindAndHasItsFiles) {
  const auto cache = open();
  EXPECT_TRUE(cache->is_valid());
  EXPECT_THAT(files(), testing::UnorderedElementsAre("dat_maps", "idx_maps", "lock_maps"));
}

TEST_F(IndexedCache, StoresAtItsEnd) {
  add(*open(), "key", "value");
  EXPECT_EQ(get(*open(), "key"), "value");
}

TEST_F(IndexedCache, FindsWhatAnotherHasFlushedSinceItWasOpened) {
  const auto reader = open();
  const auto writer = open();
  EXPECT_EQ(get(*reader, "key"), std::nullopt);
  ASSERT_TRUE(add(*writer, "key", "value"));
  EXPECT_EQ(get(*reader, "key"), std::nullopt);
  ASSERT_TRUE(writer->flush());
  EXPECT_EQ(get(*reader, "key"), "value");
  EXPECT_EQ(reader->size(), 1U);
}

TEST_F(IndexedCache, KeepsItsOwnValueWhenAnotherHasStoredFirst) {
  const auto one = open();
  const auto two = open();
  ASSERT_TRUE(add(*one, "key", "of one"));
  ASSERT_TRUE(add(*two, "key", "of two"));
  ASSERT_TRUE(one->flush());
  EXPECT_EQ(two->size(), 1U);
  EXPECT_EQ(get(*two, "key"), "of two");
  ASSERT_TRUE(two->flush());
  EXPECT_EQ(get(*two, "key"), "of two");
  EXPECT_EQ(two->size(), 1U);
  EXPECT_EQ(get(*open(), "key"), "of one");
}

TEST_F(IndexedCache, RefusesToAddWhatAnotherHasStored) {
  const auto one = open();
  const auto two = open();
  ASSERT_TRUE(add(*one, "key", "of one"));
  ASSERT_TRUE(one->flush());
  EXPECT_FALSE(add(*two, "key", "of two"));
  EXPECT_EQ(get(*two, "key"), "of one");
}

TEST_F(IndexedCache, KeepsThePointersThatItHasReturned) {
  const auto cache = open();
  {
    const auto writer = open();
    for (int i = 0; i < 100; ++i) {
      ASSERT_TRUE(add(*writer, "key" + std::to_string(i), "value"));
    }
  }
  const auto* const before = cache->get_value(buffer("key50"));
  ASSERT_NE(before, nullptr);
  std::filesystem::remove(root_.file("dat_maps"));
  std::filesystem::remove(root_.file("idx_maps"));
  {
    const auto writer = open();
    for (int i = 0; i < 5000; ++i) {
      ASSERT_TRUE(add(*writer, "new" + std::to_string(i), "value"));
    }
  }
  EXPECT_EQ(get(*cache, "new4999"), "value");
  EXPECT_EQ(cache->get_value(buffer("key50")), before);
  EXPECT_EQ(get(*cache, "key50"), "value");
  EXPECT_EQ(get(*cache, "key51"), std::nullopt);
}

TEST_F(IndexedCache, VisitsEntriesInKeyOrder) {
  {
    const auto writer = open();
    add(*writer, "bb", "2");
    add(*writer, "c", "1");
    add(*writer, "aaa", "3");
  }
  const auto cache = open();
  add(*cache, "z", "4");
  std::vector<std::string> keys;
  for (const auto& [key, value] : *cache) {
    keys.emplace_back(reinterpret_cast<const char*>(key.get_buffer()), key.get_size());
  }
  EXPECT_THAT(keys, testing::ElementsAre("c", "bb", "aaa", "z"));
}

TEST_F(IndexedCache, VisitsAlsoWhatMadeTheIndexGrowSinceItWasOpened) {
  add(*open(), "first", "value");
  const auto cache = open();
  {
    const auto writer = open();
    for (int i = 0; i < 6000; ++i) {
      ASSERT_TRUE(add(*writer, "key" + std::to_string(i), "value"));
    }
  }
  EXPECT_EQ(std::distance(cache->begin(), cache->end()), 6001);
}

TEST_F(IndexedCache, VisitsTheValueThatItHasFoundThoughAnotherOneIsStoredNow) {
  add(*open(), "key", "first");
  const auto cache = open();
  EXPECT_EQ(get(*cache, "key"), "first");
  std::filesystem::remove(root_.file("dat_maps"));
  std::filesystem::remove(root_.file("idx_maps"));
  add(*open(), "key", "second");
  ASSERT_NE(cache->begin(), cache->end());
  EXPECT_EQ(test::bytes_of(cache->begin()->second.front()), "first");
}

TEST_F(IndexedCache, FlushesAfterSoManyAdditions) {
  const auto writer = test::open_cache(indexed_options(root_.path(), 3));
  const auto reader = open();
  add(*writer, "a", "1");
  add(*writer, "b", "1");
  EXPECT_EQ(get(*reader, "a"), std::nullopt);
  add(*writer, "c", "1");
  EXPECT_EQ(get(*reader, "a"), "1");
}

TEST_F(IndexedCache, ThatMustExistIsNotCreated) {
  StoreOptions with = indexed_options(root_.path());
  with.must_exist = true;
  EXPECT_FALSE(test::open_cache(with)->is_valid());
  EXPECT_THAT(files(), testing::IsEmpty());
  add(*open(), "key", "value");
  EXPECT_EQ(get(*test::open_cache(with), "key"), "value");
}

// --- records and statistics, in a process of their own ---

SCENARIO(miss_in_an_indexed_cache) {
  Cache cache("maps", make_store(indexed_options(arguments.at(0))), false);
  cache.get_value(buffer("key"));
  cache.get_value(buffer(std::string(40, 'x')));
  return 0;
}

TEST(IndexedCacheRecords, NameTheCacheAndTheKeyOfAMiss) {
  const TempDir root;
  const test::Ran ran = test::run_scenario("miss_in_an_indexed_cache", {}, {root.path()});
  EXPECT_TRUE(ran.exited_with(0));
  std::string long_key;
  for (int i = 0; i < 32; ++i) {
    long_key += "78";
  }
  EXPECT_THAT(ran.messages(), testing::Contains("DEBUG Miss in maps cache: 6b6579"));
  EXPECT_THAT(ran.messages(), testing::Contains("DEBUG Miss in maps cache: " + long_key));
}

SCENARIO(counts_in_an_indexed_cache) {
  {
    Cache cache("maps", make_store(indexed_options(arguments.at(0))), false);
    cache.add_value(buffer("key"), buffers({"value"}));
    cache.get_value(buffer("key"));
    cache.get_value(buffer("key"));
    cache.get_value(buffer("none"));
    cache.flush();
  }
  return 0;
}

TEST(IndexedCacheStatistics, AreReportedUnderItsName) {
  const TempDir root;
  const test::Ran ran = test::run_scenario(
      "counts_in_an_indexed_cache",
      {{"QV_STATS_REPORT_FILE", root.file("report")}, {"LD_LIBRARY_PATH", test::kLibraryPath}},
      {root.path()});
  EXPECT_TRUE(ran.exited_with(0));
  const std::string report = test::read_file(root.file("report"));
  const auto bytes = std::filesystem::file_size(root.file("dat_maps")) +
                     std::filesystem::file_size(root.file("idx_maps"));
  const auto at = report.find("\"cache\":{\"maps\":{");
  ASSERT_NE(at, std::string::npos) << report;
  const std::string own = report.substr(at);
  EXPECT_THAT(own, testing::HasSubstr("\"hits\":2,"));
  EXPECT_THAT(own, testing::HasSubstr("\"misses\":1,"));
  EXPECT_THAT(own, testing::HasSubstr("\"entries\":1,"));
  EXPECT_THAT(own, testing::HasSubstr("\"bytes\":" + std::to_string(bytes) + ","));
  EXPECT_THAT(own, testing::HasSubstr("\"open_us\":{\"count\":1,"));
}

}  // namespace
