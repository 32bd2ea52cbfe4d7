#include "qvutil/commands/repair.h"

#include <string>
#include <vector>

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/damage_report.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/rewrite/mend.h"
#include "qvutil/rewrite/workspace.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/lock.h"

namespace quorvane::tool {
namespace {

void print_json_summary(Console& console, const CacheFiles& cache, const DamageReport& report,
                        const std::vector<std::string>& kept) {
  Json names = Json::array();
  for (const std::string& name : kept) {
    names.push_back(json_of_bytes(name));
  }
  print_json(console, {{"cache", json_of_bytes(cache.name)},
                       {"kind", name_of(cache.kind)},
                       {"whole", report.places().count() == 0},
                       {"entries", report.entries()},
                       {"repeated", report.repeated()},
                       {"places", report.places().count()},
                       {"bytes_lost", report.places().bytes()},
                       {"damaged_files", names}});
}

std::string list_of(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    list += (list.empty() ? "" : ", ") + shown(name);
  }
  return list;
}

// "; left out 2 repeated keys", or nothing if there are none.
std::string repeated_text(const DamageReport& report, const char* what) {
  return report.repeated() == 0
             ? ""
             : "; " + (what + counted(report.repeated(), "repeated key", "repeated keys"));
}

void print(Console& console, const CacheFiles& cache, const DamageReport& report, bool is_done,
           const std::vector<std::string>& kept) {
  const Places& places = report.places();
  const std::string entries = counted(report.entries(), "entry", "entries");
  if (places.count() != 0) {
    places.print(console);
  }
  if (console.json()) {
    print_json_summary(console, cache, report, kept);
    return;
  }
  if (places.count() == 0) {
    console.out() << shown(cache.name) << " is whole: " << entries << repeated_text(report, "")
                  << "\n";
    return;
  }
  console.out() << (is_done ? "Kept " : "Would keep ") << entries
                << (is_done ? ", lost " : " and lose ") << counted(places.bytes(), "byte", "bytes")
                << " in " << counted(places.count(), "place", "places")
                << repeated_text(report, is_done ? "left out " : "would leave out ") << "\n";
  if (!kept.empty()) {
    console.out() << "What was damaged is in " << list_of(kept) << "\n";
  }
}

// The name of a file, if the scan has told that the cache lacks it.
std::string missing_name(const std::string& path, const DamageReport& report) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return report.places().files().count(name) != 0 && !size_of_file(path) ? name : "";
}

// A scan ends where one of two files is missing. What the other one has is lost then.
void add_rest(const CacheFiles& cache, DamageReport& report) {
  const std::vector<std::string> files = cache.files();
  for (const std::string& path : files) {
    const std::string missing = missing_name(path, report);
    const std::string& other = path == files.front() ? files.back() : files.front();
    const std::uint64_t size = missing.empty() ? 0 : size_of_file(other).value_or(0);
    if (size != 0) {
      report.place({other.substr(other.rfind('/') + 1), 0, size, "of no use without " + missing});
    }
  }
}

// The line of its progress is gone when it returns: results are printed there.
DamageReport check(Console& console, const CacheFiles& cache, bool is_locked) {
  DamageReport report;
  Progress progress(console, "checking " + shown(cache.name), bytes_of(cache));
  if (is_locked) {
    scan_locked(cache, report, progress);
  } else {
    scan(console, cache, report, progress);
  }
  add_rest(cache, report);
  return report;
}

Outcome look(Console& console, const CacheFiles& cache) {
  const DamageReport report = check(console, cache, false);
  print(console, cache, report, false, {});
  return report.places().count() == 0 ? Outcome::fine : Outcome::found;
}

}  // namespace

Outcome repair(Console& console, const RepairOptions& options) {
  const CacheFiles cache = find_cache(options.cache, kind_named(options.kind));
  if (options.dry_run) {
    return look(console, cache);
  }
  expect_no_links(cache);
  const WriteLock lock(console, cache);
  Workspace::remove_leftovers(cache);
  const DamageReport report = check(console, cache, true);
  std::vector<std::string> kept;
  if (report.places().count() != 0) {
    kept = mend(console, cache, report);
  }
  print(console, cache, report, true, kept);
  return Outcome::fine;
}

}  // namespace quorvane::tool
