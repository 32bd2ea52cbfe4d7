// qvutil log, on logs of real processes, rotated ones, and hostile ones.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "qvutil/commands/log.h"
#include "qvutil/log/filter.h"
#include "qvutil/log/reader.h"
#include "qvutil/log/record.h"
#include "support/json.h"
#include "support/lines.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/slow_pipe.h"
#include "support/temp_dir.h"

namespace {

using nlohmann::json;
using quorvane::tool::Console;
using quorvane::tool::Failure;
using quorvane::tool::head_of;
using quorvane::tool::LogOptions;
using quorvane::tool::Outcome;
using test::Ran;
using testing::ElementsAre;
using testing::HasSubstr;

std::string record(const std::string& message, const std::string& level = " INFO",
                   int microseconds = 0, int pid = 1234) {
  char time[64];
  std::snprintf(time, sizeof(time), "2024-03-01T12:00:%02d.%06dZ", microseconds / 1000000 % 60,
                microseconds % 1000000);
  return "[" + level + "] " + time + ", " + std::to_string(pid) + ", 1240, \"" + message + "\"\n";
}

struct Printed {
  std::string out;
  std::string err;
  Outcome outcome = Outcome::failed;
};

Printed log_of(const LogOptions& options, Console::Style style = {}) {
  std::ostringstream out;
  std::ostringstream err;
  Console console(out, err, style);
  const Outcome outcome = quorvane::tool::log(console, options);
  return {out.str(), err.str(), outcome};
}

std::string failure_of(const LogOptions& options) {
  try {
    log_of(options);
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "";
}

class Log : public testing::Test {
 protected:
  std::string file(const std::string& name) const { return dir_.file(name); }
  std::string write(const std::string& name, const std::string& bytes) const {
    test::write_file(file(name), bytes);
    return file(name);
  }
  std::string write_compressed(const std::string& name, const std::string& program,
                               const std::string& bytes) const {
    write("plain", bytes);
    const std::string command = program + " -c '" + file("plain") + "' > '" + file(name) + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return file(name);
  }

  test::TempDir dir_;
};

LogOptions of(std::vector<std::string> files) {
  LogOptions options;
  options.files = std::move(files);
  return options;
}

// --- records ---

TEST(LogHead, IsWhatTheLibraryWritesBeforeAMessage) {
  const std::string line = record("x", " WARN");
  const auto head = head_of(line);
  ASSERT_TRUE(head);
  EXPECT_EQ(head->level, quorvane::tool::Level::warn);
  EXPECT_EQ(head->time, "2024-03-01T12:00:00.000000Z");
  EXPECT_EQ(head->pid, 1234);
  EXPECT_EQ(head->tid, 1240);
  EXPECT_EQ(line.substr(head->size), "x\"\n");
}

TEST(LogHead, IsNoneInWhatDiffersInOneByte) {
  const std::string line = record("x");
  const std::size_t size = head_of(line)->size;
  for (std::size_t i = 0; i < size; ++i) {
    std::string changed = line;
    changed[i] = '#';
    EXPECT_FALSE(head_of(changed)) << changed;
    EXPECT_FALSE(head_of(line.substr(0, i))) << i;
  }
  EXPECT_FALSE(head_of("[ INFO] 2024-03-01T12:00:00.000000Z, 12345678901, 1, \"x\"\n"));
  EXPECT_FALSE(head_of("[ INFO] 2024-03-01T12:00:00.000000Z, -1, 1, \"x\"\n"));
}

SCENARIO(log_messages) {
  const quorvane::Module module("disk/reader");
  QV_LOG(module, ERROR, "%s", "first\n\"quoted\"\n[ INFO] no record");
  QV_LOG(module, WARN, "%s", "");
  QV_LOG(module, DEBUG, "%s", std::string(5000, 'x').c_str());
  for (int i = 0; i < 100; ++i) {
    QV_LOG(module, TRACE, "number %d of %s", i, arguments.at(0).c_str());
  }
  return 0;
}

TEST_F(Log, DividesWhatAProcessHasWrittenIntoItsRecords) {
  test::run_scenario("log_messages", {{"QV_LOG_FILE", "/dev/null"}}, {"one"});
  const std::string path = file("log");
  // The parser of the tests wants one line a record, so this log isn't given to it.
  const std::string command = "QV_LOG_LEVEL=DEBUG QV_LOG_FILE='" + path + "' /proc/" +
                              std::to_string(getpid()) +
                              "/exe --scenario log_messages one 2>/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(log_of(of({path})).out, test::read_file(path));
  const auto lines = test::lines_of(log_of(of({path}), {.json = true}).out);
  ASSERT_EQ(lines.size(), 103U);
  EXPECT_EQ(json::parse(lines[0])["message"], "first\n\"quoted\"\n[ INFO] no record");
  EXPECT_EQ(json::parse(lines[0])["level"], "ERROR");
  EXPECT_EQ(json::parse(lines[1])["message"], "");
  EXPECT_THAT(json::parse(lines[2])["message"].get<std::string>(), testing::StartsWith("xxxx"));
  EXPECT_EQ(json::parse(lines[102])["message"], "number 99 of one");
}

std::string all_bytes(const std::string& path, bool is_growing, std::size_t* longest = nullptr) {
  quorvane::tool::RecordReader reader(
      std::make_unique<quorvane::tool::Source>(open(path.c_str(), O_RDONLY), path));
  std::string bytes;
  while (const auto found = reader.next(is_growing)) {
    bytes += found->bytes;
    EXPECT_FALSE(found->bytes.empty());
    if (longest != nullptr) {
      *longest = std::max(*longest, found->bytes.size());
    }
  }
  return bytes;
}

TEST_F(Log, LosesNoByteOfAHostileFile) {
  std::mt19937 random(7);
  const std::vector<std::string> pieces{record("a"),
                                        record("b\nc\"\n"),
                                        "\n",
                                        "\"\n",
                                        "[ INFO] ",
                                        record("x").substr(0, 60),
                                        std::string(70'000, 'y'),
                                        std::string(1, '\0'),
                                        "\x1b[31m\xff",
                                        "[",
                                        record("")};
  for (int round = 0; round < 300; ++round) {
    std::string bytes;
    for (int i = 0; i < 20; ++i) {
      bytes += pieces[random() % pieces.size()];
    }
    std::size_t longest = 0;
    EXPECT_TRUE(all_bytes(write("log", bytes), false, &longest) == bytes) << round;
    EXPECT_LE(longest, 65536U);
    const std::string whole = all_bytes(file("log"), true);
    EXPECT_TRUE(whole == bytes.substr(0, whole.size()));
  }
}

TEST_F(Log, WithManyRecordsIsReadInBoundedMemory) {
  std::string bytes;
  for (int i = 0; i < 1000; ++i) {
    bytes += record(std::string(500, 'x'), " INFO", i);
  }
  std::ofstream big(file("log"), std::ios::binary);
  for (int i = 0; i < 60; ++i) {
    big << bytes;
  }
  big.close();
  const Ran ran =
      test::run_program("/bin/sh", {"-c", QV_BINARY_DIR "/bin/qvutil log --match nothing '" +
                                              file("log") + "' & wait $!; echo $?"});
  EXPECT_EQ(ran.out, "0\n");
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
#ifndef QV_SANITIZED
  EXPECT_LT(usage.ru_maxrss, 30'000) << "KB";
#endif
}

TEST_F(Log, KeepsWhatIsNoRecord) {
  const std::string path = write("log", "garbage\n\n" + record("a") + "more\n" + "torn");
  EXPECT_EQ(log_of(of({path})).out, test::read_file(path) + "\n");
  const auto lines = test::lines_of(log_of(of({path}), {.json = true}).out);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(json::parse(lines[0]), (json{{"other", "garbage\n"}, {"file", path}}));
  EXPECT_EQ(json::parse(lines[1])["message"], "a\"\nmore\ntorn");
}

TEST_F(Log, SaysWhatALevelHidesThatIsNoRecord) {
  LogOptions options = of({write("log", "garbage\n" + record("a", " WARN"))});
  options.level = "warn";
  const Printed printed = log_of(options);
  EXPECT_EQ(printed.out, record("a", " WARN"));
  EXPECT_EQ(printed.err, "qvutil log: 8 B that are no records are not shown\n");
}

TEST_F(Log, KeepsHostileBytesFromTheTerminal) {
  const std::string path = write("log", record("a\x1b[2J\n[ERROR] fake\xff", "ERROR"));
  const std::string shown = log_of(of({path}), {.colour = true, .columns = 80}).out;
  EXPECT_EQ(shown,
            "\x1b[31m[ERROR] 2024-03-01T12:00:00.000000Z, 1234, 1240, "
            "\"a\\x1b[2J\\n[ERROR] fake\\xff\"\x1b[0m\n");
  EXPECT_EQ(log_of(of({path})).out, test::read_file(path));
  EXPECT_EQ(json::parse(log_of(of({path}), {.json = true}).out)["message"],
            (json{{"hex", "611b5b324a0a5b4552524f525d2066616b65ff"}}));
}

// --- which records ---

TEST_F(Log, OfALevelHasThoseThatAreMoreSevere) {
  std::string all;
  for (const std::string level : {"  OFF", "ERROR", " WARN", " INFO", "TRACE", "DEBUG", "  ALL"}) {
    all += record(level, level);
  }
  LogOptions options = of({write("log", all)});
  const auto count = [&](const std::string& level) {
    options.level = level;
    return test::lines_of(log_of(options).out).size();
  };
  EXPECT_EQ(count("OFF"), 1U);
  EXPECT_EQ(count("warn"), 3U);
  EXPECT_EQ(count("DEBUG"), 6U);
  EXPECT_EQ(count("all"), 7U);
  options.level = "LOUD";
  EXPECT_THAT(failure_of(options), HasSubstr("no such level: LOUD"));
}

TEST_F(Log, OfAProcessAndATimeHasOnlyTheirs) {
  LogOptions options =
      of({write("log", record("a", " INFO", 1'000'000, 1) + record("b", " INFO", 2'000'000, 2) +
                           record("c", " INFO", 3'000'000, 1))});
  options.pid = 1;
  EXPECT_THAT(test::lines_of(log_of(options).out).size(), 2U);
  options.since = "2024-03-01T12:00:02";
  EXPECT_THAT(log_of(options).out, record("c", " INFO", 3'000'000, 1));
  options.pid.reset();
  options.until = "2024-03-01T12:00:02Z";
  EXPECT_EQ(log_of(options).out, record("b", " INFO", 2'000'000, 2));
  options.since = "1h";
  EXPECT_EQ(log_of(options).out, "");
}

TEST(RecordTime, IsThatOfTheClockOrOfAnAge) {
  using quorvane::tool::record_time;
  constexpr std::int64_t kNow = 1'709'294'400'000'042;
  EXPECT_EQ(record_time("2024-03-01", 0), "2024-03-01T00:00:00.000000Z");
  EXPECT_EQ(record_time("2024-03-01 12:30", 0), "2024-03-01T12:30:00.000000Z");
  EXPECT_EQ(record_time("2024-03-01T12:30:59.25Z", 0), "2024-03-01T12:30:59.250000Z");
  EXPECT_EQ(record_time("10min", kNow), "2024-03-01T11:50:00.000042Z");
  EXPECT_EQ(record_time("30s", kNow), "2024-03-01T11:59:30.000042Z");
  EXPECT_EQ(record_time("2h", kNow), "2024-03-01T10:00:00.000042Z");
  EXPECT_EQ(record_time("1d", kNow), "2024-02-29T12:00:00.000042Z");
  for (const std::string text :
       {"", "x", "2024", "2024-3-1", "2024-13-01", "2024-03-32", "2024-03-01T24:00", "10", "-1h",
        "10 weeks", "99999999999999999999d", "2024-03-01T12:00:00.", "2024-03-01T12:0"}) {
    EXPECT_THROW(record_time(text, kNow), Failure) << text;
  }
}

TEST_F(Log, MatchesTheMessageOnly) {
  LogOptions options = of({write("log", record("disk 93 % full") + record("INFO"))});
  options.match = "^disk [0-9]+ %";
  EXPECT_EQ(log_of(options).out, record("disk 93 % full"));
  options.match = "INFO";
  EXPECT_EQ(log_of(options).out, record("INFO"));
  options.match = "1234";
  EXPECT_EQ(log_of(options).out, "");
  options.match = "(";
  EXPECT_EQ(failure_of(options), "malformed regular expression (: missing ): (");
}

TEST_F(Log, MatchesHostileTextInTheTimeOfItsLength) {
  LogOptions options = of({write("log", record(std::string(60'000, 'a')) + record("\xff\xfe"))});
  options.match = "(a*)*b";
  EXPECT_EQ(log_of(options).out, "");
  options.match = "((((((((((a{1,10}){1,10}){1,10}";
  EXPECT_THAT(failure_of(options), HasSubstr("malformed"));
}

TEST_F(Log, ShowsItsProgressOnATerminal) {
  std::string text;
  for (int i = 0; i < 5000; ++i) {
    text += record("a");
  }
  const test::SlowPipe pipe(file("pipe"), text);
  const Printed printed = log_of(of({file("pipe")}), {.progress = true});
  EXPECT_EQ(printed.out, text + text);
  EXPECT_THAT(printed.err, HasSubstr("reading " + file("pipe") + ": "));
  EXPECT_THAT(printed.err, testing::EndsWith("/s\r\033[K"));
}

// --- rotated logs, and several ---

TEST_F(Log, HasWhatWasRotatedOutOfIt) {
  write("log", record("5"));
  write("log.1", record("4"));
  write_compressed("log.2.gz", "gzip", record("3"));
  write_compressed("log.10.gz", "gzip", record("1"));
  write_compressed("log.9.gz", "gzip", record("2"));
  write_compressed("log.1.gz", "gzip", record("half of 4"));  // is being made
  for (const std::string other : {"log.1.bak", "log.x", "log1", "xlog.1", "log."}) {
    write(other, record("other"));
  }
  const Printed printed = log_of(of({file("log")}));
  EXPECT_EQ(printed.out, record("1") + record("2") + record("3") + record("4") + record("5"));
  EXPECT_EQ(printed.outcome, Outcome::fine);
  EXPECT_EQ(log_of(of({file("log"), file("log.1"), file("log.2.gz")})).out, printed.out);
}

TEST_F(Log, HasWhatWasRotatedOutOfItByDate) {
  write("log", record("8"));
  std::filesystem::create_symlink("gone", file("log-20240305"));  // as if it has gone just now
  write_compressed("log-20240305.gz", "gzip", record("7"));
  write_compressed("log-20240302-13.gz", "gzip", record("6"));
  write("log-20240302", record("5"));
  write_compressed("log-20240302.gz", "gzip", record("half of 5"));  // is being made
  write_compressed("log-20240301.gz", "gzip", record("4"));
  write("log-20231231", record("3"));
  write("log.1", record("2"));  // from before there were dates
  write("log.2", record("1"));
  for (const std::string other :
       {"log-2024030", "log-20240301.bak", "log--20240301", "log-", "log-2024-03", "log_20240301",
        "log20240301", "log-x20240301", "log-20240301x", "log-20241301", "log-20240332",
        "log-12345678-1234", "log-1", "log.1-1", "log.-1"}) {
    write(other, record("other"));
  }
  std::filesystem::create_directory(file("log-20240303"));
  ASSERT_EQ(mkfifo(file("log-20240304").c_str(), 0600), 0);
  std::string all;
  for (int i = 1; i <= 8; ++i) {
    all += record(std::to_string(i));
  }
  EXPECT_EQ(log_of(of({file("log")})).out, all);
}

TEST_F(Log, HasTheDatesOfHoursAndSeconds) {
  write("log-2024-03-01-09", record("a"));
  write("log-2024-03-01-10", record("b"));
  EXPECT_EQ(log_of(of({file("log")})).out, record("a") + record("b"));
  write("log-20240302", record("a day later"));
  EXPECT_EQ(log_of(of({file("log")})).out, record("a") + record("b") + record("a day later"));
  write("web.20240302", record("e"));
  write("web.20240301", record("d"));
  EXPECT_EQ(log_of(of({file("web")})).out, record("d") + record("e"));
  write("app-1709294400", record("c"));
  write("app-1709298000", record("d"));
  EXPECT_EQ(log_of(of({file("app")})).out, record("c") + record("d"));
}

TEST_F(Log, ThatIsGoneStillHasWhatWasRotated) {
  write("log.1", record("a"));
  EXPECT_EQ(log_of(of({file("log")})).out, record("a"));
  EXPECT_EQ(failure_of(of({file("none")})),
            "can't open " + file("none") + ": No such file or directory");
  EXPECT_THAT(failure_of(of({dir_.path()})), HasSubstr("Is a directory"));
}

TEST_F(Log, SaysWhatItCannotRead) {
  write("log", record("b"));
  const std::string compressed = write_compressed("log.1.gz", "gzip", record("a") + record("c"));
  const std::string bytes = test::read_file(compressed);
  test::write_file(compressed, bytes.substr(0, bytes.size() - 9));
  write("log.2.xz", std::string("\xfd"
                                "7zXZ\0\0",
                                7));
  write("log.3.zst",
        "\x28\xb5\x2f\xfd"
        "....");
  const Printed printed = log_of(of({file("log")}));
  EXPECT_EQ(printed.outcome, Outcome::found);
  EXPECT_THAT(printed.out, testing::EndsWith(record("b")));
  EXPECT_THAT(test::lines_of(printed.err),
              ElementsAre("qvutil: can't read " + file("log.3.zst") +
                              ": zstd is not supported; decompress it first",
                          "qvutil: can't read " + file("log.2.xz") +
                              ": xz is not supported; decompress it first",
                          "qvutil: " + file("log.1.gz") + " is cut short"));
}

TEST_F(Log, PrintsWhatItCanOpenAndNamesTheRest) {
  write("log", record("b"));
  write("log.2", record("a"));
  std::filesystem::create_symlink("log.1", file("log.1"));  // a loop, which root can't open either
  Printed printed = log_of(of({file("log")}));
  EXPECT_EQ(printed.outcome, Outcome::found);
  EXPECT_EQ(printed.out, record("a") + record("b"));
  const std::string reason = ": Too many levels of symbolic links";
  EXPECT_EQ(printed.err, "qvutil: can't open " + file("log.1") + reason + "\n");
  write_compressed("log.1.gz", "gzip", record("of the same generation"));
  EXPECT_THAT(log_of(of({file("log")})).out, HasSubstr("of the same generation"));

  std::filesystem::remove(file("log.1"));
  printed = log_of(of({file("log"), file("none"), dir_.path()}));
  EXPECT_EQ(printed.outcome, Outcome::found);
  EXPECT_THAT(printed.out, testing::EndsWith(record("b")));
  EXPECT_EQ(printed.err, "qvutil: can't open " + file("none") +
                             ": No such file or directory\nqvutil: can't read " + dir_.path() +
                             ": Is a directory\n");
}

TEST_F(Log, OfNoFileThatCanBeOpenedFails) {
  std::filesystem::create_symlink("x.1", file("x.1"));
  EXPECT_THAT(failure_of(of({file("x")})), HasSubstr("can't open " + file("x.1")));
  const Ran ran =
      test::run_program(QV_BINARY_DIR "/bin/qvutil", {"log", file("none"), file("none2")});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_THAT(test::lines_of(ran.err),
              ElementsAre(HasSubstr("none: No such file"), HasSubstr("none2: No such file")));
}

TEST_F(Log, LeavesOutWhatIsNamedLikeGzipAndIsNone) {
  write("log", record("b"));
  for (const std::string& bytes :
       {std::string("\x02\x93 random bytes"), record("a"), std::string("\x1f"), std::string()}) {
    write("log.1.gz", bytes);
    const Printed printed = log_of(of({file("log")}));
    EXPECT_EQ(printed.outcome, Outcome::found) << bytes;
    EXPECT_EQ(printed.out, record("b"));
    EXPECT_EQ(printed.err, "qvutil: can't read " + file("log.1.gz") + ": it is no gzip file\n");
  }
}

TEST_F(Log, OfDamagedCompressionIsReadUpToTheDamage) {
  std::string text;
  for (int i = 0; i < 20'000; ++i) {
    text += record("number " + std::to_string(i * 7919 % 10007), " INFO", i);
  }
  const std::string compressed = write_compressed("log.gz", "gzip", text);
  std::string bytes = test::read_file(compressed);
  std::mt19937 random(11);
  for (int round = 0; round < 20; ++round) {
    std::string damaged = bytes;
    damaged[20 + random() % (bytes.size() - 20)] ^= static_cast<char>(1 + random() % 255);
    test::write_file(compressed, damaged);
    const Printed printed = log_of(of({compressed}));
    EXPECT_EQ(printed.outcome, Outcome::found);
    EXPECT_THAT(printed.err, HasSubstr(compressed));
  }
}

TEST_F(Log, OfEightProcessesIsInTheOrderOfTime) {
  std::vector<pid_t> children;
  std::vector<std::string> files;
  for (int i = 0; i < 8; ++i) {
    files.push_back(file("log" + std::to_string(i)));
    children.push_back(test::in_child([&] {
      setenv("QV_LOG_FILE", files.back().c_str(), 1);
      setenv("QV_LOG_LEVEL", "DEBUG", 1);
      execl("/proc/self/exe", "test", "--scenario", "log_messages", "x", nullptr);
      return 1;
    }));
  }
  for (const pid_t child : children) {
    EXPECT_EQ(test::wait_for(child), 0);
  }
  const auto lines = test::lines_of(log_of(of(files), {.json = true}).out);
  ASSERT_EQ(lines.size(), 8U * 103);
  std::string last;
  for (const std::string& line : lines) {
    const std::string time = json::parse(line)["time"];
    EXPECT_LE(last, time);
    last = time;
  }
}

TEST_F(Log, KeepsTheOrderOfAFileThatIsNotQuiteInOrder) {
  const std::string a =
      record("a1", " INFO", 20) + record("a2", " INFO", 10) + record("a3", " INFO", 40);
  const std::string b = record("b1", " INFO", 15) + record("b2", " INFO", 30);
  const auto lines = test::lines_of(log_of(of({write("a", a), write("b", b)}), {.json = true}).out);
  std::vector<std::string> messages;
  for (const std::string& line : lines) {
    messages.push_back(json::parse(line)["message"]);
  }
  EXPECT_THAT(messages, ElementsAre("b1", "a1", "a2", "b2", "a3"));
}

// --- a log that goes on ---

// `qvutil log --follow` and what it has printed so far.
class Followed {
 public:
  explicit Followed(const std::string& path) {
    child_ = test::in_child([&] {
      dup2(out_.ends[1], STDOUT_FILENO);
      execl(QV_BINARY_DIR "/bin/qvutil", "qvutil", "log", "--follow", path.c_str(), nullptr);
      return 1;
    });
  }
  ~Followed() {
    kill(child_, SIGKILL);
    test::wait_for(child_);
  }
  Followed(const Followed&) = delete;
  Followed& operator=(const Followed&) = delete;

  // Waits for these bytes, and expects no others.
  void expect(const std::string& bytes) {
    std::string got;
    while (got.size() < bytes.size()) {
      char buffer[65536];
      const ssize_t count =
          read(out_.ends[0], buffer, std::min(sizeof(buffer), bytes.size() - got.size()));
      ASSERT_GT(count, 0);
      got.append(buffer, static_cast<std::size_t>(count));
    }
    EXPECT_EQ(got, bytes);
  }

 private:
  test::Pipe out_;
  pid_t child_;
};

void append(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
}

TEST_F(Log, IsFollowedOverRotationAndTruncation) {
  const std::string path = write("log", record("1"));
  Followed log(path);
  log.expect(record("1"));
  append(path, record("2"));
  log.expect(record("2"));
  append(path, record("3").substr(0, 50));
  append(path, record("3").substr(50));
  log.expect(record("3"));
  std::filesystem::rename(path, file("log.1"));
  append(file("log.1"), record("4"));
  log.expect(record("4"));
  append(path, record("5"));
  log.expect(record("5"));
  append(file("log.1"), record("6"));  // by a process that hasn't opened the log anew yet
  log.expect(record("6"));
  std::filesystem::rename(file("log.1"), file("log.2"));
  std::filesystem::rename(path, file("log.1"));
  append(path, record("the 7th"));
  log.expect(record("the 7th"));
  write("log", "");
  append(path, record("8"));
  log.expect(record("8"));
}

TEST_F(Log, ToAFullDiskFails) {
  const std::string path = write("log", record("1"));
  const Ran ran = test::run_program(
      "/bin/sh", {"-c", QV_BINARY_DIR "/bin/qvutil log '" + path + "' > /dev/full"});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_THAT(ran.err, HasSubstr("can't write to standard output: No space left on device"));
}

// Whether the bytes fail when they are printed, or when they are flushed.
TEST_F(Log, SaysWhyItsOutputIsLost) {
  const std::string small = write("log", record("1"));
  std::string records;
  for (int i = 0; i < 1000; ++i) {
    records += record(std::string(100, 'x'), " INFO", i);
  }
  const std::string large = write("large", records);
  for (const std::string& arguments : {"--follow '" + small, "--follow '" + large, "'" + large}) {
    const Ran ran = test::run_program(
        "/bin/sh", {"-c", QV_BINARY_DIR "/bin/qvutil log " + arguments + "' > /dev/full"});
    EXPECT_TRUE(ran.exited_with(2)) << arguments;
    EXPECT_EQ(ran.err, "qvutil log: can't write to standard output: No space left on device\n");
  }
}

TEST_F(Log, FromStandardInputIsRead) {
  const std::string path = write("log", record("1"));
  const Ran ran = test::run_program(
      "/bin/sh", {"-c", "cat '" + path + "' | " QV_BINARY_DIR "/bin/qvutil log -"});
  EXPECT_EQ(ran.out, record("1"));
}

}  // namespace
