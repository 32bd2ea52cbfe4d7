/// \file
/// What a cache asks of the files behind it: the entry map, the store interface,
/// the lock between processes and the bound on disk space.
#ifndef QUORVANE_STORE_H_
#define QUORVANE_STORE_H_

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

/// Shorter keys first, then by bytes. It is the order in which entries are
/// written to the store files.
struct QV_EXPORT KeyOrder {
  /// Whether `a` comes before `b`.
  bool operator()(const util::RoBuffer& a, const util::RoBuffer& b) const {
    if (a.get_size() != b.get_size()) {
      return a.get_size() < b.get_size();
    }
    return a.get_size() != 0 && __builtin_memcmp(a.get_buffer(), b.get_buffer(), a.get_size()) < 0;
  }
};

/// A key and its value: a list of byte strings, the value atoms.
using EntryMap = std::map<util::RoBuffer, std::vector<util::RoBuffer>, KeyOrder>;

/// Keys without their values.
using KeySet = std::set<util::RoBuffer, KeyOrder>;

/// Keeps a cache's entries between processes.
class QV_EXPORT Store {
 public:
  /// Excludes other processes while a store works on its files.
  class QV_EXPORT Lock {
   public:
    virtual ~Lock();

    /// Whether the lock can be taken.
    virtual bool is_valid() const = 0;

    /// Takes the lock, waiting for it.
    virtual void lock() = 0;

    /// Gives it up; by the thread that took it.
    virtual void unlock() = 0;
  };

  virtual ~Store();

  /// The store type's name, for log records.
  virtual std::string type() const = 0;

  /// Whether the store can be used: a cache takes over no other.
  virtual bool is_valid() const = 0;

  /// Persists the entries that were added since the load, less those whose keys
  /// another process has stored meanwhile. False when they could not be stored.
  virtual bool try_store_diff(const EntryMap& diff) = 0;

  /// Replaces `out` by all stored entries. False when they can't be read; what
  /// `out` then holds is to be thrown away.
  virtual bool try_load(EntryMap& out) = 0;
};

/// Something on disk that can be measured and deleted.
class QV_EXPORT CleanableResource {
 public:
  /// Bytes on disk; 0 when they can't be measured.
  virtual std::uint64_t get_usage() = 0;

  /// Deletes the files.
  virtual void clean() = 0;

  /// Last, so that the two operations keep the first slots.
  virtual ~CleanableResource();
};

/// Bounds the disk space of a process's stores: when the sizes last measured sum
/// up to more than the threshold, the store that is being processed is cleaned.
/// Thread-safety: every operation. Fork-safety: a child may use it.
class QV_EXPORT CleanupController {
 public:
  /// `threshold` in bytes; 0: no limit.
  explicit CleanupController(std::uint64_t threshold);
  ~CleanupController();
  CleanupController(const CleanupController&) = delete;
  CleanupController& operator=(const CleanupController&) = delete;

  /// Registers a resource: 0, 1, 2, ... Tickets are never returned.
  std::uint64_t get_ticket();

  /// Measures `res` and returns whether the total now exceeds the threshold. A
  /// ticket that was not handed out aborts.
  bool update_and_check_usage(std::uint64_t ticket, CleanableResource& res);

  /// Measures `res` and cleans it past the threshold; does nothing without one.
  /// The caller holds the store lock.
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
