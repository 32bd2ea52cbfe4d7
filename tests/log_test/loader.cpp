// A program that loads the library when it runs already. Prints how much the heap
// grew by the first record of its first thread and of another one.
#include <dlfcn.h>
#include <malloc.h>

#include <cstdio>
#include <thread>

int main(int, char** argv) {
  void* library = dlopen(argv[1], RTLD_NOW);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  using Find = void* (*)(const char*);
  using Log = void (*)(void*, int, unsigned long, const char*, ...);
  void* module = reinterpret_cast<Find>(dlsym(library, "qv_module_find"))("util/src/cache");
  const auto log = reinterpret_cast<Log>(dlsym(library, "qv_log_do"));
  const auto growth = [&] {
    const std::size_t before = mallinfo2().uordblks;
    log(module, 3, 0, "%s", "a record");
    return mallinfo2().uordblks - before;
  };
  std::size_t of_another = 0;
  std::thread([&] { of_another = growth(); }).join();
  const std::size_t of_the_first = growth();
  std::printf("%zu %zu", of_the_first, of_another);
}
