// An indexed store whose files are replaced by hand, or may only be read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;

std::unique_ptr<Engine> make(const std::string& root, bool read_only) {
  return std::make_unique<Engine>(root, "maps", std::make_shared<StoreFLock>("maps"), read_only);
}

EntryMap one_entry(const std::string& key) {
  EntryMap map;
  map.emplace(buffer(key), buffers({std::string(1000, 'x')}));
  return map;
}

bool has(Engine& store, const std::string& key) {
  std::vector<RoBuffer> value;
  return store.find(buffer(key), value);
}

class IndexedFiles : public testing::Test {
 protected:
  IndexedFiles() { setenv("QV_CACHE_STORE_ROOT", root_.path().c_str(), 1); }

  std::unique_ptr<Engine> open(bool read_only = false) const {
    auto store = make(root_.path(), read_only);
    EXPECT_TRUE(store->open());
    return store;
  }

  std::string data() const { return root_.file("dat_maps"); }
  std::string index() const { return root_.file("idx_maps"); }

  test::StoreRoot root_;
};

TEST_F(IndexedFiles, AreFoundAtTheNextLookUpAfterTheyWereReplacedByHand) {
  const auto reader = open();
  ASSERT_TRUE(open()->store(one_entry("old")));
  EXPECT_TRUE(has(*reader, "old"));
  EXPECT_FALSE(has(*reader, "none"));  // looks at the names
  ASSERT_EQ(unlink(index().c_str()), 0);
  ASSERT_EQ(unlink(data().c_str()), 0);
  ASSERT_TRUE(open()->store(one_entry("new")));  // takes longer than the interval of looks
  EXPECT_TRUE(has(*reader, "new"));
  EXPECT_FALSE(has(*reader, "old"));
}

TEST_F(IndexedFiles, AreReadWithoutAnyChangeToThem) {
  ASSERT_TRUE(open()->store(one_entry("key")));
  const std::string bytes = test::read_file(data()) + test::read_file(index());
  {
    const auto reader = open(true);
    EXPECT_TRUE(has(*reader, "key"));
    EXPECT_FALSE(has(*reader, "none"));
    EXPECT_EQ(reader->entries(), 1U);
    EXPECT_FALSE(reader->store(one_entry("other")));
    EXPECT_FALSE(reader->clean(0));
    EXPECT_EQ(reader->lock_waited(), 0U);
  }
  EXPECT_EQ(test::read_file(data()) + test::read_file(index()), bytes);
}

TEST_F(IndexedFiles, AreFollowedByAReaderWhenTheyAreCleanedAndWhenTheyGrow) {
  const auto writer = open();
  const auto reader = open(true);
  for (int i = 0; i < 2000; ++i) {
    const std::string key = "key" + std::to_string(i);
    ASSERT_TRUE(writer->store(one_entry(key), 1'500'000));
    ASSERT_TRUE(has(*reader, key)) << i;
  }
  EXPECT_GT(writer->dropped(), 0U);
  EXPECT_EQ(reader->entries(), writer->entries());
}

TEST_F(IndexedFiles, AreNotCreatedByAReader) {
  const test::Ran ran = root_.run("only_reads", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(1)) << ran.err;
  EXPECT_THAT(ran.messages(),
              testing::ElementsAre("ERROR " + data() +
                                   " is missing or empty. To create the store, open it once "
                                   "for writing"));
  EXPECT_FALSE(test::exists(data()));
}

TEST_F(IndexedFiles, AreNotIndexedByAReader) {
  ASSERT_TRUE(open()->store(one_entry("key")));
  ASSERT_EQ(unlink(index().c_str()), 0);
  const test::Ran ran = root_.run("only_reads", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(1)) << ran.err;
  EXPECT_THAT(ran.messages(),
              testing::ElementsAre("ERROR " + index() +
                                   " is missing or doesn't fit its data. To make it again, "
                                   "open the store once for writing"));
  EXPECT_FALSE(test::exists(index()));
}

TEST_F(IndexedFiles, AReaderSaysThatItStoresNothing) {
  ASSERT_TRUE(open()->store(one_entry("key")));
  const test::Ran ran = root_.run("only_reads", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_THAT(ran.messages(), testing::ElementsAre("WARN Couldn't append to " + data() +
                                                   ": it is open for reading only"));
}

}  // namespace

SCENARIO(only_reads) {
  const auto store = make(test::root_path(), true);
  return store->open() && !store->store(one_entry("other")) ? 0 : 1;
}
