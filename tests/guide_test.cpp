// The programs of docs/guide.md do what the page says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "support/documents.h"
#include "support/library_path.h"
#include "support/lines.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

// A ```cpp or ```c block, and what the page shows of its program: ```text is its standard output,
// ```log its log (the times and the ids may differ), ```json its statistics report.
struct Program {
  std::string title;  // of the section
  bool is_c = false;
  std::string source;
  std::string out;
  std::string log;
  std::string report;
};

void PrintTo(const Program& program, std::ostream* out) { *out << program.title; }

// The string that receives a block of this kind; null for a kind without a check.
std::string* place_of(const std::string& kind, std::vector<Program>& programs,
                      const std::string& title) {
  if (kind == "cpp" || kind == "c") {
    programs.push_back({title, kind == "c", "", "", "", ""});
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

std::string page() { return test::read_file(QV_SOURCE_DIR "/docs/guide.md"); }

std::vector<Program> programs() {
  const std::string fence = "```";
  std::vector<Program> all;
  std::string title;
  std::string* block = nullptr;
  bool in_block = false;
  for (const std::string& line : test::lines_of(page())) {
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

// gtest allows letters, digits and underscores only.
std::string name_of(const testing::TestParamInfo<Program>& info) {
  return std::regex_replace(info.param.title, std::regex("[^A-Za-z0-9]+"), "_");
}

// Without the time and the process.
std::string without_origin(const std::string& report) {
  const std::string process =
      R"("@process":\{"pid":\d+,"program":"\w+","start":\d+,"parent":\d+\})";
  return std::regex_replace(report, std::regex(R"("ts": \d+, "log":\{)" + process),
                            "{without time and process");
}

class Guide : public testing::TestWithParam<Program> {
 protected:
  Guide() { std::filesystem::create_directory(dir_.file("store")); }

  void compile() {
    const std::string source = dir_.file(GetParam().is_c ? "program.c" : "program.cpp");
    test::write_file(source, GetParam().source);
    const std::string program = dir_.file("program");
    const std::string command = GetParam().is_c
                                    ? test::compile_c_command(source, program)
                                    : test::compile_command(source, program, "-lqvremote -pthread");
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  test::Ran run() {
    return test::run_program(dir_.file("program"), {dir_.file("argument")},
                             {{"QV_CACHE_STORE_ROOT", dir_.file("store")},
                              {"QV_CACHE_STORE_CLEANUP_THRESHOLD", "0"},
                              {"QV_STATS_REPORT_FILE", report_},
                              {"LD_LIBRARY_PATH", test::kLibraryPath},
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
    EXPECT_EQ(without_origin(test::read_file(report_)), without_origin(GetParam().report));
  }
}

INSTANTIATE_TEST_SUITE_P(Programs, Guide, testing::ValuesIn(programs()), name_of);

SCENARIO(read_blocks) {
  static const quorvane::Module module("disk/reader");
  const qv_stats_handle_t wait = qv_stats_create_histogram(module.get(), "wait_ms");
  qv_stats_hist_insert(wait, 2, 100000);
  quorvane::stats::get_singleton_module()->report_now();
  const auto read_a_thousand = [wait] {
    qv_stats_hist_insert(wait, 2, 980);
    qv_stats_hist_insert(wait, 47, 20);
  };
  if (arguments.empty()) {
    read_a_thousand();
    return 0;
  }
  const pid_t child = fork();
  if (child == 0) {
    read_a_thousand();
    std::exit(0);
  }
  return test::wait_for(child);
}

// What the page's program prints about a report of the scenario.
std::string intervals_of(const test::Arguments& arguments) {
  const test::TempDir dir;
  const std::string report = dir.file("report");
  EXPECT_TRUE(test::run_scenario(
                  "read_blocks",
                  {{"QV_STATS_REPORT_FILE", report}, {"LD_LIBRARY_PATH", test::kLibraryPath}},
                  arguments)
                  .exited_with(0));
  test::write_file(dir.file("interval.py"), test::fenced_block(page(), "```python"));
  const test::Ran ran = test::run_program(
      "/usr/bin/env", {"python3", dir.file("interval.py"), report, "disk/reader/wait_ms"});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  return ran.out;
}

TEST(GuidePage, ShowsThePercentilesOfAnInterval) {
  EXPECT_EQ(intervals_of({}), test::fenced_block(page(), "```output"));
}

// The parent adds nothing after its first report.
TEST(GuidePage, TakesOffWhatAChildInherited) {
  EXPECT_EQ(intervals_of({"in a child"}), test::fenced_block(page(), "```output"));
}

// Without this test, a page that lost its programs, or their fences, would pass.
TEST(GuidePage, HasItsPrograms) {
  const auto all = programs();
  EXPECT_GE(all.size(), 6u);
  for (const Program& program : all) {
    EXPECT_FALSE(program.out.empty() && program.log.empty() && program.report.empty())
        << program.title << " shows no result of its program";
  }
}

}  // namespace
