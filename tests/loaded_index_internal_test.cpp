#include "src/cache/loaded_index.h"

#include <farmhash.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/store_bytes.h"

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::LoadedIndex;

std::string value_of(const LoadedIndex& index, const std::string& key) {
  const auto* value = index.find(test::buffer(key));
  return value == nullptr ? "null" : test::bytes_of(value->at(0));
}

TEST(LoadedIndex, OfNothingFindsNothing) {
  const EntryMap map;
  const LoadedIndex index(map);
  EXPECT_EQ(value_of(index, ""), "null");
  EXPECT_EQ(value_of(index, "key"), "null");
}

TEST(LoadedIndex, FindsAnEmptyKey) {
  const EntryMap map = test::entry_map({{"", {"empty"}}, {"a", {"1"}}});
  const LoadedIndex index(map);
  EXPECT_EQ(value_of(index, ""), "empty");
  EXPECT_EQ(value_of(index, "a"), "1");
  EXPECT_EQ(value_of(index, "b"), "null");
}

// The keys were found by hashing hashes until two of them collided.
void expect_told_apart(const std::string& one, const std::string& other) {
  ASSERT_EQ(util::Hash64(one), util::Hash64(other));
  const EntryMap map_of_one = test::entry_map({{one, {"1"}}});
  const LoadedIndex index_of_one(map_of_one);
  EXPECT_EQ(value_of(index_of_one, one), "1");
  EXPECT_EQ(value_of(index_of_one, other), "null");
  const EntryMap map = test::entry_map({{one, {"1"}}, {other, {"2"}}});
  const LoadedIndex index(map);
  EXPECT_EQ(value_of(index, one), "1");
  EXPECT_EQ(value_of(index, other), "2");
}

TEST(LoadedIndex, TellsKeysOfOneHashAndOneSizeApart) {
  expect_told_apart("e4bd4261d93d79f9", "1044c263d92d205b");
}

TEST(LoadedIndex, TellsKeysOfOneHashAndTwoSizesApart) {
  expect_told_apart("k26ead66949f22622", "a4f928b2c1fefc35");
}

// Keys whose hashes are so large that they map to the last slot.
std::vector<std::string> keys_of_the_last_slot(std::size_t count) {
  std::vector<std::string> keys;
  for (int i = 0; keys.size() < count; ++i) {
    const std::string key = "key" + std::to_string(i);
    if (util::Hash64(key) >= std::uint64_t{63} << 58) {
      keys.push_back(key);
    }
  }
  return keys;
}

TEST(LoadedIndex, GoesOnFromTheLastSlotWithTheFirst) {
  const std::vector<std::string> keys = keys_of_the_last_slot(30);
  EntryMap map;
  for (std::size_t i = 0; i < 20; ++i) {
    map.emplace(test::buffer(keys[i]), test::buffers({keys[i]}));
  }
  const LoadedIndex index(map);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(value_of(index, keys[i]), i < 20 ? keys[i] : "null");
  }
}

}  // namespace
