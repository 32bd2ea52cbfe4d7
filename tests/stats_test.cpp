#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "stats_test/fixture.h"
#include "support/interrupt.h"
#include "support/no_memory.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/thread_state.h"

using namespace stats_test;

// -- Off, or not set up

SCENARIO(use_nothing) { return 0; }

TEST_F(Stats, NothingHappensBeforeTheFirstUse) {
  const Ran ran = run("use_nothing", {{"QV_STATS_REPORT_PERIOD", "abc"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{});
  EXPECT_FALSE(test::exists(file()));
}

SCENARIO(create_every_kind) {
  static const int64_t integer = 0;  // read by the last report, too
  static const double real = 0;
  void* module = module_of("m");
  const qv_stats_handle_t handles[] = {qv_stats_create_gauge_int64(module, "i", &integer),
                                       qv_stats_create_gauge_double(module, "d", &real),
                                       qv_stats_create_counter(module, "c"),
                                       qv_stats_create_histogram(module, "h")};
  int invalid = 0;
  for (const qv_stats_handle_t handle : handles) {
    invalid += handle == UINT64_MAX ? 1 : 0;
    if (handle == QV_STATS_INVALID_HANDLE) {
      qv_stats_counter_inc(handle, 1);
      qv_stats_hist_insert(handle, 1.0, 1);
      qv_stats_hist_insert_fast(handle, 1, 0, 1);
    }
  }
  if ((get_singleton_module() == nullptr) != (invalid == 4) ||
      get_singleton_module() != get_singleton_module()) {
    return 100;
  }
  return invalid;
}

TEST_F(Stats, EveryHandleIsInvalidWhenNoReportFileIsNamed) {
  const Ran ran = run_scenario("create_every_kind", {{"QV_STATS_REPORT_PERIOD", "abc"}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(), Lines{kOff});
}

TEST_F(Stats, EveryHandleIsInvalidWhenTheRecorderCantBeLoaded) {
  test::write_file(dir_.file("libcircmetrics.so"), "no library");
  const Ran ran = run("create_every_kind", {{"LD_LIBRARY_PATH", dir_.path()}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(), Lines{"WARN Could not load libcircmetrics.so for stats."});
  EXPECT_FALSE(test::exists(file()));
}

TEST_F(Stats, AFileThatCantBeOpenedTurnsStatisticsOffWithTwoWarnings) {
  const std::string path = dir_.file("no/such/report");
  const Ran ran = run("create_every_kind", {{"QV_STATS_REPORT_FILE", path}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(), (Lines{"WARN Could not open statistics output file " + path +
                                       ": No such file or directory",
                                   "WARN Could not close report_file: Bad file descriptor"}));
}

TEST_F(Stats, AnEmptyFileNameIsAFileThatCantBeOpened) {
  const Ran ran = run("create_every_kind", {{"QV_STATS_REPORT_FILE", ""}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(),
            (Lines{"WARN Could not open statistics output file : No such file or directory",
                   "WARN Could not close report_file: Bad file descriptor"}));
}

TEST_F(Stats, ARecorderThatCantBeMadeTurnsStatisticsOffWithTwoWarnings) {
  const Ran ran = run_with("fake", "create_every_kind", {{"FAKE_REFUSES", "alloc"}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(), (Lines{"WARN Could not create statistics recorder object.",
                                   "WARN Could not close report_file: Bad file descriptor"}));
  EXPECT_EQ(ran.out, "alloc\n");
  EXPECT_TRUE(test::exists(file()));
  EXPECT_EQ(read_file(file()), "");
}

TEST_F(Stats, NoThreadIsStartedWithoutARecorder) {
  const Ran ran = run_with("fake", "create_every_kind",
                           {{"FAKE_REFUSES", "alloc"}, {"QV_STATS_REPORT_PERIOD", "1"}});
  EXPECT_TRUE(ran.exited_with(4)) << "a running thread would have ended the process";
}

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

SCENARIO(silence_and_use) {
  Module::get_internal()->level = static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  return scenario_create_every_kind({});
}

TEST_F(Stats, AMissingSymbolEndsTheProcessAlsoInSilence) {
  const Ran ran =
      run("silence_and_use",
          {{"LD_LIBRARY_PATH", QV_FAKE_RECORDERS "/without_stats_set_hist_intscale"}}, {"1"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Lines{});
}

TEST_F(Stats, MessagesFollowTheInternalModulesLevel) {
  const Environment bad_period{{"QV_STATS_REPORT_PERIOD", "x"}};
  EXPECT_EQ(run("silence_and_use", bad_period, {"1"}).messages(), Lines{});
  EXPECT_EQ(run("silence_and_use", bad_period, {"2"}).messages(),
            Lines{"WARN Could not parse stats report period environment variable "
                  "\"QV_STATS_REPORT_PERIOD=x\". Ignoring."});
  EXPECT_EQ(run("silence_and_use", {}, {"3"}).messages(), Lines{capturing(file())});
  EXPECT_EQ(run("silence_and_use", {{"QV_STATS_REPORT_FILE", std::nullopt}}, {"2"}).messages(),
            Lines{});
}

TEST_F(Stats, AFailureIsSilentBelowWarn) {
  test::write_file(dir_.file("libcircmetrics.so"), "no library");
  const std::vector<Environment> failures{
      {{"LD_LIBRARY_PATH", dir_.path()}},
      {{"QV_STATS_REPORT_FILE", dir_.file("no/such/report")}},
      {{"LD_LIBRARY_PATH", QV_FAKE_RECORDERS "/fake"}, {"FAKE_REFUSES", "alloc"}}};
  for (const Environment& failure : failures) {
    const Ran ran = run("silence_and_use", failure, {"1"});
    EXPECT_TRUE(ran.exited_with(4));
    EXPECT_EQ(ran.messages(), Lines{});
  }
}

SCENARIO(use_without_memory) {
  void* const module = module_of("a component that is no short string/m");
  if (arguments.at(0) == "later") {
    get_singleton_module();
  }
  test::no_memory_from = 0;
  const qv_stats_handle_t without = qv_stats_create_counter(module, "n");
  test::no_memory_from = test::kEnoughMemory;
  const qv_stats_handle_t with = qv_stats_create_counter(module, "n");
  return (without == QV_STATS_INVALID_HANDLE ? 1 : 0) + (with == QV_STATS_INVALID_HANDLE ? 2 : 0);
}

TEST_F(Stats, AFirstUseWithoutMemoryTurnsStatisticsOffWithOneWarning) {
  const Ran ran = run("use_without_memory", {}, {"first"});
  EXPECT_TRUE(ran.exited_with(3));
  EXPECT_EQ(ran.messages(), Lines{"WARN No memory for statistics."});
  EXPECT_FALSE(test::exists(file()));
}

TEST_F(Stats, AMetricForWhichThereIsNoMemoryGetsTheInvalidHandleUntilThereIs) {
  const Ran ran = run("use_without_memory", {}, {"later"});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
}

SCENARIO(use_first_from_many_threads) {
  std::atomic<int> ready{0};
  std::vector<CircMetricsModule*> modules(8);
  std::vector<std::thread> threads;
  for (CircMetricsModule*& module : modules) {
    threads.emplace_back([&] {
      ++ready;
      while (ready != 8) {
      }
      module = get_singleton_module();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return modules[0] != nullptr && std::count(modules.begin(), modules.end(), modules[0]) == 8 ? 0
                                                                                              : 1;
}

TEST_F(Stats, FirstUsesAtOnceSetUpOneModule) {
  const Ran ran = run("use_first_from_many_threads");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  EXPECT_EQ(reports(file()), std::vector<json>{json::object()});
}

// Nothing orders the threads but the module itself.
SCENARIO(use_what_another_thread_set_up) {
  std::atomic<bool> is_set_up{false};
  std::thread second([&] {
    while (!is_set_up.load(std::memory_order_relaxed)) {
    }
    get_singleton_module()->report_now();
    qv_stats_counter_inc(qv_stats_create_counter(module_of("m"), "n"), 1);
  });
  get_singleton_module();
  is_set_up.store(true, std::memory_order_relaxed);
  second.join();
  return 0;
}

TEST_F(Stats, AThreadSeesAllOfWhatAnotherSetUp) {
  EXPECT_TRUE(run("use_what_another_thread_set_up").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 2U);
}

// The fake recorder has a function of this name as well, and calls it.
extern "C" __attribute__((visibility("default"))) const char* fake_name() { return "the program"; }

#ifndef QV_SANITIZED  // where the flag that does this is left out
TEST_F(CircMetrics, ARecorderCallsItsOwnFunctionsAndNotTheProgramsOfTheSameName) {
  const Ran ran = run_with("fake", "create_every_kind", {{"FAKE_TELLS_ITS_NAME", "1"}});
  EXPECT_EQ(lines_of(ran.out).at(0), "the recorder");
}
#endif

#ifndef QV_SANITIZED  // see Stats::run
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

// -- The period

SCENARIO(start_and_count_threads) {
  start_sanitizers_thread();
  const std::size_t before = thread_count();
  get_singleton_module();
  return static_cast<int>(thread_count() - before);
}

class BadPeriod : public Stats, public testing::WithParamInterface<const char*> {};

TEST_P(BadPeriod, GivesAWarningAndNoThread) {
  const Ran ran = run("start_and_count_threads", {{"QV_STATS_REPORT_PERIOD", GetParam()}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(),
            (Lines{std::string("WARN Could not parse stats report period environment variable "
                               "\"QV_STATS_REPORT_PERIOD=") +
                       GetParam() + "\". Ignoring.",
                   capturing(file())}));
  EXPECT_EQ(reports(file()), std::vector<json>{json::object()});
}

INSTANTIATE_TEST_SUITE_P(, BadPeriod,
                         testing::Values("", " ", "10s", "-5", "abc", "7 ", "1.5", "0x10", "+",
                                         "--1", "-99999999999999999999"));

class NoPeriod : public Stats, public testing::WithParamInterface<const char*> {};

TEST_P(NoPeriod, GivesNoThreadButALastReport) {
  const Ran ran = run("start_and_count_threads", {{"QV_STATS_REPORT_PERIOD", GetParam()}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  EXPECT_EQ(reports(file()), std::vector<json>{json::object()});
}

INSTANTIATE_TEST_SUITE_P(, NoPeriod, testing::Values("0", "000", "-0", "+0"));

class GoodPeriod : public Stats, public testing::WithParamInterface<const char*> {};

TEST_P(GoodPeriod, StartsAThreadThatDoesNotReportAtOnce) {
  const Ran ran = run("start_and_count_threads", {{"QV_STATS_REPORT_PERIOD", GetParam()}});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  EXPECT_EQ(reports(file()), std::vector<json>{json::object()}) << "the last report only";
}

INSTANTIATE_TEST_SUITE_P(, GoodPeriod,
                         testing::Values("1000", " 7000", "+7000", "\t+07000",
                                         "99999999999999999999"));

// Reads reports through a FIFO: each read waits for the next line.
SCENARIO(read_three_reports) {
  alarm(100);
  const std::string fifo = std::getenv("QV_STATS_REPORT_FILE");
  mkfifo(fifo.c_str(), 0600);
  open(fifo.c_str(), O_RDWR);  // for the last report, too
  const qv_stats_handle_t counter = qv_stats_create_counter(module_of("periodic"), "n");
  std::ifstream stream(fifo);
  for (int index = 1; index <= 3; ++index) {
    qv_stats_counter_inc_do(counter, 1);
    std::string line;
    std::getline(stream, line);
    if (log_of(line) != json{{"periodic", {{"n", index}}}}) {
      return index;
    }
  }
  return 0;
}

TEST_F(Stats, TheThreadReportsEveryPeriod) {
  EXPECT_TRUE(run("read_three_reports", {{"QV_STATS_REPORT_PERIOD", "1"}}).exited_with(0));
}

SCENARIO(interrupt_the_sleeping_thread) {
  test::let_signals_interrupt();
  const pid_t reporter = start_reporter();
  const std::string task = "self/task/" + std::to_string(reporter);
  for (int round = 0; round < 5; ++round) {
    wait_until([&] { return is_sleeping(task); });
    test::interrupt(reporter);
  }
  wait_until([&] { return is_sleeping(task); });
  return read_file(std::getenv("QV_STATS_REPORT_FILE")).empty() ? 0 : 1;
}

TEST_F(Stats, AnInterruptedThreadSleepsOn) {
  EXPECT_TRUE(
      run("interrupt_the_sleeping_thread", {{"QV_STATS_REPORT_PERIOD", "1000"}}).exited_with(0));
  EXPECT_EQ(reports(file()).size(), 1U);
}

// Refuses threads only: LeakSanitizer clones a process of its own at the end.
SCENARIO(start_without_threads) {
  if (!arguments.empty()) {
    Module::get_internal()->level = QV_LOG_LEVEL_ERROR;
  }
  constexpr std::uint32_t kThread = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SYSVSEM |
                                    CLONE_SIGHAND | CLONE_THREAD | CLONE_SETTLS |
                                    CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID;
  test::refuse(SYS_clone3, ENOSYS);
  test::refuse(SYS_clone, EAGAIN, test::When{0, kThread});
  return scenario_create_every_kind({});
}

TEST_F(Stats, AProcessThatMayHaveNoMoreThreadsStillReportsAtItsEnd) {
  const Ran ran = run("start_without_threads", {{"QV_STATS_REPORT_PERIOD", "1"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), (Lines{"WARN Could not start statistics report thread: "
                                   "Resource temporarily unavailable",
                                   capturing(file())}));
  EXPECT_EQ(reports(file()).size(), 1U);
  const Ran quiet = run("start_without_threads", {{"QV_STATS_REPORT_PERIOD", "1"}}, {"quiet"});
  EXPECT_EQ(quiet.messages(), Lines{});
  EXPECT_EQ(reports(file()).size(), 2U);
}

// -- What is created, and where

SCENARIO(fill_every_kind) {
  static int64_t integer = -5;
  static double real = 0.5;
  void* module = module_of("util/src/cache");
  qv_stats_create_gauge_int64(module, "i", &integer);
  qv_stats_create_gauge_double(module, "d", &real);
  const qv_stats_handle_t counter = qv_stats_create_counter(module, "c");
  const qv_stats_handle_t histogram = qv_stats_create_histogram(module, "h");
  qv_stats_counter_inc(counter, 3);
  qv_stats_hist_insert(histogram, 0.25, 2);
  qv_stats_hist_insert_fast(histogram, 25, -2, 2);
  qv_stats_counter_inc(qv_stats_create_counter(module_of("util"), "c"), 1);
  get_singleton_module()->report_now();
  integer = 6;
  real = -1e10;
  qv_stats_counter_inc(qv_stats_create_counter(module, "c"), 4);
  return qv_stats_create_counter(module, "c") == counter ? 0 : 1;
}

TEST_F(Stats, ReportsEveryKindInItsModulesNamespaces) {
  const Ran ran = run("fill_every_kind");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  const json histogram{{"count", 4},  {"sum", 1.0},  {"min", 0.25}, {"max", 0.25},  {"mean", 0.25},
                       {"p50", 0.25}, {"p90", 0.25}, {"p99", 0.25}, {"p99.9", 0.25}};
  const auto expected = [&](int64_t integer, double real, int count) {
    const json cache{{"i", integer}, {"d", real}, {"c", count}, {"h", histogram}};
    return json{{"util", {{"src", {{"cache", cache}}}, {"c", 1}}}};
  };
  EXPECT_EQ(reports(file()), (std::vector<json>{expected(-5, 0.5, 3), expected(6, -1e10, 7)}));
}

SCENARIO(create_under_odd_paths) {
  std::vector<std::string> routes(1);
  Module module = *static_cast<Module*>(module_of("m"));
  module.routes = &routes;
  int valid = 0;
  for (const char* path : {"/a", "b//c", "d/", "", "first", "/"}) {
    routes[0] = path;
    valid += qv_stats_create_counter(&module, "x") != QV_STATS_INVALID_HANDLE ? 1 : 0;
  }
  routes = {"one", "two"};
  valid += qv_stats_create_counter(&module, "x") != QV_STATS_INVALID_HANDLE ? 10 : 0;
  return valid;
}

TEST_F(Stats, OnlyPathsWithoutEmptyComponentsGiveANamespace) {
  const Ran ran = run("create_under_odd_paths");
  EXPECT_TRUE(ran.exited_with(13));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  const json counter{{"x", 0}};
  EXPECT_EQ(reports(file()), (std::vector<json>{{{"b", json::object()},
                                                 {"d", {{"", counter}}},
                                                 {"", counter},
                                                 {"first", counter},
                                                 {"one", counter}}}));
}

// A module that is never registered stays its maker's, for as long as the process
// logs on it.
SCENARIO(create_without_a_path) {
  static void* const module = qv_module_create();
  static_cast<Module*>(module)->level = static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  char message[64];
  std::snprintf(message, sizeof message, "Module %p does not have path.", module);
  std::puts(message);
  qv_module_route("a//b", module);
  return qv_stats_create_counter(module, "x") == QV_STATS_INVALID_HANDLE ? 0 : 1;
}

TEST_F(Stats, AModuleWithoutAPathIsToldSo) {
  const Ran ran = run("create_without_a_path", {}, {"2"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), (Lines{"WARN Format error parsing module path \"a//b\"",
                                   capturing(file()), "WARN " + lines_of(ran.out).at(0)}));
  EXPECT_EQ(reports(file()), std::vector<json>{json::object()});
}

TEST_F(Stats, AModuleWithoutAPathIsToldAtItsOwnLevel) {
  const Ran ran = run("create_without_a_path", {}, {"1"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(),
            (Lines{"WARN Format error parsing module path \"a//b\"", capturing(file())}));
}

SCENARIO(create_on_the_internal_module) {
  std::printf("Module %p does not have path.\n", static_cast<void*>(Module::get_internal()));
  return qv_stats_create_counter(Module::get_internal(), "x") == QV_STATS_INVALID_HANDLE ? 0 : 1;
}

TEST_F(Stats, TheInternalModuleHasNoPath) {
  const Ran ran = run("create_on_the_internal_module");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), (Lines{capturing(file()), "WARN " + lines_of(ran.out).at(0)}));
}

// -- What the recorder is asked

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
  // The arguments of one printf are evaluated in any order.
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
  const Environment fake{{"LD_LIBRARY_PATH", QV_FAKE_RECORDERS "/fake"}};
  for (int kind = 0; kind < 3; ++kind) {
    const Ran ran = run("begin_with_an_update", fake, {std::to_string(kind)});
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

// -- The report line

SCENARIO(report_the_time) {
  const auto before = static_cast<long>(time(nullptr));
  get_singleton_module()->report_now();
  const auto after = static_cast<long>(time(nullptr));
  const long reported =
      json::parse(lines_of(read_file(std::getenv("QV_STATS_REPORT_FILE"))).at(0))["ts"];
  return before <= reported && reported <= after ? 0 : 1;
}

TEST_F(Stats, AReportCarriesTheTimeInSeconds) {
  EXPECT_TRUE(run("report_the_time").exited_with(0));
}

TEST_F(Stats, ReportsAreAppended) {
  test::write_file(file(), "{\"ts\": 1, \"log\":\"old\"}\n");
  EXPECT_TRUE(run("create_every_kind").exited_with(0));
  EXPECT_EQ(reports(file()).at(0), "old");
  EXPECT_EQ(reports(file()).size(), 2U);
}

SCENARIO(make_a_file_under_umask_0) {
  umask(0);
  return scenario_create_every_kind({});
}

TEST_F(Stats, ANewFileMayBeWrittenByItsOwnerOnly) {
  run("make_a_file_under_umask_0");
  struct stat status = {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
}

SCENARIO(is_the_file_closed_on_exec) {
  get_singleton_module();
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry, error) == std::getenv("QV_STATS_REPORT_FILE")) {
      return (fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 1;
    }
  }
  return 2;
}

TEST_F(Stats, AProgramThatIsExecutedDoesNotGetTheFile) {
  EXPECT_TRUE(run("is_the_file_closed_on_exec").exited_with(0));
}

TEST_F(Stats, AFullDiskIsNoOnesTrouble) {
  const Ran ran = run("fill_every_kind", {{"QV_STATS_REPORT_FILE", "/dev/full"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{capturing("/dev/full")});
}

SCENARIO(write_short) {
  get_singleton_module();
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{100, 100};
  setrlimit(RLIMIT_FSIZE, &limit);
  set_output([](FakeWrite write_piece, void* closure) {
    const std::string piece(1000, 'x');
    std::printf("%zd\n", write_piece(closure, piece.data(), 0));
    std::printf("%zd\n", write_piece(closure, piece.data(), piece.size()));
    const ssize_t refused = write_piece(closure, piece.data(), piece.size());
    std::printf("%zd %s\n", refused, refused == -1 && errno == EFBIG ? "too big" : "other");
  });
  get_singleton_module()->report_now();
  set_output(nullptr);
  std::fflush(stdout);
  return 0;
}

TEST_F(CircMetrics, AShortWriteAndAnErrorArePassedBack) {
  const Ran ran = run_with("fake", "write_short");
  EXPECT_TRUE(ran.exited_with(0));
  const std::string text = read_file(file());
  ASSERT_EQ(text.size(), 100U);
  const std::size_t head = text.find('x');
  EXPECT_EQ(text.substr(head), std::string(100 - head, 'x'));
  Lines printed;
  for (const std::string& line : lines_of(ran.out)) {
    if (line != "alloc" && line != "output_json recorder 1 0") {
      printed.push_back(line);
    }
  }
  EXPECT_EQ(printed, (Lines{"0", std::to_string(100 - head), "-1 too big"}));
}

// A pipe that is full blocks the writer until it is read.
int g_pipe = -1;

void fill_pipe() {
  const std::string block(4096, '.');
  while (write(g_pipe, block.data(), block.size()) > 0) {
  }
}

void drain_pipe() {
  char block[65536];
  while (read(g_pipe, block, sizeof block) > 0) {
  }
}

void write_interrupted(FakeWrite write_piece, void* closure) {
  fill_pipe();
  const auto writer = static_cast<pid_t>(syscall(SYS_gettid));
  const std::string task = task_of_this_thread();
  std::thread interrupter([&] {
    for (int round = 0; round < 3; ++round) {
      wait_until([&] { return is_in_call(task, SYS_write); });
      test::interrupt(writer);
    }
    wait_until([&] { return is_in_call(task, SYS_write); });
    drain_pipe();
  });
  const ssize_t written = write_piece(closure, "[1]", 3);
  interrupter.join();
  drain_pipe();
  std::printf("written %zd\n", written);
}

SCENARIO(interrupt_a_write) {
  test::let_signals_interrupt();
  const char* fifo = std::getenv("QV_STATS_REPORT_FILE");
  mkfifo(fifo, 0600);
  g_pipe = open(fifo, O_RDWR | O_NONBLOCK);
  get_singleton_module();
  set_output(&write_interrupted);
  get_singleton_module()->report_now();
  set_output(nullptr);
  std::fflush(stdout);
  return 0;
}

TEST_F(CircMetrics, AnInterruptedWriteIsRepeated) {
  const Ran ran = run_with("fake", "interrupt_a_write");
  EXPECT_TRUE(ran.exited_with(0));
  const Lines lines = lines_of(ran.out);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "written 3"), 1) << ran.out;
}

SCENARIO(interrupt_a_wait_for_the_file_lock) {
  test::let_signals_interrupt();
  const char* path = std::getenv("QV_STATS_REPORT_FILE");
  CircMetricsModule* module = get_singleton_module();
  const int other = open(path, O_RDONLY);
  flock(other, LOCK_EX);
  std::atomic<pid_t> id{0};
  std::thread reporter([&] {
    id = static_cast<pid_t>(syscall(SYS_gettid));
    module->report_now();
  });
  wait_until([&] { return id != 0; });
  const std::string task = "self/task/" + std::to_string(id);
  for (int round = 0; round < 3; ++round) {
    wait_until([&] { return is_in_call(task, SYS_flock); });
    test::interrupt(id);
  }
  wait_until([&] { return is_in_call(task, SYS_flock); });
  const bool waited = read_file(path).empty();
  flock(other, LOCK_UN);
  reporter.join();
  const bool released = flock(other, LOCK_EX | LOCK_NB) == 0;
  close(other);
  return waited && released && reports(path).size() == 1 ? 0 : 1;
}

TEST_F(Stats, AReportWaitsForTheFileLockAlsoWhenInterrupted) {
  EXPECT_TRUE(run("interrupt_a_wait_for_the_file_lock").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 2U);
}

SCENARIO(report_where_nothing_can_be_locked) {
  test::refuse(SYS_flock, ENOLCK);
  get_singleton_module()->report_now();
  return 0;
}

TEST_F(Stats, AReportIsWrittenAlsoWhereFilesCantBeLocked) {
  EXPECT_TRUE(run("report_where_nothing_can_be_locked").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 2U);
}

// -- Several threads and processes

constexpr int kManyReports = 60;

void register_a_long_report() {
  for (int index = 0; index < 1500; ++index) {
    qv_stats_create_counter(module_of("long"), ("a counter " + std::to_string(index)).c_str());
  }
}

SCENARIO(report_often) {
  register_a_long_report();
  std::thread second([] {
    for (int index = 0; index < kManyReports; ++index) {
      get_singleton_module()->report_now();
    }
  });
  for (int index = 0; index < kManyReports; ++index) {
    get_singleton_module()->report_now();
  }
  second.join();
  return 0;
}

TEST_F(Stats, LinesOfThreadsAndProcessesStayWhole) {
  std::thread other([&] { EXPECT_TRUE(run("report_often").exited_with(0)); });
  EXPECT_TRUE(run("report_often").exited_with(0));
  other.join();
  const std::vector<json> all = reports(file());
  EXPECT_EQ(all.size(), 2U * (2U * kManyReports + 1U));
  for (const json& log : all) {
    EXPECT_LE(log.value("long", json::object()).size(), 1500U);
  }
}

// Not while the report thread starts: a sanitizer's allocator would not survive that.
SCENARIO(fork_a_child_that_counts) {
  start_reporter();
  const qv_stats_handle_t counter = qv_stats_create_counter(module_of("m"), "n");
  qv_stats_counter_inc(counter, 1);
  const pid_t child = fork();
  if (child == 0) {
    g_leaves_leak_check = true;
    qv_stats_counter_inc(counter, 10);
    qv_stats_create_counter(module_of("of the child"), "n");
    std::exit(0);
  }
  const int status = wait_for(child);
  qv_stats_counter_inc(counter, 100);
  return status;
}

TEST_F(Stats, AChildReportsItsOwnView) {
  const Ran ran = run("fork_a_child_that_counts", {{"QV_STATS_REPORT_PERIOD", "1000"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(reports(file()), (std::vector<json>{{{"m", {{"n", 11}}}, {"of the child", {{"n", 0}}}},
                                                {{"m", {{"n", 101}}}}}));
}

// The child reports twice.
SCENARIO(report_in_a_child) {
  alarm(100);
  get_singleton_module();
  const pid_t child = fork();
  if (child == 0) {
    get_singleton_module()->report_now();
    get_singleton_module()->report_now();
    _exit(0);
  }
  return wait_for(child);
}

// To open a pipe once more could block.
TEST_F(Stats, AChildReportsThroughItsParentsPipe) {
  ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
  const int pipe = open(file().c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
  EXPECT_TRUE(run("report_in_a_child").exited_with(0));
  char text[4096];
  const ssize_t size = read(pipe, text, sizeof(text));
  close(pipe);
  ASSERT_GT(size, 0);
  EXPECT_EQ(lines_of({text, static_cast<std::size_t>(size)}).size(), 3U);
}

pid_t g_child = 0;
bool g_child_may_write = true;

// Forks in the middle of a report, and goes on once the child waits for the end of
// this report with one of its own.
void fork_while_reporting(FakeWrite write_piece, void* closure) {
  write_piece(closure, "[", 1);
  g_child = fork();
  if (g_child == 0) {
    if (!g_child_may_write) {
      test::refuse(SYS_openat, EACCES, test::When{2, O_WRONLY | O_APPEND | O_CLOEXEC});
    }
    set_output([](FakeWrite write_child, void* of_child) { write_child(of_child, "{}", 2); });
    get_singleton_module()->report_now();
    _exit(0);
  }
  wait_until([] {
    return is_in_call(std::to_string(g_child), SYS_flock) ||
           waitpid(g_child, nullptr, WNOHANG) != 0;
  });
  write_piece(closure, "1]", 2);
}

SCENARIO(fork_during_a_report) {
  g_child_may_write = std::getenv("REFUSED") == nullptr;
  get_singleton_module();
  set_output(&fork_while_reporting);
  get_singleton_module()->report_now();
  set_output(nullptr);
  return wait_for(g_child);
}

TEST_F(CircMetrics, AChildsReportWaitsForItsParents) {
  EXPECT_TRUE(run_with("fake", "fork_during_a_report").exited_with(0));
  EXPECT_EQ(reports(file()), (std::vector<json>{json::array({1}), json::object(), json::array()}));
}

// One that has become another user, say.
TEST_F(CircMetrics, TheReportOfAChildThatMayOpenTheFileOnlyForReadingWaitsAsWell) {
  EXPECT_TRUE(run_with("fake", "fork_during_a_report", {{"REFUSED", ""}}).exited_with(0));
  EXPECT_EQ(reports(file()), (std::vector<json>{json::array({1}), json::object(), json::array()}));
}

// One thread reports: more of them pass the file lock on among themselves, and the
// children wait.
SCENARIO(fork_beside_reports) {
  qv_stats_create_counter(module_of("long"), "a counter");
  std::atomic<bool> stop{false};
  std::vector<std::thread> busy;
  busy.emplace_back([&] {
    while (!stop) {
      get_singleton_module()->report_now();
      std::this_thread::yield();
    }
  });
  for (int index = 0; index < 2; ++index) {
    busy.emplace_back([&] {
      while (!stop) {
        qv_stats_counter_inc(qv_stats_create_counter(module_of("long"), "a counter"), 1);
      }
    });
  }
  int failed = 0;
  for (int round = 0; round < 20; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      g_leaves_leak_check = true;
      alarm(60);
      qv_stats_counter_inc(qv_stats_create_counter(module_of("children"), "n"), 1);
      std::exit(0);
    }
    failed += wait_for(child) == 0 ? 0 : 1;
  }
  stop = true;
  for (std::thread& thread : busy) {
    thread.join();
  }
  return failed;
}

TEST_F(Stats, ChildrenOfABusyProcessReportAndEnd) {
  EXPECT_TRUE(run("fork_beside_reports").exited_with(0));
  const std::vector<json> all = reports(file());
  EXPECT_EQ(std::count_if(all.begin(), all.end(),
                          [](const json& log) { return log.contains("children"); }),
            20);
}

// -- The end of the process

qv_stats_handle_t g_late_counter = QV_STATS_INVALID_HANDLE;

struct CountsWhenDestroyed {
  ~CountsWhenDestroyed() {
    if (g_late_counter != QV_STATS_INVALID_HANDLE) {
      qv_stats_counter_inc(g_late_counter, 1000);
      qv_stats_create_counter(module_of("late"), "made last");
    }
  }
} g_counts_when_destroyed;

SCENARIO(count_until_the_end) {
  std::atexit([] { qv_stats_counter_inc(g_late_counter, 10); });
  g_late_counter = qv_stats_create_counter(module_of("late"), "n");
  qv_stats_counter_inc(g_late_counter, 1);
  std::atexit([] { qv_stats_counter_inc(g_late_counter, 100); });
  return 0;
}

TEST_F(Stats, TheLastReportHoldsWhatExitHandlersAndDestructorsCounted) {
  EXPECT_TRUE(run("count_until_the_end").exited_with(0));
  EXPECT_EQ(reports(file()), (std::vector<json>{{{"late", {{"n", 1111}, {"made last", 0}}}}}));
}

// Only in the process whose test asks for it.
[[maybe_unused]] const bool g_counted_at_load = [] {
  if (std::getenv("COUNT_AT_LOAD") == nullptr) {
    return false;
  }
  qv_stats_counter_inc(qv_stats_create_counter(module_of("early"), "n"), 1);
  return true;
}();

TEST_F(Stats, StatisticsMayBeginInAStaticInitialiser) {
  const Ran ran = run("use_nothing", {{"COUNT_AT_LOAD", "1"}, {"QV_STATS_REPORT_PERIOD", "1000"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  EXPECT_EQ(reports(file()), (std::vector<json>{{{"early", {{"n", 1}}}}}));
}

SCENARIO(start_in_an_exit_handler) {
  std::atexit([] { qv_stats_counter_inc(qv_stats_create_counter(module_of("late"), "n"), 1); });
  return 0;
}

TEST_F(Stats, StatisticsMayBeginInAnExitHandler) {
  const Ran ran = run("start_in_an_exit_handler", {{"QV_STATS_REPORT_PERIOD", "1000"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  EXPECT_EQ(reports(file()), (std::vector<json>{{{"late", {{"n", 1}}}}}));
}

SCENARIO(end_at_once) {
  get_singleton_module();
  _exit(3);
}

TEST_F(Stats, AProcessThatSkipsItsExitHooksWritesNoLastReport) {
  EXPECT_TRUE(run("end_at_once").exited_with(3));
  EXPECT_EQ(read_file(file()), "");
}

// The plugin is loaded after the library: its destructors run after the last report.
void (*g_at_the_end)() = nullptr;

extern "C" __attribute__((visibility("default"))) void stats_test_plugin_is_loaded() {}
extern "C" __attribute__((visibility("default"))) void stats_test_plugin_is_unloaded() {
  if (g_at_the_end != nullptr) {
    g_at_the_end();
  }
}

void end_with(void (*last)()) {
  dlopen(QV_FAKE_RECORDERS "/libstats_test_plugin.so", RTLD_NOW);
  g_at_the_end = last;
}

void expect_one_report() {
  const std::size_t lines = lines_of(read_file(std::getenv("QV_STATS_REPORT_FILE"))).size();
  _exit(lines == 1 ? 0 : 100 + static_cast<int>(lines));
}

SCENARIO(report_after_the_last_report) {
  get_singleton_module();
  end_with([] {
    get_singleton_module()->report_now();
    expect_one_report();
  });
  return 1;
}

TEST_F(Stats, NothingIsReportedAfterTheLastReport) {
  EXPECT_TRUE(run("report_after_the_last_report").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 1U);
}

// Until the report thread has slept for another period at least.
SCENARIO(outlast_a_period) {
  static pid_t reporter = start_reporter();
  alarm(100);
  end_with([] {
    const long before = test::sleeps(reporter);
    wait_until([before] { return test::sleeps(reporter) > before + 1; });
    expect_one_report();
  });
  return 1;
}

TEST_F(Stats, ADestructorThatOutlastsAPeriodSeesNoFurtherReport) {
  EXPECT_TRUE(run("outlast_a_period", {{"QV_STATS_REPORT_PERIOD", "1"}}).exited_with(0));
  EXPECT_EQ(reports(file()).size(), 1U);
}

// -- The class by itself

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

// The recorder's holder keeps it loaded, but nobody has it open any more: it can't
// be closed again.
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
  const Ran ran =
      run("fail_to_unload", {{"LD_LIBRARY_PATH", QV_FAKE_RECORDERS "/fake"}}, {dir_.file("own")});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{"WARN Could not dlclose CircMetrics library: Numerical argument "
                                  "out of domain"});
  EXPECT_EQ(run("fail_to_unload", {{"LD_LIBRARY_PATH", QV_FAKE_RECORDERS "/fake"}},
                {dir_.file("own"), "quiet"})
                .messages(),
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
  open(fifo.c_str(), O_RDWR);  // so that opening it doesn't wait
  new CircMetricsModule(load_recorder(), std::chrono::duration<long>(-1), fifo.c_str());
  std::ifstream stream(fifo);
  std::string line;
  for (int index = 0; index < 3; ++index) {
    std::getline(stream, line);
    if (log_of(line) != json::object()) {
      _exit(1);
    }
  }
  _exit(0);
}

TEST_F(CircMetrics, ANegativePeriodReportsWithoutSleeping) {
  EXPECT_TRUE(run("report_without_sleeping", {}, {dir_.file("fifo")}).exited_with(0));
}
