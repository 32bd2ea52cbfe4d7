// The descriptors that this process has open.
#ifndef TESTS_SUPPORT_DESCRIPTORS_H_
#define TESTS_SUPPORT_DESCRIPTORS_H_

#include <fcntl.h>

namespace test {

// Opens nothing itself, so that it also works where the kernel refuses to open files.
inline int open_descriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  }
  return count;
}

}  // namespace test

#endif  // TESTS_SUPPORT_DESCRIPTORS_H_
