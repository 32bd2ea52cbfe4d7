// The records of a wait for a lock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "src/cache/lock_watch.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using quorvane::cache::LockWatch;
using test::TempDir;
using namespace std::chrono_literals;

namespace {

// Waits until the log of this scenario has so many records.
void await_records(std::size_t count) {
  std::size_t lines = 0;
  while (lines < count) {
    lines = 0;
    std::ifstream log(getenv("QV_LOG_FILE"));
    for (std::string line; std::getline(log, line);) {
      ++lines;
    }
    std::this_thread::yield();
  }
}

}  // namespace

SCENARIO(watched_wait) {
  const std::string path = "lock_maps";
  const pid_t holder = std::stoi(arguments.at(0));
  const LockWatch watch(
      path, [holder] { return holder; }, 1ms, 1000ms);
  await_records(2);
  return 0;
}

TEST(LockWatch, LogsTheLockTheWaitAndTheHolderAgainAndAgain) {
  const auto ran = test::run_scenario("watched_wait", {}, {"1234"});
  const auto messages = ran.messages();
  ASSERT_GE(messages.size(), 2u);
  EXPECT_EQ(messages[0],
            "WARN Waiting for cache store lock lock_maps for 0 s, held by process 1234");
  EXPECT_EQ(messages[1],
            "WARN Waiting for cache store lock lock_maps for 1 s, held by process 1234");
}

TEST(LockWatch, LogsNoHolderWhereTheKernelTellsNone) {
  const auto ran = test::run_scenario("watched_wait", {}, {"0"});
  ASSERT_FALSE(ran.messages().empty());
  EXPECT_EQ(ran.messages()[0], "WARN Waiting for cache store lock lock_maps for 0 s");
}

SCENARIO(short_wait) {
  const std::string path = "lock_maps";
  for (int i = 0; i < 100; ++i) {
    const LockWatch watch(path, [] { return 1; });
  }
  return 0;
}

TEST(LockWatch, OfAShortWaitLogsNothingAndEndsAtOnce) {
  const auto ran = test::run_scenario("short_wait");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_TRUE(ran.messages().empty());
}

// The signals that a thread of this process blocks, as /proc tells them.
unsigned long blocked_by(const std::string& tid) {
  std::ifstream status("/proc/self/task/" + tid + "/status");
  std::string word;
  while (status >> word && word != "SigBlk:") {
  }
  unsigned long mask = 0;
  status >> std::hex >> mask;
  return mask;
}

// The program's signals are handled by its own threads.
SCENARIO(signals_beside_a_watch) {
  const std::string path = "lock_maps";
  const LockWatch watch(path, [] { return 1; });
  const std::string self = std::to_string(gettid());
  constexpr unsigned long kUsr1 = 1UL << (SIGUSR1 - 1);
  int threads = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string tid = task.path().filename();
    threads += tid != self && (blocked_by(tid) & kUsr1) != 0;
  }
  return threads > 0 && (blocked_by(self) & kUsr1) == 0 ? 0 : 1;
}

TEST(LockWatch, TakesNoSignalOfTheProgram) {
  EXPECT_TRUE(test::run_scenario("signals_beside_a_watch").exited_with(0));
}

TEST(FlockHolder, IsTheProcessThatHoldsTheLockAndNobodyOtherwise) {
  const TempDir dir;
  const int fd = open(dir.file("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  struct stat status;
  ASSERT_EQ(fstat(fd, &status), 0);
  const auto file = quorvane::descriptor::id_of(status);
  EXPECT_EQ(quorvane::cache::flock_holder(file), 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  EXPECT_EQ(quorvane::cache::flock_holder(file), getpid());
  EXPECT_EQ(quorvane::cache::flock_holder({file.device, file.inode + 1}), 0);
  close(fd);
}
