// Threads log while the file is rotated: by calls, by signals, and by logrotate.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <numeric>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/documents.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

// Runs before each dup3.
std::atomic<void (*)()> g_before_dup3{nullptr};

}  // namespace

extern "C" int dup3(int from, int to, int flags) noexcept {
  if (auto* const hook = g_before_dup3.load()) {
    hook();
  }
  return static_cast<int>(syscall(SYS_dup3, from, to, flags));
}

namespace {

using test::Ran;
using testing::ElementsAre;

constexpr unsigned kHangSeconds = 60;  // after which a scenario counts as hung
constexpr int kThreads = 8;
constexpr int kTurns = 20;
constexpr int kMostRecordsPerTurn = 50;  // of each thread

std::string log_path() { return getenv("QV_LOG_FILE"); }

// ------------------------------------------------------------- threads that log

std::string message_of(int thread, int number) {
  return std::to_string(thread) + ":" + std::to_string(number) + ":" +
         std::string(static_cast<std::size_t>(number * 37 % 400), static_cast<char>('a' + thread));
}

class Writers {
 public:
  Writers() {
    for (int thread = 0; thread < kThreads; ++thread) {
      threads_.emplace_back([this, thread] { write(thread); });
    }
  }
  ~Writers() {
    stop_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    for (const int written : written_) {
      std::cout << written << " ";
    }
  }
  Writers(const Writers&) = delete;
  Writers& operator=(const Writers&) = delete;

  // Returns while the threads write, once each of them has begun and ended a record.
  void let_all_write() {
    let_write();
    for (const std::atomic<int>& left : left_) {
      while (left > kMostRecordsPerTurn - 2) {
        std::this_thread::yield();
      }
    }
  }

  // Returns once some of the threads have. One of them may be this thread.
  void let_some_write() {
    let_write();
    while (std::accumulate(left_.begin(), left_.end(), 0) > kThreads * (kMostRecordsPerTurn - 2)) {
      std::this_thread::yield();
    }
  }

 private:
  void let_write() {
    for (std::atomic<int>& left : left_) {
      left = kMostRecordsPerTurn;
    }
  }

  void write(int thread) {
    const auto index = static_cast<std::size_t>(thread);
    while (!stop_) {
      if (left_[index] > 0) {
        QV_LOG(module_, INFO, "%s", message_of(thread, written_[index]++).c_str());
        --left_[index];
      } else {
        std::this_thread::yield();
      }
    }
  }

  quorvane::Module module_{"test/rotation"};
  std::atomic<bool> stop_{false};
  std::array<std::atomic<int>, kThreads> left_{};
  std::array<int, kThreads> written_{};  // each element is one thread's until it has ended
  std::vector<std::thread> threads_;
};

Writers* g_writers = nullptr;
std::atomic<int> g_reopened{0};
std::atomic<int> g_refused{0};

void reopen(int) {
  const int caller_errno = errno;
  g_refused += qv_log_reopen() == 0 ? 0 : 1;
  ++g_reopened;
  errno = caller_errno;
}

void handle_hangups() {
  struct sigaction action {};
  action.sa_handler = &reopen;
  sigaction(SIGHUP, &action, nullptr);
}

void wait_until_reopened(int times) {
  while (g_reopened < times) {
    std::this_thread::yield();
  }
}

// Blocks the signal in this thread, so that one of those that log gets it.
void leave_hangups_to_other_threads() {
  sigset_t hangup;
  sigemptyset(&hangup);
  sigaddset(&hangup, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &hangup, nullptr);
}

// Prints how many records each thread has logged.
SCENARIO(rotates_beside_threads) {
  const bool by_signal = arguments.at(0) == "signal";
  alarm(kHangSeconds);
  handle_hangups();
  {
    Writers writers;
    g_writers = &writers;
    g_before_dup3 = [] { g_writers->let_some_write(); };
    leave_hangups_to_other_threads();
    for (int turn = 1; turn <= kTurns; ++turn) {
      writers.let_all_write();
      std::filesystem::rename(log_path(), log_path() + "." + std::to_string(turn));
      if (by_signal) {
        kill(getpid(), SIGHUP);
        wait_until_reopened(turn);
      } else {
        reopen(0);
      }
    }
    writers.let_all_write();
  }
  return g_refused;
}

// Expects the records of each thread whole and in order, from the oldest file to the newest.
void expect_all(const std::string& log, const std::string& counts) {
  std::array<int, kThreads> next{};
  for (int turn = 1; turn <= kTurns + 1; ++turn) {
    const std::string file = turn <= kTurns ? log + "." + std::to_string(turn) : log;
    const auto records = test::parse_records(test::read_file(file));
    EXPECT_GE(records.size(), static_cast<std::size_t>(kThreads)) << file;
    for (const test::LogRecord& record : records) {
      const int thread = std::stoi(record.message);
      ASSERT_EQ(record.message, message_of(thread, next.at(static_cast<std::size_t>(thread))++));
    }
  }
  std::ostringstream seen;
  for (const int number : next) {
    seen << number << " ";
  }
  EXPECT_EQ(seen.str(), counts);
}

class Rotation : public testing::TestWithParam<const char*> {};

TEST_P(Rotation, BesideEightThreadsLeavesEveryRecordWholeInOneFile) {
  const test::TempDir dir;
  const Ran ran = test::run_scenario("rotates_beside_threads", {{"QV_LOG_FILE", dir.file("log")}},
                                     {GetParam()});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  expect_all(dir.file("log"), ran.out);
}

INSTANTIATE_TEST_SUITE_P(By, Rotation, testing::Values("call", "signal"),
                         [](const auto& row) { return std::string(row.param); });

// ------------------------------------------------------------------- logrotate

// The guide's block of logrotate's configuration that contains `word`, for this log.
std::string configuration_with(const std::string& word, const std::string& log,
                               const std::string& pid_file) {
  const std::string guide = test::read_file(QV_SOURCE_DIR "/docs/guide.md");
  const std::regex block("```conf\n([^`]*" + word + "[^`]*)```\n");
  std::smatch found;
  if (!std::regex_search(guide, found, block)) {
    return "";
  }
  const std::string here =
      std::regex_replace(found[1].str(), std::regex("/var/log/reader.log"), log);
  return std::regex_replace(here, std::regex("/run/reader.pid"), pid_file);
}

// Logs, has logrotate rotate the log with the configuration that is its argument, and logs again.
SCENARIO(is_rotated_by_logrotate) {
  alarm(kHangSeconds);
  const quorvane::Module module("test/rotation");
  const bool reopens = arguments.at(1) == "reopens";
  handle_hangups();
  test::write_file(log_path() + ".pid", std::to_string(getpid()) + "\n");
  QV_LOG(module, INFO, "before");
  const std::string command = "PATH=$PATH:/usr/sbin logrotate --force --state '" + log_path() +
                              ".state' '" + arguments.at(0) + "'";
  if (std::system(command.c_str()) != 0) {
    return 1;
  }
  wait_until_reopened(reopens ? 1 : 0);
  QV_LOG(module, INFO, "after");
  return g_reopened == (reopens ? 1 : 0) ? g_refused.load() : 1;
}

class Logrotate : public testing::Test {
 protected:
  void rotate(const std::string& word, const std::string& outcome) {
    const std::string configuration = dir_.file("configuration");
    test::write_file(configuration, configuration_with(word, log_, log_ + ".pid"));
    chmod(configuration.c_str(), 0644);
    const Ran ran = test::run_scenario("is_rotated_by_logrotate", {{"QV_LOG_FILE", log_}},
                                       {configuration, outcome});
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    EXPECT_EQ(ran.err, "");
    EXPECT_THAT(ran.messages(), ElementsAre("INFO after"));
    EXPECT_THAT(test::level_and_message(test::parse_records(test::read_file(log_ + ".1"))),
                ElementsAre("INFO before"));
  }

  test::TempDir dir_;
  std::string log_ = dir_.file("log");
};

TEST_F(Logrotate, RotatesTheLogOfAProgramThatReopensItOnASignal) {
  rotate("postrotate", "reopens");
}

TEST_F(Logrotate, CopiesAndTruncatesTheLogOfAnyProgram) { rotate("copytruncate", "goes on"); }

}  // namespace
