// A store on this machine before one on others.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "src/tiered_store.h"
#include "support/fake_store.h"
#include "support/processes.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::EntryMap;
using quorvane::cache::LookupStore;
using quorvane::cache::StoreKind;
using quorvane::cache::StoreOptions;
using quorvane::remote::TieredStore;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;
using test::value_of;
using Words = std::vector<std::string>;

namespace {

// A part of the tiered store, and what was asked of it.
struct Part {
  EntryMap content;
  bool loads = true;
  bool stores = true;
  bool store_throws = false;

  Words found;       // the keys of all calls of find
  Words prefetched;  // and of prefetch
  Words stored;      // a listing for each call
};

class FakePart : public LookupStore {
 public:
  // `knows`: whether find_at_once finds what find does.
  FakePart(Part& part, bool knows) : part_(part), knows_(knows) {}
  std::string type() const override { return "FakePart"; }
  bool is_valid() const override { return true; }
  bool try_load(EntryMap& /*out*/) override { return part_.loads; }

  bool try_store_diff(const EntryMap& diff) override {
    part_.stored.push_back(test::listing(diff));
    if (part_.store_throws) {
      throw std::bad_alloc();
    }
    if (part_.stores) {
      part_.content.insert(diff.begin(), diff.end());
    }
    return part_.stores;
  }

  bool find(const RoBuffer& key, std::vector<RoBuffer>& value) override {
    part_.found.push_back(test::bytes_of(key));
    return look_up(key, value);
  }
  bool find_at_once(const RoBuffer& key, std::vector<RoBuffer>& value) override {
    return knows_ && look_up(key, value);
  }

  std::uint64_t entries() override { return part_.content.size(); }

  void prefetch(const RoBuffer* keys, std::size_t count) override {
    for (std::size_t i = 0; i < count; ++i) {
      part_.prefetched.push_back(test::bytes_of(keys[i]));
    }
  }

  bool try_read_all(EntryMap& out) override {
    out.insert(part_.content.begin(), part_.content.end());
    return true;
  }

 private:
  bool look_up(const RoBuffer& key, std::vector<RoBuffer>& value) const {
    const auto entry = part_.content.find(key);
    if (entry != part_.content.end()) {
      value = entry->second;
    }
    return entry != part_.content.end();
  }

  Part& part_;
  const bool knows_;
};

class Tiered : public testing::Test {
 protected:
  Tiered() {
    local_.content = test::entry_map({{"l", {"1"}}});
    remote_.content = test::entry_map({{"r", {"2"}}});
  }

  std::unique_ptr<TieredStore> make() {
    return std::make_unique<TieredStore>("maps", std::make_unique<FakePart>(local_, true),
                                         std::make_unique<FakePart>(remote_, false));
  }
  std::unique_ptr<Cache> make_cache() { return std::make_unique<Cache>("maps", make(), false); }

  Part local_;
  Part remote_;
};

bool add(Cache& cache, const std::string& key) {
  return cache.add_value(buffer(key), buffers({"mine"}));
}

TEST_F(Tiered, AsksTheServersOnlyForWhatIsNotLocal) {
  const auto cache = make_cache();
  EXPECT_EQ(value_of(*cache, "l"), "[1]");
  EXPECT_EQ(remote_.found, Words{});
  EXPECT_EQ(value_of(*cache, "r"), "[2]");
  EXPECT_EQ(value_of(*cache, "none"), "null");
  EXPECT_EQ(remote_.found, (Words{"r", "none"}));
}

TEST_F(Tiered, TakesTheLocalValueOfAKeyThatBothHave) {
  remote_.content = test::entry_map({{"l", {"another's"}}});
  const auto cache = make_cache();
  EXPECT_EQ(value_of(*cache, "l"), "[1]");
  EXPECT_EQ(test::bytes_of(cache->begin()->second.front()), "1");
}

TEST_F(Tiered, KeepsLocallyWhatTheServersGaveWhenItIsDestroyed) {
  auto cache = make_cache();
  value_of(*cache, "r");
  value_of(*cache, "l");
  EXPECT_EQ(local_.stored, Words{});
  cache.reset();
  EXPECT_EQ(local_.stored, Words{"r=2\n"});
  EXPECT_EQ(remote_.stored, Words{});
}

TEST_F(Tiered, KeepsLocallyWhatTheServersGaveBeforeItStoresAdditions) {
  auto cache = make_cache();
  value_of(*cache, "r");
  add(*cache, "a");
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(local_.stored, (Words{"r=2\n", "a=mine\n"}));
  EXPECT_EQ(remote_.stored, Words{"a=mine\n"});
  cache.reset();
  EXPECT_EQ(local_.stored.size(), 2u);
}

TEST_F(Tiered, KeepsLocallyWhatTheServersGaveAtAFlushWithoutAdditions) {
  auto cache = make_cache();
  value_of(*cache, "r");
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(local_.stored, Words{"r=2\n"});
  EXPECT_TRUE(cache->flush());
  cache.reset();
  EXPECT_EQ(local_.stored.size(), 1u);
  EXPECT_EQ(remote_.stored, Words{});
}

TEST_F(Tiered, FlushesWithoutAdditionsEvenIfTheLocalStoreRefusesWhatWasFound) {
  const auto cache = make_cache();
  local_.store_throws = true;
  value_of(*cache, "r");
  EXPECT_TRUE(cache->flush());
}

TEST_F(Tiered, KeepsAThousandEntriesWithOneAppend) {
  remote_.content.clear();
  for (int i = 0; i < 2500; ++i) {
    remote_.content.emplace(buffer("key" + std::to_string(i)), buffers({"v"}));
  }
  auto cache = make_cache();
  std::vector<std::size_t> appends;
  for (int i = 0; i < 2500; ++i) {
    value_of(*cache, "key" + std::to_string(i));
    appends.push_back(local_.stored.size());
  }
  EXPECT_EQ(appends.at(998), 0u);
  EXPECT_EQ(appends.at(999), 1u);
  EXPECT_EQ(appends.at(1998), 1u);
  EXPECT_EQ(appends.at(2499), 2u);
  cache.reset();
  EXPECT_EQ(local_.stored.size(), 3u);
  EXPECT_EQ(local_.content.size(), 2501u);
}

TEST_F(Tiered, StoresWhenOneOfBothRefusesAndSaysSo) {
  const auto cache = make_cache();
  add(*cache, "a");
  remote_.stores = false;
  EXPECT_FALSE(cache->flush());
  remote_.stores = true;
  local_.stores = false;
  add(*cache, "b");
  EXPECT_FALSE(cache->flush());
  EXPECT_EQ(remote_.stored, (Words{"a=mine\n", "a=mine\nb=mine\n"}));
  local_.stores = true;
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(local_.content.size(), 3u);
  EXPECT_EQ(remote_.content.size(), 3u);
}

TEST_F(Tiered, StoresOnTheServersWhenTheLocalStoreThrows) {
  const auto store = make();
  local_.store_throws = true;
  EXPECT_FALSE(store->try_store_diff(test::entry_map({{"a", {"1"}}})));
  EXPECT_EQ(remote_.stored, Words{"a=1\n"});
}

TEST_F(Tiered, AddsWithoutAskingTheServers) {
  const auto cache = make_cache();
  EXPECT_TRUE(add(*cache, "r"));
  EXPECT_FALSE(add(*cache, "l"));
  EXPECT_EQ(remote_.found, Words{});
}

TEST_F(Tiered, PrefetchesFromTheServersWhatIsNotLocal) {
  const std::vector<RoBuffer> keys{buffer("l"), buffer("r"), buffer("none")};
  make()->prefetch(keys.data(), keys.size());
  EXPECT_EQ(local_.prefetched, (Words{"l", "r", "none"}));
  EXPECT_EQ(remote_.prefetched, (Words{"r", "none"}));
}

TEST_F(Tiered, PrefetchesNothingFromTheServersWhenAllIsLocal) {
  remote_.prefetched = {"untouched"};
  const RoBuffer key = buffer("l");
  make()->prefetch(&key, 1);
  EXPECT_EQ(remote_.prefetched, Words{"untouched"});
}

TEST_F(Tiered, CountsAndVisitsAKeyThatBothHaveOnce) {
  remote_.content.emplace(buffer("l"), buffers({"another's"}));
  const auto cache = make_cache();
  EXPECT_EQ(cache->size(), 2u);
  EntryMap visited(cache->begin(), cache->end());
  EXPECT_EQ(test::listing(visited), "l=1\nr=2\n");
}

TEST_F(Tiered, AsksOnlyTheServersWhenTheLocalStoreDoesNotOpen) {
  local_.loads = false;
  auto cache = make_cache();
  ASSERT_TRUE(cache->is_valid());
  EXPECT_EQ(value_of(*cache, "r"), "[2]");
  EXPECT_EQ(value_of(*cache, "l"), "null");
  add(*cache, "a");
  EXPECT_EQ(cache->size(), 2u);
  EXPECT_TRUE(cache->flush());
  const RoBuffer key = buffer("p");
  cache->prefetch(&key, 1);
  EXPECT_EQ(remote_.prefetched, Words{"p"});
  cache.reset();
  EXPECT_EQ(local_.stored, Words{});
  EXPECT_EQ(remote_.stored, Words{"a=mine\n"});
}

TEST_F(Tiered, FlushesAfterTheLocalStoresNumberOfAdditions) {
  auto local = std::make_unique<FakePart>(local_, true);
  local->set_flush_after(2);
  Cache cache("maps",
              std::make_unique<TieredStore>("maps", std::move(local),
                                            std::make_unique<FakePart>(remote_, false)),
              false);
  add(cache, "a");
  EXPECT_EQ(remote_.stored.size(), 0u);
  add(cache, "b");
  EXPECT_EQ(remote_.stored.size(), 1u);
}

// --- with files ---

class TieredOnFiles : public testing::Test {
 protected:
  std::unique_ptr<LookupStore> make_local() {
    StoreOptions options;
    options.kind = StoreKind::indexed;
    options.root = dir_.path();
    options.name = "maps";
    return std::unique_ptr<LookupStore>(
        dynamic_cast<LookupStore*>(quorvane::cache::make_store(options).release()));
  }

  std::unique_ptr<Cache> make_cache() {
    return std::make_unique<Cache>(
        "maps",
        std::make_unique<TieredStore>("maps", make_local(),
                                      std::make_unique<FakePart>(remote_, false)),
        false);
  }

  test::TempDir dir_;
  Part remote_;
};

TEST_F(TieredOnFiles, AsksOnceForAllProcessesOfAMachine) {
  remote_.content = test::entry_map({{"r", {"2"}}});
  EXPECT_EQ(value_of(*make_cache(), "r"), "[2]");
  EXPECT_EQ(value_of(*make_cache(), "r"), "[2]");
  EXPECT_EQ(remote_.found, Words{"r"});
}

TEST_F(TieredOnFiles, LetsParentAndChildKeepWhatBothHaveFound) {
  remote_.content = test::entry_map({{"r", {"2"}}, {"s", {"3"}}});
  auto cache = make_cache();
  value_of(*cache, "r");
  const int status = test::wait_for(test::in_child([&] {
    value_of(*cache, "s");
    cache.reset();
    return 0;
  }));
  EXPECT_EQ(status, 0);
  cache.reset();
  Cache local("maps", make_local(), false);
  EXPECT_EQ(local.size(), 2u);
  EXPECT_EQ(value_of(local, "r"), "[2]");
  EXPECT_EQ(value_of(local, "s"), "[3]");
}

// --- threads ---

// A second store of files plays the servers: any thread may call it.
class TieredOnThreads : public testing::Test {
 protected:
  static constexpr int kKeys = 5000;

  static std::unique_ptr<LookupStore> open(const test::TempDir& root) {
    StoreOptions options;
    options.kind = StoreKind::indexed;
    options.root = root.path();
    options.name = "maps";
    return std::unique_ptr<LookupStore>(
        dynamic_cast<LookupStore*>(quorvane::cache::make_store(options).release()));
  }

  static std::string key_of(int number) { return "key" + std::to_string(number); }

  TieredOnThreads() {
    Cache servers("maps", open(remote_), false);
    for (int i = 0; i < kKeys; ++i) {
      servers.add_value(buffer(key_of(i)), buffers({std::to_string(i)}));
    }
  }

  // How many of all keys have another value than they should.
  static int wrong_values(Cache& cache) {
    int wrong = 0;
    for (int i = 0; i < kKeys; ++i) {
      wrong += value_of(cache, key_of(i)) == "[" + std::to_string(i) + "]" ? 0 : 1;
    }
    return wrong;
  }

  std::unique_ptr<Cache> make_cache() const {
    auto store = std::make_unique<TieredStore>("maps", open(local_), open(remote_));
    return std::make_unique<Cache>("maps", std::move(store), false);
  }

  test::TempDir local_;
  test::TempDir remote_;
};

TEST_F(TieredOnThreads, KeepsEachEntryOnceWhileThreadsLookUpAddAndFlush) {
  auto cache = make_cache();
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      wrong += wrong_values(*cache);
      add(*cache, "of thread " + std::to_string(number));
      wrong += cache->flush() ? 0 : 1;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
  cache.reset();
  Cache local("maps", open(local_), false);
  EXPECT_EQ(local.size(), kKeys + 4u);
  EXPECT_EQ(wrong_values(local), 0);
}

#ifndef QV_SANITIZED  // whose allocators a fork may catch locked
// Also when a thread of the parent stores what was kept at the fork.
TEST_F(TieredOnThreads, LetsAChildLookUpAndKeepWhileItsParentDoes) {
  auto cache = make_cache();
  std::thread busy([&] { wrong_values(*cache); });
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    children.push_back(test::in_child([&] {
      const int wrong = wrong_values(*cache);
      cache.reset();
      return wrong == 0 ? 0 : 1;
    }));
  }
  for (const pid_t child : children) {
    EXPECT_EQ(test::wait_for(child), 0);
  }
  busy.join();
  cache.reset();
  Cache local("maps", open(local_), false);
  EXPECT_EQ(local.size(), static_cast<std::size_t>(kKeys));
  EXPECT_EQ(wrong_values(local), 0);
}
#endif

}  // namespace
