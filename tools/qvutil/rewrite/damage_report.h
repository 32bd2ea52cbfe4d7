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
  void place(const Place& place) override {
    places_.add(place);
    repeated_ += place.is_repeated_key ? 1 : 0;
  }

  // Of a repeated key, the first entry counts.
  std::uint64_t entries() const { return entries_ - repeated_; }
  // The other entries of those keys. A repair leaves them out.
  std::uint64_t repeated() const { return repeated_; }
  const Places& places() const { return places_; }

 private:
  std::uint64_t entries_ = 0;
  std::uint64_t repeated_ = 0;
  Places places_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_DAMAGE_REPORT_H_
