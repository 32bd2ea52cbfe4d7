#include "src/cache/found_table.h"

#include <farmhash.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/no_memory.h"
#include "support/store_bytes.h"

namespace {

using quorvane::cache::FoundTable;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;

std::string value_of(const FoundTable& table, const std::string& key) {
  const auto* value = table.find(buffer(key));
  return value == nullptr ? "null" : test::bytes_of(value->at(0));
}

std::string key_of(std::size_t number) { return "key" + std::to_string(number); }

TEST(FoundTable, OfNothingFindsNothing) {
  const FoundTable table;
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(value_of(table, ""), "null");
  EXPECT_EQ(value_of(table, "key"), "null");
}

TEST(FoundTable, FindsWhatWasInsertedAndNothingElse) {
  FoundTable table;
  const auto* value = table.insert(buffer("a"), buffers({"1", "2"}));
  table.insert(buffer(""), buffers({"empty"}));
  EXPECT_EQ(table.size(), 2u);
  EXPECT_EQ(table.find(buffer("a")), value);
  EXPECT_EQ(test::bytes_of(value->at(1)), "2");
  EXPECT_EQ(value_of(table, ""), "empty");
  EXPECT_EQ(value_of(table, "b"), "null");
}

TEST(FoundTable, KeepsACopyOfTheKey) {
  FoundTable table;
  std::string bytes = "key";
  table.insert(RoBuffer::view(bytes.data(), bytes.size()), buffers({"1"}));
  bytes = "new";
  EXPECT_EQ(value_of(table, "key"), "1");
  EXPECT_EQ(value_of(table, "new"), "null");
}

TEST(FoundTable, AValueStaysWhereItIsHoweverManyFollow) {
  constexpr std::size_t kEntries = 5000;
  FoundTable table;
  std::vector<const FoundTable::Value*> values;
  for (std::size_t i = 0; i < kEntries; ++i) {
    values.push_back(table.insert(buffer(key_of(i)), buffers({std::to_string(i)})));
  }
  EXPECT_EQ(table.size(), kEntries);
  for (std::size_t i = 0; i < kEntries; ++i) {
    ASSERT_EQ(table.find(buffer(key_of(i))), values[i]);
    ASSERT_EQ(value_of(table, key_of(i)), std::to_string(i));
  }
  EXPECT_EQ(value_of(table, key_of(kEntries)), "null");
}

// Found by following hashes of hashes until two met.
void expect_told_apart(const std::string& one, const std::string& other) {
  ASSERT_EQ(util::Fingerprint64(one), util::Fingerprint64(other));
  FoundTable table;
  table.insert(buffer(one), buffers({"1"}));
  EXPECT_EQ(value_of(table, other), "null");
  table.insert(buffer(other), buffers({"2"}));
  EXPECT_EQ(value_of(table, one), "1");
  EXPECT_EQ(value_of(table, other), "2");
}

TEST(FoundTable, TellsKeysOfOneHashApart) {
  expect_told_apart("e4bd4261d93d79f9", "1044c263d92d205b");
  expect_told_apart("k26ead66949f22622", "a4f928b2c1fefc35");
}

// Keys whose hashes are so large that they belong into the last of 64 slots.
std::vector<std::string> keys_of_the_last_slot(std::size_t count) {
  std::vector<std::string> keys;
  for (std::size_t i = 0; keys.size() < count; ++i) {
    if (util::Fingerprint64(key_of(i)) >= std::uint64_t{63} << 58) {
      keys.push_back(key_of(i));
    }
  }
  return keys;
}

TEST(FoundTable, GoesOnFromTheLastSlotWithTheFirst) {
  const std::vector<std::string> keys = keys_of_the_last_slot(30);
  FoundTable table;
  for (std::size_t i = 0; i < 20; ++i) {
    table.insert(buffer(keys[i]), buffers({keys[i]}));
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(value_of(table, keys[i]), i < 20 ? keys[i] : "null");
  }
}

// Nothing orders the reader and the writer but what publishes the slots. The reader ends when
// it has found the last entry.
TEST(FoundTable, IsReadWhileItGrows) {
  constexpr std::size_t kEntries = 20000;
  FoundTable table;
  std::size_t wrong = 0;
  std::thread reading([&] {
    for (std::size_t next = 0; next < kEntries;) {
      const auto* value = table.find(buffer(key_of(next)));
      if (value != nullptr) {
        wrong += test::bytes_of(value->at(0)) != std::to_string(next);
        ++next;
      }
    }
  });
  for (std::size_t i = 0; i < kEntries; ++i) {
    table.insert(buffer(key_of(i)), buffers({std::to_string(i)}));
  }
  reading.join();
  EXPECT_EQ(wrong, 0u);
}

TEST(FoundTable, AnInsertionWithoutMemoryChangesNothing) {
  FoundTable table;
  std::size_t failures = 0;
  for (std::size_t i = 0; i < 200; ++i) {
    const RoBuffer key = buffer(key_of(i));
    bool failed = true;
    for (std::size_t successes = 0; failed; ++successes) {
      auto value = buffers({std::to_string(i)});
      test::FailingAllocation failing(successes);
      try {
        table.insert(key, std::move(value));
      } catch (const std::bad_alloc&) {
        ASSERT_EQ(table.find(key), nullptr);
        ASSERT_EQ(test::bytes_of(value.at(0)), std::to_string(i));
      }
      failed = test::FailingAllocation::end();
      failures += failed;
    }
  }
  EXPECT_GT(failures, 200u);
  EXPECT_EQ(table.size(), 200u);
  for (std::size_t i = 0; i < 200; ++i) {
    ASSERT_EQ(value_of(table, key_of(i)), std::to_string(i));
  }
}

}  // namespace
