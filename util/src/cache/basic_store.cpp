#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include <quorvane/file_store.h>

#include "src/cache/checks.h"
#include "src/cache/entry_key.h"
#include "src/cache/entry_scan.h"
#include "src/cache/noted_change.h"
#include "src/cache/store_files.h"
#include "src/cache/store_place.h"
#include "src/cache/trace.h"

namespace quorvane {
namespace cache {
namespace {

constexpr unsigned kVersion = 1;

// The record of a failed write quotes this, and readers of logs search for it.
constexpr const char* kWrite =
    "file.write(reinterpret_cast<const char *>(fbuffer.get_buffer()), fbuffer.get_size()) .good()";

}  // namespace

BasicStore::BasicStore(const std::string& name, std::shared_ptr<Store::Lock> lock,
                       CleanupController* controller)
    : BasicStore(StorePlace{"", name}, std::move(lock), controller) {}

BasicStore::BasicStore(const StorePlace& place, std::shared_ptr<Store::Lock> lock,
                       CleanupController* controller)
    : FileStoreSkeleton(kVersion, place.name, std::move(lock), controller),
      fpath_(place.path_of(place.name)) {
  set_key_file(fpath_);
  if (place.read_only) {
    set_read_only(fpath_);
  }
}

BasicStore::~BasicStore() = default;

std::string BasicStore::type() const { return "BasicStore"; }

std::uint64_t BasicStore::get_entry_representation_size(const util::RoBuffer& key,
                                                        const std::vector<util::RoBuffer>& val) {
  std::uint64_t size = sizeof(QV_CACHE_STORE_MAGIC_NUMBER) + sizeof(std::uint64_t) +
                       key.get_size() + sizeof(std::uint64_t);
  for (const util::RoBuffer& atom : val) {
    size += sizeof(std::uint64_t) + atom.get_size();
  }
  return size;
}

bool BasicStore::write_entry(util::BufferWriter& fwriter, const util::RoBuffer& key,
                             const std::vector<util::RoBuffer>& val) {
  return write_magic_number(fwriter) && write_key(fwriter, key) && write_val(fwriter, val);
}

bool BasicStore::check_consistent_state() const {
  return CACHE_EXPECT(1, file_last_size_ == 0 || file_exists(fpath_));
}

std::uint64_t BasicStore::nonlock_get_disk_usage() const {
  struct stat st;
  if (!CACHE_EXPECT(3, stat(fpath_.c_str(), &st) == 0)) {
    return 0;
  }
  return static_cast<std::uint64_t>(st.st_size);
}

void BasicStore::nonlock_clean() {
  unlink(fpath_.c_str());
  QV_LOG(g_module, DEBUG, "Cachemap file %s cleaned", fpath_.c_str());
}

void BasicStore::report_collision() const {
  QV_LOG(g_module, WARN, "Collision inside cachemap %s file ocurred", fpath_.c_str());
}

bool BasicStore::try_nonlock_load(EntryMap& out) {
  if (!check_consistent_state()) {
    return false;
  }
  if (!CACHE_EXPECT(3, file_exists(fpath_))) {
    return true;  // a missing file is an empty cache
  }
  util::MMappedFile file;
  map_whole(file, fpath_);
  if (!CACHE_EXPECT(2, file.is_open())) {
    return false;
  }
  Trace traced(this, trace::Operation::store_load);
  const auto image = util::RoBuffer::view(file.data(), file.size());
  util::BufferReader freader = image.reader();
  const bool whole = read_header(freader) && read_entries(freader, out);
  traced.end(file.size());
  if (!whole) {
    QV_LOG(g_module, ERROR, "Cachemap %s file corrupted", fpath_.c_str());
    return false;
  }
  QV_LOG(g_module, DEBUG, "Cachemap %s file loaded", fpath_.c_str());
  file_last_size_ = file.size();
  return true;
}

// False when an entry is damaged. Those before it are in `out`.
bool BasicStore::read_entries(util::BufferReader& freader, EntryMap& out) const {
  for (const ScannedEntry& entry : scan_entries(freader, pass_basic_value)) {
    auto copy = entry.copy();
    const std::size_t before = out.size();
    out.emplace_hint(out.end(), std::move(copy.first), std::move(copy.second));
    const bool is_new = out.size() != before;
    if (!CACHE_EXPECT_AS(1, is_new, "emplace_ret.second", __LINE__)) {
      report_collision();  // and go on. Kept: docs/compatibility.md
    }
  }
  if (freader.remaining() == 0) {
    return true;
  }
  // Read the damaged entry again, to report what is wrong with it.
  std::vector<util::RoBuffer> val;
  if (read_entry_key(freader).get_size() > 0) {
    read_val(freader, val);
  }
  return false;
}

bool BasicStore::try_nonlock_load_new_keys(KeySet& new_keys) {
  if (must_read_all_keys()) {
    file_last_size_ = 0;
  }
  if (!check_consistent_state()) {
    return false;
  }
  if (!CACHE_EXPECT(3, file_exists(fpath_))) {
    return true;
  }
  util::MMappedFile file;
  map_whole(file, fpath_);
  if (!CACHE_EXPECT(2, file.is_open()) || !CACHE_EXPECT(1, file.size() >= file_last_size_)) {
    return false;
  }
  Trace traced(this, trace::Operation::store_load);
  const auto image = util::RoBuffer::view(file.data(), file.size());
  util::BufferReader freader = image.reader();
  const bool whole = pass_known_part(freader) && read_keys(freader, new_keys);
  if (whole) {
    QV_LOG(g_module, DEBUG, "Cachemap %s diff loaded", fpath_.c_str());
  } else {
    QV_LOG(g_module, ERROR, "Cachemap %s file corrupted", fpath_.c_str());
  }
  traced.end(file.size() - file_last_size_);
  if (whole) {
    file_last_size_ = file.size();
  }
  return whole;
}

bool BasicStore::pass_known_part(util::BufferReader& freader) const {
  if (file_last_size_ == 0) {
    return CACHE_EXPECT(1, read_header(freader));
  }
  return CACHE_EXPECT(1, freader.buffer(file_last_size_));
}

bool BasicStore::read_keys(util::BufferReader& freader, KeySet& new_keys) const {
  while (freader.remaining() > 0) {
    util::RoBuffer key = read_entry_key(freader);
    if (key.get_size() == 0 || !skip_val(freader)) {
      return false;
    }
    const bool is_new = new_keys.emplace(std::move(key)).second;
    if (!CACHE_EXPECT_AS(1, is_new, "emplace_ret.second", __LINE__)) {
      report_collision();
    }
  }
  return true;
}

bool BasicStore::try_nonlock_append(const EntryMap& diff, const KeySet& new_keys) {
  if (!check_consistent_state()) {
    return false;
  }
  NotedChange noted(file_lock(), {&fpath_});
  if (!noted.may_begin()) {
    return report_standing_note(fpath_);
  }
  noted.create_missing();
  std::ofstream file = cache_file_prepare_to_append(fpath_);
  if (!file.is_open()) {
    noted.undo();  // deletes a file that create_missing() made
  }
  noted.identify_created();
  bool fbuffer_corrupted = false;
  if (file.good()) {
    const std::streamoff start = file.tellp();
    Trace traced(this, trace::Operation::store_append);
    fbuffer_corrupted = !write_entries(file, diff, new_keys);
    // A full disk shows when the stream writes its buffer.
    file.flush();
    const std::streamoff end = file.tellp();  // -1 after a failure
    traced.end(static_cast<std::uint64_t>(std::max(end, start) - start));
  }
  file.close();  // some file systems report errors only now
  if (!CACHE_EXPECT(1, !fbuffer_corrupted && file.good())) {
    remove_unstored_file();
    noted.end();
    return false;
  }
  noted.end();
  QV_LOG(g_module, DEBUG, "Cache file %s stored", fpath_.c_str());
  return true;
}

// False when an entry does not fit its buffer. Failed writes show in the stream's state.
bool BasicStore::write_entries(std::ofstream& file, const EntryMap& diff,
                               const KeySet& new_keys) const {
  for (const auto& [key, val] : diff) {
    if (new_keys.count(key) != 0) {
      continue;  // another process has stored it
    }
    util::RwBuffer fbuffer(get_entry_representation_size(key, val));
    util::BufferWriter fwriter = fbuffer.writer();
    if (!write_entry(fwriter, key, val)) {
      return false;
    }
    write_buffer(file, fbuffer);
    if (!CACHE_EXPECT_AS(1, file.good(), kWrite, __LINE__)) {
      return true;
    }
  }
  return true;
}

void BasicStore::remove_unstored_file() const {
  remove_unstored(fpath_);
  QV_LOG(g_module, WARN, "Cache file %s removed as it couldn't be stored correctly",
         fpath_.c_str());
}

}  // namespace cache
}  // namespace quorvane
