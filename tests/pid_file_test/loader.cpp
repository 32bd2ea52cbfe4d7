// A program that registers exit handlers before and after it loads the library. Its
// arguments are the library and what it does at its exit.
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char* g_way = "";

bool is_announced() {
  const std::string path =
      std::string(std::getenv("QV_PIDFILE_ROOT")) + "qv." + std::to_string(getpid());
  return access(path.c_str(), F_OK) == 0;
}

void tell(const char* handler) {
  std::printf("%s: %s\n", handler, is_announced() ? "there" : "gone");
  std::fflush(stdout);
}

// The child continues the exit.
void fork_and_wait() {
  const pid_t child = fork();
  if (child > 0) {
    waitpid(child, nullptr, 0);
  }
}

void registered_earlier() {
  if (std::strcmp(g_way, "forks") == 0) {
    fork_and_wait();
  }
  tell("earlier");
}

void registered_later() {
  tell("later");
  if (std::strcmp(g_way, "exits again") == 0) {
    std::exit(0);
  }
}

}  // namespace

int main(int, char** argv) {
  g_way = argv[2];
  std::atexit(&registered_earlier);
  if (dlopen(argv[1], RTLD_NOW) == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  std::atexit(&registered_later);
}
