// An indexed store within one process, and several of them on the same files.
#include "src/cache/indexed/engine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "src/cache/indexed/index_builder.h"
#include "support/indexed_store.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;
using test::TempDir;

class Indexed : public testing::Test {
 protected:
  Indexed() { setenv("QV_CACHE_STORE_ROOT", root_.path().c_str(), 1); }

  std::unique_ptr<Engine> make() const {
    return std::make_unique<Engine>(root_.path(), "maps", std::make_shared<StoreFLock>("maps"));
  }

  std::unique_ptr<Engine> open() const {
    auto store = make();
    EXPECT_TRUE(store->open());
    return store;
  }

  static EntryMap entries(int from, int to) {
    EntryMap map;
    for (int i = from; i < to; ++i) {
      map.emplace(buffer("key" + std::to_string(i)),
                  buffers({"value" + std::to_string(i), std::string(200, 'x')}));
    }
    return map;
  }

  static std::optional<std::string> first_atom(Engine& store, const std::string& key) {
    std::vector<RoBuffer> value;
    if (!store.find(buffer(key), value) || store.lacks(test::hash_of(key))) {
      return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(value[0].get_buffer()), value[0].get_size());
  }

  static int found(Engine& store, int from, int to) {
    int count = 0;
    for (int i = from; i < to; ++i) {
      count += first_atom(store, "key" + std::to_string(i)) == "value" + std::to_string(i) ? 1 : 0;
    }
    return count;
  }

  std::string data() const { return root_.file("dat_maps"); }
  std::string index() const { return root_.file("idx_maps"); }

  TempDir root_;
};

TEST_F(Indexed, CreatesBothFilesAndFindsNothing) {
  const auto store = open();
  EXPECT_TRUE(std::filesystem::exists(data()));
  EXPECT_TRUE(std::filesystem::exists(index()));
  EXPECT_EQ(store->entries(), 0U);
  EXPECT_EQ(first_atom(*store, "key"), std::nullopt);
}

TEST_F(Indexed, FindsWhatItHasStored) {
  const auto store = open();
  ASSERT_TRUE(store->store(entries(0, 100)));
  EXPECT_EQ(store->entries(), 100U);
  EXPECT_EQ(found(*store, 0, 100), 100);
  EXPECT_EQ(first_atom(*store, "key100"), std::nullopt);
}

TEST_F(Indexed, ReadsEveryAtom) {
  const auto store = open();
  ASSERT_TRUE(store->store(entries(7, 8)));
  std::vector<RoBuffer> value;
  ASSERT_TRUE(store->find(buffer("key7"), value));
  ASSERT_EQ(value.size(), 2U);
  EXPECT_EQ(value[1].get_size(), 200U);
  EXPECT_EQ(value[1].get_buffer()[199], 'x');
}

TEST_F(Indexed, OpensWhatAnotherHasStored) {
  ASSERT_TRUE(open()->store(entries(0, 10)));
  const auto store = open();
  EXPECT_EQ(store->entries(), 10U);
  EXPECT_EQ(found(*store, 0, 10), 10);
}

TEST_F(Indexed, FindsAtOnceWhatAnotherStores) {
  const auto reader = open();
  const auto writer = open();
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(writer->store(entries(i, i + 1)));
    EXPECT_EQ(found(*reader, i, i + 1), 1) << i;
  }
  EXPECT_EQ(reader->entries(), 20U);
}

TEST_F(Indexed, KeepsTheFirstValueOfAKey) {
  const auto one = open();
  const auto two = open();
  EntryMap first;
  first.emplace(buffer("key"), buffers({"first"}));
  EntryMap second;
  second.emplace(buffer("key"), buffers({"second"}));
  ASSERT_TRUE(one->store(first));
  ASSERT_TRUE(two->store(second));
  EXPECT_EQ(first_atom(*one, "key"), "first");
  EXPECT_EQ(first_atom(*two, "key"), "first");
  EXPECT_EQ(two->entries(), 1U);
}

TEST_F(Indexed, GrowsItsIndexUnderReaders) {
  const auto reader = open();
  const auto writer = open();
  for (int from = 0; from < 5000; from += 250) {
    ASSERT_TRUE(writer->store(entries(from, from + 250)));
    EXPECT_EQ(found(*reader, from, from + 250), 250) << from;
  }
  EXPECT_EQ(found(*reader, 0, 5000), 5000);
  EXPECT_EQ(reader->entries(), 5000U);
  EXPECT_FALSE(std::filesystem::exists(root_.file("new_maps")));
}

TEST_F(Indexed, StoresMoreThanItsFirstIndexTakesAtOnce) {
  const auto store = open();
  ASSERT_TRUE(store->store(entries(0, 20000)));
  EXPECT_EQ(found(*store, 0, 20000), 20000);
}

TEST_F(Indexed, GrowsBeyondItsMapping) {
  const auto reader = open();
  const auto writer = open();
  const std::string large(std::size_t{8} << 20, 'y');
  for (int i = 0; i < 10; ++i) {
    EntryMap map;
    map.emplace(buffer("large" + std::to_string(i)), buffers({large}));
    ASSERT_TRUE(writer->store(map));
    EXPECT_TRUE(first_atom(*reader, "large" + std::to_string(i)) == large) << i;
  }
}

TEST_F(Indexed, MakesADeletedIndexAgain) {
  ASSERT_TRUE(open()->store(entries(0, 3000)));
  ASSERT_EQ(unlink(index().c_str()), 0);
  const auto store = open();
  EXPECT_EQ(store->entries(), 3000U);
  EXPECT_EQ(found(*store, 0, 3000), 3000);
}

TEST_F(Indexed, WritesIntoAnIndexThatWasDeletedWhileItWasOpen) {
  const auto store = open();
  ASSERT_TRUE(store->store(entries(0, 10)));
  ASSERT_EQ(unlink(index().c_str()), 0);
  ASSERT_TRUE(store->store(entries(10, 20)));
  EXPECT_EQ(found(*store, 0, 20), 20);
  EXPECT_EQ(found(*open(), 0, 20), 20);
}

TEST_F(Indexed, PassesOverATornTail) {
  ASSERT_TRUE(open()->store(entries(0, 10)));
  const auto whole = std::filesystem::file_size(data());
  ASSERT_TRUE(open()->store(entries(10, 11)));
  std::filesystem::resize_file(data(), std::filesystem::file_size(data()) - 17);
  ASSERT_EQ(unlink(index().c_str()), 0);
  const auto store = open();
  EXPECT_EQ(found(*store, 0, 10), 10);
  EXPECT_EQ(store->entries(), 10U);
  ASSERT_TRUE(store->store(entries(10, 11)));
  EXPECT_EQ(found(*store, 0, 11), 11);
  EXPECT_GT(std::filesystem::file_size(data()), whole);
}

TEST_F(Indexed, RefusesDamageInTheMiddleOfItsData) {
  ASSERT_TRUE(open()->store(entries(0, 10)));
  std::string bytes = test::read_file(data());
  bytes[500] = static_cast<char>(bytes[500] ^ 1);
  test::write_file(data(), bytes);
  ASSERT_EQ(unlink(index().c_str()), 0);
  EXPECT_FALSE(make()->open());
  EXPECT_EQ(test::read_file(data()), bytes);
}

TEST_F(Indexed, DoesNotFindAnEntryWhoseChecksumIsWrong) {
  const auto store = open();
  ASSERT_TRUE(store->store(entries(0, 10)));
  std::string bytes = test::read_file(data());
  const std::size_t at = bytes.find("value3");
  ASSERT_NE(at, std::string::npos);
  std::FILE* file = std::fopen(data().c_str(), "r+b");
  ASSERT_NE(file, nullptr);
  std::fseek(file, static_cast<long>(at), SEEK_SET);
  std::fputc('V', file);
  std::fclose(file);
  EXPECT_EQ(first_atom(*store, "key3"), std::nullopt);
  EXPECT_EQ(found(*store, 4, 10), 6);
}

TEST_F(Indexed, ReadsAllEntriesInKeyOrder) {
  const auto store = open();
  ASSERT_TRUE(store->store(entries(0, 1500)));
  EntryMap all;
  ASSERT_TRUE(store->read_all(all));
  EXPECT_EQ(all.size(), 1500U);
  EXPECT_EQ(all.begin()->first.get_size(), 4U);
}

TEST_F(Indexed, FindsTheNewFilesAfterTheOldOnesWereDeleted) {
  const auto reader = open();
  ASSERT_TRUE(open()->store(entries(0, 10)));
  EXPECT_EQ(found(*reader, 0, 10), 10);
  ASSERT_EQ(unlink(index().c_str()), 0);
  ASSERT_EQ(unlink(data().c_str()), 0);
  ASSERT_TRUE(open()->store(entries(10, 20)));
  // Misses look at the names about every 20 us.
  while (first_atom(*reader, "key10") == std::nullopt) {
  }
  EXPECT_EQ(found(*reader, 10, 20), 10);
  EXPECT_EQ(found(*reader, 0, 10), 0);
}

TEST_F(Indexed, LacksWhatIsNotStored) {
  const auto store = make();
  EXPECT_FALSE(store->lacks(test::hash_of("key0")));  // not open: it can't be told
  ASSERT_TRUE(store->open());
  EXPECT_TRUE(store->lacks(test::hash_of("key0")));
  ASSERT_TRUE(open()->store(entries(0, 1)));
  EXPECT_FALSE(store->lacks(test::hash_of("key0")));
  EXPECT_TRUE(store->lacks(test::hash_of("key1")));
}

TEST_F(Indexed, LacksNothingThatNewFilesHave) {
  const auto reader = open();
  ASSERT_EQ(unlink(index().c_str()), 0);
  ASSERT_EQ(unlink(data().c_str()), 0);
  ASSERT_TRUE(open()->store(entries(0, 10)));
  while (reader->lacks(test::hash_of("key0"))) {
  }
  EXPECT_EQ(found(*reader, 0, 10), 10);
}

TEST_F(Indexed, PrefetchIsAHint) {
  const auto store = open();
  ASSERT_TRUE(store->store(entries(0, 10)));
  const std::vector<RoBuffer> keys{buffer("key1"), buffer("none")};
  store->prefetch(keys.data(), keys.size());
  EXPECT_EQ(found(*store, 0, 10), 10);
}

}  // namespace
