// Children of fork that go on with their parent's indexed store.
// QV_TEST_FORKS says how many are forked beside threads; 300 by default.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/indexed_store.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_root.h"

using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using test::in_child;
using test::indexed_store;
using test::numbered_entries;
using test::Ran;
using test::StoreRoot;
using test::wait_for;

namespace {

constexpr unsigned kHangSeconds = 30;  // after which a process counts as hung

bool has(Engine& store, int from, int to) {
  return test::count_found(store, numbered_entries(from, to)) == to - from;
}

bool add(Engine& store, int from, int to) {
  return store.store(test::entry_map(numbered_entries(from, to)));
}

// One process tells another that it may go on, or that it has ended.
class Signal {
 public:
  Signal() {
    if (pipe(ends_.data()) != 0) {
      std::abort();
    }
  }
  void send() { static_cast<void>(write(ends_[1], "x", 1)); }
  void wait() {
    char byte;
    static_cast<void>(read(ends_[0], &byte, 1));
  }

 private:
  std::array<int, 2> ends_{};
};

}  // namespace

SCENARIO(both_sides_store) {
  alarm(kHangSeconds);
  const auto store = indexed_store();
  bool holds = store->open() && add(*store, 0, 10);
  Signal parent_has_stored;
  Signal child_has_stored;
  const pid_t child = in_child([&] {
    alarm(kHangSeconds);
    bool child_holds = has(*store, 0, 10) && add(*store, 10, 20) && has(*store, 0, 20);
    child_has_stored.send();
    parent_has_stored.wait();
    child_holds = child_holds && has(*store, 20, 900);
    return child_holds ? 0 : 1;
  });
  child_has_stored.wait();
  holds = holds && has(*store, 0, 20) && add(*store, 20, 900);  // its index grows
  parent_has_stored.send();
  return wait_for(child) == 0 && holds && has(*store, 0, 900) && store->entries() == 900 ? 0 : 1;
}

// The child of a process that is killed, perhaps with the lock, which the child doesn't share.
SCENARIO(outlive_the_parent) {
  alarm(kHangSeconds);
  const bool is_locked = arguments.at(0) == "with the lock";
  Signal is_forked;
  Signal is_killed;
  Signal is_done;
  const pid_t parent = in_child([&] {
    const auto lock = std::make_shared<StoreFLock>("maps");
    Engine store(test::root_path(), "maps", lock);
    store.open();
    add(store, 0, 10);
    if (is_locked) {
      lock->lock();
    }
    in_child([&] {
      alarm(kHangSeconds);
      is_killed.wait();
      const bool holds = has(store, 0, 10) && add(store, 10, 20) && has(store, 0, 20);
      std::printf("%d", holds);
      std::fflush(stdout);
      is_done.send();
      return 0;
    });
    is_forked.send();
    pause();
    return 0;
  });
  is_forked.wait();
  kill(parent, SIGKILL);
  wait_for(parent);
  is_killed.send();
  is_done.wait();
  const auto store = indexed_store();
  return store->open() && has(*store, 0, 20) ? 0 : 1;
}

namespace {

TEST(IndexedFork, ChildAndParentFindWhatTheOtherStores) {
  const Ran ran = StoreRoot().run("both_sides_store", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(ran.messages(), std::vector<std::string>{});
}

TEST(IndexedFork, AChildGoesOnAfterItsParentIsKilledEvenIfThatHeldTheLock) {
  for (const char* how : {"without the lock", "with the lock"}) {
    const Ran ran = StoreRoot().run("outlive_the_parent", {how}, "ERROR");
    EXPECT_TRUE(ran.exited_with(0)) << ran.status;
    EXPECT_EQ(ran.out, "1") << how;
  }
}

// --- beside threads ---

// Threads that use the store while this process forks.
class Threads {
 public:
  explicit Threads(Engine& store) : store_(store) {
    threads_.emplace_back([this] { store_and_look_up(); });
    for (int i = 0; i < 2; ++i) {
      threads_.emplace_back([this] { look_up(); });
    }
  }

  // Ends them. Returns whether they have found all they had to.
  bool end() {
    stops_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    return wrong_ == 0;
  }

  int stored() const { return stored_; }

 private:
  void check(bool holds) { wrong_ += holds ? 0 : 1; }

  // The look-ups leave the lock to others for a while. The store stays small: after kMost
  // entries, appends find that theirs are there.
  void store_and_look_up() {
    for (int from = 0; !stops_; from = (from + 5) % kMost) {
      check(add(store_, from, from + 5));
      stored_ = std::max(stored_.load(), from + 5);
      check(has(store_, std::max(from - 100, 0), from + 5));
    }
  }

  void look_up() {
    for (int from = 0; !stops_; ++from) {
      const int stored = stored_;
      check(stored == 0 || has(store_, from % stored, from % stored + 1));
      check(!test::look_up(store_, "absent"));
    }
  }

  static constexpr int kMost = 3000;

  Engine& store_;
  std::vector<std::thread> threads_;
  std::atomic<bool> stops_{false};
  std::atomic<int> stored_{0};
  std::atomic<int> wrong_{0};
};

std::vector<test::Entry> entry_of_child(int number) {
  return {{"child" + std::to_string(number), {std::string(300, 'c')}}};
}

// A child looks up, and every fourth stores.
int use_in_child(Engine& store, int number, int stored) {
  alarm(kHangSeconds);
  bool holds = has(store, std::max(stored - 200, 0), stored) && !test::look_up(store, "absent");
  if (number % 4 == 0) {
    holds = holds && store.store(test::entry_map(entry_of_child(number))) &&
            test::count_found(store, entry_of_child(number)) == 1;
  }
  return holds ? 0 : 1;
}

}  // namespace

// Argument: the number of forks.
SCENARIO(fork_beside_threads) {
  const auto store = indexed_store();
  if (!store->open()) {
    return 1;
  }
  Threads threads(*store);
  const int forks = std::stoi(arguments.at(0));
  int failed = 0;
  for (int number = 0; number < forks; ++number) {
    const int stored = threads.stored();
    const pid_t child = in_child([&] { return use_in_child(*store, number, stored); });
    const int status = wait_for(child);
    if (status != 0) {
      ++failed;
      std::printf("child %d: %d\n", number, status);
    }
  }
  const bool threads_are_right = threads.end();
  for (int number = 0; number < forks; number += 4) {
    failed += test::count_found(*store, entry_of_child(number)) == 1 ? 0 : 1;
  }
  std::printf("%d failed, threads %d", failed, threads_are_right);
  return 0;
}

namespace {

#ifndef QV_SANITIZED  // whose allocators a fork may catch locked
int number_of_forks() {
  const char* const number = getenv("QV_TEST_FORKS");
  return number == nullptr ? 300 : std::atoi(number);
}

TEST(IndexedFork, NoChildHangsWhoseParentLooksUpAndStoresInOtherThreads) {
  const Ran ran =
      StoreRoot().run("fork_beside_threads", {std::to_string(number_of_forks())}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(ran.out, "0 failed, threads 1");
  EXPECT_EQ(ran.messages(), std::vector<std::string>{});
}
#endif

}  // namespace
