#include "qvutil/report/sections.h"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <deque>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "qvutil/log/logs.h"
#include "qvutil/output/markup.h"
#include "qvutil/output/progress.h"
#include "qvutil/output/text.h"
#include "qvutil/report/html.h"
#include "qvutil/report/html_table.h"
#include "qvutil/report/plots.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/each_entry.h"
#include "qvutil/store/lock.h"
#include "qvutil/store/lock_table.h"
#include "qvutil/store/survey.h"
#include "qvutil/trace/reader.h"
#include "qvutil/trace/svg.h"
#include "qvutil/trace/timeline.h"

namespace quorvane::tool {
namespace {

constexpr std::size_t kMostErrors = 20;
constexpr std::size_t kLongestMessage = 2000;

bool is_bad(State state) {
  return state == State::damaged || state == State::other_version || state == State::unreadable;
}

const char* class_of(State state) {
  return is_bad(state) ? "bad" : state == State::whole ? "good" : "";
}

// "12 caches, 3.4 MB".
std::string total_text(std::size_t caches, std::uint64_t bytes) {
  return grouped(caches) + (caches == 1 ? " cache, " : " caches, ") + size_text(bytes);
}

std::string age_text(const Survey& survey) {
  const auto age = std::max<std::int64_t>(std::time(nullptr) - survey.changed, 0);
  return survey.changed == 0 ? "" : duration_text(static_cast<double>(age));
}

// As much of a message as there is room for.
std::string beginning_of(std::string_view message) {
  return message.size() <= kLongestMessage
             ? std::string(message)
             : std::string(message.substr(0, kLongestMessage)) + "...";
}

}  // namespace

Section caches_section(Console& console, const std::string& root) {
  Section section;
  HtmlTable table({"Name", "Kind", "Entries", "Bytes", "Age", "State", "Locked by"});
  std::uint64_t bytes = 0;
  const std::vector<CacheFiles> caches = caches_of(root);
  const LockTable locks = LockTable::read();
  for (const CacheFiles& files : caches) {
    Progress progress(console, "looking at " + shown(files.name), bytes_to_scan(files));
    const Survey found = survey(files, progress);
    const std::optional<pid_t> holder = locks.holder_of(files.lock_file());
    const std::string reason = found.reason.empty() ? "" : ": " + found.reason;
    table.row({{files.name, ""},
               {name_of(files.kind), ""},
               {grouped(found.entries), "number"},
               {size_text(found.bytes), "number"},
               {age_text(found), "number"},
               {name_of(found.state) + reason, class_of(found.state)},
               {holder ? process_text(*holder) : "", ""}});
    section.has_damage |= is_bad(found.state);
    bytes += found.bytes;
  }
  section.html = "<h2>Caches in " + markup_text(root) + "</h2>\n<p class=\"soft\">" +
                 total_text(caches.size(), bytes) + "</p>\n" + (table.empty() ? "" : table.html());
  return section;
}

Section statistics_section(Console& console, const std::vector<std::string>& files,
                           const std::vector<std::string>& gauges) {
  const Plots plots = plots_of(console, {.files = files, .metrics = {}, .gauges = gauges});
  std::string html = "<h2>Statistics</h2>\n";
  if (plots.damaged != 0) {
    html += "<p class=\"bad\">Lines that are no reports: " + grouped(plots.damaged) + "</p>\n";
  }
  html += plots.panels.empty() ? "<p class=\"soft\">Nothing to plot.</p>\n" : html_of(plots.panels);
  return {html, plots.damaged != 0};
}

Section timeline_section(Console& console, const std::vector<std::string>& traces) {
  Timeline timeline;
  std::uint64_t damaged = 0;
  for (const std::string& path : traces) {
    TraceReader reader(console, path);
    while (const std::optional<TraceEvent> event = reader.next()) {
      timeline.add(*event);
    }
    damaged += reader.damaged_lines();
  }
  const Picture picture = timeline.picture();
  std::ostringstream html;
  html << "<h2>Timeline</h2>\n";
  if (damaged != 0) {
    html << "<p class=\"bad\">Lines that are no events: " << grouped(damaged) << "</p>\n";
  }
  if (picture.lanes.empty()) {
    html << "<p class=\"soft\">No spans.</p>\n";
  } else {
    html << "<div class=\"wide\">";
    write_svg(html, picture);
    html << "</div>\n";
  }
  return {html.str(), damaged != 0};
}

Section errors_section(Console& console, const std::vector<std::string>& logs) {
  Logs reader(console, logs);
  std::deque<LogRecord> last;
  std::uint64_t errors = 0;
  while (std::optional<LogRecord> record = reader.next()) {
    const auto head = record->head();
    if (!head || head->level != Level::error) {
      continue;
    }
    ++errors;
    last.push_back(*std::move(record));
    if (last.size() > kMostErrors) {
      last.pop_front();
    }
  }
  HtmlTable table({"Time", "Process", "Message"});
  for (auto record = last.rbegin(); record != last.rend(); ++record) {
    const auto head = record->head();
    table.row({{std::string(head->time), "short"},
               {std::to_string(head->pid), "short"},
               {beginning_of(record->message()), ""}});
  }
  return {"<h2>Last errors</h2>\n<p class=\"soft\">" + grouped(errors) +
              (errors == 1 ? " error" : " errors") + " in all</p>\n" +
              (table.empty() ? "" : table.html()),
          reader.has_damage()};
}

}  // namespace quorvane::tool
