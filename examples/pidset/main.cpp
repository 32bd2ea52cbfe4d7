// pidset: worker processes add their ids to a set that all of them share, and the parent
// prints which workers are in it.
//
//   pidset FILE [WORKERS]
#include <fcntl.h>
#include <quorvane/pidset.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "pidset: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

// The caller creates the file; the library only turns an empty one into a set.
void make_file(const char* path) {
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    fail(path);
  }
  close(fd);
}

qv_pidset_t* open_set(const char* path) {
  qv_pidset_t* const set = qv_pidset_open(path);
  if (set == nullptr) {
    std::fprintf(stderr, "pidset: %s can't be opened as a set\n", path);
    std::exit(1);
  }
  return set;
}

// Reports on `ready` whether its id was added, and stays until `quit` is closed.
int work(const char* path, int ready, int quit) {
  // A handle of its own: an inherited one would share the parent's lock.
  qv_pidset_t* const set = open_set(path);
  const int added = qv_pidset_add(set, getpid());
  char byte = added == 0 ? '+' : '-';
  if (write(ready, &byte, 1) != 1 || read(quit, &byte, 1) != 0) {
    return 1;
  }
  // An id stays in the set until somebody removes it, even when its process has ended.
  const int removed = qv_pidset_remove(set, getpid());
  qv_pidset_close(set);
  return added == 0 && removed == 0 ? 0 : 1;
}

std::vector<pid_t> start_workers(const char* path, int count, const int ready[2],
                                 const int quit[2]) {
  std::vector<pid_t> workers;
  for (int i = 0; i < count; ++i) {
    const pid_t worker = fork();
    if (worker < 0) {
      fail("fork");
    }
    if (worker == 0) {
      close(quit[1]);
      _exit(work(path, ready[1], quit[0]));
    }
    workers.push_back(worker);
  }
  return workers;
}

// The lock keeps other processes from moving the ids while this one reads them.
void print_set(qv_pidset_t* set, const std::vector<pid_t>& workers) {
  if (qv_pidset_lock_contains(set) != 0) {
    fail("lock");
  }
  std::printf("%llu of at most %llu ids\n",
              static_cast<unsigned long long>(*qv_pidset_count_ptr(set)),
              static_cast<unsigned long long>(qv_pidset_max_pid_count()));
  for (const pid_t worker : workers) {
    std::printf("%d is %s\n", worker, qv_pidset_contains(set, worker) ? "there" : "gone");
  }
  qv_pidset_unlock_contains(set);
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 2 ? std::atoi(argv[2]) : 3;
  if (argc < 2 || argc > 3 || count < 1) {
    std::fprintf(stderr, "usage: pidset FILE [WORKERS]\n");
    return 2;
  }
  const char* const path = argv[1];
  make_file(path);
  qv_pidset_t* const set = open_set(path);
  int ready[2];
  int quit[2];
  if (pipe(ready) != 0 || pipe(quit) != 0) {
    fail("pipe");
  }
  const std::vector<pid_t> workers = start_workers(path, count, ready, quit);
  close(ready[1]);
  char byte;
  for (int i = 0; i < count; ++i) {
    if (read(ready[0], &byte, 1) != 1 || byte != '+') {
      fail("a worker could not sign up");
    }
  }
  print_set(set, workers);
  close(quit[1]);
  for (const pid_t worker : workers) {
    waitpid(worker, nullptr, 0);
  }
  print_set(set, workers);
  qv_pidset_close(set);
}
