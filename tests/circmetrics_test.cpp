// The recorder: names, counters, gauges, and its report as JSON.
#include <circmetrics.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

#include "circmetrics_test/fixture.h"

using namespace circmetrics_test;

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
  } cases[] = {{"\x80", 1},      // a lone continuation byte
               {"\xC0\xAF", 2},  // overlong forms
               {"\xC1\x81", 2},
               {"\xE0\x80\x80", 3},
               {"\xED\xA0\x80", 3},      // a surrogate
               {"\xF4\x90\x80\x80", 4},  // beyond the last code point
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
  EXPECT_GT(recorder.state().size(), 1000);  // parsing throws if the text isn't JSON
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
  EXPECT_EQ(reader.text, recorder.whole_text());
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
  EXPECT_EQ(text, recorder.whole_text());
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
