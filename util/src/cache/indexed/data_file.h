// The data file of an indexed store.
#ifndef QUORVANE_SRC_CACHE_INDEXED_DATA_FILE_H_
#define QUORVANE_SRC_CACHE_INDEXED_DATA_FILE_H_

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "src/cache/indexed/entry.h"
#include "src/cache/indexed/entry_reader.h"
#include "src/cache/indexed/mapping.h"
#include "src/cache/indexed/status.h"
#include "src/descriptor.h"

namespace quorvane {
namespace cache {
namespace indexed {

// A data file that is open for reading. It is mapped when its mapping is first looked into: a
// process that looks up few entries only reads them. A program that closes descriptors which it
// doesn't know can't harm it as long as the file has its name.
// Thread-safety: any thread may read; one thread opens, and one retires. Fork-safety: a child
// may use its copy.
class DataFile {
 public:
  // `later_path` is the name that the file gets once a clean is finished.
  Status open(const std::string& path, const std::string& later_path = {});

  std::uint64_t identity() const { return header_.identity; }
  std::uint32_t version() const { return header_.version; }  // of a file of another version too
  const descriptor::FileId& id() const { return id_; }

  // The file's present size in bytes; 0 when its name belongs to another file or to none, or
  // when the kernel doesn't tell.
  std::uint64_t size() const;

  bool is_open() const { return is_open_; }

  // How far the mapping reaches: a file that has grown beyond it has to be opened again. 0 with
  // errno when the kernel refuses to map it; the next call tries again.
  std::uint64_t mapped_size() const {
    const Mapping* const mapped = mapping();
    return mapped == nullptr ? 0 : mapped->size();
  }

  // Why the last attempt to map it failed: an errno, or 0.
  int map_error() const { return map_error_.load(std::memory_order_relaxed); }

  // In bytes, when it was opened.
  std::uint64_t size_when_opened() const { return opened_size_; }

  // The entry at `offset`. `end` is where the known part of the file ends, at most at the
  // end of the mapping. Also nothing when the file can't be mapped.
  std::optional<Entry> entry_at(std::uint64_t offset, std::uint64_t end) const;

  // The same, read into `buffer` instead of mapped. Also nothing when the buffer is too small, or
  // when the mapping serves better.
  std::optional<Entry> read(std::uint64_t offset, EntryBuffer& buffer) const {
    return Entry::at(buffer.data(), reader_.read(offset, buffer));
  }

  // The header or the start of an entry there. See the functions of Entry.
  std::optional<EntryHeader> header_at(std::uint64_t offset, std::uint64_t end) const;
  std::optional<Entry> start_at(std::uint64_t offset, std::uint64_t end) const;

  // Gives another file of the store this one's owner and permissions, as far as the kernel
  // lets it: otherwise a store of which one user has made a file would shut the others out.
  void give_owner_to(int fd) const;

  // Asks the kernel to read the bytes ahead.
  void prefetch(std::uint64_t offset, std::uint64_t size) const;

  // For ThreadSanitizer, which knows addresses and not files: what has been written to the file
  // is written to the mapping too.
  void note_written(std::uint64_t offset, std::uint64_t size) const;

  // Lets go of the file: look-ups under way find zeros.
  void retire();

 private:
  // Maps the file, unless it is mapped. Null with errno when it can't be.
  const Mapping* mapping() const {
    return is_mapped_.load(std::memory_order_acquire) ? &mapping_ : map();
  }
  const Mapping* map() const;
  bool try_map() const;
  bool try_map_through(int fd) const;
  // Where an entry may be; null where none can begin.
  const unsigned char* bytes_at(std::uint64_t offset, std::uint64_t end) const;

  std::string path_;
  std::string later_path_;
  descriptor::FileId id_;
  DataHeader header_{};
  std::uint64_t opened_size_ = 0;
  bool is_open_ = false;

  // These change under a mutex. Once the file is mapped, it stays mapped.
  bool is_retired_ = false;
  mutable std::atomic<bool> is_mapped_{false};
  mutable std::atomic<int> map_error_{0};
  mutable Mapping mapping_;
  EntryReader reader_;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_DATA_FILE_H_
