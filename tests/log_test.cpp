// Levels, what a record contains, and the calls that write one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <map>
#include <new>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log_test/fixture.h"
#include "support/scenario.h"

namespace {

// The time that gettimeofday gives this thread, unless null.
thread_local const timeval* t_fake_time = nullptr;
thread_local int t_time_calls = 0;

std::atomic<long> g_allocations{0};

}  // namespace

extern "C" int gettimeofday(timeval* __restrict now, void* __restrict zone) noexcept {
  ++t_time_calls;
  errno = EOVERFLOW;  // any call may change errno, but logging must not
  if (t_fake_time != nullptr) {
    *now = *t_fake_time;
    return 0;
  }
  return static_cast<int>(syscall(SYS_gettimeofday, now, zone));
}

// Not inlined: the compiler would warn that free releases memory from new.
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

using log_test::kNames;
using log_test::kRecordSize;
using log_test::level_of;
using log_test::log_to;
using log_test::Writes;
using quorvane::logging::level_to_string;
using quorvane::logging::LoggingModuleData;
using quorvane::logging::parse_level_string;
using test::parse_record;
using test::parse_records;
using test::Ran;
using test::run_scenario;
using testing::ElementsAre;

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
                                 ", " + std::to_string(gettid()) + ", \"seven is 7\"\n");
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
  // Midnights around each 1 March and each New Year, in leap years and others.
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
      tid = gettid();
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
  const std::string format = "%m, %d times";  // no literal, since %m isn't ISO C++
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

// The message of a record, which ends where a conversion of `format` fails.
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
  // The C locale lacks this character.
  EXPECT_EQ(cut_message("%ls", L"\x20ac"), "");
  EXPECT_EQ(cut_message("%d of %s: %ls, %d", 7, "all", L"\x20ac", 8), "7 of all: ");
}

// vsnprintf fails at a width above INT_MAX. A text that grows beyond INT_MAX ends the same
// way, but takes half a minute.
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

// With dynamic thread-local storage, a thread's first record would allocate.
TEST(LogRecord, AllocatesNothingInALibraryThatWasLoadedLater) {
  const Ran ran = test::run_program(QV_LOG_LOADER, {QV_LIBRARY});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "0 0");
  EXPECT_EQ(ran.messages(), (std::vector<std::string>{"INFO a record", "INFO a record"}));
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

}  // namespace
