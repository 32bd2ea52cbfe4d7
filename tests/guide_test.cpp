// The programs of docs/guide.md work as they are printed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/recorder_path.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

// A ```cpp block, and what the page says that it gives: ```text on standard
// output, ```log in the log (whatever the time and the ids), ```json as its
// statistics report.
struct Program {
  std::string title;  // of its section
  std::string source;
  std::string out;
  std::string log;
  std::string report;
};

void PrintTo(const Program& program, std::ostream* out) { *out << program.title; }

// Where a block of this kind goes; null for one that is only read.
std::string* place_of(const std::string& kind, std::vector<Program>& programs,
                      const std::string& title) {
  if (kind == "cpp") {
    programs.push_back({title, "", "", "", ""});
    return &programs.back().source;
  }
  if (programs.empty()) {
    return nullptr;
  }
  Program& last = programs.back();
  return kind == "text"   ? &last.out
         : kind == "log"  ? &last.log
         : kind == "json" ? &last.report
                          : nullptr;
}

std::vector<Program> programs() {
  const std::string fence = "```";
  std::vector<Program> all;
  std::string title;
  std::string* block = nullptr;
  bool in_block = false;
  std::istringstream lines(test::read_file(QV_SOURCE_DIR "/docs/guide.md"));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(fence, 0) == 0) {
      in_block = !in_block;
      block = in_block ? place_of(line.substr(fence.size()), all, title) : nullptr;
    } else if (block != nullptr) {
      *block += line + "\n";
    } else if (!in_block && line.rfind("## ", 0) == 0) {
      title = line.substr(3);
    }
  }
  return all;
}

// gtest wants names without blanks.
std::string name_of(const testing::TestParamInfo<Program>& info) {
  return std::regex_replace(info.param.title, std::regex("[^A-Za-z0-9]+"), "_");
}

std::string without_time(const std::string& report) {
  return std::regex_replace(report, std::regex(R"("ts": \d+)"), "\"ts\": 0");
}

class Guide : public testing::TestWithParam<Program> {
 protected:
  Guide() { std::filesystem::create_directory(dir_.file("store")); }

  // As README.md says, with this build's compiler and library.
  void compile() {
    test::write_file(dir_.file("program.cpp"), GetParam().source);
    const std::string library = QV_BINARY_DIR "/lib";
    const std::string command =
        std::string(QV_CXX_COMPILER " -std=c++20 -Wall -Wextra -Werror " QV_SANITIZE_FLAG) +
        " -I'" QV_SOURCE_DIR "/util/include' '" + dir_.file("program.cpp") + "' -L'" + library +
        "' -lQVUtil -pthread -Wl,-rpath,'" + library + "' -o '" + dir_.file("program") + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  test::Ran run() {
    return test::run_program(dir_.file("program"), {dir_.file("argument")},
                             {{"QV_CACHE_STORE_ROOT", dir_.file("store")},
                              {"QV_CACHE_STORE_CLEANUP_THRESHOLD", "0"},
                              {"QV_STATS_REPORT_FILE", report_},
                              {"LD_LIBRARY_PATH", test::kRecorderPath},
                              {"QV_LOG_LEVEL", std::nullopt}});
  }

  test::TempDir dir_;
  std::string report_ = dir_.file("report");
};

TEST_P(Guide, ProgramDoesWhatThePageShows) {
  ASSERT_NO_FATAL_FAILURE(compile());
  const test::Ran ran = run();
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, GetParam().out);
  const auto shown = test::level_and_message(test::parse_records(GetParam().log));
  EXPECT_THAT(ran.messages(), testing::IsSupersetOf(shown));
  if (shown.empty()) {
    EXPECT_EQ(ran.err, "");
  }
  if (!GetParam().report.empty()) {
    EXPECT_EQ(without_time(test::read_file(report_)), without_time(GetParam().report));
  }
}

INSTANTIATE_TEST_SUITE_P(Programs, Guide, testing::ValuesIn(programs()), name_of);

// A page without programs, or one whose fences changed, would pass unseen.
TEST(GuidePage, HasItsPrograms) {
  const auto all = programs();
  EXPECT_GE(all.size(), 6u);
  for (const Program& program : all) {
    EXPECT_FALSE(program.out.empty() && program.log.empty() && program.report.empty())
        << program.title << " shows nothing";
  }
}

}  // namespace
