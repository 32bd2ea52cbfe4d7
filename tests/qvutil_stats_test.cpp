// qvutil stats: what it prints of reports, real ones and damaged ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "qvutil/output/json.h"
#include "qvutil/report/histogram.h"
#include "qvutil/report/processes.h"
#include "qvutil/report/prometheus_name.h"
#include "support/library_path.h"
#include "support/lines.h"
#include "support/processes.h"
#include "support/reports.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::tool::Json;
using test::histogram_of;
using test::line_of;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const std::string kTool = QV_BINARY_DIR "/bin/qvutil";

class StatsCommand : public testing::Test {
 protected:
  std::string file() const { return dir_.file("reports"); }

  // Has a program report to the file.
  void report(const std::string& scenario) const {
    const test::Ran ran = test::run_scenario(
        scenario, {{"QV_STATS_REPORT_FILE", file()}, {"LD_LIBRARY_PATH", test::kLibraryPath}});
    ASSERT_TRUE(ran.exited_with(0)) << ran.err;
  }

  void have(const std::string& text) const { test::write_file(file(), text); }

  test::Ran stats(std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.begin(), {"stats", file()});
    return test::run_program(kTool, arguments);
  }

  // The objects that --json prints.
  std::vector<Json> objects(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{"--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const test::Ran ran = stats(arguments);
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    std::vector<Json> all;
    for (const std::string& line : test::lines_of(ran.out)) {
      all.push_back(Json::parse(line));
    }
    return all;
  }

  // By metric, of all processes. Each has to be there once.
  std::map<std::string, Json> metrics(const std::vector<std::string>& more = {}) const {
    std::map<std::string, Json> all;
    for (const Json& object : objects(more)) {
      EXPECT_TRUE(all.emplace(object["metric"], object).second) << object;
    }
    return all;
  }

  test::Ran promtool() const {
    return test::run_program(
        "/bin/sh", {"-c", kTool + " stats --prometheus '" + file() + "' | promtool check metrics"},
        {{"PATH", "/usr/bin:/bin"}});
  }

  test::TempDir dir_;
};

void* module_of(const char* path) { return quorvane::Module(path).get(); }

}  // namespace

SCENARIO(count_every_kind) {
  static const std::int64_t depth = -7;
  static const double load = 0.5;
  static const double unknown = std::numeric_limits<double>::quiet_NaN();
  void* module = module_of("disk/cache");
  qv_stats_create_gauge_int64(module, "depth", &depth);
  qv_stats_create_gauge_double(module, "load", &load);
  qv_stats_create_gauge_double(module, "unknown", &unknown);
  qv_stats_counter_inc(qv_stats_create_counter(module, "reads"), 3);
  qv_stats_hist_insert(qv_stats_create_histogram(module, "wait"), 2, 4);
  qv_stats_create_histogram(module, "empty");
  const qv_stats_handle_t wide = qv_stats_create_histogram(module, "wide");
  for (const double sample :
       {-1e300, -3.0, 0.0, 1e-300, 1e300, std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity()}) {
    qv_stats_hist_insert(wide, sample, 1);
  }
  return 0;
}

TEST_F(StatsCommand, PrintsATableOfEachProcess) {
  have(line_of({.members = R"("disk":{"depth":-7,"load":0.5,"reads":3,"wait":)" +
                           histogram_of("4", "8", "2", "2", "[[2.03125,4]]") + "}"}) +
       line_of({.pid = 7, .members = R"("m":{"n":1})", .program = "null"}));
  const test::Ran ran = stats();
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "");
  EXPECT_EQ(ran.out,
            "reader 1234, 2024-03-01T12:00:00Z\n"
            "METRIC      TYPE       VALUE  COUNT  MEAN  P50  P90  P99  MAX\n"
            "disk/depth  gauge         -7\n"
            "disk/load   gauge        0.5\n"
            "disk/reads  counter        3\n"
            "disk/wait   histogram             4     2    2    2    2    2\n"
            "\n"
            "process 7, 2024-03-01T12:00:00Z\n"
            "METRIC  TYPE     VALUE  COUNT  MEAN  P50  P90  P99  MAX\n"
            "m/n     counter      1\n");
}

TEST_F(StatsCommand, ReadsWhatARealProgramReports) {
  report("count_every_kind");
  const auto all = metrics();
  EXPECT_EQ(all.at("disk/cache/depth")["value"], -7);
  EXPECT_EQ(all.at("disk/cache/load")["value"], 0.5);
  EXPECT_EQ(all.at("disk/cache/unknown")["value"], nullptr);
  EXPECT_EQ(all.at("disk/cache/unknown")["type"], "gauge");
  EXPECT_EQ(all.at("disk/cache/reads")["type"], "counter");
  EXPECT_EQ(all.at("disk/cache/reads")["value"], 3);
  const Json& wait = all.at("disk/cache/wait");
  EXPECT_EQ(wait["count"], 4);
  EXPECT_EQ(wait["p99"], 2.0);
  EXPECT_EQ(wait["max"], 2.0);
  EXPECT_EQ(all.at("disk/cache/empty")["count"], 0);
  EXPECT_EQ(all.at("disk/cache/empty")["p50"], nullptr);
  EXPECT_EQ(all.at("disk/cache/wide")["count"], 7);
  EXPECT_EQ(all.at("disk/cache/wide")["p50"], 0);
}

SCENARIO(count_in_a_child_too) {
  const qv_stats_handle_t counter = qv_stats_create_counter(module_of("m"), "n");
  const qv_stats_handle_t samples = qv_stats_create_histogram(module_of("m"), "h");
  qv_stats_counter_inc(counter, 100);
  qv_stats_hist_insert(samples, 1000, 50);
  const pid_t child = fork();
  if (child == 0) {
    qv_stats_counter_inc(counter, 7);
    qv_stats_hist_insert(samples, 47, 2);
    return 0;
  }
  return test::wait_for(child);
}

TEST_F(StatsCommand, AChildsCountsAreItsOwn) {
  report("count_in_a_child_too");
  const std::vector<Json> all = objects();  // the child's report comes first
  ASSERT_EQ(all.size(), 4U);
  EXPECT_EQ(all[0]["count"], 2);
  EXPECT_EQ(all[0]["sum"], 94.0);
  EXPECT_NEAR(all[0]["max"].get<double>(), 47, 0.47);
  EXPECT_NEAR(all[0]["min"].get<double>(), 47, 0.47);
  EXPECT_EQ(all[1]["value"], 7);
  EXPECT_EQ(all[2]["count"], 50);
  EXPECT_EQ(all[3]["value"], 100);
  EXPECT_NE(all[0]["pid"], all[2]["pid"]);
}

TEST_F(StatsCommand, UnknownCountsOfTheParentAreSaid) {
  have(line_of({.members = R"("m":{"n":8})", .inherited = "null"}));
  EXPECT_THAT(stats().out, HasSubstr("with unknown counts of its parent"));
  EXPECT_EQ(metrics().at("m/n")["has_parents_counts"], true);
}

TEST_F(StatsCommand, ShowsOnlyTheLastReportOfAProcess) {
  have(line_of({.ts = 100, .members = R"("m":{"n":1})"}) +
       line_of({.ts = 160, .members = R"("m":{"n":9})"}));
  EXPECT_EQ(metrics().at("m/n")["value"], 9);
}

TEST_F(StatsCommand, AProgramThatTookThePlaceOfAnotherIsAnotherProcess) {
  have(line_of({.ts = 100, .members = R"("m":{"n":5})"}) +
       line_of({.ts = 160, .members = R"("m":{"n":2})", .program = "\"next\""}));
  EXPECT_EQ(objects().size(), 2U);
  EXPECT_EQ(objects({"--rate"}).size(), 0U);
}

TEST_F(StatsCommand, TellsGaugesFromCounters) {
  have(line_of(
           {.ts = 100,
            .members = R"("cache":{"c":{"bytes":5}},"m":{"declared":4,"down":5,"kept":9,"up":1})",
            .inherited = R"({"m":{"kept":3}})"}) +
       line_of(
           {.ts = 160,
            .members = R"("cache":{"c":{"bytes":6}},"m":{"declared":4,"down":4,"kept":8,"up":2})",
            .inherited = R"({"m":{"kept":3}})"}));
  const auto all = metrics({"--gauge", "m/decl*"});
  EXPECT_EQ(all.at("m/up")["type"], "counter");
  EXPECT_EQ(all.at("m/down")["type"], "gauge");
  EXPECT_EQ(all.at("m/kept")["type"], "counter");
  EXPECT_EQ(all.at("m/declared")["type"], "gauge");
  EXPECT_EQ(all.at("cache/c/bytes")["type"], "gauge");
}

TEST_F(StatsCommand, ARateIsTheDifferenceASecondOfEachProcess) {
  have(line_of({.ts = 100, .members = R"("m":{"g":5,"n":10})"}) +
       line_of({.ts = 110, .pid = 2, .members = R"("m":{"n":1000})"}) +
       line_of({.ts = 160, .members = R"("m":{"g":3,"n":40})"}) +
       line_of({.ts = 160, .members = R"("m":{"g":4,"n":50})"}) +
       line_of({.ts = 170, .members = R"("m":{"g":3,"n":60})"}) +
       line_of({.ts = 120, .pid = 2, .members = R"("m":{"n":1005})"}));
  std::vector<std::string> rates;
  for (const Json& object : objects({"--rate"})) {
    const bool is_gauge = object["type"] == "gauge";
    rates.push_back(object["pid"].dump() + " " + object["from"].dump() + "-" + object["to"].dump() +
                    " " + object["metric"].get<std::string>() + " " +
                    object[is_gauge ? "value" : "per_second"].dump());
  }
  // What was counted in the second half of the second 160 is in the next interval.
  EXPECT_THAT(rates, testing::ElementsAre("1234 100-160 m/g 3", "1234 100-160 m/n 0.5",
                                          "1234 160-170 m/g 3", "1234 160-170 m/n 2.0",
                                          "2 110-120 m/n 0.5"));
}

SCENARIO(have_a_spike) {
  const qv_stats_handle_t wait = qv_stats_create_histogram(module_of("disk"), "wait_ms");
  qv_stats_hist_insert(wait, 1, 1000000);
  quorvane::stats::get_singleton_module()->report_now();
  qv_stats_hist_insert(wait, 1, 900);
  qv_stats_hist_insert(wait, 47, 100);
  return 0;
}

namespace {

// The reports of the program with the spike as if they were 10 seconds apart.
std::string lines_with_a_spike(const std::string& reported) {
  std::string text;
  long ts = 1709294400;
  for (const std::string& line : test::lines_of(reported)) {
    text += "{\"ts\": " + std::to_string(ts) + line.substr(line.find(',')) + "\n";
    ts += 10;
  }
  return text;
}

}  // namespace

TEST_F(StatsCommand, ThePercentilesOfARateAreThoseOfTheInterval) {
  report("have_a_spike");
  have(lines_with_a_spike(test::read_file(file())));
  EXPECT_NEAR(metrics().at("disk/wait_ms")["p99"].get<double>(), 1, 0.01);
  const Json spike = metrics({"--rate"}).at("disk/wait_ms");
  EXPECT_EQ(spike["count"], 1000);
  EXPECT_EQ(spike["per_second"], 100.0);
  EXPECT_NEAR(spike["p50"].get<double>(), 1, 0.01);
  EXPECT_NEAR(spike["p99"].get<double>(), 47, 0.47);
}

TEST_F(StatsCommand, PrintsOneRowAValueAsCsv) {
  have(
      line_of({.ts = 100,
               .members = R"("m":{"a,b":-1.5,"h":)" +
                          histogram_of("1", "2", "2", "2", "[[2.03125,1]]") + R"(,"n":3,"q":null})",
               .program = R"("say \"hi\"\n")"}));
  EXPECT_EQ(stats({"--csv"}).out,
            "time,pid,program,metric,value\n"
            "100,1234,\"say \"\"hi\"\"\\n\",\"m/a,b\",-1.5\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/h.count,1\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/h.sum,2\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/h.min,2\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/h.mean,2\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/h.p50,2\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/h.p90,2\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/h.p99,2\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/h.max,2\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/n,3\n"
            "100,1234,\"say \"\"hi\"\"\\n\",m/q,\n");
}

// ------------------------------------------------------------------ Prometheus

TEST_F(StatsCommand, PrintsHistogramsWithCumulativeBuckets) {
  have(line_of(
      {.members = R"("disk":{"reads":3,"wait_us":)" +
                  histogram_of("4", "null", "-2", "null", "[[-2,1],[0,1],[2.03125,1],[null,1]]") +
                  "}"}));
  EXPECT_EQ(stats({"--prometheus"}).out,
            "# HELP qv_disk_reads_total The counter disk/reads.\n"
            "# TYPE qv_disk_reads_total counter\n"
            "qv_disk_reads_total{pid=\"1234\",program=\"reader\"} 3\n"
            "# HELP qv_disk_wait_seconds The histogram disk/wait_us, in seconds.\n"
            "# TYPE qv_disk_wait_seconds histogram\n"
            "qv_disk_wait_seconds_bucket{pid=\"1234\",program=\"reader\",le=\"-2e-06\"} 1\n"
            "qv_disk_wait_seconds_bucket{pid=\"1234\",program=\"reader\",le=\"0\"} 2\n"
            "qv_disk_wait_seconds_bucket{pid=\"1234\",program=\"reader\",le=\"2.03125e-06\"} 3\n"
            "qv_disk_wait_seconds_bucket{pid=\"1234\",program=\"reader\",le=\"+Inf\"} 4\n"
            "qv_disk_wait_seconds_sum{pid=\"1234\",program=\"reader\"} NaN\n"
            "qv_disk_wait_seconds_count{pid=\"1234\",program=\"reader\"} 4\n");
}

TEST_F(StatsCommand, PromtoolAcceptsWhatARealProgramReports) {
  report("count_every_kind");
  report("count_in_a_child_too");
  report("have_a_spike");
  const test::Ran ran = promtool();
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out + ran.err, "");
}

TEST_F(StatsCommand, PromtoolAcceptsAnyNames) {
  std::string members;
  for (const char* name : {"ms",        "us",
                           "s",         "d",
                           "h",         "m",
                           "b",         "kb",
                           "total",     "count",
                           "sum",       "bucket",
                           "counter",   "gauge",
                           "histogram", "summary",
                           "hours",     "milliseconds",
                           "bits",      "kilobytes",
                           "camelCase", "HTTPServer",
                           "a b",       "a_b",
                           "a-b",       "9lives",
                           "\\u00e4",   "a:b",
                           "le",        "quantile",
                           "x_total",   "x_count",
                           "megabits",  "inches",
                           "\\\"",      "\\\\",
                           "a\\nb",     "kelvin",
                           "info",      ""}) {
    const std::string key = std::string("\"") + name + "\":";
    const std::string numbers = "{\"c\":1,\"g\":0.5,\"total\":1,\"x_sum\":-1,\"h_ms\":" +
                                histogram_of("1", "2", "2", "2", "[[2.03125,1]]") + "," +
                                (std::string(name) == "total" ? "\"k\":{\"b\":1}" : key + "2") +
                                "}";
    members += (members.empty() ? "" : ",") + key + numbers;
    members += ",\"top-" + std::string(name) + "\":1,\"g-" + std::string(name) + "\":-1";
  }
  have(line_of({.members = members, .program = R"("a\"b\\c\nd")"}) +
       line_of({.members = R"("m":{"n":1})", .start = "1"}) +
       line_of({.members = R"("m":{"n":1})", .start = "2"}));
  EXPECT_TRUE(stats().exited_with(0));
  const test::Ran ran = promtool();
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out + ran.err, "");
}

TEST_F(StatsCommand, PathsThatLookTheSameToPrometheusKeepTheirOwnMetrics) {
  have(line_of({.members = R"("a":{"b":1},"a_b":2)"}));
  EXPECT_THAT(stats({"--prometheus"}).out,
              AllOf(HasSubstr("qv_ab_total{pid=\"1234\",program=\"reader\"} 1\n"),
                    HasSubstr("qv_ab_2_total{pid=\"1234\",program=\"reader\"} 2\n")));
}

TEST_F(StatsCommand, PrometheusTextIsOneState) {
  have(line_of({.members = R"("m":{"n":1})"}));
  for (const char* option : {"--follow", "--rate", "--csv", "--json"}) {
    EXPECT_TRUE(stats({"--prometheus", option}).exited_with(2)) << option;
  }
  EXPECT_TRUE(stats({"--csv", "--json"}).exited_with(2));
}

// --------------------------------------------------------------- hostile input

TEST_F(StatsCommand, LinesThatAreNoReportsAreCountedAndTheOthersShown) {
  const std::string good = line_of({.members = R"("m":{"n":1})"});
  const auto with_histogram = [](const std::string& histogram) {
    return line_of({.members = "\"h\":" + histogram});
  };
  const std::vector<std::string> damaged{
      "\n",
      "x\n",
      "[]\n",
      "null\n",
      good.substr(0, good.size() / 2) + "\n",
      "{\"ts\": 1}\n",
      "{\"ts\": 1, \"log\":{}}\n",
      "{\"ts\": 1, \"log\":[]}\n",
      "{\"ts\": -1, \"log\":{\"@process\":{}}}\n",
      line_of({.ts = 253402300800}),
      "{\"ts\": 1, \"log\":{\"@process\":3}}\n",
      line_of({.pid = -1}),
      line_of({.program = "[1]"}),
      line_of({.start = "\"now\""}),
      line_of({.start = "1e300"}),
      line_of({.members = R"("m":{"n":"1"})"}),
      line_of({.members = R"("m":{"n":true})"}),
      line_of({.members = R"("m":[1])"}),
      line_of({.members = R"("m":{"n":1})", .inherited = "3"}),
      line_of({.members = R"("m":{"n":1})", .inherited = R"({"m":{"x":1}})"}),
      line_of({.members = R"("m":{"n":1})", .inherited = R"({"m":{"n":{"buckets":[]}}})"}),
      line_of({.members = "\"h\":" + histogram_of("1", "2", "2", "2", "[[2,1]]"),
               .inherited = "{\"h\":" + histogram_of("1", "2", "2", "2", "[[2,2]]") + "}"}),
      with_histogram("{\"buckets\":[]}"),
      with_histogram(histogram_of("1", "\"a\"", "1", "1", "[]")),
      with_histogram(histogram_of("1", "1", "[]", "1", "[]")),
      with_histogram(histogram_of("1", "1", "1", "1", "[1]")),
      with_histogram(histogram_of("1", "1", "1", "1", "[[1]]")),
      with_histogram(histogram_of("1", "1", "1", "1", "[[1,-1]]")),
      with_histogram(histogram_of("1", "1", "1", "1", "[[1,1.5]]")),
      with_histogram(histogram_of("1", "1", "1", "1", "[[\"1\",1]]")),
      with_histogram(histogram_of("1", "1", "1", "1", "[[2,1],[1,1]]")),
      with_histogram(histogram_of("1", "1", "1", "1", "[[null,1],[null,1]]")),
      with_histogram(histogram_of("1", "1", "1", "1", "[[1,18446744073709551615],[2,1]]"))};
  for (const std::string& line : damaged) {
    have(line + good + line);
    const test::Ran ran = stats();
    EXPECT_TRUE(ran.exited_with(1)) << line;
    EXPECT_THAT(ran.out, HasSubstr("m/n     counter      1\n")) << line;
    EXPECT_THAT(ran.err,
                AllOf(HasSubstr("line 1: no report: "), HasSubstr(": 2 lines are no reports\n")))
        << line;
  }
}

TEST_F(StatsCommand, ALastLineThatWasCutIsDamage) {
  const std::string good = line_of({.members = R"("m":{"n":1})"});
  have(good + good.substr(0, 20));
  EXPECT_TRUE(stats().exited_with(1));
  have(good.substr(0, good.size() - 1));  // only the newline is missing
  EXPECT_TRUE(stats().exited_with(0));
}

TEST_F(StatsCommand, DeepAndLongLinesAreDamage) {
  const std::string good = line_of({.members = R"("m":{"n":1})"});
  std::string deep;
  for (int i = 0; i < 200000; ++i) {
    deep += "\"a\":{";
  }
  have(line_of({.members = deep + std::string(200000, '}')}) + std::string(200000, '[') + "\n" +
       std::string(33'000'000, 'x') + "\n" + good);
  const test::Ran ran = stats();
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(ran.out, HasSubstr("m/n     counter      1\n"));
  EXPECT_THAT(ran.err, HasSubstr(": 3 lines are no reports\n"));
}

TEST_F(StatsCommand, NamesCantControlATerminal) {
  have(line_of({.members = R"("m\u001b[31m":{"n\u0007":1})", .program = R"("p\u001b]0;x")"}));
  for (const std::vector<std::string>& form :
       std::vector<std::vector<std::string>>{{}, {"--csv"}, {"--prometheus"}, {"--json"}}) {
    const test::Ran ran = stats(form);
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.out.find_first_of("\x1b\x07"), std::string::npos) << ran.out;
  }
}

TEST_F(StatsCommand, AFileThatCantBeReadIsSaid) {
  const test::Ran missing = stats();
  EXPECT_TRUE(missing.exited_with(2));
  EXPECT_THAT(missing.err, HasSubstr("No such file or directory"));
  const test::Ran directory = test::run_program(kTool, {"stats", dir_.path()});
  EXPECT_TRUE(directory.exited_with(2));
  EXPECT_THAT(directory.err, HasSubstr("Is a directory"));
}

TEST_F(StatsCommand, AFullDiskIsSaid) {
  have(line_of({.members = R"("m":{"n":1})"}));
  const test::Ran ran =
      test::run_program("/bin/sh", {"-c", kTool + " stats '" + file() + "' > /dev/full"});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_THAT(ran.err, HasSubstr("No space left on device"));
}

TEST_F(StatsCommand, ReadsStandardInput) {
  have(line_of({.members = R"("m":{"n":1})"}));
  const test::Ran ran =
      test::run_program("/bin/sh", {"-c", "cat '" + file() + "' | " + kTool + " stats -"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.out, HasSubstr("m/n     counter      1\n"));
}

// --------------------------------------------------------------------- follow

namespace {

// A `qvutil stats --follow` whose output a test reads as it comes.
class Following {
 public:
  explicit Following(const std::string& file) {
    std::array<int, 2> pipe_ends{};
    EXPECT_EQ(pipe(pipe_ends.data()), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(pipe_ends[1], STDOUT_FILENO);
      close(pipe_ends[0]);
      close(pipe_ends[1]);
      execl(kTool.c_str(), "qvutil", "stats", "--follow", "--csv", file.c_str(), nullptr);
      _exit(127);
    }
    close(pipe_ends[1]);
    out_ = pipe_ends[0];
  }
  ~Following() { close(out_); }
  Following(const Following&) = delete;
  Following& operator=(const Following&) = delete;

  // Reads until the output ends like this; all of the output if it never does.
  std::string read_until(const std::string& end) {
    char c = 0;
    while (!text_.ends_with(end) && read(out_, &c, 1) == 1) {
      text_ += c;
    }
    return text_;
  }

  int interrupt() const {
    kill(pid_, SIGINT);
    return test::wait_for(pid_);
  }

 private:
  pid_t pid_ = 0;
  int out_ = -1;
  std::string text_;
};

void append(const std::string& path, const std::string& text) {
  FILE* file = std::fopen(path.c_str(), "a");
  ASSERT_NE(file, nullptr);
  std::fputs(text.c_str(), file);
  std::fclose(file);
}

}  // namespace

TEST_F(StatsCommand, FollowsAFileThatGrowsAndIsReplacedUntilInterrupted) {
  const auto line = [](int value) {
    return line_of({.members = "\"m\":{\"n\":" + std::to_string(value) + "}"});
  };
  have(line(1));
  Following following(file());
  EXPECT_THAT(following.read_until("m/n,1\n"), HasSubstr("time,pid,program,metric,value\n"));
  const std::string second = line(2);
  append(file(), second.substr(0, 30));
  append(file(), second.substr(30));
  following.read_until("m/n,2\n");
  ASSERT_EQ(std::rename(file().c_str(), dir_.file("reports.1").c_str()), 0);
  append(dir_.file("reports.1"), line(3));  // by a process that still has the old file open
  following.read_until("m/n,3\n");
  have(line(4));
  following.read_until("m/n,4\n");
  ASSERT_EQ(truncate(file().c_str(), 0), 0);
  append(file(), line_of({.pid = 1, .members = R"("m":{"n":5})", .program = "null"}));  // shorter
  const std::string all = following.read_until("m/n,5\n");
  EXPECT_EQ(test::lines_of(all).size(), 6U) << all;
  EXPECT_EQ(following.interrupt(), 0);
}

// ---------------------------------------------------------------------- pieces

TEST(Processes, ForgetThoseThatHaventReportedForTheLongestTime) {
  using quorvane::tool::ProcessKey;
  using quorvane::tool::Report;
  quorvane::tool::Processes processes(2, 100);
  const auto keep = [&](int pid, std::size_t size) {
    Report report;
    report.process.pid = pid;
    processes.keep(report, size);
  };
  const auto pids = [&] {
    std::vector<std::int64_t> all;
    processes.for_each([&](const Report& report) { all.push_back(report.process.pid); });
    return all;
  };
  keep(1, 10);
  keep(2, 10);
  keep(1, 10);
  keep(3, 10);
  EXPECT_EQ(pids(), (std::vector<std::int64_t>{1, 3}));
  EXPECT_EQ(processes.last_of(ProcessKey{2, {}, ""}), nullptr);
  keep(4, 95);
  EXPECT_EQ(pids(), (std::vector<std::int64_t>{4}));
  EXPECT_EQ(processes.forgotten(), 3U);
}

TEST(Histograms, APercentileIsWithinOnePercentOfTheSampleOfItsRank) {
  quorvane::tool::Histogram histogram;
  histogram.buckets = {{-64, 1}, {0, 1}, {65, 97}, {130, 1}};
  EXPECT_NEAR(histogram.percentile(0), -64.5, 0.645);
  EXPECT_EQ(histogram.percentile(0.02), 0);
  EXPECT_NEAR(histogram.percentile(0.99), 64.5, 0.645);
  EXPECT_NEAR(histogram.percentile(1), 129, 1.29);
  histogram.max = 128.5;
  EXPECT_EQ(histogram.percentile(1), 128.5);
}

TEST(Histograms, ADifferenceToSomethingLaterIsNone) {
  using quorvane::tool::Histogram;
  Histogram earlier;
  earlier.buckets = {{1, 2}};
  Histogram later;
  EXPECT_FALSE(difference(later, earlier));
  later.buckets = {{1, 1}, {2, 5}};
  EXPECT_FALSE(difference(later, earlier));
  later.buckets = {{1, 2}, {2, 5}};
  ASSERT_TRUE(difference(later, earlier));
  EXPECT_EQ(difference(later, earlier)->count(), 5U);
}
