#include <quorvane/file_store.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "src/cache/checks.h"
#include "src/cache/file_trace.h"
#include "src/cache/locked.h"
#include "src/cache/size_text.h"
#include "src/once.h"

namespace quorvane {
namespace cache {
namespace {

std::optional<std::uint64_t> size_from_environment() {
  const char* const text = secure_getenv("QV_CACHE_STORE_SIZE");
  if (text == nullptr) {
    return std::nullopt;
  }
  const auto size = parse_size(text);
  if (!size) {
    QV_LOG(g_module, WARN, "Bad value of QV_CACHE_STORE_SIZE: \"%s\"", text);
  }
  return size;
}

void log_threshold(std::size_t threshold) {
  QV_LOG(g_module, INFO, "Cache store cleanup threshold set to %lu bytes", threshold);
}

// Marks a change, for a child that is forked in the middle of it.
class Mark {
 public:
  explicit Mark(std::atomic<bool>& mark) : mark_(mark) { mark_ = true; }
  ~Mark() { mark_ = false; }
  Mark(const Mark&) = delete;
  Mark& operator=(const Mark&) = delete;

 private:
  std::atomic<bool>& mark_;
};

// Reads what sscanf reads with "%zu", but a process's first sscanf takes as long as to open a
// store's file.
bool read_threshold(const char* text, std::size_t& threshold) {
  char* end = nullptr;
  const std::size_t number = std::strtoul(text, &end, 10);
  if (end == text) {
    return false;
  }
  threshold = number;
  return true;
}

std::size_t threshold_from_environment() {
  if (const auto size = size_from_environment()) {
    log_threshold(*size);
    return *size;
  }
  const char* threshold_env = secure_getenv("QV_CACHE_STORE_CLEANUP_THRESHOLD");
  std::size_t threshold = 0;
  if (CACHE_EXPECT(2, threshold_env) &&
      CACHE_EXPECT_AS(2, read_threshold(threshold_env, threshold),
                      "sscanf(threshold_env, \"%zu\", &threshold) == 1",
                      __LINE__)) {  // Kept: docs/compatibility.md
    log_threshold(threshold);
    return threshold;
  }
  QV_LOG(g_module, WARN, "Cache store cleanup threshold not set, cache can grow indefinitely");
  return 0;
}

// The smallest atom is its size field and one byte.
constexpr std::size_t kSmallestAtom = sizeof(std::uint64_t) + 1;

// A buffer for the next `size` bytes, or an empty one if the file has fewer: a damaged size
// must not decide how much is allocated.
util::RwBuffer buffer_for(const util::BufferReader& freader, std::uint64_t size) {
  return util::RwBuffer(size <= freader.remaining() ? size : 0);
}

}  // namespace

FileStoreSkeleton::FileStoreSkeleton(unsigned int version, std::string /*path*/,
                                     std::shared_ptr<Store::Lock> lock,
                                     CleanupController* controller)
    : cleanup_controller_(controller != nullptr ? controller : get_default_cleanup_controller()),
      ticket_(cleanup_controller_->get_ticket()),
      valid_hdr_{QV_CACHE_STORE_MAGIC_NUMBER, version},
      lock_(std::move(lock)) {}

FileStoreSkeleton::~FileStoreSkeleton() { drop_torn_keys(); }

void FileStoreSkeleton::set_read_only(const std::string& path) { read_only_path_ = path; }

CleanupController* FileStoreSkeleton::get_default_cleanup_controller() {
  static constinit Once once;
  static constinit CleanupController* controller = nullptr;
  once.run([] { controller = new CleanupController(threshold_from_environment()); });
  return controller;
}

bool FileStoreSkeleton::is_valid() const { return lock_ && lock_->is_valid(); }
std::uint64_t FileStoreSkeleton::get_usage() { return nonlock_get_disk_usage(); }
void FileStoreSkeleton::clean() {
  nonlock_clean();
  must_read_all_keys_ = true;
}

StoreFLock* FileStoreSkeleton::file_lock() const { return dynamic_cast<StoreFLock*>(lock_.get()); }

bool FileStoreSkeleton::is_lock_lost() const {
  StoreFLock* const lock = file_lock();
  return lock != nullptr && lock->is_lost();
}

bool FileStoreSkeleton::try_load(EntryMap& out) {
  if (is_lock_lost()) {
    return false;
  }
  const Locked locked(*lock_);
  if (!is_read_only()) {
    cleanup_controller_->process(ticket_, *this);
  } else if (!may_read_only_load()) {
    return false;
  }
  out.clear();
  drop_torn_keys();
  appended_keys_.clear();
  const bool ok = try_nonlock_load(out);
  if (ok) {
    loaded_map_last_size_ = out.size();
    must_read_all_keys_ = false;
    remember_key_file();
  }
  return ok;
}

// Only a writer can undo an append that was cut short, and until then the files may end with
// half an entry.
bool FileStoreSkeleton::may_read_only_load() const {
  const StoreFLock* const lock = file_lock();
  if (lock == nullptr || !lock->note_stays_) {
    return true;
  }
  QV_LOG(g_module, WARN,
         "Cache store %s is not loaded: an append to it was cut short, open it once for writing",
         read_only_path_.c_str());
  return false;
}

bool FileStoreSkeleton::try_read_only_store(const EntryMap& diff) const {
  if (!diff.empty()) {
    QV_LOG(g_module, WARN, "Cache store %s is read-only, nothing is stored",
           read_only_path_.c_str());
  }
  return diff.empty();
}

bool FileStoreSkeleton::try_store_diff(const EntryMap& diff) {
  if (is_read_only()) {
    return try_read_only_store(diff);
  }
  if (is_lock_lost()) {
    return false;
  }
  const Locked locked(*lock_);
  const bool new_keys_loaded = read_appended_keys();
  if (!CACHE_EXPECT(2, loaded_map_last_size_ == 0 || new_keys_loaded)) {
    return false;
  }
  const bool ok = try_nonlock_append(diff, appended_keys_);
  if (ok) {
    loaded_map_last_size_ += diff.size();  // from now on unread keys are a failure
  } else {
    must_read_all_keys_ = true;  // the files may be deleted
  }
  cleanup_controller_->process(ticket_, *this);
  return ok;
}

// A cache that flushes stores several times. Each time only the new keys are read, but no key
// may be stored again that was read before.
bool FileStoreSkeleton::read_appended_keys() {
  drop_torn_keys();
  must_read_all_keys_ = must_read_all_keys_ || is_key_file_replaced();
  const Mark reading(is_reading_keys_);
  if (must_read_all_keys_) {
    appended_keys_.clear();
    if (key_file_ != nullptr && !FileTrace::of(key_file_path_).exists) {
      loaded_map_last_size_ = 0;  // the store begins again
    }
  }
  KeySet new_keys;
  const bool new_keys_loaded = try_nonlock_load_new_keys(new_keys);
  if (appended_keys_.empty()) {
    appended_keys_.swap(new_keys);
  } else {
    appended_keys_.merge(new_keys);
  }
  if (new_keys_loaded) {
    must_read_all_keys_ = false;
    remember_key_file();
  }
  return new_keys_loaded;
}

void FileStoreSkeleton::set_key_file(const std::string& path) {
  key_file_path_ = path;
  key_file_ = std::make_unique<FileTrace>();
}

void FileStoreSkeleton::remember_key_file() {
  if (key_file_ != nullptr) {
    *key_file_ = FileTrace::of(key_file_path_);
  }
}

// A file that is shorter than what was read makes the next scan fail instead. Kept:
// docs/compatibility.md
bool FileStoreSkeleton::is_key_file_replaced() const {
  if (key_file_ == nullptr || !key_file_->exists) {
    return false;
  }
  const FileTrace present = FileTrace::of(key_file_path_);
  return present.exists && !present.is_same_file(*key_file_) && present.size >= key_file_->size;
}

// In a child that was forked while a thread of its parent read keys, the set may be half
// changed, so it can't even be destroyed.
void FileStoreSkeleton::drop_torn_keys() {
  if (is_reading_keys_) {
    std::construct_at(&appended_keys_);
    is_reading_keys_ = false;
    must_read_all_keys_ = true;
  }
}

bool FileStoreSkeleton::read_header(util::BufferReader& freader) const {
  const unsigned char* hdr = freader.buffer(sizeof(valid_hdr_));
  return CACHE_EXPECT(1, hdr) &&
         CACHE_EXPECT(1, std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0);
}

bool FileStoreSkeleton::read_magic_number(util::BufferReader& freader) {
  std::uint32_t magic_number = 0;
  return CACHE_EXPECT(1, freader.get(&magic_number)) &&
         CACHE_EXPECT(1, magic_number == QV_CACHE_STORE_MAGIC_NUMBER);
}

util::RoBuffer FileStoreSkeleton::read_key(util::BufferReader& freader) {
  std::uint64_t key_size = 0;
  if (!CACHE_EXPECT(1, freader.get(&key_size)) || !CACHE_EXPECT(1, key_size > 0)) {
    return {};
  }
  util::RwBuffer rvalbuf = buffer_for(freader, key_size);
  if (!CACHE_EXPECT(1, freader.get_raw(rvalbuf.get_buffer(), key_size))) {
    return {};
  }
  return rvalbuf;
}

bool FileStoreSkeleton::read_val(util::BufferReader& freader, std::vector<util::RoBuffer>& out) {
  std::uint64_t num_val_atoms = 0;
  if (!CACHE_EXPECT(1, freader.get(&num_val_atoms)) || !CACHE_EXPECT(1, num_val_atoms > 0)) {
    return false;
  }
  out.reserve(std::min(num_val_atoms, freader.remaining() / kSmallestAtom));
  for (std::uint64_t atom = 0; atom < num_val_atoms; ++atom) {
    std::uint64_t val_atom_size = 0;
    if (!CACHE_EXPECT(1, freader.get(&val_atom_size)) || !CACHE_EXPECT(1, val_atom_size > 0)) {
      return false;
    }
    util::RwBuffer val_atom_buf = buffer_for(freader, val_atom_size);
    if (!CACHE_EXPECT(1, freader.get_raw(val_atom_buf.get_buffer(), val_atom_size))) {
      return false;
    }
    out.emplace_back(std::move(val_atom_buf));
  }
  return true;
}

bool FileStoreSkeleton::skip_val(util::BufferReader& freader) {
  std::uint64_t num_val_atoms = 0;
  if (!CACHE_EXPECT(1, freader.get(&num_val_atoms)) || !CACHE_EXPECT(1, num_val_atoms > 0)) {
    return false;
  }
  for (std::uint64_t atom = 0; atom < num_val_atoms; ++atom) {
    std::uint64_t val_atom_size = 0;
    if (!CACHE_EXPECT(1, freader.get(&val_atom_size)) || !CACHE_EXPECT(1, val_atom_size > 0) ||
        !CACHE_EXPECT(1, freader.buffer(val_atom_size))) {
      return false;
    }
  }
  return true;
}

bool FileStoreSkeleton::write_magic_number(util::BufferWriter& fwriter) {
  return CACHE_EXPECT(1, fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER));
}

bool FileStoreSkeleton::write_key(util::BufferWriter& fwriter, const util::RoBuffer& key) {
  return CACHE_EXPECT(1, fwriter.put(key.get_size())) &&
         CACHE_EXPECT(1, fwriter.put_raw(key.get_buffer(), key.get_size()));
}

// Writes what read_val refuses, too. Kept: docs/compatibility.md
bool FileStoreSkeleton::write_val(util::BufferWriter& fwriter,
                                  const std::vector<util::RoBuffer>& val) {
  if (!CACHE_EXPECT(1, fwriter.put(val.size()))) {
    return false;
  }
  return std::all_of(val.begin(), val.end(), [&fwriter](const util::RoBuffer& val_atom) {
    return CACHE_EXPECT(1, fwriter.put(val_atom.get_size())) &&
           CACHE_EXPECT(1, fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size()));
  });
}

std::ofstream FileStoreSkeleton::cache_file_prepare_to_append(std::string path) const {
  std::ofstream file(path, std::ios::out | std::ios::binary | std::ios::app);
  if (!CACHE_EXPECT(1, file.good())) {
    return file;
  }
  file.seekp(0, std::ios::end);
  if (file.tellp() == std::streampos(0)) {
    // Flush, so that a full disk shows here.
    file.write(reinterpret_cast<const char*>(&valid_hdr_), sizeof(valid_hdr_)).flush();
    qv_fault_expect(g_module.get(), 1, file.good(), "Writing header file failed (%s)",
                    path.c_str());
  }
  return file;
}

}  // namespace cache
}  // namespace quorvane
