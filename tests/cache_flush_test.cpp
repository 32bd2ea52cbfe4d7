// Flushes of a cache: what is handed to the store, when, and what other threads and
// processes see of it.
#include <gtest/gtest.h>
#include <pthread.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/lazy_files.h"
#include "support/no_memory.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::BasicStore;
using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::FileStoreSkeleton;
using quorvane::cache::make_file_store;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using test::buffer;
using test::buffers;
using test::Entry;
using test::expectation;
using test::in_child;
using test::Ran;
using test::run_scenario;
using test::TempDir;
using test::wait_for;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

constexpr unsigned kHangSeconds = 60;

// What a fake store is told to do, and what it was handed.
struct Script {
  bool succeeds = true;
  bool throws = false;
  std::function<void()> meanwhile;  // called once, while the store works
  std::vector<std::string> stored;  // a listing for each call
};

class FakeStore : public Store {
 public:
  explicit FakeStore(Script& script) : script_(script) {}
  std::string type() const override { return "FakeStore"; }
  bool is_valid() const override { return true; }
  bool try_load(EntryMap& out) override {
    out = test::entry_map({{"old", {"0"}}});
    return true;
  }
  bool try_store_diff(const EntryMap& diff) override {
    script_.stored.push_back(test::listing(diff));
    if (script_.meanwhile) {
      std::exchange(script_.meanwhile, nullptr)();
    }
    if (script_.throws) {
      throw std::runtime_error("no room");
    }
    return script_.succeeds;
  }

 private:
  Script& script_;
};

std::unique_ptr<Cache> fake_cache(Script& script) {
  return std::make_unique<Cache>("maps", std::make_unique<FakeStore>(script), false);
}

bool add(Cache& cache, const std::string& key, const std::string& value = "1") {
  return cache.add_value(buffer(key), buffers({value}));
}

void in_thread(const std::function<void()>& work) { std::thread(work).join(); }

CleanupController& no_limit() {
  static CleanupController& controller = *new CleanupController(0);
  return controller;
}

// --- stores in files ---

const std::string kLazy = "lazy";

StoreKind kind_of(const std::string& name) {
  return name == kLazy ? StoreKind::lazy_lookup : StoreKind::basic;
}

std::unique_ptr<Cache> file_cache(const std::string& kind, std::uint64_t flush_after = 0) {
  auto store = make_file_store(kind_of(kind), "maps", &no_limit());
  dynamic_cast<FileStoreSkeleton&>(*store).set_flush_after(flush_after);
  return std::make_unique<Cache>("maps", std::move(store), false);
}

// The keys in the order of the file of keys, which must be whole.
std::vector<std::string> keys_in_file(const std::string& kind, const std::string& root) {
  std::vector<std::string> keys;
  const auto append = [&keys](const std::vector<Entry>& entries) {
    for (const Entry& entry : entries) {
      keys.push_back(entry.key);
    }
  };
  if (!test::exists(root + (kind == kLazy ? "/key_maps" : "/maps"))) {
    return keys;
  }
  if (kind == kLazy) {
    const test::LazyWalk walk = test::walk_lazy_files(test::read_lazy_files(root), "", true);
    EXPECT_EQ(walk.messages, Messages{});
    append(walk.entries);
  } else {
    const test::Walk walk = test::walk_basic_file(test::read_file(root + "/maps"));
    EXPECT_EQ(walk.failed_check, "");
    EXPECT_EQ(walk.collisions, std::vector<std::string>{});
    append(walk.entries);
  }
  return keys;
}

void expect_files_of(const std::string& kind, const TempDir& root,
                     const std::vector<Entry>& entries) {
  if (kind == kLazy) {
    EXPECT_EQ(test::read_lazy_files(root.path()), test::lazy_files(entries));
  } else {
    EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file(entries));
  }
}

// By the kind of store. Scenarios get it as their first argument.
class CacheFlushToFiles : public testing::TestWithParam<const char*> {
 protected:
  Ran run(const std::string& scenario, const TempDir& root,
          const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{GetParam()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_scenario(scenario, {{"QV_CACHE_STORE_ROOT", root.path()}, {"QV_LOG_LEVEL", "WARN"}},
                        arguments);
  }
};

INSTANTIATE_TEST_SUITE_P(, CacheFlushToFiles, testing::Values("basic", "lazy"),
                         [](const testing::TestParamInfo<const char*>& tested) {
                           return std::string(tested.param);
                         });

std::string root() { return getenv("QV_CACHE_STORE_ROOT"); }

}  // namespace

// --- what is handed to the store ---

TEST(CacheFlush, HandsOverWhatIsNotStoredYet) {
  Script script;
  auto cache = fake_cache(script);
  add(*cache, "b");
  add(*cache, "a");
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(script.stored, Messages{"a=1\nb=1\n"});
  add(*cache, "c");
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(script.stored, (Messages{"a=1\nb=1\n", "c=1\n"}));
}

TEST(CacheFlush, WithNothingToStoreSucceedsWithoutTheStore) {
  Script script;
  auto cache = fake_cache(script);
  EXPECT_TRUE(cache->flush());
  add(*cache, "a");
  EXPECT_TRUE(cache->flush());
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(script.stored, Messages{"a=1\n"});
  script.succeeds = false;
  EXPECT_TRUE(cache->flush());
}

TEST(CacheFlush, TheDestructorStoresOnlyTheRest) {
  Script script;
  auto cache = fake_cache(script);
  for (const char* key : {"a", "d", "b"}) {
    add(*cache, key);
  }
  cache->flush();
  add(*cache, "cc");
  add(*cache, "c");
  cache.reset();
  EXPECT_EQ(script.stored, (Messages{"a=1\nb=1\nd=1\n", "c=1\ncc=1\n"}));
}

TEST(CacheFlush, TheDestructorStoresNothingWhenAllIsStored) {
  Script script;
  auto cache = fake_cache(script);
  add(*cache, "a");
  cache->flush();
  cache.reset();
  EXPECT_EQ(script.stored, Messages{"a=1\n"});
}

TEST(CacheFlush, FailsWithoutAStoreForWhatWasAdded) {
  Cache no_store("maps", nullptr, true);
  EXPECT_TRUE(no_store.flush());
  add(no_store, "a");
  EXPECT_FALSE(no_store.flush());
  EXPECT_FALSE(no_store.flush());
  EXPECT_EQ(no_store.size(), 1u);
  Cache invalid("maps", nullptr, false);
  add(invalid, "a");
  EXPECT_TRUE(invalid.flush());  // it has taken nothing
}

TEST(CacheFlush, LeavesTheEntriesInTheCache) {
  Script script;
  auto cache = fake_cache(script);
  add(*cache, "b");
  const auto* value = cache->get_value(buffer("b"));
  cache->flush();
  add(*cache, "a");
  EXPECT_EQ(cache->get_value(buffer("b")), value);
  EXPECT_FALSE(add(*cache, "b"));
  EXPECT_EQ(cache->size(), 3u);
  EXPECT_EQ(test::listing(*cache), "old=0\na=1\nb=1\n");
}

// --- a store that fails ---

TEST(CacheFlush, WhatFailedIsTriedAgainByTheNextFlushAndTheDestructor) {
  Script script;
  auto cache = fake_cache(script);
  add(*cache, "a");
  script.succeeds = false;
  EXPECT_FALSE(cache->flush());
  add(*cache, "b");
  EXPECT_FALSE(cache->flush());
  cache.reset();
  EXPECT_EQ(script.stored, (Messages{"a=1\n", "a=1\nb=1\n", "a=1\nb=1\n"}));
}

SCENARIO(flushes) {
  Script script;
  auto cache = fake_cache(script);
  cache->flush();
  add(*cache, "a");
  add(*cache, "b");
  script.succeeds = arguments.at(0) == "stores";
  script.throws = arguments.at(0) == "throws";
  std::printf("%d ", cache->flush());
  script.succeeds = true;
  script.throws = false;
  std::printf("%d", cache->flush());
  add(*cache, "c");
  cache.reset();
  return 0;
}

Messages messages_of_flushes(const std::string& what, const char* out) {
  const Ran ran = run_scenario("flushes", {}, {what});
  EXPECT_EQ(ran.out, out);
  Messages messages = without_lines(ran.messages());
  EXPECT_GE(messages.size(), 2u);
  messages.erase(messages.begin(), messages.begin() + 2);  // of the construction
  return messages;
}

std::string stored_record(int entries) {
  return "DEBUG Stored maps cache diff data with FakeStore store type, num diff entries = " +
         std::to_string(entries);
}

TEST(CacheFlush, LogsWhatTheDestructorLogs) {
  EXPECT_EQ(messages_of_flushes("stores", "1 1"), (Messages{stored_record(2), stored_record(1)}));
}

TEST(CacheFlush, AFailureIsTheDestructorsCheckOfSeverity1) {
  const std::string lost = expectation("store_->try_store_diff(diff_map_)");
  EXPECT_EQ(messages_of_flushes("fails", "0 1"),
            (Messages{lost, stored_record(2), stored_record(1)}));
  EXPECT_EQ(messages_of_flushes("throws", "0 1"),
            (Messages{"ERROR Storing maps cache failed: no room", lost, stored_record(2),
                      stored_record(1)}));
}

// --- threads ---

SCENARIO(use_during_a_flush) {
  alarm(kHangSeconds);
  Script script;
  auto cache = fake_cache(script);
  bool works = false;
  script.meanwhile = [&] {
    in_thread([&] {
      works = cache->get_value(buffer("old")) != nullptr &&
              cache->get_value(buffer("a")) != nullptr && !add(*cache, "a") && add(*cache, "b") &&
              cache->get_value(buffer("b")) != nullptr && cache->size() == 3;
    });
  };
  add(*cache, "a");
  const bool flushed = cache->flush();
  std::printf("%d %d\n", works, flushed);
  cache->flush();
  std::printf("%s%s", script.stored.at(0).c_str(), script.stored.at(1).c_str());
  return 0;
}

TEST(CacheFlush, LookUpsAndAdditionsGoOnWhileTheStoreWorks) {
  EXPECT_EQ(run_scenario("use_during_a_flush").out, "1 1\na=1\nb=1\n");
}

SCENARIO(cancelled_flush) {
  alarm(kHangSeconds);
  Script script;
  auto cache = fake_cache(script);
  script.meanwhile = [] {
    pthread_cancel(pthread_self());
    pthread_testcancel();
  };
  bool flushed = false;
  in_thread([&] {
    add(*cache, "a");
    flushed = cache->flush();
  });
  add(*cache, "b");
  const bool flushed_then = cache->flush();
  std::printf("%d %d", flushed, flushed_then);
  return 0;
}

TEST(CacheFlush, ACancelledThreadEndsItsFlushFirst) {
  EXPECT_EQ(run_scenario("cancelled_flush").out, "1 1");
}

// Counts for itself: nothing orders the threads but the cache.
class CountingStore : public Store {
 public:
  std::string type() const override { return "CountingStore"; }
  bool is_valid() const override { return true; }
  bool try_load(EntryMap& /*out*/) override { return true; }
  bool try_store_diff(const EntryMap& diff) override {
    for (const auto& [key, value] : diff) {
      ++times_[test::bytes_of(key)];  // a data race unless flushes exclude each other
    }
    return ++calls_ % 3 != 0 || !may_fail_;
  }

  std::map<std::string, int> times_;
  int calls_ = 0;
  bool may_fail_ = false;
};

TEST(CacheFlush, OfManyThreadsStoresEachEntryOnce) {
  constexpr int kThreads = 8;
  constexpr int kKeys = 300;
  auto owned = std::make_unique<CountingStore>();
  CountingStore& store = *owned;
  Cache cache("maps", std::move(owned), false);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kKeys; ++i) {
        const std::string key = "k" + std::to_string((i * (t + 1)) % kKeys);
        add(cache, key, std::to_string(t));
        wrong += cache.get_value(buffer(key)) == nullptr;
        wrong += i % 10 == 0 && !cache.flush();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(cache.flush());
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(store.times_.size(), cache.size());
  for (const auto& [key, times] : store.times_) {
    EXPECT_EQ(times, 1) << key;
  }
}

// --- automatic flushes ---

TEST_P(CacheFlushToFiles, AreMadeByTheAdditionThatReachesTheNumber) {
  const TempDir root;
  EXPECT_EQ(run("automatic_flushes", root, {"3"}).out, "0 0 3 3 3 6 6 \n7");
}

TEST_P(CacheFlushToFiles, AreNotMadeByAdditionsUnlessANumberIsSet) {
  const TempDir root;
  EXPECT_EQ(run("automatic_flushes", root, {"0"}).out, "0 0 0 0 0 0 0 \n7");
}

// A refused addition doesn't count.
SCENARIO(automatic_flushes) {
  auto cache = file_cache(arguments.at(0), std::stoul(arguments.at(1)));
  for (int i = 0; i < 7; ++i) {
    add(*cache, "k" + std::to_string(i));
    add(*cache, "k0");
    std::printf("%zu ", keys_in_file(arguments.at(0), root()).size());
  }
  cache.reset();
  std::printf("\n%zu", keys_in_file(arguments.at(0), root()).size());
  return 0;
}

TEST(CacheAutomaticFlush, IsOffByDefault) {
  const BasicStore store("maps", std::make_shared<test::CountingLock>(), &no_limit());
  EXPECT_EQ(store.flush_after(), 0u);
}

TEST(CacheAutomaticFlush, TheNumberIsKept) {
  BasicStore store("maps", std::make_shared<test::CountingLock>(), &no_limit());
  store.set_flush_after(1000000000000);
  EXPECT_EQ(store.flush_after(), 1000000000000u);
}

// A store in a file whose appends are scripted.
class ScriptedFileStore : public FileStoreSkeleton {
 public:
  explicit ScriptedFileStore(Script& script)
      : FileStoreSkeleton(1, "", std::make_shared<test::CountingLock>(), &no_limit()),
        fake_(script) {}
  std::string type() const override { return fake_.type(); }
  bool try_nonlock_append(const EntryMap& diff, const quorvane::cache::KeySet&) override {
    return fake_.try_store_diff(diff);
  }
  bool try_nonlock_load(EntryMap&) override { return true; }
  bool try_nonlock_load_new_keys(quorvane::cache::KeySet&) override { return true; }
  std::uint64_t nonlock_get_disk_usage() const override { return 0; }
  void nonlock_clean() override {}

 private:
  FakeStore fake_;
};

std::unique_ptr<Cache> flushing_cache(Script& script, std::uint64_t flush_after) {
  auto store = std::make_unique<ScriptedFileStore>(script);
  store->set_flush_after(flush_after);
  return std::make_unique<Cache>("maps", std::move(store), false);
}

SCENARIO(additions_during_an_automatic_flush) {
  alarm(kHangSeconds);
  Script script;
  auto cache = flushing_cache(script, 2);
  script.meanwhile = [&] {
    in_thread([&] {
      for (const char* key : {"c", "d", "e"}) {
        add(*cache, key);
      }
    });
  };
  add(*cache, "a");
  add(*cache, "b");
  std::printf("%zu ", script.stored.size());
  add(*cache, "f");
  std::printf("%s%s", script.stored.at(0).c_str(), script.stored.at(1).c_str());
  return 0;
}

TEST(CacheAutomaticFlush, AdditionsOfOtherThreadsDoNotWaitForIt) {
  EXPECT_EQ(run_scenario("additions_during_an_automatic_flush").out,
            "1 a=1\nb=1\nc=1\nd=1\ne=1\nf=1\n");
}

TEST(CacheAutomaticFlush, AFailureLeavesTheAdditionAndIsTriedAgainAtTwiceTheNumber) {
  Script script;
  script.succeeds = false;
  auto cache = flushing_cache(script, 2);
  std::vector<std::size_t> calls;
  for (const char* key : {"a", "b", "c", "d", "e", "f", "g"}) {
    EXPECT_TRUE(add(*cache, key));
    calls.push_back(script.stored.size());
  }
  EXPECT_EQ(calls, (std::vector<std::size_t>{0, 1, 1, 2, 2, 2, 2}));
  script.succeeds = true;
  add(*cache, "h");
  EXPECT_EQ(script.stored.back(), "a=1\nb=1\nc=1\nd=1\ne=1\nf=1\ng=1\nh=1\n");
  add(*cache, "i");
  add(*cache, "j");
  EXPECT_EQ(script.stored.back(), "i=1\nj=1\n");
}

TEST(CacheAutomaticFlush, AFlushStartsTheCountAgain) {
  Script script;
  auto cache = flushing_cache(script, 3);
  add(*cache, "a");
  add(*cache, "b");
  cache->flush();
  add(*cache, "c");
  add(*cache, "d");
  EXPECT_EQ(script.stored.size(), 1u);
  add(*cache, "e");
  EXPECT_EQ(script.stored.back(), "c=1\nd=1\ne=1\n");
}

// --- forks ---

TEST(CacheFlushFork, AChildDoesNotStoreAgainWhatItsParentFlushed) {
  Script script;
  auto cache = fake_cache(script);
  add(*cache, "a");
  cache->flush();
  add(*cache, "b");
  const pid_t child = in_child([&] {
    add(*cache, "c");
    cache->flush();
    add(*cache, "d");
    cache.reset();
    return script.stored == Messages{"a=1\n", "b=1\nc=1\n", "d=1\n"} ? 0 : 1;
  });
  EXPECT_EQ(wait_for(child), 0);
}

// The child is forked while the store works. It neither waits for its parent's flush nor loses
// what that flush was about to store.
SCENARIO(fork_during_a_flush) {
  alarm(kHangSeconds);
  Script script;
  auto cache = fake_cache(script);
  int status = -1;
  script.meanwhile = [&] {
    in_thread([&] {
      status = wait_for(in_child([&] {
        alarm(kHangSeconds);
        add(*cache, "b");
        const bool flushed = cache->flush() && cache->get_value(buffer("a")) != nullptr;
        add(*cache, "c");
        cache.reset();
        return flushed && script.stored == Messages{"a=1\n", "a=1\nb=1\n", "c=1\n"} ? 0 : 1;
      }));
    });
  };
  add(*cache, "a");
  const bool flushed = cache->flush();
  cache.reset();
  std::printf("%d %d %zu", status, flushed, script.stored.size());
  return 0;
}

TEST(CacheFlushFork, AChildThatIsForkedDuringAFlushHangsNotAndLosesNothing) {
  EXPECT_EQ(run_scenario("fork_during_a_flush").out, "0 1 1");
}

SCENARIO(fork_with_unstored_entries) {
  auto cache = file_cache(arguments.at(0));
  add(*cache, "flushed");
  cache->flush();
  add(*cache, "both");
  const pid_t child = in_child([&] {
    const bool flushed = cache->flush();
    add(*cache, "child");
    cache.reset();
    return flushed ? 0 : 1;
  });
  const bool flushed = cache->flush();
  add(*cache, "parent");
  cache.reset();
  return wait_for(child) == 0 && flushed ? 0 : 1;
}

TEST_P(CacheFlushToFiles, OfParentAndChildStoreEachEntryOnce) {
  for (int i = 0; i < 10; ++i) {
    const TempDir root;
    const Ran ran = run("fork_with_unstored_entries", root);
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.messages(), Messages{});
    std::vector<std::string> keys = keys_in_file(GetParam(), root.path());
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(keys, (std::vector<std::string>{"both", "child", "flushed", "parent"}));
  }
}

// Forks when it has read the keys that others have appended. The child waits for its parent's
// lock, so it is waited for later.
template <typename FileStore>
class ForkingStore : public FileStore {
 public:
  using FileStore::FileStore;
  bool try_nonlock_load_new_keys(quorvane::cache::KeySet& keys) override {
    const bool read = FileStore::try_nonlock_load_new_keys(keys);
    if (at_fork) {
      const auto in_the_child = std::exchange(at_fork, nullptr);
      in_thread([&] { child = in_child(in_the_child); });
    }
    return read;
  }

  std::function<int()> at_fork;
  pid_t child = -1;
};

template <typename FileStore>
bool fork_while_keys_are_read(const std::string& kind) {
  auto others = file_cache(kind);
  auto lock = std::make_shared<quorvane::cache::StoreFLock>("maps");
  auto owned = std::make_unique<ForkingStore<FileStore>>("maps", lock, &no_limit());
  auto& store = *owned;
  auto cache = std::make_unique<Cache>("maps", std::move(owned), false);
  add(*others, "a", "others");
  others->flush();
  add(*cache, "b");
  store.at_fork = [&] {
    alarm(kHangSeconds);
    add(*cache, "a", "of the child");
    add(*cache, "c");
    const bool flushed = cache->flush();
    add(*cache, "d");
    cache.reset();
    return flushed ? 0 : 1;
  };
  const bool flushed = cache->flush();
  const int status = wait_for(store.child);
  return status == 0 && flushed;
}

SCENARIO(fork_while_keys_are_read) {
  return (arguments.at(0) == kLazy
              ? fork_while_keys_are_read<quorvane::cache::LazyLookupStore>(kLazy)
              : fork_while_keys_are_read<BasicStore>("basic"))
             ? 0
             : 1;
}

TEST_P(CacheFlushToFiles, InAChildThatIsForkedWhileKeysAreReadStoreEachEntryOnce) {
  const TempDir root;
  const Ran ran = run("fork_while_keys_are_read", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
  expect_files_of(GetParam(), root, {{"a", {"others"}}, {"b", {"1"}}, {"c", {"1"}}, {"d", {"1"}}});
}

SCENARIO(forks_beside_flushes) {
  constexpr int kForks = 50;
  auto cache = file_cache(arguments.at(0), 5);
  std::atomic<bool> done{false};
  std::thread flushing([&] {
    for (int i = 0; !done; ++i) {
      add(*cache, "k" + std::to_string(i % 500));
      cache->flush();
    }
  });
  int failures = 0;
  for (int i = 0; i < kForks; ++i) {
    failures += wait_for(in_child([&] {
                  alarm(kHangSeconds);
                  const bool good = add(*cache, "child" + std::to_string(i)) && cache->flush();
                  cache.reset();
                  return good ? 0 : 1;
                })) != 0;
  }
  done = true;
  flushing.join();
  return failures;
}

#ifndef QV_SANITIZED  // whose allocators a fork may catch locked
TEST_P(CacheFlushToFiles, BesideForksHangNobodyAndStoreEachEntryOnce) {
  const TempDir root;
  const Ran ran = run("forks_beside_flushes", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
  std::vector<std::string> keys = keys_in_file(GetParam(), root.path());
  const std::size_t stored = keys.size();
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  EXPECT_EQ(keys.size(), stored);
  EXPECT_EQ(std::count_if(keys.begin(), keys.end(),
                          [](const std::string& key) { return key.rfind("child", 0) == 0; }),
            50);
}
#endif

// --- several processes ---

// Two caches of one file, as two processes have them, each with a lock of its own.
SCENARIO(two_processes_flush) {
  auto ours = file_cache(arguments.at(0));
  auto others = file_cache(arguments.at(0));
  const auto flush_in_child = [&] {
    return wait_for(in_child([&] { return others->flush() ? 0 : 1; })) == 0;
  };
  add(*ours, "b", "ours");
  add(*ours, "a", "ours");
  bool good = ours->flush();
  add(*others, "a", "others");
  add(*others, "c", "others");
  good = flush_in_child() && good;
  add(*ours, "c", "ours");
  add(*ours, "d", "ours");
  good = ours->flush() && good;
  add(*others, "e", "others");
  good = flush_in_child() && good;
  ours.reset();
  return good ? 0 : 1;
}

TEST_P(CacheFlushToFiles, OfTwoProcessesStoreEachKeyOnce) {
  const TempDir root;
  const Ran ran = run("two_processes_flush", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
  expect_files_of(
      GetParam(), root,
      {{"a", {"ours"}}, {"b", {"ours"}}, {"c", {"others"}}, {"d", {"ours"}}, {"e", {"others"}}});
}

// A later flush of ours reads only what is new, and must still know of what it read before.
SCENARIO(flush_after_another_process) {
  auto ours = file_cache(arguments.at(0));
  auto others = file_cache(arguments.at(0));
  add(*others, "a", "others");
  bool good = others->flush();
  add(*ours, "b", "ours");
  good = ours->flush() && good;
  add(*ours, "a", "ours");
  add(*ours, "c", "ours");
  good = ours->flush() && good;
  ours.reset();
  return good ? 0 : 1;
}

TEST_P(CacheFlushToFiles, RememberWhatAnotherProcessStoredBeforeAnEarlierOne) {
  const TempDir root;
  const Ran ran = run("flush_after_another_process", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
  expect_files_of(GetParam(), root, {{"a", {"others"}}, {"b", {"ours"}}, {"c", {"ours"}}});
}

// The second flush brings the files over the threshold. What follows goes into new ones, even
// under keys that the old ones held.
SCENARIO(flush_beyond_the_threshold) {
  CleanupController limit(600);
  auto others = file_cache(arguments.at(0));
  add(*others, "loaded", "others");
  bool good = others->flush();
  Cache cache("maps", make_file_store(kind_of(arguments.at(0)), "maps", &limit), false);
  add(*others, "a", "others");
  good = others->flush() && good && cache.size() == 1;
  add(cache, "b");
  good = cache.flush() && good;
  add(cache, "large", std::string(1000, 'x'));
  good = cache.flush() && good && keys_in_file(arguments.at(0), root()).empty();
  add(cache, "a", "ours");
  good = cache.flush() && good;
  add(cache, "c");
  return cache.flush() && good ? 0 : 1;
}

TEST_P(CacheFlushToFiles, GoOnInNewFilesWhenTheOldOnesWereCleaned) {
  const TempDir root;
  const Ran ran = run("flush_beyond_the_threshold", root);
  EXPECT_TRUE(ran.exited_with(0));
  expect_files_of(GetParam(), root, {{"a", {"ours"}}, {"c", {"1"}}});
}

// Another process deletes the files and writes longer ones. What they hold isn't stored again.
SCENARIO(flush_to_replaced_files) {
  auto ours = file_cache(arguments.at(0));
  add(*ours, "a", "ours");
  bool good = ours->flush();
  add(*ours, "b", "ours");
  good = ours->flush() && good;
  for (const auto& file : std::filesystem::directory_iterator(root())) {
    if (file.path().filename().string().rfind("lock", 0) != 0) {
      std::filesystem::remove(file.path());
    }
  }
  auto others = file_cache(arguments.at(0));
  for (const char* key : {"c", "d", "e", "f"}) {
    add(*others, key, "others");
  }
  good = others->flush() && good;
  add(*ours, "c", "ours");
  add(*ours, "g", "ours");
  return ours->flush() && good ? 0 : 1;
}

TEST_P(CacheFlushToFiles, StoreNothingTwiceInFilesThatOthersHaveReplaced) {
  const TempDir root;
  const Ran ran = run("flush_to_replaced_files", root);
  EXPECT_TRUE(ran.exited_with(0));
  expect_files_of(GetParam(), root,
                  {{"c", {"others"}},
                   {"d", {"others"}},
                   {"e", {"others"}},
                   {"f", {"others"}},
                   {"g", {"ours"}}});
}

// A flush without descriptors fails, but forgets no key that it has read.
SCENARIO(flush_without_descriptors) {
  auto ours = file_cache(arguments.at(0));
  auto others = file_cache(arguments.at(0));
  add(*ours, "a", "ours");
  bool good = ours->flush();
  add(*others, "b", "others");
  good = others->flush() && good;
  add(*ours, "c", "ours");
  good = ours->flush() && good;  // reads "b"
  add(*ours, "b", "ours");
  const rlimit none{0, 1024};
  good = setrlimit(RLIMIT_NOFILE, &none) == 0 && !ours->flush() && good;
  const rlimit some{1024, 1024};
  good = setrlimit(RLIMIT_NOFILE, &some) == 0 && ours->flush() && good;
  return good ? 0 : 1;
}

TEST_P(CacheFlushToFiles, StoreNothingTwiceAfterAFlushWithoutDescriptors) {
  const TempDir root;
  const Ran ran = run("flush_without_descriptors", root);
  EXPECT_TRUE(ran.exited_with(0));
  expect_files_of(GetParam(), root, {{"a", {"ours"}}, {"b", {"others"}}, {"c", {"ours"}}});
}

SCENARIO(many_processes_flush) {
  constexpr int kProcesses = 6;
  constexpr int kKeys = 200;
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    children.push_back(in_child([&] {
      auto cache = file_cache(arguments.at(0), 7);
      bool good = cache->is_valid();
      for (int i = 0; i < kKeys; ++i) {
        add(*cache, "k" + std::to_string(i), std::to_string(process));
        good = (i % 20 != 0 || cache->flush()) && good;
      }
      cache.reset();
      return good ? 0 : 1;
    }));
  }
  int failures = 0;
  for (const pid_t child : children) {
    failures += wait_for(child) != 0;
  }
  return failures;
}

TEST_P(CacheFlushToFiles, OfManyProcessesAtOnceStoreEachKeyOnce) {
  const TempDir root;
  const Ran ran = run("many_processes_flush", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
  std::vector<std::string> keys = keys_in_file(GetParam(), root.path());
  EXPECT_EQ(keys.size(), 200u);
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  EXPECT_EQ(keys.size(), 200u);
}

// A killed process loses only what it hasn't flushed.
SCENARIO(killed_after_a_flush) {
  auto cache = file_cache(arguments.at(0));
  add(*cache, "flushed");
  cache->flush();
  add(*cache, "lost");
  _exit(0);
}

TEST_P(CacheFlushToFiles, SurviveTheirProcess) {
  const TempDir root;
  run("killed_after_a_flush", root);
  expect_files_of(GetParam(), root, {{"flushed", {"1"}}});
}

// --- without memory ---

SCENARIO(flush_without_memory) {
  const std::vector<Entry> first{{"a", {"1"}}};
  const std::vector<Entry> then{{"b", {"2", "3"}}, {"large", {std::string(20000, 'n')}}};
  bool failed = true;
  std::size_t successes = 0;
  for (; failed; ++successes) {
    for (const char* file : {"/maps", "/key_maps", "/val_maps"}) {
      std::remove((root() + file).c_str());
    }
    auto cache = file_cache(arguments.at(0));
    cache->add_value(buffer("a"), buffers(first.at(0).atoms));
    cache->flush();
    for (const Entry& entry : then) {
      cache->add_value(buffer(entry.key), buffers(entry.atoms));
    }
    test::FailingAllocation failing(successes);
    const bool flushed = cache->flush();
    failed = test::FailingAllocation::end();
    const std::size_t keys = keys_in_file(arguments.at(0), root()).size();
    if (keys != (flushed ? 3 : 1) || !(failed || flushed)) {
      std::printf("%d with %zu keys after %zu allocations\n", flushed, keys, successes);
    }
    if (!cache->flush() || keys_in_file(arguments.at(0), root()).size() != 3) {
      std::printf("not repaired after %zu allocations\n", successes);
    }
  }
  std::printf("%d", successes > 10);
  return 0;
}

TEST_P(CacheFlushToFiles, WithoutMemoryFailAndCanBeRepeated) {
  const TempDir root;
  EXPECT_EQ(run("flush_without_memory", root).out, "1");
}

// Allocates nothing.
class SizingStore : public Store {
 public:
  explicit SizingStore(std::size_t& entries) : entries_(entries) {}
  std::string type() const override { return "Sizing"; }
  bool is_valid() const override { return true; }
  bool try_load(EntryMap& /*out*/) override { return true; }
  bool try_store_diff(const EntryMap& diff) override {
    entries_ += diff.size();
    return true;
  }

 private:
  std::size_t& entries_;
};

SCENARIO(store_without_any_memory) {
  std::size_t stored = 0;
  auto cache = std::make_unique<Cache>("maps", std::make_unique<SizingStore>(stored), false);
  add(*cache, "a");
  add(*cache, "b");
  test::no_memory_from = 0;
  const bool flushed = cache->flush();
  test::no_memory_from = test::kEnoughMemory;
  const bool flushed_then = cache->flush();
  add(*cache, "c");
  test::no_memory_from = 0;
  cache.reset();
  test::no_memory_from = test::kEnoughMemory;
  std::printf("%d %d %zu", flushed, flushed_then, stored);
  return 0;
}

TEST(CacheFlush, WithoutMemoryIsAFailureButTheDestructorNeedsNone) {
  const Ran ran = run_scenario("store_without_any_memory");
  EXPECT_EQ(ran.out, "0 1 3");
  const std::string stored = "DEBUG Stored maps cache diff data with Sizing store type, ";
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{"INFO Created maps cache with Sizing store type",
                      "ERROR Storing maps cache failed: std::bad_alloc",
                      expectation("store_->try_store_diff(diff_map_)"),
                      stored + "num diff entries = 2", stored + "num diff entries = 1"}));
}
