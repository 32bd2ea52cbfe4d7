#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <utility>

#include <quorvane/file_store.h>

#include "src/cache/checks.h"
#include "src/cache/entry_key.h"
#include "src/cache/key_file_scan.h"
#include "src/cache/lazy_append.h"
#include "src/cache/lazy_entry.h"
#include "src/cache/noted_change.h"
#include "src/cache/store_files.h"
#include "src/cache/store_place.h"
#include "src/cache/trace.h"

namespace quorvane {
namespace cache {
namespace {

constexpr unsigned kVersion = 2;

// Wide enough for the sum of any two positions.
__extension__ typedef unsigned __int128 Position;

// Closes a mapping unless the load succeeds.
class Provisional {
 public:
  explicit Provisional(util::MMappedFile& file) : file_(&file) {}
  ~Provisional() {
    if (file_ != nullptr) {
      file_->close();
    }
  }
  Provisional(const Provisional&) = delete;
  Provisional& operator=(const Provisional&) = delete;

  void keep() { file_ = nullptr; }

 private:
  util::MMappedFile* file_;
};

}  // namespace

LazyLookupStore::LazyLookupStore(const std::string& name, std::shared_ptr<Store::Lock> lock,
                                 CleanupController* controller)
    : LazyLookupStore(StorePlace{"", name}, std::move(lock), controller) {}

LazyLookupStore::LazyLookupStore(const StorePlace& place, std::shared_ptr<Store::Lock> lock,
                                 CleanupController* controller)
    : FileStoreSkeleton(kVersion, place.name, std::move(lock), controller),
      key_fpath_(place.path_of(get_key_fname(place.name))),
      val_fpath_(place.path_of(get_val_fname(place.name))) {
  set_key_file(key_fpath_);
  if (place.read_only) {
    set_read_only(key_fpath_);
  }
}

LazyLookupStore::~LazyLookupStore() = default;

std::string LazyLookupStore::type() const { return "LazyLookupStore"; }
std::string LazyLookupStore::get_key_fname(const std::string& name) { return "key_" + name; }
std::string LazyLookupStore::get_val_fname(const std::string& name) { return "val_" + name; }

// --- the pieces of the two files ---

std::size_t LazyLookupStore::get_key_file_entry_representation_size(
    const util::RoBuffer& key, const std::vector<util::RoBuffer>& val) {
  return lazy_entry::size_in_key_file(key, val);
}

std::size_t LazyLookupStore::get_val_file_entry_representation_size(
    const std::vector<util::RoBuffer>& val) {
  return lazy_entry::size_in_val_file(val);
}

bool LazyLookupStore::write_key_file_entry(util::BufferWriter& fwriter, const util::RoBuffer& key,
                                           std::size_t val_offset,
                                           const std::vector<util::RoBuffer>& val) {
  return lazy_entry::write_to_key_file(fwriter, key, val_offset, val);
}

bool LazyLookupStore::write_val_atom_positions(util::BufferWriter& fwriter, std::size_t val_offset,
                                               const std::vector<util::RoBuffer>& val) {
  return lazy_entry::write_positions(fwriter, val_offset, val);
}

bool LazyLookupStore::write_val_file_entry(util::BufferWriter& fwriter,
                                           const std::vector<util::RoBuffer>& val) {
  return lazy_entry::write_to_val_file(fwriter, val);
}

bool LazyLookupStore::write_val_atom_data(util::BufferWriter& fwriter,
                                          const std::vector<util::RoBuffer>& val) {
  return lazy_entry::write_atoms(fwriter, val);
}

bool LazyLookupStore::read_val_atom_positions(util::BufferReader& key_freader,
                                              std::size_t& val_offset,
                                              std::vector<std::size_t>& sizes) {
  std::size_t num_val_atoms = 0;
  if (!CACHE_EXPECT_AT(1, key_freader.get(&val_offset), 897) ||
      !CACHE_EXPECT_AT(1, key_freader.get(&num_val_atoms), 902) ||
      !CACHE_EXPECT_AT(1, num_val_atoms > 0, 904)) {
    return false;
  }
  sizes.clear();
  sizes.reserve(std::min(num_val_atoms, key_freader.remaining() / sizeof(std::size_t)));
  for (std::size_t atom = 0; atom < num_val_atoms; ++atom) {
    std::size_t val_atom_size = 0;
    if (!CACHE_EXPECT_AT(1, key_freader.get(&val_atom_size), 911) ||
        !CACHE_EXPECT_AT(1, val_atom_size > 0, 913)) {
      return false;
    }
    sizes.push_back(val_atom_size);
  }
  return true;
}

bool LazyLookupStore::skip_val_atom_positions(util::BufferReader& key_freader) {
  std::size_t num_val_atoms = 0;
  if (!CACHE_EXPECT_AT(1, key_freader.buffer(sizeof(std::size_t)), 950) ||
      !CACHE_EXPECT_AT(1, key_freader.get(&num_val_atoms), 955) ||
      !CACHE_EXPECT_AT(1, num_val_atoms > 0, 957)) {
    return false;
  }
  // A count whose size in bytes would wrap is limited, and still exceeds any file.
  num_val_atoms =
      std::min(num_val_atoms, std::numeric_limits<std::size_t>::max() / sizeof(std::size_t));
  return CACHE_EXPECT_AT(1, key_freader.buffer(num_val_atoms * sizeof(std::size_t)), 963);
}

bool LazyLookupStore::shallow_read_val(util::RoBuffer& val_fbuffer, std::size_t val_offset,
                                       const std::vector<std::size_t>& sizes,
                                       std::vector<util::RoBuffer>& val) {
  if (!CACHE_EXPECT_AT(1, val_offset >= sizeof(hdr_t), 923)) {
    return false;
  }
  // Each atom has at least one byte.
  val.reserve(val.size() + std::min(sizes.size(), val_fbuffer.get_size()));
  // The magic number is not checked. Kept: docs/compatibility.md
  Position val_atom_offset = Position{val_offset} + sizeof(QV_CACHE_STORE_MAGIC_NUMBER);
  for (const std::size_t val_atom_size : sizes) {
    if (!CACHE_EXPECT_AT(1, val_atom_offset + val_atom_size <= val_fbuffer.get_size(), 934)) {
      return false;
    }
    val.push_back(util::RoBuffer::view(
        val_fbuffer.get_buffer() + static_cast<std::size_t>(val_atom_offset), val_atom_size));
    val_atom_offset += val_atom_size;
  }
  return true;
}

// --- the files ---

bool LazyLookupStore::check_consistent_state() const {
  const bool key_file_exists = file_exists(key_fpath_);
  const bool val_file_exists = file_exists(val_fpath_);
  return CACHE_EXPECT_AT(1, key_file_exists == val_file_exists, 1036) &&
         CACHE_EXPECT_AT(1, key_file_last_size_ == 0 || key_file_exists, 1041);
}

std::uint64_t LazyLookupStore::nonlock_get_disk_usage() const {
  std::uint64_t usage = 0;
  struct stat st;
  if (CACHE_EXPECT_AT(3, stat(key_fpath_.c_str(), &st) == 0, 1365)) {
    usage += static_cast<std::uint64_t>(st.st_size);
  }
  if (CACHE_EXPECT_AT(3, stat(val_fpath_.c_str(), &st) == 0, 1368)) {
    usage += static_cast<std::uint64_t>(st.st_size);
  }
  return usage;
}

void LazyLookupStore::nonlock_clean() {
  NotedChange noted(file_lock(),
                    {&key_fpath_, &val_fpath_});  // a pair without one of its files is damaged
  unlink(val_fpath_.c_str());
  unlink(key_fpath_.c_str());
  noted.end();
  QV_LOG(g_module, DEBUG, "Cachemap files %s and %s cleaned", key_fpath_.c_str(),
         val_fpath_.c_str());
}

bool LazyLookupStore::try_nonlock_load(EntryMap& map) {
  if (!check_consistent_state() || !CACHE_EXPECT_AT(3, file_exists(key_fpath_), 1158)) {
    return false;
  }
  util::MMappedFile key_file;
  map_whole(key_file, key_fpath_);
  if (!CACHE_EXPECT_AT(2, key_file.is_open(), 1163)) {
    return false;
  }
  CACHE_ASSERT_AT(!val_file_.is_open(), 1166);
  map_whole(val_file_, val_fpath_);
  if (!CACHE_EXPECT_AT(2, val_file_.is_open(), 1169)) {
    return false;
  }
  Provisional values(val_file_);
  Trace traced(this, trace::Operation::store_load);
  const bool loaded = read_files(key_file, map);
  traced.end(key_file.size());
  if (!loaded) {
    return false;
  }
  QV_LOG(g_module, DEBUG, "Cachemap (%s, %s) files loaded", key_fpath_.c_str(), val_fpath_.c_str());
  key_file_last_size_ = key_file.size();
  values.keep();
  return true;
}

bool LazyLookupStore::read_files(const util::MMappedFile& key_file, EntryMap& map) {
  const auto key_fbuffer = util::RoBuffer::view(key_file.data(), key_file.size());
  auto val_fbuffer = util::RoBuffer::view(val_file_.data(), val_file_.size());
  util::BufferReader key_freader = key_fbuffer.reader();
  util::BufferReader val_freader = val_fbuffer.reader();
  if (!read_header(key_freader) || !read_header(val_freader)) {
    return false;
  }
  if (insert_whole_key_file(key_freader, val_fbuffer, sizeof(hdr_t), map) ||
      read_entries(key_freader, val_fbuffer, map)) {
    return true;
  }
  QV_LOG(g_module, ERROR, "Cachemap %s file corrupted", key_fpath_.c_str());
  return false;
}

// Reads the entries one by one in file order, up to the first that is damaged or repeats a
// key.
bool LazyLookupStore::read_entries(util::BufferReader& key_freader, util::RoBuffer& val_fbuffer,
                                   EntryMap& map) const {
  std::size_t val_offset = 0;
  std::vector<std::size_t> sizes;
  while (key_freader.remaining() > 0) {
    util::RoBuffer key = read_entry_key(key_freader);
    std::vector<util::RoBuffer> val;
    if (key.get_size() == 0 || !read_val_atom_positions(key_freader, val_offset, sizes) ||
        !shallow_read_val(val_fbuffer, val_offset, sizes, val)) {
      return false;
    }
    if (!map.emplace(std::move(key), std::move(val)).second) {  // Kept: docs/compatibility.md
      QV_LOG(g_module, ERROR, "Collision inside cachemap %s file ocurred", key_fpath_.c_str());
      return CACHE_EXPECT_AS(3, false, "emplace_ret.second", 1230);
    }
  }
  return true;
}

bool LazyLookupStore::try_nonlock_load_new_keys(KeySet& keys) {
  if (must_read_all_keys()) {
    key_file_last_size_ = 0;
  }
  if (!check_consistent_state() || !CACHE_EXPECT_AT(3, file_exists(key_fpath_), 1271)) {
    return false;
  }
  util::MMappedFile key_file;
  map_whole(key_file, key_fpath_);
  if (!CACHE_EXPECT_AT(2, key_file.is_open(), 1276) ||
      !CACHE_EXPECT_AT(1, key_file.size() >= key_file_last_size_, 1295)) {
    return false;
  }
  Trace traced(this, trace::Operation::store_load);
  const auto key_fbuffer = util::RoBuffer::view(key_file.data(), key_file.size());
  util::BufferReader key_freader = key_fbuffer.reader();
  const bool loaded = pass_known_part(key_freader) && read_new_keys(key_freader, keys);
  traced.end(key_file.size() - key_file_last_size_);
  if (!loaded) {
    return false;
  }
  QV_LOG(g_module, DEBUG, "Cachemap %s diff loaded", key_fpath_.c_str());
  key_file_last_size_ = key_file.size();
  return true;
}

bool LazyLookupStore::pass_known_part(util::BufferReader& key_freader) const {
  if (key_file_last_size_ == 0) {
    return CACHE_EXPECT_AT(1, read_header(key_freader), 1279);
  }
  return CACHE_EXPECT_AT(1, key_freader.buffer(key_file_last_size_), 1300);
}

bool LazyLookupStore::read_new_keys(util::BufferReader& key_freader, KeySet& keys) const {
  while (key_freader.remaining() > 0) {
    if (!read_new_key(key_freader, keys)) {
      QV_LOG(g_module, ERROR, "Cachemap %s file corrupted", key_fpath_.c_str());
      return false;
    }
  }
  return true;
}

bool LazyLookupStore::read_new_key(util::BufferReader& key_freader, KeySet& keys) const {
  util::RoBuffer key = read_entry_key(key_freader);
  if (key.get_size() == 0 || !skip_val_atom_positions(key_freader)) {
    return false;
  }
  const bool is_new = keys.emplace(std::move(key)).second;
  if (!is_new) {  // Kept: docs/compatibility.md
    QV_LOG(g_module, WARN, "Collision inside cachemap %s file ocurred", key_fpath_.c_str());
  }
  return CACHE_EXPECT_AS(1, is_new, "emplace_ret.second", 1332);
}

bool LazyLookupStore::try_nonlock_append(const EntryMap& diff, const KeySet& keys_to_skip) {
  const bool are_new = !file_exists(key_fpath_) && !file_exists(val_fpath_);
  NotedChange noted(file_lock(), {&key_fpath_, &val_fpath_});
  if (!noted.may_begin()) {
    return report_standing_note(key_fpath_);
  }
  noted.create_missing();
  std::ofstream key_file = cache_file_prepare_to_append(key_fpath_);
  std::ofstream val_file = cache_file_prepare_to_append(val_fpath_);
  noted.identify_created();
  if (!key_file.good() || !val_file.good()) {
    if (!are_new) {
      noted.end();
    }
    return false;  // noted undoes a new pair: one file alone would fail every load
  }
  Trace traced(this, trace::Operation::store_append);
  LazyAppend append(key_file, val_file);
  const bool fbuffer_corrupted = !append.write(diff, keys_to_skip);
  traced.end(append.bytes());
  key_file.close();  // some file systems report errors only now
  val_file.close();
  if (!CACHE_EXPECT_AT(1, !fbuffer_corrupted && key_file.good() && val_file.good(), 1126)) {
    remove_unstored_files();
    noted.end();
    return false;
  }
  noted.end();
  QV_LOG(g_module, DEBUG, "Cache files (%s, %s) stored", key_fpath_.c_str(), val_fpath_.c_str());
  return true;
}

void LazyLookupStore::remove_unstored_files() const {
  remove_unstored(key_fpath_);
  remove_unstored(val_fpath_);
  QV_LOG(g_module, WARN, "Cache files (%s, %s) removed as they couldn't be stored correctly",
         key_fpath_.c_str(), val_fpath_.c_str());
}

}  // namespace cache
}  // namespace quorvane
