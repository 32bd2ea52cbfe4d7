// Statistics and fork: the parent sets statistics up, reports, is killed, or loses its
// descriptors.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "stats_test/fixture.h"
#include "support/library_path.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/thread_state.h"

using namespace stats_test;

namespace {

using StatsFork = Stats;

// Absolute, as the kernel shows the path of a descriptor.
const char* report_path() {
  static const std::string path = std::filesystem::absolute(std::getenv("QV_STATS_REPORT_FILE"));
  return path.c_str();
}

// Runs once, when the fake recorder or the plugin is loaded.
std::function<void()> g_on_load;

void run_once(std::function<void()>& hook) {
  if (const auto now = std::exchange(hook, nullptr)) {
    now();
  }
}

// Forks a child that exits with 0 if `body` returns true.
pid_t fork_child(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    g_leaves_leak_check = true;
    alarm(60);
    _exit(body() ? 0 : 1);
  }
  return child;
}

bool ends_well(pid_t child) { return wait_for(child) == 0; }

// Counts and reports. Returns whether the process then has its two descriptors of the file.
bool uses_statistics() {
  const qv_stats_handle_t counter = qv_stats_create_counter(module_of("child"), "n");
  if (counter == QV_STATS_INVALID_HANDLE) {
    return false;
  }
  qv_stats_counter_inc(counter, 1);
  get_singleton_module()->report_now();
  return descriptors_of(report_path()).size() == 2;
}

}  // namespace

// The fake recorder and the plugin call these when they are loaded.
extern "C" __attribute__((visibility("default"))) void fake_on_load() { run_once(g_on_load); }
extern "C" __attribute__((visibility("default"))) void stats_test_plugin_is_loaded() {
  run_once(g_on_load);
}
extern "C" __attribute__((visibility("default"))) void stats_test_plugin_is_unloaded() {}

// -- A fork while statistics are set up

// Forks as many processes as the argument says. In each, one thread uses statistics for the
// first time while another forks, a little later in each process. Prints how many processes hung
// or failed.
SCENARIO(fork_over_the_first_use) {
  const int rounds = std::stoi(arguments.at(0));
  int failed = 0;
  for (int round = 0; round < rounds; ++round) {
    const pid_t process = fork_child([round] {
      std::atomic<bool> started{false};
      std::thread first([&] {
        started = true;
        get_singleton_module();
      });
      while (!started) {
      }
      for (std::atomic<int> left = round % 100 * 2000; left > 0; --left) {
      }
      const pid_t child = fork_child(&uses_statistics);
      first.join();
      return ends_well(child) && uses_statistics();
    });
    failed += ends_well(process) ? 0 : 1;
  }
  std::printf("%d of %d\n", failed, rounds);
  std::fflush(stdout);
  return 0;
}

#ifndef QV_SANITIZED  // whose allocators a fork may catch locked
// QV_TEST_FORKS sets another number of forks.
TEST_F(StatsFork, OverTheFirstUseHangsNoOne) {
  const char* const forks = std::getenv("QV_TEST_FORKS");
  const std::string rounds = forks != nullptr ? forks : "60";
  const Ran ran = run("fork_over_the_first_use", {}, {rounds});
  EXPECT_EQ(ran.out, "0 of " + rounds + "\n");
  const std::vector<json> all = reports(file());
  EXPECT_EQ(all.size(), 2 * std::stoul(rounds));
  for (const json& log : all) {
    EXPECT_EQ(log["child"]["n"], 1);
  }
}
#endif

namespace {

void fork_a_child_that_uses_statistics() {
  if (!ends_well(fork_child(&uses_statistics))) {
    std::abort();
  }
}

}  // namespace

SCENARIO(fork_while_a_recorder_is_made) {
  alarm(100);
  set_on_alloc([] {
    set_on_alloc(nullptr);
    fork_a_child_that_uses_statistics();
  });
  return uses_statistics() ? 0 : 1;
}

TEST_F(StatsFork, ByARecorderThatIsMadeLeavesParentAndChildWithStatisticsOfTheirOwn) {
  EXPECT_TRUE(run_with("fake", "fork_while_a_recorder_is_made").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 3U);
}

SCENARIO(fork_while_a_recorder_is_loaded) {
  alarm(100);
  g_on_load = &fork_a_child_that_uses_statistics;
  return uses_statistics() ? 0 : 1;
}

TEST_F(StatsFork, ByARecorderThatIsLoadedLeavesParentAndChildWithStatisticsOfTheirOwn) {
  EXPECT_TRUE(run_with("fake", "fork_while_a_recorder_is_loaded").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 3U);
}

// The child of a fork by the recorder goes on setting statistics up.
SCENARIO(go_on_in_the_child) {
  static pid_t child = -1;
  alarm(100);
  const auto fork_here = [] { child = fork(); };
  if (arguments.at(0) == "load") {
    g_on_load = fork_here;
  } else {
    set_on_alloc([] {
      set_on_alloc(nullptr);
      child = fork();
    });
  }
  const bool works = uses_statistics();
  if (child == 0) {
    _exit(works ? 0 : 1);
  }
  return works && ends_well(child) ? 0 : 1;
}

TEST_F(StatsFork, ByARecorderMayGoOnInTheChild) {
  EXPECT_TRUE(run_with("fake", "go_on_in_the_child", {}, {"load"}).exited_with(0));
  EXPECT_TRUE(run_with("fake", "go_on_in_the_child", {}, {"alloc"}).exited_with(0));
}

// The fork doesn't wait for the recorder, but returns while the recorder is being made. The
// child has no statistics yet, and no descriptor from its parent's attempt.
SCENARIO(fork_beside_a_recorder_that_is_made) {
  static bool is_right = false;
  alarm(100);
  set_on_alloc([] {
    set_on_alloc(nullptr);
    std::thread([] {
      is_right = ends_well(
          fork_child([] { return descriptors_of(report_path()).empty() && uses_statistics(); }));
    }).join();
  });
  return uses_statistics() && is_right ? 0 : 1;
}

TEST_F(StatsFork, BesideARecorderThatIsMadeLeavesTheChildToSetStatisticsUpAgain) {
  EXPECT_TRUE(run_with("fake", "fork_beside_a_recorder_that_is_made").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 3U);
}

SCENARIO(register_a_module_while_a_recorder_is_made) {
  static std::optional<test::Watched> forking;
  alarm(100);
  set_on_alloc([] {
    set_on_alloc(nullptr);
    forking.emplace([] { ends_well(fork_child([] { return true; })); });
    forking->settle();
    module_of("of the recorder");
  });
  const bool is_on = get_singleton_module() != nullptr;
  forking->join();
  return is_on && qv_module_find("of the recorder") != nullptr ? 0 : 1;
}

TEST_F(StatsFork, BesideARecorderThatIsMadeLetsItUseTheLibrary) {
  EXPECT_TRUE(run_with("fake", "register_a_module_while_a_recorder_is_made").exited_with(0));
}

// The fork waits until the recorder is loaded. Meanwhile, the recorder may call the library.
SCENARIO(fork_beside_a_recorder_that_is_loaded) {
  static std::optional<test::Watched> forking;
  static bool is_loaded = false;
  static bool is_right = false;
  alarm(100);
  g_on_load = [] {
    forking.emplace(
        [] { is_right = ends_well(fork_child([] { return is_loaded && uses_statistics(); })); });
    forking->settle();
    module_of("of the recorder");
    is_loaded = true;
  };
  const bool works = uses_statistics();
  forking->join();
  return works && is_right ? 0 : 1;
}

TEST_F(StatsFork, BesideARecorderThatIsLoadedWaitsForIt) {
  EXPECT_TRUE(run_with("fake", "fork_beside_a_recorder_that_is_loaded").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 3U);
}

namespace {

// Starts a process that lets this one go on, `after` it has been stopped.
void start_waker(std::chrono::milliseconds after) {
  const pid_t stopped = getpid();
  const pid_t waker = fork();
  if (waker == 0) {
    alarm(60);
    const std::string path = "/proc/" + std::to_string(stopped) + "/stat";
    while (test::read_file(path).find(") T ") == std::string::npos) {
      std::this_thread::yield();
    }
    std::this_thread::sleep_for(after);
    kill(stopped, SIGCONT);
    _exit(0);
  }
}

}  // namespace

// While the process is stopped, the load makes no progress. It goes on after the second for
// which a fork waits.
SCENARIO(stop_while_a_recorder_is_loaded) {
  static std::optional<test::Watched> forking;
  static std::atomic<bool> is_loaded{false};
  static bool is_right = false;
  alarm(100);
  start_waker(std::chrono::milliseconds(1500));
  g_on_load = [] {
    forking.emplace([] { is_right = ends_well(fork_child([] { return is_loaded.load(); })); });
    forking->settle();
    raise(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    is_loaded = true;
  };
  const bool works = uses_statistics();
  forking->join();
  return works && is_right ? 0 : 1;
}

TEST_F(StatsFork, OfAProcessThatWasStoppedStillWaitsForTheRecorder) {
  EXPECT_TRUE(run_with("fake", "stop_while_a_recorder_is_loaded").exited_with(0));
}

// A plugin's constructor runs under the loader's lock. The other thread waits for that lock
// to load the recorder.
SCENARIO(fork_in_a_plugin_that_is_loaded) {
  static std::optional<test::Watched> first;
  static bool is_right = false;
  alarm(100);
  g_on_load = [] {
    first.emplace([] { get_singleton_module(); });
    first->settle();
    is_right = ends_well(fork_child(&uses_statistics));
  };
  dlopen(QV_FAKE_RECORDERS "/libstats_test_plugin.so", RTLD_NOW);
  first->join();
  return uses_statistics() && is_right ? 0 : 1;
}

TEST_F(StatsFork, InAPluginThatIsLoadedBesideTheFirstUseHangsNoOne) {
  EXPECT_TRUE(run("fork_in_a_plugin_that_is_loaded").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 3U);
}

// Opening a FIFO for writing waits for a reader.
SCENARIO(fork_while_a_fifo_has_no_reader) {
  alarm(100);
  const char* const fifo = report_path();
  mkfifo(fifo, 0600);
  test::Watched first([] { get_singleton_module(); });
  const std::string task = "self/task/" + std::to_string(first.tid());
  wait_until([&] { return is_in_call(task, SYS_openat); });
  const bool is_right = ends_well(fork_child([fifo] {
    open(fifo, O_RDWR | O_CLOEXEC);
    return get_singleton_module() != nullptr;
  }));
  open(fifo, O_RDWR | O_CLOEXEC);
  first.join();
  return is_right && get_singleton_module() != nullptr ? 0 : 1;
}

TEST_F(StatsFork, WhileTheReportFileIsAFifoWithoutAReaderHangsNoOne) {
  EXPECT_TRUE(run("fork_while_a_fifo_has_no_reader").exited_with(0));
}

SCENARIO(fork_just_after_the_set_up) {
  get_singleton_module();
  return ends_well(fork_child(&uses_statistics)) ? 0 : 1;
}

#ifndef QV_SANITIZED  // a sanitizer's allocator doesn't survive a fork while a thread starts
TEST_F(StatsFork, JustAfterTheReportThreadStartedLeavesTheChildWithStatistics) {
  const Environment with_thread{{"QV_STATS_REPORT_PERIOD", "1000"}};
  EXPECT_TRUE(run("fork_just_after_the_set_up", with_thread).exited_with(0));
  EXPECT_EQ(reports(file()).size(), 2U);
}

// A sanitizer's dlopen ignores the run path of the library.
TEST_F(StatsFork, HandlersFromBeforeTheLibraryMayReportInTheChildOfAReportingProcess) {
  const Ran ran =
      test::run_program(QV_STATS_FORKER, {QV_LIBRARY}, {{"QV_STATS_REPORT_FILE", file()}});
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(reports(file()).size(), 3U);
}
#endif

// -- Descriptors that the program closed and used again

namespace {

// Closes the report file's descriptors, as a daemon does, and opens a file of its own under
// each of their numbers.
bool take_all_numbers(const std::string& own) {
  const std::set<int> numbers = descriptors_of(report_path());
  for (const int number : numbers) {
    close(number);
  }
  const int data = open(own.c_str(), O_RDWR | O_CREAT | O_APPEND, 0600);
  for (const int number : numbers) {
    dup2(data, number);
  }
  return descriptors_of(own).size() >= 2;
}

bool has_all_numbers(const std::string& own, std::size_t count) {
  return descriptors_of(own).size() == count && read_file(own).empty();
}

}  // namespace

SCENARIO(report_after_the_numbers_are_taken) {
  alarm(100);
  const std::string& own = arguments.at(0);
  const bool in_child = arguments.at(1) == "child";
  report_path();  // resolves it before the working directory changes
  get_singleton_module();
  const auto take_and_report = [&] {
    if (chdir("/") != 0 || !take_all_numbers(own)) {
      return false;
    }
    const std::size_t count = descriptors_of(own).size();
    get_singleton_module()->report_now();
    get_singleton_module()->report_now();
    return has_all_numbers(own, count) && ends_well(fork_child([&] {
             get_singleton_module()->report_now();
             return has_all_numbers(own, count);
           }));
  };
  const bool is_right = in_child ? ends_well(fork_child(take_and_report)) : take_and_report();
  return is_right ? 0 : 1;
}

TEST_F(StatsFork, LeavesAFileThatTookItsNumbersAloneAndOpensItsOwnAgain) {
  for (const char* where : {"parent", "child"}) {
    std::filesystem::remove(file());
    const std::string own = dir_.file(where);
    EXPECT_TRUE(run("report_after_the_numbers_are_taken", {}, {own, where}).exited_with(0))
        << where;
    EXPECT_EQ(read_file(own), "") << where;
    EXPECT_EQ(reports(file()).size(), 4U) << where;
  }
}

// The path is relative to the working directory at the start.
TEST_F(StatsFork, OpensARelativePathAgainWhereItWas) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  const std::string command = "cd '" + dir_.path() + "' && exec '" + program +
                              "' --scenario report_after_the_numbers_are_taken '" +
                              dir_.file("own") + "' parent";
  const Environment environment{{"QV_STATS_REPORT_FILE", "report"},
                                {"LD_LIBRARY_PATH", test::kLibraryPath}};
  EXPECT_TRUE(test::run_program("/bin/sh", {"-c", command}, environment).exited_with(0));
  EXPECT_EQ(reports(file()).size(), 4U);
}

SCENARIO(give_the_file_up) {
  alarm(100);
  const std::string& own = arguments.at(0);
  get_singleton_module();
  const bool taken = take_all_numbers(own);
  std::filesystem::remove_all(std::filesystem::path(report_path()).parent_path());
  get_singleton_module()->report_now();
  return taken && read_file(own).empty() ? 0 : 1;
}

TEST_F(StatsFork, GivesUpAFileThatCantBeOpenedAgain) {
  std::filesystem::create_directory(dir_.file("gone"));
  const std::string own = dir_.file("own");
  const Ran ran =
      run("give_the_file_up", {{"QV_STATS_REPORT_FILE", dir_.file("gone/report")}}, {own});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(read_file(own), "");
  EXPECT_EQ(ran.messages(), Lines{capturing(dir_.file("gone/report"))});
}

SCENARIO(lose_a_fifo) {
  alarm(100);
  mkfifo(report_path(), 0600);
  const int reader = open(report_path(), O_RDWR | O_CLOEXEC);
  get_singleton_module();
  const std::set<int> numbers = descriptors_of(report_path());
  for (const int number : numbers) {
    close(number);
  }
  return numbers.count(reader) != 0 && numbers.size() == 2 ? 0 : 1;
}

TEST_F(StatsFork, DoesNotWaitForTheReaderOfAFifoThatItLost) {
  EXPECT_TRUE(run("lose_a_fifo").exited_with(0));
}

SCENARIO(start_without_standard_descriptors) {
  for (const int number : {0, 1, 2}) {
    close(number);
  }
  const bool works = uses_statistics();
  const std::set<int> numbers = descriptors_of(report_path());
  return works && *numbers.begin() > 2 ? 0 : 1;
}

TEST_F(StatsFork, TheFileIsNeverAStandardDescriptor) {
  EXPECT_TRUE(run("start_without_standard_descriptors").exited_with(0));
}

SCENARIO(count_descriptors) {
  const char* const path = report_path();
  for (int round = 0; round < 20; ++round) {
    if (!uses_statistics() || !ends_well(fork_child([] {
          return uses_statistics() && ends_well(fork_child(&uses_statistics));
        }))) {
      return 1;
    }
  }
  return descriptors_of(path).size() == 2 ? 0 : 2;
}

TEST_F(StatsFork, ParentAndChildKeepTwoDescriptorsOfTheFile) {
  EXPECT_TRUE(run("count_descriptors").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 61U);
}

SCENARIO(list_descriptors) { return static_cast<int>(descriptors_of(arguments.at(0)).size()); }

SCENARIO(report_in_a_child_and_execute) {
  get_singleton_module();
  const std::string path = report_path();
  const pid_t child = fork();
  if (child == 0) {
    get_singleton_module()->report_now();
    execl("/proc/self/exe", "self", "--scenario", "list_descriptors", path.c_str(), nullptr);
    _exit(100);
  }
  return ends_well(child) ? 0 : 1;
}

TEST_F(StatsFork, AProgramThatAReportingChildExecutesGetsNoDescriptor) {
  EXPECT_TRUE(run("report_in_a_child_and_execute").exited_with(0));
  EXPECT_EQ(reports(file()).size(), 2U);
}

// -- Killed

namespace {

int g_forked[2];

// During a report, another thread forks a child that sleeps, and the process is killed.
void fork_and_be_killed(FakeWrite write_piece, void* closure) {
  write_piece(closure, "[", 1);
  std::thread([] {
    if (fork() == 0) {
      alarm(100);
      const pid_t sleeper = getpid();
      [[maybe_unused]] const ssize_t told = write(g_forked[1], &sleeper, sizeof sleeper);
      pause();
      _exit(0);
    }
  }).join();
  raise(SIGKILL);
}

int be_killed_within_a_report(const std::function<void()>& before) {
  alarm(100);
  pipe2(g_forked, O_CLOEXEC);
  const pid_t process = fork();
  if (process == 0) {
    set_on_alloc(nullptr);  // loads the recorder before calls are refused
    before();
    get_singleton_module();
    report_with(&fork_and_be_killed);
    _exit(0);
  }
  close(g_forked[1]);
  pid_t sleeper = -1;
  if (read(g_forked[0], &sleeper, sizeof sleeper) != sizeof sleeper) {
    return 1;
  }
  wait_for(process);
  const int file = open(report_path(), O_WRONLY | O_CLOEXEC);
  const bool is_free = flock(file, LOCK_EX | LOCK_NB) == 0;
  const bool sleeps = kill(sleeper, SIGKILL) == 0;
  close(file);
  return is_free && sleeps ? 0 : 2;
}

}  // namespace

SCENARIO(be_killed_within_a_report) {
  return be_killed_within_a_report([] {});
}

// Root ignores the mode of a file, so the call itself is refused.
SCENARIO(be_killed_within_a_report_of_a_file_that_cant_be_read) {
  return be_killed_within_a_report([] {
    test::refuse(SYS_openat, EACCES, test::When{2, O_RDONLY | O_CLOEXEC});
  });
}

TEST_F(StatsFork, AProcessKilledWithinAReportLeavesNoLockToItsChild) {
  EXPECT_TRUE(run_with("fake", "be_killed_within_a_report").exited_with(0));
}

TEST_F(StatsFork, NeitherDoesOneWhoseFileMayOnlyBeWrittenTo) {
  EXPECT_TRUE(
      run_with("fake", "be_killed_within_a_report_of_a_file_that_cant_be_read").exited_with(0));
}

// A killed process may leave half a line. The next report begins a new line.
TEST_F(StatsFork, AReportAfterHalfALineBeginsALineOfItsOwn) {
  test::write_file(file(), "{\"ts\": 1, \"lo");
  EXPECT_TRUE(run("report_in_a_child_and_execute").exited_with(0));
  const Lines lines = lines_of(read_file(file()));
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], "{\"ts\": 1, \"lo");
  EXPECT_EQ(values_of(lines[1]), json::object());
  EXPECT_EQ(values_of(lines[2]), json::object());
}
