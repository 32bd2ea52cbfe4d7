// Caches on a lazy store.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/lazy_root.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_maps.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::LazyLookupStore;
using quorvane::cache::make_file_store;
using quorvane::cache::StoreKind;
using test::buffer;
using test::buffers;
using test::expectation;
using test::expectation_at;
using test::kEntries;
using test::lazy_files;
using test::lazy_lines;
using test::LazyRoot;
using test::Ran;
using test::root_file;
using test::root_path;
using Messages = std::vector<std::string>;

SCENARIO(cache_adds) {
  Cache cache("maps", test::maps_store(StoreKind::lazy_lookup), false);
  std::printf("%d\n%s", cache.is_valid(), test::listing(cache).c_str());
  for (const std::string& key : arguments) {
    cache.add_value(buffer(key), buffers({"of " + key}));
  }
  return 0;
}

TEST(LazyStoreCache, IsValidOnAFreshRootWhichGetsTheTwoFiles) {
  const LazyRoot root;
  const Ran ran = root.run("cache_adds");
  EXPECT_EQ(ran.out, "1\n");
  EXPECT_EQ(root.files(), lazy_files({}));
  EXPECT_EQ(ran.messages(),
            (Messages{root.stored(), root.opened_key(), root.opened_val(), root.loaded(),
                      "INFO Created maps cache with LazyLookupStore store type"}));
}

TEST(LazyStoreCache, WhatOneProcessAddsTheNextOneLoads) {
  const LazyRoot root;
  EXPECT_EQ(root.run("cache_adds", {"k", "aa"}).out, "1\n");
  const Ran second = root.run("cache_adds", {"b", "k"});
  EXPECT_EQ(second.out, "1\nk=of k\naa=of aa\n");
  EXPECT_EQ(
      second.messages(),
      (Messages{root.opened_key(), root.opened_val(), root.loaded(),
                "INFO Loaded maps cache data with LazyLookupStore store type, num entries = 2",
                "INFO Created maps cache with LazyLookupStore store type", root.opened_key(),
                root.scanned(), root.stored(),
                "DEBUG Stored maps cache diff data with LazyLookupStore store type, "
                "num diff entries = 1"}));
  EXPECT_EQ(root.files(), lazy_files({{"k", {"of k"}}, {"aa", {"of aa"}}, {"b", {"of b"}}}));
}

TEST(LazyStoreCache, HalfAPairOfFilesIsLeftAloneAndFails) {
  const LazyRoot root;
  test::write_file(root.val(), lazy_files(kEntries).val);
  const Ran ran = root.run("cache_adds", {"k"}, "WARN");
  EXPECT_EQ(ran.out, "0\n");
  EXPECT_EQ(ran.messages(),
            (Messages{expectation_at("key_file_exists == val_file_exists", 1036),
                      "ERROR Couldn't create maps cache with LazyLookupStore store type"}));
  EXPECT_FALSE(test::exists(root.key()));
}

TEST(LazyStoreCache, OnAnUnusableRootGetsNoValidStore) {
  const LazyRoot root;
  const Ran ran = test::run_scenario(
      "cache_adds", {{"QV_CACHE_STORE_ROOT", root.path() + "/none"}, {"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "0\n");
  EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root.path() +
                                     "/none/lock_maps lock couldn't be obtained: "
                                     "No such file or directory."});
}

TEST(LazyStoreCache, WithoutARootSaysSoForTheLockAndForEachFile) {
  const Ran ran =
      test::run_scenario("cache_adds", {{"QV_CACHE_STORE_ROOT", {}}, {"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "0\n");
  const std::string no_root = "ERROR Caching enabled, but QV_CACHE_STORE_ROOT not set.";
  EXPECT_EQ(
      ran.messages(),
      (Messages{no_root, "WARN Cache store  lock couldn't be obtained: No such file or directory.",
                no_root, no_root}));
}

// The load that cleans finds nothing; the next store creates new files.
SCENARIO(cache_past_the_threshold) {
  CleanupController controller(50);
  for (int i = 0; i < 2; ++i) {
    Cache cache("maps", make_file_store(StoreKind::lazy_lookup, "maps", &controller), false);
    std::printf("%d", cache.is_valid());
  }
  return 0;
}

TEST(LazyStoreCache, WhoseLoadCleansIsInvalidAndTheNextOneStartsAnew) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("cache_past_the_threshold", {}, "ERROR");
  EXPECT_EQ(ran.out, "01");
  EXPECT_EQ(root.files(), lazy_files({}));
}

SCENARIO(bare_store) {
  CleanupController controller(0);
  auto store = std::make_unique<LazyLookupStore>(
      "maps", std::make_shared<quorvane::cache::StoreFLock>("maps"), &controller);
  std::printf("%d", Cache("maps", std::move(store), true).is_valid());
  return 0;
}

TEST(LazyStoreCache, WithABareStoreFailsAsLongAsTheFilesAreMissing) {
  const LazyRoot root;
  for (int i = 0; i < 2; ++i) {
    const Ran ran = root.run("bare_store", {}, "WARN");
    EXPECT_EQ(ran.out, "0");
    EXPECT_EQ(ran.messages(),
              Messages{"ERROR Couldn't create maps cache with LazyLookupStore store type"});
    EXPECT_TRUE(root.has_neither());
  }
  root.run("cache_adds");
  EXPECT_EQ(root.run("bare_store").out, "1");
}

SCENARIO(two_caches_add_one_key) { return test::add_one_key_to_two_caches<LazyLookupStore>(); }

TEST(LazyStoreCache, AppendSkipsAKeyThatAnotherCacheStoredFirst) {
  const LazyRoot root;
  EXPECT_TRUE(root.run("two_caches_add_one_key").exited_with(0));
  EXPECT_EQ(root.files(), lazy_files({{"k", {"second"}}, {"own", {"1"}}}));
}

SCENARIO(restarted_files_of_a_loaded_cache) {
  Cache cache("maps", test::maps_store(StoreKind::lazy_lookup), false);
  cache.add_value(buffer("k"), buffers({"v"}));
  // Restarts the files, as a process that cleans does. The cache's mapping keeps the old bytes.
  std::remove(root_file("key_maps").c_str());
  std::remove(root_file("val_maps").c_str());
  test::write_lazy_files(root_path(), lazy_files({}));
  return 0;
}

TEST(LazyStoreCache, DoesNotAppendToFilesThatWereRestarted) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("restarted_files_of_a_loaded_cache", {}, "WARN");
  EXPECT_EQ(lazy_lines(ran).front(),
            expectation_at("key_file.size() >= key_file_last_size_", 1295));
  EXPECT_EQ(test::without_lines(ran.messages()),
            (Messages{expectation("key_file.size() >= key_file_last_size_"),
                      expectation("loaded_map_last_size_ == 0 || new_keys_loaded"),
                      expectation("store_->try_store_diff(diff_map_)")}));
  EXPECT_EQ(root.files(), lazy_files({}));
}
