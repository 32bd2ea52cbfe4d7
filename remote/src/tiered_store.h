// A store on this machine before one on others.
#ifndef QUORVANE_REMOTE_SRC_TIERED_STORE_H_
#define QUORVANE_REMOTE_SRC_TIERED_STORE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <quorvane/buffer.h>
#include <quorvane/store.h>

#include "src/guarded_mutex.h"

namespace quorvane {
namespace remote {

// Asks `local` first, then `remote`, and keeps locally what `remote` gave. If `local` doesn't
// open, only `remote` counts.
//
// Invariant: kept_ holds only entries that `remote` has given.
// Thread-safety and fork-safety: those of a LookupStore.
class TieredStore : public cache::LookupStore {
 public:
  // Both are valid. `name` is that of the cache, for records.
  TieredStore(std::string name, std::unique_ptr<cache::LookupStore> local,
              std::unique_ptr<cache::LookupStore> remote);
  // Stores locally what was kept.
  ~TieredStore() override;
  TieredStore(const TieredStore&) = delete;
  TieredStore& operator=(const TieredStore&) = delete;

  std::string type() const override { return "TieredStore"; }
  bool is_valid() const override { return true; }

  bool try_load(cache::EntryMap& out) override;
  bool try_store_diff(const cache::EntryMap& diff) override;
  bool find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) override;
  bool find_at_once(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) override;
  std::uint64_t entries() override;
  void prefetch(const util::RoBuffer* keys, std::size_t count) override;
  bool try_read_all(cache::EntryMap& out) override;
  void keep_found() override;

 private:
  void keep(const util::RoBuffer& key, const std::vector<util::RoBuffer>& value);
  void store_kept();
  bool try_store(cache::LookupStore& store, const cache::EntryMap& entries) const;

  const std::string name_;
  std::unique_ptr<cache::LookupStore> local_;  // null if it didn't open
  const std::unique_ptr<cache::LookupStore> remote_;

  GuardedMutex kept_mutex_;
  cache::EntryMap kept_;                // not stored locally yet
  std::atomic<std::uint64_t> turn_{0};  // to store locally: a store takes one caller at a time
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_TIERED_STORE_H_
