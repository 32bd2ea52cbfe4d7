// What every command of qvutil has in common.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "qvutil/output/suggest.h"
#include "support/lines.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using testing::HasSubstr;

test::Ran qvutil(const test::Arguments& arguments) {
  return test::run_program(QV_BINARY_DIR "/bin/qvutil", arguments);
}

std::vector<std::string> commands() {
  std::vector<std::string> names;
  for (const std::string& line : test::lines_of(qvutil({"help"}).out)) {
    if (line.rfind("  ", 0) == 0) {
      names.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
  }
  return names;
}

TEST(CommandLine, HasAHelpThatFitsAScreen) {
  const test::Ran ran = qvutil({"help"});
  EXPECT_TRUE(ran.exited_with(0));
  const std::vector<std::string> lines = test::lines_of(ran.out);
  EXPECT_LT(lines.size(), 24U);
  for (const std::string& line : lines) {
    EXPECT_LE(line.size(), 80U) << line;
  }
  EXPECT_EQ(qvutil({"--help"}).out, ran.out);
  EXPECT_EQ(qvutil({"-h"}).out, ran.out);
}

TEST(CommandLine, ListsItsCommandsInTheOrderOfTheManualPage) {
  std::vector<std::string> described;
  for (const std::string& line :
       test::lines_of(test::read_file(QV_SOURCE_DIR "/docs/man/qvutil.1"))) {
    if (line.rfind(".Ss ", 0) == 0) {
      described.push_back(line.substr(4));
    }
  }
  described.emplace_back("help");
  EXPECT_EQ(commands(), described);
}

TEST(CommandLine, WithoutACommandIsAnError) {
  const test::Ran ran = qvutil({});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.err, qvutil({"help"}).out);
}

TEST(CommandLine, EveryCommandHasAHelp) {
  for (const std::string& command : commands()) {
    const test::Ran ran = qvutil({command, "--help"});
    EXPECT_TRUE(ran.exited_with(0)) << command;
    EXPECT_THAT(ran.out, HasSubstr("Usage: qvutil " + command)) << command;
    EXPECT_EQ(ran.err, "") << command;
  }
}

// The page says what the program does: each option of a command stands in it.
TEST(CommandLine, HasAllOptionsInTheManualPage) {
  const std::string page = test::read_file(QV_SOURCE_DIR "/docs/man/qvutil.1");
  for (const std::string& command : commands()) {
    const std::size_t start = page.find("\n.Ss " + command + "\n");
    const std::string section =
        start == std::string::npos ? "" : page.substr(start, page.find("\n.S", start + 4) - start);
    for (const std::string& line : test::lines_of(qvutil({command, "--help"}).out)) {
      static const std::regex option(R"re(^  (?:-(\w),)?-(-[\w-]+))re");  // "  -o,--output ..."
      std::smatch names;
      if (std::regex_search(line, names, option) && names[2] != "-help" && command != "help") {
        const std::string name = names[1].matched ? names[1] : names[2];
        EXPECT_THAT(section, HasSubstr("Fl " + name)) << command;
      }
    }
  }
}

TEST(CommandLine, SaysWhichWordIsWrongAndWhatWasMeant) {
  EXPECT_EQ(qvutil({"verfy"}).err, "qvutil: unknown command verfy; did you mean verify?\n");
  EXPECT_EQ(qvutil({"xyzzy"}).err, "qvutil: unknown command xyzzy\n");
  EXPECT_EQ(qvutil({"pids", "--prun", "set"}).err,
            "qvutil pids: unknown option --prun; did you mean --prune?\n");
  EXPECT_EQ(qvutil({"\033[2J"}).err, "qvutil: unknown command \\x1b[2J\n");
  EXPECT_EQ(qvutil({"pids", "set", "--jso"}).err,
            "qvutil pids: unknown option --jso; did you mean --json?\n");
  EXPECT_EQ(qvutil({"pids", "set", "surplus"}).err, "qvutil pids: unknown argument surplus\n");
  EXPECT_EQ(qvutil({"pids"}).err, "qvutil pids: PATH is required\nTry `qvutil pids --help`.\n");
  for (const test::Arguments& wrong :
       {test::Arguments{"verfy"}, {"pids", "--prun", "set"}, {"pids"}, {"pids", "a", "b"}}) {
    EXPECT_TRUE(qvutil(wrong).exited_with(2));
  }
}

TEST(CommandLine, HasHelpForACommand) {
  EXPECT_EQ(qvutil({"help", "repair"}).out, qvutil({"repair", "--help"}).out);
  const test::Ran ran = qvutil({"help", "verfy"});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_EQ(ran.err, "qvutil: unknown command verfy; did you mean verify?\n");
}

// Names of caches, keys and files may be those of commands.
TEST(CommandLine, TakesOnlyItsFirstWordForACommand) {
  const test::TempDir dir;
  test::write_file(dir.file("key_ls"), "no store");
  for (const test::Arguments& arguments : {test::Arguments{"help", "rm", dir.file("ls"), "key"},
                                           {"ls", dir.path(), "rm", "x", "key"}}) {
    const test::Ran ran = qvutil(arguments);
    EXPECT_TRUE(ran.exited_with(2)) << arguments[0];
    EXPECT_THAT(ran.err, HasSubstr("qvutil " + arguments[0] + ": unknown argument "));
  }
  EXPECT_THAT(qvutil({"rm", dir.file("x"), "key", "ls"}).err, HasSubstr("qvutil rm: no cache "));
  EXPECT_THAT(qvutil({"verify", dir.file("x"), "compact", "ls"}).err,
              HasSubstr("qvutil verify: no cache "));
  EXPECT_THAT(qvutil({"log", dir.file("x"), "report"}).err, HasSubstr("qvutil log: can't open "));
}

TEST(CommandLine, SaysWhatANumberMustBe) {
  const auto refused = [](const test::Arguments& arguments) {
    const test::Ran ran = qvutil(arguments);
    EXPECT_TRUE(ran.exited_with(2)) << ran.err;
    EXPECT_EQ(ran.out, "");
    return ran.err.substr(0, ran.err.find('\n'));
  };
  for (const std::string number :
       {"x", "0", "-1", "1kb", "", "1.5", "9223372036854775808", "\x1b"}) {
    const std::string shown = number == "\x1b" ? "\\x1b" : number;
    for (const std::string command : {"show", "find"}) {
      EXPECT_EQ(refused({command, "cache", "--limit", number}),
                "qvutil " + command + ": --limit: not a number from 1 up: " + shown);
    }
  }
  for (const std::string number : {"x", "-1", "1e3", "18446744073709551616"}) {
    EXPECT_EQ(refused({"top", "cache", "--largest", number}),
              "qvutil top: --largest: not a number from 0 up: " + number);
    EXPECT_EQ(refused({"get", "cache", "key", "--atom", number}),
              "qvutil get: --atom: not a number from 0 up: " + number);
    EXPECT_EQ(refused({"log", "file", "--pid", number}),
              "qvutil log: --pid: not a number from 0 up: " + number);
  }
  for (const std::string option : {"--min-size", "--max-size"}) {
    for (const std::string size : {"x", "kb", "-5", "-5kb", "1.5kb", "5 weeks", "99999999999eb"}) {
      EXPECT_EQ(refused({"find", "cache", option, size}),
                "qvutil find: " + option + ": not a size like 512, 10kb or 10kib: " + size);
    }
  }
}

TEST(CommandLine, RefusesANameForJsonLines) {
  const test::Ran ran = qvutil({"convert", "cache", "--to", "jsonl", "--as", "other"});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_THAT(ran.err,
              testing::StartsWith("qvutil convert: --as: JSON lines go to standard output\n"));
}

TEST(CommandLine, SaysThatItsOutputIsLost) {
  for (const char* command : {"help", "--help", "ls --help", "log " QV_SOURCE_DIR "/README.md"}) {
    const test::Ran ran = test::run_program(
        "/bin/sh", {"-c", std::string(QV_BINARY_DIR "/bin/qvutil ") + command + " >/dev/full"});
    EXPECT_TRUE(ran.exited_with(2)) << command;
    EXPECT_THAT(ran.err, HasSubstr("can't write to standard output")) << command;
  }
}

// As other filters do, when nobody reads on.
TEST(CommandLine, EndsQuietlyWhenItsReaderIsGone) {
  const test::Ran ran = test::run_program(
      "/bin/sh",
      {"-c", "trap '' CHLD; { " QV_BINARY_DIR "/bin/qvutil help; echo $? >&2; } | true"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.err, testing::AnyOf("0\n", "141\n"));
}

// It is none of the processes that it looks at.
TEST(CommandLine, LeavesNoTracesOfItself) {
  const test::TempDir dir;
  const test::Ran ran = test::run_program(QV_BINARY_DIR "/bin/qvutil", {"ls", dir.path()},
                                          {{"HOME", "/none"},
                                           {"QV_LOG_FILE", std::nullopt},
                                           {"QV_STATS_REPORT_FILE", dir.file("stats")},
                                           {"QV_STATS_REPORT_PERIOD", "1"},
                                           {"QV_PIDFILE_ROOT", dir.path() + "/"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "There is no cache in " + dir.path() + ".\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

// What `qvutil ls` prints on a terminal, for a root with one cache.
std::string on_terminal(const std::string& options, const test::Environment& environment) {
  const test::TempDir root;
  test::write_file(root.file("cache"), std::string("\xa5\xc3\xa5\xc3\x01\0\0\0", 8));
  const std::string command = QV_BINARY_DIR "/bin/qvutil ls '" + root.path() + "' " + options;
  const test::Ran ran =
      test::run_program("/usr/bin/script", {"-qec", command, "/dev/null"}, environment);
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_THAT(ran.out, HasSubstr("cache"));
  return ran.out;
}

TEST(CommandLine, HasColoursOnATerminalUnlessItIsToldNotTo) {
  const std::string escape = "\033[";
  EXPECT_THAT(on_terminal("", {{"TERM", "xterm"}}), HasSubstr(escape));
  EXPECT_THAT(on_terminal("", {{"TERM", "xterm"}, {"NO_COLOR", ""}}), HasSubstr(escape));
  for (const test::Environment& environment :
       {test::Environment{{"TERM", "xterm"}, {"NO_COLOR", "1"}}, {{"TERM", "dumb"}}}) {
    EXPECT_THAT(on_terminal("", environment), testing::Not(HasSubstr(escape)));
  }
  EXPECT_THAT(on_terminal("--json", {{"TERM", "xterm"}}), testing::Not(HasSubstr(escape)));
}

TEST(Suggestion, IsTheNearestWordOfTheList) {
  using quorvane::tool::suggestion;
  EXPECT_EQ(suggestion("comapct", {"compact", "convert"}), "compact");
  EXPECT_EQ(suggestion("vrify", {"ls", "verify"}), "verify");
  EXPECT_EQ(suggestion("statss", {"show", "stats"}), "stats");
  EXPECT_EQ(suggestion("sl", {"ls", "rm"}), "ls");
  EXPECT_EQ(suggestion("entirely", {"ls", "rm"}), "");
  EXPECT_EQ(suggestion("", {"ls"}), "");
}

}  // namespace
