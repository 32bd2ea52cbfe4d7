#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

// What the library gets from the kernel, as long as a test puts itself between.
thread_local const timeval* t_fake_time = nullptr;
thread_local int t_time_calls = 0;
thread_local std::function<ssize_t(int, const void*, size_t)>* t_fake_write = nullptr;

const char* g_fake_host = nullptr;

std::atomic<long> g_allocations{0};

}  // namespace

extern "C" int gettimeofday(timeval* __restrict now, void* __restrict zone) noexcept {
  ++t_time_calls;
  errno = EOVERFLOW;  // as any call may leave it, and a record may not
  if (t_fake_time != nullptr) {
    *now = *t_fake_time;
    return 0;
  }
  return static_cast<int>(syscall(SYS_gettimeofday, now, zone));
}

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

// A race detector lets signals through only in calls that it knows to block.
extern "C" __attribute__((weak)) ssize_t __interceptor_write(int fd, const void* bytes,
                                                             size_t size);

extern "C" ssize_t write(int fd, const void* bytes, size_t size) {
  if (t_fake_write != nullptr) {
    return (*t_fake_write)(fd, bytes, size);
  }
  return __interceptor_write != nullptr ? __interceptor_write(fd, bytes, size)
                                        : syscall(SYS_write, fd, bytes, size);
}

// Not inlined: the compiler would see a new freed by free.
__attribute__((noinline)) void* operator new(std::size_t size) {
  g_allocations.fetch_add(1);
  if (void* memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

using quorvane::logging::get_default_log_path;
using quorvane::logging::get_singleton_outlet;
using quorvane::logging::level_to_string;
using quorvane::logging::LoggingModuleData;
using quorvane::logging::logv_do;
using quorvane::logging::parse_level_string;
using test::parse_record;
using test::parse_records;
using test::Ran;
using test::read_file;
using test::run_scenario;
using test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr std::size_t kRecordSize = 4096;

const std::vector<std::string> kNames{"OFF", "ERROR", "WARN", "INFO", "TRACE", "DEBUG", "ALL"};

qv_log_level_t level_of(int value) { return static_cast<qv_log_level_t>(value); }

pid_t thread_id() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void log_to(LoggingModuleData& outlet, qv_log_level_t level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

void log_to(LoggingModuleData& outlet, qv_log_level_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  logv_do(outlet, level, format, args);
  va_end(args);
}

// A descriptor that keeps every write apart, so that a record in two writes
// shows.
class Writes {
 public:
  Writes() {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_.data()) != 0) {
      throw std::runtime_error("socketpair");
    }
  }
  ~Writes() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Writes(const Writes&) = delete;
  Writes& operator=(const Writes&) = delete;

  int fd() const { return ends_[0]; }

  // The bytes of each write so far.
  std::vector<std::string> take() {
    std::vector<std::string> writes;
    std::array<char, 2 * kRecordSize> bytes;
    ssize_t size;
    while ((size = recv(ends_[1], bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
      writes.emplace_back(bytes.data(), static_cast<std::size_t>(size));
    }
    return writes;
  }

  std::string take_one() {
    const std::vector<std::string> writes = take();
    EXPECT_EQ(writes.size(), 1U);
    return writes.empty() ? "" : writes.front();
  }

 private:
  std::array<int, 2> ends_{};
};

class FakeTime {
 public:
  FakeTime(time_t second, suseconds_t microsecond) : time_{second, microsecond} {
    t_fake_time = &time_;
  }
  ~FakeTime() { t_fake_time = nullptr; }
  FakeTime(const FakeTime&) = delete;
  FakeTime& operator=(const FakeTime&) = delete;

 private:
  timeval time_;
};

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

// ----------------------------------------------------------------- levels

TEST(LogLevel, TraceSortsBelowDebug) {
  EXPECT_EQ(QV_LOG_LEVEL_TRACE, 4);
  EXPECT_EQ(QV_LOG_LEVEL_DEBUG, 5);
  EXPECT_EQ(sizeof(qv_log_level_t), 4U);
}

TEST(LogLevel, EveryLevelHasItsName) {
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    EXPECT_EQ(level_to_string(level_of(static_cast<int>(i))), kNames[i]);
  }
}

TEST(LogLevel, ValuesOutsideTheTableAreUnknown) {
  EXPECT_EQ(level_to_string(level_of(7)), "UNKNOWN");
  EXPECT_EQ(level_to_string(level_of(-1)), "UNKNOWN");
  EXPECT_EQ(level_to_string(level_of(INT_MAX)), "UNKNOWN");
  EXPECT_EQ(level_to_string(level_of(INT_MIN)), "UNKNOWN");
}

TEST(LogLevel, NamesAreTheSameStringsEveryTime) {
  EXPECT_EQ(&level_to_string(QV_LOG_LEVEL_WARN), &level_to_string(QV_LOG_LEVEL_WARN));
  EXPECT_EQ(&level_to_string(level_of(7)), &level_to_string(level_of(8)));
}

TEST(LogLevel, EveryNameIsParsed) {
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    qv_log_level_t level = level_of(7);
    EXPECT_TRUE(parse_level_string(kNames[i].c_str(), level));
    EXPECT_EQ(level, level_of(static_cast<int>(i)));
  }
}

TEST(LogLevel, OtherTextsAreRejectedAndLeaveTheOutputAlone) {
  for (const char* text :
       {"", "Info", "info", "WARNING", "UNKNOWN", " INFO", "INFO ", "ERR", "3", "trace"}) {
    qv_log_level_t level = level_of(7);
    EXPECT_FALSE(parse_level_string(text, level)) << text;
    EXPECT_EQ(level, level_of(7));
  }
}

TEST(LogLevel, ParsingNullThrowsLogicError) {
  qv_log_level_t level = QV_LOG_LEVEL_INFO;
  EXPECT_THROW(parse_level_string(nullptr, level), std::logic_error);
}

// ----------------------------------------------------------------- records

TEST(LogRecord, HasLevelTimeIdsAndQuotedMessage) {
  Writes file;
  LoggingModuleData outlet{file.fd(), -1, QV_LOG_LEVEL_ALL};
  const FakeTime time(1709294400, 42);  // noon of 1 March 2024
  log_to(outlet, QV_LOG_LEVEL_WARN, "%s is %d", "seven", 7);
  EXPECT_EQ(file.take_one(), "[ WARN] 2024-03-01T12:00:00.000042Z, " + std::to_string(getpid()) +
                                 ", " + std::to_string(thread_id()) + ", \"seven is 7\"\n");
}

TEST(LogRecord, LevelIsRightAlignedInFiveColumns) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  const std::vector<std::string> prefixes{"[  OFF] ", "[ERROR] ", "[ WARN] ", "[ INFO] ",
                                          "[TRACE] ", "[DEBUG] ", "[  ALL] ", "[UNKNOWN] "};
  for (std::size_t i = 0; i < prefixes.size(); ++i) {
    log_to(outlet, level_of(static_cast<int>(i)), "x");
    EXPECT_EQ(file.take_one().substr(0, prefixes[i].size()), prefixes[i]);
  }
  log_to(outlet, level_of(-1), "x");
  EXPECT_EQ(file.take_one().substr(0, 10), "[UNKNOWN] ");
}

TEST(LogRecord, MicrosecondsAreAlwaysSixDigits) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  for (const auto& [microsecond, text] : std::map<suseconds_t, std::string>{{0, ".000000Z"},
                                                                            {1, ".000001Z"},
                                                                            {99, ".000099Z"},
                                                                            {100000, ".100000Z"},
                                                                            {123456, ".123456Z"},
                                                                            {999999, ".999999Z"}}) {
    const FakeTime time(1709294400, microsecond);
    log_to(outlet, QV_LOG_LEVEL_INFO, "x");
    EXPECT_EQ(file.take_one().substr(27, 8), text);
  }
}

std::vector<time_t> instants() {
  std::vector<time_t> all{0,  1,      59,         60,         86399,     86400,
                          -1, -86401, 2147483647, 2147483648, 4294967296};
  // The turns of days around every March and every New Year, leap years and not.
  for (time_t year = 0; year < 240; ++year) {
    const time_t new_year = (year * 365 + (year + 1) / 4) * 86400;
    for (time_t day : {0, 58, 59, 60, 364, 365}) {
      all.push_back(new_year + day * 86400 - 1);
      all.push_back(new_year + day * 86400);
    }
  }
  std::mt19937_64 random(20240301);
  std::uniform_int_distribution<time_t> any(-2208988800, 32503680000);  // 1900 to 3000
  for (int i = 0; i < 5000; ++i) {
    all.push_back(any(random));
  }
  return all;
}

TEST(LogRecord, DateIsWhatGmtimeGivesAtManyInstants) {
  setenv("TZ", "Asia/Kolkata", 1);
  tzset();
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  for (const time_t instant : instants()) {
    const FakeTime time(instant, 5);
    log_to(outlet, QV_LOG_LEVEL_INFO, "x");
    tm parts;
    gmtime_r(&instant, &parts);
    std::array<char, 64> expected;
    strftime(expected.data(), expected.size(), "[ INFO] %Y-%m-%dT%H:%M:%S.000005Z, ", &parts);
    const std::string record = file.take_one();
    ASSERT_EQ(record.substr(0, std::string(expected.data()).size()), expected.data()) << instant;
  }
  unsetenv("TZ");
  tzset();
}

TEST(LogRecord, AThreadsFirstMayFallIntoTheSecondBeforeTheEpoch) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  std::thread([&] {
    const FakeTime time(-1, 5);
    log_to(outlet, QV_LOG_LEVEL_INFO, "x");
  }).join();
  EXPECT_EQ(file.take_one().substr(8, 28), "1969-12-31T23:59:59.000005Z,");
}

TEST(LogRecord, TimeLiesBetweenTwoReadingsOfTheClock) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  const auto text_of_now = [] {
    timeval now;
    gettimeofday(&now, nullptr);
    tm parts;
    gmtime_r(&now.tv_sec, &parts);
    std::array<char, 64> date;
    strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S.", &parts);
    std::array<char, 16> rest;
    std::snprintf(rest.data(), rest.size(), "%06ldZ", now.tv_usec % 1000000);
    return std::string(date.data()) + rest.data();
  };
  for (int i = 0; i < 100; ++i) {
    const std::string before = text_of_now();
    log_to(outlet, QV_LOG_LEVEL_INFO, "x");
    const std::string after = text_of_now();
    const auto record = parse_record(file.take_one());
    ASSERT_TRUE(record);
    EXPECT_LE(before, record->time);
    EXPECT_LE(record->time, after);
  }
}

TEST(LogRecord, ReadsTheClockOnce) {
  Writes file;
  LoggingModuleData outlet{file.fd(), file.fd(), QV_LOG_LEVEL_ALL};
  const int before = t_time_calls;
  log_to(outlet, QV_LOG_LEVEL_ERROR, "x");
  EXPECT_EQ(t_time_calls - before, 1);
}

TEST(LogRecord, CarriesTheIdOfTheThreadThatLogs) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  std::set<int> seen;
  for (int i = 0; i < 8; ++i) {
    pid_t tid = 0;
    std::thread([&] {
      tid = thread_id();
      log_to(outlet, QV_LOG_LEVEL_INFO, "x");
    }).join();
    const auto record = parse_record(file.take_one());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->tid, tid);
    EXPECT_EQ(record->pid, getpid());
    EXPECT_NE(record->tid, record->pid);
  }
}

TEST(LogRecord, MessageAtTheEndOfTheBufferIsCutAndTheLineStaysWhole) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  log_to(outlet, QV_LOG_LEVEL_INFO, "%s", "");
  const std::string empty = file.take_one();
  const std::string head = empty.substr(0, empty.size() - 2);
  const std::size_t room = kRecordSize - empty.size();
  for (const std::size_t size : {room - 2, room - 1, room, room + 1, room + 2, room + 3,
                                 kRecordSize, 2 * kRecordSize, 100 * kRecordSize}) {
    std::string message;
    for (std::size_t i = 0; i < size; ++i) {
      message.push_back(static_cast<char>('a' + i % 26));
    }
    log_to(outlet, QV_LOG_LEVEL_INFO, "%s", message.c_str());
    const std::string record = file.take_one();
    EXPECT_EQ(record.size(), std::min(head.size() + size + 2, kRecordSize));
    EXPECT_EQ(record.substr(head.size()), message.substr(0, room) + "\"\n");
  }
}

TEST(LogRecord, AnEmptyMessageIsARecord) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  log_to(outlet, QV_LOG_LEVEL_INFO, "%s", "");
  const auto record = parse_record(file.take_one());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->message, "");
}

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

TEST(LogRecord, KeepsErrnoOnSuccess) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  errno = ENOENT;
  log_to(outlet, QV_LOG_LEVEL_INFO, "x");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(file.take().size(), 1U);
}

TEST(LogRecord, MayQuoteTheCallersErrno) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  const std::string format = "%m, %d times";  // a literal would have to be ISO C++
  const auto check = [&] {
    errno = ENOENT;
    log_to(outlet, QV_LOG_LEVEL_INFO, format.c_str(), 3);
    EXPECT_EQ(errno, ENOENT);
    const auto record = parse_record(file.take_one());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->message, "No such file or directory, 3 times");
  };
  check();
  std::thread(check).join();
}

// The message of a record whose text ends where `format` can't be followed any further.
template <typename... Arguments>
std::string cut_message(const std::string& format, Arguments... arguments) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  log_to(outlet, QV_LOG_LEVEL_INFO, format.c_str(), arguments...);
  const auto record = parse_record(file.take_one());
  EXPECT_TRUE(record);
  return record ? record->message : "no record";
}

TEST(LogRecord, AMessageThatCannotBeConvertedIsCutThere) {
  // No character of the C locale.
  EXPECT_EQ(cut_message("%ls", L"\x20ac"), "");
  EXPECT_EQ(cut_message("%d of %s: %ls, %d", 7, "all", L"\x20ac", 8), "7 of all: ");
}

// vsnprintf refuses a width above INT_MAX where it comes to it. A text that grows beyond
// INT_MAX ends in the same way, but takes half a minute.
TEST(LogRecord, AMessageOfMoreThanIntMaxBytesIsCutBeforeWhatIsTooMuch) {
  EXPECT_EQ(cut_message("%s: %2147483648d.", "wide", 1), "wide: ");
  const std::string fills(2 * kRecordSize, 'f');
  EXPECT_EQ(cut_message("%s%2147483648d.", fills.c_str(), 1), cut_message("%s", fills.c_str()));
}

TEST(LogRecord, AllocatesNothingNotEvenAThreadsFirst) {
  Writes file;
  LoggingModuleData outlet{file.fd(), 0, QV_LOG_LEVEL_ALL};
  const auto heap = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  const auto check = [&] {
    const long allocations = g_allocations.load();
    const std::size_t before = heap();
    log_to(outlet, QV_LOG_LEVEL_INFO, "%s %d", "text", 7);
    const std::size_t after = heap();
    EXPECT_EQ(g_allocations.load(), allocations);
    EXPECT_EQ(after, before);
  };
  std::thread(check).join();
  check();
  EXPECT_EQ(file.take().size(), 2U);
}

// What a thread keeps for its records would otherwise be allocated by its first one.
TEST(LogRecord, AllocatesNothingInALibraryThatWasLoadedLater) {
  const Ran ran = test::run_program(QV_LOG_LOADER, {QV_LIBRARY});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "0 0");
  EXPECT_EQ(ran.messages(), (std::vector<std::string>{"INFO a record", "INFO a record"}));
}

// ------------------------------------------------------- records and signals

std::atomic<int> g_interruptions{0};

void interrupted(int) { g_interruptions.fetch_add(1); }

bool is_asleep(pid_t tid) {
  const std::string stat = read_file("/proc/self/task/" + std::to_string(tid) + "/stat");
  const std::size_t name_end = stat.rfind(')');
  return name_end != std::string::npos && stat.substr(name_end, 3) == ") S";
}

// Fills the pipe to the last byte, then leaves it blocking.
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
    tid = thread_id();
    log_to(outlet, QV_LOG_LEVEL_INFO, "patience");
    close(ends[1]);
  });
  while (tid == 0) {
    std::this_thread::yield();
  }
  for (int i = 0; i < 5; ++i) {
    while (!is_asleep(tid)) {
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

// Every message of every writer, each writer's in its order, nothing torn.
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
  for (int writer = 0; writer < kWriters; ++writer) {
    if (fork() == 0) {
      write_many(module, writer, kMessages);
      _exit(0);
    }
  }
  int failed = 0;
  for (int writer = 0; writer < kWriters; ++writer) {
    int status = 0;
    wait(&status);
    failed |= status;
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

// ------------------------------------------------------- the calls and the macro

SCENARIO(logs_each_level_through_a_silent_module) {
  const quorvane::Module module("test/silent");
  module->level = QV_LOG_LEVEL_OFF;
  for (int level = 0; level <= 6; ++level) {
    qv_log_do(module.get(), level_of(level), 99, "level %d", level);
  }
  return 0;
}

TEST(QvLogDo, DoesNotAskTheModulesLevel) {
  const Ran ran = run_scenario("logs_each_level_through_a_silent_module");
  EXPECT_THAT(ran.messages(),
              ElementsAre("OFF level 0", "ERROR level 1", "WARN level 2", "INFO level 3",
                          "TRACE level 4", "DEBUG level 5", "ALL level 6"));
}

TEST(QvLogDo, ErrorAndOffAlsoReachStandardErrorByteForByte) {
  const Ran ran = run_scenario("logs_each_level_through_a_silent_module");
  EXPECT_THAT(test::level_and_message(parse_records(ran.err)),
              ElementsAre("OFF level 0", "ERROR level 1"));
  EXPECT_EQ(ran.log.substr(0, ran.err.size()), ran.err);
}

int g_evaluations = 0;

int evaluated() { return ++g_evaluations; }

SCENARIO(logs_by_macro_at_info) {
  const quorvane::Module module("test/macro");
  module->level = QV_LOG_LEVEL_INFO;
  void* pointer = module.get();
  QV_LOG(module, DEBUG, "%d", evaluated());
  QV_LOG(pointer, TRACE, "%d", evaluated());
  QV_LOG(module.get(), QV_LOG_LEVEL_ALL, "%d", evaluated());
  QV_LOG(module, INFO, "handle %d", evaluated());
  QV_LOG(pointer, WARN, "pointer %d", evaluated());
  QV_LOG(module.get(), QV_LOG_LEVEL_ERROR, "prefixed");
  return g_evaluations == 2 ? 0 : 1;
}

TEST(QvLog, WritesUpToTheModulesLevelAndEvaluatesNothingAboveIt) {
  const Ran ran = run_scenario("logs_by_macro_at_info");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre("INFO handle 1", "WARN pointer 2", "ERROR prefixed"));
}

SCENARIO(logs_by_macro_at_off) {
  const quorvane::Module module("test/macro");
  module->level = QV_LOG_LEVEL_OFF;
  QV_LOG(module, ERROR, "error");
  QV_LOG(module, OFF, "off");
  return 0;
}

TEST(QvLog, AModuleAtOffWritesOnlyOffRecords) {
  EXPECT_THAT(run_scenario("logs_by_macro_at_off").messages(), ElementsAre("OFF off"));
}

// ----------------------------------------------------------------- the outlet

// "fd error_fd level flags": fd is "file" or what it is, flags those that stick
// and whether a program that this process becomes has the file open too.
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
  EXPECT_EQ(ran.out, "1");
  const std::string line = "QVUtil: Failed to open requested log file " + path + ".\n";
  ASSERT_EQ(ran.err.substr(0, line.size()), line);
  EXPECT_THAT(test::level_and_message(parse_records(ran.err.substr(line.size()))),
              ElementsAre("ERROR error"));
  EXPECT_FALSE(test::exists(path));
  EXPECT_EQ(run_scenario("tells_its_outlet", {{"QV_LOG_FILE", path}}).out, "-1 2 1");
}

TEST(LogOutlet, ADirectoryIsNoLogFile) {
  const TempDir dir;
  const Ran ran = run_scenario("tells_its_outlet", {{"QV_LOG_FILE", dir.path()}});
  EXPECT_EQ(ran.out, "-1 2 1");
  EXPECT_EQ(ran.err, "QVUtil: Failed to open requested log file " + dir.path() + ".\n");
}

// The refusal outlives exec, and so stands when the library is loaded.
SCENARIO(loads_with_no_descriptor_left_for_the_log) {
  test::refuse(SYS_openat, EMFILE, test::When{2, O_WRONLY | O_CREAT | O_APPEND});
  execl("/proc/self/exe", "log_test", "--scenario", "logs_at_every_level_by_macro", nullptr);
  return 1;
}

TEST(LogOutlet, NoDescriptorLeftIsAFileThatCannotBeOpened) {
  const TempDir dir;
  test::Environment environment = kNoPath;
  environment["QV_LOG_FILE_Global"] = dir.file("log");
  const Ran ran = run_scenario("loads_with_no_descriptor_left_for_the_log", environment);
  EXPECT_EQ(ran.out, "1");
  const std::string line = "QVUtil: Failed to open requested log file " + dir.file("log") + ".\n";
  ASSERT_EQ(ran.err.substr(0, line.size()), line);
  EXPECT_THAT(test::level_and_message(parse_records(ran.err.substr(line.size()))),
              ElementsAre("ERROR error"));
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
  EXPECT_EQ(ran.err, "QVUtil: Failed to open requested log file " + path + ".\n");
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
  EXPECT_EQ(ran.err, "QVUtil: Failed to open requested log file " +
                         home.file(".quorvane/qv_Global." + host_name() + ".log") + ".\n");
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

// The name goes into 64 bytes with its NUL.
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
