#include <gtest/gtest.h>
#include <pthread.h>
#include <quorvane/cache.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::EntryMap;
using quorvane::cache::Store;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;
using test::expectation;
using test::Ran;
using test::run_scenario;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

const std::string kStatisticsOff = "INFO Statistics capture disabled.";

// What a fake store is told to do, and what was asked of it.
struct Script {
  bool valid = true;
  bool load_succeeds = true;
  bool load_throws = false;
  std::string throws_a_number;  // the function that does
  std::string cancels;          // the function that cancels its thread
  bool store_succeeds = true;
  bool store_throws = false;
  std::vector<test::Entry> content;

  int loads = 0;
  int stores = 0;
  std::string stored;
  bool destroyed = false;
};

class FakeStore : public Store {
 public:
  explicit FakeStore(Script& script) : script_(script) {}
  ~FakeStore() override { script_.destroyed = true; }
  std::string type() const override {
    misbehave("type");
    return "FakeStore";
  }
  bool is_valid() const override {
    misbehave("is_valid");
    return script_.valid;
  }

  bool try_load(EntryMap& out) override {
    ++script_.loads;
    out = test::entry_map(script_.content);
    misbehave("try_load");
    if (script_.load_throws) {
      throw std::length_error("too long");
    }
    return script_.load_succeeds;
  }

  bool try_store_diff(const EntryMap& diff) override {
    ++script_.stores;
    script_.stored = test::listing(diff);
    misbehave("try_store_diff");
    if (script_.store_throws) {
      throw std::runtime_error("no room");
    }
    return script_.store_succeeds;
  }

 private:
  void misbehave(const char* function) const {
    if (script_.throws_a_number == function) {
      throw 7;
    }
    if (script_.cancels == function) {
      pthread_cancel(pthread_self());
      pthread_testcancel();
    }
  }

  Script& script_;
};

std::unique_ptr<Store> fake(Script& script) { return std::make_unique<FakeStore>(script); }

bool is_before(const std::string& a, const std::string& b) {
  return Cache::KeyStrictTotalOrder()(buffer(a), buffer(b));
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

void log_every_check() { test::module_of("util/src/cache")->fault_log_level = 3; }

const std::vector<test::Entry> kTwoEntries{{"aa", {"1"}}, {"b", {"2", "3"}}};

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

// --- construction ---

SCENARIO(volatile_cache) {
  Cache cache("maps", nullptr, true);
  const bool added = cache.add_value(buffer("k"), buffers({"v"}));
  std::printf("%d %s %d %zu %s", cache.is_valid(), cache.get_name().c_str(), added, cache.size(),
              value_of(cache, "k").c_str());
  return 0;
}

TEST(CacheConstruction, WithoutAStoreACacheIsVolatileWhenThatIsAllowed) {
  const Ran ran = run_scenario("volatile_cache");
  EXPECT_EQ(ran.out, "1 maps 1 1 [v]");
  EXPECT_EQ(ran.messages(), (Messages{"INFO Created maps cache with no store", kStatisticsOff}));
}

SCENARIO(no_store) {
  if (!arguments.empty()) {
    log_every_check();
  }
  Cache cache("maps", nullptr, false);
  const bool added = cache.add_value(buffer("k"), buffers({"v"}));
  std::printf("%d %d %zu %s %d", cache.is_valid(), added, cache.size(),
              value_of(cache, "k").c_str(), cache.begin() == cache.end());
  return 0;
}

TEST(CacheConstruction, WithoutAStoreOrFallbackACacheIsInvalidInSilence) {
  const Ran ran = run_scenario("no_store");
  EXPECT_EQ(ran.out, "0 0 0 null 1");
  // No counter was made either: statistics have not been asked for.
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST(CacheConstruction, TheMissingStoreIsACheckOfSeverity3) {
  EXPECT_EQ(
      without_lines(run_scenario("no_store", {}, {"loud"}).messages()),
      Messages{expectation("fallback_to_volatile || (store != nullptr && store->is_valid())")});
}

SCENARIO(invalid_store) {
  const bool fallback = arguments.at(0) == "fallback";
  Script script;
  script.valid = false;
  std::unique_ptr<Store> store = fake(script);
  {
    Cache cache("maps", std::move(store), fallback);
    cache.add_value(buffer("k"), buffers({"v"}));
    std::printf("%d %zu ", cache.is_valid(), cache.size());
  }
  std::printf("%d %d %d", store != nullptr, script.loads, script.stores);
  return 0;
}

TEST(CacheConstruction, AnInvalidStoreStaysWithTheCallerOfAnInvalidCache) {
  const Ran ran = run_scenario("invalid_store", {}, {"none"});
  EXPECT_EQ(ran.out, "0 0 1 0 0");
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST(CacheConstruction, AnInvalidStoreStaysWithTheCallerOfAVolatileCache) {
  const Ran ran = run_scenario("invalid_store", {}, {"fallback"});
  EXPECT_EQ(ran.out, "1 1 1 0 0");
  EXPECT_EQ(ran.messages(), Messages{"INFO Created maps cache with no store"});
}

SCENARIO(valid_store) {
  Script script;
  if (arguments.at(0) == "full") {
    script.content = kTwoEntries;
  }
  std::unique_ptr<Store> store = fake(script);
  {
    Cache cache("maps", std::move(store), false);
    std::printf("%d %d %zu %d ", cache.is_valid(), store == nullptr, cache.size(),
                script.destroyed);
  }
  std::printf("%d %d %d", script.loads, script.stores, script.destroyed);
  return 0;
}

TEST(CacheConstruction, AValidStoreIsTakenOverAndLoaded) {
  const Ran ran = run_scenario("valid_store", {}, {"full"});
  EXPECT_EQ(ran.out, "1 1 2 0 1 0 1");
  EXPECT_EQ(ran.messages(),
            (Messages{"INFO Loaded maps cache data with FakeStore store type, num entries = 2",
                      "INFO Created maps cache with FakeStore store type"}));
}

TEST(CacheConstruction, AnEmptyStoreIsNotReportedAsLoaded) {
  const Ran ran = run_scenario("valid_store", {}, {"empty"});
  EXPECT_EQ(ran.out, "1 1 0 0 1 0 1");
  EXPECT_EQ(ran.messages(), Messages{"INFO Created maps cache with FakeStore store type"});
}

TEST(CacheConstruction, ItsRecordsFollowTheModulesLevel) {
  EXPECT_EQ(run_scenario("valid_store", {{"QV_LOG_LEVEL", "WARN"}}, {"full"}).messages(),
            Messages{});
}

SCENARIO(failing_load) {
  if (arguments.at(0) == "loud") {
    log_every_check();
  }
  Script script;
  script.load_succeeds = false;
  std::unique_ptr<Store> store = fake(script);
  {
    Cache cache("maps", std::move(store), true);
    const bool added = cache.add_value(buffer("k"), buffers({"v"}));
    std::printf("%d %d %d %s ", cache.is_valid(), store == nullptr, added,
                value_of(cache, "k").c_str());
  }
  std::printf("%d %d", script.stores, script.destroyed);
  return 0;
}

TEST(CacheConstruction, AFailedLoadNeverFallsBackToAVolatileCache) {
  const Ran ran = run_scenario("failing_load", {}, {"quiet"});
  EXPECT_EQ(ran.out, "0 1 0 null 0 1");
  EXPECT_EQ(ran.messages(), Messages{"ERROR Couldn't create maps cache with FakeStore store type"});
}

TEST(CacheConstruction, AFailedLoadIsACheckOfSeverity3BeforeItsRecord) {
  EXPECT_EQ(without_lines(run_scenario("failing_load", {}, {"loud"}).messages()),
            (Messages{expectation("store_->try_load(loaded_map_)"),
                      "ERROR Couldn't create maps cache with FakeStore store type"}));
}

SCENARIO(failing_load_with_content) {
  Script script;
  script.load_succeeds = false;
  script.content = kTwoEntries;
  Cache cache("maps", fake(script), false);
  std::printf("%d %s", cache.is_valid(), value_of(cache, "b").c_str());
  return 0;
}

TEST(CacheConstruction, AnInvalidCacheDoesNotAnswerFromAHalfReadFile) {
  EXPECT_EQ(run_scenario("failing_load_with_content").out, "0 null");
}

SCENARIO(throwing_load) {
  if (arguments.at(0) == "loud") {
    log_every_check();
  }
  Script script;
  script.load_throws = true;
  script.content = kTwoEntries;
  {
    Cache cache("maps", fake(script), true);
    std::printf("%d %zu %s ", cache.is_valid(), cache.size(), value_of(cache, "b").c_str());
  }
  std::printf("%d %d", script.stores, script.destroyed);
  return 0;
}

TEST(CacheConstruction, ALoadThatThrowsIsAFailedLoad) {
  const Ran ran = run_scenario("throwing_load", {}, {"quiet"});
  EXPECT_EQ(ran.out, "0 0 null 0 1");
  EXPECT_EQ(ran.messages(),
            (Messages{"ERROR Loading maps cache failed: too long",
                      "ERROR Couldn't create maps cache with FakeStore store type"}));
  EXPECT_EQ(without_lines(run_scenario("throwing_load", {}, {"loud"}).messages()),
            (Messages{"ERROR Loading maps cache failed: too long",
                      expectation("store_->try_load(loaded_map_)"),
                      "ERROR Couldn't create maps cache with FakeStore store type"}));
}

SCENARIO(store_that_throws_a_number) {
  Script script;
  script.content = kTwoEntries;
  script.throws_a_number = arguments.at(0);
  std::unique_ptr<Store> store = fake(script);
  {
    Cache cache("maps", std::move(store), true);
    std::printf("%d %zu %s %d ", cache.is_valid(), cache.size(), value_of(cache, "b").c_str(),
                cache.add_value(buffer("c"), buffers({"4"})));
  }
  std::printf("%d %d", store != nullptr, script.stores);
  return 0;
}

TEST(CacheConstruction, AStoreThatThrowsWhateverItIsGivesAnInvalidCache) {
  const std::string failed = "ERROR Couldn't create maps cache: unknown exception";
  const Ran not_asked = run_scenario("store_that_throws_a_number", {}, {"is_valid"});
  EXPECT_EQ(not_asked.out, "0 0 null 0 1 0");  // the caller keeps what was not taken over
  EXPECT_EQ(not_asked.messages(), Messages{failed});
  const Ran not_loaded = run_scenario("store_that_throws_a_number", {}, {"try_load"});
  EXPECT_EQ(not_loaded.out, "0 0 null 0 0 0");
  EXPECT_EQ(not_loaded.messages(),
            (Messages{"ERROR Loading maps cache failed: unknown exception",
                      "ERROR Couldn't create maps cache with FakeStore store type"}));
  const Ran not_named = run_scenario("store_that_throws_a_number", {}, {"type"});
  EXPECT_EQ(not_named.out, "0 0 null 0 0 0");
  EXPECT_EQ(not_named.messages(), Messages{failed});
}

SCENARIO(nameless_store_that_does_not_load) {
  Script script;
  script.load_succeeds = false;
  script.throws_a_number = "type";
  std::printf("%d", Cache("maps", fake(script), true).is_valid());
  return 0;
}

TEST(CacheConstruction, AFailedLoadIsReportedAlsoOfAStoreThatCannotNameItself) {
  const Ran ran = run_scenario("nameless_store_that_does_not_load");
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(), Messages{"ERROR Couldn't create maps cache with unknown store type"});
}

// A cancelled thread leaves the constructor, and no fork may wait for the mutex of a
// cache that isn't there.
SCENARIO(cancelled_construction) {
  alarm(60);
  alignas(Cache) static unsigned char place[sizeof(Cache)];
  Script script;
  script.cancels = arguments.at(0);
  std::thread constructing([&] { new (place) Cache("maps", fake(script), false); });
  constructing.join();
  std::memset(place, 1, sizeof(place));
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0 && script.destroyed ? 0 : 1;
}

TEST(CacheConstruction, ACancelledThreadLeavesNothingThatAForkWaitsFor) {
  for (const char* function : {"is_valid", "try_load", "type"}) {
    const Ran ran = run_scenario("cancelled_construction", {}, {function});
    EXPECT_TRUE(ran.exited_with(0)) << function;
    EXPECT_EQ(ran.messages(), Messages{}) << function;
  }
}

TEST(CacheConstruction, AFailedLoadIsSilentAtOff) {
  for (const char* scenario : {"failing_load", "throwing_load"}) {
    const Ran ran = run_scenario(scenario, {{"QV_LOG_LEVEL", "OFF"}}, {"loud"});
    EXPECT_EQ(ran.out, run_scenario(scenario, {}, {"quiet"}).out);
    EXPECT_EQ(ran.log, "");
  }
}

// --- destruction ---

SCENARIO(destruction) {
  const std::string& what = arguments.at(0);
  Script script;
  script.content = kTwoEntries;
  script.store_succeeds = what == "stores" || what == "nameless";
  script.store_throws = what == "throws";
  if (what == "aborts") {
    test::module_of("util/src/cache")->fault_abort_level = 1;
  }
  {
    Cache cache("maps", fake(script), false);
    script.throws_a_number = what == "nameless"          ? "type"
                             : what == "throws a number" ? "try_store_diff"
                                                         : "";
    if (what != "empty") {
      cache.add_value(buffer("ccc"), buffers({"4"}));
      cache.add_value(buffer("d"), buffers({"5", "6"}));
    }
  }
  std::printf("%d %d\n%s", script.stores, script.destroyed, script.stored.c_str());
  return 0;
}

Messages destruction_messages(const Ran& ran) {
  Messages messages = without_lines(ran.messages());
  EXPECT_GE(messages.size(), 2u);
  messages.erase(messages.begin(), messages.begin() + 2);  // of the construction
  return messages;
}

TEST(CacheDestruction, OnlyWhatWasAddedIsStored) {
  const Ran ran = run_scenario("destruction", {}, {"stores"});
  EXPECT_EQ(ran.out, "1 1\nd=5,6\nccc=4\n");
  EXPECT_EQ(destruction_messages(ran),
            Messages{"DEBUG Stored maps cache diff data with FakeStore store type, "
                     "num diff entries = 2"});
}

TEST(CacheDestruction, NothingIsStoredWhenNothingWasAdded) {
  const Ran ran = run_scenario("destruction", {}, {"empty"});
  EXPECT_EQ(ran.out, "0 1\n");
  EXPECT_EQ(destruction_messages(ran), Messages{});
}

TEST(CacheDestruction, AStoreThatFailsIsReportedAndTheAdditionsAreLost) {
  const Ran ran = run_scenario("destruction", {}, {"fails"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(destruction_messages(ran), Messages{expectation("store_->try_store_diff(diff_map_)")});
}

TEST(CacheDestruction, TheFailedStoreIsACheckOfSeverity1) {
  const Ran ran = run_scenario("destruction", {}, {"aborts"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(destruction_messages(ran), Messages{expectation("store_->try_store_diff(diff_map_)")});
}

TEST(CacheDestruction, AStoreThatThrowsIsAStoreThatFails) {
  const std::string lost = expectation("store_->try_store_diff(diff_map_)");
  const Ran ran = run_scenario("destruction", {}, {"throws"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(destruction_messages(ran),
            (Messages{"ERROR Storing maps cache failed: no room", lost}));
  const Ran number = run_scenario("destruction", {}, {"throws a number"});
  EXPECT_EQ(number.out, "1 1\nd=5,6\nccc=4\n");
  EXPECT_EQ(destruction_messages(number),
            (Messages{"ERROR Storing maps cache failed: unknown exception", lost}));
}

TEST(CacheDestruction, AStoreThatCannotNameItselfHasStoredAllTheSame) {
  const Ran ran = run_scenario("destruction", {}, {"nameless"});
  EXPECT_EQ(ran.out, "1 1\nd=5,6\nccc=4\n");
  EXPECT_EQ(destruction_messages(ran),
            Messages{"DEBUG Stored maps cache diff data with unknown store type, "
                     "num diff entries = 2"});
}

// --- look-up, addition and iteration ---

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
  constexpr int kThreads = 4;
  constexpr int kKeys = 500;
  Script script;
  Cache cache("maps", fake(script), false);
  std::atomic<int> added{0};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kKeys; ++i) {
        const RoBuffer key = buffer("k" + std::to_string(i));
        added += cache.add_value(key, buffers({std::to_string(t)}));
        const auto* value = cache.get_value(key);
        wrong += value == nullptr || value->size() != 1 || cache.size() < static_cast<size_t>(i);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(added, kKeys);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(cache.size(), static_cast<std::size_t>(kKeys));
}

// Nothing orders the threads but the cache's mutex.
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

// No file holds one, but a user's own store may.
TEST(CacheLookUp, FindsAnEmptyKeyHoweverManyEntriesThereAre) {
  Script script;
  script.content.push_back({"", {"empty"}});
  for (int i = 0; i < 2000; ++i) {
    script.content.push_back({"key" + std::to_string(i), {std::to_string(i)}});
  }
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
  constexpr int kLoaded = 2000;
  Script script;
  std::vector<RoBuffer> keys;
  for (int i = 0; i < kLoaded; ++i) {
    script.content.push_back({"key" + std::to_string(i), {std::to_string(i)}});
    keys.push_back(buffer(script.content.back().key));
  }
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

TEST(CacheThreads, LookUpsAgreeHoweverOftenTheyAreMade) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 60000;
  constexpr int kLoaded = 300;
  Script script;
  for (int i = 0; i < kLoaded; ++i) {
    script.content.push_back({"key" + std::to_string(i), {std::to_string(i)}});
  }
  Cache cache("maps", fake(script), false);
  std::vector<RoBuffer> keys;
  for (int i = 0; i < kLoaded + 1; ++i) {
    keys.push_back(buffer("key" + std::to_string(i)));
  }
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; i < kRounds; ++i) {
        const auto n = static_cast<std::size_t>(i % kLoaded);
        const auto* value = cache.get_value(keys[n]);
        wrong += value == nullptr || test::bytes_of(value->at(0)) != std::to_string(n);
      }
      wrong += cache.get_value(keys[kLoaded]) != nullptr;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

// Nothing orders the threads but what publishes the index: each counts for itself.
TEST(CacheThreads, LookUpsAgreeWhileOneOfThemBuildsTheIndex) {
  constexpr int kThreads = 4;
  constexpr std::size_t kLoaded = 2000;
  Script script;
  std::vector<RoBuffer> keys;
  for (std::size_t i = 0; i < kLoaded; ++i) {
    script.content.push_back({"key" + std::to_string(i), {std::to_string(i)}});
    keys.push_back(buffer(script.content.back().key));
  }
  Cache cache("maps", fake(script), false);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      int own = 0;
      for (std::size_t i = 0; i < kLoaded; ++i) {
        const auto* value = cache.get_value(keys[i]);
        own += value == nullptr || test::bytes_of(value->at(0)) != std::to_string(i);
      }
      wrong += own;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}
