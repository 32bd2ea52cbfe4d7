// The files of an indexed store at work: opening, looking up, storing.
#ifndef QUORVANE_SRC_CACHE_INDEXED_ENGINE_H_
#define QUORVANE_SRC_CACHE_INDEXED_ENGINE_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <quorvane/store.h>

#include "src/cache/indexed/pair.h"
#include "src/cache/indexed/paths.h"
#include "src/cache/indexed/reported.h"

namespace quorvane {
namespace cache {
namespace indexed {

// Two files: one of entries, to which processes only append, and its index, a hash table that
// is mapped. Look-ups take no lock and find what any process has stored by then.
//
// Invariant: an index never leads to an entry that is not whole, and what is in a data file
// stays there.
// Thread-safety: any thread may call everything but the constructor and destructor.
// Fork-safety: a child may use its copy; its lock excludes the parent.
class Engine {
 public:
  // The store `name` in the directory `root`. It shares `lock`.
  Engine(const std::string& root, const std::string& name, std::shared_ptr<Store::Lock> lock);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Opens the files. Takes the lock only to create a missing file or an index that doesn't
  // fit. False, after one ERROR record, when the data can't be used.
  bool open();

  // Stores the entries whose keys are not stored yet. False, with nothing of `diff` stored and
  // one record, when that is impossible.
  bool store(const EntryMap& diff);

  // The operations of a LookupStore.
  bool find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value);
  std::uint64_t entries();
  std::uint64_t usage() const;  // bytes of both files
  void prefetch(const util::RoBuffer* keys, std::size_t count);
  bool read_all(EntryMap& out);  // passes over damaged entries, each with its record

 private:
  Pair* present() const { return present_.load(std::memory_order_acquire); }
  bool is_present(const Pair& pair) const;
  bool fits(const Pair* pair) const;
  bool attach(std::unique_ptr<Pair> pair, Pair* replaced);
  bool open_again(Pair* seen);
  bool may_look_again(Pair* seen, bool outgrown);
  bool has_time_passed();
  void report_damaged_entry(const Pair& pair, std::uint64_t offset);

  bool open_locked();
  bool create_or_rebuild(const Pair& pair, Status status);
  bool build_index(const DataFile& data, std::uint64_t limit, bool check, std::uint64_t more);
  bool grow(Pair& pair, std::uint64_t more);
  bool store_locked(const EntryMap& diff);
  bool report(const Pair& pair, Status status, const std::string& path) const;

  const Paths paths_;
  const std::shared_ptr<Store::Lock> lock_;
  std::atomic<Pair*> present_{nullptr};      // with those that it has replaced behind it
  std::atomic<std::uint64_t> looked_at_{0};  // when the files' names were last looked at
  Reported reported_;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_ENGINE_H_
