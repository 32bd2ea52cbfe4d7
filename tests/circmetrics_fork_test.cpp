// The recorder in the children of a process that uses it.
#include <circmetrics.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "circmetrics_test/fixture.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/threads.h"

using namespace circmetrics_test;
using test::in_child;
using test::run_threads;
using test::wait_for;

TEST(Circmetrics, AChildOfABusyProcessGoesOn) {
  const Recorder recorder;
  std::atomic<bool> stop{false};
  stats_register(recorder.root, "0", CIRCMETRICS_COUNTER);
  std::thread busy([&] {
    for (int index = 0; !stop; ++index) {
#ifdef QV_SANITIZED
      // Takes the lock, but allocates nothing: a sanitizer's allocator doesn't survive a fork
      // while it is in use.
      stats_register(recorder.root, "0", CIRCMETRICS_COUNTER);
#else
      stats_register(recorder.root, std::to_string(index % 500).c_str(), CIRCMETRICS_COUNTER);
      recorder.text();
#endif
    }
  });
  for (int round = 0; round < 40; ++round) {
    const pid_t child = in_child([&] {
      alarm(60);
      void* counter = stats_register(recorder.root, "child", CIRCMETRICS_COUNTER);
      stats_add64(counter, 1);
      std::string text;
      stats_recorder_output_json(recorder.recorder, 1, 0, &append, &text);
      return json::parse(text)["child"] == 1 ? 0 : 1;
    });
    EXPECT_EQ(wait_for(child), 0);
  }
  stop = true;
  busy.join();
  EXPECT_FALSE(recorder.state().contains("child"));
}

namespace {

// ThreadSanitizer allows no new threads in the child of a process with several threads.
#ifdef QV_SANITIZED
constexpr int kThreadsOfAChild = 0;
#else
constexpr int kThreadsOfAChild = 10;
#endif
constexpr int kAdditions = 500000;

// Adds from the child's first thread and from new ones at the same time. Returns whether
// the report is right.
bool child_counts_on(const Recorder& recorder, void* counter, int before) {
  std::barrier start(1 + kThreadsOfAChild);
  const auto add_with_the_others = [&] {
    start.arrive_and_wait();
    add_ones(counter, kAdditions);
  };
  std::vector<std::thread> others;
  for (int index = 0; index < kThreadsOfAChild; ++index) {
    others.emplace_back(add_with_the_others);
  }
  add_with_the_others();
  for (std::thread& other : others) {
    other.join();
  }
  std::string text;
  stats_recorder_output_json(recorder.recorder, 1, 0, &append, &text);
  return json::parse(text)["c"] == before + kAdditions * (1 + kThreadsOfAChild);
}

}  // namespace

TEST(Circmetrics, LosesNoUpdateInAChildOfManyThreads) {
  const Recorder recorder;
  void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  constexpr int kThreads = 10;
  add_ones(counter, 1);
  std::barrier met(kThreads + 1);
  std::thread parents([&] {
    run_threads(kThreads, [&](int) {
      add_ones(counter, 1);
      met.arrive_and_wait();
      met.arrive_and_wait();
    });
  });
  met.arrive_and_wait();
  const pid_t child = in_child([&] {
    alarm(60);
    return child_counts_on(recorder, counter, 1 + kThreads) ? 0 : 1;
  });
  EXPECT_EQ(wait_for(child), 0);
  met.arrive_and_wait();
  parents.join();
  EXPECT_EQ(recorder.state()["c"], 1 + kThreads);
}

#ifndef QV_SANITIZED  // ThreadSanitizer allows no new threads in such a child
TEST(Circmetrics, AChildsNewThreadDoesNotGetThePlaceOfTheOneThatForked) {
  const Recorder recorder;
  void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  add_ones(counter, 1);
  const pid_t child = in_child([&] {
    alarm(60);
    std::thread other([&] { add_ones(counter, kEnoughToCollide); });
    add_ones(counter, kEnoughToCollide);
    other.join();
    return recorder.text() == R"({"c":)" + std::to_string(2 * kEnoughToCollide + 1) + "}" ? 0 : 1;
  });
  EXPECT_EQ(wait_for(child), 0);
}
#endif

namespace {

void* g_gone = nullptr;  // observed by a gauge: a page that can't be read
pid_t g_child_of_crash = -1;

// Forks, as a crash reporter does, and makes the page readable, so that the report goes on
// in the parent and in the child.
void fork_and_repair(int) {
  g_child_of_crash = fork();
  alarm(60);  // a child inherits no alarm
  mprotect(g_gone, 1, PROT_READ);
}

}  // namespace

SCENARIO(report_that_crashes) {
  alarm(60);  // instead of a hang
  const Recorder recorder;
  void* gauge = stats_register(recorder.root, "g", CIRCMETRICS_GAUGE_INT64);
  g_gone = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  stats_observe(gauge, CIRCMETRICS_GAUGE_INT64, g_gone);
  signal(SIGSEGV, &fork_and_repair);
  const bool crashed = recorder.text() == R"({"g":0})" && g_child_of_crash != -1;
  recorder.ns(recorder.root, "later");
  const bool is_right = crashed && recorder.text() == R"({"g":0,"later":{}})";
  if (g_child_of_crash == 0) {
    _exit(is_right ? 0 : 1);
  }
  const int status = wait_for(g_child_of_crash);
  return is_right && status == 0 ? 0 : 1;
}

// At a fork, ThreadSanitizer starts a thread and so allocates memory. It would report that
// as an unsafe call by the handler.
TEST(Circmetrics, AReportThatCrashesLetsItsHandlerForkAndLeavesTheChildFree) {
  const test::Ran ran =
      test::run_scenario("report_that_crashes", {{"TSAN_OPTIONS", "report_signal_unsafe=0"}});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
}

TEST(Circmetrics, AChildForkedBesideUpdatesReportsWhatItSawAndAddsToIt) {
  const Recorder recorder;
  void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  const auto update = [&](int count) {
    for (int index = 0; index < count; ++index) {
      stats_add64(counter, 1);
      stats_set_hist(histogram, 1 + index % 100, 1);
    }
  };
  update(100);  // makes the ranges now: a sanitizer's allocator must be idle at a fork
  std::atomic<bool> stop{false};
  std::thread updates([&] {
    run_threads(3, [&](int) {
      while (!stop) {
        update(100);
      }
    });
  });
  for (int round = 0; round < 40; ++round) {
    const pid_t child = in_child([&] {
      alarm(60);
      const json before = recorder.state();
      update(1000);
      const json after = recorder.state();
      const json& distribution = after["h"];
      const bool is_right = after["c"] == before["c"].get<int>() + 1000 &&
                            distribution["count"] == before["h"]["count"].get<int>() + 1000 &&
                            distribution["min"] == 1 && distribution["max"] == 100 &&
                            distribution["mean"] >= 1 && distribution["mean"] <= 100;
      return is_right ? 0 : 1;
    });
    EXPECT_EQ(wait_for(child), 0);
  }
  stop = true;
  updates.join();
}
