// What a scan of a cache by the tool finds.
#ifndef TESTS_SUPPORT_SCANNED_CACHE_H_
#define TESTS_SUPPORT_SCANNED_CACHE_H_

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "qvutil/store/format.h"
#include "qvutil/store/scan.h"
#include "support/store_bytes.h"

namespace test {

struct ScannedCache : quorvane::tool::Visitor {
  void entry(const quorvane::tool::Entry& entry) override {
    Entry copy{std::string(entry.key), {}};
    for (const std::string_view atom : entry.atoms) {
      copy.atoms.emplace_back(atom);
    }
    entries.push_back(std::move(copy));
    offsets.push_back(entry.offset);
  }
  void place(const quorvane::tool::Place& place) override { places.push_back(place); }

  bool is_damaged() const {
    for (const quorvane::tool::Place& place : places) {
      if (place.is_damage) {
        return true;
      }
    }
    return is_other_version;
  }

  // A line "damage FILE OFFSET+SIZE REASON" or "odd ..." for each place.
  std::string places_text() const {
    std::string text;
    for (const quorvane::tool::Place& place : places) {
      text += (place.is_damage ? "damage " : "odd ") + place.file + " " +
              std::to_string(place.offset) + "+" + std::to_string(place.size) + " " + place.reason +
              "\n";
    }
    return text;
  }

  std::vector<Entry> entries;
  std::vector<std::uint64_t> offsets;
  std::vector<quorvane::tool::Place> places;
  bool is_other_version = false;
};

inline ScannedCache scanned(const std::string& root, quorvane::tool::Kind kind,
                            const std::string& name = "maps") {
  ScannedCache cache;
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  quorvane::tool::Progress progress(console, "", 0);
  try {
    quorvane::tool::scan(console, {kind, root, name}, cache, progress);
  } catch (const quorvane::tool::format::OtherVersion&) {
    cache.is_other_version = true;
  }
  return cache;
}

}  // namespace test

#endif  // TESTS_SUPPORT_SCANNED_CACHE_H_
