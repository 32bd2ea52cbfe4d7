// Many processes on one cache, forks while other threads are busy, and caches that are used
// before and after main.
#include <gtest/gtest.h>
#include <pthread.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "support/lazy_files.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::make_file_store;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using test::basic_file;
using test::buffer;
using test::buffers;
using test::in_child;
using test::kHangSeconds;
using test::Ran;
using test::StoreRoot;
using test::wait_for;
using Messages = std::vector<std::string>;

namespace {

// The first look-up of a process without statistics logs this, whatever QV_LOG_LEVEL says.
const std::string kStatisticsOff = "INFO Statistics capture disabled.";

constexpr int kProcesses = 8;
constexpr int kRounds = 50;
constexpr int kKeysPerRound = 6;

// The kind of store that a scenario uses.
constexpr const char* kKindVariable = "QVTEST_STORE_KIND";
const std::string kLazy = "lazy";

StoreKind kind() {
  const char* name = getenv(kKindVariable);
  return name != nullptr && name == kLazy ? StoreKind::lazy_lookup : StoreKind::basic;
}

std::unique_ptr<Cache> maps_cache() {
  return std::make_unique<Cache>("maps", test::maps_store(kind()), false);
}

// A store without entries, but with the files that its kind needs.
std::unique_ptr<Store> store_with_lock(const std::shared_ptr<Store::Lock>& lock) {
  if (kind() == StoreKind::basic) {
    return std::make_unique<quorvane::cache::BasicStore>("maps", lock, &test::no_limit());
  }
  test::maps_store(kind());
  return std::make_unique<quorvane::cache::LazyLookupStore>("maps", lock, &test::no_limit());
}

bool add(Cache& cache, const std::string& key, const std::string& value) {
  return cache.add_value(buffer(key), buffers({value}));
}

// A barrier that several processes share.
class SharedBarrier {
 public:
  explicit SharedBarrier(unsigned processes)
      : barrier_(static_cast<pthread_barrier_t*>(mmap(nullptr, sizeof(pthread_barrier_t),
                                                      PROT_READ | PROT_WRITE,
                                                      MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    pthread_barrierattr_t shared;
    pthread_barrierattr_init(&shared);
    pthread_barrierattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
    pthread_barrier_init(barrier_, &shared, processes);
  }
  void wait() { pthread_barrier_wait(barrier_); }

 private:
  pthread_barrier_t* barrier_;
};

// How often each key occurs in the file that holds the keys, which must be intact.
std::map<std::string, int> occurrences(const std::string& kind, const StoreRoot& root) {
  std::map<std::string, int> times;
  const auto count = [&times](const std::vector<test::Entry>& entries) {
    for (const test::Entry& entry : entries) {
      ++times[entry.key];
    }
  };
  if (kind == kLazy) {
    const test::LazyFiles files = test::read_lazy_files(root.path());
    const test::LazyWalk walk = test::walk_lazy_files(files, "", true);
    EXPECT_EQ(walk.messages, Messages{});
    count(walk.entries);
    return times;
  }
  const test::Walk walk = test::walk_basic_file(test::read_file(root.file("maps")));
  EXPECT_EQ(walk.failed_check, "");
  count(walk.entries);
  for (const std::string& key : walk.collisions) {
    ++times[key];
  }
  return times;
}

void expect_files_of(const std::string& kind, const StoreRoot& root,
                     const std::vector<test::Entry>& entries) {
  if (kind == kLazy) {
    EXPECT_EQ(test::read_lazy_files(root.path()), test::lazy_files(entries));
  } else {
    EXPECT_EQ(test::read_file(root.file("maps")), basic_file(entries));
  }
}

// Parameter: the kind of store.
class OfEitherKind : public testing::TestWithParam<const char*> {
 protected:
  Ran run(const std::string& scenario, const StoreRoot& root, test::Environment more = {},
          const test::Arguments& arguments = {}) const {
    more.emplace(kKindVariable, GetParam());
    return root.run(scenario, arguments, "WARN", more);
  }
};

class CacheProcesses : public OfEitherKind {
 protected:
  void expect_every_key_once(const std::string& how) const {
    const StoreRoot root;
    const Ran ran = run("overlapping_adders", root, {}, {how});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.messages(), Messages{});
    const std::map<std::string, int> times = occurrences(GetParam(), root);
    EXPECT_EQ(times.size(), static_cast<std::size_t>(kRounds * kKeysPerRound));
    for (const auto& [key, count] : times) {
      EXPECT_EQ(count, 1) << key;
    }
  }
};
class CacheFork : public OfEitherKind {};
class CacheOutsideMain : public OfEitherKind {};

std::string name_of(const testing::TestParamInfo<const char*>& tested) { return tested.param; }

INSTANTIATE_TEST_SUITE_P(, CacheProcesses, testing::Values("basic", "lazy"), name_of);
INSTANTIATE_TEST_SUITE_P(, CacheFork, testing::Values("basic", "lazy"), name_of);
INSTANTIATE_TEST_SUITE_P(, CacheOutsideMain, testing::Values("basic", "lazy"), name_of);

}  // namespace

// --- many processes ---

// Each process adds some of the keys of each round, and several processes add each key. With a
// barrier, all processes load before any of them stores.
int add_for_all_rounds(int process, SharedBarrier* barrier) {
  for (int round = 0; round < kRounds; ++round) {
    auto cache = maps_cache();
    if (!cache->is_valid()) {
      return 1;
    }
    if (barrier != nullptr) {
      barrier->wait();
    }
    for (int i = 0; i < kKeysPerRound; ++i) {
      if ((process + i) % 3 != 0) {
        add(*cache, "round" + std::to_string(round) + "-" + std::to_string(i),
            "of " + std::to_string(process));
      }
    }
    cache.reset();
    if (barrier != nullptr) {
      barrier->wait();
    }
  }
  return 0;
}

SCENARIO(overlapping_adders) {
  SharedBarrier barrier(kProcesses);
  const bool together = arguments.at(0) == "together";
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    children.push_back(
        in_child([&] { return add_for_all_rounds(process, together ? &barrier : nullptr); }));
  }
  int failures = 0;
  for (const pid_t child : children) {
    failures += wait_for(child) != 0;
  }
  return failures;
}

TEST_P(CacheProcesses, ThatStoreAtTheSameTimeLeaveEachKeyOnce) {
  expect_every_key_once("together");
}

TEST_P(CacheProcesses, ThatLoadWhileOthersStoreLeaveEachKeyOnce) { expect_every_key_once("apart"); }

// --- forks ---

SCENARIO(fork_with_a_cache) {
  auto cache = maps_cache();
  add(*cache, "before", "1");
  const pid_t child = in_child([&] {
    add(*cache, "both", "child");
    add(*cache, "child", "1");
    cache.reset();
    return 0;
  });
  add(*cache, "both", "parent");
  add(*cache, "parent", "1");
  if (arguments.at(0) == "child first") {
    wait_for(child);
    cache.reset();
    return 0;
  }
  cache.reset();
  return wait_for(child);
}

TEST_P(CacheFork, WhatParentAndChildAddIsStoredOnce) {
  for (const char* order : {"child first", "any order"}) {
    const StoreRoot root;
    const Ran ran = run("fork_with_a_cache", root, {}, {order});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.messages(), Messages{});
    EXPECT_EQ(
        occurrences(GetParam(), root),
        (std::map<std::string, int>{{"before", 1}, {"both", 1}, {"child", 1}, {"parent", 1}}));
  }
}

SCENARIO(child_stores_while_parent_holds_the_lock) {
  const auto lock = std::make_shared<quorvane::cache::StoreFLock>("maps");
  auto cache = std::make_unique<Cache>("maps", store_with_lock(lock), false);
  const std::string file = test::root_file(kind() == StoreKind::basic ? "maps" : "val_maps");
  const std::string before = test::read_file(file);
  add(*cache, "key", "1");
  test::Signpost stored;
  lock->lock();
  const pid_t child = in_child([&] {
    cache.reset();
    stored.pass();
    return 0;
  });
  const bool waits = test::waits_for_lock(child, stored);
  const bool wrote_early = test::read_file(file) != before;
  lock->unlock();
  const int status = wait_for(child);
  std::printf("%d %d %d", waits, wrote_early, status);
  return 0;
}

TEST_P(CacheFork, AChildStoresOnlyOnceItsParentReleasesTheLock) {
  const StoreRoot root;
  EXPECT_EQ(run("child_stores_while_parent_holds_the_lock", root).out, "1 0 0");
  expect_files_of(GetParam(), root, {{"key", {"1"}}});
}

constexpr int kForks = 200;

// Threads that look up, add, log and load until the object is destroyed.
class BusyThreads {
 public:
  explicit BusyThreads(Cache& cache) {
    start([&cache, key = buffer("k1")](int) { cache.get_value(key); });
    start([](int) {
      QV_LOG(static_cast<quorvane::module::Module*>(qv_module_find("util/src/cache")), INFO,
             "busy");
    });
#ifndef QV_SANITIZED  // a fork may leave the sanitizers' allocators locked
    start([&cache](int i) { add(cache, "k" + std::to_string(i % 500), "busy"); });
    start([](int) { maps_cache(); });
#endif
  }
  ~BusyThreads() {
    done_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  BusyThreads(const BusyThreads&) = delete;
  BusyThreads& operator=(const BusyThreads&) = delete;

 private:
  template <typename Work>
  void start(Work work) {
    threads_.emplace_back([this, work] {
      for (int i = 0; !done_; ++i) {
        work(i);
      }
    });
  }

  std::atomic<bool> done_{false};
  std::vector<std::thread> threads_;
};

int use_the_copy(std::unique_ptr<Cache>& cache, int fork_number) {
  alarm(kHangSeconds);
  const std::string key = "child" + std::to_string(fork_number);
  const bool good = cache->get_value(buffer(key)) == nullptr && add(*cache, key, "child") &&
                    cache->get_value(buffer(key)) != nullptr && cache->size() > 0 &&
                    maps_cache()->is_valid();
  cache.reset();
  return good ? 0 : 1;
}

SCENARIO(forks_beside_busy_threads) {
  auto cache = maps_cache();
  cache->get_value(buffer("first"));
  int failures = 0;
  {
    const BusyThreads busy(*cache);
    for (int i = 0; i < kForks; ++i) {
      failures += wait_for(in_child([&] { return use_the_copy(cache, i); })) != 0;
    }
  }
  std::printf("%d", failures);
  return 0;
}

TEST_P(CacheFork, NoChildHangsWhateverTheOtherThreadsDidAtTheFork) {
  const StoreRoot root;
  const Ran ran = run("forks_beside_busy_threads", root);
  EXPECT_EQ(ran.out, "0");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{kStatisticsOff});
  const std::map<std::string, int> times = occurrences(GetParam(), root);
  for (int i = 0; i < kForks; ++i) {
    const auto found = times.find("child" + std::to_string(i));
    ASSERT_NE(found, times.end()) << i;
  }
  for (const auto& [key, count] : times) {
    EXPECT_EQ(count, 1) << key;
  }
}

// The first look-up of a process makes the counters. Here a fork may happen while another thread
// makes them.
SCENARIO(first_lookups_beside_a_fork) {
  Cache cache("volatile", nullptr, true);
  std::thread other([&] { cache.get_value(buffer("k")); });
  const pid_t child = in_child([&] {
    alarm(kHangSeconds);
    return cache.get_value(buffer("k")) == nullptr ? 0 : 1;
  });
  other.join();
  return wait_for(child) == 0 ? 0 : 1;
}

TEST_P(CacheFork, AFirstLookUpBesideAForkHangsNobody) {
  const StoreRoot root;
  for (int i = 0; i < 20; ++i) {
    const Ran ran = run("first_lookups_beside_a_fork", root);
    EXPECT_TRUE(ran.exited_with(0)) << i << ran.err;
  }
}

// --- exec ---

SCENARIO(exec_with_a_cache) {
  auto cache = maps_cache();
  add(*cache, "key", "1");
  execl("/bin/ls", "ls", "-l", "/proc/self/fd", nullptr);
  return 1;
}

TEST_P(CacheProcesses, ThatBecomeAnotherProgramLeaveItNoFileOfTheStore) {
  const StoreRoot root;
  const Ran ran = run("exec_with_a_cache", root);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_NE(ran.out.find("/dev/null"), std::string::npos);
  EXPECT_EQ(ran.out.find(root.path()), std::string::npos) << ran.out;
}

// --- before and after main ---

bool is_asked_for(const char* what) {
  const char* asked = getenv("QVTEST_LATE_USE");
  return asked != nullptr && std::string(asked) == what;
}

// Makes a cache in a static initialiser and holds it until its static destructor.
struct StaticUse {
  StaticUse() {
    if (is_asked_for("static")) {
      cache = maps_cache();
      found_at_start = cache->get_value(buffer("static")) != nullptr;
      add(*cache, "static", "1");
    }
  }
  ~StaticUse() {
    if (cache) {
      add(*cache, found_at_start ? "second" : "first", "at the end");
    }
  }

  std::unique_ptr<Cache> cache;
  bool found_at_start = false;
};
StaticUse g_static_use;

// Makes and uses a cache only after main.
struct LateUse {
  ~LateUse() {
    if (is_asked_for("destructor")) {
      add(*maps_cache(), "destructor", "1");
    }
  }
};
LateUse g_late_use;

SCENARIO(use_outside_main) {
  if (is_asked_for("atexit")) {
    std::atexit([] { add(*maps_cache(), "atexit", "1"); });
  }
  return 0;
}

TEST_P(CacheOutsideMain, ACacheHeldInAStaticObjectStoresAtTheEnd) {
  const StoreRoot root;
  for (int i = 0; i < 2; ++i) {
    const Ran ran = run("use_outside_main", root, {{"QVTEST_LATE_USE", "static"}});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.messages(), Messages{kStatisticsOff});
  }
  expect_files_of(GetParam(), root,
                  {{"first", {"at the end"}}, {"static", {"1"}}, {"second", {"at the end"}}});
}

TEST_P(CacheOutsideMain, ACacheWorksInAnExitHandlerAndInAStaticDestructor) {
  for (const char* when : {"atexit", "destructor"}) {
    const StoreRoot root;
    const Ran ran = run("use_outside_main", root, {{"QVTEST_LATE_USE", when}});
    EXPECT_TRUE(ran.exited_with(0)) << when;
    EXPECT_EQ(ran.messages(), Messages{}) << when;
    expect_files_of(GetParam(), root, {{when, {"1"}}});
  }
}

// The default controller, the counters and the log still work at exit.
SCENARIO(defaults_at_exit) {
  std::atexit([] {
    Cache cache("maps", make_file_store(kind(), "maps"), false);
    std::printf("%d", cache.get_value(buffer("k")) == nullptr && add(cache, "k", "1"));
    std::fflush(stdout);
  });
  return 0;
}

TEST_P(CacheOutsideMain, TheDefaultControllerIsThereAtExit) {
  const StoreRoot root;
  const Ran ran = run("defaults_at_exit", root,
                      {{"QV_CACHE_STORE_CLEANUP_THRESHOLD", "1000"}, {"QV_LOG_LEVEL", "INFO"}});
  EXPECT_EQ(ran.out, "1");
  EXPECT_TRUE(ran.exited_with(0));
  expect_files_of(GetParam(), root, {{"k", {"1"}}});
}
