// Loads the library by its path, counts once and ends. The program itself links no part of
// the library and has no run path.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

namespace {

template <typename Function>
Function look_up(void* library, const char* symbol) {
  return reinterpret_cast<Function>(dlsym(library, symbol));
}

}  // namespace

int main(int, char** argv) {
  void* library = dlopen(argv[1], RTLD_NOW);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  const auto module_create = look_up<void* (*)()>(library, "qv_module_create");
  const auto route = look_up<void (*)(const char*, void*)>(library, "qv_module_route");
  const auto counter =
      look_up<std::uint64_t (*)(void*, const char*)>(library, "qv_stats_create_counter");
  const auto add =
      look_up<int (*)(std::uint64_t, std::int64_t)>(library, "qv_stats_counter_inc_do");
  void* module = module_create();
  route("loaded", module);
  const std::uint64_t handle = counter(module, "times");
  return handle == ~std::uint64_t{0} ? 2 : add(handle, 1);
}
