// The store whose entries are on servers.
#ifndef QUORVANE_REMOTE_SRC_REMOTE_STORE_H_
#define QUORVANE_REMOTE_SRC_REMOTE_STORE_H_

#include <quorvane/store.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "src/cluster.h"
#include "src/known_entries.h"
#include "src/remote_stats.h"
#include "src/settings.h"

namespace quorvane {
namespace remote {

// Every call ends within the time limits of the settings. Throws nothing but std::bad_alloc.
// Any thread; a child of fork may use its copy.
class RemoteStore : public cache::LookupStore {
 public:
  // `settings`: nothing if they are wrong; the store then isn't valid. Connects later.
  RemoteStore(const std::string& name, const std::optional<Settings>& settings);

  std::string type() const override { return "RemoteStore"; }
  bool is_valid() const override { return cluster_ != nullptr; }

  bool try_store_diff(const cache::EntryMap& diff) override;
  bool try_load(cache::EntryMap& out) override;

  bool find(const util::RoBuffer& key, Value& value) override;
  bool find_at_once(const util::RoBuffer& key, Value& value) override;
  // Those that the servers gave, and keys that this process has stored.
  std::uint64_t entries() override { return known_.size(); }
  void prefetch(const util::RoBuffer* keys, std::size_t count) override;
  bool try_read_all(cache::EntryMap& out) override;  // those that the servers gave

 private:
  void open(const Settings& settings);

  bool take(const util::RoBuffer& key, Request& request, LookupCounts& counts, Value& value);
  void report_refusal(const std::string& why);
  bool prefetch_some(const util::RoBuffer* const* keys, std::size_t count);

  // What was not stored, and why first.
  struct Loss {
    std::uint64_t entries = 0;
    std::string why;
    bool is_by_server = false;

    void add(std::uint64_t more, const std::string& reason);
  };
  using Additions = cache::EntryMap::const_iterator;

  void store_all(const cache::EntryMap& diff, Loss& loss);
  Additions fill(Batch& batch, std::vector<Additions>& sent, Additions next, Additions end,
                 Loss& loss) const;
  bool take_stored(const std::vector<Additions>& sent, Batch& batch, Loss& loss);

  const std::string name_;
  std::string prefix_;  // of the keys on the servers
  std::chrono::milliseconds timeout_{};
  std::chrono::milliseconds store_timeout_{};
  std::uint64_t max_value_ = 0;
  bool read_only_ = false;
  std::optional<RemoteStats> stats_;
  KnownEntries known_;
  std::unique_ptr<Cluster> cluster_;          // null: not valid
  bool skips_stored_ = false;                 // in the next storing
  std::atomic<std::int64_t> quiet_until_{0};  // seconds of the monotonic clock; no refusal record
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_REMOTE_STORE_H_
