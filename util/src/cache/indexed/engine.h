// The files of an indexed store at work: opening, looking up, storing, cleaning.
#ifndef QUORVANE_SRC_CACHE_INDEXED_ENGINE_H_
#define QUORVANE_SRC_CACHE_INDEXED_ENGINE_H_

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <quorvane/store.h>

#include "src/cache/indexed/append.h"
#include "src/cache/indexed/clean.h"
#include "src/cache/indexed/found_keys.h"
#include "src/cache/indexed/paths.h"
#include "src/cache/indexed/pinned.h"
#include "src/cache/indexed/present_pair.h"
#include "src/cache/indexed/store_turn.h"

namespace quorvane {
namespace cache {
namespace indexed {

constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

// Two files: one of entries, to which processes only append, and its index, a hash table that
// is mapped. Look-ups take no lock and find what any process has stored by then.
//
// Invariant: an index never leads to an entry that is not whole, and what is in a data file
// stays there. A clean replaces both files.
// Thread-safety: any thread may call everything but the constructor and destructor.
// Fork-safety: a child may use its copy; its lock excludes the parent.
class Engine {
 public:
  // The store `name` in the directory `root`. It shares `lock`. With `read_only` it only
  // opens what is there, takes no lock and changes nothing.
  Engine(const std::string& root, const std::string& name, std::shared_ptr<Store::Lock> lock,
         bool read_only = false);

  // Opens the files without the lock, if they fit each other. Otherwise false, without a record.
  bool open_unlocked();

  // Opens the files. Takes the lock only to create a missing file or an index that doesn't
  // fit. False, after one ERROR record, when the data can't be used.
  bool open();

  // Stores the entries whose keys are not stored yet. Cleans first if both files would have
  // more than `limit` bytes afterwards. What exceeds the limit alone is stored piece by piece.
  // False, after a record, when a piece can't be stored: then nothing of it is.
  bool store(const EntryMap& diff, std::uint64_t limit = kNoLimit);

  // If both files have more than `limit` bytes, replaces them by new ones of at most half as
  // many: with the newest entries, and with older ones that this process has found. A store
  // without entries is the smallest. Logs one INFO record. False, after a record, when that
  // is impossible.
  bool clean(std::uint64_t limit);

  // The bytes of both files.
  std::uint64_t usage() const;

  // The same as the last open() found it, unless it had to make a file. Makes no system call then.
  std::uint64_t usage_when_opened() const {
    const std::uint64_t opened = opened_usage_;
    return opened != 0 ? opened : usage();
  }

  // The entries that all cleans of this process have kept and dropped.
  std::uint64_t kept() const { return kept_; }
  std::uint64_t dropped() const { return dropped_; }

  // The nanoseconds that all threads have waited for the store lock.
  std::uint64_t lock_waited() const { return lock_waited_; }

  // The operations of a LookupStore.
  bool find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value);
  // Whether a look-up of keys with this hash would surely find nothing. Costs less than one.
  bool lacks(std::uint64_t hash);
  // Has the processor load what lacks() looks at.
  void prefetch_slot(std::uint64_t hash) const;
  std::uint64_t entries();
  void prefetch(const util::RoBuffer* keys, std::size_t count);
  bool read_all(EntryMap& out);  // passes over damaged entries, each with its record

 private:
  // How an attempt ended: to be repeated, at once or after a wait for another cleaner, or
  // failed, with errno or after a record.
  enum class Step { done, again, waited, failed, reported };

  // The pairs that cleans have replaced. They are let go without the lock: to free the pages of
  // a large file takes longer than all that needs the lock.
  using Replaced = std::vector<Pinned>;

  void report_damaged_entry(const Pair& pair, std::uint64_t offset);
  void report_unmapped(const Pair& pair);

  Status try_open(std::unique_ptr<Pair>& pair);
  bool open_locked();
  bool create_or_rebuild(const Pair& pair, Status status);
  bool build_index(const DataFile& data);
  bool try_build_index(const DataFile& data);
  bool report(const Pair& pair, Status status, const std::string& path) const;

  bool change(const EntryMap& diff, std::uint64_t limit, const char* verb);
  bool change_at_once(StoreTurn& turn, Replaced& replaced, const EntryMap& diff,
                      std::uint64_t limit, const char* verb);
  Step try_change(StoreTurn& turn, Replaced& replaced, const EntryMap& diff, std::uint64_t limit);
  Pinned pin_current();
  bool is_current(const Pair& pair) const;
  bool has_names(const Pair& pair) const;
  void delete_leftovers() const;
  bool grow(Pair& pair, std::uint64_t more);
  bool install_index() const;

  Step make_room(StoreTurn& turn, const Pair& pair, const Bound& bound);
  Step clean_files(StoreTurn& turn, const Pair& from, const Bound& bound);
  Step finish_clean(Clean& clean, bool is_copied, std::uint64_t identity);
  bool count_clean(const Clean& clean, std::uint64_t entries, std::uint64_t size);

  const Paths paths_;
  const std::shared_ptr<Store::Lock> lock_;
  const bool read_only_;
  PresentPair present_;
  FoundKeys found_;
  std::atomic<std::uint64_t> opened_usage_{0};
  std::atomic<std::uint64_t> kept_{0};
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<std::uint64_t> lock_waited_{0};
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_ENGINE_H_
