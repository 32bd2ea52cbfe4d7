#include "qvutil/store/repeated_keys.h"

#include <algorithm>
#include <bit>

#include "qvutil/store/key_hash.h"

namespace quorvane::tool {
bool RepeatedKeys::is_in_part(std::uint64_t hash) const {
  return parts_ == 1 || (hash >> 24) % parts_ == part_;
}

void RepeatedKeys::add(std::string_view key) {
  const std::uint64_t hash = hash_of(key);
  if (is_in_part(hash) && count_ < kMost) {
    ++count_;
    hashes_[hash >> 56].push_back(hash);
  }
}

bool RepeatedKeys::has_suspects() {
  for (std::deque<std::uint64_t>& hashes : hashes_) {
    find_suspects(hashes);
    hashes = {};
  }
  table_ = {};
  const auto is_less = [](const Suspect& one, const Suspect& other) {
    return one.hash < other.hash;
  };
  const auto is_same = [](const Suspect& one, const Suspect& other) {
    return one.hash == other.hash;
  };
  std::sort(suspects_.begin(), suspects_.end(), is_less);
  suspects_.erase(std::unique(suspects_.begin(), suspects_.end(), is_same), suspects_.end());
  return !suspects_.empty();
}

// A free place of the table is 0; the hash 0 is always a suspect.
void RepeatedKeys::find_suspects(const std::deque<std::uint64_t>& hashes) {
  table_.assign(std::bit_ceil(2 * hashes.size() + 1), 0);
  const std::uint64_t mask = table_.size() - 1;
  for (const std::uint64_t hash : hashes) {
    std::uint64_t at = hash & mask;
    while (table_[at] != 0 && table_[at] != hash) {
      at = (at + 1) & mask;
    }
    if (table_[at] == hash) {
      suspects_.push_back({hash, {}, 0});
    }
    table_[at] = hash;
  }
}

std::optional<std::uint64_t> RepeatedKeys::earlier(std::string_view key, std::uint64_t offset) {
  const std::uint64_t hash = hash_of(key);
  const auto at = std::lower_bound(
      suspects_.begin(), suspects_.end(), hash,
      [](const Suspect& suspect, std::uint64_t other) { return suspect.hash < other; });
  if (at == suspects_.end() || at->hash != hash) {
    return std::nullopt;
  }
  if (at->key.empty()) {
    at->key = key;
    at->offset = offset;
    return std::nullopt;
  }
  return at->key == key ? std::optional(at->offset) : std::nullopt;
}

}  // namespace quorvane::tool
