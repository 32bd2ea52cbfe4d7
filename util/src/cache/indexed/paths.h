// The files of an indexed store.
#ifndef QUORVANE_SRC_CACHE_INDEXED_PATHS_H_
#define QUORVANE_SRC_CACHE_INDEXED_PATHS_H_

#include <string>

namespace quorvane {
namespace cache {
namespace indexed {

struct Paths {
  Paths(const std::string& root, const std::string& name);

  std::string data;
  std::string index;
  std::string new_index;  // only while an index is being made

  // Only during a clean. The index is renamed first: it may belong to the data file of this
  // name for a moment, or until the next process finishes what a killed one has begun.
  std::string cleaned_data;
  std::string cleaned_index;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_PATHS_H_
