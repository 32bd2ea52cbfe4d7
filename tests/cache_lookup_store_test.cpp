// A cache whose store is asked key by key.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/no_memory.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::EntryMap;
using quorvane::cache::LookupStore;
using quorvane::cache::Store;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;
using test::in_child;
using test::Ran;
using test::run_scenario;
using test::wait_for;
using Messages = std::vector<std::string>;
using Keys = std::vector<std::string>;

namespace {

const std::string kStatisticsOff = "INFO Statistics capture disabled.";
const std::string kCreated = "INFO Created maps cache with FakeLookupStore store type";

// What a fake store holds and is told to do, and what was asked of it.
struct Script {
  EntryMap content;
  bool load_succeeds = true;
  bool read_succeeds = true;
  bool store_succeeds = true;
  std::string throws_bad_alloc;       // the function that does
  std::string throws_a_number;        // the function that does
  std::function<void()> before_find;  // called once, by the next find
  std::function<void()> after_find;   // the same, when find knows its result
  std::uint64_t flush_after = 0;

  Keys found;       // the keys of all calls of find
  Keys prefetched;  // and of prefetch
  int prefetches = 0;
  int reads = 0;
  Keys stored;  // a listing for each call
};

void call_once(std::function<void()>& function) {
  if (function) {
    std::exchange(function, nullptr)();
  }
}

class FakeLookupStore : public LookupStore {
 public:
  explicit FakeLookupStore(Script& script) : script_(script) {
    set_flush_after(script.flush_after);
  }
  std::string type() const override { return "FakeLookupStore"; }
  bool is_valid() const override { return true; }
  bool try_load(EntryMap& /*out*/) override { return script_.load_succeeds; }

  bool try_store_diff(const EntryMap& diff) override {
    script_.stored.push_back(test::listing(diff));
    if (script_.store_succeeds) {
      script_.content.insert(diff.begin(), diff.end());
    }
    return script_.store_succeeds;
  }

  bool find(const RoBuffer& key, std::vector<RoBuffer>& value) override {
    script_.found.push_back(test::bytes_of(key));
    call_once(script_.before_find);
    misbehave("find");
    const auto entry = script_.content.find(key);
    const bool is_there = entry != script_.content.end();
    if (is_there) {
      value.clear();
      for (const RoBuffer& atom : entry->second) {
        value.push_back(RoBuffer::copy(atom.get_buffer(), atom.get_size()));
      }
    }
    call_once(script_.after_find);
    return is_there;
  }

  std::uint64_t entries() override {
    misbehave("entries");
    return script_.content.size();
  }

  void prefetch(const RoBuffer* keys, std::size_t count) override {
    ++script_.prefetches;
    for (std::size_t i = 0; i < count; ++i) {
      script_.prefetched.push_back(test::bytes_of(keys[i]));
    }
    misbehave("prefetch");
  }

  bool try_read_all(EntryMap& out) override {
    ++script_.reads;
    out.insert(script_.content.begin(), script_.content.end());
    misbehave("try_read_all");
    return script_.read_succeeds;
  }

 private:
  void misbehave(const char* function) const {
    if (script_.throws_bad_alloc == function) {
      throw std::bad_alloc();
    }
    if (script_.throws_a_number == function) {
      throw 7;
    }
  }

  Script& script_;
};

std::unique_ptr<Cache> make_cache(Script& script) {
  return std::make_unique<Cache>("maps", std::make_unique<FakeLookupStore>(script), false);
}

void store(Script& script, const std::string& key, const std::string& value) {
  script.content.insert_or_assign(buffer(key), buffers({value}));
}

Script two_entries() {
  Script script;
  script.content = test::entry_map({{"aa", {"1"}}, {"b", {"2", "3"}}});
  return script;
}

bool add(Cache& cache, const std::string& key, const std::string& value = "1") {
  return cache.add_value(buffer(key), buffers({value}));
}

std::string value_of(Cache& cache, const std::string& key) {
  const auto* value = cache.get_value(buffer(key));
  if (value == nullptr) {
    return "null";
  }
  std::string text;
  for (const RoBuffer& atom : *value) {
    text += "[" + test::bytes_of(atom) + "]";
  }
  return text;
}

std::string key_of(std::size_t number) { return "key" + std::to_string(number); }

}  // namespace

// --- construction ---

SCENARIO(construct_on_a_lookup_store) {
  Script script = two_entries();
  script.load_succeeds = arguments.at(0) == "loads";
  auto cache = make_cache(script);
  std::printf("%d %zu %zu %d", cache->is_valid(), cache->size(), script.found.size(), script.reads);
  if (!cache->is_valid()) {
    std::printf(" %s %d %d", value_of(*cache, "b").c_str(), add(*cache, "c"),
                cache->begin() == cache->end());
    std::printf(" %zu %d", script.found.size(), script.reads);
  }
  return 0;
}

TEST(CacheOnALookupStore, ReadsNoEntriesWhenItIsMade) {
  const Ran ran = run_scenario("construct_on_a_lookup_store", {}, {"loads"});
  EXPECT_EQ(ran.out, "1 2 0 0");
  EXPECT_EQ(ran.messages(), Messages{kCreated});
}

TEST(CacheOnALookupStore, ThatDoesNotLoadNeverAsksIt) {
  const Ran ran = run_scenario("construct_on_a_lookup_store", {}, {"fails"});
  EXPECT_EQ(ran.out, "0 0 0 0 null 0 1 0 0");
  EXPECT_EQ(ran.messages(),
            Messages{"ERROR Couldn't create maps cache with FakeLookupStore store type"});
}

// --- look-ups ---

TEST(CacheOnALookupStore, AsksTheStoreOnceForEachKeyThatItFinds) {
  Script script = two_entries();
  auto cache = make_cache(script);
  EXPECT_EQ(value_of(*cache, "b"), "[2][3]");
  EXPECT_EQ(value_of(*cache, "b"), "[2][3]");
  EXPECT_EQ(value_of(*cache, "aa"), "[1]");
  EXPECT_EQ(value_of(*cache, "b"), "[2][3]");
  EXPECT_EQ(script.found, (Keys{"b", "aa"}));
}

TEST(CacheOnALookupStore, NeverRemembersAMiss) {
  Script script = two_entries();
  auto cache = make_cache(script);
  EXPECT_EQ(value_of(*cache, "c"), "null");
  EXPECT_EQ(value_of(*cache, "c"), "null");
  EXPECT_EQ(script.found, (Keys{"c", "c"}));
  store(script, "c", "of another process");
  EXPECT_EQ(value_of(*cache, "c"), "[of another process]");
}

TEST(CacheOnALookupStore, KeepsAValueWhereItIsWhateverIsFoundAndStoredLater) {
  constexpr std::size_t kEntries = 3000;
  Script script;
  for (std::size_t i = 0; i < kEntries; ++i) {
    store(script, key_of(i), std::to_string(i));
  }
  auto cache = make_cache(script);
  std::vector<const std::vector<RoBuffer>*> values;
  for (std::size_t i = 0; i < kEntries; ++i) {
    values.push_back(cache->get_value(buffer(key_of(i))));
  }
  script.content.clear();
  for (std::size_t i = 0; i < kEntries; ++i) {
    ASSERT_EQ(cache->get_value(buffer(key_of(i))), values[i]);
    ASSERT_EQ(value_of(*cache, key_of(i)), "[" + std::to_string(i) + "]");
  }
  EXPECT_EQ(script.found.size(), kEntries);
}

TEST(CacheOnALookupStore, FindsWhatItHasAddedWithoutTheStore) {
  Script script = two_entries();
  auto cache = make_cache(script);
  ASSERT_TRUE(add(*cache, "c", "own"));
  script.found.clear();
  store(script, "c", "of another process");
  EXPECT_EQ(value_of(*cache, "c"), "[own]");
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(value_of(*cache, "c"), "[own]");
  EXPECT_EQ(script.found, Keys{});
}

SCENARIO(counted_lookups_in_a_lookup_store) {
  Script script = two_entries();
  auto cache = make_cache(script);
  add(*cache, "c");
  for (const char* key : {"b", "b", "c", "x", "x", "aa"}) {
    cache->get_value(buffer(key));
  }
  return 0;
}

TEST(CacheOnALookupStore, CountsEachLookUpAsAHitOrAMiss) {
  const test::TempDir dir;
  const Ran ran = run_scenario("counted_lookups_in_a_lookup_store",
                               {{"QV_STATS_REPORT_FILE", dir.file("report")},
                                {"LD_LIBRARY_PATH", QV_COUNTING_RECORDER_DIR}});
  EXPECT_TRUE(ran.exited_with(0));
  const std::string report = test::read_file(dir.file("report"));
  EXPECT_EQ(report.substr(report.find("\"log\":")),
            "\"log\":[\"util/src/cache/cache_hits/5=4\",\"util/src/cache/cache_misses/5=2\"]}\n");
}

// --- additions ---

TEST(CacheOnALookupStore, RefusesAKeyThatIsFoundAddedOrStored) {
  Script script = two_entries();
  auto cache = make_cache(script);
  EXPECT_EQ(value_of(*cache, "b"), "[2][3]");
  EXPECT_TRUE(add(*cache, "c"));
  script.found.clear();
  EXPECT_FALSE(add(*cache, "b"));
  EXPECT_FALSE(add(*cache, "c"));
  EXPECT_EQ(script.found, Keys{});
  EXPECT_FALSE(add(*cache, "aa"));
  EXPECT_EQ(script.found, Keys{"aa"});
  EXPECT_EQ(value_of(*cache, "aa"), "[1]");  // remembered
  EXPECT_EQ(script.found, Keys{"aa"});
  cache->flush();
  EXPECT_EQ(script.stored, Keys{"c=1\n"});
}

TEST(CacheOnALookupStore, FlushesAfterTheStoresNumberOfAdditions) {
  Script script;
  script.flush_after = 2;
  auto cache = make_cache(script);
  add(*cache, "a");
  EXPECT_EQ(script.stored, Keys{});
  add(*cache, "b");
  EXPECT_EQ(script.stored, Keys{"a=1\nb=1\n"});
  add(*cache, "c");
  cache.reset();
  EXPECT_EQ(script.stored, (Keys{"a=1\nb=1\n", "c=1\n"}));
}

TEST(LookupStore, FlushesNothingByDefault) {
  Script script;
  EXPECT_EQ(FakeLookupStore(script).flush_after(), 0u);
  script.flush_after = 1000000000000;
  EXPECT_EQ(FakeLookupStore(script).flush_after(), 1000000000000u);
}

// --- one value for each key ---

TEST(CacheOnALookupStore, KeepsWhatWasAddedWhileTheStoreWasAsked) {
  Script script;
  auto cache = make_cache(script);
  script.before_find = [&] {
    std::thread([&] { EXPECT_TRUE(add(*cache, "a", "added")); }).join();
    store(script, "a", "stored");
  };
  EXPECT_EQ(value_of(*cache, "a"), "[added]");
  EXPECT_EQ(value_of(*cache, "a"), "[added]");
}

TEST(CacheOnALookupStore, RefusesWhatWasFoundWhileTheStoreWasAsked) {
  Script script;
  auto cache = make_cache(script);
  script.after_find = [&] {
    store(script, "a", "stored");
    std::thread([&] { EXPECT_EQ(value_of(*cache, "a"), "[stored]"); }).join();
  };
  EXPECT_FALSE(add(*cache, "a", "added"));
  EXPECT_EQ(value_of(*cache, "a"), "[stored]");
}

TEST(CacheOnALookupStore, KeepsWhatAnotherThreadFoundWhileTheStoreWasAsked) {
  Script script = two_entries();
  auto cache = make_cache(script);
  const std::vector<RoBuffer>* others = nullptr;
  script.after_find = [&] {
    store(script, "aa", "new");
    std::thread([&] { others = cache->get_value(buffer("aa")); }).join();
  };
  EXPECT_EQ(cache->get_value(buffer("aa")), others);
  EXPECT_EQ(value_of(*cache, "aa"), "[new]");
}

// --- the size ---

TEST(CacheOnALookupStore, CountsWhatIsStoredByNowAndWhatIsNotStoredYet) {
  Script script = two_entries();
  auto cache = make_cache(script);
  EXPECT_EQ(cache->size(), 2u);
  value_of(*cache, "b");
  add(*cache, "c");
  add(*cache, "d");
  EXPECT_EQ(cache->size(), 4u);
  cache->flush();
  EXPECT_EQ(cache->size(), 4u);
  add(*cache, "e");
  store(script, "f", "of another process");
  EXPECT_EQ(cache->size(), 6u);
}

// --- iteration ---

TEST(CacheOnALookupStore, VisitsAllStoredEntriesThenTheAddedOnesEachInKeyOrder) {
  Script script = two_entries();
  auto cache = make_cache(script);
  add(*cache, "ccc");
  add(*cache, "a");
  store(script, "ccc", "of another process");
  store(script, "d", "of another process");
  EXPECT_EQ(test::listing(*cache), "b=2,3\nd=of another process\naa=1\na=1\nccc=1\n");
  cache->flush();
  EXPECT_EQ(test::listing(*cache), "b=2,3\nd=of another process\naa=1\na=1\nccc=1\n");
}

TEST(CacheOnALookupStore, ReadsAllEntriesOnceAtTheFirstBegin) {
  Script script = two_entries();
  auto cache = make_cache(script);
  EXPECT_EQ(script.reads, 0);
  const auto first = cache->begin();
  store(script, "c", "of another process");
  EXPECT_EQ(cache->begin(), first);
  EXPECT_EQ(std::distance(first, cache->end()), 2);
  EXPECT_EQ(script.reads, 1);
}

TEST(CacheOnALookupStore, FindsWhatItHasReadWithoutTheStore) {
  Script script = two_entries();
  auto cache = make_cache(script);
  const auto first = cache->begin();
  script.content.clear();
  EXPECT_EQ(cache->get_value(buffer("b")), &first->second);
  EXPECT_FALSE(add(*cache, "b"));
  EXPECT_EQ(script.found, Keys{});
  EXPECT_EQ(test::listing(*cache), "b=2,3\naa=1\n");
}

SCENARIO(iterate_without_the_stored_entries) {
  Script script = two_entries();
  script.read_succeeds = arguments.at(0) != "fails";
  script.throws_bad_alloc = arguments.at(0) == "lacks memory" ? "try_read_all" : "";
  script.throws_a_number = arguments.at(0) == "throws" ? "try_read_all" : "";
  auto cache = make_cache(script);
  add(*cache, "c");
  std::printf("%s", test::listing(*cache).c_str());
  script.read_succeeds = true;
  script.throws_bad_alloc = script.throws_a_number = "";
  std::printf("%s", test::listing(*cache).c_str());
  std::printf("%d", script.reads);
  return 0;
}

TEST(CacheOnALookupStore, VisitsOnlyAdditionsWhenTheOthersCannotBeReadAndTriesAgain) {
  for (const auto& [how, text] :
       std::vector<std::pair<std::string, std::string>>{{"fails", "the store can't be read"},
                                                        {"lacks memory", "std::bad_alloc"},
                                                        {"throws", "unknown exception"}}) {
    const Ran ran =
        run_scenario("iterate_without_the_stored_entries", {{"QV_LOG_LEVEL", "WARN"}}, {how});
    EXPECT_EQ(ran.out, "c=1\nb=2,3\naa=1\nc=1\n2");
    EXPECT_EQ(ran.messages(), Messages{"WARN Couldn't read all entries of maps cache: " + text});
  }
}

// --- prefetches ---

TEST(CacheOnALookupStore, PrefetchesTheKeysThatItNeitherFoundNorAdded) {
  Script script = two_entries();
  auto cache = make_cache(script);
  value_of(*cache, "b");
  value_of(*cache, "missing");
  add(*cache, "c");
  const std::vector<RoBuffer> keys = buffers({"z", "b", "aa", "c", "missing"});
  cache->prefetch(keys.data(), keys.size());
  EXPECT_EQ(script.prefetched, (Keys{"z", "aa", "missing"}));
  EXPECT_EQ(script.prefetches, 1);
}

TEST(CacheOnALookupStore, PrefetchesNothingWithoutTheStoreWhenItKnowsAllKeys) {
  Script script = two_entries();
  auto cache = make_cache(script);
  value_of(*cache, "b");
  add(*cache, "c");
  const std::vector<RoBuffer> keys = buffers({"b", "c"});
  cache->prefetch(keys.data(), keys.size());
  cache->prefetch(nullptr, 0);
  EXPECT_EQ(script.prefetches, 0);
  EXPECT_EQ(script.found, (Keys{"b", "c"}));
}

SCENARIO(prefetch_in_vain) {
  const std::vector<RoBuffer> keys = buffers({"a", "b"});
  Cache("volatile", nullptr, true).prefetch(keys.data(), keys.size());
  Cache("invalid", nullptr, false).prefetch(keys.data(), keys.size());
  Script script = two_entries();
  auto cache = make_cache(script);
  script.throws_bad_alloc = "prefetch";
  cache->prefetch(keys.data(), keys.size());
  script.throws_a_number = "prefetch";
  cache->prefetch(keys.data(), keys.size());
  test::no_memory_from = 0;
  cache->prefetch(keys.data(), keys.size());
  test::no_memory_from = test::kEnoughMemory;
  std::printf("%d", script.prefetches);
  return 0;
}

TEST(CachePrefetch, IsSilentWhateverHappens) {
  const Ran ran = run_scenario("prefetch_in_vain", {{"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "2");
  EXPECT_EQ(ran.messages(), Messages{});
}

// --- a store that throws ---

SCENARIO(store_that_throws) {
  Script script = two_entries();
  auto cache = make_cache(script);
  add(*cache, "c");
  (arguments.at(0) == "memory" ? script.throws_bad_alloc : script.throws_a_number) =
      arguments.at(1);
  std::printf("%s ", value_of(*cache, "b").c_str());
  std::printf("%s ", value_of(*cache, "c").c_str());
  std::printf("%d ", add(*cache, "d"));
  std::printf("%zu ", cache->size());
  script.throws_bad_alloc = script.throws_a_number = "";
  std::printf("%s", value_of(*cache, "b").c_str());
  return 0;
}

Ran store_that_throws(const std::string& what, const std::string& function) {
  return run_scenario("store_that_throws", {{"QV_LOG_LEVEL", "WARN"}}, {what, function});
}

TEST(CacheOnALookupStore, TakesALookUpThatThrowsForAMissAndRefusesToAdd) {
  const Ran memory = store_that_throws("memory", "find");
  EXPECT_EQ(memory.out, "null [1] 0 3 [2][3]");
  EXPECT_EQ(memory.messages(),
            (Messages{kStatisticsOff, "WARN A look-up in maps cache failed: std::bad_alloc",
                      "WARN Refused to add an entry to maps cache: no memory"}));
  const Ran number = store_that_throws("number", "find");
  EXPECT_EQ(number.out, "null [1] 0 3 [2][3]");
  EXPECT_EQ(number.messages(),
            (Messages{kStatisticsOff, "WARN A look-up in maps cache failed: unknown exception",
                      "WARN Refused to add an entry to maps cache: unknown exception"}));
}

TEST(CacheOnALookupStore, CountsOnlyAdditionsWhenTheOthersCannotBeCounted) {
  const Ran ran = store_that_throws("memory", "entries");
  EXPECT_EQ(ran.out, "[2][3] [1] 1 2 [2][3]");
  EXPECT_EQ(
      ran.messages(),
      (Messages{kStatisticsOff, "WARN Couldn't count the entries of maps cache: std::bad_alloc"}));
}

// --- without memory ---

// Each look-up lacks one allocation: the store's, or the cache's own.
SCENARIO(find_without_memory) {
  Script script;
  for (std::size_t i = 0; i < 100; ++i) {
    store(script, key_of(i), std::to_string(i));
  }
  auto cache = make_cache(script);
  cache->get_value(buffer("none"));  // makes the counters
  script.found.reserve(100000);
  std::size_t misses = 0;
  for (std::size_t i = 0; i < 100; ++i) {
    const RoBuffer key = buffer(key_of(i));
    bool failed = true;
    for (std::size_t successes = 0; failed; ++successes) {
      test::FailingAllocation failing(successes);
      const auto* value = cache->get_value(key);
      failed = test::FailingAllocation::end();
      misses += value == nullptr;
      if (failed == (value != nullptr)) {
        std::printf("%zu after %zu allocations\n", i, successes);
      }
    }
    if (value_of(*cache, key_of(i)) != "[" + std::to_string(i) + "]") {
      std::printf("not found: %zu\n", i);
    }
  }
  std::printf("%zu", misses);
  return 0;
}

TEST(CacheOnALookupStore, WithoutMemoryMissesWithOneWarningAndFindsLater) {
  const Ran ran = run_scenario("find_without_memory", {{"QV_LOG_LEVEL", "WARN"}});
  Messages messages = ran.messages();
  ASSERT_GT(messages.size(), 300u);
  EXPECT_EQ(messages.front(), kStatisticsOff);
  messages.erase(messages.begin());
  EXPECT_EQ(ran.out, std::to_string(messages.size()));
  EXPECT_EQ(std::count(messages.begin(), messages.end(),
                       "WARN A look-up in maps cache failed: std::bad_alloc"),
            static_cast<std::ptrdiff_t>(messages.size()));
}

SCENARIO(construct_without_memory_on_a_lookup_store) {
  Script script = two_entries();
  bool failed = true;
  std::size_t successes = 0;
  std::size_t valid = 0;  // a cache that is only not guarded against forks is valid
  for (; failed; ++successes) {
    std::unique_ptr<Store> fake = std::make_unique<FakeLookupStore>(script);
    test::FailingAllocation failing(successes);
    Cache cache("maps", std::move(fake), false);
    failed = test::FailingAllocation::end();
    valid += cache.is_valid();
    if (!(failed || cache.is_valid()) || (value_of(cache, "aa") == "[1]") != cache.is_valid()) {
      std::printf("wrong after %zu allocations\n", successes);
    }
  }
  std::printf("%d", successes > valid);
  return 0;
}

TEST(CacheOnALookupStore, IsInvalidWithoutMemoryForIt) {
  EXPECT_EQ(run_scenario("construct_without_memory_on_a_lookup_store").out, "1");
}

// --- forks and threads ---

TEST(CacheOnALookupStore, LetsAChildFindWhatItsParentFound) {
  Script script = two_entries();
  auto cache = make_cache(script);
  const auto* value = cache->get_value(buffer("b"));
  add(*cache, "c");
  script.found.clear();
  const pid_t child = in_child([&] {
    const bool good = cache->get_value(buffer("b")) == value && value_of(*cache, "c") == "[1]" &&
                      script.found.empty() && value_of(*cache, "aa") == "[1]" && add(*cache, "d") &&
                      test::listing(*cache) == "b=2,3\naa=1\nc=1\nd=1\n";
    cache.reset();
    return good && script.stored == Keys{"c=1\nd=1\n"} ? 0 : 1;
  });
  EXPECT_EQ(wait_for(child), 0);
}

// The first begin is in the middle of its reading. The child reads for itself.
SCENARIO(fork_during_the_first_begin) {
  alarm(60);
  class ForkingStore : public FakeLookupStore {
   public:
    using FakeLookupStore::FakeLookupStore;
    bool try_read_all(EntryMap& out) override {
      if (before_read) {
        std::exchange(before_read, nullptr)();
      }
      return FakeLookupStore::try_read_all(out);
    }
    std::function<void()> before_read;
  };
  Script script = two_entries();
  auto owned = std::make_unique<ForkingStore>(script);
  ForkingStore& forking = *owned;
  Cache cache("maps", std::move(owned), false);
  int status = -1;
  forking.before_read = [&] {
    std::thread([&] {
      status = wait_for(in_child([&] {
        alarm(60);
        return test::listing(cache) == "b=2,3\naa=1\n" ? 0 : 1;
      }));
    }).join();
  };
  std::printf("%s", test::listing(cache).c_str());
  std::printf("%d", status);
  return 0;
}

TEST(CacheOnALookupStore, LetsAChildIterateThatWasForkedDuringTheFirstBegin) {
  EXPECT_EQ(run_scenario("fork_during_the_first_begin").out, "b=2,3\naa=1\n0");
}

// A store for many threads, which holds what it is handed and some entries from the start.
class SharedStore : public LookupStore {
 public:
  static constexpr std::size_t kStored = 500;

  SharedStore() {
    for (std::size_t i = 0; i < kStored; ++i) {
      content_.emplace(buffer(key_of(2 * i)), buffers({"stored"}));
    }
    set_flush_after(50);
  }
  std::string type() const override { return "SharedStore"; }
  bool is_valid() const override { return true; }
  bool try_load(EntryMap& /*out*/) override { return true; }
  bool try_store_diff(const EntryMap& diff) override {
    const std::lock_guard lock(mutex_);
    for (const auto& entry : diff) {
      repeated += content_.insert(entry).second ? 0 : 1;
    }
    return true;
  }
  bool find(const RoBuffer& key, std::vector<RoBuffer>& value) override {
    const std::lock_guard lock(mutex_);
    const auto entry = content_.find(key);
    if (entry == content_.end()) {
      return false;
    }
    value = buffers({test::bytes_of(entry->second.at(0))});
    return true;
  }
  std::uint64_t entries() override {
    const std::lock_guard lock(mutex_);
    return content_.size();
  }
  void prefetch(const RoBuffer* /*keys*/, std::size_t /*count*/) override {}
  bool try_read_all(EntryMap& out) override {
    const std::lock_guard lock(mutex_);
    out.insert(content_.begin(), content_.end());
    return true;
  }

  int repeated = 0;  // entries that were handed over again

 private:
  std::mutex mutex_;
  EntryMap content_;
};

TEST(CacheOnALookupStore, GivesEveryThreadTheSameValue) {
  constexpr std::size_t kThreads = 8;
  constexpr std::size_t kKeys = 2 * SharedStore::kStored;
  auto owned = std::make_unique<SharedStore>();
  SharedStore& shared = *owned;
  Cache cache("maps", std::move(owned), false);
  std::vector<std::vector<const std::vector<RoBuffer>*>> values(kThreads);
  std::atomic<int> added{0};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (std::size_t i = 0; i < kKeys; ++i) {
        const RoBuffer key = buffer(key_of(i));
        added += (i + t) % 2 == 0 && cache.add_value(key, buffers({std::to_string(t)}));
        cache.prefetch(&key, 1);
        wrong += cache.size() < SharedStore::kStored;
        wrong += i % 100 == t && !cache.flush();
      }
      for (std::size_t i = 0; i < kKeys; ++i) {
        const RoBuffer key = buffer(key_of(i));
        cache.add_value(key, buffers({std::to_string(t)}));
        values[t].push_back(cache.get_value(key));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_TRUE(cache.flush());
  EXPECT_EQ(shared.repeated, 0);
  EXPECT_EQ(cache.size(), kKeys);
  for (std::size_t i = 0; i < kKeys; ++i) {
    ASSERT_NE(values[0][i], nullptr);
    ASSERT_EQ(test::bytes_of(values[0][i]->at(0)) == "stored", i % 2 == 0);
  }
  for (std::size_t t = 1; t < kThreads; ++t) {
    EXPECT_EQ(values[t], values[0]);
  }
}
