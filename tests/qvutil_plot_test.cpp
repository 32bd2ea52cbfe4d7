// qvutil plot: what is told to gnuplot, and the pictures that the real one makes of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "qvutil/report/gnuplot.h"
#include "qvutil/report/plots.h"
#include "support/library_path.h"
#include "support/lines.h"
#include "support/reports.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::tool::Console;
using quorvane::tool::Panel;
using quorvane::tool::plot_script;
using quorvane::tool::PlotForm;
using quorvane::tool::Plots;
using test::histogram_of;
using test::line_of;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string kTool = QV_BINARY_DIR "/bin/qvutil";

class PlotCommand : public testing::Test {
 protected:
  std::string file() const { return dir_.file("reports"); }
  std::string output(const std::string& suffix) const { return dir_.file("out" + suffix); }
  void have(const std::string& text) const { test::write_file(file(), text); }

  // Plots into a file that ends like this.
  test::Ran plot(const std::string& suffix, std::vector<std::string> more = {},
                 const test::Environment& environment = {}) const {
    more.insert(more.begin(), {"plot", file(), "-o", output(suffix)});
    return test::run_program(kTool, more, environment);
  }

  Plots plots(const std::vector<std::string>& metrics = {}) {
    std::ostringstream out;
    Console console(out, err_, {});
    return plots_of(console, {.files = {file()}, .metrics = metrics, .gauges = {}});
  }

  test::TempDir dir_;
  std::ostringstream err_;
};

// The metrics and the titles of their lines.
std::vector<std::string> titles_of(const std::vector<Panel>& panels) {
  std::vector<std::string> titles;
  for (const Panel& panel : panels) {
    std::string title = panel.metric + ":";
    for (const auto& line : panel.lines) {
      title += " [" + line.title + "]";
    }
    titles.push_back(title);
  }
  return titles;
}

// The lines of the data that gnuplot is given for the line with this title.
std::vector<std::string> data_for(const std::string& script, const std::string& title) {
  const std::size_t used = script.rfind("$d", script.find("title '" + title + "'"));
  const std::string name = script.substr(used, script.find(' ', used) - used);
  const std::size_t begin = script.find(name + " << EOD\n") + name.size() + 8;
  return test::lines_of(script.substr(begin, script.find("EOD", begin) - begin));
}

}  // namespace

SCENARIO(have_a_spike_of_47_ms) {
  void* module = quorvane::Module("disk").get();
  const qv_stats_handle_t wait = qv_stats_create_histogram(module, "wait_ms");
  const auto report = [] { quorvane::stats::get_singleton_module()->report_now(); };
  qv_stats_hist_insert(wait, 1, 1000000);
  report();
  qv_stats_hist_insert(wait, 1, 980);
  qv_stats_hist_insert(wait, 47, 20);
  report();
  qv_stats_hist_insert(wait, 1, 1000);
  return 0;
}

TEST_F(PlotCommand, ASpikeShowsInItsIntervalAndNotAfterwards) {
  const test::Ran ran = test::run_scenario(
      "have_a_spike_of_47_ms",
      {{"QV_STATS_REPORT_FILE", file()}, {"LD_LIBRARY_PATH", test::kLibraryPath}});
  ASSERT_TRUE(ran.exited_with(0));
  // As if the three reports had been made 10 seconds apart by a process that began as long before.
  std::string text;
  long ts = 4102444810;  // in 2100
  for (std::string line : test::lines_of(test::read_file(file()))) {
    const std::size_t start = line.find("\"start\":") + 8;
    line.replace(start, line.find(',', start) - start, "4102444800");
    text += "{\"ts\": " + std::to_string(ts) + line.substr(line.find(',')) + "\n";
    ts += 10;
  }
  have(text);
  const std::vector<Panel> panels = plots().panels;
  ASSERT_EQ(panels.size(), 1U);
  ASSERT_EQ(panels[0].lines.size(), 3U);
  const std::string script = plot_script(panels, PlotForm::svg);
  const auto near = [](const std::string& time, double value) {
    return testing::ResultOf(
        [time](const std::string& line) {
          return line.rfind(time + " ", 0) == 0 ? std::stod(line.substr(time.size())) : -1;
        },
        testing::DoubleNear(value, value / 100));
  };
  EXPECT_THAT(data_for(script, panels[0].lines[2].title),
              ElementsAre(near("4102444800", 1), near("4102444810", 1), near("4102444810", 47),
                          near("4102444820", 47), near("4102444820", 1), near("4102444830", 1)));
  EXPECT_THAT(panels[0].lines[2].title, StartsWith("p99, "));
  const double median = panels[0].lines[0].points[1].value;
  EXPECT_NEAR(median, 1, 0.01);
}

TEST_F(PlotCommand, PlotsRatesOfCountersAndValuesOfGauges) {
  const std::string idle = R"(,"idle":0)";
  have(line_of(
           {.ts = 1000, .members = R"("m":{"g":-2,"n":10,"x":0.5)" + idle + "}", .start = "990"}) +
       line_of({.ts = 1010, .members = R"("m":{"g":3,"n":30,"x":2)" + idle + "}", .start = "990"}));
  const std::string script = plot_script(plots().panels, PlotForm::svg);
  EXPECT_THAT(titles_of(plots().panels),
              ElementsAre("m/g: [reader 1234]", "m/n: [reader 1234]", "m/x: [reader 1234]"));
  EXPECT_THAT(script, AllOf(HasSubstr("$d0_0 << EOD\n990 -2\n1000 -2\n1000 3\n1010 3\nEOD\n"),
                            HasSubstr("$d1_0 << EOD\n990 1\n1000 1\n1000 2\n1010 2\nEOD\n"),
                            HasSubstr("set title 'm/n, a second'")));
}

TEST_F(PlotCommand, AChildsInheritedCountsAreNoRate) {
  have(line_of({.ts = 1010,
                .members = R"("m":{"n":1030})",
                .inherited = R"({"m":{"n":1000}})",
                .start = "1000"}));
  EXPECT_THAT(plot_script(plots().panels, PlotForm::svg),
              HasSubstr("<< EOD\n1000 3\n1010 3\nEOD\n"));
}

TEST_F(PlotCommand, SeveralProcessesHaveOnePercentileEach) {
  const std::string members =
      "\"h\":" + histogram_of("1", "2", "2", "2", "[[2.03125,1]]") + ",\"other\":1";
  have(line_of({.pid = 1, .members = members}) + line_of({.pid = 2, .members = members}));
  EXPECT_THAT(titles_of(plots({"h*"}).panels), ElementsAre("h: [p99, reader 1] [p99, reader 2]"));
}

TEST_F(PlotCommand, ShowsTheProcessesAndMetricsThatThereIsRoomForAndSaysSo) {
  std::string text;
  for (int pid = 1; pid <= 9; ++pid) {
    text += line_of({.ts = 1709294400 + pid, .pid = pid, .members = "\"n\":1"});
  }
  have(text);
  const Plots some = plots();
  ASSERT_EQ(some.panels.size(), 1U);
  EXPECT_EQ(some.panels[0].lines.size(), 8U);
  EXPECT_EQ(some.panels[0].lines[0].title, "reader 2");
  EXPECT_THAT(err_.str(), HasSubstr("8 processes that reported last"));

  std::string members = "\"a0\":1";
  for (int i = 1; i < 50; ++i) {
    members += ",\"a" + std::to_string(i) + "\":1";
  }
  have(line_of({.members = members}));
  EXPECT_EQ(plots().panels.size(), 48U);
  EXPECT_THAT(err_.str(), HasSubstr("2 metrics are left out"));
}

TEST(Points, AreBoundedInNumberAndLoseNoSpike) {
  quorvane::tool::Points points;
  for (int i = 0; i < 100000; ++i) {
    points.add({i, i + 1, i == 77777 ? 47.0 : 1.0});
  }
  EXPECT_LE(points.all().size(), quorvane::tool::Points::kMost);
  EXPECT_EQ(points.all().front().from, 0);
  EXPECT_EQ(points.all().back().to, 100000);
  int spikes = 0;
  for (std::size_t i = 0; i < points.all().size(); ++i) {
    const auto& point = points.all()[i];
    EXPECT_EQ(point.from, i == 0 ? 0 : points.all()[i - 1].to);
    if (point.value == 47) {
      EXPECT_TRUE(point.from <= 77777 && 77777 < point.to);
      ++spikes;
    }
  }
  EXPECT_EQ(spikes, 1);
}

// -------------------------------------------------------------------- pictures

TEST_F(PlotCommand, MakesEachFormOfPicture) {
  have(line_of({.members = R"("a":1,"b":2,"c":3,"d":4)"}));
  const test::Ran svg = plot(".svg");
  EXPECT_TRUE(svg.exited_with(0)) << svg.err;
  EXPECT_EQ(svg.out, output(".svg") + ": 4 metrics\n");
  EXPECT_THAT(test::read_file(output(".svg")),
              AllOf(StartsWith("<?xml"), HasSubstr(">reader 1234<"), HasSubstr("</svg>")));
  EXPECT_TRUE(plot(".png").exited_with(0));
  EXPECT_THAT(test::read_file(output(".png")), StartsWith("\x89PNG\r\n"));
  EXPECT_TRUE(plot(".html").exited_with(0));
  EXPECT_THAT(test::read_file(output(".html")),
              AllOf(StartsWith("<!DOCTYPE html>"), HasSubstr("</svg>"), HasSubstr(">d, a second<"),
                    HasSubstr("</html>")));
  EXPECT_EQ(test::names_in(dir_.path()),
            (std::vector<std::string>{"out.html", "out.png", "out.svg", "reports"}));
}

TEST_F(PlotCommand, NamesRunNothing) {
  const std::string touched = dir_.file("touched");
  const std::string evil[] = {"`touch " + touched + "`",
                              "'; system('touch " + touched + "'); '",
                              R"(\"; system(\"touch )" + touched + R"(\") #)",
                              R"(\nsystem(\"touch )" + touched + R"(\")\n)",
                              R"(EOD\nEOD\n! touch )" + touched,
                              "@touch{}_^<script>alert(1)</script>&",
                              "$(touch " + touched + ")",
                              std::string(3000, 'x') + "'"};
  std::string members;
  for (const std::string& name : evil) {
    members += (members.empty() ? "\"" : ",\"") + name + "\":1";
  }
  for (const std::string& program : evil) {
    have(line_of({.members = members, .program = "\"" + program + "\""}));
    for (const char* suffix : {".svg", ".html"}) {
      const test::Ran ran = plot(suffix);
      EXPECT_TRUE(ran.exited_with(0)) << ran.err;
      EXPECT_FALSE(test::exists(touched)) << program;
      EXPECT_THAT(test::read_file(output(suffix)),
                  AllOf(Not(HasSubstr("<script")), HasSubstr("&lt;script>alert(1)")));
    }
  }
}

TEST_F(PlotCommand, SaysWhatIsMissingWithoutGnuplot) {
  have(line_of({.members = "\"n\":1"}));
  const test::Ran ran = plot(".svg", {}, {{"PATH", dir_.path()}});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_THAT(ran.err, HasSubstr("apt-get install gnuplot-nox"));
  EXPECT_FALSE(test::exists(output(".svg")));
}

TEST_F(PlotCommand, AGnuplotThatFailsLeavesTheOldPicture) {
  have(line_of({.members = "\"n\":1"}));
  test::write_file(
      dir_.file("gnuplot"),
      "#!/bin/sh\necho half; (echo a warning; echo; echo 'no memory'; echo) >&2; exit 3\n");
  ASSERT_EQ(chmod(dir_.file("gnuplot").c_str(), 0755), 0);
  test::write_file(output(".svg"), "old");
  const test::Ran ran = plot(".svg", {}, {{"PATH", dir_.path()}});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_THAT(ran.err, HasSubstr("gnuplot couldn't make the picture: no memory\n"));
  EXPECT_EQ(test::read_file(output(".svg")), "old");
}

TEST_F(PlotCommand, SaysWhyItCannotWriteThePicture) {
  have(line_of({.members = "\"n\":1"}));
  const test::Ran unknown = plot(".gif");
  EXPECT_TRUE(unknown.exited_with(2));
  EXPECT_THAT(unknown.err, HasSubstr("must end in .svg, .png or .html"));
  const test::Ran missing =
      test::run_program(kTool, {"plot", file(), "-o", dir_.file("missing/out.svg")});
  EXPECT_TRUE(missing.exited_with(2));
  EXPECT_THAT(missing.err, HasSubstr("No such file or directory"));
  ASSERT_EQ(symlink("/dev/full", output(".svg").c_str()), 0);
  const test::Ran full = plot(".svg");
  EXPECT_TRUE(full.exited_with(2));
  EXPECT_THAT(full.err, HasSubstr("can't write "));
}

TEST_F(PlotCommand, SaysThatThereIsNothingToPlot) {
  have(line_of({.members = "\"n\":1", .start = "null"}));
  const test::Ran ran = plot(".svg");
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_THAT(ran.err, HasSubstr("nothing to plot"));
}

TEST_F(PlotCommand, DamagedLinesAreFoundAndTheRestPlotted) {
  have("x\n" + line_of({.members = "\"n\":1"}));
  EXPECT_TRUE(plot(".svg").exited_with(1));
  EXPECT_TRUE(test::exists(output(".svg")));
}
