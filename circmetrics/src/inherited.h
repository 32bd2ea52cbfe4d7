// The values that a child of fork started with.
#ifndef CIRCMETRICS_SRC_INHERITED_H_
#define CIRCMETRICS_SRC_INHERITED_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>

namespace circmetrics {

class Metric;

// Kept in pages of their own, from the fork handler on, which can't allocate otherwise: the
// child may have been forked while another thread, or this one, was in the allocator.
class Inherited {
 public:
  enum class Origin {
    kNone,    // the process has all that it counted from itself
    kKept,    // from its parent; `values` has what
    kUnknown  // from its parent, but no fork handler ran, or there was no memory
  };

  // The process has its first metric. Call it with the registration lock held.
  static void begin_first();

  // What the fork handler does in a child.
  static void begin_child();

  // Call it with the registration lock held.
  static Origin origin();

  // Of the metrics that have any.
  using Values = std::unordered_map<const Metric*, std::span<const std::uint64_t>>;
  static Values values();

 private:
  struct Pages {
    std::uint64_t* words;
    std::size_t size;  // in words
  };
  static Pages make_pages(std::size_t words);

  static pid_t g_owner;  // the process that the pages belong to; 0 before its first metric
  static Pages g_pages;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_INHERITED_H_
