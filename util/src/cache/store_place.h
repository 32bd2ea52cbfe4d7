// Where a store's files are.
#ifndef QUORVANE_SRC_CACHE_STORE_PLACE_H_
#define QUORVANE_SRC_CACHE_STORE_PLACE_H_

#include <string>

namespace quorvane {
namespace cache {

// The root and the name of one store, and whether its files may be written to.
struct StorePlace {
  // The path of a file in the root. An unset QV_CACHE_STORE_ROOT is reported at each call.
  std::string path_of(const std::string& file) const;

  std::string root;  // empty: that of QV_CACHE_STORE_ROOT at each call
  std::string name;
  bool read_only = false;
  bool late_lock = false;  // a lock whose file is there opens it at its first use
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_STORE_PLACE_H_
