// qvutil pids, on the sets and pid files of real processes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <quorvane/pidset.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qvutil/commands/pids.h"
#include "qvutil/processes/process.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"
#include "support/tracee.h"

namespace {

using quorvane::tool::living_process;
using test::Ran;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::size_t kPage = 4096;

Ran pids(test::Arguments arguments) {
  arguments.insert(arguments.begin(), "pids");
  return test::run_program(QV_BINARY_DIR "/bin/qvutil", arguments);
}

// A child that sleeps until the object ends.
class Sleeper {
 public:
  Sleeper() : pid_(test::in_child([] { return test::sleep_until_killed(); })) {}
  ~Sleeper() { end(); }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  pid_t pid() const { return pid_; }
  std::string text() const { return std::to_string(pid_); }
  void end() {
    if (!has_ended_) {
      kill(pid_, SIGKILL);
      test::wait_for(pid_);
    }
    has_ended_ = true;
  }

 private:
  pid_t pid_;
  bool has_ended_ = false;
};

// The id of a process that has ended. The kernel gives ids in turn, so it isn't used again soon.
pid_t dead_pid() {
  Sleeper sleeper;
  return sleeper.pid();
}

// A child with the id of a process that has ended; -1 if it may not choose.
pid_t revived(pid_t pid) {
  clone_args arguments{};
  arguments.exit_signal = SIGCHLD;
  arguments.set_tid = reinterpret_cast<std::uint64_t>(&pid);
  arguments.set_tid_size = 1;
  const long child = syscall(SYS_clone3, &arguments, sizeof(arguments));
  if (child == 0) {
    test::sleep_until_killed();
  }
  return static_cast<pid_t>(child);
}

// Whether it stands in front of the system call.
bool is_at_call(const test::Tracee& tracee, long number) {
  return ptrace(PTRACE_PEEKUSER, tracee.pid(), offsetof(user_regs_struct, orig_rax), 0) == number;
}

std::string set_bytes(const std::vector<std::int32_t>& ids, std::uint64_t count) {
  std::string bytes(reinterpret_cast<const char*>(&count), sizeof(count));
  bytes.append(reinterpret_cast<const char*>(ids.data()), ids.size() * sizeof(ids[0]));
  bytes.resize(kPage);
  return bytes;
}

std::uint64_t count_in(const std::string& set) {
  std::uint64_t count = 0;
  test::read_file(set).copy(reinterpret_cast<char*>(&count), sizeof(count));
  return count;
}

class Pids : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(getpagesize(), kPage); }

  std::string set_of(const std::vector<std::int32_t>& ids) {
    test::write_file(file("set"), set_bytes(ids, ids.size()));
    return file("set");
  }
  std::string pid_file(pid_t pid, const std::string& prefix = "") {
    const std::string path = file(prefix + "qv." + std::to_string(pid));
    test::write_file(path, std::to_string(pid) + "\n");
    return path;
  }
  std::string file(const std::string& name) const { return dir_.file(name); }

  test::TempDir dir_;
};

std::string line(pid_t pid, const std::string& state) {
  return "\"pid\":" + std::to_string(pid) + ",\"state\":\"" + state + "\"";
}

// --- what a process is ---

TEST(LivingProcess, HasItsProgramAndItsStart) {
  const double before = static_cast<double>(time(nullptr));
  const Sleeper sleeper;
  const auto process = living_process(sleeper.pid());
  ASSERT_TRUE(process);
  EXPECT_EQ(process->program, "qvutil_pids_test");
  EXPECT_GE(process->start, before - 1);
  EXPECT_LE(process->start, static_cast<double>(time(nullptr)) + 1);
}

TEST(LivingProcess, IsNoneThatNobodyHasWaitedForNorOneThatNeverWas) {
  const pid_t child = test::in_child([] { return 0; });
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
  EXPECT_FALSE(living_process(child));
  test::wait_for(child);
  for (const pid_t pid : {0, -1, child, 0x7fffffff}) {
    EXPECT_FALSE(living_process(pid)) << pid;
  }
}

TEST(LivingProcess, IsNoThread) {
  std::thread([] {
    EXPECT_FALSE(living_process(static_cast<pid_t>(syscall(SYS_gettid))));
    EXPECT_TRUE(living_process(getpid()));
  }).join();
}

// --- a set ---

TEST_F(Pids, OfASetAreShownWithTheirPrograms) {
  const Sleeper sleeper;
  const pid_t dead = dead_pid();
  const Ran ran = pids({set_of({dead, sleeper.pid()})});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(ran.out,
              testing::ContainsRegex(" *" + std::to_string(dead) + "  dead\n *" + sleeper.text() +
                                     "  lives  20[-0-9]+T[0-9:]+Z  qvutil_pids_test\n$"));
  EXPECT_EQ(ran.err, "");
}

TEST_F(Pids, WithoutADeadOneAreFine) {
  const Sleeper sleeper;
  EXPECT_TRUE(pids({set_of({sleeper.pid()})}).exited_with(0));
  EXPECT_TRUE(pids({set_of({})}).exited_with(0));
}

TEST_F(Pids, OfASetThatADeadOneLeavesArePrunedByTheLibrarysRules) {
  const Sleeper sleeper;
  const pid_t dead = dead_pid();
  const std::string set = set_of({-1, sleeper.pid()});
  qv_pidset_t* const handle = qv_pidset_open(set.c_str());
  ASSERT_NE(handle, nullptr);
  qv_pidset_add(handle, dead);
  const Ran ran = pids({set, "--prune", "--json"});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_THAT(ran.out, HasSubstr(line(-1, "removed")));
  EXPECT_THAT(ran.out, HasSubstr(line(dead, "removed")));
  EXPECT_THAT(ran.out, HasSubstr(line(sleeper.pid(), "lives")));
  EXPECT_EQ(*qv_pidset_count_ptr(handle), 1U);
  EXPECT_TRUE(qv_pidset_contains(handle, sleeper.pid()));
  qv_pidset_close(handle);
  EXPECT_TRUE(pids({set}).exited_with(0));
}

TEST_F(Pids, OfAnIdThatIsThereTwiceAreOne) {
  const Sleeper sleeper;
  const Ran ran = pids({set_of({sleeper.pid(), sleeper.pid()}), "--json"});
  EXPECT_THAT(ran.out, StartsWith("{" + line(sleeper.pid(), "lives")));
  EXPECT_EQ(ran.out.find('\n'), ran.out.size() - 1);
}

TEST_F(Pids, AreNotReadFromWhatIsNoSet) {
  std::filesystem::create_directory(file("empty"));
  test::write_file(file("short"), "12345");
  test::write_file(file("long"), set_bytes({}, 0) + "x");
  test::write_file(file("count"), set_bytes({}, 1023));
  for (const std::string name : {"short", "long", "count", "none", "none/none"}) {
    const std::string before = test::read_file(file(name));
    for (const bool prune : {false, true}) {
      const Ran ran = prune ? pids({file(name), "--prune"}) : pids({file(name)});
      EXPECT_TRUE(ran.exited_with(2)) << name;
      EXPECT_THAT(ran.err, HasSubstr(file(name).substr(0, file("none").size()))) << name;
      EXPECT_EQ(ran.out, "");
    }
    EXPECT_EQ(test::read_file(file(name)), before);
  }
  EXPECT_TRUE(pids({"/dev/null"}).exited_with(2));
}

TEST_F(Pids, OfAnEmptyFileLeaveItEmpty) {
  test::write_file(file("set"), "");
  EXPECT_TRUE(pids({file("set")}).exited_with(0));
  EXPECT_TRUE(pids({file("set"), "--prune"}).exited_with(0));
  EXPECT_EQ(test::read_file(file("set")), "");
}

TEST_F(Pids, ReadWithoutPruningChangeNoByte) {
  const std::string set = set_of({dead_pid(), 5, 3});
  const std::string before = test::read_file(set);
  pids({set});
  EXPECT_EQ(test::read_file(set), before);
}

TEST_F(Pids, WaitForTheLockAndSayIt) {
  const std::string set = set_of({dead_pid()});
  const int fd = open(set.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  std::stringstream err;
  test::Signpost done;
  const pid_t child = test::in_child([&] {
    close(fd);  // shares the lock
    std::ostringstream out;
    quorvane::tool::Console console(out, err, {});
    const auto outcome = quorvane::tool::pids(console, {set, true});
    done.pass();
    return err.str() == "qvutil: waiting for the lock on " + set + "\n" ? static_cast<int>(outcome)
                                                                        : 9;
  });
  EXPECT_TRUE(test::waits_for_lock(child, done));
  while (!test::kernel_lists_waiter(child)) {
    sched_yield();
  }
  EXPECT_FALSE(done.is_passed());
  close(fd);
  EXPECT_EQ(test::wait_for(child), 0);
}

TEST_F(Pids, ThatGetADeadOnesIdWhileItIsPrunedStay) {
  const pid_t reused = dead_pid();
  const std::string set = set_of({reused});
  const int fd = open(set.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(fd, LOCK_SH), 0);  // it can read the set, but not change it
  test::Signpost done;
  const pid_t pruner = test::in_child([&] {
    close(fd);
    std::ostringstream out;
    quorvane::tool::Console console(out, out, {.json = true});
    quorvane::tool::pids(console, {set, true});
    done.pass();
    return out.str().find(line(reused, "lives")) == std::string::npos ? 1 : 0;
  });
  EXPECT_TRUE(test::waits_for_lock(pruner, done));
  const pid_t child = revived(reused);
  flock(fd, LOCK_UN);  // the child has the descriptor, too
  close(fd);
  // Without the right to choose an id, the process stays dead, and is removed.
  const bool lives = child == reused;
  EXPECT_EQ(test::wait_for(pruner), lives ? 0 : 1);
  EXPECT_EQ(count_in(set), lives ? 1U : 0U);
  if (child > 0) {
    kill(child, SIGKILL);
    test::wait_for(child);
  }
}

SCENARIO(prune_without) {
  test::refuse(std::stol(arguments.at(1)), EIO);
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  try {
    quorvane::tool::pids(console, {arguments.at(0), true});
  } catch (const quorvane::tool::Failure& failure) {
    std::printf("%s", failure.what());
    return 2;
  }
  return 0;
}

TEST_F(Pids, FailWithTheReasonIfTheKernelRefuses) {
  const std::string set = set_of({dead_pid()});
  const std::string before = test::read_file(set);
  const std::string named = pid_file(dead_pid());
  const auto refused = [&](const std::string& path, long call) {
    const Ran ran = test::run_scenario("prune_without", {}, {path, std::to_string(call)});
    EXPECT_TRUE(ran.exited_with(2)) << call;
    EXPECT_THAT(ran.out, testing::EndsWith("Input/output error")) << call;
  };
  refused(set, SYS_flock);
  refused(set, SYS_pread64);
  EXPECT_EQ(test::read_file(set), before);
  refused(dir_.path(), SYS_rename);
  EXPECT_TRUE(test::exists(named));
  refused(dir_.path(), SYS_getdents64);
}

// --- pid files ---

TEST_F(Pids, OfADirectoryAreThoseOfItsPidFiles) {
  const Sleeper sleeper;
  const pid_t dead = dead_pid();
  pid_file(sleeper.pid());
  pid_file(dead);
  for (const std::string name : {"qv.", "qv.x", "qv.007", "qv.-5", "qv.99999999999", "xqv.5"}) {
    test::write_file(file(name), "5\n");
  }
  test::write_file(file("qv.12"), "no pid file");
  std::filesystem::create_directory(file("qv.13"));
  std::filesystem::create_symlink("nowhere", file("qv.14"));
  const Ran ran = pids({dir_.path(), "--json"});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(ran.out, HasSubstr(line(sleeper.pid(), "lives")));
  EXPECT_THAT(ran.out, HasSubstr(line(dead, "dead")));
  EXPECT_EQ(std::count(ran.out.begin(), ran.out.end(), '\n'), 2);
}

TEST_F(Pids, OfAPrefixAreThoseWhoseFilesBeginWithIt) {
  const Sleeper sleeper;
  pid_file(sleeper.pid(), "x");
  pid_file(dead_pid());
  const Ran ran = pids({file("x"), "--json"});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_THAT(ran.out, StartsWith("{" + line(sleeper.pid(), "lives")));
}

TEST_F(Pids, OfAFullDiskHaveAnEmptyFile) {
  const Sleeper sleeper;
  test::write_file(file("qv." + sleeper.text()), "");
  EXPECT_THAT(pids({dir_.path(), "--json"}).out, HasSubstr(line(sleeper.pid(), "lives")));
}

void make_older(const std::string& path, std::int64_t seconds) {
  const std::int64_t then = time(nullptr) - seconds;
  const timespec times[2] = {{then, 0}, {then, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(Pids, OfAFileOlderThanItsProcessAreDead) {
  const Sleeper sleeper;
  const std::string path = pid_file(sleeper.pid());
  make_older(path, 3600);
  const Ran ran = pids({dir_.path()});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(ran.out, HasSubstr("dead"));
  EXPECT_THAT(ran.out, HasSubstr("the id is now that of qvutil_pids_test"));
  EXPECT_TRUE(pids({dir_.path(), "--prune"}).exited_with(0));
  EXPECT_THAT(test::names_in(dir_.path()), IsEmpty());
}

SCENARIO(look_at_its_own_pid_file) {
  std::printf("%s", pids({arguments.at(0), "--json"}).out.c_str());
  return 0;
}

TEST_F(Pids, OfFilesThatTheLibraryWroteAreTold) {
  const Ran ran = test::run_scenario("look_at_its_own_pid_file",
                                     {{"QV_PIDFILE_ROOT", dir_.path() + "/"}}, {dir_.path()});
  EXPECT_THAT(ran.out, HasSubstr("\"pid\":" + std::to_string(ran.pid) + ","));
  EXPECT_THAT(ran.out, HasSubstr("\"program\":\"qvutil_pids_test\""));
}

TEST_F(Pids, ThatGetADeadOnesIdBeforeItsFileIsRemovedKeepTheFile) {
  const pid_t reused = dead_pid();
  make_older(pid_file(reused), -3600);  // whenever the process starts
  test::Tracee pruner([&] {
    std::ostringstream out;
    quorvane::tool::Console console(out, out, {});
    quorvane::tool::pids(console, {dir_.path(), true});
  });
  int stop = 0;
  do {
    stop = pruner.resume(PTRACE_SYSCALL);
  } while (stop != 0 && !is_at_call(pruner, SYS_rename));
  ASSERT_EQ(stop, test::Tracee::kAtCall);  // it has taken the process for dead
  const pid_t child = revived(reused);
  while (pruner.resume(PTRACE_CONT) != 0) {
  }
  // Without the right to choose an id, the process stays dead, and its file is removed.
  const bool lives = child == reused;
  EXPECT_EQ(test::names_in(dir_.path()).size(), lives ? 1U : 0U);
  EXPECT_EQ(test::exists(file("qv." + std::to_string(reused))), lives);
  if (child > 0) {
    kill(child, SIGKILL);
    test::wait_for(child);
  }
}

TEST_F(Pids, ThatAreDeadLoseTheirFilesOnlyWhenTold) {
  const Sleeper sleeper;
  const std::string dead = pid_file(dead_pid());
  const std::string living = pid_file(sleeper.pid());
  EXPECT_TRUE(pids({dir_.path()}).exited_with(1));
  EXPECT_TRUE(test::exists(dead));
  EXPECT_TRUE(pids({dir_.path(), "--prune"}).exited_with(0));
  EXPECT_EQ(test::names_in(dir_.path()), std::vector{"qv." + sleeper.text()});
}

}  // namespace
