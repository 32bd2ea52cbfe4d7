#include "qvutil/store/repeated_keys.h"

#include <farmhash.h>

#include <algorithm>
#include <bit>

namespace quorvane::tool {
namespace {

constexpr std::uint64_t kBitsAnEntry = 8;
constexpr std::uint64_t kMostBits = std::uint64_t{1} << 28;  // 32 MB
constexpr std::uint64_t kWord = 64;

std::uint64_t hash_of(std::string_view key) {
  return ::util::Fingerprint64(key.data(), key.size());
}

std::uint64_t bits_for(std::uint64_t entries) {
  return std::bit_ceil(
      std::clamp<std::uint64_t>(std::min(entries, kMostBits) * kBitsAnEntry, kWord, kMostBits));
}

}  // namespace

RepeatedKeys::RepeatedKeys(std::uint64_t entries, std::uint64_t part, std::uint64_t parts)
    : part_(part), parts_(parts) {
  make_bits(entries);
}

void RepeatedKeys::make_bits(std::uint64_t entries) {
  bits_.assign(bits_for(entries) / kWord, 0);
  mask_ = bits_.size() * kWord - 1;
}

bool RepeatedKeys::test_and_set(std::uint64_t hash) {
  std::uint64_t& word = bits_[(hash & mask_) / kWord];
  const std::uint64_t bit = std::uint64_t{1} << (hash % kWord);
  const bool was_set = (word & bit) != 0;
  word |= bit;
  return was_set;
}

bool RepeatedKeys::is_set(std::uint64_t hash) const {
  return (bits_[(hash & mask_) / kWord] >> (hash % kWord) & 1) != 0;
}

void RepeatedKeys::add(std::string_view key) {
  const std::uint64_t hash = hash_of(key);
  // The upper bits tell the parts, the lower ones the places.
  if (parts_ > 1 && (hash >> 32) % parts_ != part_) {
    return;
  }
  __builtin_prefetch(&bits_[(hash & mask_) / kWord], 1);
  due_[due_count_++] = hash;
  if (due_count_ == kAhead) {
    add_due();
  }
}

void RepeatedKeys::add_due() {
  for (std::size_t i = 0; i < due_count_; ++i) {
    if (test_and_set(due_[i])) {
      if (suspects_.size() == suspects_.capacity()) {
        keep_once();
      }
      suspects_.push_back(due_[i]);
    }
  }
  due_count_ = 0;
}

void RepeatedKeys::keep_once() {
  std::sort(suspects_.begin(), suspects_.end());
  suspects_.erase(std::unique(suspects_.begin(), suspects_.end()), suspects_.end());
}

bool RepeatedKeys::has_suspects() {
  add_due();
  keep_once();
  bits_ = {};
  make_bits(8 * suspects_.size());  // few, so that most keys need no search
  found_.reserve(suspects_.size());
  for (const std::uint64_t hash : suspects_) {
    found_.push_back({hash, {}, 0});
    test_and_set(hash);
  }
  suspects_ = {};
  return !found_.empty();
}

std::optional<std::uint64_t> RepeatedKeys::earlier(std::string_view key, std::uint64_t offset) {
  const std::uint64_t hash = hash_of(key);
  if (!is_set(hash)) {
    return std::nullopt;
  }
  const auto at = std::lower_bound(
      found_.begin(), found_.end(), hash,
      [](const Suspect& suspect, std::uint64_t other) { return suspect.hash < other; });
  if (at == found_.end() || at->hash != hash) {
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
