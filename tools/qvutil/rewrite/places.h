// The damaged places of a cache.
#ifndef TOOLS_QVUTIL_REWRITE_PLACES_H_
#define TOOLS_QVUTIL_REWRITE_PLACES_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Counts all, and remembers the first ones. What is only odd is no damage, and left out.
class Places {
 public:
  void add(const Place& place);

  std::uint64_t count() const { return count_; }
  std::uint64_t bytes() const { return bytes_; }
  const std::set<std::string>& files() const { return files_; }  // that have them; names

  // Throws Failure, with the first place, if there is one: the cache must be repaired first.
  void expect_none(const CacheFiles& cache) const;

  // A table, or with --json an object for each.
  void print(Console& console) const;

 private:
  std::vector<Place> some_;
  std::uint64_t count_ = 0;
  std::uint64_t bytes_ = 0;
  std::set<std::string> files_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_PLACES_H_
