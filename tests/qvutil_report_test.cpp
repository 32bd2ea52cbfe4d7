// qvutil report: the page, also as a browser shows it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>

#include <filesystem>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "qvutil/output/json.h"
#include "qvutil/output/markup.h"
#include "qvutil/report/html.h"
#include "support/reports.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::tool::Json;
using test::histogram_of;
using test::line_of;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const std::string kTool = QV_BINARY_DIR "/bin/qvutil";
const std::string kEvil = "<script>document.title='run'</script>\"'&";

void make_cache(const std::string& root, const std::string& name) {
  static auto& no_limit = *new quorvane::cache::CleanupController(0);
  quorvane::cache::StoreOptions options;
  options.root = root;
  options.name = name;
  options.controller = &no_limit;
  const auto store = quorvane::cache::make_store(options);
  quorvane::cache::EntryMap loaded;
  ASSERT_TRUE(store->try_load(loaded));
  ASSERT_TRUE(store->try_store_diff(test::entry_map({{"key", {"value"}}})));
}

class ReportCommand : public testing::Test {
 protected:
  ReportCommand() {
    std::filesystem::create_directory(root());
    test::write_file(stats(), reports());
  }

  std::string root() const { return dir_.file("root"); }
  std::string stats() const { return dir_.file("stats"); }
  std::string trace() const { return dir_.file("trace"); }
  std::string log() const { return dir_.file("log"); }
  std::string page() const { return dir_.file("page.html"); }

  static std::string reports() {
    std::string text;
    for (int i = 1; i < 4; ++i) {
      const std::string n = std::to_string(i);
      text += line_of({.ts = 1709294400 + 60 * i,
                       .members = "\"" + std::string(120, 'm') + "\":{\"reads\":" + n + ",\"" +
                                  "<script>x" + "\":" + n + ",\"wait\":" +
                                  histogram_of(n, n, "1", "1", "[[1.015625," + n + "]]") + "}"});
    }
    return text;
  }

  test::Ran report(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{"report", root(), "-o", page()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return test::run_program(kTool, arguments);
  }

  // A page with everything on it, and much that is too long for a line.
  void make_full_page() const {
    make_cache(root(), "plain");
    make_cache(root(), kEvil.substr(0, kEvil.find('/')) + std::string(100, 'n'));
    write_log_and_trace();
    const test::Ran ran = report({"--stats", stats(), "--trace", trace(), "--log", log()});
    ASSERT_TRUE(ran.exited_with(0)) << ran.err;
    EXPECT_EQ(ran.out, page() + "\n");
  }

  void write_log_and_trace() const {
    std::string log_text;
    for (int i = 0; i < 25; ++i) {
      const std::string number = std::to_string(10 + i);
      log_text += record("ERROR", number, "error " + number + " " + kEvil + std::string(300, 'e'));
      log_text += record("INFO", number, "all is well");
    }
    test::write_file(log(), log_text);
    test::write_file(trace(),
                     R"([{"ph":"M","pid":7,"tid":0,"name":"process_name","args":{"name":"<b>slow"}}
,{"ph":"X","pid":7,"tid":7,"ts":1000.000,"dur":5000.000,"name":"open <i>","args":{"store":"0xa"}}
)");
  }

  static std::string record(const std::string& level, const std::string& second,
                            const std::string& message);

  // What the browser makes of the page: the values of a few expressions.
  // On a screen of this width.
  Json seen(int width, const std::vector<std::string>& options = {}) const;

  test::TempDir dir_;
};

std::string ReportCommand::record(const std::string& level, const std::string& second,
                                  const std::string& message) {
  return "[" + std::string(5 - level.size(), ' ') + level + "] 2024-03-01T12:00:" + second +
         ".000042Z, 1234, 1240, \"" + message + "\"\n";
}

// `text` without the entities of an attribute.
std::string unescaped(std::string text) {
  for (const auto& [entity, character] : std::vector<std::pair<std::string, std::string>>{
           {"&quot;", "\""}, {"&lt;", "<"}, {"&gt;", ">"}, {"&amp;", "&"}}) {
    text = std::regex_replace(text, std::regex(entity), character);
  }
  return text;
}

// The attribute of a page that a browser dumped.
Json data_seen(const test::Ran& browser) {
  const std::string opening = "data-seen=\"";
  const std::size_t at = browser.out.find(opening);
  if (at == std::string::npos) {
    ADD_FAILURE() << "The browser shows nothing: " << browser.err;
    return Json::object();
  }
  const std::size_t start = at + opening.size();
  return Json::parse(unescaped(browser.out.substr(start, browser.out.find('"', start) - start)));
}

// A page with a frame as wide as the screen, in which the page is: a browser's own window can't
// be as narrow as a telephone. The page itself has no script.
std::string page_with_frame(const std::string& page, int width) {
  std::string escaped = std::regex_replace(page, std::regex("&"), "&amp;");
  escaped = std::regex_replace(escaped, std::regex("\""), "&quot;");
  return "<!DOCTYPE html><html style=\"color-scheme: light dark\"><body><iframe style=\"border: 0; "
         "height: 900px; width: " +
         std::to_string(width) + "px\" srcdoc=\"" + escaped + R"("></iframe><script>
onload = () => {
  const view = frames[0];
  const page = view.document;
  const style = view.getComputedStyle(page.body);
  const labels = [...page.querySelectorAll('.plots svg text')];
  document.documentElement.setAttribute('data-seen', JSON.stringify({
    width: view.innerWidth,
    overflow: page.documentElement.scrollWidth - page.documentElement.clientWidth,
    paper: style.backgroundColor,
    ink: style.color,
    labels: labels.length,
    label_colours: [...new Set(labels.map((label) => view.getComputedStyle(label).fill))],
    title: page.title,
    headings: [...page.querySelectorAll('h2')].map((heading) => heading.textContent),
    cells: [...page.querySelectorAll('td span')].map((cell) => cell.textContent),
    active: page.querySelectorAll('script, img, iframe, link, object').length,
  }));
};</script></body></html>)";
}

Json ReportCommand::seen(int width, const std::vector<std::string>& options) const {
  const std::string copy = dir_.file("copy.html");
  test::write_file(copy, page_with_frame(test::read_file(page()), width));
  std::vector<std::string> arguments{"--headless",
                                     "--no-sandbox",
                                     "--disable-gpu",
                                     "--disable-quic",
                                     "--no-first-run",
                                     "--disable-background-networking",
                                     "--disable-component-update",
                                     "--disable-sync",
                                     "--disable-dev-shm-usage",
                                     "--user-data-dir=" + dir_.file("browser")};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.insert(arguments.end(), {"--dump-dom", "file://" + copy});
  return data_seen(test::run_program("/usr/bin/chromium", arguments,
                                     {{"HOME", dir_.path()}, {"PATH", "/usr/bin:/bin"}}));
}

}  // namespace

TEST_F(ReportCommand, HasEverythingOnOnePageThatNeedsNoOtherFile) {
  make_full_page();
  const std::string html = test::read_file(page());
  EXPECT_THAT(html, AllOf(HasSubstr("<h2>Caches in "), HasSubstr("<h2>Statistics</h2>"),
                          HasSubstr("<h2>Timeline</h2>"), HasSubstr("<h2>Last errors</h2>")));
  for (const char* reference : {" src=", "url(", "@import", "<link", "<script", "<img", "href=\"h",
                                "href='h", "href=\"/", "<iframe"}) {
    EXPECT_THAT(html, Not(HasSubstr(reference)));
  }
}

TEST_F(ReportCommand, FitsATelephoneAndNamesAreOnlyText) {
  make_full_page();
  const Json page = seen(400);
  EXPECT_EQ(page["width"], 400);
  EXPECT_EQ(page["overflow"], 0);
  EXPECT_EQ(page["title"], "Report");
  EXPECT_EQ(page["active"], 0);
  EXPECT_GT(page["labels"].get<int>(), 20);
  EXPECT_EQ(page["headings"],
            (Json{"Caches in " + root(), "Statistics", "Timeline", "Last errors"}));
  const auto cells = page["cells"].get<std::vector<std::string>>();
  EXPECT_THAT(cells, testing::Contains("whole").Times(2));
  EXPECT_THAT(cells, testing::Contains("<script>document.title='run'<" + std::string(100, 'n')));
  EXPECT_THAT(cells, testing::Contains("error 34 " + kEvil + std::string(300, 'e')));
}

TEST_F(ReportCommand, FitsAWideScreenToo) {
  make_full_page();
  const Json page = seen(1400);
  EXPECT_EQ(page["overflow"], 0);
  EXPECT_EQ(page["paper"], "rgb(255, 255, 255)");
}

TEST_F(ReportCommand, IsDarkWhereThatIsPreferred) {
  make_full_page();
  const Json page = seen(400, {"--blink-settings=preferredColorScheme=0"});
  EXPECT_EQ(page["paper"], "rgb(22, 24, 28)");
  EXPECT_EQ(page["ink"], "rgb(230, 230, 230)");
  EXPECT_EQ(page["label_colours"], Json{"rgb(230, 230, 230)"});
}

TEST_F(ReportCommand, ShowsTheLastErrorsOnly) {
  write_log_and_trace();
  ASSERT_TRUE(report({"--log", log()}).exited_with(0));
  const std::string html = test::read_file(page());
  EXPECT_THAT(html,
              AllOf(HasSubstr("25 errors in all"), HasSubstr("error 34 "), HasSubstr("error 15 "),
                    Not(HasSubstr("error 14 ")), Not(HasSubstr("all is well"))));
  EXPECT_LT(html.find("error 34 "), html.find("error 15 "));
}

TEST_F(ReportCommand, AnEmptyRootHasAPageToo) {
  EXPECT_TRUE(report().exited_with(0));
  EXPECT_THAT(test::read_file(page()), HasSubstr("0 caches, 0 B"));
}

TEST_F(ReportCommand, DamageIsFoundAndShown) {
  make_cache(root(), "hurt");
  const std::string data = test::read_file(root() + "/dat_hurt");
  ASSERT_FALSE(data.empty());
  test::write_file(root() + "/dat_hurt", std::string(data.size(), 'x'));
  EXPECT_TRUE(report().exited_with(1));
  EXPECT_THAT(test::read_file(page()), HasSubstr("class=\"bad\""));
}

TEST_F(ReportCommand, DamagedLinesAreFound) {
  test::write_file(stats(), "x\n" + reports());
  EXPECT_TRUE(report({"--stats", stats()}).exited_with(1));
  EXPECT_THAT(test::read_file(page()), HasSubstr("Lines that are no reports: 1"));
}

TEST_F(ReportCommand, WhatCantBeReadLeavesTheOldPage) {
  test::write_file(page(), "old");
  const std::string missing = dir_.file("missing");
  for (const std::vector<std::string>& more : std::vector<std::vector<std::string>>{
           {missing}, {"--stats", missing}, {"--trace", missing}, {"--log", missing}}) {
    const test::Ran ran = report(more);
    EXPECT_TRUE(ran.exited_with(2));
    EXPECT_THAT(ran.err, HasSubstr("No such file or directory"));
  }
  EXPECT_EQ(test::read_file(page()), "old");
  EXPECT_TRUE(test::run_program(kTool, {"report", root(), "-o", missing + "/page"}).exited_with(2));
}

TEST(HtmlText, HasNoMarkupAndNoControlCharacters) {
  EXPECT_EQ(quorvane::tool::markup_text("<a b=\"c\">&'\x1b\xff"),
            "&lt;a b=&quot;c&quot;&gt;&amp;&#39;\\x1b\\xff");
}
