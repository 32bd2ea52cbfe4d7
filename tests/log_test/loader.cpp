// A program that loads the library at run time. Prints how many bytes the heap grew by
// with the main thread's first record, and with another thread's.
#include <dlfcn.h>
#include <malloc.h>
#include <quorvane/module.h>

#include <cstdio>
#include <thread>

int main(int, char** argv) {
  void* library = dlopen(argv[1], RTLD_NOW);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  const auto find = reinterpret_cast<decltype(&qv_module_find)>(dlsym(library, "qv_module_find"));
  const auto log = reinterpret_cast<decltype(&qv_log_do)>(dlsym(library, "qv_log_do"));
  void* module = find("util/src/cache");
  const auto growth = [&] {
    const std::size_t before = mallinfo2().uordblks;
    log(module, QV_LOG_LEVEL_INFO, 0, "%s", "a record");
    return mallinfo2().uordblks - before;
  };
  std::size_t of_another = 0;
  std::thread([&] { of_another = growth(); }).join();
  const std::size_t of_the_first = growth();
  std::printf("%zu %zu", of_the_first, of_another);
}
