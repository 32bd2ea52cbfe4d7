#include "src/cache/indexed/found_keys.h"

#include <algorithm>
#include <new>
#include <utility>

#include "src/fork_guard.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

constexpr std::size_t kFewestSlots = 64;
constexpr std::size_t kMostSlots = std::size_t{1} << 20;

}  // namespace

FoundKeys::FoundKeys() { fork_guard::add(mutex_); }

FoundKeys::~FoundKeys() { fork_guard::remove(mutex_); }

// The slot that has the hash, or the free one for it.
std::uint64_t* FoundKeys::Table::slot_of(std::uint64_t hash) const {
  std::size_t at = hash & (slots - 1);
  while (hashes[at] != 0 && hashes[at] != hash) {
    at = (at + 1) & (slots - 1);
  }
  return &hashes[at];
}

bool FoundKeys::Table::grow() noexcept {
  Table larger;
  larger.slots = std::max(2 * slots, kFewestSlots);
  larger.hashes.reset(new (std::nothrow) std::uint64_t[larger.slots]());
  if (larger.hashes == nullptr) {
    return false;
  }
  for (std::size_t at = 0; at < slots; ++at) {
    if (hashes[at] != 0) {
      *larger.slot_of(hashes[at]) = hashes[at];
    }
  }
  larger.taken = taken;
  *this = std::move(larger);
  return true;
}

void FoundKeys::add(std::uint64_t hash) noexcept {
  const std::uint64_t kept = std::max<std::uint64_t>(hash, 1);
  const fork_guard::Lock lock(mutex_);
  if (latest_.contains(kept) || earlier_.contains(kept)) {
    return;
  }
  if (2 * latest_.taken >= kMostSlots) {
    earlier_ = std::exchange(latest_, Table());
  }
  if (2 * latest_.taken >= latest_.slots && !latest_.grow()) {
    return;
  }
  *latest_.slot_of(kept) = kept;
  ++latest_.taken;
}

std::vector<std::uint64_t> FoundKeys::all() const {
  std::vector<std::uint64_t> found;
  const fork_guard::Lock lock(mutex_);
  found.reserve(latest_.taken + earlier_.taken);
  for (const Table* table : {&latest_, &earlier_}) {
    for (std::size_t at = 0; at < table->slots; ++at) {
      if (table->hashes[at] != 0) {
        found.push_back(table->hashes[at]);
      }
    }
  }
  return found;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
