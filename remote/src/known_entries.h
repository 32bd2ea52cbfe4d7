// What a process knows of the servers' entries without asking.
#ifndef QUORVANE_REMOTE_SRC_KNOWN_ENTRIES_H_
#define QUORVANE_REMOTE_SRC_KNOWN_ENTRIES_H_

#include <quorvane/store.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "src/absent_keys.h"
#include "src/guarded_mutex.h"
#include "src/wire_format.h"

namespace quorvane {
namespace remote {

// The entries that the servers gave, the keys that they don't have, and the keys that this process
// has stored. Only grows. Any thread; a child of fork may use its copy.
class KnownEntries {
 public:
  enum class Answer { found, absent, unknown };

  // Fills `value` when it is `found`. May throw std::bad_alloc, as all that follow.
  Answer look_up(const util::RoBuffer& key, Value& value) const;

  // Keeps the value that is there. Copies the key, not the atoms.
  void add(const util::RoBuffer& key, const Value& value);
  void add_absent(const util::RoBuffer& key);
  // The servers have the key now, perhaps with another process's value.
  void add_stored(const util::RoBuffer& key);
  bool has_stored(const util::RoBuffer& key) const;
  // All that was to be stored is. Until then, the cache counts the keys as its additions.
  void count_stored();

  // Entries, and counted keys that are not among them.
  std::uint64_t size() const;
  void copy_to(cache::EntryMap& out) const;

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const;
  };
  // Its nodes never move or go, so they can be read without the mutex.
  using Entries = std::unordered_map<std::string, Value, Hash, std::equal_to<>>;

  bool is_stored(std::uint64_t hash) const {
    return stored_.count(hash) != 0 || uncounted_.count(hash) != 0;
  }

  mutable GuardedMutex mutex_;
  Entries entries_;
  // Hashes of keys that are not in entries_.
  std::unordered_set<std::uint64_t> stored_;
  std::unordered_set<std::uint64_t> uncounted_;
  AbsentKeys absent_;
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_KNOWN_ENTRIES_H_
