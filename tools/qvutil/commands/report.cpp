#include "qvutil/commands/report.h"

#include <ctime>
#include <string>

#include "qvutil/output/json.h"
#include "qvutil/output/new_file.h"
#include "qvutil/output/text.h"
#include "qvutil/report/html.h"
#include "qvutil/report/sections.h"

namespace quorvane::tool {

Outcome report(Console& console, const ReportOptions& options) {
  std::string body = "<p class=\"soft\">" + time_text(std::time(nullptr)) + "</p>\n";
  bool has_damage = false;
  const auto add = [&](const Section& section) {
    body += section.html;
    has_damage |= section.has_damage;
  };
  for (const std::string& root : options.roots) {
    add(caches_section(console, root));
  }
  if (!options.stats.empty()) {
    add(statistics_section(console, options.stats, options.gauges));
  }
  if (!options.traces.empty()) {
    add(timeline_section(console, options.traces));
  }
  if (!options.logs.empty()) {
    add(errors_section(console, options.logs));
  }
  NewFile file(options.output);
  file.out() << html_page("Report", body);
  file.finish();
  if (console.json()) {
    print_json(console, {{"file", json_of_bytes(options.output)}});
  } else {
    console.out() << shown(options.output) << '\n';
  }
  return has_damage ? Outcome::found : Outcome::fine;
}

}  // namespace quorvane::tool
