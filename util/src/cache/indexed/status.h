// How an attempt to open one of an indexed store's files ended.
#ifndef QUORVANE_SRC_CACHE_INDEXED_STATUS_H_
#define QUORVANE_SRC_CACHE_INDEXED_STATUS_H_

namespace quorvane {
namespace cache {
namespace indexed {

enum class Status {
  fits,           // usable
  missing,        // there is no file, or an empty one
  stale,          // an index that doesn't belong to the data, or is not whole
  other_version,  // of a version that this library doesn't know
  damaged,
  refused  // by the kernel, with errno
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_STATUS_H_
