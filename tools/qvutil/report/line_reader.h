// The lines of a file that may grow.
#ifndef TOOLS_QVUTIL_REPORT_LINE_READER_H_
#define TOOLS_QVUTIL_REPORT_LINE_READER_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quorvane::tool {

// Hands out the lines of a file one by one. Of a line that is too long it keeps no more than
// `longest` bytes. The file may be replaced, or emptied, between two lines.
class LineReader {
 public:
  // `path` "-" is standard input. Throws Failure if the file can't be opened.
  LineReader(std::string path, std::size_t longest);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The next line that ends with a newline, without it; it is good until the next call. Nothing
  // at the end of the file, or if a signal has interrupted the read. Throws Failure if the file
  // can't be read.
  bool next(std::string_view& line);

  // What stands behind the last newline.
  std::string_view rest() const { return std::string_view(bytes_).substr(begin_); }

  // Whether there may be more, at the end of the file: the file at the path is another one now,
  // or shorter than what was read. Reads on at its start then. Standard input has no more.
  bool reopen();

  bool is_at_end() const { return is_at_end_; }
  std::uint64_t done() const { return done_; }  // bytes read
  std::uint64_t size() const;                   // of the file; 0 if it is none

 private:
  bool fill();
  bool take_line(std::string_view& line);

  std::string path_;
  std::size_t longest_;
  int fd_ = -1;
  std::string bytes_;
  std::size_t begin_ = 0;     // of the next line in `bytes_`
  std::size_t searched_ = 0;  // no newline before it
  bool is_at_end_ = false;
  std::uint64_t done_ = 0;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_LINE_READER_H_
