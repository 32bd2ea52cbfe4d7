// What the tests of statistics share.
#ifndef TESTS_STATS_TEST_FIXTURE_H_
#define TESTS_STATS_TEST_FIXTURE_H_

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "stats_test/fake_recorder.h"
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
using test::Ran;
using test::read_file;
using test::run_scenario;
using test::TempDir;
using Lines = std::vector<std::string>;

inline const std::string kOff = "INFO Statistics capture disabled.";

inline std::string capturing(const std::string& path) {
  return "INFO Capturing statistics measurements to " + path + ".";
}

inline Lines lines_of(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// What the line reports; the line must be exactly one report.
inline json log_of(const std::string& line) {
  const json whole = json::parse(line);
  const std::string head = "{\"ts\": " + whole["ts"].dump() + ", \"log\":";
  EXPECT_EQ(line.substr(0, head.size()), head);
  EXPECT_NE(line.at(head.size()), ' ');
  EXPECT_TRUE(whole["ts"].is_number_unsigned());
  EXPECT_EQ(whole.size(), 2U);
  return whole["log"];
}

// What each line of the report file says.
inline std::vector<json> reports(const std::string& path) {
  const std::string text = read_file(path);
  EXPECT_TRUE(text.empty() || text.back() == '\n');
  std::vector<json> logs;
  for (const std::string& line : lines_of(text)) {
    logs.push_back(log_of(line));
  }
  return logs;
}

// A report file of its own for each test, and statistics that write to it.
class Stats : public testing::Test {
 protected:
  std::string file() const { return dir_.file("report"); }

  Ran run(const std::string& scenario, Environment environment = {},
          const test::Arguments& arguments = {}) const {
    environment.emplace("QV_STATS_REPORT_FILE", file());
#ifdef QV_SANITIZED
    // A sanitizer calls dlopen in the library's place, and so without its run path.
    environment.emplace("LD_LIBRARY_PATH", QV_BINARY_DIR "/lib");
#endif
    return run_scenario(scenario, environment, arguments);
  }

  Ran run_with(const std::string& recorder, const std::string& scenario,
               Environment environment = {}) const {
    environment["LD_LIBRARY_PATH"] = std::string(QV_FAKE_RECORDERS) + "/" + recorder;
    return run(scenario, environment);
  }

  TempDir dir_;
};

using CircMetrics = Stats;

// A child of a process with several threads has lost all but one: what the others
// held looks leaked, and the allocator's locks may be held for ever. Such a child
// leaves the leak check to its parent.
inline bool g_leaves_leak_check = false;

inline void* module_of(const char* path) { return quorvane::Module(path).get(); }

inline std::size_t thread_count() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// Waits until `condition` holds; a process that waits for ever fails its test.
template <typename Condition>
inline void wait_until(Condition condition) {
  alarm(100);
  while (!condition()) {
    usleep(1000);
  }
  alarm(0);
}

// Whether the thread is inside this system call.
inline bool is_in_call(const std::string& task, long number) {
  std::ifstream file("/proc/" + task + "/syscall");
  long call = -1;
  return (file >> call) && call == number;
}

inline std::string task_of_this_thread() {
  return "self/task/" + std::to_string(syscall(SYS_gettid));
}

// Any clock's sleep, also one that the kernel interrupted and went on with.
inline bool is_sleeping(const std::string& task) {
  return is_in_call(task, SYS_nanosleep) || is_in_call(task, SYS_clock_nanosleep) ||
         is_in_call(task, SYS_restart_syscall);
}

inline std::set<std::string> tasks() {
  std::set<std::string> ids;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    ids.insert(task.path().filename());
  }
  return ids;
}

// A sanitizer starts a thread of its own beside a program's first one: let that be
// this one, which is gone at the return.
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

// The fake recorder's report is what `output` writes. The recorder is the one
// that this process's statistics load.
inline void set_output(FakeOutput output) {
  void* library = dlopen("libcircmetrics.so", RTLD_LAZY | RTLD_NOLOAD);
  reinterpret_cast<FakeSetOutput>(dlsym(library, "fake_set_output"))(output);
}

inline void* load_recorder() { return dlopen(QV_BINARY_DIR "/lib/libcircmetrics.so", RTLD_LAZY); }

inline int wait_for(pid_t child) {
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

// Before statistics are on.
inline void set_on_alloc(FakeHook hook) {
  void* recorder = dlopen("libcircmetrics.so", RTLD_LAZY);
  reinterpret_cast<FakeSetOnAlloc>(dlsym(recorder, "fake_set_on_alloc"))(hook);
}

// The numbers that are open on the file.
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
