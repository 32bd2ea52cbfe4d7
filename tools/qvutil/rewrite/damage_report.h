// What is whole of a cache, and what isn't.
#ifndef TOOLS_QVUTIL_REWRITE_DAMAGE_REPORT_H_
#define TOOLS_QVUTIL_REWRITE_DAMAGE_REPORT_H_

#include <cstdint>

#include "qvutil/rewrite/places.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Visits the entries of a scan without copying them.
class DamageReport : public Visitor {
 public:
  void entry(const Entry&) override { ++entries_; }
  // A lazy cache doesn't open if a key is repeated: the repair keeps the first entry.
  void place(const Place& place) override {
    places_.add(place);
    entries_ -= place.is_damage && place.is_repeated_key ? 1 : 0;
  }

  std::uint64_t entries() const { return entries_; }  // that a repair keeps
  const Places& places() const { return places_; }

 private:
  std::uint64_t entries_ = 0;
  Places places_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_DAMAGE_REPORT_H_
