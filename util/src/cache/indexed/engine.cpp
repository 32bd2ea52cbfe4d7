#include "src/cache/indexed/engine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <utility>

#include "src/cache/checks.h"
#include "src/cache/failure.h"
#include "src/cache/indexed/index_builder.h"
#include "src/cache/indexed/reported.h"
#include "src/cache/indexed/scan.h"
#include "src/cache/trace.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// How often one call prepares the files anew: to grow the index, to clean, and when somebody
// replaces the files by hand meanwhile.
constexpr int kAttempts = 8;

// Of all stores of the process. Not a part of each: to clear it would be a twentieth of the time of
// opening.
constinit Reported g_reported;

std::uint64_t size_of(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool exists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

bool may_write(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

std::uint64_t smallest_store() { return kFirstEntry + index_size_for(0); }

// The disk has no room for a file, or the process may not make one that large.
bool is_full(int error) { return error == ENOSPC || error == EDQUOT || error == EFBIG; }

std::uint64_t bytes_of(const EntryMap& diff) {
  std::uint64_t bytes = 0;
  for (const auto& [key, value] : diff) {
    bytes += size_in_file(key, value);
  }
  return bytes;
}

// The entries from `next` on, up to so many bytes, but at least one. Moves `next` behind them.
EntryMap next_piece(EntryMap::const_iterator& next, EntryMap::const_iterator end,
                    std::uint64_t bytes) {
  EntryMap piece;
  for (std::uint64_t taken = 0; next != end; ++next) {
    taken += size_in_file(next->first, next->second);
    if (taken > bytes && !piece.empty()) {
      break;
    }
    piece.emplace_hint(piece.end(), *next);
  }
  return piece;
}

}  // namespace

Engine::Engine(const std::string& root, const std::string& name, std::shared_ptr<Store::Lock> lock,
               bool read_only)
    : paths_(root, name),
      lock_(std::move(lock)),
      read_only_(read_only),
      present_(paths_, !read_only) {}

// --- opening ---

bool Engine::open_unlocked() try {
  std::unique_ptr<Pair> pair;
  return try_open(pair) == Status::fits;
} catch (const std::bad_alloc&) {
  return false;
}

bool Engine::open() try {
  std::unique_ptr<Pair> pair;
  const Status status = try_open(pair);
  if (status == Status::fits) {
    return true;
  }
  if (read_only_) {
    return report(*pair, status, pair->data.is_open() ? paths_.index : paths_.data);
  }
  const StoreTurn turn(*lock_, lock_waited_);
  return open_locked();
} catch (const std::exception& error) {
  Failure::note_exception();
  QV_LOG(g_module, ERROR, "Couldn't open %s: %s", paths_.data.c_str(), error.what());
  return false;
}

// Attaches the pair if it fits.
Status Engine::try_open(std::unique_ptr<Pair>& pair) {
  opened_usage_ = 0;
  Pair* const before = present_.get();
  const Status status = present_.open(pair);
  if (status == Status::fits) {
    opened_usage_ = pair->usage_when_opened();
    present_.attach(std::move(pair), before);
  }
  return status;
}

// With the lock: opens the files, creates what is missing and finishes the clean of a process
// that was killed.
bool Engine::open_locked() {
  for (int attempts = 0; attempts < 4; ++attempts) {  // the data, its index, a rename, and opened
    std::unique_ptr<Pair> pair;
    const Status status = present_.open(pair);
    if (status != Status::fits) {
      if (!create_or_rebuild(*pair, status)) {
        return false;
      }
    } else if (descriptor::is_at(paths_.data.c_str(), pair->data.id())) {
      present_.replace_by(std::move(pair));
      return true;
    } else if (descriptor::is_at(paths_.cleaned_data.c_str(), pair->data.id()) &&
               !finish_rename(paths_)) {
      QV_LOG(g_module, ERROR, "Couldn't rename %s: %s", paths_.cleaned_data.c_str(),
             std::strerror(errno));
      return false;
    }
  }
  QV_LOG(g_module, ERROR, "Couldn't open %s: it doesn't stay as it was written",
         paths_.index.c_str());
  return false;
}

bool Engine::create_or_rebuild(const Pair& pair, Status status) {
  const bool is_data_open = pair.data.is_open();
  if (!is_data_open && status == Status::missing) {
    if (DataWriter::create(paths_.data)) {
      return true;
    }
    status = Status::refused;
  }
  const bool is_of_another_user =
      status == Status::refused && errno == EACCES && may_write(paths_.data);
  if (is_data_open &&
      (status == Status::missing || status == Status::stale || is_of_another_user)) {
    return build_index(pair.data);
  }
  return report(pair, status, is_data_open ? paths_.index : paths_.data);
}

// Always false.
bool Engine::report(const Pair& pair, Status status, const std::string& path) const {
  const bool is_data_open = pair.data.is_open();
  if (status == Status::other_version) {
    QV_LOG(g_module, ERROR, "%s has version %u of its format, this library knows version %u",
           path.c_str(), is_data_open ? pair.index.version() : pair.data.version(), kVersion);
  } else if (status == Status::refused) {
    QV_LOG(g_module, ERROR, "Couldn't open %s: %s", path.c_str(), std::strerror(errno));
  } else if (is_data_open) {
    QV_LOG(g_module, ERROR,
           "%s is missing or doesn't fit its data. To make it again, open the store once for "
           "writing",
           path.c_str());
  } else if (status == Status::missing) {
    QV_LOG(g_module, ERROR, "%s is missing or empty. To create the store, open it once for writing",
           path.c_str());
  } else {
    QV_LOG(g_module, ERROR, "%s is damaged at offset 0: no header", path.c_str());
  }
  return false;
}

bool Engine::build_index(const DataFile& data) {
  Trace traced(this, trace::Operation::store_recover);
  const bool is_built = try_build_index(data);
  traced.end(data.size_when_opened());
  return is_built;
}

bool Engine::try_build_index(const DataFile& data) {
  if (data.mapped_size() == 0) {
    QV_LOG(g_module, ERROR, "Couldn't map %s: %s", paths_.data.c_str(), std::strerror(errno));
    return false;
  }
  IndexBuilder builder(data);
  const ScanResult result = builder.collect(data.size_when_opened(), true);
  if (result.is_damaged) {
    QV_LOG(g_module, ERROR, "%s is damaged at offset %lu: no whole entry, but others follow",
           paths_.data.c_str(), result.end);
    return false;
  }
  if (!builder.write(paths_.new_index, 0) || !install_index()) {
    QV_LOG(g_module, ERROR, "Couldn't make %s: %s", paths_.index.c_str(), std::strerror(errno));
    return false;
  }
  return true;
}

// --- looking up ---

bool Engine::find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) {
  const std::uint64_t hash = hash_of(key.get_buffer(), key.get_size());
  const ReaderGate::Inside inside;
  for (;;) {
    Pair* const pair = present_.get();
    if (pair == nullptr) {
      return false;
    }
    bool outgrown = false;
    EntryBuffer buffer;
    auto found = pair->find(key, hash, outgrown, &buffer);
    auto copy = found ? found->entry.copy_value() : std::nullopt;
    if (found && !copy) {
      found = pair->find(key, hash, outgrown);
      copy = found ? found->entry.copy_value() : std::nullopt;
    }
    // A clean may have dropped the entry, and another process stored the key anew.
    const bool is_sure = copy && !pair->index.is_moving();
    if (!is_sure && present_.may_look_again(pair, outgrown)) {
      continue;
    }
    if (copy) {
      found_.add(hash);
      value = std::move(*copy);
      return true;
    }
    if (found) {
      report_damaged_entry(*pair, found->offset);
    }
    report_unmapped(*pair);
    return false;
  }
}

bool Engine::lacks(std::uint64_t hash) {
  const ReaderGate::Inside inside;
  Pair* const pair = present_.get();
  return pair != nullptr && pair->index.first_slot_of(hash) == 0 &&
         !present_.may_look_again(pair, false);
}

void Engine::prefetch_slot(std::uint64_t hash) const {
  const ReaderGate::Inside inside;
  if (const Pair* const pair = present_.get()) {
    __builtin_prefetch(pair->index.place_of(hash));
  }
}

void Engine::report_damaged_entry(const Pair& pair, std::uint64_t offset) {
  if (g_reported.add(pair.data.identity() ^ offset)) {
    QV_LOG(g_module, WARN, "The entry at offset %lu of %s is damaged, and so is not found", offset,
           paths_.data.c_str());
  }
}

// What can't be mapped is not found, unless it can be read.
void Engine::report_unmapped(const Pair& pair) {
  const int error = pair.data.map_error();
  if (error != 0 && g_reported.add(pair.data.identity())) {
    QV_LOG(g_module, WARN, "Couldn't map %s: %s", paths_.data.c_str(), std::strerror(error));
  }
}

std::uint64_t Engine::entries() {
  const ReaderGate::Inside inside;
  for (;;) {
    Pair* const pair = present_.get();
    const std::uint64_t entries = pair == nullptr ? 0 : pair->index.entries();
    if (pair == nullptr || !present_.may_look_again(pair, false)) {
      return entries;
    }
  }
}

void Engine::prefetch(const util::RoBuffer* keys, std::size_t count) {
  constexpr std::uint64_t kAhead = 4096;
  const ReaderGate::Inside inside;
  const Pair* const pair = present_.get();
  for (std::size_t i = 0; pair != nullptr && i < count; ++i) {
    const std::uint64_t hash = hash_of(keys[i].get_buffer(), keys[i].get_size());
    const std::uint64_t slot = pair->index.first_slot_of(hash);
    if (slot != 0) {
      pair->data.prefetch(offset_in(slot), kAhead);
    }
  }
}

bool Engine::read_all(EntryMap& out) {
  const ReaderGate::Inside inside;
  for (Pair* pair = present_.get(); pair != nullptr;) {
    EntryMap all;
    std::vector<std::uint64_t> damaged;
    const auto add = [&](const Entry& entry, std::uint64_t offset) {
      if (auto value = entry.copy_value()) {
        all.emplace(util::RoBuffer::copy(entry.key(), entry.key_size()), std::move(*value));
      } else {
        damaged.push_back(offset);
      }
    };
    const std::uint64_t covered = pair->index.covered();
    const bool has_all = covered <= pair->readable();
    const ScanResult result =
        scan(pair->data, kFirstEntry, std::min(covered, pair->readable()), false, add);
    // Another process may have replaced the index, whose `covered` then stays where it is.
    const bool is_latest = has_all && descriptor::is_at(paths_.index.c_str(), pair->index.id());
    if (present_.get() == pair && (is_latest || !present_.open_again(pair))) {
      for (const std::uint64_t offset : damaged) {
        report_damaged_entry(*pair, offset);
      }
      report_unmapped(*pair);
      out.merge(all);
      return has_all && result.end == covered;
    }
    pair = present_.get();  // the other one was replaced meanwhile, and perhaps emptied
  }
  return false;
}

std::uint64_t Engine::usage() const { return size_of(paths_.data) + size_of(paths_.index); }

// --- storing ---

bool Engine::store(const EntryMap& diff, std::uint64_t limit) {
  return change(diff, limit, "append to");
}

bool Engine::clean(std::uint64_t limit) {
  return change({}, std::max(limit, smallest_store()), "clean");
}

// The verb is for the record.
bool Engine::change(const EntryMap& diff, std::uint64_t limit, const char* verb) try {
  if (read_only_) {
    QV_LOG(g_module, WARN, "Couldn't %s %s: it is open for reading only", verb,
           paths_.data.c_str());
    return false;
  }
  Replaced replaced;
  StoreTurn turn(*lock_, lock_waited_);
  if (Bound{limit, bytes_of(diff), diff.size()}.takes(kFirstEntry, 0)) {
    return change_at_once(turn, replaced, diff, limit, verb);
  }
  // What exceeds the limit alone goes there piece by piece, with cleans in between.
  bool is_done = true;
  for (auto next = diff.begin(); next != diff.end();) {
    is_done =
        change_at_once(turn, replaced, next_piece(next, diff.end(), limit / 4), limit, verb) &&
        is_done;
  }
  return is_done;
} catch (const std::exception& error) {
  Failure::note_exception();
  QV_LOG(g_module, WARN, "Couldn't %s %s: %s", verb, paths_.data.c_str(), error.what());
  return false;
}

bool Engine::change_at_once(StoreTurn& turn, Replaced& replaced, const EntryMap& diff,
                            std::uint64_t limit, const char* verb) {
  Step step = Step::again;
  for (int attempts = 0; attempts < kAttempts; attempts += step == Step::waited ? 0 : 1) {
    step = try_change(turn, replaced, diff, limit);
    if (step == Step::done || step == Step::failed || step == Step::reported) {
      break;
    }
    errno = EBUSY;
  }
  if (step != Step::done && step != Step::reported) {
    QV_LOG(g_module, WARN, "Couldn't %s %s: %s", verb, paths_.data.c_str(), std::strerror(errno));
  }
  return step == Step::done;
}

Engine::Step Engine::try_change(StoreTurn& turn, Replaced& replaced, const EntryMap& diff,
                                std::uint64_t limit) {
  Pinned pair = pin_current();
  if (!pair) {
    return Step::reported;
  }
  delete_leftovers();
  if (!pair->index.is_writable() && may_write(paths_.data)) {  // another user has made it
    return build_index(pair->data) ? Step::again : Step::reported;
  }
  Append append(paths_, *pair, this);
  if (!append.recover()) {
    return Step::failed;
  }
  append.choose(diff);
  if (append.size_after() > limit) {
    const Step step = make_room(turn, *pair, {limit, bytes_of(diff), diff.size()});
    replaced.push_back(std::move(pair));
    return step;
  }
  switch (append.run()) {
    case Append::Result::stored:
      // Otherwise somebody has deleted the files meanwhile, and the entries with them.
      return has_names(*pair) ? Step::done : Step::again;
    case Append::Result::failed:
      return Step::failed;
    default:
      return grow(*pair, diff.size()) ? Step::again : Step::failed;
  }
}

// With the lock: pins the pair that has the names. It is checked after it is pinned: a look-up
// may attach an older one at any time. Holds nothing, after a record, when there is no pair.
Pinned Engine::pin_current() {
  for (int attempts = 0; attempts < kAttempts; ++attempts) {
    Pinned pair = present_.pin();
    if (pair && is_current(*pair)) {
      return pair;
    }
    if (pair && has_names(*pair) && pair->data.mapped_size() == 0) {
      QV_LOG(g_module, WARN, "Couldn't map %s: %s", paths_.data.c_str(), std::strerror(errno));
      return Pinned(nullptr);
    }
    if (!open_locked()) {
      return Pinned(nullptr);
    }
  }
  QV_LOG(g_module, WARN, "Couldn't open %s: it is replaced again and again", paths_.data.c_str());
  return Pinned(nullptr);
}

// With the lock: whether the pair has the names, and can be appended to.
bool Engine::is_current(const Pair& pair) const {
  if (!has_names(pair)) {
    return false;
  }
  const std::uint64_t size = pair.data.size();
  return pair.index.covered() <= size && size <= pair.data.mapped_size();
}

bool Engine::has_names(const Pair& pair) const {
  return descriptor::is_at(paths_.index.c_str(), pair.index.id()) &&
         descriptor::is_at(paths_.data.c_str(), pair.data.id());
}

// With the lock, when the present pair has its names: deletes what killed processes have left.
void Engine::delete_leftovers() const {
  if (exists(paths_.new_index)) {
    unlink(paths_.new_index.c_str());
  }
  if (exists(paths_.cleaned_data) &&
      CleanerMark(paths_.cleaned_data).look() == CleanerMark::State::dead) {
    remove_leftovers(paths_);
  }
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
  if (!install_index()) {
    pair.index.set_moving(false);
    return false;
  }
  return true;
}

// The new index stays nowhere when it doesn't get its name: another user could not replace it.
bool Engine::install_index() const {
  if (std::rename(paths_.new_index.c_str(), paths_.index.c_str()) == 0) {
    return true;
  }
  const int error = errno;
  unlink(paths_.new_index.c_str());
  errno = error;
  return false;
}

// --- cleaning ---

// With the lock, which it lets others have meanwhile.
Engine::Step Engine::make_room(StoreTurn& turn, const Pair& pair, const Bound& bound) {
  if (!bound.takes(kFirstEntry, 0)) {
    QV_LOG(g_module, WARN,
           "Couldn't append to %s: %lu bytes of entries don't fit into a store of %lu bytes",
           paths_.data.c_str(), bound.bytes, bound.limit);
    return Step::reported;
  }
  CleanerMark other(paths_.cleaned_data);
  const CleanerMark::State state = other.look();
  if (state == CleanerMark::State::live) {
    turn.release();
    other.wait();
    turn.take();
    return Step::waited;
  }
  if (state == CleanerMark::State::unknown) {
    return Step::failed;
  }
  if (state == CleanerMark::State::dead) {
    remove_leftovers(paths_);  // it has died since delete_leftovers() looked
  }
  return clean_files(turn, pair, bound);
}

Engine::Step Engine::clean_files(StoreTurn& turn, const Pair& from, const Bound& bound) {
  Clean clean(paths_, bound, found_.all());
  if (!clean.begin(from)) {
    return Step::failed;
  }
  Trace traced(this, trace::Operation::store_clean);
  turn.release();
  const bool is_copied = clean.copy(from);
  const int error = errno;
  turn.take();
  errno = error;
  const Step step = finish_clean(clean, is_copied, from.data.identity());
  traced.end(clean.kept());
  return step;
}

// With the lock. A disk without room for copies may have room for an empty store.
Engine::Step Engine::finish_clean(Clean& clean, bool is_copied, std::uint64_t identity) {
  const int error = errno;
  const Pinned pair = pin_current();
  if (!pair) {
    return Step::reported;
  }
  if (pair->data.identity() != identity) {
    return Step::again;  // somebody has replaced the files by hand
  }
  if (!Append(paths_, *pair, this).recover()) {
    return Step::failed;
  }
  const std::uint64_t entries = pair->index.entries();
  const std::uint64_t size = usage();
  errno = error;
  if (is_copied && clean.copy_rest(*pair) && clean.replace(*pair)) {
    return count_clean(clean, entries, size) ? Step::again : Step::reported;
  }
  if (!is_full(errno) || !clean.has_own_names()) {
    return Step::failed;
  }
  const int full = errno;
  if (!clean.start_empty() || !clean.replace(*pair)) {
    return Step::failed;
  }
  QV_LOG(g_module, WARN,
         "Couldn't copy the entries of %s that were to stay, so it begins empty: %s",
         paths_.data.c_str(), std::strerror(full));
  return count_clean(clean, entries, size) ? Step::again : Step::reported;
}

bool Engine::count_clean(const Clean& clean, std::uint64_t entries, std::uint64_t size) {
  const std::uint64_t dropped = entries - clean.kept();
  kept_ += clean.kept();
  dropped_ += dropped;
  QV_LOG(g_module, INFO, "Cleaned %s: kept %lu entries, dropped %lu; %lu bytes before, %lu after",
         paths_.data.c_str(), clean.kept(), dropped, size, usage());
  return open_locked();
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
