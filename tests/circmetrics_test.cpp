#include <circmetrics.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/scenario.h"

using nlohmann::json;

namespace {

ssize_t append(void* closure, const void* bytes, size_t length) {
  static_cast<std::string*>(closure)->append(static_cast<const char*>(bytes), length);
  return static_cast<ssize_t>(length);
}

// A fresh recorder and what it reports.
struct Recorder {
  void* recorder = stats_recorder_alloc();
  void* root = stats_recorder_global_ns(recorder);

  void* ns(void* parent, const char* name) const {
    return stats_register_ns(recorder, parent, name);
  }
  std::string text() const {
    std::string result;
    EXPECT_EQ(stats_recorder_output_json(recorder, 1, 0, &append, &result), 0);
    return result;
  }
  json state() const { return json::parse(text()); }
};

// A sanitizer has an allocator of its own.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

std::size_t allocated_bytes() {
  if (&__sanitizer_get_current_allocated_bytes != nullptr) {
    return __sanitizer_get_current_allocated_bytes();
  }
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

void run_threads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int index = 0; index < count; ++index) {
    threads.emplace_back(body, index);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void add_ones(void* counter, int count) {
  for (int index = 0; index < count; ++index) {
    stats_add64(counter, 1);
  }
}

constexpr const char* kPercentileKeys[] = {"p50", "p90", "p99", "p99.9"};
constexpr double kFractions[] = {0.5, 0.9, 0.99, 0.999};

// Every percentile within 1 % of the sample of its rank.
void expect_close_percentiles(std::vector<double> samples) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  for (const double sample : samples) {
    ASSERT_EQ(stats_set_hist(histogram, sample, 1), 0);
  }
  std::sort(samples.begin(), samples.end());
  const json state = recorder.state()["h"];
  for (std::size_t index = 0; index < std::size(kFractions); ++index) {
    const auto rank = std::ceil(kFractions[index] * static_cast<double>(samples.size()));
    const double exact = samples[static_cast<std::size_t>(rank) - 1];
    EXPECT_NEAR(state[kPercentileKeys[index]].get<double>(), exact, std::abs(exact) * 0.01)
        << kPercentileKeys[index];
  }
  EXPECT_EQ(state["count"], samples.size());
  EXPECT_EQ(state["min"], samples.front());
  EXPECT_EQ(state["max"], samples.back());
}

template <typename Distribution>
std::vector<double> draw(Distribution distribution, std::size_t count) {
  std::mt19937_64 random(20240301);
  std::vector<double> samples(count);
  for (double& sample : samples) {
    sample = distribution(random);
  }
  return samples;
}

}  // namespace

TEST(Circmetrics, ReportsAnEmptyRecorderAsAnEmptyObject) { EXPECT_EQ(Recorder().text(), "{}"); }

TEST(Circmetrics, ReportsNestedNamespacesAsNestedObjectsSortedByName) {
  const Recorder recorder;
  void* a = recorder.ns(recorder.root, "a");
  void* deep = recorder.ns(recorder.ns(a, "c"), "d");
  stats_add64(stats_register(deep, "x", CIRCMETRICS_COUNTER), 5);
  stats_add64(stats_register(a, "b", CIRCMETRICS_COUNTER), -3);
  stats_register(recorder.root, "first", CIRCMETRICS_COUNTER);
  recorder.ns(recorder.root, "");
  EXPECT_EQ(recorder.text(), R"({"":{},"a":{"b":-3,"c":{"d":{"x":5}}},"first":0})");
}

TEST(Circmetrics, GivesTheSameThingForTheSameName) {
  const Recorder recorder;
  void* ns = recorder.ns(recorder.root, "a");
  ASSERT_NE(ns, nullptr);
  EXPECT_EQ(recorder.ns(recorder.root, "a"), ns);
  for (const int type : {3, 5, 6, 7}) {
    const std::string name = "m" + std::to_string(type);
    void* metric = stats_register(ns, name.c_str(), type);
    ASSERT_NE(metric, nullptr);
    EXPECT_EQ(stats_register(ns, name.c_str(), type), metric);
  }
  EXPECT_NE(stats_register(recorder.root, "m5", 5), stats_register(ns, "m5", 5));
}

TEST(Circmetrics, RefusesANameThatStandsForAnotherKindOfMetric) {
  const Recorder recorder;
  stats_register(recorder.root, "counter", CIRCMETRICS_COUNTER);
  EXPECT_EQ(stats_register(recorder.root, "counter", CIRCMETRICS_HISTOGRAM), nullptr);
  EXPECT_EQ(recorder.text(), R"({"counter":0})");
}

TEST(Circmetrics, ANameMayStandForAMetricAndANamespaceInEitherOrder) {
  for (const bool metric_first : {true, false}) {
    const Recorder recorder;
    void* service = recorder.ns(recorder.root, "svc");
    void* inner = metric_first ? nullptr : recorder.ns(service, "cache");
    void* counter = stats_register(service, "cache", CIRCMETRICS_COUNTER);
    inner = metric_first ? recorder.ns(service, "cache") : inner;
    ASSERT_NE(counter, nullptr);
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(stats_register(service, "cache", CIRCMETRICS_COUNTER), counter);
    EXPECT_EQ(recorder.ns(service, "cache"), inner);
    EXPECT_EQ(stats_register(service, "cache", CIRCMETRICS_HISTOGRAM), nullptr);
    stats_add64(counter, 3);
    stats_add64(stats_register(inner, "hits", CIRCMETRICS_COUNTER), 1);
    EXPECT_EQ(recorder.text(), R"({"svc":{"cache":3,"cache/":{"hits":1}}})");
  }
}

TEST(Circmetrics, ANamespaceBehindAMetricTakesNoOtherNamesKey) {
  const Recorder recorder;
  for (const char* name : {"a", "a/", "a//", "b/"}) {
    stats_register(recorder.root, name, CIRCMETRICS_COUNTER);
  }
  recorder.ns(recorder.root, "a");
  recorder.ns(recorder.root, "b");
  EXPECT_EQ(recorder.text(), R"({"a":0,"a///":{},"a/":0,"a//":0,"b":{},"b/":0})");
}

TEST(Circmetrics, RefusesUnknownTypesAndNulls) {
  const Recorder recorder;
  for (const int type : {-1, 0, 1, 2, 4, 8}) {
    EXPECT_EQ(stats_register(recorder.root, "x", type), nullptr) << type;
  }
  EXPECT_EQ(stats_recorder_global_ns(nullptr), nullptr);
  EXPECT_EQ(stats_register_ns(nullptr, recorder.root, "x"), nullptr);
  EXPECT_EQ(recorder.ns(nullptr, "x"), nullptr);
  EXPECT_EQ(recorder.ns(recorder.root, nullptr), nullptr);
  EXPECT_EQ(stats_register(nullptr, "x", 5), nullptr);
  EXPECT_EQ(stats_register(recorder.root, nullptr, 5), nullptr);
  EXPECT_EQ(stats_observe(nullptr, 3, nullptr), -1);
  EXPECT_EQ(stats_add64(nullptr, 1), -1);
  EXPECT_EQ(stats_set_hist(nullptr, 1, 1), -1);
  EXPECT_EQ(stats_set_hist_intscale(nullptr, 1, 1, 1), -1);
  EXPECT_EQ(recorder.text(), "{}");
}

TEST(Circmetrics, RefusesUpdatesOfAnotherKindOfMetric) {
  const Recorder recorder;
  const int64_t variable = 1;
  void* counter = stats_register(recorder.root, "counter", CIRCMETRICS_COUNTER);
  void* gauge = stats_register(recorder.root, "gauge", CIRCMETRICS_GAUGE_INT64);
  EXPECT_EQ(stats_add64(gauge, 1), -1);
  EXPECT_EQ(stats_set_hist(counter, 1, 1), -1);
  EXPECT_EQ(stats_set_hist_intscale(counter, 1, 0, 1), -1);
  EXPECT_EQ(stats_observe(counter, CIRCMETRICS_COUNTER, &variable), -1);
  EXPECT_EQ(stats_observe(gauge, CIRCMETRICS_GAUGE_DOUBLE, &variable), -1);
  EXPECT_EQ(recorder.text(), R"({"counter":0,"gauge":null})");
}

TEST(Circmetrics, ACounterWrapsAround) {
  const Recorder recorder;
  void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  EXPECT_EQ(stats_add64(counter, std::numeric_limits<int64_t>::max()), 0);
  EXPECT_EQ(stats_add64(counter, 1), 0);
  EXPECT_EQ(recorder.text(), R"({"c":-9223372036854775808})");
}

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

// Nothing else orders the threads: one finds a range of values that another has made.
TEST(Circmetrics, AThreadRecordsInARangeThatAnotherMade) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  std::atomic<bool> is_made{false};
  std::thread second([&] {
    while (!is_made.load(std::memory_order_relaxed)) {
    }
    stats_set_hist(histogram, 1, 1);
  });
  stats_set_hist(histogram, 1, 1);
  is_made.store(true, std::memory_order_relaxed);
  second.join();
  EXPECT_EQ(recorder.state()["h"]["count"], 2);
}

TEST(Circmetrics, AReportReadsARangeThatAThreadMadeMeanwhile) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  std::atomic<bool> is_made{false};
  std::thread reporter([&] {
    while (!is_made.load(std::memory_order_relaxed)) {
    }
    EXPECT_EQ(recorder.state()["h"]["count"], 1);
  });
  stats_set_hist(histogram, 1, 1);
  is_made.store(true, std::memory_order_relaxed);
  reporter.join();
}

// Nothing but additions, at once: two threads that write one cell lose some.
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

// Enough for two threads to meet in one cell, were it one; a sanitizer sees or slows it.
#ifdef QV_SANITIZED
constexpr int kEnoughToMeet = 100000;
#else
constexpr int kEnoughToMeet = 30000000;
#endif

// Counts in a destructor that runs after the recorder's own at the thread's end, beside
// a thread that has come since.
struct CountsLate {
  void* counter;
  std::atomic<bool> is_ending{false};
  std::atomic<bool> may_count{false};

  static void run(void* closure) {
    auto* const self = static_cast<CountsLate*>(closure);
    self->is_ending = true;
    while (!self->may_count) {
    }
    add_ones(self->counter, kEnoughToMeet);
  }
};

}  // namespace

TEST(Circmetrics, AThreadThatEndsCountsBesideTheOneThatHasItsPlace) {
  const Recorder recorder;
  CountsLate late{stats_register(recorder.root, "c", CIRCMETRICS_COUNTER)};
  pthread_key_t key;  // newer than the recorder's
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
    add_ones(late.counter, kEnoughToMeet);
  });
  ending.join();
  next.join();
  EXPECT_EQ(recorder.state()["c"], 2 * kEnoughToMeet + 2);
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
      pthread_sigmask(SIG_SETMASK, nullptr, nullptr);  // ThreadSanitizer delivers here
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

// A report has all that was registered before it, while more is.
TEST(Circmetrics, ThreadsMayRegisterWhileOthersReport) {
  const Recorder recorder;
  std::atomic<int> registered{0};
  std::thread registering([&] {
    for (int index = 0; index < 3000; ++index) {
      // From both ends, so that the tree is turned around often.
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

TEST(Circmetrics, AGaugeReportsTheVariableOfTheMoment) {
  const Recorder recorder;
  int64_t number = std::numeric_limits<int64_t>::min();
  double real = 0.1;
  void* int_gauge = stats_register(recorder.root, "i", CIRCMETRICS_GAUGE_INT64);
  void* double_gauge = stats_register(recorder.root, "d", CIRCMETRICS_GAUGE_DOUBLE);
  EXPECT_EQ(recorder.text(), R"({"d":null,"i":null})");
  EXPECT_EQ(stats_observe(int_gauge, CIRCMETRICS_GAUGE_INT64, &number), 0);
  EXPECT_EQ(stats_observe(double_gauge, CIRCMETRICS_GAUGE_DOUBLE, &real), 0);
  EXPECT_EQ(recorder.text(), R"({"d":0.1,"i":-9223372036854775808})");
  number = 7;
  real = -2.5e300;
  EXPECT_EQ(recorder.text(), R"({"d":-2.5e+300,"i":7})");
  EXPECT_EQ(stats_observe(int_gauge, CIRCMETRICS_GAUGE_INT64, nullptr), 0);
  EXPECT_EQ(recorder.text(), R"({"d":-2.5e+300,"i":null})");
}

TEST(Circmetrics, ReportsWhatIsNotFiniteAsNull) {
  const Recorder recorder;
  double real = std::numeric_limits<double>::infinity();
  void* gauge = stats_register(recorder.root, "d", CIRCMETRICS_GAUGE_DOUBLE);
  stats_observe(gauge, CIRCMETRICS_GAUGE_DOUBLE, &real);
  EXPECT_EQ(recorder.text(), R"({"d":null})");
  real = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(recorder.text(), R"({"d":null})");
}

TEST(Circmetrics, EscapesNames) {
  const Recorder recorder;
  const std::string ascii = "quote\" back\\slash \n\x01\x7f/";
  const std::string unicode = "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xB2";
  stats_register(recorder.root, ascii.c_str(), CIRCMETRICS_COUNTER);
  stats_register(recorder.root, unicode.c_str(), CIRCMETRICS_COUNTER);
  EXPECT_EQ(recorder.state(), (json{{ascii, 0}, {unicode, 0}}));
}

TEST(Circmetrics, ReplacesBytesThatAreNotUtf8) {
  const struct {
    const char* name;
    int replacements;
  } cases[] = {{"\x80", 1},      // a lone continuation
               {"\xC0\xAF", 2},  // overlong forms
               {"\xC1\x81", 2},
               {"\xE0\x80\x80", 3},
               {"\xED\xA0\x80", 3},      // a surrogate
               {"\xF4\x90\x80\x80", 4},  // too large a number
               {"\xF8", 1},
               {"\xFF", 1},
               {"\xE2\x82", 1},  // cut off
               {"\xF0\x9F\x8E", 1}};
  for (const auto& [name, replacements] : cases) {
    for (const std::string after : {">", ""}) {
      const Recorder recorder;
      stats_register(recorder.root, ("<" + (name + after)).c_str(), CIRCMETRICS_COUNTER);
      std::string replaced = "<";
      for (int index = 0; index < replacements; ++index) {
        replaced += "\xEF\xBF\xBD";
      }
      EXPECT_EQ(recorder.state(), (json{{replaced + after, 0}}));
    }
  }
}

TEST(Circmetrics, WritesValidJsonForNamesOfAnyBytes) {
  const Recorder recorder;
  std::mt19937_64 random(10);
  for (int index = 0; index < 2000; ++index) {
    std::string name;
    for (std::uint64_t bytes = random(); bytes != 0; bytes >>= 8 + bytes % 5) {
      name += static_cast<char>(bytes);
    }
    ASSERT_NE(stats_register(recorder.root, name.c_str(), CIRCMETRICS_COUNTER), nullptr);
  }
  EXPECT_GT(recorder.state().size(), 1000);  // throws when it is none
}

namespace {

constexpr int kDeep = 20000;

void* report_deep_namespaces(void* closure) {
  auto* const text = static_cast<std::string*>(closure);
  const Recorder recorder;
  void* ns = recorder.root;
  for (int depth = 0; depth < kDeep; ++depth) {
    ns = recorder.ns(ns, "n");
  }
  stats_register(ns, "c", CIRCMETRICS_COUNTER);
  *text = recorder.text();
  return nullptr;
}

}  // namespace

TEST(Circmetrics, NamespacesMayBeDeeperThanTheStack) {
  pthread_attr_t small_stack;
  pthread_attr_init(&small_stack);
  ASSERT_EQ(pthread_attr_setstacksize(&small_stack, 256 * 1024), 0);
  pthread_t thread;
  std::string text;
  ASSERT_EQ(pthread_create(&thread, &small_stack, &report_deep_namespaces, &text), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&small_stack);
  std::string expected;
  for (int depth = 0; depth < kDeep; ++depth) {
    expected += R"({"n":)";
  }
  expected += R"({"c":0})" + std::string(kDeep, '}');
  EXPECT_TRUE(text == expected);  // too long to print
}

TEST(Circmetrics, AHistogramWithoutSamplesHasNothingButItsCount) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  EXPECT_EQ(stats_set_hist(histogram, 5, 0), 0);
  EXPECT_EQ(stats_set_hist(histogram, std::numeric_limits<double>::quiet_NaN(), 1), -1);
  EXPECT_EQ(recorder.text(), R"({"h":{"count":0,"sum":0,"min":null,"max":null,"mean":null,)"
                             R"("p50":null,"p90":null,"p99":null,"p99.9":null}})");
}

TEST(Circmetrics, AHistogramOfOneValueReportsExactlyThat) {
  for (const double value : {0.0, 1.0, 0.1, -7.3, 1e300, 5e-324, 123456789.0}) {
    const Recorder recorder;
    stats_set_hist(stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM), value, 4);
    EXPECT_EQ(recorder.state()["h"], (json{{"count", 4},
                                           {"sum", 4 * value},
                                           {"min", value},
                                           {"max", value},
                                           {"mean", value},
                                           {"p50", value},
                                           {"p90", value},
                                           {"p99", value},
                                           {"p99.9", value}}));
  }
}

TEST(Circmetrics, NoSamplesChangeNothing) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  stats_set_hist(histogram, 5, 1);
  const std::string before = recorder.text();
  for (const double value : {0.0, 1.0, 9.0}) {
    EXPECT_EQ(stats_set_hist(histogram, value, 0), 0);
    EXPECT_EQ(stats_set_hist_intscale(histogram, static_cast<int64_t>(value), 0, 0), 0);
  }
  EXPECT_EQ(recorder.text(), before);
}

TEST(Circmetrics, TheMeanIsWithinTheSamples) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  for (int sample = 0; sample < 10; ++sample) {
    stats_set_hist(histogram, 0.1, 1);
  }
  const json state = recorder.state()["h"];
  EXPECT_LT(state["sum"], 1.0);  // as doubles add up
  EXPECT_EQ(state["mean"], 0.1);
}

TEST(Circmetrics, ZerosOfBothSignsAreTheSameSample) {
  std::string texts[2];
  for (const bool negative_first : {false, true}) {
    const Recorder recorder;
    void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
    stats_set_hist(histogram, negative_first ? -0.0 : 0.0, 1);
    stats_set_hist(histogram, negative_first ? 0.0 : -0.0, 1);
    texts[negative_first] = recorder.text();
  }
  EXPECT_EQ(texts[0], R"({"h":{"count":2,"sum":0,"min":0,"max":0,"mean":0,)"
                      R"("p50":0,"p90":0,"p99":0,"p99.9":0}})");
  EXPECT_EQ(texts[1], texts[0]);
}

namespace {

void record_many(void* histogram, double value, std::uint64_t count) {
  for (std::uint64_t left = count; left > 0;) {
    const auto part = static_cast<std::uint32_t>(std::min<std::uint64_t>(left, UINT32_MAX));
    ASSERT_EQ(stats_set_hist(histogram, value, part), 0);
    left -= part;
  }
}

}  // namespace

TEST(Circmetrics, RanksAreExactWhereDoublesSkipNumbers) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  // The median's rank is one more than there are ones.
  constexpr std::uint64_t kBeyondDoubles = std::uint64_t{1} << 53;
  record_many(histogram, 1, kBeyondDoubles + 3);
  record_many(histogram, 2, kBeyondDoubles + 5);
  const json state = recorder.state()["h"];
  EXPECT_EQ(state["count"], 2 * kBeyondDoubles + 8);
  EXPECT_EQ(state["p50"], 2);
}

TEST(Circmetrics, RanksAreRightWhereTheirNumeratorsAreBeyond64Bits) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  constexpr std::uint64_t kHalf = 15'000'000'000'000'000;  // times 999 twice is 1.6 * 2^64
  record_many(histogram, 1, kHalf);
  record_many(histogram, 2, kHalf);
  const json state = recorder.state()["h"];
  EXPECT_NEAR(state["p50"].get<double>(), 1, 0.01);
  EXPECT_EQ(state["p90"], 2);
  EXPECT_EQ(state["p99"], 2);
  EXPECT_EQ(state["p99.9"], 2);
}

TEST(Circmetrics, PercentilesAreWithinOnePercent) {
  expect_close_percentiles(draw(std::lognormal_distribution<double>(0, 5), 20000));
  expect_close_percentiles(draw(std::uniform_real_distribution<double>(1e-3, 1), 20000));
  expect_close_percentiles(draw(std::uniform_real_distribution<double>(-1000, 10), 20000));
  expect_close_percentiles(draw(std::normal_distribution<double>(0, 1e9), 20000));
  expect_close_percentiles({3});
  expect_close_percentiles({1, 2});
  expect_close_percentiles({-5, 0, 0, 7});
}

TEST(Circmetrics, EveryMagnitudeIsWithinOnePercent) {
  constexpr double kLargest = std::numeric_limits<double>::max();
  const Recorder recorder;
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> fraction(1, 2);
  std::vector<double> samples;
  for (int exponent = -1074; exponent <= 1023; ++exponent) {
    samples.push_back(std::ldexp(fraction(random), exponent));
    samples.push_back(-std::ldexp(fraction(random), exponent));
  }
  for (int multiple = 1; multiple <= 300; ++multiple) {
    samples.push_back(multiple * std::numeric_limits<double>::denorm_min());
  }
  for (std::size_t index = 0; index < samples.size(); ++index) {
    void* histogram =
        stats_register(recorder.root, std::to_string(index).c_str(), CIRCMETRICS_HISTOGRAM);
    for (const double sample : {-kLargest, samples[index], kLargest}) {
      ASSERT_EQ(stats_set_hist(histogram, sample, 1), 0);
    }
  }
  const json state = recorder.state();
  for (std::size_t index = 0; index < samples.size(); ++index) {
    const double sample = samples[index];
    EXPECT_NEAR(state[std::to_string(index)]["p50"].get<double>(), sample, std::abs(sample) * 0.01);
  }
}

TEST(Circmetrics, PercentilesHoldTheOrderOfTheSmallestDoubles) {
  std::vector<double> small(20000);
  std::mt19937_64 random(8);
  for (double& sample : small) {
    const std::uint64_t bits = random();
    sample = std::bit_cast<double>(bits >> 12 >> (bits & 63) % 50);
  }
  expect_close_percentiles(small);
  std::vector<double> both = small;
  for (double& sample : small) {
    sample = -sample;
  }
  expect_close_percentiles(small);
  both.insert(both.end(), small.begin(), small.end());
  both.insert(both.end(), {0.0, -0.0, 1.0, -1.0});
  expect_close_percentiles(both);
}

TEST(Circmetrics, PercentilesOfRandomBitsAreWithinOnePercent) {
  std::vector<double> samples;
  std::mt19937_64 random(9);
  while (samples.size() < 20000) {
    const auto sample = std::bit_cast<double>(random());
    if (std::isfinite(sample)) {
      samples.push_back(sample);
    }
  }
  expect_close_percentiles(samples);
}

TEST(Circmetrics, AHistogramTakesBoundedMemory) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  const auto insert_all = [&](double fraction) {
    for (int exponent = -1074; exponent <= 1024; ++exponent) {
      stats_set_hist(histogram, std::ldexp(fraction, exponent), 1);
      stats_set_hist(histogram, -std::ldexp(fraction, exponent), 1);
    }
    stats_set_hist(histogram, 0.0, 1);
    stats_set_hist(histogram, -0.0, 1);
  };
  const std::size_t before = allocated_bytes();
  insert_all(1);
  const std::size_t filled = allocated_bytes();
  EXPECT_GT(filled - before, 1000000);
  EXPECT_LT(filled - before, 2300000);
  for (double fraction = 1; fraction < 2; fraction += 1.0 / 256) {
    insert_all(fraction);
  }
  EXPECT_EQ(allocated_bytes(), filled);
}

TEST(Circmetrics, InfiniteSamplesAreCountedAndReportedAsNull) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  EXPECT_EQ(stats_set_hist(histogram, std::numeric_limits<double>::infinity(), 1), 0);
  EXPECT_EQ(stats_set_hist(histogram, 2, 1), 0);
  const json state = recorder.state()["h"];
  EXPECT_EQ(state["count"], 2);
  EXPECT_EQ(state["min"], 2);
  EXPECT_EQ(state["max"], nullptr);
  EXPECT_EQ(state["sum"], nullptr);
  EXPECT_NEAR(state["p50"].get<double>(), 2, 0.02);
  EXPECT_EQ(state["p99"], nullptr);
}

TEST(Circmetrics, ScaledSamplesAreTheValueTimesAPowerOfTen) {
  constexpr int32_t kLowest = std::numeric_limits<int32_t>::min();
  constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();
  const struct {
    int64_t value;
    int32_t scale;
    json sum;
  } cases[] = {{125, 0, 125},   {125, 2, 12500.0},      {125, -3, 0.125}, {-3, 22, -3e22},
               {1, 300, 1e300}, {1, -300, 1e-300},      {0, kHighest, 0}, {5, kLowest, 0},
               {7, -1, 0.7},    {1000000, -320, 1e-314}};
  for (const auto& [value, scale, sum] : cases) {
    const Recorder recorder;
    void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
    EXPECT_EQ(stats_set_hist_intscale(histogram, value, scale, 1), 0);
    EXPECT_EQ(recorder.state()["h"]["count"], 1);
    EXPECT_EQ(recorder.state()["h"]["sum"], sum) << value << "e" << scale;
  }
}

TEST(Circmetrics, ScaledSamplesAreRoundedOnce) {
  std::mt19937_64 random(11);
  for (int round = 0; round < 3000; ++round) {
    const auto value = static_cast<int64_t>(random() >> random() % 64);
    const auto scale =
        static_cast<int32_t>(random() % (round % 2 == 0 ? 46 : 681)) - (round % 2 == 0 ? 23 : 360);
    const Recorder recorder;
    void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
    const std::string text = std::to_string(value) + "e" + std::to_string(scale);
    const double nearest = std::strtod(text.c_str(), nullptr);
    const bool fits = std::isfinite(nearest);
    ASSERT_EQ(stats_set_hist_intscale(histogram, value, scale, 1), fits ? 0 : -1) << text;
    EXPECT_EQ(recorder.state()["h"]["sum"], fits ? json(nearest) : json(0)) << text;
  }
}

TEST(Circmetrics, ScaledSamplesBeyondDoublesAreRefused) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  stats_set_hist_intscale(histogram, 7, 0, 1);
  const std::string before = recorder.text();
  constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();
  for (const auto& [value, scale] :
       {std::pair<int64_t, int32_t>{-1, kHighest}, {1, kHighest}, {2, 308}, {1, 309}}) {
    EXPECT_EQ(stats_set_hist_intscale(histogram, value, scale, 1), -1) << value << "e" << scale;
    EXPECT_EQ(stats_set_hist_intscale(histogram, value, scale, 0), -1) << value << "e" << scale;
  }
  EXPECT_EQ(recorder.text(), before);
}

TEST(Circmetrics, ContinuesAfterAShortCount) {
  const Recorder recorder;
  for (int index = 0; index < 3000; ++index) {
    stats_register(recorder.root, ("counter " + std::to_string(index)).c_str(), 5);
  }
  struct Reader {
    std::string text;
    std::size_t calls = 0;
  } reader;
  const auto take_some = [](void* closure, const void* bytes, size_t length) {
    auto* self = static_cast<Reader*>(closure);
    const std::size_t taken = std::min<std::size_t>(length, self->calls++ % 11 + 1);
    append(&self->text, bytes, taken);
    return static_cast<ssize_t>(taken);
  };
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 1, 0, take_some, &reader), 0);
  EXPECT_EQ(reader.text, recorder.text());
}

TEST(Circmetrics, StopsWhenNothingIsTaken) {
  const Recorder recorder;
  const auto fail = [](void* closure, const void*, size_t) -> ssize_t {
    return ++*static_cast<int*>(closure) == 2 ? -1 : 1;
  };
  int calls = 0;
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 1, 0, fail, &calls), -1);
  EXPECT_EQ(calls, 2);
  const auto take_nothing = [](void* closure, const void*, size_t) -> ssize_t {
    ++*static_cast<int*>(closure);
    return 0;
  };
  calls = 0;
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 1, 0, take_nothing, &calls), -1);
  EXPECT_EQ(calls, 1);
}

TEST(Circmetrics, TakesACountBeyondThePieceForThePiece) {
  const Recorder recorder;
  for (int index = 0; index < 3000; ++index) {
    stats_register(recorder.root, ("counter " + std::to_string(index)).c_str(), 5);
  }
  const auto boast = [](void* closure, const void* bytes, size_t length) {
    return append(closure, bytes, length) + 1000;
  };
  std::string text;
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 1, 0, boast, &text), 0);
  EXPECT_EQ(text, recorder.text());
}

TEST(Circmetrics, WritesOnlyTheLayoutThatItKnows) {
  const Recorder recorder;
  std::string text;
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 2, 0, &append, &text), -1);
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 1, 1, &append, &text), -1);
  EXPECT_EQ(stats_recorder_output_json(nullptr, 1, 0, &append, &text), -1);
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 1, 0, nullptr, &text), -1);
  EXPECT_EQ(text, "");
}

TEST(Circmetrics, MayBeUsedWhileItWrites) {
  const Recorder recorder;
  const auto register_more = [](void* closure, const void*, size_t length) {
    stats_register(static_cast<const Recorder*>(closure)->root, "late", CIRCMETRICS_COUNTER);
    return static_cast<ssize_t>(length);
  };
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 1, 0, register_more,
                                       const_cast<Recorder*>(&recorder)),
            0);
  EXPECT_EQ(recorder.text(), R"({"late":0})");
}

TEST(Circmetrics, MayWriteWhileItWrites) {
  Recorder recorder;
  stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  const auto write_again = [](void* closure, const void*, size_t length) {
    EXPECT_EQ(static_cast<Recorder*>(closure)->text(), R"({"c":0})");
    return static_cast<ssize_t>(length);
  };
  EXPECT_EQ(stats_recorder_output_json(recorder.recorder, 1, 0, write_again, &recorder), 0);
}

TEST(Circmetrics, AChildOfABusyProcessGoesOn) {
  const Recorder recorder;
  std::atomic<bool> stop{false};
  stats_register(recorder.root, "0", CIRCMETRICS_COUNTER);
  std::thread busy([&] {
    for (int index = 0; !stop; ++index) {
#ifdef QV_SANITIZED
      // Takes the lock and no memory: a sanitizer's allocator may not be in use at
      // a fork.
      stats_register(recorder.root, "0", CIRCMETRICS_COUNTER);
#else
      stats_register(recorder.root, std::to_string(index % 500).c_str(), CIRCMETRICS_COUNTER);
      recorder.text();
#endif
    }
  });
  for (int round = 0; round < 40; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      void* counter = stats_register(recorder.root, "child", CIRCMETRICS_COUNTER);
      stats_add64(counter, 1);
      std::string text;
      stats_recorder_output_json(recorder.recorder, 1, 0, &append, &text);
      _exit(json::parse(text)["child"] == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  stop = true;
  busy.join();
  EXPECT_FALSE(recorder.state().contains("child"));
}

namespace {

// What the child of a fork adds: at once from its first thread and from new ones.
// ThreadSanitizer has no new threads in the child of a process with threads.
#ifdef QV_SANITIZED
constexpr int kThreadsOfAChild = 0;
#else
constexpr int kThreadsOfAChild = 10;
#endif
constexpr int kAdditions = 500000;

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
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    _exit(child_counts_on(recorder, counter, 1 + kThreads) ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  met.arrive_and_wait();
  parents.join();
  EXPECT_EQ(recorder.state()["c"], 1 + kThreads);
}

#ifndef QV_SANITIZED  // ThreadSanitizer has no new threads there
TEST(Circmetrics, AChildsNewThreadDoesNotGetThePlaceOfTheOneThatForked) {
  const Recorder recorder;
  void* counter = stats_register(recorder.root, "c", CIRCMETRICS_COUNTER);
  add_ones(counter, 1);
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    std::thread other([&] { add_ones(counter, kEnoughToMeet); });
    add_ones(counter, kEnoughToMeet);
    other.join();
    _exit(recorder.text() == R"({"c":)" + std::to_string(2 * kEnoughToMeet + 1) + "}" ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}
#endif

namespace {

void* g_gone = nullptr;  // what a gauge observes, a page that can't be read
pid_t g_child_of_crash = -1;

// As a crash reporter does it. Then the page can be read, and the report goes on, in
// the child as well.
void fork_and_repair(int) {
  g_child_of_crash = fork();
  alarm(60);  // a child inherits none
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
  int status = -1;
  waitpid(g_child_of_crash, &status, 0);
  return is_right && status == 0 ? 0 : 1;
}

// ThreadSanitizer's own fork starts a thread, which takes memory, and it would report
// that of the handler.
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
  update(100);  // a sanitizer's allocator may not be in use at a fork
  std::atomic<bool> stop{false};
  std::thread updates([&] {
    run_threads(3, [&](int) {
      while (!stop) {
        update(100);
      }
    });
  });
  for (int round = 0; round < 40; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      const json before = recorder.state();
      update(1000);
      const json after = recorder.state();
      const json& distribution = after["h"];
      const bool is_right = after["c"] == before["c"].get<int>() + 1000 &&
                            distribution["count"] == before["h"]["count"].get<int>() + 1000 &&
                            distribution["min"] == 1 && distribution["max"] == 100 &&
                            distribution["mean"] >= 1 && distribution["mean"] <= 100;
      _exit(is_right ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  stop = true;
  updates.join();
}
