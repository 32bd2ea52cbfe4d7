// Descriptors that the library keeps open, and the files that they are open on.
#ifndef QUORVANE_SRC_DESCRIPTOR_H_
#define QUORVANE_SRC_DESCRIPTOR_H_

#include <sys/stat.h>
#include <sys/types.h>

namespace quorvane {
namespace descriptor {

// Identifies a file, whatever its name. A descriptor number doesn't: the program may have
// closed it and opened a file of its own under that number.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;

  bool operator==(const FileId& other) const {
    return device == other.device && inode == other.inode;
  }
};

inline FileId id_of(const struct stat& status) { return {status.st_dev, status.st_ino}; }

// Whether `fd` is open on this file.
bool is_open_on(int fd, const FileId& file);

// Whether the path leads to this file.
bool is_at(const char* path, const FileId& file);

// Takes over a new descriptor, or -1, and returns one that isn't 0, 1 or 2: a program that was
// started without its standard descriptors would print into the file. Closed at exec if `flags`
// have O_CLOEXEC. -1 with errno if there is none. Safe in a fork handler.
int move_off_standard(int fd, int flags);

// open(2) with that.
int open_off_standard(const char* path, int flags, mode_t mode = 0);

}  // namespace descriptor
}  // namespace quorvane

#endif  // QUORVANE_SRC_DESCRIPTOR_H_
