#include "src/known_entries.h"

#include <farmhash.h>

#include <vector>

#include "src/fork_guard.h"

namespace quorvane {
namespace remote {
namespace {

std::string_view bytes_of(const util::RoBuffer& key) {
  return {reinterpret_cast<const char*>(key.get_buffer()), key.get_size()};
}

std::uint64_t hash_of(std::string_view key) {
  return ::util::Fingerprint64(key.data(), key.size());
}

}  // namespace

std::size_t KnownEntries::Hash::operator()(std::string_view key) const { return hash_of(key); }

KnownEntries::Answer KnownEntries::look_up(const util::RoBuffer& key, Value& value) const {
  const std::string_view bytes = bytes_of(key);
  const std::uint64_t hash = hash_of(bytes);
  const fork_guard::Lock lock(mutex_.get());
  const auto found = entries_.find(bytes);
  if (found != entries_.end()) {
    value = found->second;
    return Answer::found;
  }
  return absent_.has(hash) && !is_stored(hash) ? Answer::absent : Answer::unknown;
}

void KnownEntries::add(const util::RoBuffer& key, const Value& value) {
  const std::string_view bytes = bytes_of(key);
  const fork_guard::Lock lock(mutex_.get());
  entries_.try_emplace(std::string(bytes), value);
  if (!stored_.empty() || !uncounted_.empty()) {
    const std::uint64_t hash = hash_of(bytes);
    stored_.erase(hash);
    uncounted_.erase(hash);
  }
}

void KnownEntries::add_absent(const util::RoBuffer& key) {
  const std::uint64_t hash = hash_of(bytes_of(key));
  const fork_guard::Lock lock(mutex_.get());
  absent_.add(hash);
}

void KnownEntries::add_stored(const util::RoBuffer& key) {
  const std::string_view bytes = bytes_of(key);
  const fork_guard::Lock lock(mutex_.get());
  const std::uint64_t hash = hash_of(bytes);
  if (entries_.find(bytes) == entries_.end() && stored_.count(hash) == 0) {
    uncounted_.insert(hash);
  }
}

bool KnownEntries::has_stored(const util::RoBuffer& key) const {
  const std::uint64_t hash = hash_of(bytes_of(key));
  const fork_guard::Lock lock(mutex_.get());
  return is_stored(hash);
}

void KnownEntries::count_stored() {
  const fork_guard::Lock lock(mutex_.get());
  stored_.merge(uncounted_);
}

std::uint64_t KnownEntries::size() const {
  const fork_guard::Lock lock(mutex_.get());
  return entries_.size() + stored_.size();
}

void KnownEntries::copy_to(cache::EntryMap& out) const {
  std::vector<const Entries::value_type*> all;
  {
    const fork_guard::Lock lock(mutex_.get());
    all.reserve(entries_.size());
    for (const auto& entry : entries_) {
      all.push_back(&entry);
    }
  }
  for (const auto* entry : all) {
    out.emplace(util::RoBuffer::copy(entry->first.data(), entry->first.size()), entry->second);
  }
}

}  // namespace remote
}  // namespace quorvane
