// The recorder in several threads at the same time, and in a signal handler.
#include <circmetrics.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "circmetrics_test/fixture.h"
#include "support/threads.h"

using namespace circmetrics_test;
using test::run_threads;

TEST(Circmetrics, LosesNoUpdateOfManyThreads) {
  const Recorder recorder;
  void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  constexpr int kThreads = 12;
  constexpr int kUpdates = 5000;
  run_threads(kThreads, [&](int) {
    for (int index = 1; index <= kUpdates; ++index) {
      stats_add64(counter, 2);
      stats_set_hist(histogram, index, 3);
      if (index % 1000 == 0) {
        recorder.state();
      }
    }
  });
  const json state = recorder.state();
  EXPECT_EQ(state["c"], 2 * kThreads * kUpdates);
  EXPECT_EQ(state["h"]["count"], 3 * kThreads * kUpdates);
  EXPECT_EQ(state["h"]["sum"], 3.0 * kThreads * kUpdates * (kUpdates + 1) / 2);
  EXPECT_EQ(state["h"]["min"], 1);
  EXPECT_EQ(state["h"]["max"], kUpdates);
}

namespace {

// Records one sample, which makes a range of values, and then runs `second` in another
// thread. Nothing but the histogram orders the two threads.
void run_after_a_sample(void* histogram, const std::function<void()>& second) {
  std::atomic<bool> is_made{false};
  std::thread thread([&] {
    while (!is_made.load(std::memory_order_relaxed)) {
    }
    second();
  });
  stats_set_hist(histogram, 1, 1);
  is_made.store(true, std::memory_order_relaxed);
  thread.join();
}

}  // namespace

TEST(Circmetrics, AThreadRecordsInARangeThatAnotherMade) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  run_after_a_sample(histogram, [&] { stats_set_hist(histogram, 1, 1); });
  EXPECT_EQ(recorder.state()["h"]["count"], 2);
}

TEST(Circmetrics, AReportReadsARangeThatAThreadMadeMeanwhile) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  run_after_a_sample(histogram, [&] { EXPECT_EQ(recorder.state()["h"]["count"], 1); });
}

// The threads only add, all at the same time: two threads that shared a cell would lose some.
TEST(Circmetrics, LosesNoUpdateOfThreadsThatOnlyCount) {
  for (const int threads : {2, 4, 20}) {
    const Recorder recorder;
    void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
    std::barrier start(threads);
    run_threads(threads, [&](int) {
      start.arrive_and_wait();
      add_ones(counter, 200000);
    });
    EXPECT_EQ(recorder.state()["c"], threads * 200000);
  }
}

TEST(Circmetrics, LosesNoUpdateOfThreadsThatComeAndGo) {
  const Recorder recorder;
  void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  for (int wave = 0; wave < 50; ++wave) {
    run_threads(3, [&](int) { add_ones(counter, 5000); });
  }
  EXPECT_EQ(recorder.state()["c"], 50 * 3 * 5000);
}

TEST(Circmetrics, LosesNoUpdateOfDestructorsAtAThreadsEnd) {
  const Recorder recorder;
  void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  pthread_key_t key;
  ASSERT_EQ(pthread_key_create(&key, [](void* metric) { add_ones(metric, 50000); }), 0);
  for (int wave = 0; wave < 5; ++wave) {
    run_threads(20, [&](int) {
      add_ones(counter, 1);
      pthread_setspecific(key, counter);
    });
  }
  EXPECT_EQ(recorder.state()["c"], 5 * 20 * 50001);
  EXPECT_EQ(pthread_key_delete(key), 0);
}

namespace {

// Counts at the end of a thread, in a destructor that runs after the recorder's own, while a
// newer thread counts, too.
struct CountsLate {
  void* counter;
  std::atomic<bool> is_ending{false};
  std::atomic<bool> may_count{false};

  static void run(void* closure) {
    auto* const self = static_cast<CountsLate*>(closure);
    self->is_ending = true;
    while (!self->may_count) {
    }
    add_ones(self->counter, kEnoughToCollide);
  }
};

}  // namespace

TEST(Circmetrics, AThreadThatEndsCountsBesideTheOneThatHasItsPlace) {
  const Recorder recorder;
  CountsLate late{stats_register(recorder.root, "c", CIRCMETRICS_COUNTER)};
  pthread_key_t key;  // newer than the recorder's, so its destructor runs later
  ASSERT_EQ(pthread_key_create(&key, &CountsLate::run), 0);
  std::thread ending([&] {
    add_ones(late.counter, 1);
    pthread_setspecific(key, &late);
  });
  while (!late.is_ending) {
    std::this_thread::yield();
  }
  std::thread next([&] {
    add_ones(late.counter, 1);
    late.may_count = true;
    add_ones(late.counter, kEnoughToCollide);
  });
  ending.join();
  next.join();
  EXPECT_EQ(recorder.state()["c"], 2 * kEnoughToCollide + 2);
  EXPECT_EQ(pthread_key_delete(key), 0);
}

namespace {

void* g_counted_by_a_signal = nullptr;
std::atomic<int> g_signals{0};

void count_signal(int) {
  stats_add64(g_counted_by_a_signal, 1);
  ++g_signals;
}

}  // namespace

TEST(Circmetrics, LosesNoUpdateOfASignalHandler) {
  constexpr int kSignals = 1000;
  const Recorder recorder;
  void* counter = g_counted_by_a_signal = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  g_signals = 0;
  struct sigaction handler = {};
  handler.sa_handler = &count_signal;
  ASSERT_EQ(sigaction(SIGUSR1, &handler, nullptr), 0);
  std::int64_t added = 0;
  std::thread interrupted([&] {
    while (g_signals < kSignals) {
      add_ones(counter, 100);
      added += 100;
      pthread_sigmask(SIG_SETMASK, nullptr, nullptr);  // where ThreadSanitizer delivers signals
    }
  });
  for (int sent = 0; g_signals < kSignals; ++sent) {
    pthread_kill(interrupted.native_handle(), SIGUSR1);
  }
  interrupted.join();
  EXPECT_EQ(recorder.state()["c"], added + g_signals);
}

TEST(Circmetrics, ThreadsThatRegisterTheSameNamesShareThem) {
  const Recorder recorder;
  run_threads(8, [&](int) {
    for (int index = 0; index < 100; ++index) {
      void* ns = recorder.ns(recorder.root, std::to_string(index % 10).c_str());
      stats_add64(stats_register(ns, std::to_string(index).c_str(), CIRCMETRICS_COUNTER), 1);
    }
  });
  const json state = recorder.state();
  for (int index = 0; index < 100; ++index) {
    EXPECT_EQ(state[std::to_string(index % 10)][std::to_string(index)], 8);
  }
}

// A report has every metric registered before it, even while others are being registered.
TEST(Circmetrics, ThreadsMayRegisterWhileOthersReport) {
  const Recorder recorder;
  std::atomic<int> registered{0};
  std::thread registering([&] {
    for (int index = 0; index < 3000; ++index) {
      // Names from both ends, so that the tree is rebalanced often.
      const std::string name = std::to_string(index % 2 == 0 ? 10000 + index : 30000 - index);
      ASSERT_NE(stats_register(recorder.root, name.c_str(), CIRCMETRICS_COUNTER), nullptr);
      ++registered;
    }
  });
  while (registered < 3000) {
    const int before = registered;
    const std::string text = recorder.text();
    EXPECT_GE(std::count(text.begin(), text.end(), ':'), before);
  }
  registering.join();
  EXPECT_EQ(recorder.state().size(), 3000U);
}
