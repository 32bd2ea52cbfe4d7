// How records reach their descriptors: failing and interrupted writes, and many writers.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log_test/fixture.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/thread_state.h"

namespace {

// Replaces this thread's writes, unless null.
thread_local std::function<ssize_t(int, const void*, size_t)>* t_fake_write = nullptr;

}  // namespace

// ThreadSanitizer delivers signals only in calls that it knows may block.
extern "C" __attribute__((weak)) ssize_t __interceptor_write(int fd, const void* bytes,
                                                             size_t size);

extern "C" ssize_t write(int fd, const void* bytes, size_t size) {
  if (t_fake_write != nullptr) {
    return (*t_fake_write)(fd, bytes, size);
  }
  return __interceptor_write != nullptr ? __interceptor_write(fd, bytes, size)
                                        : syscall(SYS_write, fd, bytes, size);
}

namespace {

using log_test::kRecordSize;
using log_test::level_of;
using log_test::log_to;
using log_test::Writes;
using quorvane::logging::LoggingModuleData;
using test::parse_records;
using test::Ran;
using test::run_scenario;
using testing::ElementsAre;
using testing::IsEmpty;

class FakeWrite {
 public:
  explicit FakeWrite(std::function<ssize_t(int, const void*, size_t)> function)
      : function_(std::move(function)) {
    t_fake_write = &function_;
  }
  ~FakeWrite() { t_fake_write = nullptr; }
  FakeWrite(const FakeWrite&) = delete;
  FakeWrite& operator=(const FakeWrite&) = delete;

 private:
  std::function<ssize_t(int, const void*, size_t)> function_;
};

TEST(LogRecord, IsNotFilteredByTheOutletsLevel) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_OFF};
  log_to(outlet, QV_LOG_LEVEL_ALL, "x");
  EXPECT_EQ(file.take().size(), 1U);
}

TEST(LogRecord, ErrorAndOffGoToBothDescriptorsInOneWriteEach) {
  for (int value = -1; value <= 7; ++value) {
    Writes file;
    Writes error;
    LoggingModuleData outlet{file.fd(), error.fd(), QV_LOG_LEVEL_ALL};
    log_to(outlet, level_of(value), "level %d", value);
    const std::vector<std::string> in_file = file.take();
    EXPECT_EQ(in_file.size(), 1U);
    EXPECT_EQ(error.take(), value == 0 || value == 1 ? in_file : std::vector<std::string>{});
  }
}

TEST(LogRecord, TheFileIsWrittenBeforeTheErrorDescriptor) {
  std::vector<int> order;
  LoggingModuleData outlet{71, 72, QV_LOG_LEVEL_ALL};
  const FakeWrite write([&](int fd, const void*, size_t size) {
    order.push_back(fd);
    return static_cast<ssize_t>(size);
  });
  log_to(outlet, QV_LOG_LEVEL_ERROR, "x");
  EXPECT_THAT(order, ElementsAre(71, 72));
}

TEST(LogRecord, OneDescriptorForBothGetsTheRecordTwice) {
  Writes file;
  LoggingModuleData outlet{file.fd(), file.fd(), QV_LOG_LEVEL_ALL};
  log_to(outlet, QV_LOG_LEVEL_ERROR, "x");
  const std::vector<std::string> writes = file.take();
  ASSERT_EQ(writes.size(), 2U);
  EXPECT_EQ(writes[0], writes[1]);
}

TEST(LogRecord, DescriptorZeroIsSkippedAndMinusOneIsTried) {
  std::vector<int> tried;
  const FakeWrite write([&](int fd, const void*, size_t) -> ssize_t {
    tried.push_back(fd);
    errno = EBADF;
    return -1;
  });
  LoggingModuleData zero{0, 0, QV_LOG_LEVEL_ALL};
  log_to(zero, QV_LOG_LEVEL_ERROR, "x");
  EXPECT_THAT(tried, IsEmpty());
  LoggingModuleData none{-1, -1, QV_LOG_LEVEL_ALL};
  log_to(none, QV_LOG_LEVEL_ERROR, "x");
  EXPECT_THAT(tried, ElementsAre(-1, -1));
}

TEST(LogRecord, AnInterruptedWriteIsRetriedOnTheDescriptorThatStandsThere) {
  std::vector<int> tried;
  LoggingModuleData outlet{71, 72, QV_LOG_LEVEL_ALL};
  const FakeWrite write([&](int fd, const void*, size_t size) -> ssize_t {
    tried.push_back(fd);
    if (tried.size() % 3 != 0) {
      outlet.fd += 10;
      outlet.error_fd += 100;
      errno = EINTR;
      return -1;
    }
    return static_cast<ssize_t>(size);
  });
  log_to(outlet, QV_LOG_LEVEL_ERROR, "x");
  EXPECT_THAT(tried, ElementsAre(71, 81, 91, 272, 372, 472));
}

class Dropped : public testing::TestWithParam<int> {};

TEST_P(Dropped, RecordIsTriedOnceAndTheCallersErrnoStays) {
  int tries = 0;
  const FakeWrite write([&](int, const void*, size_t) -> ssize_t {
    ++tries;
    errno = GetParam();
    return -1;
  });
  LoggingModuleData outlet{71, 72, QV_LOG_LEVEL_ALL};
  errno = ENOTTY;
  log_to(outlet, QV_LOG_LEVEL_ERROR, "x");
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(tries, 2);
}

INSTANTIATE_TEST_SUITE_P(Errors, Dropped,
                         testing::Values(EAGAIN, EBADF, EFBIG, EIO, ENOSPC, EPIPE, EDQUOT));

TEST(LogRecord, APartialWriteIsNotContinued) {
  int tries = 0;
  LoggingModuleData outlet{71, 0, QV_LOG_LEVEL_ALL};
  const FakeWrite write([&](int, const void*, size_t size) {
    ++tries;
    return static_cast<ssize_t>(size / 2);
  });
  log_to(outlet, QV_LOG_LEVEL_INFO, "x");
  EXPECT_EQ(tries, 1);
}

TEST(LogRecord, AFullDiskDropsTheRecordAndTheErrorDescriptorStillGetsIt) {
  const int full = open("/dev/full", O_WRONLY);
  ASSERT_GE(full, 0);
  Writes error;
  LoggingModuleData outlet{full, error.fd(), QV_LOG_LEVEL_ALL};
  log_to(outlet, QV_LOG_LEVEL_ERROR, "x");
  EXPECT_EQ(error.take().size(), 1U);
  close(full);
}

// ------------------------------------------------------- records and signals

std::atomic<int> g_interruptions{0};

void interrupted(int) { g_interruptions.fetch_add(1); }

// Fills the pipe to its last byte, then makes it block.
void fill(int fd) {
  fcntl(fd, F_SETFL, O_NONBLOCK);
  const std::string block(kRecordSize, 'x');
  while (write(fd, block.data(), block.size()) > 0) {
  }
  while (write(fd, "x", 1) > 0) {
  }
  fcntl(fd, F_SETFL, 0);
}

std::string drain(int fd) {
  std::string all;
  std::array<char, 65536> bytes;
  ssize_t size;
  while ((size = read(fd, bytes.data(), bytes.size())) > 0) {
    all.append(bytes.data(), static_cast<std::size_t>(size));
  }
  return all;
}

SCENARIO(is_interrupted_while_it_waits_for_a_full_pipe) {
  struct sigaction action {};
  action.sa_handler = &interrupted;  // without SA_RESTART
  sigaction(SIGUSR1, &action, nullptr);
  std::array<int, 2> ends;
  if (pipe(ends.data()) != 0) {
    return 1;
  }
  fill(ends[1]);
  std::atomic<pid_t> tid{0};
  std::thread writer([&] {
    LoggingModuleData outlet{ends[1], 0, QV_LOG_LEVEL_ALL};
    tid = gettid();
    log_to(outlet, QV_LOG_LEVEL_INFO, "patience");
    close(ends[1]);
  });
  while (tid == 0) {
    std::this_thread::yield();
  }
  for (int i = 0; i < 5; ++i) {
    while (!test::is_asleep(tid)) {
      std::this_thread::yield();
    }
    pthread_kill(writer.native_handle(), SIGUSR1);
    while (g_interruptions == i) {
      std::this_thread::yield();
    }
  }
  const std::string all = drain(ends[0]);
  writer.join();
  std::cout << all.substr(all.find('['));
  return 0;
}

TEST(LogRecord, AWriterThatSignalsInterruptStillWritesItsRecordOnce) {
  const Ran ran = run_scenario("is_interrupted_while_it_waits_for_a_full_pipe");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(test::level_and_message(parse_records(ran.out)), ElementsAre("INFO patience"));
}

// ---------------------------------------------- records of threads, processes

std::string message_of(int writer, int number) {
  return std::to_string(writer) + ":" + std::to_string(number) + ":" +
         std::string(static_cast<std::size_t>(number * 37 % 400), static_cast<char>('a' + writer));
}

void write_many(const void* module, int writer, int count) {
  for (int number = 0; number < count; ++number) {
    qv_log_do(const_cast<void*>(module), QV_LOG_LEVEL_INFO, 0, "%s",
              message_of(writer, number).c_str());
  }
}

// Expects all messages whole, and those of each writer in order.
void expect_all(const Ran& ran, int writers, int count) {
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.records.size(), static_cast<std::size_t>(writers * count));
  std::map<int, int> next;
  for (const test::LogRecord& record : ran.records) {
    const int writer = std::stoi(record.message);
    ASSERT_EQ(record.message, message_of(writer, next[writer]++));
  }
  EXPECT_EQ(next.size(), static_cast<std::size_t>(writers));
}

constexpr int kWriters = 4;
constexpr int kMessages = 5000;

SCENARIO(logs_from_processes) {
  void* module = qv_module_create();
  std::vector<pid_t> children;
  for (int writer = 0; writer < kWriters; ++writer) {
    children.push_back(test::in_child([=] {
      write_many(module, writer, kMessages);
      return 0;
    }));
  }
  int failed = 0;
  for (const pid_t child : children) {
    failed += test::wait_for(child) == 0 ? 0 : 1;
  }
  qv_module_commit(module);
  return failed;
}

TEST(LogRecord, FourProcessesTearNoLine) {
  expect_all(run_scenario("logs_from_processes"), kWriters, kMessages);
}

SCENARIO(logs_from_threads) {
  void* module = qv_module_create();
  std::vector<std::thread> threads;
  for (int writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back(&write_many, module, writer, kMessages);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  qv_module_commit(module);
  return 0;
}

TEST(LogRecord, FourThreadsTearNoLine) {
  expect_all(run_scenario("logs_from_threads"), kWriters, kMessages);
}

}  // namespace
