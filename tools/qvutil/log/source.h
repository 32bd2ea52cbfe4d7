// The bytes of a log file, plain or compressed by gzip.
#ifndef TOOLS_QVUTIL_LOG_SOURCE_H_
#define TOOLS_QVUTIL_LOG_SOURCE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct gzFile_s;

namespace quorvane::tool {

class Source {
 public:
  // Of an open file, which it closes. `path` is for messages.
  Source(int fd, std::string path);
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  // The number of bytes read; 0 at the end, where a plain file may grow later. Throws Failure if
  // the file can't be read, is compressed in another way, is damaged, or is named .gz and no gzip.
  std::size_t read(char* bytes, std::size_t size);

  // Goes on with the first byte of a plain file that has been truncated below what was read.
  void rewind_if_truncated();

  // Bytes of the file, as it is on the disk; 0 if it is none.
  std::uint64_t size() const;
  std::uint64_t done() const;  // of them; of a pipe, bytes that have been read

  const std::string& path() const { return path_; }
  int fd() const { return fd_; }

 private:
  bool read_head();
  void find_out_kind();
  std::size_t read_plain(char* bytes, std::size_t size);
  std::size_t read_gzip(char* bytes, std::size_t size);

  int fd_;
  std::string path_;
  std::uint64_t read_ = 0;
  bool is_kind_known_ = false;
  gzFile_s* gzip_ = nullptr;
  std::string head_;  // read to find out the kind, not yet handed out
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_LOG_SOURCE_H_
