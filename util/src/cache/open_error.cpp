#include "src/cache/open_error.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "src/cache/missing_store.h"
#include "src/cache/store_files.h"

namespace quorvane {
namespace cache {
namespace {

// The error with which the kernel refuses this access, or 0.
int refusal_of(const std::string& path, int mode) {
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
}

int documented(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return ENOENT;
    case ENAMETOOLONG:
      return EINVAL;
    case EACCES:
    case EROFS:
      return error;
    default:
      return EIO;
  }
}

std::string root_of(const StoreOptions& options) {
  const char* const from_environment = options.root.empty() ? root_from_environment() : nullptr;
  return from_environment != nullptr ? from_environment : options.root;
}

// The files without which a store of this kind doesn't load.
std::vector<std::string> files_of(const StoreOptions& options) {
  switch (options.kind) {
    case StoreKind::basic:
      return {options.name};
    case StoreKind::lazy_lookup:
      return {"key_" + options.name, "val_" + options.name};
    case StoreKind::indexed:
      return {"dat_" + options.name, "idx_" + options.name};
  }
  return {};
}

}  // namespace

// A store that isn't missing is only invalid for lack of its lock.
int error_of_invalid(const Store& store, const StoreOptions& options) {
  const std::string root = root_of(options);
  if (root.empty()) {
    return EINVAL;
  }
  const int root_refusal = refusal_of(root + "/.", X_OK);
  if (root_refusal != 0) {
    return documented(root_refusal);
  }
  if (dynamic_cast<const MissingStore*>(&store) != nullptr) {
    return ENOENT;
  }
  const std::string lock = root + "/" + lock_file_name(options.name);
  const int refusal = refusal_of(lock, options.read_only ? R_OK : R_OK | W_OK);
  return documented(refusal == ENOENT ? refusal_of(root, W_OK) : refusal);
}

int error_of_failed_load(const StoreOptions& options) {
  const std::string root = root_of(options);
  const std::vector<std::string> files = files_of(options);
  const bool is_refused = std::any_of(files.begin(), files.end(), [&](const std::string& file) {
    return refusal_of(root + "/" + file, R_OK) == EACCES;
  });
  return is_refused ? EACCES : EIO;
}

}  // namespace cache
}  // namespace quorvane
