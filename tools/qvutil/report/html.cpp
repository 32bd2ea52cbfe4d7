#include "qvutil/report/html.h"

#include <string>

#include "qvutil/output/markup.h"
#include "qvutil/report/gnuplot.h"

namespace quorvane::tool {
namespace {

constexpr std::string_view kStyle = R"(
:root { color-scheme: light dark; --paper: #fff; --ink: #1a1a1a; --line: #d0d0d0; --soft: #5c5c5c;
  --good: #1a7f37; --bad: #b3261e; }
@media (prefers-color-scheme: dark) {
  :root { --paper: #16181c; --ink: #e6e6e6; --line: #3a3f47; --soft: #a0a6ad;
    --good: #57c785; --bad: #ff8a80; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1rem; max-width: 80rem; background: var(--paper);
  color: var(--ink); font: 1rem/1.45 system-ui, sans-serif; }
h1 { font-size: 1.4rem; } h2 { font-size: 1.15rem; margin-top: 2rem; }
h1, h2, h3, p, td, th { overflow-wrap: anywhere; }
.soft { color: var(--soft); } .good { color: var(--good); } .bad { color: var(--bad); }
.plots { display: grid; gap: 1rem; grid-template-columns: repeat(auto-fit, minmax(min(100%, 26rem), 1fr)); }
figure { margin: 0; min-width: 0; } svg { display: block; width: 100%; height: auto; }
.plots svg text { fill: var(--ink); }
.wide { overflow-x: auto; max-width: 100%; } .wide svg { min-width: 45rem; }
table { border-collapse: collapse; width: 100%; }
th, td { padding: .25rem .6rem .25rem 0; text-align: left; border-bottom: 1px solid var(--line);
  vertical-align: top; }
th { overflow-wrap: normal; white-space: nowrap; }
.short { white-space: nowrap; } .number { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
@media (max-width: 40rem) {
  table.cards thead { display: none; }
  table.cards tr { display: block; padding: .5rem 0; border-bottom: 1px solid var(--line); }
  table.cards td { display: flex; justify-content: space-between; gap: 1rem; border: 0;
    padding: .1rem 0; white-space: normal; }
  table.cards td:has(span:empty) { display: none; }
  table.cards td::before { content: attr(data-name); color: var(--soft); flex: none; } }
)";

// Removes what stands from each `begin` up to and with the next `end`.
void remove_all(std::string& text, std::string_view begin, std::string_view end) {
  for (std::size_t at = text.find(begin); at != std::string::npos; at = text.find(begin, at)) {
    const std::size_t last = text.find(end, at + begin.size());
    text.erase(at, last == std::string::npos ? last : last + end.size() - at);
  }
}

// What gnuplot drew as a part of a page: its symbols, which no plot here uses, and its names of
// elements would be there once for each picture.
std::string inline_svg(const std::string& svg) {
  const std::size_t begin = svg.find("<svg");
  std::string text = begin == std::string::npos ? "" : svg.substr(begin);
  remove_all(text, "<defs>", "</defs>");
  remove_all(text, " id=\"gnuplot", "\"");
  remove_all(text, "<title>Gnuplot", "</title>");
  remove_all(text, "<desc>", "</desc>");
  return text;
}

}  // namespace

std::string html_page(std::string_view title, std::string_view body) {
  std::string page = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  page += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>";
  page += markup_text(title);
  page += "</title>\n<style>";
  page += kStyle;
  page += "</style>\n</head>\n<body>\n<h1>" + markup_text(title) + "</h1>\n";
  page += body;
  return page + "</body>\n</html>\n";
}

std::string html_of(const std::vector<Panel>& panels) {
  std::string html = "<div class=\"plots\">\n";
  for (const Panel& panel : panels) {
    html += "<figure aria-label=\"" + markup_text(panel.metric) + "\">";
    html += inline_svg(run_gnuplot(plot_script({panel}, PlotForm::inline_svg)));
    html += "</figure>\n";
  }
  return html + "</div>\n";
}

}  // namespace quorvane::tool
