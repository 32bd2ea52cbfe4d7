// A program that registers fork handlers before it loads the library. They log through new
// modules, and the prepare handler forks.
#include <dlfcn.h>
#include <pthread.h>
#include <quorvane/module.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/processes.h"

namespace {

constexpr unsigned kHangSeconds = 30;  // after which a process counts as hung

void* g_library = nullptr;

template <typename Function>
Function* find(const char* name) {
  return reinterpret_cast<Function*>(dlsym(g_library, name));
}

void log_from(const char* handler) {
  alarm(kHangSeconds);
  void* const module = find<decltype(qv_module_create)>("qv_module_create")();
  find<decltype(qv_module_route)>("qv_module_route")(handler, module);
  find<decltype(qv_module_commit)>("qv_module_commit")(module);
  find<decltype(qv_log_do)>("qv_log_do")(module, QV_LOG_LEVEL_INFO, 0, "in %s", handler);
}

bool g_is_nested = false;
int g_nested_status = 1;

void prepare() {
  if (g_is_nested) {
    return;
  }
  log_from("prepare");
  g_is_nested = true;
  const pid_t process = test::in_child([] {
    log_from("nested");
    return 0;
  });
  g_is_nested = false;
  g_nested_status = test::wait_for(process);
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
  const pid_t process = test::in_child([] { return 0; });
  return test::wait_for(process) == 0 && g_nested_status == 0 ? 0 : 1;
}
