#include "qvutil/rewrite/places.h"

#include "qvutil/output/json.h"
#include "qvutil/output/outcome.h"
#include "qvutil/output/table.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

// A file may have millions of them.
constexpr std::size_t kMostShown = 20;

}  // namespace

void Places::add(const Place& place) {
  if (!place.is_damage) {
    return;
  }
  ++count_;
  bytes_ += place.size;
  files_.insert(place.file);
  if (some_.size() < kMostShown) {
    some_.push_back(place);
  }
}

void Places::expect_none(const CacheFiles& cache) const {
  if (count_ != 0) {
    const Place& place = some_.front();
    throw Failure(shown(cache.name) + " is damaged at offset " + std::to_string(place.offset) +
                  " of " + shown(place.file) + "; repair it first");
  }
}

void Places::print(Console& console) const {
  if (console.json()) {
    for (const Place& place : some_) {
      print_json(console, {{"file", json_of_bytes(place.file)},
                           {"offset", place.offset},
                           {"bytes", place.size},
                           {"reason", place.reason}});
    }
    return;
  }
  Table table(
      {{"FILE"}, {"OFFSET", Table::Align::right}, {"BYTES", Table::Align::right}, {"WHAT"}});
  for (const Place& place : some_) {
    table.row({shown(place.file),
               std::to_string(place.offset),
               std::to_string(place.size),
               {shown(place.reason), Colour::red}});
  }
  table.print(console);
  if (count_ > some_.size()) {
    console.out() << "and " << grouped(count_ - some_.size()) << " more\n";
  }
}

}  // namespace quorvane::tool
