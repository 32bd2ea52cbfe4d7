// qvutil trace, on the traces of real programs and on hostile ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "qvutil/commands/trace.h"
#include "qvutil/trace/reader.h"
#include "qvutil/trace/summary.h"
#include "qvutil/trace/timeline.h"
#include "support/indexed_cache.h"
#include "support/json.h"
#include "support/lines.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/slow_pipe.h"
#include "support/temp_dir.h"

namespace {

using nlohmann::json;
using quorvane::tool::Console;
using quorvane::tool::Failure;
using quorvane::tool::Outcome;
using quorvane::tool::TraceOptions;
using test::Ran;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

std::string process(int pid, const std::string& name) {
  return R"({"ph":"M","pid":)" + std::to_string(pid) +
         R"(,"tid":0,"name":"process_name","args":{"name":")" + name + "\"}}\n";
}

std::string span(int pid, const std::string& name, const std::string& start,
                 const std::string& duration, int tid = 0) {
  return R"(,{"ph":"X","pid":)" + std::to_string(pid) +
         ",\"tid\":" + std::to_string(tid == 0 ? pid : tid) + ",\"ts\":" + start +
         ",\"dur\":" + duration + ",\"name\":\"" + name + "\",\"args\":{\"store\":\"0xa\"}}\n";
}

struct Printed {
  std::string out;
  std::string err;
  Outcome outcome = Outcome::failed;
};

Printed trace_of(const TraceOptions& options, bool is_json = false) {
  std::ostringstream out;
  std::ostringstream err;
  Console console(out, err, {.json = is_json});
  const Outcome outcome = quorvane::tool::trace(console, options);
  return {out.str(), err.str(), outcome};
}

std::string failure_of(const TraceOptions& options) {
  try {
    trace_of(options);
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "";
}

class TraceTool : public testing::Test {
 protected:
  std::string file(const std::string& name) const { return dir_.file(name); }
  std::string write(const std::string& name, const std::string& bytes) const {
    test::write_file(file(name), bytes);
    return file(name);
  }
  json merged(const std::vector<std::string>& files) const {
    EXPECT_EQ(trace_of({files, file("all.json")}).outcome, Outcome::fine);
    return json::parse(test::read_file(file("all.json")));
  }
  std::string picture(const std::vector<std::string>& files) const {
    trace_of({files, file("all.svg")});
    return test::read_file(file("all.svg"));
  }

  test::TempDir dir_;
};

std::size_t count_of(const std::string& part, const std::string& text) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
    ++count;
  }
  return count;
}

// --- traces of programs ---

SCENARIO(store_and_find) {
  const auto cache = test::open_cache(arguments.at(0));
  for (int i = 0; i < 50; ++i) {
    test::add(*cache, arguments.at(1) + std::to_string(i), "value");
  }
  return cache->flush() ? 0 : 1;
}

TEST_F(TraceTool, JoinsTheTracesOfEightProcesses) {
  const test::TempDir root;
  std::vector<pid_t> children;
  std::vector<std::string> files;
  std::set<int> pids;
  for (int i = 0; i < 8; ++i) {
    files.push_back(file("trace" + std::to_string(i)));
    const std::string key = "key" + std::to_string(i);
    children.push_back(test::in_child([&] {
      setenv("QV_TRACE_FILE", files.back().c_str(), 1);
      setenv("QV_LOG_FILE", "/dev/null", 1);
      setenv("LD_PRELOAD", QV_TRACE_LIBRARY, 1);
      setenv("ASAN_OPTIONS", test::with_option("ASAN_OPTIONS", "verify_asan_link_order=0").c_str(),
             1);
      execl("/proc/self/exe", "test", "--scenario", "store_and_find", root.path().c_str(),
            key.c_str(), nullptr);
      return 1;
    }));
  }
  for (const pid_t child : children) {
    EXPECT_EQ(test::wait_for(child), 0);
    pids.insert(child);
  }
  const json all = merged(files);
  std::set<int> named;
  std::set<int> flushed;
  for (const json& event : all) {
    if (event["ph"] == "M") {
      named.insert(event["pid"].get<int>());
    } else if (event["name"] == "store_flush") {
      flushed.insert(event["pid"].get<int>());
    }
  }
  EXPECT_EQ(named, pids);
  EXPECT_EQ(flushed, pids);
  const std::string svg = picture(files);
  EXPECT_EQ(count_of("class=\"process\"", svg), 8U);
  EXPECT_EQ(count_of(">main thread<", svg), 8U);
  EXPECT_THAT(trace_of({files, ""}).out, HasSubstr("\nstore_open"));
}

// --- one trace of several ---

TEST_F(TraceTool, LeavesEachEventAsItWas) {
  const std::string a =
      write("a", "[" + process(1, "one") + span(1, "find", "5012345.678", "61.204"));
  const std::string b = write("b", "[" + process(2, "two") + span(2, "flush", "1.000", "2.000") +
                                       ",{\"ph\":\"X\",\"pid\":2,\"ti");
  EXPECT_EQ(trace_of({{a, b}, file("all.json")}).err,
            "qvutil trace: " + b + ": the last line is cut short, and left out\n");
  EXPECT_EQ(test::read_file(file("all.json")),
            "[" + process(1, "one") + span(1, "find", "5012345.678", "61.204") + "," +
                process(2, "two") + span(2, "flush", "1.000", "2.000") + "]\n");
}

TEST_F(TraceTool, ReadsWhatItHasWritten) {
  const std::string a = write("a", "[" + process(1, "one") + span(1, "find", "1.000", "2.000"));
  const json once = merged({a});
  write("once", test::read_file(file("all.json")));
  EXPECT_EQ(merged({file("once")}), once);
  EXPECT_EQ(merged({file("all.json")}), once);  // also in place
}

TEST_F(TraceTool, OfEmptyFilesIsEmpty) {
  const std::string empty = write("a", "");
  EXPECT_EQ(merged({empty}), json::array());
  EXPECT_THAT(picture({empty}), testing::EndsWith("</svg>\n"));
  EXPECT_EQ(test::lines_of(trace_of({{empty}, ""}).out).size(), 1U);
}

TEST_F(TraceTool, CountsLinesThatAreNoEvents) {
  const std::string good = span(1, "find", "1", "2");
  std::string bad;
  for (const std::string line :
       {"nonsense", "{}", "[]", R"({"ph":"X","pid":1,"tid":1,"ts":-1,"dur":1,"name":"x"})",
        R"({"ph":"X","pid":1,"tid":1,"ts":1,"dur":1e300,"name":"x"})",
        R"({"ph":"X","pid":"1","tid":1,"ts":1,"dur":1,"name":"x"})", R"({"ph":"X","pid":1,"ts":1})",
        "{\"ph\":\"X\",\"name\":\"\xff\"}"}) {
    bad += "," + line + "\n";
  }
  bad += "," + std::string(70'000, '[') + "\n";
  const std::string path = write("a", "[" + process(1, "p") + good + bad + good);
  const Printed printed = trace_of({{path}, file("all.json")});
  EXPECT_EQ(printed.outcome, Outcome::found);
  EXPECT_EQ(printed.err, "qvutil trace: " + path + ": 8 lines are no events, and left out\n");
  EXPECT_EQ(json::parse(test::read_file(file("all.json"))).size(), 3U);
}

TEST_F(TraceTool, SurvivesHostileFiles) {
  const std::string whole = "[" + process(1, "p") + span(1, "find", "1", "2") +
                            span(1, "flush", "2.5", "0.5", 7) + process(3, "q");
  std::mt19937 random(3);
  for (int round = 0; round < 200; ++round) {
    std::string bytes = whole;
    for (int i = 0; i < 3; ++i) {
      bytes[1 + random() % (bytes.size() - 1)] = static_cast<char>(random() % 256);
    }
    bytes.resize(1 + random() % bytes.size());
    const std::string path = write("a", bytes);
    trace_of({{path}, file("all.json")});
    EXPECT_TRUE(json::accept(test::read_file(file("all.json")))) << bytes;
    trace_of({{path}, file("all.svg")});
    trace_of({{path}, ""});
  }
}

TEST_F(TraceTool, SaysWhyItFails) {
  const std::string log = write("a", "[ INFO] no trace");
  const std::string text = write("b", "text");
  EXPECT_EQ(failure_of({{text}, ""}), text + " is no trace");
  EXPECT_EQ(failure_of({{file("none")}, ""}),
            "can't read " + file("none") + ": No such file or directory");
  EXPECT_THAT(failure_of({{dir_.path()}, ""}), HasSubstr(dir_.path()));
  EXPECT_EQ(failure_of({{text}, "x.png"}), "neither .json nor .svg: x.png");
  const std::string good = write("c", "[" + process(1, "p"));
  EXPECT_EQ(failure_of({{good}, "/none/x.json"}),
            "can't write /none/x.json: No such file or directory");
}

SCENARIO(merge_beyond_limit) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{100, 100};
  setrlimit(RLIMIT_FSIZE, &limit);
  std::printf("%s", failure_of({{arguments.at(0)}, arguments.at(1)}).c_str());
  return 0;
}

TEST_F(TraceTool, LeavesTheOldFileIfTheDiskIsFull) {
  std::string spans;
  for (int i = 0; i < 10; ++i) {
    spans += span(1, "find", "1", "2");
  }
  const std::string path = write("a", "[" + process(1, "p") + spans);
  for (const std::string name : {"all.json", "all.svg"}) {
    write(name, "old");
    const auto before = test::names_in(dir_.path());
    const Ran ran = test::run_scenario("merge_beyond_limit", {{"QV_LOG_FILE", "/dev/null"}},
                                       {path, file(name)});
    EXPECT_THAT(test::names_in(dir_.path()), testing::ContainerEq(before));
    EXPECT_EQ(test::read_file(file(name)), "old");
  }
}

// --- the table ---

TEST_F(TraceTool, SumsUpByName) {
  std::string text = "[" + process(1, "p");
  for (int i = 1; i <= 100; ++i) {
    text += span(1, "find", "1", i < 100 ? "1.000" : "47.000");
  }
  const std::string path = write("a", text + span(1, "flush", "1", "20000.5"));
  EXPECT_EQ(trace_of({{path}, ""}).out,
            "OPERATION  COUNT   TOTAL    MEAN     P99    MAX\n"
            "flush          1   20 ms   20 ms   20 ms  20 ms\n"
            "find         100  146 us  1.5 us  1.0 us  47 us\n");
  const auto lines = test::lines_of(trace_of({{path}, ""}, true).out);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(json::parse(lines[0])["max_us"], 20000.5);
  EXPECT_EQ(json::parse(lines[1])["count"], 100);
}

TEST_F(TraceTool, HasTimesBelowAMicrosecond) {
  const std::string out =
      trace_of({{write("a", "[" + process(1, "a") + span(1, "find", "1.0", "0.4"))}, ""}).out;
  EXPECT_THAT(out, HasSubstr("400 ns"));
  EXPECT_THAT(out, Not(HasSubstr("0 s")));
}

TEST(TraceDurations, HaveTheirPercentileWithinAHundredth) {
  std::mt19937_64 random(5);
  for (const int bits : {4, 8, 9, 20, 40, 51}) {
    quorvane::tool::Durations durations;
    std::vector<std::int64_t> all;
    for (int i = 0; i < 1000; ++i) {
      all.push_back(static_cast<std::int64_t>(random() % (std::uint64_t{1} << bits)));
      durations.add(all.back());
    }
    std::sort(all.begin(), all.end());
    EXPECT_GE(durations.p99(), all[989]) << bits;
    EXPECT_LE(static_cast<double>(durations.p99()), static_cast<double>(all[989]) * 1.01) << bits;
    EXPECT_EQ(durations.max(), all.back());
  }
}

// --- the picture ---

TEST_F(TraceTool, DrawsALaneForEachThreadAndASpanWithinAnother) {
  const std::string svg = picture(
      {write("a", "[" + process(1, "builder") + span(1, "outer", "0", "1000") +
                      span(1, "inner", "250", "500") + span(1, "else", "1000", "1000", 7))});
  EXPECT_THAT(svg, HasSubstr(">builder 1<"));
  EXPECT_THAT(svg, HasSubstr(">main thread<"));
  EXPECT_THAT(svg, HasSubstr(">thread 7<"));
  EXPECT_THAT(svg, HasSubstr("x=\"150.0\" y=\"50.0\" width=\"415.0\""));  // half of the plot
  EXPECT_THAT(svg, HasSubstr("x=\"253.8\" y=\"70.0\" width=\"207.5\""));  // one row below
  EXPECT_THAT(svg, HasSubstr("x=\"565.0\" y=\"98.0\" width=\"415.0\""));  // the other lane
  EXPECT_THAT(svg, HasSubstr(">0.0 ms<"));
  EXPECT_THAT(svg, HasSubstr(">2.0<"));
  EXPECT_THAT(svg, HasSubstr("<title>inner, 500 us {&quot;store&quot;:&quot;0xa&quot;}</title>"));
}

TEST_F(TraceTool, DrawsHostileNamesAsText) {
  const std::string svg = picture({write("a", "[" + process(1, "<script>\\u0000\\ufffe") +
                                                  span(1, "a&b\\\"'<i>\\u001b", "0", "1000"))});
  EXPECT_THAT(svg, Not(HasSubstr("<script")));
  EXPECT_THAT(svg, HasSubstr("&lt;script&gt;"));
  EXPECT_THAT(svg, Not(HasSubstr("<i>")));
  const std::string command =
      "python3 -c 'import sys,xml.dom.minidom as m; m.parse(sys.argv[1])' '" + file("all.svg") +
      "'";
  EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST_F(TraceTool, DrawsABoundedPartOfAHugeTrace) {
  std::ofstream big(file("a"), std::ios::binary);
  big << "[" << process(1, "p");
  constexpr int kSpans = 20'000;
  for (int i = 0; i < kSpans; ++i) {
    big << span(1, "s" + std::to_string(i % 100), std::to_string(i * 10), i % 1000 == 0 ? "9" : "1",
                1 + i % 100);
  }
  big.close();
  const std::string svg = picture({file("a")});
  EXPECT_LT(svg.size(), 600'000U);
  EXPECT_EQ(count_of(", 9.0 us ", svg), 20U);  // none of the longest is missing
  const std::size_t drawn = count_of("<title>s", svg);
  EXPECT_LE(drawn, 2000U);
  std::string left = std::to_string(kSpans - drawn);
  left.insert(left.size() - 3, " ");
  EXPECT_THAT(svg, HasSubstr(">" + left + " more spans: "));
}

TEST(QvutilTrace, ShowsItsProgressOnATerminal) {
  std::string text = "[" + process(7, "reader");
  for (int i = 0; i < 2000; ++i) {
    text += span(7, "store_find", std::to_string(i), "1");
  }
  const test::TempDir dir;
  const test::SlowPipe pipe(dir.file("pipe"), text);
  std::ostringstream out;
  std::ostringstream err;
  Console::Style style;
  style.progress = true;
  Console console(out, err, style);
  TraceOptions options;
  options.files = {dir.file("pipe")};
  quorvane::tool::trace(console, options);
  EXPECT_THAT(err.str(), HasSubstr("reading " + dir.file("pipe") + ": "));
}

}  // namespace
