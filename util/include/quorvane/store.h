/// \file
/// What a cache needs of the files behind it: the entry map, the store interface,
/// the lock between processes and the bound on disk space.
///
/// Thread-safety and fork-safety: each class states its own; those of an interface are up
/// to its implementation. Not in signal handlers.
#ifndef QUORVANE_STORE_H_
#define QUORVANE_STORE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <quorvane/buffer.h>
#include <quorvane/export.h>

namespace quorvane {
namespace cache {

/// Shorter keys first, then by bytes: the order in which a process writes its entries to
/// the store files. Stateless; any thread, and a child of fork.
struct QV_EXPORT KeyOrder {
  /// Whether `a` comes before `b`.
  bool operator()(const util::RoBuffer& a, const util::RoBuffer& b) const {
    if (a.get_size() != b.get_size()) {
      return a.get_size() < b.get_size();
    }
    return a.get_size() != 0 && __builtin_memcmp(a.get_buffer(), b.get_buffer(), a.get_size()) < 0;
  }
};

/// Keys with their values; a value is a list of byte strings, the value atoms. As
/// thread-safe and fork-safe as std::map; the bytes are shared as RoBuffer shares them.
using EntryMap = std::map<util::RoBuffer, std::vector<util::RoBuffer>, KeyOrder>;

/// Keys without their values. As thread-safe and fork-safe as std::set.
using KeySet = std::set<util::RoBuffer, KeyOrder>;

/// The interface of what keeps a cache's entries between processes. A cache calls it only
/// in its constructor, its destructor and its flushes, one at a time in a process.
/// Thread-safety and fork-safety: the implementation's; see FileStoreSkeleton.
class QV_EXPORT Store {
 public:
  /// The interface of what excludes other processes while a store works on its files.
  /// Thread-safety and fork-safety: the implementation's; see StoreFLock.
  class QV_EXPORT Lock {
   public:
    virtual ~Lock();

    /// Whether the lock can be taken.
    virtual bool is_valid() const = 0;

    /// Takes the lock, waiting for it. Only for a valid lock.
    virtual void lock() = 0;

    /// Releases the lock. Called by the thread that took it.
    virtual void unlock() = 0;
  };

  virtual ~Store();

  /// The store type's name, for log records.
  virtual std::string type() const = 0;

  /// Whether the store can be used. A cache takes over only a store that can.
  virtual bool is_valid() const = 0;

  /// Stores the entries of `diff`, which were added since the load, except those whose
  /// keys another process has stored meanwhile. False when they could not be stored.
  virtual bool try_store_diff(const EntryMap& diff) = 0;

  /// Replaces the content of `out` with all stored entries. False when they can't be read;
  /// the caller must then discard what `out` holds.
  virtual bool try_load(EntryMap& out) = 0;
};

/// The interface of a store that is asked key by key: opening it reads no entries. Its
/// try_load opens it and leaves the map empty. A cache calls the other operations of this
/// class at any time.
/// Thread-safety: any thread may call find, find_at_once, entries and prefetch, also while
/// another thread stores. Fork-safety: a child may use its copy at once.
class QV_EXPORT LookupStore : public Store {
 public:
  ~LookupStore() override;

  /// Looks for the entry of `key`. If there is one, replaces `value` with a copy of its
  /// atoms and returns true. Finds what any process has stored by now. Doesn't report a
  /// miss. An entry that is damaged is a miss, with a record. May throw std::bad_alloc.
  virtual bool find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) = 0;

  /// How many entries are stored by now; in a store on other machines, how many of them this
  /// process knows.
  virtual std::uint64_t entries() = 0;

  /// A hint that these keys will be looked up. A store of files asks the kernel to read their
  /// entries ahead, and doesn't wait for that. A store on other machines brings the entries in
  /// one round trip, or in several if they are very many, each within its time limit. Changes
  /// nothing else. May throw std::bad_alloc.
  virtual void prefetch(const util::RoBuffer* keys, std::size_t count) = 0;

  /// Adds all stored entries to `out`; those that entries() counts. False when they can't be
  /// read.
  virtual bool try_read_all(EntryMap& out) = 0;

  ///@{ After how many additions that are not stored yet a cache flushes on its own; 0, the
  /// default, means never. A cache reads it when it takes the store over, so set it before.
  void set_flush_after(std::uint64_t entries) { flush_after_ = entries; }
  std::uint64_t flush_after() const { return flush_after_; }
  ///@}

  /// The same as find, but asks no other machine: an entry that only such a one has is a miss.
  /// A cache asks this before it adds a key, and when it counts. By default, calls find.
  virtual bool find_at_once(const util::RoBuffer& key, std::vector<util::RoBuffer>& value);

  /// The cache is flushed and has no additions. A store that keeps on this machine what others
  /// gave does so now, as it does in try_store_diff. A cache doesn't call the two at the same
  /// time. By default, does nothing. Must not throw.
  virtual void keep_found();

 private:
  std::uint64_t flush_after_ = 0;
};

/// The interface of something on disk that can be measured and deleted. A controller
/// calls it in the thread that calls the controller.
/// Thread-safety and fork-safety: the implementation's.
class QV_EXPORT CleanableResource {
 public:
  /// Bytes on disk; 0 when they can't be measured.
  virtual std::uint64_t get_usage() = 0;

  /// Deletes the files.
  virtual void clean() = 0;

  /// Declared last, so that the two operations keep the first virtual slots.
  virtual ~CleanableResource();
};

/// Bounds the disk space of a process's stores: when the sizes last measured add up to
/// more than the threshold, the store that is being processed is cleaned.
///
/// Invariant: the total is the sum of the sizes last measured.
/// Thread-safety: any thread may call every operation. Fork-safety: a child may use its
/// copy, which measures for the child only.
class QV_EXPORT CleanupController {
 public:
  /// `threshold` in bytes; 0 means no limit.
  explicit CleanupController(std::uint64_t threshold);
  ~CleanupController();
  CleanupController(const CleanupController&) = delete;
  CleanupController& operator=(const CleanupController&) = delete;

  /// A ticket for one more resource: 0, 1, 2, and so on. Tickets are never reused. Throws
  /// std::bad_alloc without memory.
  std::uint64_t get_ticket();

  /// Measures `res` and returns whether the total now exceeds the threshold; a threshold
  /// of 0 is a number like any other here. Logs the total at TRACE. A ticket that was not
  /// handed out aborts.
  bool update_and_check_usage(std::uint64_t ticket, CleanableResource& res);

  /// What the threshold leaves for the resource of this ticket, in bytes: the threshold less
  /// the sizes last measured of all others. The largest number when the threshold is 0. A
  /// ticket that was not handed out aborts.
  std::uint64_t get_room(std::uint64_t ticket);

  /// Measures `res`. If the total exceeds the threshold, cleans `res`, measures it again
  /// and logs that at INFO. Does nothing when the threshold is 0. The caller holds the
  /// lock of the store. A ticket that was not handed out aborts.
  void process(std::uint64_t ticket, CleanableResource& res);

 private:
  std::uint64_t update_usage(std::uint64_t ticket, std::uint64_t usage);

  std::uint64_t threshold_;
  std::mutex usages_mutex_;
  std::vector<std::uint64_t> usages_;  // by ticket
  std::uint64_t total_usage_ = 0;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_STORE_H_
