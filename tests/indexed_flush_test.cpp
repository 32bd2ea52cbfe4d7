// Caches on indexed stores: what a flush in one process means to the others.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/indexed_cache.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using quorvane::util::RoBuffer;
using test::add;
using test::Entry;
using test::get;
using test::in_child;
using test::indexed_options;
using test::numbered;
using test::open_cache;
using test::Signpost;
using test::TempDir;
using test::wait_for;
using testing::ElementsAre;

constexpr unsigned kHangSeconds = 60;

std::string key_of(std::size_t number) { return numbered("key", number); }
std::string value_of(std::size_t number) { return numbered("value of ", number); }

// How many of these keys don't have their values.
int wrong_among(Cache& cache, std::size_t from, std::size_t to) {
  int wrong = 0;
  for (std::size_t i = from; i < to; ++i) {
    wrong += get(cache, key_of(i)) != value_of(i) ? 1 : 0;
  }
  return wrong;
}

void add_keys(Cache& cache, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to; ++i) {
    ASSERT_TRUE(add(cache, key_of(i), value_of(i)));
  }
}

// --- what others find ---

constexpr std::size_t kRounds = 8;
constexpr std::size_t kPerRound = 200;  // in the end more than an index has at first
constexpr std::size_t kReaders = 3;

// A writer stores keys in rounds. Processes that have the store open look for the keys of a
// round as soon as it has ended.
class IndexedFlush : public testing::Test {
 protected:
  ~IndexedFlush() override {
    for (const pid_t reader : readers_) {
      EXPECT_EQ(wait_for(reader), 0);
    }
  }

  // Returns once all have missed a key of the first round.
  void start_readers() {
    for (std::size_t i = 0; i < kReaders; ++i) {
      readers_.push_back(in_child([&] { return read_rounds(ready_.at(i)); }));
    }
    for (const Signpost& ready : ready_) {
      ready.await();
    }
  }

  int read_rounds(Signpost& ready) {
    alarm(kHangSeconds);
    const auto cache = open_cache(root_.path());
    int wrong = get(*cache, key_of(0)) ? 1 : 0;
    ready.pass();
    for (std::size_t round = 0; round < kRounds; ++round) {
      ended_.at(round).await();
      wrong += wrong_among(*cache, round * kPerRound, (round + 1) * kPerRound);
    }
    return wrong;
  }

  TempDir root_;
  std::array<Signpost, kReaders> ready_;
  std::array<Signpost, kRounds> ended_;
  std::vector<pid_t> readers_;
};

TEST_F(IndexedFlush, IsSeenByEveryProcessThatHasTheCacheOpen) {
  const auto writer = open_cache(root_.path());
  start_readers();
  for (std::size_t round = 0; round < kRounds; ++round) {
    add_keys(*writer, round * kPerRound, (round + 1) * kPerRound);
    EXPECT_TRUE(writer->flush());
    ended_.at(round).pass();
  }
}

TEST_F(IndexedFlush, IsSeenByEveryProcessAlsoWhenTheCacheFlushesOnItsOwn) {
  const auto writer = open_cache(indexed_options(root_.path(), kPerRound / 2));
  start_readers();
  for (std::size_t round = 0; round < kRounds; ++round) {
    add_keys(*writer, round * kPerRound, (round + 1) * kPerRound);
    ended_.at(round).pass();
  }
}

TEST_F(IndexedFlush, IsSeenWhenTheWritersTakeTurns) {
  start_readers();
  for (std::size_t round = 0; round < kRounds; ++round) {
    EXPECT_EQ(wait_for(in_child([&] {
                const auto writer = open_cache(root_.path());
                add_keys(*writer, round * kPerRound, (round + 1) * kPerRound);
                return writer->flush() ? 0 : 1;
              })),
              0);
    ended_.at(round).pass();
  }
}

// --- one value for each key ---

// Each writer adds all keys, in an order of its own, with values of its own.
int add_own_values(const std::string& root, std::size_t writer, std::size_t keys) {
  alarm(kHangSeconds);
  const auto cache = open_cache(indexed_options(root, 7));
  std::map<std::string, std::string> own;
  std::map<std::string, std::string> found;
  for (std::size_t i = 0; i < keys; ++i) {
    const std::string key = key_of((i * (2 * writer + 1)) % keys);
    const std::string value = numbered("of ", writer);
    if (add(*cache, key, value)) {
      own[key] = value;
    } else if (const auto stored = get(*cache, key)) {
      found[key] = *stored;
    } else {
      return 1;  // neither added nor there
    }
  }
  if (!cache->flush() || own.size() + found.size() != keys) {
    return 2;
  }
  own.merge(found);
  for (const auto& [key, value] : own) {
    if (get(*cache, key) != value) {
      return 3;  // it has changed
    }
  }
  return cache->size() == keys ? 0 : 4;
}

TEST(IndexedWriters, ThatAddTheSameKeysStoreEachOnceAndKeepTheirOwnValues) {
  constexpr std::size_t kKeys = 512;
  const TempDir root;
  std::vector<pid_t> writers;
  for (std::size_t writer = 0; writer < 4; ++writer) {
    writers.push_back(in_child([&] { return add_own_values(root.path(), writer, kKeys); }));
  }
  for (const pid_t writer : writers) {
    EXPECT_EQ(wait_for(writer), 0);
  }
  const auto cache = open_cache(root.path());
  std::set<std::string> keys;
  for (const Entry& entry : test::indexed_entries(root.path())) {
    EXPECT_TRUE(keys.insert(entry.key).second) << entry.key << " is stored twice";
    EXPECT_EQ(get(*cache, entry.key), entry.atoms.at(0));
  }
  EXPECT_EQ(keys.size(), kKeys);
  EXPECT_EQ(cache->size(), kKeys);
}

TEST(IndexedFlushes, StoreNothingTwice) {
  const TempDir root;
  const auto one = open_cache(root.path());
  const auto two = open_cache(root.path());
  ASSERT_TRUE(add(*one, "a", "of one"));
  ASSERT_TRUE(add(*two, "a", "of two"));
  ASSERT_TRUE(add(*two, "b", "of two"));
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(one->flush());
    EXPECT_TRUE(two->flush());
  }
  EXPECT_THAT(test::indexed_entries(root.path()),
              ElementsAre(Entry{"a", {"of one"}}, Entry{"b", {"of two"}}));
}

// --- what a process keeps ---

// Pointers to values that a cache has found, with what they pointed to.
class IndexedValues : public testing::Test {
 protected:
  static constexpr std::size_t kKept = 100;

  IndexedValues() {
    store(0, kKept);
    cache_ = open_cache(root_.path());
    for (std::size_t i = 0; i < kKept; ++i) {
      kept_.push_back(cache_->get_value(test::buffer(key_of(i))));
      EXPECT_NE(kept_.back(), nullptr);
    }
  }

  void store(std::size_t from, std::size_t to) const {
    add_keys(*open_cache(root_.path()), from, to);
  }

  void remove(const std::string& file) const { ASSERT_EQ(unlink(root_.file(file).c_str()), 0); }

  // Other files may take the place of these: wait for the look-up that notices.
  void find_in_new_files(std::size_t number) const {
    alarm(kHangSeconds);
    while (!get(*cache_, key_of(number))) {
    }
    alarm(0);
  }

  void expect_kept() const {
    for (std::size_t i = 0; i < kKept; ++i) {
      ASSERT_EQ(cache_->get_value(test::buffer(key_of(i))), kept_[i]);
      ASSERT_EQ(test::bytes_of(kept_[i]->front()), value_of(i));
    }
  }

  TempDir root_;
  std::unique_ptr<Cache> cache_;
  std::vector<const std::vector<RoBuffer>*> kept_;
};

TEST_F(IndexedValues, StayWhenTheFilesGrowAndMuchElseIsFound) {
  store(kKept, 5000);
  EXPECT_EQ(wrong_among(*cache_, kKept, 5000), 0);
  expect_kept();
}

TEST_F(IndexedValues, StayWhenBothFilesAreDeleted) {
  remove("dat_maps");
  remove("idx_maps");
  EXPECT_EQ(get(*cache_, "missing"), std::nullopt);
  expect_kept();
}

TEST_F(IndexedValues, StayWhenOtherFilesTakeThePlace) {
  remove("dat_maps");
  remove("idx_maps");
  store(1000, 2000);
  find_in_new_files(1000);
  expect_kept();
  EXPECT_EQ(wrong_among(*cache_, 1000, 2000), 0);
}

TEST_F(IndexedValues, StayWhenTheIndexIsMadeAgain) {
  remove("idx_maps");
  store(1000, 2000);
  find_in_new_files(1000);
  expect_kept();
  EXPECT_EQ(wrong_among(*cache_, 1000, 2000), 0);
}

TEST_F(IndexedValues, StayWhenTheDataFileIsCutInPlace) {
  ASSERT_EQ(truncate(root_.file("dat_maps").c_str(), 64), 0);
  expect_kept();
}

// The values were found in the old files, and the new ones have others.
TEST_F(IndexedValues, StayWhenTheNewFilesHaveOthers) {
  remove("dat_maps");
  remove("idx_maps");
  {
    const auto writer = open_cache(root_.path());
    ASSERT_TRUE(add(*writer, key_of(0), "another"));
    ASSERT_TRUE(add(*writer, key_of(1000), value_of(1000)));
  }
  find_in_new_files(1000);
  expect_kept();
  EXPECT_FALSE(add(*cache_, key_of(0), "a third"));
  EXPECT_EQ(get(*open_cache(root_.path()), key_of(0)), "another");
}

}  // namespace
