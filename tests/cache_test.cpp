// Look-ups in a cache, additions to it and iterations over it, by one thread or several.
#include <gtest/gtest.h>
#include <quorvane/cache.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_store.h"
#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::EntryMap;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;
using test::fake;
using test::kStatisticsOff;
using test::kTwoEntries;
using test::Ran;
using test::run_scenario;
using test::Script;
using test::value_of;
using Messages = std::vector<std::string>;

namespace {

bool is_before(const std::string& a, const std::string& b) {
  return Cache::KeyStrictTotalOrder()(buffer(a), buffer(b));
}

// Adds the entries "key0"="0", "key1"="1", ... to the script and returns their keys.
std::vector<RoBuffer> fill(Script& script, std::size_t count) {
  std::vector<RoBuffer> keys;
  for (std::size_t i = 0; i < count; ++i) {
    script.content.push_back({"key" + std::to_string(i), {std::to_string(i)}});
    keys.push_back(buffer(script.content.back().key));
  }
  return keys;
}

// Runs body(0), body(1), ... in `count` threads at once.
template <typename Body>
void in_threads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) {
    threads.emplace_back(body, t);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace

TEST(KeyOrder, ShorterKeysComeFirstWhateverTheirBytes) {
  EXPECT_TRUE(is_before("b", "aa"));
  EXPECT_FALSE(is_before("aa", "b"));
  EXPECT_TRUE(is_before("zzz", "aaaa"));
  EXPECT_TRUE(is_before("", "a"));
}

TEST(KeyOrder, KeysOfOneLengthCompareAsUnsignedBytes) {
  EXPECT_TRUE(is_before("ab", "ac"));
  EXPECT_FALSE(is_before("ac", "ab"));
  EXPECT_FALSE(is_before("ab", "ab"));
  EXPECT_TRUE(is_before("a\x7f", "a\x80"));
  EXPECT_TRUE(is_before(std::string("\0a", 2), std::string("\0b", 2)));
}

TEST(KeyOrder, TwoEmptyKeysAreEqual) {
  EXPECT_FALSE(Cache::KeyStrictTotalOrder()(RoBuffer(), RoBuffer()));
  EXPECT_FALSE(is_before("", ""));
}

// --- look-ups ---

TEST(CacheLookUp, FindsLoadedAndAddedEntriesAndNothingElse) {
  Script script;
  script.content = kTwoEntries;
  Cache cache("maps", fake(script), false);
  ASSERT_TRUE(cache.add_value(buffer("c"), buffers({"4", "5"})));
  EXPECT_EQ(value_of(cache, "b"), "[2][3]");
  EXPECT_EQ(value_of(cache, "aa"), "[1]");
  EXPECT_EQ(value_of(cache, "c"), "[4][5]");
  EXPECT_EQ(value_of(cache, "d"), "null");
  EXPECT_EQ(value_of(cache, ""), "null");
  EXPECT_EQ(cache.size(), 3u);
}

TEST(CacheLookUp, AValueStaysWhereItIs) {
  Script script;
  script.content = kTwoEntries;
  Cache cache("maps", fake(script), false);
  cache.add_value(buffer("c"), buffers({"4"}));
  const auto* loaded = cache.get_value(buffer("b"));
  const auto* added = cache.get_value(buffer("c"));
  for (int i = 0; i < 1000; ++i) {
    cache.add_value(buffer("k" + std::to_string(i)), buffers({"v"}));
  }
  EXPECT_EQ(cache.get_value(buffer("b")), loaded);
  EXPECT_EQ(cache.get_value(buffer("c")), added);
  EXPECT_EQ(test::bytes_of(loaded->at(1)), "3");
  EXPECT_EQ(test::bytes_of(added->at(0)), "4");
}

// No file holds an empty key, but a program's own store may.
TEST(CacheLookUp, FindsAnEmptyKeyHoweverManyEntriesThereAre) {
  Script script;
  script.content.push_back({"", {"empty"}});
  fill(script, 2000);
  Cache cache("maps", fake(script), false);
  int wrong = 0;
  for (int i = 0; i < 2000; ++i) {
    wrong += value_of(cache, "") != "[empty]";
    wrong += value_of(cache, "key" + std::to_string(i)) != "[" + std::to_string(i) + "]";
    wrong += cache.get_value(buffer("none" + std::to_string(i))) != nullptr;
  }
  EXPECT_EQ(wrong, 0);
}

SCENARIO(look_ups_without_memory) {
  Script script;
  const std::vector<RoBuffer> keys = fill(script, 2000);
  Cache cache("maps", fake(script), false);
  int found = cache.get_value(keys[0]) != nullptr ? 1 : 0;  // makes the counters
  test::no_memory_from = std::stoul(arguments.at(0));
  for (const RoBuffer& key : keys) {
    found += cache.get_value(key) != nullptr ? 1 : 0;
  }
  test::no_memory_from = test::kEnoughMemory;
  std::printf("%d %s", found, value_of(cache, "key77").c_str());
  return 0;
}

TEST(CacheLookUp, GoesOnWithoutMemoryForAnIndex) {
  const std::string created = "INFO Created maps cache with FakeStore store type";
  for (const char* no_memory_from : {"0", "4096"}) {
    const Ran ran = run_scenario("look_ups_without_memory", {}, {no_memory_from});
    EXPECT_EQ(ran.out, "2001 [77]");
    EXPECT_EQ(ran.messages(),
              (Messages{"INFO Loaded maps cache data with FakeStore store type, num entries = 2000",
                        created, kStatisticsOff, "DEBUG No memory to index maps cache"}));
    EXPECT_EQ(run_scenario("look_ups_without_memory", {{"QV_LOG_LEVEL", "WARN"}}, {no_memory_from})
                  .messages(),
              Messages{kStatisticsOff});
  }
}

// --- additions ---

TEST(CacheAddition, AnEntryThatIsThereStaysAsItIs) {
  Script script;
  script.content = kTwoEntries;
  Cache cache("maps", fake(script), false);
  EXPECT_TRUE(cache.add_value(buffer("c"), buffers({"4"})));
  EXPECT_FALSE(cache.add_value(buffer("c"), buffers({"new"})));
  EXPECT_FALSE(cache.add_value(buffer("b"), buffers({"new"})));
  EXPECT_EQ(value_of(cache, "c"), "[4]");
  EXPECT_EQ(value_of(cache, "b"), "[2][3]");
  EXPECT_EQ(cache.size(), 3u);
}

SCENARIO(unreadable_additions) {
  Script script;
  {
    Cache cache("maps", fake(script), false);
    const bool empty_key = cache.add_value(RoBuffer(), buffers({"v"}));
    const bool no_atoms = cache.add_value(buffer("k"), {});
    const bool empty_atom = cache.add_value(buffer("k"), buffers({"v", ""}));
    std::printf("%d %d %d %zu ", empty_key, no_atoms, empty_atom, cache.size());
  }
  std::printf("%d", script.stores);
  return 0;
}

TEST(CacheAddition, AnEntryThatCouldNeverBeReadBackIsRefusedWithOneWarning) {
  const Ran ran = run_scenario("unreadable_additions");
  EXPECT_EQ(ran.out, "0 0 0 0 0");
  EXPECT_EQ(ran.messages(),
            (Messages{"INFO Created maps cache with FakeStore store type",
                      "WARN Refused to add an entry to maps cache: its key is empty",
                      "WARN Refused to add an entry to maps cache: it has no value atoms",
                      "WARN Refused to add an entry to maps cache: a value atom is empty"}));
}

SCENARIO(addition_without_memory) {
  Script script;
  {
    Cache cache("maps", fake(script), false);
    const RoBuffer key = buffer("k");
    std::vector<RoBuffer> value = buffers({"v"});
    test::no_memory_from = 0;
    const bool added = cache.add_value(key, std::move(value));
    test::no_memory_from = test::kEnoughMemory;
    std::printf("%d %zu %s ", added, cache.size(), value_of(cache, "k").c_str());
    std::printf("%d ", cache.add_value(key, buffers({"v"})));
  }
  std::printf("%s", script.stored.c_str());
  return 0;
}

TEST(CacheAddition, AnEntryForWhichThereIsNoMemoryIsRefusedWithOneWarning) {
  const Ran ran = run_scenario("addition_without_memory");
  EXPECT_EQ(ran.out, "0 0 null 1 k=v\n");
  ASSERT_GE(ran.messages().size(), 2u);
  EXPECT_EQ(ran.messages()[1], "WARN Refused to add an entry to maps cache: no memory");
}

TEST(CacheAddition, ARefusalIsSilentBelowWarn) {
  const test::Environment errors_only{{"QV_LOG_LEVEL", "ERROR"}};
  const Ran unreadable = run_scenario("unreadable_additions", errors_only);
  EXPECT_EQ(unreadable.out, "0 0 0 0 0");
  EXPECT_EQ(unreadable.messages(), Messages{});
  const Ran without_memory = run_scenario("addition_without_memory", errors_only);
  EXPECT_EQ(without_memory.out, "0 0 null 1 k=v\n");
  EXPECT_EQ(without_memory.messages(), Messages{kStatisticsOff});
}

// --- iteration ---

TEST(CacheIteration, VisitsTheLoadedEntriesThenTheAddedOnesEachInKeyOrder) {
  Script script;
  script.content = kTwoEntries;
  Cache cache("maps", fake(script), false);
  cache.add_value(buffer("ccc"), buffers({"4"}));
  cache.add_value(buffer("a"), buffers({"5"}));
  cache.add_value(buffer("Z"), buffers({"6"}));
  EXPECT_EQ(test::listing(cache), "b=2,3\naa=1\nZ=6\na=5\nccc=4\n");
}

TEST(CacheIteration, APostfixStepGivesThePositionBeforeIt) {
  Script script;
  script.content = kTwoEntries;
  Cache cache("maps", fake(script), false);
  cache.add_value(buffer("c"), buffers({"4"}));
  auto it = cache.begin();
  EXPECT_EQ(test::bytes_of((it++)->first), "b");
  EXPECT_EQ(test::bytes_of((*it++).first), "aa");
  EXPECT_EQ(test::bytes_of((++Cache::const_iterator(cache.begin()))->first), "aa");
  EXPECT_EQ(test::bytes_of(it->first), "c");
  EXPECT_NE(it, cache.end());
  EXPECT_EQ(++it, cache.end());
}

TEST(CacheIteration, AStepPastTheEndChangesNothing) {
  Cache cache("maps", nullptr, true);
  EXPECT_EQ(cache.begin(), cache.end());
  cache.add_value(buffer("c"), buffers({"4"}));
  auto it = cache.begin();
  ++it;
  ASSERT_EQ(it, cache.end());
  ++it;
  EXPECT_EQ(it++, cache.end());
  EXPECT_EQ(it, cache.end());
}

TEST(CacheIteration, PositionsAreEqualOnlyWhenBothPartsAre) {
  const EntryMap first = test::entry_map({{"a", {"1"}}, {"b", {"2"}}});
  const EntryMap second = test::entry_map({{"c", {"3"}}});
  const Cache::const_iterator start(first, first.begin(), second, second.begin());
  const Cache::const_iterator other_first(first, first.end(), second, second.begin());
  const Cache::const_iterator other_second(first, first.begin(), second, second.end());
  EXPECT_TRUE(start == Cache::const_iterator(start));
  EXPECT_FALSE(start != Cache::const_iterator(start));
  EXPECT_TRUE(start != other_first);
  EXPECT_TRUE(start != other_second);
  EXPECT_EQ(test::bytes_of(start->first), "a");
  EXPECT_EQ(test::bytes_of(other_first->first), "c");
}

// --- counting ---

SCENARIO(counted_lookups) {
  Script script;
  script.content = kTwoEntries;
  Cache cache("maps", fake(script), false);
  Cache invalid("other", nullptr, false);
  cache.add_value(buffer("c"), buffers({"4"}));
  for (const char* key : {"b", "c", "c", "x", "y", "aa"}) {
    cache.get_value(buffer(key));
    invalid.get_value(buffer(key));
  }
  return 0;
}

TEST(CacheCounters, EachLookUpIsOneHitOrOneMissOfTheCachesModule) {
  const test::TempDir dir;
  const Ran ran = run_scenario("counted_lookups", {{"QV_STATS_REPORT_FILE", dir.file("report")},
                                                   {"LD_LIBRARY_PATH", QV_COUNTING_RECORDER_DIR}});
  EXPECT_TRUE(ran.exited_with(0));
  const std::string report = test::read_file(dir.file("report"));
  EXPECT_EQ(report.substr(report.find("\"log\":")),
            "\"log\":[\"util/src/cache/cache_hits/5=4\",\"util/src/cache/cache_misses/5=2\"]}\n");
}

// --- threads ---

TEST(CacheThreads, OneOfManyThreadsAddsAKeyAndAllFindIt) {
  constexpr int kKeys = 500;
  Script script;
  Cache cache("maps", fake(script), false);
  std::atomic<int> added{0};
  std::atomic<int> wrong{0};
  in_threads(4, [&](int t) {
    for (int i = 0; i < kKeys; ++i) {
      const RoBuffer key = buffer("k" + std::to_string(i));
      added += cache.add_value(key, buffers({std::to_string(t)}));
      const auto* value = cache.get_value(key);
      wrong += value == nullptr || value->size() != 1 || cache.size() < static_cast<size_t>(i);
    }
  });
  EXPECT_EQ(added, kKeys);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(cache.size(), static_cast<std::size_t>(kKeys));
}

// Only the cache's mutex orders the threads.
TEST(CacheThreads, TheSizeOnlyGrowsWhileAnotherThreadAdds) {
  constexpr std::size_t kKeys = 500;
  Cache cache("maps", nullptr, true);
  std::thread adding([&] {
    for (std::size_t i = 0; i < kKeys; ++i) {
      cache.add_value(buffer("k" + std::to_string(i)), buffers({"v"}));
    }
  });
  bool has_shrunk = false;
  for (std::size_t last = 0; last < kKeys && !has_shrunk;) {
    const std::size_t size = cache.size();
    has_shrunk = size < last;
    last = size;
  }
  adding.join();
  EXPECT_FALSE(has_shrunk);
}

TEST(CacheThreads, LookUpsAgreeHoweverOftenTheyAreMade) {
  constexpr int kRounds = 60000;
  constexpr int kLoaded = 300;
  Script script;
  const std::vector<RoBuffer> keys = fill(script, kLoaded);
  const RoBuffer missing = buffer("key" + std::to_string(kLoaded));
  Cache cache("maps", fake(script), false);
  std::atomic<int> wrong{0};
  in_threads(4, [&](int t) {
    for (int i = t; i < kRounds; ++i) {
      const auto n = static_cast<std::size_t>(i % kLoaded);
      const auto* value = cache.get_value(keys[n]);
      wrong += value == nullptr || test::bytes_of(value->at(0)) != std::to_string(n);
    }
    wrong += cache.get_value(missing) != nullptr;
  });
  EXPECT_EQ(wrong, 0);
}

// Each thread counts for itself, so that only the publication of the index orders the threads.
TEST(CacheThreads, LookUpsAgreeWhileOneOfThemBuildsTheIndex) {
  Script script;
  const std::vector<RoBuffer> keys = fill(script, 2000);
  Cache cache("maps", fake(script), false);
  std::atomic<int> wrong{0};
  in_threads(4, [&](int) {
    int own = 0;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      const auto* value = cache.get_value(keys[i]);
      own += value == nullptr || test::bytes_of(value->at(0)) != std::to_string(i);
    }
    wrong += own;
  });
  EXPECT_EQ(wrong, 0);
}
