// What qv_cache_open of libQVUtil.so calls, which opens this library with dlopen.
#include <quorvane/remote_store.h>

#include <memory>
#include <new>
#include <utility>

using quorvane::cache::make_remote_store;
using quorvane::cache::Store;

// make_remote_store with plain pointers. Takes `local` over, which may be null; the caller owns the
// result.
extern "C" QV_EXPORT Store* qv_remote_store_make(const char* name, Store* local);

Store* qv_remote_store_make(const char* name, Store* local) {
  std::unique_ptr<Store> owned(local);
  try {
    return make_remote_store(name, std::move(owned)).release();
  } catch (const std::bad_alloc&) {
    return nullptr;  // for the name
  }
}
