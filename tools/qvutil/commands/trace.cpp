#include "qvutil/commands/trace.h"

#include <string>
#include <string_view>

#include "qvutil/output/json.h"
#include "qvutil/output/new_file.h"
#include "qvutil/output/table.h"
#include "qvutil/output/text.h"
#include "qvutil/trace/reader.h"
#include "qvutil/trace/summary.h"
#include "qvutil/trace/svg.h"
#include "qvutil/trace/timeline.h"

namespace quorvane::tool {
namespace {

bool ends_with(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Hands each event to `take`, and says what was left out.
template <typename Take>
Outcome read_all(Console& console, const TraceOptions& options, Take take) {
  Outcome outcome = Outcome::fine;
  for (const std::string& file : options.files) {
    TraceReader reader(console, file);
    while (const auto event = reader.next()) {
      take(*event);
    }
    if (reader.damaged_lines() != 0) {
      console.err() << "qvutil trace: " << shown(file) << ": " << grouped(reader.damaged_lines())
                    << " lines are no events, and left out" << std::endl;
      outcome = Outcome::found;
    }
    if (reader.is_cut_short()) {
      console.err() << "qvutil trace: " << shown(file)
                    << ": the last line is cut short, and left out" << std::endl;
    }
  }
  return outcome;
}

// In the form in which libqvtrace.so writes, but closed.
Outcome write_json(Console& console, const TraceOptions& options) {
  NewFile file(options.output);
  char before = '[';
  const Outcome outcome = read_all(console, options, [&](const TraceEvent& event) {
    file.out() << before << event.json << '\n';
    before = ',';
  });
  file.out() << (before == '[' ? "[]\n" : "]\n");
  file.finish();
  return outcome;
}

Outcome write_picture(Console& console, const TraceOptions& options) {
  Timeline timeline;
  const Outcome outcome =
      read_all(console, options, [&](const TraceEvent& event) { timeline.add(event); });
  NewFile file(options.output);
  write_svg(file.out(), timeline.picture());
  file.finish();
  return outcome;
}

std::string time_of(double nanoseconds) { return duration_text(nanoseconds / 1e9); }

void print_json_lines(Console& console, const TraceSummary& summary) {
  for (const auto& [name, times] : summary.rows()) {
    print_json(console, {{"operation", json_of_bytes(name)},
                         {"count", times->count()},
                         {"total_us", times->total() / 1e3},
                         {"mean_us", times->mean() / 1e3},
                         {"p99_us", static_cast<double>(times->p99()) / 1e3},
                         {"max_us", static_cast<double>(times->max()) / 1e3}});
  }
}

void print_table(Console& console, const TraceSummary& summary) {
  using enum Table::Align;
  Table table({{"OPERATION"},
               {"COUNT", right},
               {"TOTAL", right},
               {"MEAN", right},
               {"P99", right},
               {"MAX", right}});
  for (const auto& [name, times] : summary.rows()) {
    table.row({shown(name), grouped(times->count()), time_of(times->total()),
               time_of(times->mean()), time_of(static_cast<double>(times->p99())),
               time_of(static_cast<double>(times->max()))});
  }
  table.print(console);
}

Outcome print_summary(Console& console, const TraceOptions& options) {
  TraceSummary summary;
  const Outcome outcome =
      read_all(console, options, [&](const TraceEvent& event) { summary.add(event); });
  if (console.json()) {
    print_json_lines(console, summary);
  } else {
    print_table(console, summary);
  }
  return outcome;
}

}  // namespace

Outcome trace(Console& console, const TraceOptions& options) {
  if (options.output.empty()) {
    return print_summary(console, options);
  }
  if (ends_with(options.output, ".json")) {
    return write_json(console, options);
  }
  if (ends_with(options.output, ".svg")) {
    return write_picture(console, options);
  }
  throw Failure("neither .json nor .svg: " + shown(options.output));
}

}  // namespace quorvane::tool
