// Writes to the data file of an indexed store.
#ifndef QUORVANE_SRC_CACHE_INDEXED_DATA_WRITER_H_
#define QUORVANE_SRC_CACHE_INDEXED_DATA_WRITER_H_

#include <cstdint>
#include <string>

#include "src/descriptor.h"

namespace quorvane {
namespace cache {
namespace indexed {

// A data file that is open for one append. The store lock is held while one exists.
class DataWriter {
 public:
  DataWriter() = default;
  ~DataWriter();
  DataWriter(const DataWriter&) = delete;
  DataWriter& operator=(const DataWriter&) = delete;

  // Opens the file, if it is still this one. False with errno.
  bool open(const std::string& path, const descriptor::FileId& id);

  // Creates the file with a new identity. Does the same to a file that is too short for a
  // header: its creator was killed. False with errno.
  static bool create(const std::string& path);

  // Writes the header of a file with a new identity. False with errno.
  static bool write_header(int fd);

  // In bytes; 0 when it can't be found out.
  std::uint64_t size() const;

  // Writes at `offset`, the end of the file. False with errno, and the file is then as long as
  // it was, if the kernel permits.
  bool append(std::uint64_t offset, const std::string& bytes) const;

  // False with errno.
  bool cut(std::uint64_t size) const;

 private:
  int fd_ = -1;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_DATA_WRITER_H_
