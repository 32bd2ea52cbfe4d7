// Copies the entries of a cache, and remembers what is wrong with it.
#ifndef TOOLS_QVUTIL_REWRITE_COPIER_H_
#define TOOLS_QVUTIL_REWRITE_COPIER_H_

#include <cstdint>
#include <functional>
#include <string>

#include "qvutil/rewrite/entry_writer.h"
#include "qvutil/rewrite/places.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Gives the entries of a scan to a writer.
class Copier : public Visitor {
 public:
  // Which entries to copy.
  using Filter = std::function<bool(const Entry& entry)>;

  explicit Copier(EntryWriter& writer, Filter filter = nullptr)
      : writer_(writer), filter_(std::move(filter)) {}

  void entry(const Entry& entry) override;
  // Repeated keys are no reason to complain: they are left out.
  void place(const Place& place) override {
    if (!place.is_repeated_key) {
      places_.add(place);
    }
  }

  std::uint64_t copied() const { return copied_; }
  std::uint64_t repeated() const { return repeated_; }  // left out: an earlier entry has the key
  const Places& places() const { return places_; }

 private:
  EntryWriter& writer_;
  const Filter filter_;
  std::uint64_t copied_ = 0;
  std::uint64_t repeated_ = 0;
  Places places_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_COPIER_H_
