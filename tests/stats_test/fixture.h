// What the tests of statistics share.
#ifndef TESTS_STATS_TEST_FIXTURE_H_
#define TESTS_STATS_TEST_FIXTURE_H_

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "stats_test/fake_recorder.h"
#include "support/json.h"
#include "support/library_path.h"
#include "support/lines.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

#ifdef QV_SANITIZED
#include <sanitizer/lsan_interface.h>
#endif

namespace stats_test {

using nlohmann::json;
using quorvane::module::Module;
using quorvane::stats::CircMetricsModule;
using quorvane::stats::get_singleton_module;
using test::Environment;
using test::lines_of;
using test::Ran;
using test::read_file;
using test::run_scenario;
using test::TempDir;
using test::wait_for;
using Lines = std::vector<std::string>;

inline const std::string kOff = "INFO Statistics capture disabled.";

inline std::string capturing(const std::string& path) {
  return "INFO Capturing statistics measurements to " + path + ".";
}

// The "log" member of a report line. A line that isn't exactly one report fails the test.
inline json log_of(const std::string& line) {
  const json whole = json::parse(line);
  const std::string head = "{\"ts\": " + whole["ts"].dump() + ", \"log\":";
  EXPECT_EQ(line.substr(0, head.size()), head);
  EXPECT_NE(line.at(head.size()), ' ');
  EXPECT_TRUE(whole["ts"].is_number_unsigned());
  EXPECT_EQ(whole.size(), 2U);
  return whole["log"];
}

// The same without what the recorder says about the process. Only the fake recorder says nothing.
inline json values_of(const std::string& line) {
  json log = log_of(line);
  if (log.is_object() && !log.empty()) {
    EXPECT_EQ(log.erase("@process"), 1U) << line;
    log.erase("@inherited");
  }
  return log;
}

// The values in each line of a report file.
inline std::vector<json> reports(const std::string& path) {
  const std::string text = read_file(path);
  EXPECT_TRUE(text.empty() || text.back() == '\n');
  std::vector<json> logs;
  for (const std::string& line : lines_of(text)) {
    logs.push_back(values_of(line));
  }
  return logs;
}

// Gives each test a report file and runs scenarios that report to it.
class Stats : public testing::Test {
 protected:
  std::string file() const { return dir_.file("report"); }

  Ran run(const std::string& scenario, Environment environment = {},
          const test::Arguments& arguments = {}) const {
    environment.emplace("QV_STATS_REPORT_FILE", file());
    environment.emplace("LD_LIBRARY_PATH", test::kLibraryPath);
    return run_scenario(scenario, environment, arguments);
  }

  Ran run_with(const std::string& recorder, const std::string& scenario,
               Environment environment = {}, const test::Arguments& arguments = {}) const {
    environment["LD_LIBRARY_PATH"] = std::string(QV_FAKE_RECORDERS) + "/" + recorder;
    return run(scenario, environment, arguments);
  }

  TempDir dir_;
};

using CircMetrics = Stats;

// A forked child has only the thread that forked. To a leak checker, what the other
// threads held looks leaked, and an allocator lock that they held stays locked for ever. Such
// a child leaves the leak check to its parent.
inline bool g_leaves_leak_check = false;

inline void* module_of(const char* path) { return quorvane::Module(path).get(); }

// Creates a metric of each kind and returns how many handles are invalid, or 100 if that
// contradicts get_singleton_module().
inline int create_every_kind() {
  static const int64_t integer = 0;  // static: the last report reads both, too
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

// Waits until `condition` holds. After 100 seconds the process ends, and its test fails.
template <typename Condition>
inline void wait_until(Condition condition) {
  alarm(100);
  while (!condition()) {
    usleep(1000);
  }
  alarm(0);
}

// The threads of this process.
inline std::set<std::string> tasks() {
  std::set<std::string> ids;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    ids.insert(task.path().filename());
  }
  return ids;
}

// Whether the thread is inside this system call.
inline bool is_in_call(const std::string& task, long number) {
  std::ifstream file("/proc/" + task + "/syscall");
  long call = -1;
  return (file >> call) && call == number;
}

// Whether the thread sleeps by any clock, or in a sleep that the kernel interrupted and
// resumed.
inline bool is_sleeping(const std::string& task) {
  return is_in_call(task, SYS_nanosleep) || is_in_call(task, SYS_clock_nanosleep) ||
         is_in_call(task, SYS_restart_syscall);
}

// A sanitizer starts a thread of its own together with the program's first one. Starts
// that first thread, and returns when it has ended.
inline void start_sanitizers_thread() {
  std::string id;
  std::thread([&] { id = std::to_string(syscall(SYS_gettid)); }).join();
  wait_until([&] { return tasks().count(id) == 0; });
}

// Starts the report thread and returns once it sleeps.
inline pid_t start_reporter() {
  start_sanitizers_thread();
  const std::set<std::string> before = tasks();
  get_singleton_module();
  std::set<std::string> started = tasks();
  std::erase_if(started, [&](const std::string& id) { return before.count(id) != 0; });
  const std::string reporter = started.empty() ? "none" : *started.begin();
  wait_until([&] { return is_sleeping("self/task/" + reporter); });
  return std::stoi(reporter);
}

// Has `output` write the reports of the fake recorder that this process's statistics use.
inline void set_output(FakeOutput output) {
  void* library = dlopen("libcircmetrics.so", RTLD_LAZY | RTLD_NOLOAD);
  reinterpret_cast<FakeSetOutput>(dlsym(library, "fake_set_output"))(output);
}

// Makes one report, which `output` writes.
inline void report_with(FakeOutput output) {
  set_output(output);
  get_singleton_module()->report_now();
  set_output(nullptr);
}

// Has the fake recorder call `hook` when it is made. Call it before statistics are on.
inline void set_on_alloc(FakeHook hook) {
  void* recorder = dlopen("libcircmetrics.so", RTLD_LAZY);
  reinterpret_cast<FakeSetOnAlloc>(dlsym(recorder, "fake_set_on_alloc"))(hook);
}

// The descriptors that are open on the file.
inline std::set<int> descriptors_of(const std::string& path) {
  std::set<int> numbers;
  for (const auto& open : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(open, gone) == path) {
      numbers.insert(std::stoi(open.path().filename()));
    }
  }
  return numbers;
}

}  // namespace stats_test

#ifdef QV_SANITIZED
__attribute__((used)) inline int __lsan_is_turned_off() {
  return stats_test::g_leaves_leak_check ? 1 : 0;
}
#endif

#endif  // TESTS_STATS_TEST_FIXTURE_H_
