// The records and the pauses of a wait for a store lock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "src/cache/lock_wait.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using quorvane::cache::LockWait;
using test::TempDir;
using namespace std::chrono_literals;

namespace {

const std::string kPath = "lock_maps";

std::string waiting(const std::string& rest) {
  return "WARN Waiting for cache store lock lock_maps for " + rest;
}

}  // namespace

// Arguments: the holder of the lock, and the number of records to wait for.
SCENARIO(wait_for_records) {
  const pid_t holder = std::stoi(arguments.at(0));
  int asked = 0;
  LockWait wait(kPath, 10ms, 1000ms);
  while (asked < std::stoi(arguments.at(1))) {
    wait.pause([&] {
      ++asked;
      return holder;
    });
  }
  return 0;
}

TEST(LockWait, LogsTheLockTheTimeAndTheHolderAndAgainLater) {
  EXPECT_EQ(test::run_scenario("wait_for_records", {}, {"1234", "2"}).messages(),
            (std::vector<std::string>{waiting("0 s, held by process 1234"),
                                      waiting("1 s, held by process 1234")}));
}

TEST(LockWait, LogsNoHolderWhereNobodyKnowsIt) {
  EXPECT_EQ(test::run_scenario("wait_for_records", {}, {"0", "1"}).messages(),
            std::vector<std::string>{waiting("0 s")});
}

SCENARIO(short_wait) {
  LockWait wait(kPath);
  for (int i = 0; i < 20; ++i) {
    wait.pause([] { return 1; });
  }
  return 0;
}

TEST(LockWait, LogsNothingOfAShortWait) {
  const auto ran = test::run_scenario("short_wait");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_TRUE(ran.messages().empty());
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
