#include "qvutil/store/repeated_keys.h"

#include <algorithm>
#include <bit>
#include <iterator>

#include "qvutil/store/key_hash.h"

namespace quorvane::tool {

void RepeatedKeys::Set::make_room(std::size_t count) {
  places_.assign(std::bit_ceil(2 * count + 1), 0);
}

// The hash 0 is always there.
bool RepeatedKeys::Set::insert(std::uint64_t hash) {
  const std::uint64_t mask = places_.size() - 1;
  std::uint64_t at = hash & mask;
  while (places_[at] != 0 && places_[at] != hash) {
    at = (at + 1) & mask;
  }
  const bool is_new = places_[at] != hash;
  places_[at] = hash;
  return is_new;
}

bool RepeatedKeys::is_in_part(std::uint64_t hash) const {
  return parts_ == 1 || (hash >> 24) % parts_ == part_;
}

void RepeatedKeys::add(std::string_view key) {
  const std::uint64_t hash = hash_of(key);
  if (is_in_part(hash) && count_ < kMost) {
    ++count_;
    added_[added_count_++] = hash;
    if (added_count_ == added_.size()) {
      finish();
    }
  }
}

void RepeatedKeys::finish() {
  for (std::size_t i = 0; i < added_count_; ++i) {
    hashes_[added_[i] >> 56].push_back(added_[i]);
  }
  added_count_ = 0;
}

bool RepeatedKeys::find_suspects() {
  std::vector<std::uint64_t> again;
  Set set;
  for (const auto& hashes : hashes_) {
    const auto found = static_cast<std::ptrdiff_t>(again.size());
    set.make_room(hashes.size());
    std::copy_if(hashes.begin(), hashes.end(), std::back_inserter(again),
                 [&set](std::uint64_t hash) { return !set.insert(hash); });
    std::sort(again.begin() + found, again.end());
    again.erase(std::unique(again.begin() + found, again.end()), again.end());
    if (again.size() > kMostSuspects && parts_ == 1) {
      return false;
    }
  }
  hashes_.clear();
  hashes_.shrink_to_fit();
  memory_.release();
  suspects_.reserve(again.size());
  for (const std::uint64_t hash : again) {
    suspects_.push_back({hash, {}, 0});  // sorted, since the lists are
  }
  return true;
}

bool RepeatedKeys::all_differ(const RepeatedKeys& one, const RepeatedKeys& other, std::size_t from,
                              std::size_t to) {
  Set set;
  const auto insert = [&set](std::uint64_t hash) { return set.insert(hash); };
  for (std::size_t list = from; list < to; ++list) {
    const auto& first = one.hashes_[list];
    const auto& second = other.hashes_[list];
    set.make_room(first.size() + second.size());
    if (!std::all_of(first.begin(), first.end(), insert) ||
        !std::all_of(second.begin(), second.end(), insert)) {
      return false;
    }
  }
  return true;
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
