#include "src/cache/loaded_index.h"

#include <farmhash.h>
#include <gtest/gtest.h>

#include <string>

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

// Found by following hashes of hashes until two met.
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

}  // namespace
