// How the library finds the recorder, checks it and calls it, and the class that does so.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "stats_test/fixture.h"
#include "support/scenario.h"

using namespace stats_test;

// -- Finding it

SCENARIO(create_every_kind) { return create_every_kind(); }

class MissingSymbol : public Stats, public testing::WithParamInterface<const char*> {};

TEST_P(MissingSymbol, EndsTheProcess) {
  const Ran ran = run_with(std::string("without_") + GetParam(), "create_every_kind");
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Lines{std::string("WARN Could not find symbol ") + GetParam() +
                                  " in libcircmetrics.so"});
  EXPECT_FALSE(test::exists(file()));
}

INSTANTIATE_TEST_SUITE_P(, MissingSymbol,
                         testing::Values("stats_recorder_alloc", "stats_recorder_global_ns",
                                         "stats_register_ns", "stats_register", "stats_observe",
                                         "stats_add64", "stats_set_hist", "stats_set_hist_intscale",
                                         "stats_recorder_output_json"),
                         [](const auto& tested) { return std::string(tested.param); });

// The fake recorder also has a function of this name, and must call its own.
extern "C" __attribute__((visibility("default"))) const char* fake_name() { return "the program"; }

#ifndef QV_SANITIZED  // a sanitizer forbids the dlopen flag that this needs
TEST_F(CircMetrics, ARecorderCallsItsOwnFunctionsAndNotTheProgramsOfTheSameName) {
  const Ran ran = run_with("fake", "create_every_kind", {{"FAKE_TELLS_ITS_NAME", "1"}});
  EXPECT_EQ(lines_of(ran.out).at(0), "the recorder");
}
#endif

#ifndef QV_SANITIZED  // a sanitizer's dlopen ignores the run path of the library
TEST_F(Stats, TheRecorderIsFoundBesideTheLibrary) {
  const Ran ran =
      test::run_program(QV_STATS_LOADER, {QV_LIBRARY}, {{"QV_STATS_REPORT_FILE", file()}});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(reports(file()), (std::vector<json>{{{"loaded", {{"times", 1}}}}}));
}

TEST_F(Stats, ARecorderInTheCurrentDirectoryIsNotLoaded) {
  const TempDir elsewhere;
  const std::string library = elsewhere.file("libQVUtil.so");
  std::filesystem::copy_file(QV_LIBRARY, library);
  const std::string command =
      "cd '" QV_FAKE_RECORDERS "/fake' && '" QV_STATS_LOADER "' '" + library + "'";
  const Ran ran = test::run_program("/bin/sh", {"-c", command}, {{"QV_STATS_REPORT_FILE", file()}});
  EXPECT_TRUE(ran.exited_with(2)) << ran.err;
  EXPECT_EQ(ran.messages(), Lines{"WARN Could not load libcircmetrics.so for stats."});
}
#endif

// -- Calling it

SCENARIO(use_every_function) {
  static const int64_t integer = 0;
  static const double real = 0;
  void* module = module_of("a/b");
  const qv_stats_handle_t counter = qv_stats_create_counter(module, "c");
  const qv_stats_handle_t histogram = qv_stats_create_histogram(module, "h");
  qv_stats_create_gauge_int64(module, "i", &integer);
  qv_stats_create_gauge_double(module, "d", &real);
  std::printf("results %d %d %d\n", qv_stats_counter_inc_do(counter, -7),
              qv_stats_hist_insert_do(histogram, 1.5, 2),
              qv_stats_hist_insert_fast_do(histogram, INT64_MIN, -3, UINT32_MAX));
  std::printf("%p %p\n", static_cast<const void*>(&integer), static_cast<const void*>(&real));
  std::fflush(stdout);
  return 0;
}

TEST_F(CircMetrics, EveryCallReachesTheRecorderAsItIs) {
  const Ran ran = run_with("fake", "use_every_function");
  EXPECT_TRUE(ran.exited_with(0));
  Lines calls = lines_of(ran.out);
  const auto addresses_at = std::find_if(
      calls.begin(), calls.end(), [](const std::string& line) { return line.rfind("0x", 0) == 0; });
  ASSERT_NE(addresses_at, calls.end());
  const std::string addresses = *addresses_at;
  const std::string integer = addresses.substr(0, addresses.find(' '));
  const std::string real = addresses.substr(addresses.find(' ') + 1);
  const auto resolved = [](const std::string& then) {
    return Lines{"global_ns recorder", "register_ns recorder root 'a'",
                 "register_ns recorder root.a 'b'", then};
  };
  Lines expected{"alloc"};
  const auto expect = [&](const Lines& more) {
    expected.insert(expected.end(), more.begin(), more.end());
  };
  expect(resolved("register root.a.b 'c' 5"));
  expect(resolved("register root.a.b 'h' 7"));
  expect(resolved("register root.a.b 'i' 3"));
  expect({"observe root.a.b.i 3 " + integer});
  expect(resolved("register root.a.b 'd' 6"));
  expect({"observe root.a.b.d 6 " + real});
  expect({"results 64 65 66", addresses, "output_json recorder 1 0"});
  const Lines updates{"add64 root.a.b.c -7", "set_hist root.a.b.h 1.5 2",
                      "set_hist_intscale root.a.b.h -9223372036854775808 -3 4294967295"};
  // printf's arguments are evaluated in any order.
  for (const std::string& update : updates) {
    EXPECT_EQ(std::erase(calls, update), 1) << update;
  }
  EXPECT_EQ(calls, expected);
  EXPECT_EQ(reports(file()), std::vector<json>{json::array()});
}

// The fake recorder's handles are strings.
SCENARIO(begin_with_an_update) {
  std::string metrics[] = {"a counter", "a histogram"};
  const auto counter = reinterpret_cast<qv_stats_handle_t>(&metrics[0]);
  const auto histogram = reinterpret_cast<qv_stats_handle_t>(&metrics[1]);
  const int kind = std::stoi(arguments.at(0));
  return kind == 0   ? qv_stats_counter_inc_do(counter, 1)
         : kind == 1 ? qv_stats_hist_insert_do(histogram, 1, 1)
                     : qv_stats_hist_insert_fast_do(histogram, 1, 1, 1);
}

TEST_F(CircMetrics, AnUpdateMayBeTheFirstUse) {
  const std::string calls[] = {"add64 a counter 1", "set_hist a histogram 1 1",
                               "set_hist_intscale a histogram 1 1 1"};
  for (int kind = 0; kind < 3; ++kind) {
    const Ran ran = run_with("fake", "begin_with_an_update", {}, {std::to_string(kind)});
    EXPECT_TRUE(ran.exited_with(64 + kind));
    EXPECT_EQ(ran.messages(), Lines{capturing(file())});
    EXPECT_EQ(lines_of(ran.out), (Lines{"alloc", calls[kind], "output_json recorder 1 0"}));
  }
}

SCENARIO(create_one_counter) {
  return qv_stats_create_counter(module_of("a/b/c"), "x") == QV_STATS_INVALID_HANDLE ? 0 : 1;
}

class Refusal : public Stats, public testing::WithParamInterface<std::pair<const char*, Lines>> {};

TEST_P(Refusal, GivesTheInvalidHandleAndNoMessage) {
  const auto& [refused, calls] = GetParam();
  const Ran ran = run_with("fake", "create_one_counter", {{"FAKE_REFUSES", refused}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  Lines expected{"alloc", "global_ns recorder"};
  expected.insert(expected.end(), calls.begin(), calls.end());
  expected.push_back("output_json recorder 1 0");
  EXPECT_EQ(lines_of(ran.out), expected);
}

const char* const kRegisterA = "register_ns recorder root 'a'";
const char* const kRegisterB = "register_ns recorder root.a 'b'";
const char* const kRegisterC = "register_ns recorder root.a.b 'c'";

INSTANTIATE_TEST_SUITE_P(
    , Refusal,
    testing::Values(std::pair("global_ns", Lines{}), std::pair("register_ns a", Lines{kRegisterA}),
                    std::pair("register_ns b", Lines{kRegisterA, kRegisterB}),
                    std::pair("register_ns c", Lines{kRegisterA, kRegisterB, kRegisterC}),
                    std::pair("register", Lines{kRegisterA, kRegisterB, kRegisterC,
                                                "register root.a.b.c 'x' 5"})));

// -- The class on its own

namespace {

void* load_recorder() { return dlopen(QV_BINARY_DIR "/lib/libcircmetrics.so", RTLD_LAZY); }

}  // namespace

SCENARIO(construct_and_destroy) {
  const CircMetricsModule module(load_recorder(), std::chrono::duration<long>(0),
                                 arguments.at(0).c_str());
  return module.is_usable() ? 0 : 1;
}

TEST_F(CircMetrics, OpensAndClosesWithoutAWord) {
  const Ran ran = run("construct_and_destroy", {}, {dir_.file("own")});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{});
  EXPECT_TRUE(test::exists(dir_.file("own")));
  EXPECT_FALSE(test::exists(file()));
}

// The holder keeps the recorder loaded. The module's handle is closed here, so the module fails
// to close it again.
SCENARIO(fail_to_unload) {
  dlopen(QV_FAKE_RECORDERS "/libstats_test_holder.so", RTLD_LAZY);
  void* handle = dlopen(QV_FAKE_RECORDERS "/fake/libcircmetrics.so", RTLD_LAZY);
  const CircMetricsModule module(handle, std::chrono::duration<long>(0), arguments.at(0).c_str());
  dlclose(handle);
  if (arguments.size() > 1) {
    Module::get_internal()->level = QV_LOG_LEVEL_ERROR;
  }
  errno = EDOM;
  return 0;
}

TEST_F(CircMetrics, AFailedUnloadIsReportedWithTheSystemsText) {
  const Ran ran = run_with("fake", "fail_to_unload", {}, {dir_.file("own")});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{"WARN Could not dlclose CircMetrics library: Numerical argument "
                                  "out of domain"});
  EXPECT_EQ(run_with("fake", "fail_to_unload", {}, {dir_.file("own"), "quiet"}).messages(),
            Lines{});
}

SCENARIO(destroy_a_running_module) {
  const CircMetricsModule module(load_recorder(), std::chrono::duration<long>(1000),
                                 arguments.at(0).c_str());
  return 0;
}

TEST_F(CircMetrics, DestroyingARunningModuleEndsTheProcess) {
  EXPECT_TRUE(run("destroy_a_running_module", {}, {dir_.file("own")}).aborted());
}

SCENARIO(report_without_sleeping) {
  alarm(100);
  const std::string fifo = arguments.at(0);
  mkfifo(fifo.c_str(), 0600);
  open(fifo.c_str(), O_RDWR);  // so that opening it for writing doesn't block
  new CircMetricsModule(load_recorder(), std::chrono::duration<long>(-1), fifo.c_str());
  std::ifstream stream(fifo);
  std::string line;
  for (int index = 0; index < 3; ++index) {
    std::getline(stream, line);
    if (values_of(line) != json::object()) {
      _exit(1);
    }
  }
  _exit(0);
}

TEST_F(CircMetrics, ANegativePeriodReportsWithoutSleeping) {
  EXPECT_TRUE(run("report_without_sleeping", {}, {dir_.file("fifo")}).exited_with(0));
}
