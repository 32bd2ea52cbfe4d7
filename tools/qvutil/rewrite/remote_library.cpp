#include "qvutil/rewrite/remote_library.h"

#include <dlfcn.h>

#include "qvutil/output/outcome.h"

namespace quorvane::tool {

std::unique_ptr<cache::Store> make_remote_store(const std::string& name) {
  using Make = cache::Store* (*)(const char* name, cache::Store* local);
  void* const library = dlopen("libqvremote.so.1", RTLD_NOW | RTLD_LOCAL);
  void* const make = library != nullptr ? dlsym(library, "qv_remote_store_make") : nullptr;
  if (make == nullptr) {
    throw Failure("servers need libqvremote.so.1, of the package libqvremote1: " +
                  std::string(dlerror()));
  }
  return std::unique_ptr<cache::Store>(reinterpret_cast<Make>(make)(name.c_str(), nullptr));
}

}  // namespace quorvane::tool
