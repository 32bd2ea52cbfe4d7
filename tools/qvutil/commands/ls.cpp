#include "qvutil/commands/ls.h"

#include <algorithm>
#include <ctime>
#include <optional>

#include "qvutil/output/json.h"
#include "qvutil/output/progress.h"
#include "qvutil/output/table.h"
#include "qvutil/output/text.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/each_entry.h"
#include "qvutil/store/lock.h"
#include "qvutil/store/lock_table.h"
#include "qvutil/store/survey.h"

namespace quorvane::tool {
namespace {

struct Line {
  CacheFiles files;
  Survey survey;
  std::optional<pid_t> holder;
};

bool is_bad(State state) {
  return state == State::damaged || state == State::other_version || state == State::unreadable;
}

Colour colour_of(State state) {
  return is_bad(state) ? Colour::red : state == State::whole ? Colour::green : Colour::yellow;
}

Line line_of(const CacheFiles& files, const LockTable& locks, Progress& progress) {
  Line line{files, survey(files, progress), locks.holder_of(files.lock_file())};
  if (line.survey.state == State::busy && !line.holder) {
    line.holder = holder_of(files);
  }
  return line;
}

std::uint64_t bytes_of(const std::vector<CacheFiles>& caches) {
  std::uint64_t bytes = 0;
  for (const CacheFiles& files : caches) {
    bytes += bytes_to_scan(files);
  }
  return bytes;
}

void add_row(Table& table, const Line& line) {
  const Survey& survey = line.survey;
  const auto age = std::max<std::int64_t>(std::time(nullptr) - survey.changed, 0);
  const bool is_known = survey.changed != 0;
  table.row({shown(line.files.name),
             name_of(line.files.kind),
             grouped(survey.entries),
             size_text(survey.bytes),
             is_known ? duration_text(static_cast<double>(age)) : "",
             {name_of(survey.state), colour_of(survey.state)},
             line.holder ? process_text(*line.holder) : ""});
}

Json json_of(const Line& line) {
  Json json{{"name", json_of_bytes(line.files.name)}, {"kind", name_of(line.files.kind)},
            {"entries", line.survey.entries},         {"bytes", line.survey.bytes},
            {"changed", line.survey.changed},         {"state", name_of(line.survey.state)}};
  if (!line.survey.reason.empty()) {
    json["reason"] = line.survey.reason;
  }
  if (line.holder) {
    json["lock"] =
        Json{{"pid", *line.holder}, {"program", json_of_bytes(program_of(*line.holder))}};
  }
  return json;
}

}  // namespace

Outcome ls(Console& console, const LsOptions& options) {
  using Align = Table::Align;
  const std::string root = root_or_default(options.root);
  const std::vector<CacheFiles> caches = caches_of(root);
  const LockTable locks = LockTable::read();
  Table table({{"NAME"},
               {"KIND"},
               {"ENTRIES", Align::right},
               {"BYTES", Align::right},
               {"AGE", Align::right},
               {"STATE"},
               {"LOCK"}});
  Outcome outcome = Outcome::fine;
  Progress progress(console, "looking at caches", bytes_of(caches));
  std::uint64_t before = 0;
  for (const CacheFiles& files : caches) {
    progress.go_on_from(before);
    const Line line = line_of(files, locks, progress);
    before += bytes_to_scan(files);
    outcome = is_bad(line.survey.state) ? Outcome::found : outcome;
    if (console.json()) {
      print_json(console, json_of(line));
      continue;
    }
    add_row(table, line);
    if (!line.survey.reason.empty()) {
      console.err() << "qvutil ls: " << line.survey.reason << '\n';
    }
  }
  if (!table.empty()) {
    table.print(console);
  } else if (!console.json()) {
    console.err() << "There is no cache in " << shown(root) << ".\n";
  }
  return outcome;
}

}  // namespace quorvane::tool
