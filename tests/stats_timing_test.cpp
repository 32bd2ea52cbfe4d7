// When statistics are reported: once a period, and at the end of the process.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "stats_test/fixture.h"
#include "support/interrupt.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/thread_state.h"

using namespace stats_test;

// -- The period

SCENARIO(start_and_count_threads) {
  start_sanitizers_thread();
  const std::size_t before = tasks().size();
  get_singleton_module();
  return static_cast<int>(tasks().size() - before);
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
  EXPECT_EQ(reports(file()), std::vector<json>{json::object()})
      << "only the last report is expected";
}

INSTANTIATE_TEST_SUITE_P(, GoodPeriod,
                         testing::Values("1000", " 7000", "+7000", "\t+07000",
                                         "99999999999999999999"));

// Reads reports through a FIFO, so that each read waits for the next line.
SCENARIO(read_three_reports) {
  alarm(100);
  const std::string fifo = std::getenv("QV_STATS_REPORT_FILE");
  mkfifo(fifo.c_str(), 0600);
  open(fifo.c_str(), O_RDWR);  // keeps a reader for the last report
  const qv_stats_handle_t counter = qv_stats_create_counter(module_of("periodic"), "n");
  std::ifstream stream(fifo);
  for (int index = 1; index <= 3; ++index) {
    qv_stats_counter_inc_do(counter, 1);
    std::string line;
    std::getline(stream, line);
    if (values_of(line) != json{{"periodic", {{"n", index}}}}) {
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

// Refuses threads only: LeakSanitizer clones a process at the end.
SCENARIO(start_without_threads) {
  if (!arguments.empty()) {
    Module::get_internal()->level = QV_LOG_LEVEL_ERROR;
  }
  constexpr std::uint32_t kThread = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SYSVSEM |
                                    CLONE_SIGHAND | CLONE_THREAD | CLONE_SETTLS |
                                    CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID;
  test::refuse(SYS_clone3, ENOSYS);
  test::refuse(SYS_clone, EAGAIN, test::When{0, kThread});
  return create_every_kind();
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

// -- The end of the process

SCENARIO(use_nothing) { return 0; }

namespace {

qv_stats_handle_t g_late_counter = QV_STATS_INVALID_HANDLE;

struct CountsWhenDestroyed {
  ~CountsWhenDestroyed() {
    if (g_late_counter != QV_STATS_INVALID_HANDLE) {
      qv_stats_counter_inc(g_late_counter, 1000);
      qv_stats_create_counter(module_of("late"), "made last");
    }
  }
} g_counts_when_destroyed;

}  // namespace

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

// Counts only in the process whose test sets the variable.
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

namespace {

void (*g_at_the_end)() = nullptr;

}  // namespace

extern "C" __attribute__((visibility("default"))) void stats_test_plugin_is_loaded() {}
extern "C" __attribute__((visibility("default"))) void stats_test_plugin_is_unloaded() {
  if (g_at_the_end != nullptr) {
    g_at_the_end();
  }
}

namespace {

// Runs `last` after the last report: the plugin is loaded after the library, so its
// destructors run later.
void end_with(void (*last)()) {
  dlopen(QV_FAKE_RECORDERS "/libstats_test_plugin.so", RTLD_NOW);
  g_at_the_end = last;
}

void expect_one_report() {
  const std::size_t lines = lines_of(read_file(std::getenv("QV_STATS_REPORT_FILE"))).size();
  _exit(lines == 1 ? 0 : 100 + static_cast<int>(lines));
}

}  // namespace

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

// Goes on until the report thread has slept through at least one more period.
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
