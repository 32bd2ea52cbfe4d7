// The report lines and the file that they are appended to.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/stats.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "stats_test/fixture.h"
#include "support/interrupt.h"
#include "support/refuse.h"
#include "support/scenario.h"

using namespace stats_test;

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
  const json histogram{
      {"count", 4},  {"sum", 1.0},  {"min", 0.25}, {"max", 0.25},   {"mean", 0.25},
      {"p50", 0.25}, {"p90", 0.25}, {"p99", 0.25}, {"p99.9", 0.25}, {"buckets", {{0.25390625, 4}}}};
  const auto expected = [&](int64_t integer, double real, int count) {
    const json cache{{"i", integer}, {"d", real}, {"c", count}, {"h", histogram}};
    return json{{"util", {{"src", {{"cache", cache}}}, {"c", 1}}}};
  };
  EXPECT_EQ(reports(file()), (std::vector<json>{expected(-5, 0.5, 3), expected(6, -1e10, 7)}));
}

namespace {

// How often a process counts and reports; it reports at its exit again.
constexpr int kReports = 30;

void count_and_report() {
  const qv_stats_handle_t counter = qv_stats_create_counter(module_of("m"), "n");
  for (int index = 0; index < kReports; ++index) {
    qv_stats_counter_inc(counter, 1);
    get_singleton_module()->report_now();
  }
}

}  // namespace

SCENARIO(count_and_report) {
  count_and_report();
  return 0;
}

SCENARIO(count_and_report_in_a_child_too) {
  count_and_report();
  const pid_t child = fork();
  count_and_report();
  return child == 0 ? 0 : wait_for(child);
}

namespace {

// The values of the counter in the lines of each process, in order. Those that a child started
// with are taken off.
std::map<pid_t, std::vector<int>> counts_by_process(const std::string& path) {
  std::map<pid_t, std::vector<int>> counts;
  for (const std::string& line : lines_of(read_file(path))) {
    const json log = log_of(line);
    const int inherited = log.contains("@inherited") ? log["@inherited"]["m"]["n"].get<int>() : 0;
    counts[log["@process"]["pid"]].push_back(log["m"]["n"].get<int>() - inherited);
  }
  return counts;
}

// The numbers from 1 to `last`, and the last once more.
std::vector<int> up_to(int last) {
  std::vector<int> numbers(static_cast<std::size_t>(last));
  std::iota(numbers.begin(), numbers.end(), 1);
  numbers.push_back(last);
  return numbers;
}

}  // namespace

TEST_F(Stats, TheLinesOfProcessesThatShareAFileCanBeToldApart) {
  Ran first;
  std::thread other([&] { first = run("count_and_report"); });
  const Ran second = run("count_and_report");
  other.join();
  ASSERT_TRUE(first.exited_with(0) && second.exited_with(0));
  const std::map<pid_t, std::vector<int>> expected{{first.pid, up_to(kReports)},
                                                   {second.pid, up_to(kReports)}};
  EXPECT_EQ(counts_by_process(file()), expected);
}

TEST_F(Stats, AChildsLinesTellItsOwnCountsFromItsParents) {
  const Ran ran = run("count_and_report_in_a_child_too");
  ASSERT_TRUE(ran.exited_with(0));
  auto counts = counts_by_process(file());
  ASSERT_EQ(counts.size(), 2U);
  EXPECT_EQ(counts[ran.pid], up_to(2 * kReports));
  counts.erase(ran.pid);
  EXPECT_EQ(counts.begin()->second, up_to(kReports));
}

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

SCENARIO(create_every_kind) { return create_every_kind(); }

TEST_F(Stats, ReportsAreAppended) {
  test::write_file(file(), "{\"ts\": 1, \"log\":\"old\"}\n");
  EXPECT_TRUE(run("create_every_kind").exited_with(0));
  EXPECT_EQ(reports(file()).at(0), "old");
  EXPECT_EQ(reports(file()).size(), 2U);
}

SCENARIO(make_a_file_under_umask_0) {
  umask(0);
  return create_every_kind();
}

TEST_F(Stats, ANewFileMayBeWrittenByItsOwnerOnly) {
  run("make_a_file_under_umask_0");
  struct stat status = {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
}

SCENARIO(is_the_file_closed_on_exec) {
  get_singleton_module();
  const std::set<int> numbers = descriptors_of(std::getenv("QV_STATS_REPORT_FILE"));
  for (const int number : numbers) {
    if ((fcntl(number, F_GETFD) & FD_CLOEXEC) == 0) {
      return 1;
    }
  }
  return numbers.empty() ? 2 : 0;
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
  report_with([](FakeWrite write_piece, void* closure) {
    const std::string piece(1000, 'x');
    std::printf("%zd\n", write_piece(closure, piece.data(), 0));
    std::printf("%zd\n", write_piece(closure, piece.data(), piece.size()));
    const ssize_t refused = write_piece(closure, piece.data(), piece.size());
    std::printf("%zd %s\n", refused, refused == -1 && errno == EFBIG ? "too big" : "other");
  });
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

namespace {

int g_pipe = -1;

// A full pipe blocks its writer until somebody reads from it.
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

// Interrupts the thread three times in this system call. Returns once it is back in the call.
void interrupt_call(pid_t tid, long number) {
  const std::string task = "self/task/" + std::to_string(tid);
  for (int round = 0; round < 3; ++round) {
    wait_until([&] { return is_in_call(task, number); });
    test::interrupt(tid);
  }
  wait_until([&] { return is_in_call(task, number); });
}

void write_interrupted(FakeWrite write_piece, void* closure) {
  fill_pipe();
  const pid_t writer = gettid();
  std::thread interrupter([writer] {
    interrupt_call(writer, SYS_write);
    drain_pipe();
  });
  const ssize_t written = write_piece(closure, "[1]", 3);
  interrupter.join();
  drain_pipe();
  std::printf("written %zd\n", written);
}

}  // namespace

SCENARIO(interrupt_a_write) {
  test::let_signals_interrupt();
  const char* fifo = std::getenv("QV_STATS_REPORT_FILE");
  mkfifo(fifo, 0600);
  g_pipe = open(fifo, O_RDWR | O_NONBLOCK);
  get_singleton_module();
  report_with(&write_interrupted);
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
    id = gettid();
    module->report_now();
  });
  wait_until([&] { return id != 0; });
  interrupt_call(id, SYS_flock);
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
