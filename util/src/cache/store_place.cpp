#include "src/cache/store_place.h"

#include <quorvane/file_store.h>

namespace quorvane {
namespace cache {

std::string StorePlace::path_of(const std::string& file) const {
  return root.empty() ? get_store_file_path(file) : root + "/" + file;
}

}  // namespace cache
}  // namespace quorvane
