// The construction and destruction of a cache: how it loads its store, and what it stores.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_store.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

using quorvane::cache::Cache;
using quorvane::cache::Store;
using test::buffer;
using test::buffers;
using test::expectation;
using test::fake;
using test::kStatisticsOff;
using test::kTwoEntries;
using test::log_every_check;
using test::Ran;
using test::run_scenario;
using test::Script;
using test::value_of;
using test::without_lines;
using Messages = std::vector<std::string>;

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
  // Look-ups in an invalid cache make no counters, so no record says that statistics are off.
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
  EXPECT_EQ(not_asked.out, "0 0 null 0 1 0");  // the caller still owns the store
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

// The thread is cancelled inside the constructor. A fork must not wait for the mutex of the
// unfinished cache.
SCENARIO(cancelled_construction) {
  alarm(test::kHangSeconds);
  alignas(Cache) static unsigned char place[sizeof(Cache)];
  Script script;
  script.cancels = arguments.at(0);
  std::thread constructing([&] { new (place) Cache("maps", fake(script), false); });
  constructing.join();
  std::memset(place, 1, sizeof(place));
  const int status = test::wait_for(test::in_child([] { return 0; }));
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

// The messages of the destruction alone.
Messages destruction_messages(const Ran& ran) {
  Messages messages = without_lines(ran.messages());
  EXPECT_GE(messages.size(), 2u);
  messages.erase(messages.begin(), messages.begin() + 2);  // those of the construction
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
