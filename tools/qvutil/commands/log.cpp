#include "qvutil/commands/log.h"

#include <chrono>
#include <string>
#include <thread>

#include "qvutil/log/filter.h"
#include "qvutil/log/follower.h"
#include "qvutil/log/logs.h"
#include "qvutil/log/record.h"
#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/output/written.h"

namespace quorvane::tool {
namespace {

void set_up(Filter& filter, const LogOptions& options) {
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  const std::int64_t now =
      std::chrono::duration_cast<std::chrono::microseconds>(since_1970).count();
  if (!options.level.empty()) {
    filter.level = level_of(options.level);
  }
  filter.pid = options.pid;
  filter.since = options.since.empty() ? "" : record_time(options.since, now);
  filter.until = options.until.empty() ? "" : record_time(options.until, now);
  if (!options.match.empty()) {
    filter.match(options.match);
  }
}

Colour colour_of(Level level) {
  switch (level) {
    case Level::off:
    case Level::error:
      return Colour::red;
    case Level::warn:
      return Colour::yellow;
    case Level::info:
      return Colour::none;
    case Level::trace:
    case Level::debug:
    case Level::all:
      break;
  }
  return Colour::dim;
}

void print_json_line(Console& console, const LogRecord& record) {
  Json line;
  if (const auto head = record.head()) {
    line = {{"time", head->time},
            {"level", name_of(head->level)},
            {"pid", head->pid},
            {"tid", head->tid},
            {"message", json_of_bytes(record.message())}};
  } else {
    line["other"] = json_of_bytes(record.message());
  }
  line["file"] = json_of_bytes(record.file);
  print_json(console, line);
}

// One line each, so that no message looks like a record of its own.
void print_on_terminal(Console& console, const LogRecord& record) {
  std::string_view text = record.bytes;
  if (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  const auto head = record.head();
  console.out() << console.paint(head ? colour_of(head->level) : Colour::dim, shown(text)) << '\n';
}

void print(Console& console, const LogRecord& record) {
  if (console.json()) {
    print_json_line(console, record);
  } else if (console.style().columns != 0) {
    print_on_terminal(console, record);
  } else {
    console.out() << record.bytes << (record.bytes.back() == '\n' ? "" : "\n");
  }
  expect_written(console);
}

[[noreturn]] void follow(Console& console, const Filter& filter, Logs& logs) {
  Follower follower(logs);
  for (;;) {
    while (const auto record = follower.next()) {
      if (filter.wants(*record)) {
        print(console, *record);
      }
    }
    console.out().flush();
    expect_written(console);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

}  // namespace

Outcome log(Console& console, const LogOptions& options) {
  Filter filter;
  set_up(filter, options);
  Logs logs(console, options.files, options.follow);
  std::uint64_t hidden = 0;  // bytes that are no records, and that the filter leaves out
  while (const auto record = logs.next()) {
    if (filter.wants(*record)) {
      print(console, *record);
    } else if (filter.wants_only_records() && !record->head()) {
      hidden += record->bytes.size();
    }
  }
  if (hidden != 0) {
    console.err() << "qvutil log: " << size_text(hidden) << " that are no records are not shown"
                  << std::endl;
  }
  if (options.follow) {
    follow(console, filter, logs);
  }
  return logs.has_damage() ? Outcome::found : Outcome::fine;
}

}  // namespace quorvane::tool
