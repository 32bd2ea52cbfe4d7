// The files of an indexed store.
#ifndef QUORVANE_SRC_CACHE_INDEXED_PATHS_H_
#define QUORVANE_SRC_CACHE_INDEXED_PATHS_H_

#include <string>

namespace quorvane {
namespace cache {
namespace indexed {

struct Paths {
  Paths(const std::string& root, const std::string& name)
      : data(root + "/dat_" + name),
        index(root + "/idx_" + name),
        new_index(root + "/new_" + name) {}

  std::string data;
  std::string index;
  std::string new_index;  // only while an index is being made
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_PATHS_H_
