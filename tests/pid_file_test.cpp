#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <quorvane/pid_file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using test::exists;
using test::Ran;
using test::read_file;
using test::wait_for;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRootEnv = "QV_PIDFILE_ROOT";

std::string path_of(pid_t pid) {
  return std::string(std::getenv(kRootEnv)) + "qv." + std::to_string(pid);
}

std::string content_of(pid_t pid) { return std::to_string(pid) + "\n"; }

// Whether the process's pid file is there and complete.
bool is_announced(pid_t pid) { return read_file(path_of(pid)) == content_of(pid); }

// Starts a child that ends with exit, which runs exit handlers.
pid_t start_child(const std::function<bool()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(30);
    exit(work() ? 0 : 1);
  }
  return child;
}

// Runs scenarios with an empty directory as the root of their pid files.
class PidFile : public testing::Test {
 protected:
  Ran run(const std::string& scenario, const test::Arguments& arguments = {}) const {
    return run_below(dir_.path() + "/", scenario, arguments);
  }

  static Ran run_below(const std::string& root, const std::string& scenario,
                       const test::Arguments& arguments = {}) {
    return test::run_scenario(scenario, {{kRootEnv, root}}, arguments);
  }

  // At a child's exit, a leak checker would report what its parent's other threads held.
  Ran run_losing_threads(const std::string& scenario) const {
    return test::run_scenario(
        scenario, {{kRootEnv, dir_.path() + "/"},
                   {"ASAN_OPTIONS", test::with_option("ASAN_OPTIONS", "detect_leaks=0")}});
  }

  std::vector<std::string> left() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  void expect_clean(const Ran& ran) const {
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_THAT(ran.messages(), IsEmpty());
    EXPECT_EQ(ran.err, "");
    EXPECT_THAT(left(), IsEmpty());
  }

  test::TempDir dir_;
};

// ------------------------------------------------------------------ name and bytes

SCENARIO(shows_its_file) {
  std::cout << read_file(path_of(getpid()));
  return 0;
}

TEST_F(PidFile, HoldsTheProcessIdAndANewlineAsLongAsTheProcessLives) {
  const Ran ran = run("shows_its_file");
  EXPECT_EQ(ran.out, content_of(ran.pid));
  expect_clean(ran);
}

SCENARIO(lists_files) {
  for (const auto& entry : std::filesystem::directory_iterator(arguments.at(0))) {
    std::cout << entry.path().filename().string() << " ";
  }
  return 0;
}

TEST_F(PidFile, IsNamedAfterTheProcessId) {
  const Ran ran = run("lists_files", {dir_.path()});
  EXPECT_EQ(ran.out, "qv." + std::to_string(ran.pid) + " ");
}

TEST_F(PidFile, TakesARootWithoutASlashAsAPrefix) {
  const Ran ran = run_below(dir_.path() + "/x", "lists_files", {dir_.path()});
  EXPECT_EQ(ran.out, "xqv." + std::to_string(ran.pid) + " ");
  expect_clean(ran);
}

SCENARIO(has_no_file) {
  const bool has_one = exists("qv." + std::to_string(getpid()));
  qv_remove_sigquit_pidfile();
  return has_one ? 1 : 0;
}

TEST_F(PidFile, IsNoneWithoutARoot) {
  for (const std::optional<std::string>& root :
       {std::optional<std::string>(), std::optional<std::string>("")}) {
    expect_clean(test::run_scenario("has_no_file", {{kRootEnv, root}}));
  }
}

// ------------------------------------------------------------------------ its removal

void end_by(const std::string& way) {
  if (way == "exit") {
    exit(0);
  } else if (way == "exit in a thread") {
    std::thread([] { exit(0); }).join();
  } else if (way == "_exit") {
    _exit(0);
  } else if (way == "quick_exit") {
    std::quick_exit(0);
  } else if (way == "signal") {
    raise(SIGKILL);
  }
}

SCENARIO(ends_by) {
  if (!is_announced(getpid())) {
    return 1;
  }
  end_by(arguments.at(0));
  return 0;
}

class Exit : public PidFile, public testing::WithParamInterface<std::string> {};

TEST_P(Exit, RemovesTheFile) { expect_clean(run("ends_by", {GetParam()})); }

INSTANTIATE_TEST_SUITE_P(Ways, Exit,
                         testing::Values("return from main", "exit", "exit in a thread"));

class SuddenEnd : public PidFile, public testing::WithParamInterface<std::string> {};

TEST_P(SuddenEnd, LeavesTheFile) {
  const Ran ran = run("ends_by", {GetParam()});
  EXPECT_THAT(left(), ElementsAre("qv." + std::to_string(ran.pid)));
  EXPECT_THAT(ran.messages(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Ways, SuddenEnd, testing::Values("_exit", "quick_exit", "signal"));

SCENARIO(removes_its_file_twice) {
  qv_remove_sigquit_pidfile();
  const bool is_gone = !exists(path_of(getpid()));
  // Now the file belongs to another owner.
  test::write_file(path_of(getpid()), "mine");
  qv_remove_sigquit_pidfile();
  return is_gone && read_file(path_of(getpid())) == "mine" ? 0 : 1;
}

TEST_F(PidFile, IsRemovedOnceAndAFileOfItsNameIsLeftAloneLater) {
  const Ran ran = run("removes_its_file_twice");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
  EXPECT_THAT(left(), ElementsAre("qv." + std::to_string(ran.pid)));
}

SCENARIO(loses_its_file) {
  unlink(path_of(getpid()).c_str());
  if (arguments.at(0) == "removes") {
    qv_remove_sigquit_pidfile();
  }
  return 0;
}

TEST_F(PidFile, ThatSomebodyElseDeletedIsNoFailure) {
  expect_clean(run("loses_its_file", {"removes"}));
  expect_clean(run("loses_its_file", {"exits"}));
}

// unlink refuses a directory, even to root.
bool replace_by_directory() {
  return unlink(path_of(getpid()).c_str()) == 0 && mkdir(path_of(getpid()).c_str(), 0700) == 0;
}

SCENARIO(cannot_remove_its_file) {
  if (!replace_by_directory()) {
    return 1;
  }
  for (const std::string& way : arguments) {
    if (way == "removes") {
      qv_remove_sigquit_pidfile();
    }
  }
  return 0;
}

void expect_unlink_failure(const Ran& ran, const std::string& root) {
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre("ERROR Failed to unlink QV_PIDFILE_ROOT pid file " +
                                          root + "qv." + std::to_string(ran.pid)));
  EXPECT_EQ(ran.err, ran.log);
}

TEST_F(PidFile, ThatCannotBeUnlinkedIsReportedOnceAndForgotten) {
  expect_unlink_failure(run("cannot_remove_its_file", {"removes", "removes"}), dir_.path() + "/");
}

TEST_F(PidFile, ThatCannotBeUnlinkedIsReportedAtExitToo) {
  expect_unlink_failure(run("cannot_remove_its_file"), dir_.path() + "/");
}

SCENARIO(threads_remove_its_file) {
  if (!replace_by_directory()) {
    return 1;
  }
  std::latch start(8);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      qv_remove_sigquit_pidfile();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return 0;
}

TEST_F(PidFile, IsRemovedByOneOfTheThreadsThatTry) {
  expect_unlink_failure(run("threads_remove_its_file"), dir_.path() + "/");
}

void remove_and_go(int) {
  qv_remove_sigquit_pidfile();
  _exit(0);
}

SCENARIO(removes_its_file_in_a_handler) {
  signal(SIGQUIT, &remove_and_go);
  raise(SIGQUIT);
  return 1;
}

TEST_F(PidFile, MayBeRemovedInAHandlerOfTheSignal) {
  expect_clean(run("removes_its_file_in_a_handler"));
}

SCENARIO(keeps_the_signals_action) {
  struct sigaction action {};
  sigaction(SIGQUIT, nullptr, &action);
  return action.sa_handler == SIG_DFL ? 0 : 1;
}

TEST_F(PidFile, ComesWithoutAHandlerOfTheSignal) { expect_clean(run("keeps_the_signals_action")); }

SCENARIO(still_has_its_file_at_exit) {
  std::atexit([] { std::cout << (is_announced(getpid()) ? "there" : "gone") << std::flush; });
  return 0;
}

TEST_F(PidFile, OutlivesTheProgramsOwnExitHandlers) {
  const Ran ran = run("still_has_its_file_at_exit");
  EXPECT_EQ(ran.out, "there");
  expect_clean(ran);
}

class LoadedLater : public PidFile {
 protected:
  Ran run_loader(const std::string& way) const {
    return test::run_program(QV_PID_FILE_LOADER, {QV_LIBRARY, way},
                             {{kRootEnv, dir_.path() + "/"}});
  }
};

TEST_F(LoadedLater, RemovesTheFileBetweenTheHandlersRegisteredAfterAndBefore) {
  const Ran ran = run_loader("returns");
  EXPECT_EQ(ran.out, "later: there\nearlier: gone\n");
  expect_clean(ran);
}

TEST_F(LoadedLater, RemovesTheFileThoughAHandlerExitsAgain) {
  const Ran ran = run_loader("exits again");
  EXPECT_EQ(ran.out, "later: there\nearlier: gone\n");
  expect_clean(ran);
}

TEST_F(LoadedLater, RemovesTheFileOfAChildForkedAfterItsOwnHandler) {
  const Ran ran = run_loader("forks");
  EXPECT_EQ(ran.out, "later: there\nearlier: there\nearlier: gone\n");
  expect_clean(ran);
}

// ------------------------------------------------------------------------- children

SCENARIO(child_exits_first) {
  const pid_t parent = getpid();
  const pid_t child = start_child([&] { return is_announced(getpid()) && is_announced(parent); });
  return wait_for(child) == 0 && !exists(path_of(child)) && is_announced(parent) ? 0 : 1;
}

TEST_F(PidFile, OfAChildIsItsOwnAndGoesAtItsExit) { expect_clean(run("child_exits_first")); }

// Waits until the last writer of the pipe has ended. True if nothing was written.
bool wait_for_the_end(int fd) {
  char byte;
  return read(fd, &byte, 1) == 0;
}

// This process adopts the child of the parent that ends.
SCENARIO(parent_exits_first) {
  int ends[2];
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0 || pipe(ends) != 0) {
    return 1;
  }
  const pid_t parent = start_child([&] {
    const pid_t own = getpid();
    const pid_t child = start_child([&] {
      close(ends[1]);
      return wait_for_the_end(ends[0]) && !exists(path_of(own)) && is_announced(getpid());
    });
    return child > 0;
  });
  close(ends[1]);
  const bool parent_went_well = wait_for(parent) == 0;
  int status = 1;
  const pid_t child = waitpid(-1, &status, 0);
  return parent_went_well && status == 0 && !exists(path_of(child)) && is_announced(getpid()) ? 0
                                                                                              : 1;
}

TEST_F(PidFile, OfAChildOutlivesItsParents) { expect_clean(run("parent_exits_first")); }

SCENARIO(forks_twice_deep) {
  const pid_t first = getpid();
  const pid_t child = start_child([&] {
    const pid_t second = getpid();
    const pid_t below = start_child(
        [&] { return is_announced(first) && is_announced(second) && is_announced(getpid()); });
    return wait_for(below) == 0 && !exists(path_of(below)) && is_announced(second);
  });
  return wait_for(child) == 0 && is_announced(first) ? 0 : 1;
}

TEST_F(PidFile, OfAChildsChildIsItsOwn) { expect_clean(run("forks_twice_deep")); }

SCENARIO(child_removes_its_file) {
  const pid_t parent = getpid();
  const pid_t child = start_child([&] {
    qv_remove_sigquit_pidfile();
    qv_remove_sigquit_pidfile();
    return !exists(path_of(getpid())) && is_announced(parent);
  });
  return wait_for(child) == 0 && is_announced(parent) ? 0 : 1;
}

TEST_F(PidFile, OfAChildIsTheOneThatTheChildRemoves) {
  expect_clean(run("child_removes_its_file"));
}

SCENARIO(parent_removes_its_file_before_the_fork) {
  qv_remove_sigquit_pidfile();
  const pid_t child = start_child([] { return is_announced(getpid()); });
  return wait_for(child) == 0 && !exists(path_of(getpid())) ? 0 : 1;
}

TEST_F(PidFile, OfAChildIsWrittenAlsoWhenItsParentHasNone) {
  expect_clean(run("parent_removes_its_file_before_the_fork"));
}

SCENARIO(forks_in_a_thread) {
  int status = 1;
  std::thread([&] {
    status = wait_for(start_child([] { return is_announced(getpid()); }));
  }).join();
  return status == 0 && is_announced(getpid()) ? 0 : 1;
}

TEST_F(PidFile, OfAThreadsChildIsItsOwn) { expect_clean(run_losing_threads("forks_in_a_thread")); }

SCENARIO(forks_at_exit) {
  std::atexit([] {
    const pid_t own = getpid();
    const pid_t child = fork();
    if (child > 0) {
      _exit(wait_for(child) == 0 && !exists(path_of(child)) && is_announced(own) ? 0 : 1);
    }
    if (!is_announced(getpid())) {
      _exit(1);
    }
  });
  return 0;
}

TEST_F(PidFile, OfAChildForkedByAnExitHandlerGoesToo) {
  const Ran ran = run("forks_at_exit");
  EXPECT_TRUE(ran.exited_with(0));
  // The parent ended with _exit, so the library didn't remove the parent's file.
  EXPECT_THAT(left(), ElementsAre("qv." + std::to_string(ran.pid)));
}

SCENARIO(clones) {
  const pid_t parent = getpid();
  const auto child =
      static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
  if (child == 0) {
    qv_remove_sigquit_pidfile();
    _exit(is_announced(parent) && !exists(path_of(getpid())) ? 0 : 1);
  }
  return wait_for(child) == 0 && is_announced(parent) ? 0 : 1;
}

TEST_F(PidFile, IsNotForAChildThatNoForkHandlerSawToRemove) { expect_clean(run("clones")); }

SCENARIO(moves_the_root_and_forks) {
  const std::string elsewhere = std::string(std::getenv(kRootEnv)) + "moved.";
  const pid_t child = start_child([&] { return true; });
  const bool first = wait_for(child) == 0;
  setenv(kRootEnv, elsewhere.c_str(), 1);
  const pid_t second = start_child([&] {
    return exists(elsewhere + "qv." + std::to_string(getpid())) && is_announced(getpid());
  });
  const bool moved = wait_for(second) == 0;
  unsetenv(kRootEnv);
  const pid_t third =
      start_child([&] { return !exists(elsewhere + "qv." + std::to_string(getpid())); });
  return first && moved && wait_for(third) == 0 ? 0 : 1;
}

TEST_F(PidFile, OfAChildLiesWhereTheRootIsAtTheFork) {
  expect_clean(run("moves_the_root_and_forks"));
}

SCENARIO(forks_beside_threads) {
  std::atomic<bool> stops{false};
  std::latch start(3);
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      while (!stops) {
#ifndef QV_SANITIZED  // whose allocators a fork may catch locked
        delete new std::string(100, 'x');
#endif
        std::getenv(kRootEnv);
      }
    });
  }
  start.arrive_and_wait();
  int failed = 0;
  for (int round = 0; round < 50; ++round) {
    const pid_t child = start_child([] { return is_announced(getpid()); });
    failed += wait_for(child) == 0 && !exists(path_of(child)) ? 0 : 1;
  }
  stops = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  return failed;
}

TEST_F(PidFile, HangsNoChildForkedBesideBusyThreads) {
  expect_clean(run_losing_threads("forks_beside_threads"));
}

// ---------------------------------------------------------------------------- execve

SCENARIO(execs_itself) {
  const std::string path = path_of(getpid());
  test::write_file(path, std::string(1000, 'x'));
  execl("/proc/self/exe", "pid_file_test", "--scenario", "shows_its_file", nullptr);
  return 1;
}

TEST_F(PidFile, IsWrittenAnewOverWhateverHasItsNameAfterExecve) {
  const Ran ran = run("execs_itself");
  EXPECT_EQ(ran.out, content_of(ran.pid));
  expect_clean(ran);
}

SCENARIO(execs_a_stranger) {
  execl("/bin/true", "true", nullptr);
  return 1;
}

TEST_F(PidFile, StaysAfterExecveOfAProgramWithoutTheLibrary) {
  const Ran ran = run("execs_a_stranger");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(left(), ElementsAre("qv." + std::to_string(ran.pid)));
}

void become_a_list_of_descriptors() { execl("/bin/ls", "ls", "-l", "/proc/self/fd", nullptr); }

SCENARIO(child_execs_while_its_file_is_written) {
  test::refuse_after(SYS_write, EIO, test::When{0, test::next_descriptor()},
                     &become_a_list_of_descriptors);
  return wait_for(start_child([] { return false; })) == 0 ? 0 : 1;
}

// The file stays, since no process knows of it any more.
TEST_F(PidFile, IsNotOpenInAProgramThatIsExecutedWhileItIsWritten) {
  const Ran ran = run("child_execs_while_its_file_is_written");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.out, testing::HasSubstr(" 2 -> "));
  EXPECT_THAT(ran.out, testing::Not(testing::HasSubstr("/qv.")));
  EXPECT_THAT(left(), testing::SizeIs(1));
}

// -------------------------------------------------------------- what can't be written

SCENARIO(goes_on_without_a_file) {
  qv_remove_sigquit_pidfile();
  std::cout << "goes on";
  return 0;
}

void expect_open_failure(const Ran& ran, const std::string& root) {
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "goes on");
  EXPECT_THAT(ran.messages(), ElementsAre("ERROR Failed to open QV_PIDFILE_ROOT pid file " + root +
                                          "qv." + std::to_string(ran.pid)));
  EXPECT_EQ(ran.err, ran.log);
}

TEST_F(PidFile, BelowAMissingRootIsReportedAndTheProcessGoesOn) {
  const std::string root = dir_.file("missing/");
  expect_open_failure(run_below(root, "goes_on_without_a_file"), root);
}

// Dropped capabilities stay dropped after exec.
SCENARIO(without_privileges) {
  if (geteuid() == 0 && (prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE) != 0)) {
    std::perror("prctl");
    return 125;
  }
  setenv(kRootEnv, arguments.at(0).c_str(), 1);
  execl("/proc/self/exe", "pid_file_test", "--scenario", "goes_on_without_a_file", nullptr);
  return 1;
}

TEST_F(PidFile, BelowARootThatIsNotWritableIsReportedAndTheProcessGoesOn) {
  const std::string root = dir_.path() + "/";
  chmod(root.c_str(), 0500);
  const Ran ran = test::run_scenario("without_privileges", {}, {root});
  chmod(root.c_str(), 0700);
  expect_open_failure(ran, root);
  EXPECT_THAT(left(), IsEmpty());
}

TEST_F(PidFile, WithANameThatIsTooLongIsReportedAndTheProcessGoesOn) {
  const std::string root(300, 'x');
  expect_open_failure(run_below(dir_.file(root), "goes_on_without_a_file"), dir_.file(root));
  // Longer than any path: the record is cut.
  const Ran longer = run_below(std::string(5000, '/'), "goes_on_without_a_file");
  EXPECT_EQ(longer.out, "goes on");
  EXPECT_EQ(longer.records.size(), 1U);
  EXPECT_EQ(longer.log.size(), 4096U);
}

// Executes tells_of_its_file with a pid file in the directory that the first argument names.
// The second argument is the length of the file's path in bytes.
SCENARIO(has_a_path_of) {
  const std::string name = "qv." + std::to_string(getpid());
  const std::size_t length = std::stoul(arguments.at(1)) - name.size();
  std::string root = arguments.at(0) + "/";
  while (root.size() + 2 <= length) {
    root += "./";
  }
  root.resize(length, '/');
  setenv(kRootEnv, root.c_str(), 1);
  execl("/proc/self/exe", "pid_file_test", "--scenario", "tells_of_its_file", nullptr);
  return 1;
}

SCENARIO(tells_of_its_file) {
  const std::string path = path_of(getpid());
  std::cout << path.size() << " " << (access(path.c_str(), F_OK) == 0 ? "there" : "gone");
  return 0;
}

TEST_F(PidFile, HasAPathThatWithItsNulFillsThePathBufferAndNoLongerOne) {
  const Ran longest =
      test::run_scenario("has_a_path_of", {}, {dir_.path(), std::to_string(PATH_MAX - 1)});
  EXPECT_EQ(longest.out, "4095 there");
  expect_clean(longest);
  const Ran longer =
      test::run_scenario("has_a_path_of", {}, {dir_.path(), std::to_string(PATH_MAX)});
  EXPECT_TRUE(longer.exited_with(0));
  EXPECT_EQ(longer.out, "4096 gone");
  ASSERT_THAT(longer.records, testing::SizeIs(1));
  EXPECT_EQ(longer.records[0].level, "ERROR");
  EXPECT_THAT(
      longer.records[0].message,
      testing::StartsWith("Failed to open QV_PIDFILE_ROOT pid file " + dir_.path() + "/./"));
}

SCENARIO(child_cannot_write_a_file) {
  const pid_t parent = getpid();
  const std::string root = std::getenv(kRootEnv);
  setenv(kRootEnv, (root + "missing/").c_str(), 1);
  const pid_t child = start_child([&] {
    qv_remove_sigquit_pidfile();
    return true;
  });
  setenv(kRootEnv, root.c_str(), 1);
  std::cout << child;
  return wait_for(child) == 0 && is_announced(parent) ? 0 : 1;
}

TEST_F(PidFile, OfAChildThatCannotBeWrittenIsReportedAndItsParentsStays) {
  const Ran ran = run("child_cannot_write_a_file");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre("ERROR Failed to open QV_PIDFILE_ROOT pid file " +
                                          dir_.file("missing/qv.") + ran.out));
  ASSERT_EQ(ran.records.size(), 1U);
  EXPECT_EQ(std::to_string(ran.records[0].pid), ran.out);
  EXPECT_THAT(left(), IsEmpty());
}

SCENARIO(finds_its_file_empty) {
  return exists(path_of(getpid())) && read_file(path_of(getpid())).empty() ? 0 : 1;
}

// No file can grow at all.
SCENARIO(has_a_full_disk) {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_FSIZE, &none);
  signal(SIGXFSZ, SIG_IGN);
  setenv(kRootEnv, arguments.at(0).c_str(), 1);
  execl("/proc/self/exe", "pid_file_test", "--scenario", "finds_its_file_empty", nullptr);
  return 1;
}

TEST_F(PidFile, OnAFullDiskStaysEmptyAndIsRemovedAllTheSame) {
  expect_clean(test::run_scenario("has_a_full_disk", {}, {dir_.path() + "/"}));
}

}  // namespace
