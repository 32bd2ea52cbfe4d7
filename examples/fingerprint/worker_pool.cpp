#include "fingerprint/worker_pool.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <system_error>

namespace fingerprint {
namespace {

constexpr int TICK_MILLISECONDS = 100;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

Counts* shared_counts() {
  void* memory =
      mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    fail("mmap");
  }
  return new (memory) Counts;
}

bool ended_well(pid_t worker) {
  int status = 0;
  pid_t ended = -1;
  do {
    ended = waitpid(worker, &status, 0);
  } while (ended < 0 && errno == EINTR);
  return ended == worker && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

WorkerPool::WorkerPool() : counts_(shared_counts()) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    fail("pipe2");
  }
  alive_read_ = ends[0];
  alive_write_ = ends[1];
}

WorkerPool::~WorkerPool() {
  close(alive_read_);
  if (alive_write_ >= 0) {
    close(alive_write_);
  }
  munmap(counts_, sizeof(Counts));
}

bool WorkerPool::start(unsigned jobs, const std::function<void(unsigned)>& work) {
  // Otherwise every worker would write out its copy of what is buffered now.
  std::fflush(nullptr);
  for (unsigned number = 0; number < jobs; ++number) {
    const pid_t worker = fork();
    if (worker < 0) {
      return false;
    }
    if (worker == 0) {
      work(number);
      // Not _exit: the library writes the last statistics report at exit.
      std::exit(0);
    }
    workers_.push_back(worker);
  }
  return true;
}

// A worker that has ended keeps its process id until it is waited for.
void WorkerPool::interrupt() {
  if (!interrupted_) {
    interrupted_ = true;
    for (const pid_t worker : workers_) {
      kill(worker, SIGTERM);
    }
  }
}

bool WorkerPool::wait(const std::function<void()>& tick) {
  close(alive_write_);
  alive_write_ = -1;
  pollfd alive{alive_read_, POLLIN, 0};
  while (poll(&alive, 1, TICK_MILLISECONDS) <= 0) {
    tick();
  }
  bool all_well = true;
  for (const pid_t worker : workers_) {
    all_well = ended_well(worker) && all_well;
  }
  return all_well;
}

}  // namespace fingerprint
