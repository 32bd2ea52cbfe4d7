// A file that is read through a mapping.
#ifndef TOOLS_QVUTIL_STORE_MAPPED_FILE_H_
#define TOOLS_QVUTIL_STORE_MAPPED_FILE_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::tool {

// The file that the name had when it was opened, as long as it was then: it may grow, or lose
// its name, meanwhile. BusErrors tells of one that shrinks.
class MappedFile {
 public:
  // Nothing if there is no such file. Throws Failure if it can't be opened, or is no regular
  // file.
  static std::optional<MappedFile> open(const std::string& path);

  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  ~MappedFile();

  // Mapped at the first call. Throws Failure if that is refused.
  std::string_view bytes();

  // Reads up to `size` bytes at `offset` into `to`, without the mapping. Returns how many; 0 if
  // there are none or the kernel refuses.
  std::size_t read(std::uint64_t offset, char* to, std::size_t size) const;

  // Leaves out what follows.
  void limit(std::uint64_t size);

  const std::string& path() const { return path_; }
  std::string name() const { return path_.substr(path_.rfind('/') + 1); }
  std::uint64_t size() const { return size_; }
  std::int64_t changed() const { return changed_; }  // seconds since 1970
  dev_t device() const { return device_; }
  ino_t inode() const { return inode_; }

 private:
  MappedFile() = default;

  std::string path_;
  int fd_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::uint64_t size_ = 0;
  std::int64_t changed_ = 0;
  void* data_ = nullptr;
  std::uint64_t mapped_ = 0;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_MAPPED_FILE_H_
