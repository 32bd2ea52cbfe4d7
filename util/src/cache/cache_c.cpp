#include <quorvane/cache_c.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "src/cache/checks.h"
#include "src/cache/failure.h"
#include "src/cache/open_error.h"
#include "src/fork_gate.h"
#include "src/uncancellable.h"

using quorvane::Uncancellable;
using quorvane::cache::Cache;
using quorvane::cache::error_of_failed_load;
using quorvane::cache::error_of_invalid;
using quorvane::cache::Failure;
using quorvane::cache::g_module;
using quorvane::cache::make_store;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using quorvane::cache::StoreOptions;
using quorvane::util::RoBuffer;

struct qv_cache {
  qv_cache(const std::string& name, std::unique_ptr<Store>&& store, bool read_only)
      : is_volatile(store == nullptr),
        is_read_only(read_only),
        cache(name, std::move(store), is_volatile) {}

  const bool is_volatile;
  const bool is_read_only;
  Cache cache;
};

namespace {

constexpr unsigned kAllFlags = QV_CACHE_READ_ONLY | QV_CACHE_MUST_EXIST;

using Atoms = std::vector<RoBuffer>;

const qv_cache_value_t* to_c(const Atoms* value) {
  return reinterpret_cast<const qv_cache_value_t*>(value);
}

const Atoms& atoms_of(const qv_cache_value_t* value) {
  return *reinterpret_cast<const Atoms*>(value);
}

// What `body` returns, an error. No exception leaves, except the one that ends a cancelled
// thread.
template <typename Body>
int error_of(const Body& body) {
  try {
    return body();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    Failure::note_exception();
    return Failure::last();
  }
}

// Why the operation that has just failed did so.
int last_error() { return Failure::last() != 0 ? Failure::last() : EIO; }

// -1 with this error, or 0 if there is none.
int result_of(int error) {
  if (error == 0) {
    return 0;
  }
  errno = error;
  return -1;
}

std::optional<StoreKind> kind_of(std::string_view name) {
  if (name == "indexed") {
    return StoreKind::indexed;
  }
  if (name == "basic") {
    return StoreKind::basic;
  }
  if (name == "lazy_lookup") {
    return StoreKind::lazy_lookup;
  }
  return std::nullopt;
}

bool is_null_or_empty(const char* text) { return text == nullptr || *text == '\0'; }

// A '/' would put the files elsewhere.
bool is_good_name(const char* name) {
  return !is_null_or_empty(name) && std::strchr(name, '/') == nullptr;
}

StoreOptions options_of(StoreKind kind, const char* root, const char* name, unsigned flags) {
  StoreOptions options;
  options.kind = kind;
  options.name = name;
  options.root = root != nullptr ? root : "";
  options.read_only = (flags & QV_CACHE_READ_ONLY) != 0;
  // Only a basic store without its file is an empty one. The others can't be read then.
  options.must_exist =
      (flags & QV_CACHE_MUST_EXIST) != 0 || (options.read_only && options.kind != StoreKind::basic);
  return options;
}

// All of these return an error, or 0 and the cache in `opened`.

int make_cache(const std::string& name, std::unique_ptr<Store>&& store, bool read_only,
               std::unique_ptr<qv_cache>& opened) {
  Failure::clear();
  opened = std::make_unique<qv_cache>(name, std::move(store), read_only);
  return opened->cache.is_valid() ? 0 : last_error();
}

int open_stored(const StoreOptions& options, std::unique_ptr<qv_cache>& opened) {
  std::unique_ptr<Store> store = make_store(options);
  if (store == nullptr) {
    return ENOMEM;
  }
  if (!store->is_valid()) {
    return error_of_invalid(*store, options);
  }
  const int error = make_cache(options.name, std::move(store), options.read_only, opened);
  return error == EIO ? error_of_failed_load(options) : error;
}

// libqvremote.so's way to make a store, which takes `local` over. Null if there is no such
// library. Only who uses it needs the libraries that it needs. As with the recorder of
// statistics, forks wait for dlopen, and the library waits for forks without its handlers.
using MakeRemote = Store* (*)(const char* name, Store* local);
MakeRemote load_make_remote() {
  void* library = nullptr;
  {
    const quorvane::fork_gate::Closed closed;
    library = dlopen("libqvremote.so.1", RTLD_NOW | RTLD_LOCAL);
  }
  quorvane::fork_gate::wait_for_earlier_forks();
  void* const make = library != nullptr ? dlsym(library, "qv_remote_store_make") : nullptr;
  if (make == nullptr) {
    const char* const cause = dlerror();
    QV_LOG(g_module, ERROR, "No store on servers: %s", cause != nullptr ? cause : "unknown cause");
  }
  return reinterpret_cast<MakeRemote>(make);
}

// `local` may be null.
int open_remote(const char* name, std::unique_ptr<Store> local, std::unique_ptr<qv_cache>& opened) {
  const MakeRemote make = load_make_remote();
  if (make == nullptr) {
    return ENOTSUP;
  }
  std::unique_ptr<Store> store(make(name, local.release()));
  if (store == nullptr) {
    return ENOMEM;
  }
  return store->is_valid() ? make_cache(name, std::move(store), false, opened) : EINVAL;
}

int open_tiered(const StoreOptions& options, std::unique_ptr<qv_cache>& opened) {
  std::unique_ptr<Store> local = make_store(options);
  if (local == nullptr) {
    return ENOMEM;
  }
  if (!local->is_valid()) {
    return error_of_invalid(*local, options);
  }
  return open_remote(options.name.c_str(), std::move(local), opened);
}

// The kinds that take no flags.
int open_other(std::string_view kind, const char* root, const char* name,
               std::unique_ptr<qv_cache>& opened) {
  if (kind == "volatile") {
    return make_cache(name, nullptr, false, opened);
  }
  if (kind == "remote" && is_null_or_empty(root)) {
    return open_remote(name, nullptr, opened);
  }
  if (kind == "tiered") {
    return open_tiered(options_of(StoreKind::indexed, root, name, 0), opened);
  }
  return EINVAL;
}

int open_cache(const char* kind, const char* root, const char* name, unsigned flags,
               std::unique_ptr<qv_cache>& opened) {
  if (kind == nullptr || !is_good_name(name) || (flags & ~kAllFlags) != 0) {
    return EINVAL;
  }
  if (const auto store_kind = kind_of(kind)) {
    return open_stored(options_of(*store_kind, root, name, flags), opened);
  }
  return flags == 0 ? open_other(kind, root, name, opened) : EINVAL;
}

bool is_good_entry(const void* key, size_t key_size, const void* const* atoms, const size_t* sizes,
                   size_t count) {
  if (key == nullptr || key_size == 0 || atoms == nullptr || sizes == nullptr || count == 0) {
    return false;
  }
  for (size_t i = 0; i < count; ++i) {
    if (atoms[i] == nullptr || sizes[i] == 0) {
      return false;
    }
  }
  return true;
}

// A read-only cache fails to store for one reason, unless there is no memory.
int storing_error(int error, bool is_read_only) {
  return is_read_only && error == EIO ? EROFS : error;
}

}  // namespace

qv_cache_t* qv_cache_open(const char* kind, const char* root, const char* name, unsigned flags) {
  std::unique_ptr<qv_cache> opened;
  const int error = error_of([&] { return open_cache(kind, root, name, flags, opened); });
  if (error != 0) {
    opened.reset();  // before errno is set
  }
  result_of(error);
  return opened.release();
}

const qv_cache_value_t* qv_cache_get(qv_cache_t* cache, const void* key, size_t size) {
  if (cache == nullptr || key == nullptr || size == 0) {
    errno = EINVAL;
    return nullptr;
  }
  Failure::clear();
  const Atoms* const value = cache->cache.get_value(RoBuffer::view(key, size));
  if (value == nullptr) {
    errno = Failure::last();
  }
  return to_c(value);
}

size_t qv_cache_atoms(const qv_cache_value_t* value) {
  return value != nullptr ? atoms_of(value).size() : 0;
}

const void* qv_cache_atom(const qv_cache_value_t* value, size_t index, size_t* size) {
  const bool exists = index < qv_cache_atoms(value);
  if (size != nullptr) {
    *size = exists ? atoms_of(value)[index].get_size() : 0;
  }
  return exists ? atoms_of(value)[index].get_buffer() : nullptr;
}

int qv_cache_add(qv_cache_t* cache, const void* key, size_t key_size, const void* const* atoms,
                 const size_t* sizes, size_t count) {
  if (cache == nullptr || !is_good_entry(key, key_size, atoms, sizes, count)) {
    return result_of(EINVAL);
  }
  bool added = false;
  Failure::clear();
  const int error = error_of([&] {
    Atoms value;
    value.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      value.push_back(RoBuffer::copy(atoms[i], sizes[i]));
    }
    added = cache->cache.add_value(RoBuffer::copy(key, key_size), std::move(value));
    return added ? 0 : Failure::last();
  });
  return error != 0 ? result_of(error) : static_cast<int>(added);
}

int qv_cache_flush(qv_cache_t* cache) {
  if (cache == nullptr) {
    return result_of(EINVAL);
  }
  Failure::clear();
  if (cache->is_volatile || cache->cache.flush()) {
    return 0;
  }
  return result_of(storing_error(last_error(), cache->is_read_only));
}

void qv_cache_prefetch(qv_cache_t* cache, const void* const* keys, const size_t* sizes,
                       size_t count) {
  if (cache == nullptr || keys == nullptr || sizes == nullptr) {
    return;
  }
  // Without memory the look-ups do without it.
  static_cast<void>(error_of([&] {
    std::vector<RoBuffer> views;
    views.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      if (keys[i] != nullptr && sizes[i] != 0) {
        views.push_back(RoBuffer::view(keys[i], sizes[i]));
      }
    }
    cache->cache.prefetch(views.data(), views.size());
    return 0;
  }));
}

uint64_t qv_cache_size(qv_cache_t* cache) { return cache != nullptr ? cache->cache.size() : 0; }

int qv_cache_each(qv_cache_t* cache, qv_cache_callback_t callback, void* closure) {
  if (cache == nullptr || callback == nullptr) {
    return result_of(EINVAL);
  }
  Failure::clear();
  Cache::const_iterator entry = cache->cache.begin();
  if (Failure::last() != 0) {
    return result_of(Failure::last());
  }
  for (const Cache::const_iterator end = cache->cache.end(); entry != end; ++entry) {
    const int result =
        callback(entry->first.get_buffer(), entry->first.get_size(), to_c(&entry->second), closure);
    if (result != 0) {
      return result;
    }
  }
  return 0;
}

int qv_cache_close(qv_cache_t* cache) {
  if (cache == nullptr) {
    return 0;
  }
  const Uncancellable uncancellable;  // the destructor stores
  const bool is_read_only = cache->is_read_only;
  Failure::clear();
  delete cache;
  return result_of(storing_error(Failure::last(), is_read_only));
}

const char* qv_cache_error_text(int error) {
  switch (error) {
    case 0:
      return "no error";
    case EINVAL:
      return "an argument is wrong, or there is no root directory or no server";
    case ENOENT:
      return "the root directory or the store isn't there";
    case EACCES:
      return "no permission for the root directory or the store's files";
    case EROFS:
      return "read-only: additions aren't stored";
    case ENOMEM:
      return "no memory";
    case EIO:
      return "the store is damaged or can't be used";
    case ENOTSUP:
      return "libqvremote.so.1 isn't installed";
    default:
      return "unknown error";
  }
}
