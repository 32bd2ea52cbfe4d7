// Caches on indexed stores whose size is limited.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/indexed_cache.h"
#include "support/processes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::StoreOptions;
using test::add;
using test::get;
using test::numbered;
using test::open_cache;
using test::TempDir;

constexpr std::uint64_t kLimit = 60'000;
constexpr std::size_t kBatch = 10;
const std::string kValue(300, 'v');

class LimitedIndexedCache : public testing::Test {
 protected:
  StoreOptions limited() const {
    StoreOptions options = test::indexed_options(root_.path());
    options.size_limit = kLimit;
    return options;
  }

  std::uint64_t bytes() const {
    return std::filesystem::file_size(root_.file("dat_maps")) +
           std::filesystem::file_size(root_.file("idx_maps"));
  }

  // Adds this many entries, a batch at a time. The files never exceed the limit.
  void fill(Cache& cache, const std::string& prefix, std::size_t count) const {
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(add(cache, numbered(prefix, i), kValue));
      if (i % kBatch == kBatch - 1) {
        ASSERT_TRUE(cache.flush());
        ASSERT_LE(bytes(), kLimit);
      }
    }
  }

  TempDir root_;
};

TEST_F(LimitedIndexedCache, KeepsTheNewestEntries) {
  const auto cache = open_cache(limited());
  fill(*cache, "key", 1000);
  EXPECT_THAT(test::names_in(root_.path()),
              testing::ElementsAre("dat_maps", "idx_maps", "lock_maps"));
  const auto other = open_cache(root_.path());
  EXPECT_EQ(get(*other, "key0"), std::nullopt);
  for (std::size_t i = 990; i < 1000; ++i) {
    EXPECT_EQ(get(*other, numbered("key", i)), kValue);
  }
  EXPECT_EQ(other->size(), test::indexed_entries(root_.path()).size());
}

TEST_F(LimitedIndexedCache, KeepsWhatItHasFoundForItselfAndForOthers) {
  fill(*open_cache(limited()), "old", 50);
  const auto cache = open_cache(limited());
  ASSERT_EQ(get(*cache, "old3"), kValue);
  fill(*cache, "new", 1000);
  EXPECT_EQ(get(*cache, "old3"), kValue);
  const auto other = open_cache(root_.path());
  EXPECT_EQ(get(*other, "old3"), kValue);
  EXPECT_EQ(get(*other, "old4"), std::nullopt);
}

TEST_F(LimitedIndexedCache, KeepsItsValuesWhenAnotherProcessDropsTheirEntries) {
  fill(*open_cache(limited()), "old", 50);
  const auto cache = open_cache(root_.path());
  const auto* const value = cache->get_value(test::buffer("old3"));
  ASSERT_NE(value, nullptr);
  ASSERT_EQ(test::wait_for(test::in_child([this] {
              fill(*open_cache(limited()), "new", 1000);
              return 0;
            })),
            0);
  EXPECT_EQ(cache->get_value(test::buffer("old3")), value);
  EXPECT_EQ(test::bytes_of(value->front()), kValue);
  EXPECT_EQ(get(*cache, "new999"), kValue);
  EXPECT_EQ(get(*cache, "old4"), std::nullopt);
}

TEST_F(LimitedIndexedCache, StoresNothingThatNeverFits) {
  const auto cache = open_cache(limited());
  fill(*cache, "key", 20);
  ASSERT_TRUE(add(*cache, "large", std::string(2 * kLimit, 'x')));
  EXPECT_FALSE(cache->flush());
  EXPECT_EQ(test::indexed_entries(root_.path()).size(), 20U);
  EXPECT_EQ(get(*open_cache(root_.path()), "key0"), kValue);
  EXPECT_TRUE(get(*cache, "large"));
}

TEST_F(LimitedIndexedCache, CountsWhatItOpensTowardsTheLimitOfAController) {
  fill(*open_cache(limited()), "old", 20);
  CleanupController controller(kLimit);
  StoreOptions options = test::indexed_options(root_.path());
  options.controller = &controller;
  const auto cache = open_cache(options);
  EXPECT_EQ(controller.get_room(controller.get_ticket()), kLimit - bytes());
}

TEST_F(LimitedIndexedCache, SharesTheLimitOfAController) {
  CleanupController controller(2 * kLimit);
  StoreOptions options = test::indexed_options(root_.path());
  options.controller = &controller;
  const auto maps = open_cache(options);
  options.name = "other";
  const auto other = open_cache(options);
  for (std::size_t i = 0; i < 500; ++i) {
    add(i % 2 == 0 ? *maps : *other, numbered("key", i), kValue);
    ASSERT_TRUE((i % 2 == 0 ? *maps : *other).flush());
    ASSERT_LE(bytes() + std::filesystem::file_size(root_.file("dat_other")) +
                  std::filesystem::file_size(root_.file("idx_other")),
              2 * kLimit);
  }
}

}  // namespace
