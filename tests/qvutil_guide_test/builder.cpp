// The program of the guide's incidents that doesn't give a lock back: builder LOCK_FILE.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>

#include <quorvane/module.h>  // with the library it has a pid file

int main(int, char** argv) {
  quorvane::Module("builder").get();
  const int fd = open(argv[1], O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0 || flock(fd, LOCK_EX) != 0) {
    return 1;
  }
  std::puts("locked");
  std::fflush(stdout);
  for (;;) {
    pause();
  }
}
