// The outlet of the process: its file, its level, and the path that it takes by default.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "log_test/fixture.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

const char* g_fake_host = nullptr;

}  // namespace

extern "C" int gethostname(char* name, size_t size) noexcept {
  utsname system{};
  if (g_fake_host == nullptr && uname(&system) != 0) {
    return -1;
  }
  const std::string host = g_fake_host != nullptr ? g_fake_host : system.nodename;
  std::memcpy(name, host.c_str(), std::min(size, host.size() + 1));
  if (size <= host.size()) {
    errno = ENAMETOOLONG;
    return -1;
  }
  return 0;
}

namespace {

using log_test::kNames;
using quorvane::logging::get_default_log_path;
using quorvane::logging::get_singleton_outlet;
using quorvane::logging::LoggingModuleData;
using test::parse_records;
using test::Ran;
using test::read_file;
using test::run_scenario;
using test::TempDir;
using testing::ElementsAre;

// ----------------------------------------------------------------- the outlet

// Prints "fd error_fd level flags". fd is "file" if it is above 2. The flags are those that
// the descriptor keeps after open, and "not inherited" if exec closes it.
SCENARIO(tells_its_outlet) {
  const LoggingModuleData* outlet = get_singleton_outlet();
  const int flags = outlet->fd < 0 ? 0 : fcntl(outlet->fd, F_GETFL);
  std::cout << (outlet->fd > 2 ? "file" : std::to_string(outlet->fd)) << " " << outlet->error_fd
            << " " << outlet->level;
  if (outlet->fd >= 0) {
    std::cout << ((flags & O_ACCMODE) == O_WRONLY ? " writes" : " other mode")
              << (flags & O_APPEND ? " append" : "") << ((flags & O_SYNC) == O_SYNC ? " sync" : "")
              << (fcntl(outlet->fd, F_GETFD) & FD_CLOEXEC ? " not inherited" : "");
  }
  return outlet == &quorvane::logging::g_singleton_outlet ? 0 : 1;
}

SCENARIO(logs_at_every_level_by_macro) {
  const quorvane::Module module("test/outlet");
  QV_LOG(module, ERROR, "error");
  QV_LOG(module, WARN, "warn");
  QV_LOG(module, INFO, "info");
  QV_LOG(module, TRACE, "trace");
  QV_LOG(module, DEBUG, "debug");
  std::cout << module->level;
  return 0;
}

const test::Environment kNoPath{
    {"QV_LOG_FILE", std::nullopt}, {"QV_LOG_FILE_Global", std::nullopt}, {"HOME", std::nullopt}};

std::string failed_to_open(const std::string& path) {
  return "QVUtil: Failed to open requested log file " + path + ".\n";
}

// Expects the outcome of logs_at_every_level_by_macro when the log can't be opened.
void expect_errors_on_standard_error(const Ran& ran, const std::string& path) {
  EXPECT_EQ(ran.out, "1");
  const std::string line = failed_to_open(path);
  ASSERT_EQ(ran.err.substr(0, line.size()), line);
  EXPECT_THAT(test::level_and_message(parse_records(ran.err.substr(line.size()))),
              ElementsAre("ERROR error"));
}

TEST(LogOutlet, NamesOfItsVariables) {
  EXPECT_STREQ(quorvane::logging::QV_LOG_FILE_ENV, "QV_LOG_FILE");
  EXPECT_STREQ(quorvane::logging::QV_LOG_FILE_GLOBAL_ENV, "QV_LOG_FILE_Global");
  EXPECT_STREQ(quorvane::logging::QV_LOG_LEVEL_ENV, "QV_LOG_LEVEL");
}

TEST(LogOutlet, WithoutAnyPathIsOffWhateverTheLevelSays) {
  for (const char* level : {"DEBUG", "ALL"}) {
    test::Environment environment = kNoPath;
    environment["QV_LOG_LEVEL"] = level;
    EXPECT_EQ(run_scenario("tells_its_outlet", environment).out, "-1 -1 0");
  }
}

TEST(LogOutlet, WithoutAnyPathNothingIsEverWritten) {
  const Ran ran = run_scenario("logs_at_every_level_by_macro", kNoPath);
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.err, "");
}

TEST(LogOutlet, OpensTheFileForAppendingAndStandardErrorForErrors) {
  EXPECT_EQ(run_scenario("tells_its_outlet").out, "file 2 5 writes append");
}

TEST(LogOutlet, AppendsToAFileThatIsThere) {
  const TempDir dir;
  test::write_file(dir.file("log"), "old\n");
  run_scenario("logs_at_every_level_by_macro", {{"QV_LOG_FILE", std::nullopt},
                                                {"QV_LOG_FILE_Global", dir.file("log")},
                                                {"QV_LOG_LEVEL", "ERROR"}});
  const std::string bytes = read_file(dir.file("log"));
  EXPECT_EQ(bytes.substr(0, 4), "old\n");
  EXPECT_THAT(test::level_and_message(parse_records(bytes.substr(4))), ElementsAre("ERROR error"));
}

TEST(LogOutlet, CreatesTheFileReadableForAllAndWritableForItsOwner) {
  const TempDir dir;
  const mode_t mask = umask(0);
  run_scenario("tells_its_outlet", {{"QV_LOG_FILE", dir.file("log")}});
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(dir.file("log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST(LogOutlet, AnySettingOfSyncWritesThrough) {
  for (const char* value : {"", "0", "1", "no"}) {
    EXPECT_EQ(run_scenario("tells_its_outlet", {{"QV_LOG_SYNC", value}}).out,
              "file 2 5 writes append sync");
  }
}

TEST(LogOutlet, TakesItsLevelFromAnExactNameAndIsInfoOtherwise) {
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    const Ran ran = run_scenario("tells_its_outlet", {{"QV_LOG_LEVEL", kNames[i]}});
    EXPECT_EQ(ran.out, "file 2 " + std::to_string(i) + " writes append");
  }
  for (const std::optional<std::string>& name :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("debug"), std::optional<std::string>("5"),
        std::optional<std::string>("UNKNOWN")}) {
    const Ran ran = run_scenario("tells_its_outlet", {{"QV_LOG_LEVEL", name}});
    EXPECT_EQ(ran.out, "file 2 3 writes append");
    EXPECT_EQ(ran.err + ran.log, "");
  }
}

TEST(LogOutlet, AtInfoTraceAndDebugAreLeftOut) {
  const Ran ran = run_scenario("logs_at_every_level_by_macro", {{"QV_LOG_LEVEL", "INFO"}});
  EXPECT_THAT(ran.messages(), ElementsAre("ERROR error", "WARN warn", "INFO info"));
}

TEST(LogOutlet, AtTraceOnlyDebugIsLeftOut) {
  const Ran ran = run_scenario("logs_at_every_level_by_macro", {{"QV_LOG_LEVEL", "TRACE"}});
  EXPECT_THAT(ran.messages(), ElementsAre("ERROR error", "WARN warn", "INFO info", "TRACE trace"));
}

TEST(LogOutlet, AFileThatCannotBeOpenedIsToldOnceAndErrorsGoToStandardError) {
  const TempDir dir;
  const std::string path = dir.file("missing/log");
  const Ran ran = run_scenario("logs_at_every_level_by_macro",
                               {{"QV_LOG_FILE", path}, {"QV_LOG_LEVEL", "DEBUG"}});
  expect_errors_on_standard_error(ran, path);
  EXPECT_FALSE(test::exists(path));
  EXPECT_EQ(run_scenario("tells_its_outlet", {{"QV_LOG_FILE", path}}).out, "-1 2 1");
}

TEST(LogOutlet, ADirectoryIsNoLogFile) {
  const TempDir dir;
  const Ran ran = run_scenario("tells_its_outlet", {{"QV_LOG_FILE", dir.path()}});
  EXPECT_EQ(ran.out, "-1 2 1");
  EXPECT_EQ(ran.err, failed_to_open(dir.path()));
}

// The refusal survives exec, so it applies when the library is loaded.
SCENARIO(loads_with_no_descriptor_left_for_the_log) {
  test::refuse(SYS_openat, EMFILE, test::When{2, O_WRONLY | O_CREAT | O_APPEND});
  execl("/proc/self/exe", "log_outlet_test", "--scenario", "logs_at_every_level_by_macro", nullptr);
  return 1;
}

TEST(LogOutlet, NoDescriptorLeftIsAFileThatCannotBeOpened) {
  const TempDir dir;
  test::Environment environment = kNoPath;
  environment["QV_LOG_FILE_Global"] = dir.file("log");
  const Ran ran = run_scenario("loads_with_no_descriptor_left_for_the_log", environment);
  expect_errors_on_standard_error(ran, dir.file("log"));
}

TEST(LogOutlet, AFullDiskLeavesErrorsOnStandardError) {
  const Ran ran = run_scenario("logs_at_every_level_by_macro", {{"QV_LOG_FILE", "/dev/full"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "5");
  EXPECT_THAT(test::level_and_message(parse_records(ran.err)), ElementsAre("ERROR error"));
}

SCENARIO(asks_for_the_outlet_from_threads) {
  std::vector<std::thread> threads;
  std::atomic<int> same{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back(
        [&] { same += get_singleton_outlet() == &quorvane::logging::g_singleton_outlet; });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return same == 8 ? 0 : 1;
}

TEST(LogOutlet, IsOneForAllThreadsAndSetUpOnce) {
  const TempDir dir;
  const std::string path = dir.file("missing/log");
  const Ran ran = run_scenario("asks_for_the_outlet_from_threads", {{"QV_LOG_FILE", path}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, failed_to_open(path));
}

// ----------------------------------------------------------- the default path

std::string host_name() {
  std::array<char, 256> name{};
  EXPECT_EQ(gethostname(name.data(), name.size()), 0);
  return name.data();
}

SCENARIO(tells_the_default_path) {
  std::cout << get_default_log_path();
  return 0;
}

std::string default_path(const std::optional<std::string>& file,
                         const std::optional<std::string>& global,
                         const std::optional<std::string>& home) {
  return run_scenario("tells_the_default_path",
                      {{"QV_LOG_FILE", file}, {"QV_LOG_FILE_Global", global}, {"HOME", home}})
      .out;
}

TEST(DefaultLogPath, TakesTheFirstVariableThatIsNotEmpty) {
  const TempDir dir;
  const std::string a = dir.file("a");
  const std::string b = dir.file("b");
  const std::string home_file = dir.path() + "/.quorvane/qv_Global." + host_name() + ".log";
  EXPECT_EQ(default_path(a, b, dir.path()), a);
  EXPECT_EQ(default_path("", b, dir.path()), b);
  EXPECT_EQ(default_path(std::nullopt, b, dir.path()), b);
  EXPECT_EQ(default_path("", "", dir.path()), home_file);
  EXPECT_EQ(default_path(std::nullopt, std::nullopt, dir.path()), home_file);
  EXPECT_EQ(default_path("", "", ""), "");
  EXPECT_EQ(default_path("", "", std::nullopt), "");
}

TEST(DefaultLogPath, UsesTheGlobalFileWhenTheOwnOneIsEmpty) {
  const TempDir dir;
  const Ran ran = run_scenario("logs_at_every_level_by_macro",
                               {{"QV_LOG_FILE", ""}, {"QV_LOG_FILE_Global", dir.file("global")}});
  EXPECT_EQ(parse_records(read_file(dir.file("global"))).size(), 5U);
}

TEST(DefaultLogPath, LogsToTheHomeDirectoryWhenItsDirectoryIsThere) {
  const TempDir home;
  ASSERT_EQ(mkdir(home.file(".quorvane").c_str(), 0755), 0);
  run_scenario("logs_at_every_level_by_macro",
               {{"QV_LOG_FILE", std::nullopt}, {"HOME", home.path()}});
  const std::string file = home.file(".quorvane/qv_Global." + host_name() + ".log");
  EXPECT_EQ(parse_records(read_file(file)).size(), 5U);
}

TEST(DefaultLogPath, DoesNotCreateTheDirectory) {
  const TempDir home;
  const Ran ran =
      run_scenario("tells_its_outlet", {{"QV_LOG_FILE", std::nullopt}, {"HOME", home.path()}});
  EXPECT_EQ(ran.err, failed_to_open(home.file(".quorvane/qv_Global." + host_name() + ".log")));
  EXPECT_FALSE(test::exists(home.file(".quorvane")));
}

SCENARIO(tells_the_default_path_without_a_host_name) {
  test::refuse(SYS_uname, EFAULT);
  std::cout << get_default_log_path();
  return 0;
}

TEST(DefaultLogPath, IsEmptyWithoutAHostName) {
  const TempDir home;
  const Ran ran = run_scenario("tells_the_default_path_without_a_host_name",
                               {{"QV_LOG_FILE", std::nullopt}, {"HOME", home.path()}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "");
}

SCENARIO(tells_the_default_path_on_a_host) {
  g_fake_host = arguments.at(0).c_str();
  std::cout << get_default_log_path();
  return 0;
}

// The buffer for the name has 64 bytes, NUL included.
TEST(DefaultLogPath, TakesAHostNameOfSixtyThreeBytesAndNoLongerOne) {
  const std::string longest(63, 'h');
  for (const auto& [host, path] : std::map<std::string, std::string>{
           {"h", "/nowhere/.quorvane/qv_Global.h.log"},
           {longest, "/nowhere/.quorvane/qv_Global." + longest + ".log"},
           {longest + "h", ""}}) {
    const Ran ran = run_scenario("tells_the_default_path_on_a_host",
                                 {{"QV_LOG_FILE", std::nullopt}, {"HOME", "/nowhere"}}, {host});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.out, path);
  }
}

// ------------------------------------------------------ before and after main

bool g_logs_around_main = false;

struct AroundMain {
  AroundMain() {
    g_logs_around_main = getenv("QV_TEST_AROUND_MAIN") != nullptr;
    say("static initialiser");
  }
  ~AroundMain() { say("static destructor"); }

  static void say(const char* where) {
    if (g_logs_around_main) {
      const quorvane::Module module("test/around_main");
      QV_LOG(module, INFO, "%s", where);
    }
  }
};

const AroundMain g_around_main;

SCENARIO(logs_at_exit) {
  atexit([] { AroundMain::say("exit handler"); });
  AroundMain::say("main");
  return 0;
}

TEST(LogOutlet, IsThereBeforeMainAndAfterIt) {
  const Ran ran = run_scenario("logs_at_exit", {{"QV_TEST_AROUND_MAIN", "1"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre("INFO static initialiser", "INFO main",
                                          "INFO exit handler", "INFO static destructor"));
}

}  // namespace
