/** \file
 * The cache as C functions, for C and for the languages that can call C.
 *
 * A cache maps byte strings, the keys, to lists of byte strings, the atoms. Opening a cache
 * finds what was stored under its name; qv_cache_flush and qv_cache_close store what was
 * added. quorvane/cache.h describes caches, quorvane/file_store.h their files, and
 * quorvane/remote_store.h those on servers.
 *
 * A function that fails sets errno to one of these:
 *
 * | errno   | cause |
 * |---------|-------|
 * | EINVAL  | An argument is wrong, or there is no root directory or no server. |
 * | ENOENT  | The root directory, or a store that must exist, isn't there. |
 * | EACCES  | The root directory or the store's files don't permit it. |
 * | EROFS   | The cache is read-only, so its additions aren't stored; or the file system is. |
 * | ENOMEM  | There is no memory. |
 * | EIO     | The store is damaged or can't be used, or servers didn't take all additions. |
 * | ENOTSUP | libqvremote.so.1, which some kinds of cache need, isn't installed. |
 *
 * The log has the details, under the modules "util/src/cache" and "cache/remote". A wrong
 * argument isn't logged.
 * Apart from qv_cache_get, a function that succeeds leaves errno undefined.
 *
 * Thread-safety: any number of threads may use a cache, but nobody may add while
 * qv_cache_each runs, and nobody may use a cache that one thread closes.
 * Fork-safety: a child may use and close its copy of a cache. An entry that parent and child
 * both add is stored once. Not in signal handlers. */
#ifndef QUORVANE_CACHE_C_H_
#define QUORVANE_CACHE_C_H_

#include <quorvane/export.h>

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
extern "C" {
#else
#include <stddef.h>
#include <stdint.h>
#endif

/** An open cache. Its opener closes it. */
typedef struct qv_cache qv_cache_t;

/** The value of an entry: a list of atoms. It belongs to its cache, and neither moves nor
 * changes as long as the cache is open. */
typedef struct qv_cache_value qv_cache_value_t;

/** A flag of qv_cache_open: the cache stores, creates and deletes nothing, and needs no
 * permission to write. Additions stay in memory. */
#define QV_CACHE_READ_ONLY 1U

/** A flag of qv_cache_open: fail with ENOENT unless the store's files exist. */
#define QV_CACHE_MUST_EXIST 2U

/** Opens the cache `name`. `kind` is "indexed" (the best for most uses), "basic" or
 * "lazy_lookup", as quorvane/file_store.h describes them; "remote": on the servers of
 * QV_CACHE_REMOTE; "tiered": on these servers, and what they gave in an indexed cache, too; or
 * "volatile": without a store. `root` is the existing directory of the files; null or empty means
 * that of QV_CACHE_STORE_ROOT. A remote cache must have none. `name` must be neither null nor
 * empty, and has no '/'. `flags` is 0 or made of the two flags above. Remote, tiered and volatile
 * caches take none, and a volatile one ignores `root`.
 *
 * A remote cache opens whether or not the servers answer. A tiered one is an indexed one
 * without QV_CACHE_REMOTE, and if its files are damaged, only the servers count.
 *
 * A cache without files is empty, and gets its files now or with the first flush. But if it is
 * read-only, and not basic, opening it fails with ENOENT.
 *
 * Copies its strings. May wait for another process that stores. Returns the cache, or null
 * with errno: EINVAL, ENOENT, EACCES, EROFS, ENOMEM, EIO or ENOTSUP. */
QV_EXPORT qv_cache_t* qv_cache_open(const char* kind, const char* root, const char* name,
                                    unsigned flags);

/** The value of the key of `size` bytes at `key`. The value is valid until the cache is closed.
 * Returns null with errno 0 when there is no such entry, which is no failure; with EINVAL when
 * `cache` or `key` is null or `size` is 0; with ENOMEM when there is no memory for what was
 * found. */
QV_EXPORT const qv_cache_value_t* qv_cache_get(qv_cache_t* cache, const void* key, size_t size);

/** How many atoms the value has, 1 or more; 0 if `value` is null. */
QV_EXPORT size_t qv_cache_atoms(const qv_cache_value_t* value);

/** The bytes of the atom `index`, counted from 0, with their number in `*size`. They are valid
 * as long as the value, and not terminated. Beyond the last atom, and if `value` is null, the
 * result is null and `*size` is 0. `size` may be null. Doesn't set errno. */
QV_EXPORT const void* qv_cache_atom(const qv_cache_value_t* value, size_t index, size_t* size);

/** Adds an entry, with copies of the key and of `count` atoms: `sizes[i]` bytes at `atoms[i]`.
 * Returns 1 when it was added, 0 when the key is there already: its value stays. Returns -1 with
 * errno, and adds nothing: EINVAL when a pointer is null, or the key, the list or an atom is
 * empty; ENOMEM; or EIO when the store failed to say whether it has the key. */
QV_EXPORT int qv_cache_add(qv_cache_t* cache, const void* key, size_t key_size,
                           const void* const* atoms, const size_t* sizes, size_t count);

/** Stores what was added and isn't stored yet. Waits for other processes that store, and for
 * another thread's flush. Returns 0 when everything that was added before is stored, also
 * when there was nothing to store. Returns -1 with errno otherwise: EINVAL when `cache` is
 * null, EROFS, ENOMEM or EIO. What isn't stored stays for the next flush. A volatile cache has
 * nothing to store, and returns 0. The calling thread can't be cancelled meanwhile. */
QV_EXPORT int qv_cache_flush(qv_cache_t* cache);

/** A hint that these `count` keys will be looked up: `sizes[i]` bytes at `keys[i]`. An indexed
 * cache asks the kernel to read their entries ahead, and doesn't wait for that. A remote or tiered
 * cache brings them from the servers in one round trip, or in several if they are very many, each
 * within its time limit. The other kinds do nothing. Skips keys that are null or empty. Never
 * fails. */
QV_EXPORT void qv_cache_prefetch(qv_cache_t* cache, const void* const* keys, const size_t* sizes,
                                 size_t count);

/** How many entries there are, stored and added; of those on servers, the ones that this process
 * knows. 0 if `cache` is null. */
QV_EXPORT uint64_t qv_cache_size(qv_cache_t* cache);

/** What qv_cache_each calls for an entry. Returns 0 to go on. The key is valid as long as the
 * cache is open. `closure` is what qv_cache_each was given. It may look up, but must not add to
 * the cache, iterate over it or close it, and must not throw. */
typedef int (*qv_cache_callback_t)(const void* key, size_t key_size, const qv_cache_value_t* value,
                                   void* closure);

/** Calls `callback` for each entry, until it returns anything but 0: what is stored, then what
 * this process has added, each with the shorter keys first, then by their bytes. One thread at
 * a time. The first call on an indexed cache reads all its entries into memory; later calls
 * visit these again. Returns what the last call of `callback` returned, 0 at the end. Returns -1
 * with errno, before any call: EINVAL when `cache` or `callback` is null, ENOMEM, or EIO when the
 * entries can't be read. A callback should not return -1. */
QV_EXPORT int qv_cache_each(qv_cache_t* cache, qv_cache_callback_t callback, void* closure);

/** Stores what was added and isn't stored yet, and frees the cache with all its values, also
 * when it fails. A null `cache` is fine. Returns 0, or -1 with errno when something isn't stored,
 * which is lost then: EROFS, ENOMEM or EIO. */
QV_EXPORT int qv_cache_close(qv_cache_t* cache);

/** An English text for `error`, one of the errors above, in the terms of a cache; "no error"
 * for 0, "unknown error" for any other number. Never null; a constant. Any thread, also in a
 * signal handler. Leaves errno alone. */
QV_EXPORT const char* qv_cache_error_text(int error);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // QUORVANE_CACHE_C_H_
