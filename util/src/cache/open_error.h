// Why a cache couldn't be opened, as a value of errno.
#ifndef QUORVANE_SRC_CACHE_OPEN_ERROR_H_
#define QUORVANE_SRC_CACHE_OPEN_ERROR_H_

#include <quorvane/file_store.h>

namespace quorvane {
namespace cache {

// Why make_store made this store, which isn't valid, from these options: EINVAL, ENOENT, EACCES,
// EROFS or EIO. Looks at the files again, so a cause that has gone meanwhile is EIO.
int error_of_invalid(const Store& store, const StoreOptions& options);

// Why the valid store that was made from these options didn't load: EACCES or EIO.
int error_of_failed_load(const StoreOptions& options);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_OPEN_ERROR_H_
