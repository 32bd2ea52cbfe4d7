// Statistics that several threads and processes use at the same time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/stats.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "stats_test/fixture.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/threads.h"

using namespace stats_test;

// -- The first use

SCENARIO(use_first_from_many_threads) {
  std::atomic<int> ready{0};
  std::vector<CircMetricsModule*> modules(8);
  test::run_threads(8, [&](int index) {
    ++ready;
    while (ready != 8) {
    }
    modules.at(static_cast<std::size_t>(index)) = get_singleton_module();
  });
  return modules[0] != nullptr && std::count(modules.begin(), modules.end(), modules[0]) == 8 ? 0
                                                                                              : 1;
}

TEST_F(Stats, FirstUsesAtOnceSetUpOneModule) {
  const Ran ran = run("use_first_from_many_threads");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  EXPECT_EQ(reports(file()), std::vector<json>{json::object()});
}

// Only the module itself orders the threads.
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

// -- Reports

namespace {

constexpr int kManyReports = 60;

void register_a_long_report() {
  for (int index = 0; index < 1500; ++index) {
    qv_stats_create_counter(module_of("long"), ("a counter " + std::to_string(index)).c_str());
  }
}

}  // namespace

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

// Forks once the report thread sleeps: a sanitizer's allocator doesn't survive a fork while a
// thread starts.
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

SCENARIO(report_in_a_child) {
  alarm(100);
  get_singleton_module();
  return wait_for(test::in_child([] {
    get_singleton_module()->report_now();
    get_singleton_module()->report_now();
    return 0;
  }));
}

// The child must not open the pipe again: that could block.
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

namespace {

pid_t g_child = 0;
bool g_child_may_write = true;

// Forks in the middle of a report, and completes the report once the child's own report
// waits for it.
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

}  // namespace

SCENARIO(fork_during_a_report) {
  g_child_may_write = std::getenv("REFUSED") == nullptr;
  get_singleton_module();
  report_with(&fork_while_reporting);
  return wait_for(g_child);
}

TEST_F(CircMetrics, AChildsReportWaitsForItsParents) {
  EXPECT_TRUE(run_with("fake", "fork_during_a_report").exited_with(0));
  EXPECT_EQ(reports(file()), (std::vector<json>{json::array({1}), json::object(), json::array()}));
}

// A child that has become another user may be allowed only to read the file.
TEST_F(CircMetrics, TheReportOfAChildThatMayOpenTheFileOnlyForReadingWaitsAsWell) {
  EXPECT_TRUE(run_with("fake", "fork_during_a_report", {{"REFUSED", ""}}).exited_with(0));
  EXPECT_EQ(reports(file()), (std::vector<json>{json::array({1}), json::object(), json::array()}));
}

// Only one thread reports: several would hand the file lock to each other, and the
// children would starve.
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
