// The log file is opened again: which file the records then go to, what stays as it was, and
// what a refusal leaves.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/descriptors.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

// Leaves the directory that the library was loaded in, which may be gone: gtest needs one that
// exists.
const bool g_has_left = getenv("QV_TEST_LEAVES") != nullptr && chdir("/") == 0;

// Run once, by the next dup3.
std::function<void()> g_before_dup3;
std::function<void()> g_after_dup3;

// The error of the next dup3, unless 0.
int g_dup3_error = 0;

}  // namespace

extern "C" int dup3(int from, int to, int flags) noexcept {
  if (const auto hook = std::exchange(g_before_dup3, nullptr)) {
    hook();
  }
  if (g_dup3_error != 0) {
    errno = std::exchange(g_dup3_error, 0);
    return -1;
  }
  const auto result = static_cast<int>(syscall(SYS_dup3, from, to, flags));
  const int error = errno;
  if (const auto hook = std::exchange(g_after_dup3, nullptr)) {
    hook();
  }
  errno = result < 0 ? error : EOVERFLOW;  // a call that succeeds may change errno, too
  return result;
}

namespace {

using test::Ran;
using testing::ElementsAre;

constexpr unsigned kHangSeconds = 30;  // after which a scenario counts as hung

void log(const char* message) {
  static const quorvane::Module module("test/reopen");
  QV_LOG(module, INFO, "%s", message);
}

int log_fd() { return quorvane::logging::get_singleton_outlet()->fd; }

std::string log_path() { return getenv("QV_LOG_FILE"); }

// Renames the log, as a rotation does, to its path and `suffix`.
void rotate(const std::string& suffix) { std::filesystem::rename(log_path(), log_path() + suffix); }

// A scenario with a log file in a directory of its own.
class LogReopen : public testing::Test {
 protected:
  Ran run(const std::string& scenario, test::Environment environment = {},
          const test::Arguments& arguments = {}) {
    environment.emplace("QV_LOG_FILE", dir_.file("log"));
    const Ran ran = test::run_scenario(scenario, environment, arguments);
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    return ran;
  }

  std::vector<std::string> messages(const std::string& name) const {
    return test::level_and_message(test::parse_records(test::read_file(dir_.file(name))));
  }

  test::TempDir dir_;
};

// ---------------------------------------------------------------- the new file

SCENARIO(reopens_after_a_rename) {
  log("one");
  rotate(".1");
  log("two");
  errno = ENOTTY;
  const int result = qv_log_reopen();
  const bool kept_errno = errno == ENOTTY;
  log("three");
  return result == 0 && kept_errno ? 0 : 1;
}

TEST_F(LogReopen, SendsLaterRecordsToANewFile) {
  run("reopens_after_a_rename");
  EXPECT_THAT(messages("log.1"), ElementsAre("INFO one", "INFO two"));
  EXPECT_THAT(messages("log"), ElementsAre("INFO three"));
}

SCENARIO(reopens_where_nothing_has_changed) {
  log("one");
  const int result = qv_log_reopen();
  log("two");
  return result;
}

TEST_F(LogReopen, AppendsToAFileThatIsStillThere) {
  run("reopens_where_nothing_has_changed");
  EXPECT_THAT(messages("log"), ElementsAre("INFO one", "INFO two"));
}

// Prints what a reopening must not change, before it and after it.
SCENARIO(tells_the_descriptors_flags) {
  const bool sets_all = arguments.at(0) == "all";
  fcntl(log_fd(), F_SETFD, sets_all ? FD_CLOEXEC : 0);
  fcntl(log_fd(), F_SETFL, sets_all ? O_APPEND | O_NONBLOCK : O_APPEND);
  const int fd = log_fd();
  const int open = test::open_descriptors();
  const int status_flags = fcntl(fd, F_GETFL);
  const int descriptor_flags = fcntl(fd, F_GETFD);
  umask(0);
  rotate(".1");
  const int result = qv_log_reopen();
  struct stat status {};
  stat(log_path().c_str(), &status);
  std::cout << (status.st_mode & 07777U) << ((status_flags & O_SYNC) == O_SYNC ? " sync" : "");
  const bool same = fd == log_fd() && open == test::open_descriptors() &&
                    status_flags == fcntl(fd, F_GETFL) && descriptor_flags == fcntl(fd, F_GETFD);
  return result == 0 && same ? 0 : 1;
}

TEST_F(LogReopen, KeepsTheNumberTheFlagsAndTheMode) {
  for (const char* flags : {"none", "all"}) {
    EXPECT_EQ(run("tells_the_descriptors_flags", {}, {flags}).out, std::to_string(0644));
    EXPECT_EQ(run("tells_the_descriptors_flags", {{"QV_LOG_SYNC", "1"}}, {flags}).out,
              std::to_string(0644) + " sync");
  }
}

// Starts the scenario that is its argument with the relative path "log".
SCENARIO(runs_with_a_relative_path) {
  const std::filesystem::path path = log_path();
  std::filesystem::current_path(path.parent_path());
  if (arguments.size() > 1) {
    setenv("QV_TEST_LEAVES", "1", 1);
    std::filesystem::create_directory("gone");
    std::filesystem::current_path("gone");
    std::filesystem::remove("../gone");
  }
  setenv("QV_LOG_FILE", arguments.size() > 1 ? "../log" : "log", 1);
  execl("/proc/self/exe", "log_reopen_test", "--scenario", arguments.at(0).c_str(), nullptr);
  return 1;
}

SCENARIO(reopens_in_another_directory) {
  log("one");
  rotate(".1");
  std::filesystem::create_directory("other");
  std::filesystem::current_path("other");
  const int result = qv_log_reopen();
  log("two");
  return result;
}

TEST_F(LogReopen, FindsARelativePathAfterAChangeOfDirectory) {
  run("runs_with_a_relative_path", {}, {"reopens_in_another_directory"});
  EXPECT_THAT(messages("log.1"), ElementsAre("INFO one"));
  EXPECT_THAT(messages("log"), ElementsAre("INFO two"));
  EXPECT_THAT(test::names_in(dir_.file("other")), testing::IsEmpty());
}

SCENARIO(reopens_an_unknown_path) {
  const bool refused = qv_log_reopen() == -1 && errno == ENOENT;
  log("one");
  return refused && g_has_left ? 0 : 1;
}

TEST_F(LogReopen, RefusesARelativePathWhoseDirectoryWasGoneAtLoad) {
  run("runs_with_a_relative_path", {}, {"reopens_an_unknown_path", "gone"});
  EXPECT_THAT(messages("log"), ElementsAre("INFO one"));
}

SCENARIO(reopens_without_a_file) {
  const int open = test::open_descriptors();
  const int result = qv_log_reopen();
  QV_LOG(quorvane::module::Module::get_internal(), ERROR, "one");
  return result == 0 && open == test::open_descriptors() ? 0 : 1;
}

TEST_F(LogReopen, DoesNothingWithoutALogFile) {
  EXPECT_EQ(run("reopens_without_a_file", {{"QV_LOG_FILE", std::nullopt}}).err, "");
  const Ran failed = run("reopens_without_a_file", {{"QV_LOG_FILE", dir_.file("missing/log")}});
  EXPECT_THAT(failed.err, testing::HasSubstr("\"one\"\n"));
  EXPECT_THAT(test::names_in(dir_.path()), testing::IsEmpty());
}

// -------------------------------------------------------------------- refusals

// Whether reopening fails with `error` and leaves the log as it was.
bool refuses(int error) {
  alarm(kHangSeconds);
  const int fd = log_fd();
  const int open = test::open_descriptors();
  errno = 0;
  const bool refused = qv_log_reopen() == -1 && errno == error;
  log("still here");
  return refused && fd == log_fd() && open == test::open_descriptors();
}

std::filesystem::path directory() { return std::filesystem::path(log_path()).parent_path(); }

SCENARIO(reopens_in_a_directory_that_is_gone) {
  std::filesystem::rename(directory(), directory().string() + ".moved");
  return refuses(ENOENT) ? 0 : 1;
}

SCENARIO(reopens_below_a_file) {
  std::filesystem::rename(directory(), directory().string() + ".moved");
  test::write_file(directory().string(), "");
  return refuses(ENOTDIR) ? 0 : 1;
}

TEST_F(LogReopen, WithoutItsDirectoryGoesOnInTheOldFile) {
  for (const char* scenario : {"reopens_in_a_directory_that_is_gone", "reopens_below_a_file"}) {
    const std::string name = scenario;
    std::filesystem::create_directory(dir_.file(name));
    run(scenario, {{"QV_LOG_FILE", dir_.file(name + "/log")}});
    EXPECT_THAT(messages(name + ".moved/log"), ElementsAre("INFO still here"));
  }
}

// A user other than root, who may do anything.
constexpr uid_t kNobody = 65534;

SCENARIO(reopens_without_permission) {
  const uid_t user = geteuid();
  rotate(".1");
  std::filesystem::permissions(directory(), std::filesystem::perms::owner_exec);
  if (user == 0 && seteuid(kNobody) != 0) {
    return 2;
  }
  const bool refused = refuses(EACCES);
  if (user == 0 && seteuid(user) != 0) {
    return 2;
  }
  std::filesystem::permissions(directory(), std::filesystem::perms::owner_all);
  return refused ? 0 : 1;
}

SCENARIO(reopens_a_directory) {
  rotate(".1");
  std::filesystem::create_directory(log_path());
  const bool refused = refuses(EISDIR);
  std::filesystem::remove(log_path());
  return refused ? 0 : 1;
}

SCENARIO(reopens_a_fifo_without_a_reader) {
  rotate(".1");
  const bool refused = mkfifo(log_path().c_str(), 0644) == 0 && refuses(ENXIO);
  std::filesystem::remove(log_path());
  return refused ? 0 : 1;
}

SCENARIO(reopens_without_a_free_descriptor) {
  rotate(".1");
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit before = limit;
  limit.rlim_cur = test::next_descriptor();
  const bool refused = setrlimit(RLIMIT_NOFILE, &limit) == 0 && refuses(EMFILE);
  setrlimit(RLIMIT_NOFILE, &before);  // a sanitizer opens files at the exit
  return refused ? 0 : 1;
}

SCENARIO(reopens_without_new_flags) {
  rotate(".1");
  test::refuse(SYS_fcntl, EINVAL, test::When{1, F_SETFL});
  return refuses(EINVAL) ? 0 : 1;
}

SCENARIO(reopens_without_a_duplicate) {
  rotate(".1");
  test::refuse(SYS_dup3, EBUSY);
  return refuses(EBUSY) ? 0 : 1;
}

TEST_F(LogReopen, GoesOnInTheOldFileWhateverTheKernelRefuses) {
  for (const char* scenario :
       {"reopens_without_permission", "reopens_a_directory", "reopens_a_fifo_without_a_reader",
        "reopens_without_a_free_descriptor", "reopens_without_new_flags",
        "reopens_without_a_duplicate"}) {
    SCOPED_TRACE(scenario);
    const std::string name = scenario;
    std::filesystem::create_directory(dir_.file(name));
    run(scenario, {{"QV_LOG_FILE", dir_.file(name + "/log")}});
    EXPECT_THAT(messages(name + "/log.1"), ElementsAre("INFO still here"));
  }
}

SCENARIO(reopens_after_a_refusal) {
  std::vector<int> results;
  for (const int error : {0, EBUSY, 0}) {
    rotate("." + std::to_string(results.size()));
    g_dup3_error = error;
    results.push_back(qv_log_reopen());
  }
  log("one");
  return results == std::vector<int>{0, -1, 0} ? 0 : 1;
}

TEST_F(LogReopen, SucceedsAfterARefusal) {
  run("reopens_after_a_refusal");
  EXPECT_THAT(messages("log"), ElementsAre("INFO one"));
}

// ------------------------------------------------ a number that is no longer ours

// The file that is opened gets the lowest free number, which may be that of the log.
SCENARIO(closes_the_descriptor) {
  const int open = test::open_descriptors();
  if (arguments.at(0) == "renamed") {
    rotate(".1");
  }
  close(log_fd());
  const bool refused = qv_log_reopen() == -1 && errno == EBADF;
  return refused && test::open_descriptors() == open - 1 ? 0 : 1;
}

TEST_F(LogReopen, LeavesANumberAloneThatTheProgramHasClosed) {
  run("closes_the_descriptor", {}, {"there"});
  run("closes_the_descriptor", {}, {"renamed"});
}

SCENARIO(opens_its_own_file_under_the_number) {
  const std::string own = log_path() + ".own";
  const int fd = open(own.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  dup2(fd, log_fd());
  close(fd);
  rotate(".1");
  for (int i = 0; i < 2; ++i) {
    if (qv_log_reopen() != -1 || errno != EBADF) {
      return 1;
    }
  }
  return write(log_fd(), "mine", 4) == 4 ? 0 : 1;
}

TEST_F(LogReopen, LeavesAFileAloneThatTheProgramHasOpenedUnderTheNumber) {
  run("opens_its_own_file_under_the_number");
  EXPECT_EQ(test::read_file(dir_.file("log.own")), "mine");
}

// --------------------------------------------- while another reopening is under way

void reopen(int) {
  if (qv_log_reopen() != 0) {
    _exit(2);
  }
}

SCENARIO(is_interrupted_between_opening_and_replacing) {
  signal(SIGHUP, &reopen);
  log("one");
  rotate(".1");
  g_before_dup3 = [] {
    rotate(".2");
    raise(SIGHUP);
  };
  const int result = qv_log_reopen();
  log("two");
  return result;
}

TEST_F(LogReopen, OpensThePathOnceMoreIfASignalHandlerReopensMeanwhile) {
  run("is_interrupted_between_opening_and_replacing");
  EXPECT_THAT(messages("log.1"), ElementsAre("INFO one"));
  EXPECT_THAT(messages("log.2"), ElementsAre());
  EXPECT_THAT(messages("log"), ElementsAre("INFO two"));
}

// A thread with a cancellation pending ends at the first call that may wait.
SCENARIO(is_cancelled_meanwhile) {
  std::thread([] {
    pthread_cancel(pthread_self());
    qv_log_reopen();
    pthread_testcancel();
  }).join();
  rotate(".1");
  const int result = qv_log_reopen();
  log("one");
  return result;
}

TEST_F(LogReopen, IsCompletedByAThreadThatIsCancelled) {
  run("is_cancelled_meanwhile");
  EXPECT_THAT(messages("log"), ElementsAre("INFO one"));
}

// -------------------------------------------------------------------- children

SCENARIO(reopens_in_a_child) {
  log("parent");
  rotate(".1");
  const int child = test::wait_for(test::in_child([] {
    const int result = qv_log_reopen();
    log("child");
    return result;
  }));
  log("parent");
  return child;
}

TEST_F(LogReopen, OfAChildLeavesItsParentWithTheOldFile) {
  run("reopens_in_a_child");
  EXPECT_THAT(messages("log.1"), ElementsAre("INFO parent", "INFO parent"));
  EXPECT_THAT(messages("log"), ElementsAre("INFO child"));
}

int g_child_status = -1;

void reopen_in_a_child() {
  g_child_status = test::wait_for(test::in_child([] {
    rotate(".2");
    const int result = qv_log_reopen();
    log("child");
    return result;
  }));
}

// The child finds its parent's reopening half done, and has no thread that completes it.
SCENARIO(forks_during_a_reopening) {
  alarm(kHangSeconds);
  rotate(".1");
  (arguments.at(0) == "before" ? g_before_dup3 : g_after_dup3) = &reopen_in_a_child;
  const int result = qv_log_reopen();
  log("parent");
  return result == 0 ? g_child_status : 1;
}

TEST_F(LogReopen, OfAChildThatIsForkedDuringAnotherStartsAnew) {
  for (const std::string moment : {"before", "after"}) {
    std::filesystem::create_directory(dir_.file(moment));
    run("forks_during_a_reopening", {{"QV_LOG_FILE", dir_.file(moment + "/log")}}, {moment});
    EXPECT_THAT(messages(moment + "/log.2"), ElementsAre("INFO parent"));
    EXPECT_THAT(messages(moment + "/log"), ElementsAre("INFO child"));
  }
}

}  // namespace
