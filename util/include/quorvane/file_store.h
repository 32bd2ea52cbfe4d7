/// \file
/// Stores that keep their entries in files of one root directory, which many processes
/// share.
///
/// The root is the value of QV_CACHE_STORE_ROOT, unless make_store is given another one; the
/// library doesn't create it. Everything that touches a file runs under the store's lock,
/// except that a read-only store loads without one where there is no lock file. A file is
/// never trusted: a damaged one gives records and a false result. Checks and records go
/// through the module "util/src/cache".
///
/// Thread-safety: try_load and try_store_diff take the lock, which excludes other threads
/// and processes; the caller of a nonlock_ operation must hold it.
/// Fork-safety: a child's lock excludes its parent. Not in signal handlers.
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

/// The number that begins every store file and every entry.
constexpr std::uint32_t QV_CACHE_STORE_MAGIC_NUMBER = 0xC3A5C3A5;

/// The path of the store file `name`: the root, "/", `name`. Empty when the root is unset,
/// which a severity 2 check reports, or empty. In a set-user-id program, whose environment
/// its caller chooses (secure_getenv(3)), the root counts as unset. Any thread.
QV_EXPORT std::string get_store_file_path(const std::string& name);

class LockWait;
struct FileTrace;
struct StorePlace;  // of make_store; hidden

/// flock(2) on the file "lock" or "lock_NAME" of the store root. Two objects exclude each
/// other, even in one process, and so do threads that use one object.
///
/// The file is empty except while an append runs. A process that is killed during an append
/// leaves a note there. The next process to take the lock uses the note to undo the append,
/// and logs one WARN record.
///
/// Invariant: at most one thread of all processes holds the lock, except that the locks of
/// read-only stores (make_store) exclude only the others.
/// Thread-safety: any thread may lock and unlock; one thread moves and destroys.
/// Fork-safety: a fork handler closes the descriptor that the child shares with its parent
/// and opens the file again, so that parent and child exclude each other.
class QV_EXPORT StoreFLock : public Store::Lock {
 public:
  /// Opens the lock file, or creates it with mode 0666 less the umask. A failure gives one
  /// WARN record and leaves the lock invalid. An empty `name` means the file "lock".
  explicit StoreFLock(const std::string& name);
  /// For make_store. The lock of a read-only store opens its file for reading, never creates
  /// it, and is valid without a lock file: it then locks nothing. The lock of an indexed store
  /// opens a file that is there, and may be opened, at its first use.
  explicit StoreFLock(const StorePlace& place);
  /// Takes over the descriptor, and with it the lock if it is held. The other is invalid
  /// afterwards.
  StoreFLock(StoreFLock&& other) noexcept;
  ~StoreFLock() override;

  bool is_valid() const override;

  /// Waits without a time limit. After 5 s, and then once a minute, a WARN record names the
  /// lock, and its holder if /proc/locks shows it. Locks the file that has the name at
  /// the end of the wait, since a deleted or replaced one excludes nobody. Aborts if the
  /// lock is invalid, and on any error except EINTR: nobody may touch the files without
  /// the lock.
  void lock() override;

  /// Releases the lock. Aborts if it is invalid.
  void unlock() override;

  // End of the public interface.

 private:
  friend class FileStoreSkeleton;
  friend class IndexedStore;
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
  int open_file(const char* path, int flags) const;
  bool open_at_path();
  bool is_missing() const;
  bool is_replaced() const;
  bool take_file_at_path();
  bool find_file();

  void take_turn(LockWait& wait);
  void lock_file(LockWait& wait);
  void assert_valid() const;
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
  bool holds_store_ = false;        // the file is something else too: it takes no notes
  bool note_stays_ = false;         // the file holds an old note that can't be cleared
  StoreFLock* previous_ = nullptr;  // in the list of all locks
  StoreFLock* next_ = nullptr;
  bool is_read_only_ = false;    // nothing is created, written or undone
  bool may_be_missing_ = false;  // valid without the file, since it is read-only
  bool is_late_ = false;         // valid before the file is opened, at its first use
};

/// What all file stores share: the header, the entry encoding, and the sequences that hold
/// the lock around what a concrete store does with its files.
///
/// Invariant: nothing touches a file without the lock, except the load of a read-only store
/// without a lock file.
/// Thread-safety: any thread may call try_load and try_store_diff, which exclude each
/// other; the caller of another operation that touches files must hold the lock. Fork-safety:
/// a child may use its copy, whose lock excludes the parent.
class QV_EXPORT FileStoreSkeleton : public Store, private CleanableResource {
 public:
  /// A store of this format version. `path` is ignored. The store shares `lock`; with a
  /// null or invalid lock it isn't valid, and must not load or store. `controller` stays
  /// the caller's and must outlive the store; null means the process's default one.
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

  /// Appends the entries of `diff` whose keys are not in `new_keys`. False unless all of
  /// them are stored.
  virtual bool try_nonlock_append(const EntryMap& diff, const KeySet& new_keys) = 0;

  /// Adds all stored entries to `out`. False when they can't be read.
  virtual bool try_nonlock_load(EntryMap& out) = 0;

  /// Adds to `new_keys` the keys that were appended since this store last read its files.
  /// False when they can't be read.
  virtual bool try_nonlock_load_new_keys(KeySet& new_keys) = 0;

  /// Bytes on disk; 0 for a file that can't be measured, after a severity 3 check.
  virtual std::uint64_t nonlock_get_disk_usage() const = 0;

  /// Deletes the store's files.
  virtual void nonlock_clean() = 0;

  /// The process's controller. The first use makes it, with the threshold of
  /// QV_CACHE_STORE_SIZE: digits, and perhaps K, M, G or T for a power of 1024. If that is
  /// unset, or bad, which gives a WARN record, the threshold is that of
  /// QV_CACHE_STORE_CLEANUP_THRESHOLD in bytes; a missing or bad one gives a severity 2
  /// check, a WARN record, and no limit. A good threshold is logged at INFO. Lives for ever.
  /// Any thread.
  static CleanupController* get_default_cleanup_controller();

  ///@{ Reads, skips or writes a piece of a file at the cursor, and moves past it. A failure
  /// gives a severity 1 check that quotes what failed, and false, or for read_key an empty
  /// buffer. The cursor is then past the numbers and atoms that were complete, and `out`
  /// holds those atoms. What is read is copied. Any thread, with a cursor of its own.
  bool read_header(util::BufferReader& freader) const;
  static bool read_magic_number(util::BufferReader& freader);
  static util::RoBuffer read_key(util::BufferReader& freader);
  static bool read_val(util::BufferReader& freader, std::vector<util::RoBuffer>& out);
  static bool skip_val(util::BufferReader& freader);
  static bool write_magic_number(util::BufferWriter& fwriter);
  static bool write_key(util::BufferWriter& fwriter, const util::RoBuffer& key);
  static bool write_val(util::BufferWriter& fwriter, const std::vector<util::RoBuffer>& val);
  ///@}

  /// Opens `path` for appending, and writes the header if the file is new or empty. The
  /// stream's state is the result; a severity 1 check reports a failure.
  std::ofstream cache_file_prepare_to_append(std::string path) const;

  ///@{ After how many additions that are not stored yet a cache flushes on its own; 0, the
  /// default, means never. A cache reads it when it takes the store over, so set it before.
  void set_flush_after(std::uint64_t entries) { flush_after_ = entries; }
  std::uint64_t flush_after() const { return flush_after_; }
  ///@}

 protected:
  /// The header of every store file.
  struct hdr_t {
    std::uint32_t magic_number;  ///< QV_CACHE_STORE_MAGIC_NUMBER
    std::uint32_t version;       ///< of the format: 1 basic, 2 lazy look-up
  };

  /// The lock if it is a StoreFLock; else null.
  StoreFLock* file_lock() const;

  /// From now on try_load deletes nothing, and try_store_diff stores nothing. Their records
  /// name `path`. Before the first use of the store.
  void set_read_only(const std::string& path);

  /// The file of the keys, which shows whether the store's files were replaced. Before the
  /// first use of the store.
  void set_key_file(const std::string& path);

  /// Whether try_nonlock_load_new_keys must read all keys, not only the new ones: the store's
  /// own clean or a failed append deleted the files, another process replaced them, or this is
  /// a child that was forked while a thread of its parent read some.
  bool must_read_all_keys() const { return must_read_all_keys_; }

 private:
  bool is_lock_lost() const;
  bool is_read_only() const { return !read_only_path_.empty(); }
  bool may_read_only_load() const;
  bool try_read_only_store(const EntryMap& diff) const;
  bool read_appended_keys();
  void drop_torn_keys();
  void remember_key_file();
  bool is_key_file_replaced() const;

  CleanupController* cleanup_controller_;
  std::uint64_t ticket_;
  std::uint64_t loaded_map_last_size_ = 0;
  hdr_t valid_hdr_;
  std::shared_ptr<Store::Lock> lock_;
  std::string read_only_path_;  // empty: entries are stored
  std::uint64_t flush_after_ = 0;

  // The keys that any process has appended since the load, as far as they have been read.
  KeySet appended_keys_;
  std::atomic<bool> is_reading_keys_{false};
  bool must_read_all_keys_ = false;

  std::string key_file_path_;
  std::unique_ptr<FileTrace> key_file_;  // as it was when it was last read
};

/// One file per cache: the header, then entries. A missing file is an empty store.
///
/// Invariant: what the store has read is the front of the file, which only ever grows.
/// Thread-safety and fork-safety: FileStoreSkeleton's; the static functions may be called
/// in any thread.
class QV_EXPORT BasicStore : public FileStoreSkeleton {
 public:
  /// The store in the file `name` of the store root. See FileStoreSkeleton for `lock` and
  /// `controller`.
  BasicStore(const std::string& name, std::shared_ptr<Store::Lock> lock,
             CleanupController* controller);
  /// For make_store.
  BasicStore(const StorePlace& place, std::shared_ptr<Store::Lock> lock,
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

  /// Writes an entry at the cursor. A failure gives a severity 1 check and false; the
  /// cursor is then past the pieces that fitted.
  static bool write_entry(util::BufferWriter& fwriter, const util::RoBuffer& key,
                          const std::vector<util::RoBuffer>& val);

  /// False, after a severity 1 check, when the file has been deleted since this store read
  /// it.
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

/// Two files per cache: one of keys, each with the offset of its value, and one of values
/// only, which stays mapped as long as the store lives.
///
/// Loading copies the keys only. The loaded atoms, and all copies of their buffers, are
/// views of the mapping: they dangle once the store, or the cache that owns it, is
/// destroyed. Copy the bytes of a value that must live longer.
///
/// Unlike in a basic store, a missing pair of files fails the load. So does a pair that
/// the load itself deletes because the process's stores exceed the cleanup threshold.
/// make_file_store creates a missing pair.
///
/// Invariant: what the store has read is the front of the key file, which only ever grows.
/// Thread-safety and fork-safety: FileStoreSkeleton's; the static functions may be called
/// in any thread.
class QV_EXPORT LazyLookupStore : public FileStoreSkeleton {
 public:
  /// The store in the two files of `name` in the store root. See FileStoreSkeleton for
  /// `lock` and `controller`.
  LazyLookupStore(const std::string& name, std::shared_ptr<Store::Lock> lock,
                  CleanupController* controller);
  /// For make_store.
  LazyLookupStore(const StorePlace& place, std::shared_ptr<Store::Lock> lock,
                  CleanupController* controller);
  ~LazyLookupStore() override;

  std::string type() const override;
  bool try_nonlock_append(const EntryMap& diff, const KeySet& keys_to_skip) override;

  /// Adds all stored entries to `map`; false when they can't be read. Aborts when an earlier
  /// load succeeded: its atoms may be in use.
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

  ///@{ Reads, skips or writes a piece of one of the two files at the cursor, and moves past
  /// it. A failure gives a severity 1 check that quotes what failed, and false; the cursor
  /// is then past the pieces that were complete, and `sizes`, whose old content is dropped,
  /// holds those that were read. `val_offset` is the offset of the value's magic number in
  /// the value file, in bytes. An atom of no bytes can be written but not read.
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

  /// Appends to `val` views of the atoms at `val_offset` in the value file's bytes, which
  /// must outlive them. An atom beyond these bytes, or an offset within the header, gives a
  /// severity 1 check and false; `val` then holds the atoms before it.
  static bool shallow_read_val(util::RoBuffer& val_fbuffer, std::size_t val_offset,
                               const std::vector<std::size_t>& sizes,
                               std::vector<util::RoBuffer>& val);

  /// False, after a severity 1 check, when one file exists without the other, or the key
  /// file has been deleted since this store read it.
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

namespace indexed {
class Engine;
}
class CacheStats;

/// Two files per cache: "dat_NAME", to which processes append entries, and "idx_NAME", an index
/// of it that is mapped. Opening reads no entries, however many there are. A look-up takes no
/// lock and finds what any process has stored by then. No kill leaves the store unreadable, and
/// a full disk costs only the additions at hand.
///
/// A damaged or missing index is made again from the data. An entry that is damaged is a miss,
/// after one WARN record. If whole entries follow it, the store doesn't open when the index is
/// made again: one ERROR record names the file and the offset.
///
/// With a bound on its size, the store keeps the newest entries, and those that this process
/// has found, instead of deleting everything: an append that would exceed the bound first
/// drops the others, until half of the bound is free.
///
/// Invariant: the index leads only to whole entries. A key has one value, the first, until it
/// is dropped.
/// Thread-safety: any thread may call everything but the constructor and destructor.
/// Fork-safety: a child may use its copy at once; its lock excludes the parent.
class QV_EXPORT IndexedStore : public LookupStore, private CleanableResource {
 public:
  /// The store in the two files of `name` in the store root. It shares `lock`; with a null or
  /// invalid lock it isn't valid, and must not load or store. `controller` stays the caller's
  /// and must outlive the store; null means the process's default one.
  IndexedStore(const std::string& name, std::shared_ptr<Store::Lock> lock,
               CleanupController* controller);
  /// For make_store. A read-only store needs no lock.
  IndexedStore(const StorePlace& place, std::shared_ptr<Store::Lock> lock,
               CleanupController* controller);
  ~IndexedStore() override;
  IndexedStore(const IndexedStore&) = delete;
  IndexedStore& operator=(const IndexedStore&) = delete;

  std::string type() const override;
  bool is_valid() const override;

  /// Stores the entries whose keys are not stored yet. False, after one WARN record, when that
  /// is impossible: then nothing of `diff` is stored. If `diff` exceeds the bound on the size
  /// alone, it is stored piece by piece, and each piece that can't be stored has its record.
  bool try_store_diff(const EntryMap& diff) override;

  /// Opens the files and clears `out`. Takes the lock only to create files, or to make an index
  /// that is missing or doesn't fit. False, after one ERROR record, when the data can't be used.
  bool try_load(EntryMap& out) override;

  bool find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) override;
  std::uint64_t entries() override;
  void prefetch(const util::RoBuffer* keys, std::size_t count) override;
  bool try_read_all(EntryMap& out) override;

  /// Bytes of both files on disk.
  std::uint64_t get_usage() override;

  /// Drops entries if the bound on the size is exceeded. Takes the lock itself.
  void clean() override;

 private:
  friend class Cache;

  bool is_lock_lost() const;
  void measure();

  const std::shared_ptr<Store::Lock> lock_;
  const bool is_readable_;  // a read-only store whose root exists
  CleanupController* const controller_;
  const std::uint64_t ticket_;
  const std::unique_ptr<indexed::Engine> engine_;
  CacheStats& stats_;
};

/// What make_file_store and make_store make.
enum class StoreKind {
  basic,        ///< a BasicStore
  lazy_lookup,  ///< a LazyLookupStore
  indexed       ///< an IndexedStore
};

/// Makes a store of this kind for the cache `name`, with a lock of the same name in the
/// root. A null `controller` means the process's default one; any other must outlive the
/// store. An unusable root gives a store that is not valid. Creates both files of a lazy
/// store, without entries, if neither exists, and may wait for the lock to do so. Returns
/// null, after one WARN record, when there is no memory for the store; null for an unknown
/// kind as well. Any thread; safe in a child of fork.
QV_EXPORT std::unique_ptr<Store> make_file_store(StoreKind kind, const std::string& name,
                                                 CleanupController* controller = nullptr);

/// What make_store makes a store from. As thread-safe and fork-safe as its strings.
struct StoreOptions {
  StoreKind kind = StoreKind::indexed;  ///< of the files
  std::string name;                     ///< the name of the cache, and so of its files

  /// The existing directory of the files; empty means that of QV_CACHE_STORE_ROOT. A relative
  /// one is resolved against the current directory once, when the store is made.
  std::string root;

  /// Bounds the disk space of this and other stores. Must outlive the store.
  CleanupController* controller = nullptr;

  /// Bounds the disk space of this store alone, in bytes, if there is no `controller`. 0 means
  /// the process's default controller.
  std::uint64_t size_limit = 0;

  /// After how many additions that are not stored yet a cache flushes on its own; 0 means at
  /// its end only.
  std::uint64_t flush_after = 0;

  /// Loads, but never stores, creates or deletes anything, and needs no permission to write.
  bool read_only = false;

  /// Without the store's files, the store is not valid, and none are created.
  bool must_exist = false;
};

/// Makes a store with these options, and a lock of the same name. A root that is unset or
/// unusable gives a store that is not valid. Without `read_only` and `must_exist`, a lazy
/// store for which neither file exists gets both, without entries. Except with `read_only`,
/// the call may wait for the lock when the store is lazy or must exist.
///
/// A read-only store takes the lock, if there is a lock file, but excludes only writers. Its
/// try_store_diff returns whether there is nothing to store, and logs at WARN if there is
/// something. When an append was cut short and not yet undone, which takes a writer, its
/// try_load returns false after one WARN record. A read-only indexed store takes no lock; its
/// try_load returns false after one ERROR record when the index is missing or doesn't fit.
///
/// A store that must exist and doesn't is not valid, after one ERROR record. One file of a
/// lazy store's two is enough to exist; the load reports the missing one.
///
/// Returns null, after one WARN record, when there is no memory for the store; null for an
/// unknown kind as well. Any thread; safe in a child of fork.
QV_EXPORT std::unique_ptr<Store> make_store(const StoreOptions& options);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_FILE_STORE_H_
