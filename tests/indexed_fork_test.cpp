// Caches on indexed stores in children of fork and in many threads.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/indexed_cache.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_root.h"
#include "support/temp_dir.h"
#include "support/threads.h"

namespace {

using quorvane::cache::Cache;
using quorvane::cache::IndexedStore;
using quorvane::cache::StoreFLock;
using test::add;
using test::Entry;
using test::get;
using test::in_child;
using test::indexed_options;
using test::numbered;
using test::open_cache;
using test::Signpost;
using test::StoreRoot;
using test::TempDir;
using test::wait_for;
using Keys = std::vector<std::string>;

constexpr unsigned kHangSeconds = 100;

// Sorted, as often as they are stored.
Keys stored_keys(const std::string& root) {
  Keys keys;
  for (const Entry& entry : test::indexed_entries(root)) {
    keys.push_back(entry.key);
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

// --- forks ---

TEST(IndexedCacheInAChild, FindsWhatItsParentHadFoundAndAdded) {
  const TempDir root;
  {
    const auto writer = open_cache(root.path());
    add(*writer, "found", "1");
    add(*writer, "stored", "2");
  }
  const auto cache = open_cache(root.path());
  const auto* found = cache->get_value(test::buffer("found"));
  add(*cache, "added", "3");
  EXPECT_EQ(wait_for(in_child([&] {
              alarm(kHangSeconds);
              return cache->get_value(test::buffer("found")) == found &&
                             get(*cache, "stored") == "2" && get(*cache, "added") == "3" &&
                             !get(*cache, "missing") && cache->size() == 3
                         ? 0
                         : 1;
            })),
            0);
}

TEST(IndexedCacheInAChild, SharesWithItsParentWhatEitherFlushes) {
  const TempDir root;
  const auto cache = open_cache(root.path());
  add(*cache, "both", "1");
  Signpost child_has_flushed;
  Signpost parent_has_flushed;
  const pid_t child = in_child([&] {
    alarm(kHangSeconds);
    bool good = add(*cache, "child", "2") && cache->flush();
    child_has_flushed.pass();
    parent_has_flushed.await();
    good = get(*cache, "parent") == "3" && !add(*cache, "parent", "4") && good;
    return good ? 0 : 1;
  });
  child_has_flushed.await();
  EXPECT_EQ(get(*cache, "child"), "2");
  add(*cache, "parent", "3");
  EXPECT_TRUE(cache->flush());
  parent_has_flushed.pass();
  EXPECT_EQ(wait_for(child), 0);
  EXPECT_EQ(stored_keys(root.path()), (Keys{"both", "child", "parent"}));
}

// Ends by SIGKILL while it holds the lock. Its child, which has its cache, tells how it fared.
void kill_the_parent_of_a_cache(const std::string& root, int result) {
  setenv("QV_CACHE_STORE_ROOT", root.c_str(), 1);
  const auto lock = std::make_shared<StoreFLock>("maps");
  Cache cache("maps", std::make_unique<IndexedStore>("maps", lock, &test::no_limit()), false);
  add(cache, "before", "1");
  lock->lock();
  const pid_t parent = getpid();
  in_child([&] {
    alarm(kHangSeconds);
    while (getppid() == parent) {
      sched_yield();
    }
    const bool good = add(cache, "after", "2") && cache.flush() && get(cache, "before") == "1" &&
                      get(*open_cache(root), "after") == "2";
    return write(result, good ? "1" : "0", 1) == 1 ? 0 : 1;
  });
  raise(SIGKILL);
}

TEST(IndexedCacheInAChild, GoesOnWhenItsParentIsKilled) {
  const TempDir root;
  test::Pipe result;
  const pid_t parent = in_child([&] {
    kill_the_parent_of_a_cache(root.path(), result.ends[1]);
    return 0;
  });
  EXPECT_EQ(wait_for(parent), test::kKilledBy + SIGKILL);
  close(std::exchange(result.ends[1], -1));  // so that the read ends with the child
  char good = 0;
  EXPECT_EQ(read(result.ends[0], &good, 1), 1);
  EXPECT_EQ(good, '1');
  EXPECT_EQ(stored_keys(root.path()), (Keys{"after", "before"}));
}

// Threads that look up, add and flush while others fork.
class Load {
 public:
  explicit Load(Cache& cache) : cache_(cache) {
    for (std::size_t number = 0; number < 3; ++number) {
      threads_.emplace_back([this, number] { run(number); });
    }
  }
  ~Load() { stop(); }

  int stop() {
    stopped_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
    return wrong_;
  }

 private:
  static constexpr std::size_t kKeys = 3000;  // the index grows meanwhile

  void run(std::size_t number) {
    for (std::size_t i = 0; !stopped_; ++i) {
      const std::string key = numbered("k", (i * (number + 1)) % kKeys);
      add(cache_, key, key);
      wrong_ += get(cache_, key) != key ? 1 : 0;
      wrong_ += i % 10 == 0 && !cache_.flush() ? 1 : 0;
    }
  }

  Cache& cache_;
  std::atomic<bool> stopped_{false};
  std::atomic<int> wrong_{0};
  std::vector<std::thread> threads_;
};

constexpr std::size_t kForks = 200;

SCENARIO(forks_under_load) {
  alarm(kHangSeconds);
  const auto cache = open_cache(test::root_path());
  Load load(*cache);
  int failures = 0;
  for (std::size_t i = 0; i < kForks; ++i) {
    failures += wait_for(in_child([&] {
                  alarm(kHangSeconds);
                  const std::string key = numbered("child", i);
                  const bool good = add(*cache, key, key) && !get(*cache, "missing") &&
                                    cache->flush() && get(*cache, key) == key;
                  return good ? 0 : 1;
                })) != 0;
    failures += get(*cache, numbered("child", i)) != numbered("child", i);
  }
  failures += load.stop();
  std::printf("%d", failures);
  return 0;
}

#ifndef QV_SANITIZED  // whose allocators a fork may catch locked
TEST(IndexedCacheInAChild, WorksWhateverOtherThreadsDidAtTheFork) {
  const StoreRoot root;
  const test::Ran ran = root.run_unlimited("forks_under_load");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.err, "");
  Keys keys = stored_keys(root.path());
  EXPECT_EQ(std::count_if(keys.begin(), keys.end(),
                          [](const std::string& key) { return key.rfind("child", 0) == 0; }),
            static_cast<std::ptrdiff_t>(kForks));
  EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end());
}
#endif

// --- threads ---

// Keys that writers store while readers look them up.
class IndexedCacheInThreads : public testing::Test {
 protected:
  static constexpr int kReaders = 64;
  static constexpr int kWriters = 4;
  static constexpr std::size_t kKeysEach = 500;

  static std::string key_of(int writer, std::size_t number) {
    return numbered(numbered("w", static_cast<std::size_t>(writer)) + "-", number);
  }

  // Half of the writers use the readers' cache, and half another one of the same files.
  void write(int writer) {
    const auto own = writer % 2 == 0 ? nullptr : open_cache(root_.path());
    Cache& cache = own != nullptr ? *own : *cache_;
    for (std::size_t i = 0; i < kKeysEach; ++i) {
      const std::string key = key_of(writer, i);
      wrong_ += add(cache, key, "value of " + key) ? 0 : 1;
      wrong_ += i % 25 == 0 && !cache.flush() ? 1 : 0;
    }
    wrong_ += cache.flush() ? 0 : 1;
    ++writers_done_;
  }

  // Looks at all keys again and again. Those that are there have their values.
  void read(int reader) {
    bool last = false;
    do {
      last = writers_done_ == kWriters;
      for (std::size_t i = 0; i < kKeysEach; ++i) {
        const std::string key = key_of((reader + static_cast<int>(i)) % kWriters, i);
        const auto value = get(*cache_, key);
        wrong_ += value ? *value != "value of " + key : last;
      }
    } while (!last);
  }

  TempDir root_;
  std::unique_ptr<Cache> cache_ = open_cache(root_.path());
  std::atomic<int> writers_done_{0};
  std::atomic<int> wrong_{0};
};

TEST_F(IndexedCacheInThreads, GivesEachKeyItsValueWhileOthersAddAndFlush) {
  test::run_threads(kReaders + kWriters, [this](int index) {
    if (index < kWriters) {
      write(index);
    } else {
      read(index);
    }
  });
  EXPECT_EQ(wrong_, 0);
  EXPECT_EQ(cache_->size(), kWriters * kKeysEach);
  Keys keys = stored_keys(root_.path());
  EXPECT_EQ(keys.size(), kWriters * kKeysEach);
  EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end());
}

}  // namespace
