// This program has its own copy of the source, which no thread has called yet. The library
// calls its own hidden copy when it is loaded.
#include "src/process_generation.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <latch>
#include <thread>
#include <vector>

#include "support/scenario.h"

namespace {

using quorvane::process_generation;

// Only the generation's own synchronisation orders the first thread's write of the word
// before the second one's read. ThreadSanitizer checks that order.
SCENARIO(asks_after_another_thread) {
  std::atomic<bool> has_asked{false};
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  std::thread asks([&] {
    first = process_generation();
    has_asked.store(true, std::memory_order_relaxed);
  });
  std::thread asks_later([&] {
    while (!has_asked.load(std::memory_order_relaxed)) {
      std::this_thread::yield();
    }
    second = process_generation();
  });
  asks.join();
  asks_later.join();
  return first != 0 && first == second ? 0 : 1;
}

TEST(ProcessGeneration, IsPublishedByTheThreadThatAsksFirst) {
  const test::Ran ran = test::run_scenario("asks_after_another_thread");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
}

SCENARIO(asks_in_all_threads_at_once) {
  std::array<std::uint64_t, 8> seen{};
  std::latch start(seen.size());
  std::vector<std::thread> threads;
  for (std::uint64_t& own : seen) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      own = process_generation();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const std::uint64_t own : seen) {
    if (own == 0 || own != process_generation()) {
      return 1;
    }
  }
  return 0;
}

TEST(ProcessGeneration, IsOneForThreadsThatAllAskFirst) {
  for (int round = 0; round < 20; ++round) {
    const test::Ran ran = test::run_scenario("asks_in_all_threads_at_once");
    ASSERT_TRUE(ran.exited_with(0)) << ran.err;
  }
}

}  // namespace
