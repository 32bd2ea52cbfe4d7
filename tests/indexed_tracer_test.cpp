// What indexed stores report to the program's tracer. This program defines one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/heard.h"
#include "support/indexed_cache.h"
#include "support/temp_dir.h"

namespace {

using test::add;
using test::get;
using test::open_cache;
using test::take_heard;
using testing::ElementsAre;
using testing::IsEmpty;

class IndexedTracer : public testing::Test {
 protected:
  IndexedTracer() { take_heard(); }

  void store_one_entry() const {
    add(*open_cache(root_.path()), "key", "value");
    take_heard();
  }

  std::string size_of(const std::string& name) const {
    return std::to_string(std::filesystem::file_size(root_.file(name)));
  }

  test::TempDir root_;
};

TEST_F(IndexedTracer, HearsOfAnOpeningWithTheBytesOfTheFiles) {
  store_one_entry();
  const auto cache = open_cache(root_.path());
  const auto bytes = std::filesystem::file_size(root_.file("dat_maps")) +
                     std::filesystem::file_size(root_.file("idx_maps"));
  EXPECT_THAT(take_heard(), ElementsAre("start 17", "end 17: " + std::to_string(bytes)));
}

TEST_F(IndexedTracer, HearsOfALookUpUnlessTheProcessRemembersTheKey) {
  store_one_entry();
  const auto cache = open_cache(root_.path());
  take_heard();
  EXPECT_EQ(get(*cache, "key"), "value");
  EXPECT_THAT(take_heard(), ElementsAre("start 18", "end 18: 1"));
  EXPECT_EQ(get(*cache, "key"), "value");
  EXPECT_THAT(take_heard(), IsEmpty());
  EXPECT_EQ(get(*cache, "missing"), std::nullopt);
  EXPECT_THAT(take_heard(), ElementsAre("start 18", "end 18: 0"));
}

TEST_F(IndexedTracer, HearsOfAFlushWithItsEntries) {
  const auto cache = open_cache(root_.path());
  add(*cache, "a", "1");
  add(*cache, "b", "2");
  take_heard();
  ASSERT_TRUE(cache->flush());
  EXPECT_THAT(take_heard(), ElementsAre("start 19", "end 19: 2"));
}

TEST_F(IndexedTracer, HearsOfAnIndexThatIsMadeAnew) {
  store_one_entry();
  std::filesystem::remove(root_.file("idx_maps"));
  const auto cache = open_cache(root_.path());
  const auto heard = take_heard();
  ASSERT_EQ(heard.size(), 4U);
  EXPECT_EQ(heard[0], "start 17");
  EXPECT_EQ(heard[1], "start 20");
  EXPECT_EQ(heard[2], "end 20: " + size_of("dat_maps"));
}

TEST_F(IndexedTracer, HearsOfTheRecoveryFromAKill) {
  store_one_entry();
  const std::string whole = size_of("dat_maps");
  test::write_file(root_.file("dat_maps"), test::read_file(root_.file("dat_maps")) + "half");
  const auto cache = open_cache(root_.path());
  add(*cache, "other", "1");
  take_heard();
  ASSERT_TRUE(cache->flush());
  EXPECT_THAT(take_heard(), ElementsAre("start 19", "start 20", "end 20: " + whole, "end 19: 1"));
}

TEST_F(IndexedTracer, HearsOfACleanWithTheEntriesThatItKeeps) {
  quorvane::cache::StoreOptions options = test::indexed_options(root_.path());
  options.size_limit = 60'000;
  const auto cache = open_cache(options);
  std::vector<std::string> heard;
  for (std::size_t i = 0; heard.size() <= 2; ++i) {
    ASSERT_LT(i, 1000U);
    add(*cache, test::numbered("key", i), std::string(300, 'v'));
    take_heard();
    ASSERT_TRUE(cache->flush());
    heard = take_heard();
  }
  // The entry of the flush that cleaned isn't among those that were kept.
  const std::size_t kept = test::indexed_entries(root_.path()).size() - 1;
  EXPECT_THAT(heard,
              ElementsAre("start 19", "start 21", "end 21: " + std::to_string(kept), "end 19: 1"));
}

}  // namespace
