// A program that has fork handlers when it loads the library. They log through new
// modules, and the first of them forks.
#include <dlfcn.h>
#include <pthread.h>
#include <quorvane/module.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

constexpr unsigned kHangs = 30;

void* g_library = nullptr;

template <typename Function>
Function* find(const char* name) {
  return reinterpret_cast<Function*>(dlsym(g_library, name));
}

void log_from(const char* handler) {
  alarm(kHangs);
  void* const module = find<decltype(qv_module_create)>("qv_module_create")();
  find<decltype(qv_module_route)>("qv_module_route")(handler, module);
  find<decltype(qv_module_commit)>("qv_module_commit")(module);
  find<decltype(qv_log_do)>("qv_log_do")(module, QV_LOG_LEVEL_INFO, 0, "in %s", handler);
}

int wait_for(pid_t process) {
  int status = 1;
  return waitpid(process, &status, 0) == process ? status : 1;
}

bool g_is_nested = false;
int g_nested_status = 1;

void prepare() {
  if (g_is_nested) {
    return;
  }
  log_from("prepare");
  g_is_nested = true;
  const pid_t process = fork();
  if (process == 0) {
    log_from("nested");
    _exit(0);
  }
  g_is_nested = false;
  g_nested_status = wait_for(process);
}

void parent() {
  if (!g_is_nested) {
    log_from("parent");
  }
}

void child() {
  if (!g_is_nested) {
    log_from("child");
  }
}

}  // namespace

int main(int, char** argv) {
  pthread_atfork(&prepare, &parent, &child);
  g_library = dlopen(argv[1], RTLD_NOW);
  if (g_library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  const pid_t process = fork();
  if (process == 0) {
    _exit(0);
  }
  return wait_for(process) == 0 && g_nested_status == 0 ? 0 : 1;
}
