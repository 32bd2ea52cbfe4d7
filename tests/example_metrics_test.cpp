// The statistics example, run as a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/json.h"
#include "support/library_path.h"
#include "support/lines.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::MatchesRegex;

const std::string PROGRAM = QV_BINARY_DIR "/bin/metrics";

class MetricsExample : public testing::Test {
 protected:
  static test::Ran run(const test::Arguments& arguments) {
    return test::run_program(PROGRAM, arguments, {{"LD_LIBRARY_PATH", test::kLibraryPath}});
  }

  test::TempDir dir_;
  std::string report_ = dir_.file("report");
};

// The member of the process.
std::string process_of(const test::Ran& ran) {
  const std::string start = json::parse(ran.out)["log"]["@process"]["start"].dump();
  return "    \"@process\": {\n      \"pid\": " + std::to_string(ran.pid) +
         ",\n      \"program\": \"metrics\",\n      \"start\": " + start +
         ",\n      \"parent\": " + std::to_string(getpid()) + "\n    },\n";
}

TEST_F(MetricsExample, PrintsItsReportOneMemberALine) {
  const auto ran = run({report_, "3"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "");
  const std::size_t time_end = ran.out.find(',');
  ASSERT_NE(time_end, std::string::npos);
  EXPECT_THAT(ran.out.substr(0, time_end), MatchesRegex("\\{\n  \"ts\": [0-9]+"));
  EXPECT_EQ(ran.out.substr(time_end),
            ",\n"
            "  \"log\": {\n" +
                process_of(ran) +
                "    \"examples\": {\n"
                "      \"metrics\": {\n"
                "        \"bytes\": {\n"
                "          \"count\": 3000,\n"
                "          \"sum\": 1501500,\n"
                "          \"min\": 1,\n"
                "          \"max\": 1000,\n"
                "          \"mean\": 500.5,\n"
                "          \"p50\": 502,\n"
                "          \"p90\": 900,\n"
                "          \"p99\": 988,\n"
                "          \"p99.9\": 996\n"
                "        },\n"
                "        \"jobs\": 3000,\n"
                "        \"load\": 0.046875,\n"
                "        \"running\": 3\n"
                "      }\n"
                "    }\n"
                "  }\n"
                "}\n");
}

json without_buckets(const std::string& line) {
  json report = json::parse(line);
  EXPECT_EQ(report["log"]["examples"]["metrics"]["bytes"].erase("buckets"), 1U);
  return report;
}

// The requested report, and the one at exit.
TEST_F(MetricsExample, LeavesTheReportsInTheFile) {
  const auto ran = run({report_});
  EXPECT_TRUE(ran.exited_with(0));
  const auto lines = test::lines_of(test::read_file(report_));
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(without_buckets(lines[0]), json::parse(ran.out));
  EXPECT_EQ(without_buckets(lines[1])["log"], json::parse(ran.out)["log"]);
}

TEST_F(MetricsExample, SaysThatItHasNoStatistics) {
  const std::string path = dir_.file("missing/report");
  const auto ran = run({path});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.err, "metrics: no statistics, the log says why\n");
  EXPECT_THAT(ran.messages(), ElementsAre("WARN Could not open statistics output file " + path +
                                              ": No such file or directory",
                                          "WARN Could not close report_file: Bad file descriptor"));
}

TEST_F(MetricsExample, SaysThatItFindsNoReport) {
  const auto ran = run({"/dev/null"});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.err, "metrics: no report in /dev/null\n");
}

TEST_F(MetricsExample, SaysHowItIsUsed) {
  for (const test::Arguments& arguments :
       {test::Arguments{}, {report_, "0"}, {report_, "65"}, {report_, "many"}, {"a", "1", "b"}}) {
    const auto ran = test::run_program(PROGRAM, arguments);
    EXPECT_TRUE(ran.exited_with(2));
    EXPECT_EQ(ran.err, "usage: metrics REPORT_FILE [THREADS], 1 to 64 threads\n");
  }
}

}  // namespace
