#include "src/cache/indexed/engine.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <utility>

#include "src/cache/checks.h"
#include "src/cache/indexed/append.h"
#include "src/cache/indexed/index_builder.h"
#include "src/cache/indexed/scan.h"
#include "src/cache/locked.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

class Pinned {
 public:
  explicit Pinned(Pair& pair) : pair_(pair), is_pinned_(pair.pin()) {}
  ~Pinned() {
    if (is_pinned_) {
      pair_.unpin();
    }
  }
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;

  explicit operator bool() const { return is_pinned_; }

 private:
  Pair& pair_;
  const bool is_pinned_;
};

bool has_id(const std::string& path, const descriptor::FileId& id) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && descriptor::id_of(status) == id;
}

std::uint64_t size_of(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// In ticks of the kernel, which cost a look-up almost nothing to ask for.
std::uint64_t coarse_time() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
         static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

Engine::Engine(const std::string& root, const std::string& name, std::shared_ptr<Store::Lock> lock)
    : paths_(root, name), lock_(std::move(lock)) {}

Engine::~Engine() {
  for (Pair* pair = present(); pair != nullptr;) {
    const std::unique_ptr<Pair> owned(pair);
    pair = pair->replaced;
  }
}

// --- opening ---

bool Engine::open() try {
  auto pair = std::make_unique<Pair>();
  if (pair->open(paths_.data, paths_.index, true) == Status::fits) {
    return attach(std::move(pair), present());
  }
  const Locked locked(*lock_);
  return open_locked();
} catch (const std::exception& error) {
  QV_LOG(g_module, ERROR, "Couldn't open %s: %s", paths_.data.c_str(), error.what());
  return false;
}

// With the lock: opens the files and creates what is missing.
bool Engine::open_locked() {
  Status status = Status::missing;
  for (int attempts = 0; attempts < 3; ++attempts) {  // the data, its index, and both opened
    auto pair = std::make_unique<Pair>();
    status = pair->open(paths_.data, paths_.index, true);
    if (status == Status::fits) {
      return attach(std::move(pair), present());
    }
    if (!create_or_rebuild(*pair, status)) {
      return false;
    }
  }
  QV_LOG(g_module, ERROR, "Couldn't open %s: it doesn't stay as it was written",
         paths_.index.c_str());
  return false;
}

bool Engine::create_or_rebuild(const Pair& pair, Status status) {
  const bool is_data_open = pair.data.mapped_size() != 0;
  if (!is_data_open && status == Status::missing) {
    if (DataWriter::create(paths_.data)) {
      return true;
    }
    status = Status::refused;
  }
  if (is_data_open && (status == Status::missing || status == Status::stale)) {
    return build_index(pair.data, pair.data.size_when_opened(), true, 0);
  }
  return report(pair, status, is_data_open ? paths_.index : paths_.data);
}

// Always false.
bool Engine::report(const Pair& pair, Status status, const std::string& path) const {
  switch (status) {
    case Status::other_version:
      QV_LOG(g_module, ERROR, "%s has version %u of its format, this library knows version %u",
             path.c_str(),
             pair.data.mapped_size() != 0 ? pair.index.version() : pair.data.version(), kVersion);
      break;
    case Status::refused:
      QV_LOG(g_module, ERROR, "Couldn't open %s: %s", path.c_str(), std::strerror(errno));
      break;
    default:
      QV_LOG(g_module, ERROR, "%s is damaged at offset 0: no header", path.c_str());
      break;
  }
  return false;
}

bool Engine::build_index(const DataFile& data, std::uint64_t limit, bool check,
                         std::uint64_t more) {
  IndexBuilder builder(data);
  const ScanResult result = builder.collect(limit, check);
  if (result.is_damaged) {
    QV_LOG(g_module, ERROR, "%s is damaged at offset %lu: no whole entry, but others follow",
           paths_.data.c_str(), result.end);
    return false;
  }
  if (!builder.write(paths_.new_index, more) ||
      std::rename(paths_.new_index.c_str(), paths_.index.c_str()) != 0) {
    QV_LOG(g_module, ERROR, "Couldn't make %s: %s", paths_.index.c_str(), std::strerror(errno));
    return false;
  }
  return true;
}

// Makes the pair the present one, unless another thread has replaced `replaced` first.
// Always true: there is a present pair then.
bool Engine::attach(std::unique_ptr<Pair> pair, Pair* replaced) {
  Pair* const made = pair.get();
  made->replaced = replaced;
  Pair* expected = replaced;
  if (present_.compare_exchange_strong(expected, made, std::memory_order_acq_rel)) {
    static_cast<void>(pair.release());  // the destructor of the store deletes it
    if (replaced != nullptr) {
      replaced->retire();
    }
  }
  return true;
}

// --- looking up ---

bool Engine::find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) {
  const std::uint64_t hash = hash_of(key.get_buffer(), key.get_size());
  for (;;) {
    Pair* const pair = present();
    if (pair == nullptr) {
      return false;
    }
    bool outgrown = false;
    const auto found = pair->find(key, hash, outgrown);
    if (found) {
      auto copy = found->entry.copy_value();
      if (copy) {
        value = std::move(*copy);
        return true;
      }
    }
    if (may_look_again(pair, outgrown)) {
      continue;
    }
    if (found) {
      report_damaged_entry(*pair, found->offset);
    }
    return false;
  }
}

void Engine::report_damaged_entry(const Pair& pair, std::uint64_t offset) {
  if (reported_.add(pair.data.identity() ^ offset)) {
    QV_LOG(g_module, WARN, "The entry at offset %lu of %s is damaged, and so is not found", offset,
           paths_.data.c_str());
  }
}

// After a miss: whether there is another pair to look into.
bool Engine::may_look_again(Pair* seen, bool outgrown) {
  if (present() != seen) {
    return true;
  }
  const bool is_suspect = outgrown || seen->index.is_moving() || has_time_passed();
  return is_suspect && (outgrown || !is_present(*seen)) && open_again(seen);
}

// Files that were deleted or replaced by hand carry no mark, so the names are looked at from
// time to time.
bool Engine::has_time_passed() {
  const std::uint64_t now = coarse_time();
  if (looked_at_.load(std::memory_order_relaxed) == now) {
    return false;  // not stored: threads that miss would pass the line around
  }
  looked_at_.store(now, std::memory_order_relaxed);
  return true;
}

bool Engine::is_present(const Pair& pair) const {
  return has_id(paths_.index, pair.index.id()) && has_id(paths_.data, pair.data.id());
}

// Without the lock. False when there is no whole pair at the moment: the next miss tries again.
bool Engine::open_again(Pair* seen) {
  auto pair = std::make_unique<Pair>();
  return pair->open(paths_.data, paths_.index, true) == Status::fits &&
         attach(std::move(pair), seen);
}

std::uint64_t Engine::entries() {
  const Pair* const pair = present();
  return pair == nullptr ? 0 : pair->index.entries();
}

std::uint64_t Engine::usage() const { return size_of(paths_.data) + size_of(paths_.index); }

void Engine::prefetch(const util::RoBuffer* keys, std::size_t count) {
  constexpr std::uint64_t kAhead = 4096;
  const Pair* const pair = present();
  for (std::size_t i = 0; pair != nullptr && i < count; ++i) {
    const std::uint64_t hash = hash_of(keys[i].get_buffer(), keys[i].get_size());
    const std::uint64_t mask = pair->index.slots() - 1;
    for (std::uint64_t probes = 0; probes <= mask; ++probes) {
      const std::uint64_t slot = pair->index.slot((hash + probes) & mask);
      if (slot != 0 && has_tag(slot, hash)) {
        pair->data.prefetch(offset_in(slot), kAhead);
      }
      if (slot == 0 || has_tag(slot, hash)) {
        break;
      }
    }
  }
}

bool Engine::read_all(EntryMap& out) {
  std::vector<std::uint64_t> damaged;
  const auto add = [&](const Entry& entry, std::uint64_t offset) {
    if (auto value = entry.copy_value()) {
      out.emplace(util::RoBuffer::copy(entry.key(), entry.key_size()), std::move(*value));
    } else {
      damaged.push_back(offset);
    }
  };
  for (Pair* pair = present(); pair != nullptr;) {
    damaged.clear();
    const std::uint64_t covered = pair->index.covered();
    const bool has_all = covered <= pair->readable();
    const ScanResult result = scan(pair->data, std::min(covered, pair->readable()), false, add);
    if (present() == pair && (has_all || !open_again(pair))) {
      for (const std::uint64_t offset : damaged) {
        report_damaged_entry(*pair, offset);
      }
      return has_all && result.end == covered;
    }
    pair = present();  // the other one was replaced meanwhile, and perhaps emptied
  }
  return false;
}

// --- storing ---

bool Engine::store(const EntryMap& diff) try {
  const Locked locked(*lock_);
  return store_locked(diff);
} catch (const std::exception& error) {
  QV_LOG(g_module, WARN, "Couldn't append to %s: %s", paths_.data.c_str(), error.what());
  return false;
}

// With the lock: whether the pair can be appended to.
bool Engine::fits(const Pair* pair) const {
  if (pair == nullptr || !is_present(*pair)) {
    return false;
  }
  const std::uint64_t size = pair->data.size();
  return pair->index.covered() <= size && size <= pair->data.mapped_size();
}

bool Engine::store_locked(const EntryMap& diff) {
  for (int attempts = 0; attempts < 6; ++attempts) {
    Pair* const pair = present();
    if (!fits(pair)) {
      if (!open_locked()) {
        return false;
      }
      continue;  // a look-up may have attached another pair first
    }
    const Pinned pinned(*pair);
    if (!pinned) {
      continue;  // another thread has just replaced it
    }
    Append append(paths_, *pair);
    if (!append.recover()) {
      break;
    }
    const Append::Result result = append.run(diff);
    if (result == Append::Result::stored) {
      return true;
    }
    if (result == Append::Result::failed || !grow(*pair, diff.size())) {
      break;
    }
  }
  QV_LOG(g_module, WARN, "Couldn't append to %s: %s", paths_.data.c_str(), std::strerror(errno));
  return false;
}

// Readers of the old index find the mark and then the new one.
bool Engine::grow(Pair& pair, std::uint64_t more) {
  IndexBuilder builder(pair.data);
  const std::uint64_t covered = pair.index.covered();
  if (builder.collect(covered, false).end != covered) {
    errno = EBADMSG;
    return false;
  }
  if (!builder.write(paths_.new_index, more)) {
    return false;
  }
  pair.index.set_moving(true);
  return std::rename(paths_.new_index.c_str(), paths_.index.c_str()) == 0;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
