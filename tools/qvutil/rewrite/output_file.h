// A new file.
#ifndef TOOLS_QVUTIL_REWRITE_OUTPUT_FILE_H_
#define TOOLS_QVUTIL_REWRITE_OUTPUT_FILE_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace quorvane::tool {

// Written from its start to its end. Every operation throws Failure if the kernel refuses it.
class OutputFile {
 public:
  // Creates the file, which must not be there.
  explicit OutputFile(std::string path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(std::string_view bytes);

  // In the byte order of this machine, which is that of the files.
  template <typename Number>
  void number(Number number) {
    write({reinterpret_cast<const char*>(&number), sizeof(number)});
  }

  // Bytes so far.
  std::uint64_t size() const { return size_; }

  // Writes what is left.
  void finish();

 private:
  void put(std::string_view bytes);

  const std::string path_;
  const int fd_;
  std::string buffer_;
  std::uint64_t size_ = 0;
  std::uint64_t written_ = 0;  // without the buffer
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_OUTPUT_FILE_H_
