#include "src/tiered_store.h"

#include <cxxabi.h>
#include <quorvane/log.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "src/cache/flush_turn.h"
#include "src/fork_guard.h"
#include "src/records.h"
#include "src/uncancellable.h"

namespace quorvane {
namespace remote {
namespace {

using cache::EntryMap;
using cache::FlushTurn;
using cache::LookupStore;
using util::RoBuffer;

// An append costs about as much as a thousand look-ups.
constexpr std::size_t kMostKept = 1000;

bool has(LookupStore& store, const RoBuffer& key) {
  std::vector<RoBuffer> value;
  return store.find_at_once(key, value);
}

}  // namespace

TieredStore::TieredStore(std::string name, std::unique_ptr<LookupStore> local,
                         std::unique_ptr<LookupStore> remote)
    : name_(std::move(name)), local_(std::move(local)), remote_(std::move(remote)) {
  set_flush_after(local_->flush_after());
}

TieredStore::~TieredStore() {
  const Uncancellable uncancellable;  // a destructor that is unwound would end the process
  TieredStore::keep_found();
}

void TieredStore::keep_found() {
  if (local_ != nullptr) {
    const FlushTurn turn(turn_);
    store_kept();
  }
}

bool TieredStore::try_load(EntryMap& out) {
  if (local_ != nullptr && !local_->try_load(out)) {
    QV_LOG(g_module, WARN, "The local store of %s cache can't be used; asking the servers only",
           name_.c_str());
    local_.reset();
  }
  return remote_->try_load(out);
}

// One that throws must not keep the other from storing.
bool TieredStore::try_store(LookupStore& store, const EntryMap& entries) const {
  try {
    return store.try_store_diff(entries);
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {  // no memory, at least in the library's own stores
    QV_LOG(g_module, ERROR, "Storing %s cache %s threw an exception", name_.c_str(),
           &store == remote_.get() ? "on the servers" : "locally");
  }
  return false;
}

bool TieredStore::try_store_diff(const EntryMap& diff) {
  bool is_stored = true;
  if (local_ != nullptr) {  // first: a kill while servers are slow loses nothing here
    const FlushTurn turn(turn_);
    store_kept();
    is_stored = try_store(*local_, diff);
  }
  return try_store(*remote_, diff) && is_stored;
}

bool TieredStore::find(const RoBuffer& key, std::vector<RoBuffer>& value) {
  if (local_ != nullptr && local_->find(key, value)) {
    return true;
  }
  if (!remote_->find(key, value)) {
    return false;
  }
  if (local_ != nullptr) {
    keep(key, value);
  }
  return true;
}

bool TieredStore::find_at_once(const RoBuffer& key, std::vector<RoBuffer>& value) {
  return (local_ != nullptr && local_->find_at_once(key, value)) ||
         remote_->find_at_once(key, value);
}

void TieredStore::keep(const RoBuffer& key, const std::vector<RoBuffer>& value) {
  const Uncancellable uncancellable;  // nobody would end an append that was begun
  try {
    RoBuffer copy = RoBuffer::copy(key.get_buffer(), key.get_size());
    bool is_full = false;
    {
      const fork_guard::Lock lock(kept_mutex_.get());
      kept_.try_emplace(std::move(copy), value);
      is_full = kept_.size() >= kMostKept;
    }
    if (is_full) {
      const FlushTurn turn(turn_, std::try_to_lock);
      if (turn.is_taken()) {
        store_kept();
      }
    }
  } catch (const std::bad_alloc&) {
    // The servers have it.
  }
}

// The caller has the turn. What the local store doesn't take is not missed: the servers have it.
void TieredStore::store_kept() {
  EntryMap kept;
  {
    const fork_guard::Lock lock(kept_mutex_.get());
    kept.swap(kept_);
  }
  if (!kept.empty()) {
    try_store(*local_, kept);
  }
}

std::uint64_t TieredStore::entries() {
  if (local_ == nullptr) {
    return remote_->entries();
  }
  EntryMap known;
  remote_->try_read_all(known);
  std::uint64_t count = local_->entries();
  for (const auto& [key, value] : known) {
    count += has(*local_, key) ? 0 : 1;
  }
  return count;
}

void TieredStore::prefetch(const RoBuffer* keys, std::size_t count) {
  if (local_ == nullptr) {
    return remote_->prefetch(keys, count);
  }
  local_->prefetch(keys, count);
  std::vector<RoBuffer> others;
  std::copy_if(keys, keys + count, std::back_inserter(others),
               [this](const RoBuffer& key) { return !has(*local_, key); });
  if (!others.empty()) {
    remote_->prefetch(others.data(), others.size());
  }
  std::vector<RoBuffer> value;
  for (const RoBuffer& key : others) {
    if (remote_->find_at_once(key, value)) {
      keep(key, value);
    }
  }
}

bool TieredStore::try_read_all(EntryMap& out) {
  EntryMap known;
  if ((local_ != nullptr && !local_->try_read_all(out)) || !remote_->try_read_all(known)) {
    return false;
  }
  out.merge(known);  // the local value of a key counts
  return true;
}

}  // namespace remote
}  // namespace quorvane
