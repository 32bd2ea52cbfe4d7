// Reads entries with a system call instead of through a mapping.
#ifndef QUORVANE_SRC_CACHE_INDEXED_ENTRY_READER_H_
#define QUORVANE_SRC_CACHE_INDEXED_ENTRY_READER_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "src/descriptor.h"

namespace quorvane {
namespace cache {
namespace indexed {

// Where an entry is read to. Large enough for most.
using EntryBuffer = std::array<unsigned char, 1024>;

// An open data file. The first look at a page through a mapping takes longer than to read an
// entry, and maps the pages around it too: after a thousand look-ups among a million entries, a
// process would have half of the file mapped. A process that looks up so many that all pages are
// going to be mapped anyway is better off with the mapping, so the number of reads is limited.
//
// The program may close the descriptor, and open another file under its number. So what is
// read may be anything: the caller checks it, and looks into the mapping if it doesn't fit.
// Thread-safety: any thread may read, also while another one closes. Fork-safety: a child has
// a descriptor of its own.
class EntryReader {
 public:
  EntryReader() = default;
  ~EntryReader() { close(); }
  EntryReader(const EntryReader&) = delete;
  EntryReader& operator=(const EntryReader&) = delete;

  // Takes over the descriptor of this file of `size` bytes.
  void take(int fd, const descriptor::FileId& id, std::uint64_t size);

  // Fills `buffer` with what is at `offset`. Returns how many bytes there are; 0 when the mapping
  // serves better.
  std::size_t read(std::uint64_t offset, EntryBuffer& buffer) const;

  void close();

  // The program may have closed it. -1 when it is closed.
  int fd() const { return fd_.load(std::memory_order_relaxed); }

 private:
  std::atomic<int> fd_{-1};
  descriptor::FileId id_;
  mutable std::atomic<std::uint64_t> left_{0};  // reads; about right when threads race
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_ENTRY_READER_H_
