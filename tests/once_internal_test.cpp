#include "src/once.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/thread_state.h"

namespace {

using quorvane::Once;

TEST(Once, RunsTheFunctionForTheFirstOfAllThreads) {
  Once once;
  std::atomic<int> runs{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      once.run([&] { ++runs; });
      EXPECT_TRUE(once.has_run());
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(runs, 1);
}

TEST(Once, RunsAgainAfterAThrow) {
  Once once;
  EXPECT_THROW(once.run([] { throw std::runtime_error("no memory, say"); }), std::runtime_error);
  EXPECT_FALSE(once.has_run());
  bool ran = false;
  once.run([&] { ran = true; });
  EXPECT_TRUE(ran);
  EXPECT_TRUE(once.has_run());
}

// In the next three tests only the Once orders one thread's write before another's read.
// ThreadSanitizer checks that order.

TEST(Once, PublishesWhatTheFunctionWroteToThoseWhoSeeThatItHasRun) {
  Once once;
  int written = 0;
  std::thread first([&] { once.run([&] { written = 1; }); });
  std::thread second([&] {
    while (!once.has_run()) {
      std::this_thread::yield();
    }
    EXPECT_EQ(written, 1);
  });
  first.join();
  second.join();
}

TEST(Once, PublishesWhatTheFunctionWroteToThoseWhoWaitForIt) {
  Once once;
  int written = 0;
  std::atomic<bool> is_running{false};
  std::atomic<pid_t> second_id{0};
  std::thread first([&] {
    once.run([&] {
      is_running.store(true, std::memory_order_relaxed);
      while (second_id.load(std::memory_order_relaxed) == 0 || !test::is_asleep(second_id)) {
        std::this_thread::yield();
      }
      written = 1;
    });
  });
  std::thread second([&] {
    while (!is_running.load(std::memory_order_relaxed)) {
      std::this_thread::yield();
    }
    second_id.store(gettid(), std::memory_order_relaxed);
    once.run([] {});
    EXPECT_EQ(written, 1);
  });
  first.join();
  second.join();
}

TEST(Once, PublishesWhatAFunctionWroteBeforeItThrewToTheNextOne) {
  Once once;
  int written = 0;
  std::atomic<bool> has_thrown{false};
  std::thread first([&] {
    EXPECT_THROW(once.run([&] {
      written = 1;
      throw std::runtime_error("first");
    }),
                 std::runtime_error);
    has_thrown.store(true, std::memory_order_relaxed);
  });
  std::thread second([&] {
    while (!has_thrown.load(std::memory_order_relaxed)) {
      std::this_thread::yield();
    }
    once.run([&] { EXPECT_EQ(written, 1); });
  });
  first.join();
  second.join();
}

// The waiter would wait for ever if the throw didn't wake it.
TEST(Once, AThreadThatWaitsRunsTheFunctionThatThrew) {
  Once once;
  std::atomic<bool> is_running{false};
  std::atomic<bool> may_throw{false};
  std::atomic<bool> second_ran{false};
  std::thread first([&] {
    EXPECT_THROW(once.run([&] {
      is_running = true;
      is_running.notify_all();
      may_throw.wait(false);
      throw std::runtime_error("first");
    }),
                 std::runtime_error);
  });
  is_running.wait(false);
  std::atomic<pid_t> second_id{0};
  std::thread second([&] {
    second_id = gettid();
    once.run([&] { second_ran = true; });
  });
  while (second_id == 0 || !test::is_asleep(second_id)) {
    std::this_thread::yield();
  }
  may_throw = true;
  may_throw.notify_all();
  first.join();
  second.join();
  EXPECT_TRUE(second_ran);
  EXPECT_TRUE(once.has_run());
}

}  // namespace
