/// \file
/// Stores that keep their entries in files of one root directory, shared by many
/// processes.
///
/// The root is the value of QV_CACHE_STORE_ROOT; it is not created. Everything
/// that touches a file runs under the store's lock. A file is never trusted: a
/// damaged one gives records and a false result.
/// Thread-safety: try_load and try_store_diff serialise threads and processes
/// through the lock; the nonlock_ operations expect the caller to hold it.
/// Fork-safety: a child's lock excludes its parent.
#ifndef QUORVANE_FILE_STORE_H_
#define QUORVANE_FILE_STORE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <quorvane/export.h>
#include <quorvane/mmapped_file.h>
#include <quorvane/store.h>

namespace quorvane {
namespace cache {

/// Opens every store file and every entry.
constexpr std::uint32_t QV_CACHE_STORE_MAGIC_NUMBER = 0xC3A5C3A5;

/// The path of the store file `name`: the root, "/", `name`. Empty, with a
/// severity 2 check, when no root is set.
QV_EXPORT std::string get_store_file_path(const std::string& name);

class LockWait;

/// flock(2) on the file "lock" or "lock_NAME" of the store root. Two objects
/// exclude each other, also in one process, and so do threads on one object.
///
/// The file is empty but while an append runs. A process that is killed in an append
/// leaves a note there, by which the next one that takes the lock undoes the append,
/// with one WARN record.
/// Fork-safety: a child lets go of its parent's lock in a fork handler and opens the
/// file for itself, so that parent and child exclude each other.
class QV_EXPORT StoreFLock : public Store::Lock {
 public:
  /// Opens the lock file, creating it with mode 0666 less the umask. A failure is
  /// one WARN record and leaves the lock invalid.
  explicit StoreFLock(const std::string& name);
  /// Takes the descriptor over, and with it the lock if it is held; the other is
  /// invalid from then on.
  StoreFLock(StoreFLock&& other) noexcept;
  ~StoreFLock() override;

  bool is_valid() const override;

  /// Waits without a time limit; after 5 s, and then once a minute, a WARN record says
  /// for which lock, and which process holds it if /proc/locks shows it. Takes the file
  /// that has the name at the end of the wait: one that was deleted or replaced excludes
  /// nobody. Errors other than EINTR abort: nobody may touch the files without the lock.
  void lock() override;
  void unlock() override;

  // End of the public interface.

 private:
  friend class FileStoreSkeleton;
  friend class NotedChange;
  struct InProcess;

  bool was_open() const { return inode_ != 0; }
  bool is_open_on_own_file() const;
  bool is_held_by_this_thread() const;
  bool is_lost();
  bool ensure_open();
  template <typename Open>
  bool open_own(const Open& open);
  void keep(int fd);
  bool open_at_path();
  bool is_replaced() const;
  bool take_file_at_path();

  void take_turn(LockWait& wait);
  void lock_file(LockWait& wait);
  bool must_try_again(LockWait& wait);
  void call_flock(int operation);
  void leave_parents_lock();
  void reopen_in_child();

  void undo_unfinished_append();
  bool put_note(std::string_view bytes);
  bool clear_note();

  std::atomic<int> fd_{-1};
  std::string path_;
  std::atomic<std::uint64_t> generation_;    // of the process that opened fd_
  std::atomic<const void*> owner_{nullptr};  // the thread that holds the lock
  std::uint64_t device_ = 0;                 // of the file that fd_ was opened on
  std::uint64_t inode_ = 0;
  bool is_inherited_ = false;       // this object was inherited through a fork
  bool holds_store_ = false;        // the file is that of a store: it takes no notes
  bool note_stays_ = false;         // a note that was acted upon can't be cleared
  StoreFLock* previous_ = nullptr;  // all locks of the process
  StoreFLock* next_ = nullptr;
};

/// What all file stores share: the header, the entry encoding, and the locked
/// sequences around what a concrete store does with its files.
class QV_EXPORT FileStoreSkeleton : public Store, private CleanableResource {
 public:
  /// `controller` is not owned and must outlive the store; null: the default one.
  FileStoreSkeleton(unsigned int version, std::string path, std::shared_ptr<Store::Lock> lock,
                    CleanupController* controller);
  ~FileStoreSkeleton() override;
  FileStoreSkeleton(const FileStoreSkeleton&) = delete;
  FileStoreSkeleton& operator=(const FileStoreSkeleton&) = delete;

  bool is_valid() const override;
  bool try_store_diff(const EntryMap& diff) override;
  bool try_load(EntryMap& out) override;

  std::uint64_t get_usage() override;
  void clean() override;

  /// Appends the entries of `diff` whose keys are not in `new_keys`. False when not
  /// all of them are stored.
  virtual bool try_nonlock_append(const EntryMap& diff, const KeySet& new_keys) = 0;

  /// Adds all stored entries to `out`. False when they can't be read.
  virtual bool try_nonlock_load(EntryMap& out) = 0;

  /// Adds the keys of what was appended since this store's load to `new_keys`.
  /// False when they can't be read.
  virtual bool try_nonlock_load_new_keys(KeySet& new_keys) = 0;

  /// Bytes on disk; 0 when they can't be measured.
  virtual std::uint64_t nonlock_get_disk_usage() const = 0;

  /// Deletes the store's files.
  virtual void nonlock_clean() = 0;

  /// The process's controller, made on first use with the threshold of
  /// QV_CACHE_STORE_CLEANUP_THRESHOLD in bytes. Lives for ever.
  static CleanupController* get_default_cleanup_controller();

  ///@{ The pieces of a file. Each returns false, or an empty buffer, after a
  /// severity 1 check that quotes what failed.
  bool read_header(util::BufferReader& freader) const;
  static bool read_magic_number(util::BufferReader& freader);
  static util::RoBuffer read_key(util::BufferReader& freader);
  static bool read_val(util::BufferReader& freader, std::vector<util::RoBuffer>& out);
  static bool skip_val(util::BufferReader& freader);
  static bool write_magic_number(util::BufferWriter& fwriter);
  static bool write_key(util::BufferWriter& fwriter, const util::RoBuffer& key);
  static bool write_val(util::BufferWriter& fwriter, const std::vector<util::RoBuffer>& val);
  ///@}

  /// Opens `path` for appending and gives an empty or new file its header. Ask
  /// the stream for the result.
  std::ofstream cache_file_prepare_to_append(std::string path) const;

 protected:
  /// What every store file begins with.
  struct hdr_t {
    std::uint32_t magic_number;  ///< QV_CACHE_STORE_MAGIC_NUMBER
    std::uint32_t version;       ///< of the format: 1 basic, 2 lazy look-up
  };

  /// The lock, when it is a lock on a file; else null.
  StoreFLock* file_lock() const;

 private:
  bool is_lock_lost() const;

  CleanupController* cleanup_controller_;
  std::uint64_t ticket_;
  std::uint64_t loaded_map_last_size_ = 0;
  hdr_t valid_hdr_;
  std::shared_ptr<Store::Lock> lock_;
};

/// One file per cache: the header, then entries.
class QV_EXPORT BasicStore : public FileStoreSkeleton {
 public:
  /// The store of the file `name` in the store root. See FileStoreSkeleton for
  /// `lock` and `controller`.
  BasicStore(const std::string& name, std::shared_ptr<Store::Lock> lock,
             CleanupController* controller);
  ~BasicStore() override;

  std::string type() const override;
  bool try_nonlock_append(const EntryMap& diff, const KeySet& new_keys) override;
  bool try_nonlock_load(EntryMap& out) override;
  bool try_nonlock_load_new_keys(KeySet& new_keys) override;
  std::uint64_t nonlock_get_disk_usage() const override;
  void nonlock_clean() override;

  /// The size of an entry in the file, in bytes.
  static std::uint64_t get_entry_representation_size(const util::RoBuffer& key,
                                                     const std::vector<util::RoBuffer>& val);

  /// Appends an entry to the buffer. False after a severity 1 check.
  static bool write_entry(util::BufferWriter& fwriter, const util::RoBuffer& key,
                          const std::vector<util::RoBuffer>& val);

  /// False, after a check, when the file has gone since this store used it.
  bool check_consistent_state() const;

 private:
  bool read_entries(util::BufferReader& freader, EntryMap& out) const;
  bool read_keys(util::BufferReader& freader, KeySet& new_keys) const;
  bool write_entries(std::ofstream& file, const EntryMap& diff, const KeySet& new_keys) const;
  bool pass_known_part(util::BufferReader& freader) const;
  void report_collision() const;
  void remove_unstored_file() const;

  std::string fpath_;
  std::uint64_t file_last_size_ = 0;
};

/// Two files per cache: one of keys, each with the position of its value, and one
/// of nothing but value bytes, which is mapped as long as the store lives.
///
/// Loading copies keys only. The atoms that it hands out, and all copies of them,
/// are views into the mapping: they must not be read once the store, or the cache
/// that owns it, has gone. Copy the bytes of a value that is to live longer.
///
/// Unlike the basic store's, a missing pair of files fails the load, and so does
/// one that the load itself deletes because the process's stores outgrow the
/// cleanup threshold. make_file_store lays a new pair.
class QV_EXPORT LazyLookupStore : public FileStoreSkeleton {
 public:
  /// The store of the two files of `name` in the store root. See FileStoreSkeleton
  /// for `lock` and `controller`.
  LazyLookupStore(const std::string& name, std::shared_ptr<Store::Lock> lock,
                  CleanupController* controller);
  ~LazyLookupStore() override;

  std::string type() const override;
  bool try_nonlock_append(const EntryMap& diff, const KeySet& keys_to_skip) override;

  /// Aborts when an earlier load succeeded: its atoms are still in use.
  bool try_nonlock_load(EntryMap& map) override;
  bool try_nonlock_load_new_keys(KeySet& keys) override;
  std::uint64_t nonlock_get_disk_usage() const override;
  void nonlock_clean() override;

  ///@{ The names of the two files: "key_NAME" and "val_NAME".
  static std::string get_key_fname(const std::string& name);
  static std::string get_val_fname(const std::string& name);
  ///@}

  ///@{ The sizes of an entry in the two files, in bytes.
  static std::size_t get_key_file_entry_representation_size(const util::RoBuffer& key,
                                                            const std::vector<util::RoBuffer>& val);
  static std::size_t get_val_file_entry_representation_size(const std::vector<util::RoBuffer>& val);
  ///@}

  ///@{ The pieces of the two files. Each returns false after a severity 1 check that
  /// quotes what failed. `val_offset` is where the value's magic number lies in
  /// the value file.
  static bool write_key_file_entry(util::BufferWriter& fwriter, const util::RoBuffer& key,
                                   std::size_t val_offset, const std::vector<util::RoBuffer>& val);
  static bool write_val_atom_positions(util::BufferWriter& fwriter, std::size_t val_offset,
                                       const std::vector<util::RoBuffer>& val);
  static bool write_val_file_entry(util::BufferWriter& fwriter,
                                   const std::vector<util::RoBuffer>& val);
  static bool write_val_atom_data(util::BufferWriter& fwriter,
                                  const std::vector<util::RoBuffer>& val);
  static bool read_val_atom_positions(util::BufferReader& key_freader, std::size_t& val_offset,
                                      std::vector<std::size_t>& sizes);
  static bool skip_val_atom_positions(util::BufferReader& key_freader);
  ///@}

  /// Appends to `val` views of the atoms that lie at `val_offset` in the value
  /// file's bytes, which must outlive them.
  static bool shallow_read_val(util::RoBuffer& val_fbuffer, std::size_t val_offset,
                               const std::vector<std::size_t>& sizes,
                               std::vector<util::RoBuffer>& val);

  /// False, after a check, when one file is there without the other, or the key
  /// file has gone since this store used it.
  bool check_consistent_state() const;

 private:
  bool read_files(const util::MMappedFile& key_file, EntryMap& map);
  bool read_entries(util::BufferReader& key_freader, util::RoBuffer& val_fbuffer,
                    EntryMap& map) const;
  bool read_new_keys(util::BufferReader& key_freader, KeySet& keys) const;
  bool read_new_key(util::BufferReader& key_freader, KeySet& keys) const;
  bool pass_known_part(util::BufferReader& key_freader) const;
  void remove_unstored_files() const;

  std::string key_fpath_;
  std::string val_fpath_;
  util::MMappedFile val_file_;
  std::uint64_t key_file_last_size_ = 0;
};

/// What make_file_store makes: a BasicStore or a LazyLookupStore.
enum class StoreKind { basic, lazy_lookup };

/// Makes a store of this kind for the cache `name`, with a lock of the same name
/// on the root. Null `controller`: the process's default one. An unusable root
/// gives a store that is not valid. A lazy store gets its two files, without
/// entries, when neither is there yet. Null, with one WARN record, when there is no
/// memory for the store; null for an unknown kind as well.
QV_EXPORT std::unique_ptr<Store> make_file_store(StoreKind kind, const std::string& name,
                                                 CleanupController* controller = nullptr);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_FILE_STORE_H_
