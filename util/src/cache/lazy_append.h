// Appends entries to a lazy store's two files.
#ifndef QUORVANE_SRC_CACHE_LAZY_APPEND_H_
#define QUORVANE_SRC_CACHE_LAZY_APPEND_H_

#include <cstddef>
#include <fstream>

#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// One append to streams that are at the ends of their files. Hands all values to the kernel
// before the first key: a process that is killed in between leaves values without keys,
// never keys without values.
class LazyAppend {
 public:
  LazyAppend(std::ofstream& key_file, std::ofstream& val_file);

  // False when an entry does not fit its buffer. Failed writes end the append too, and show
  // in the streams' states.
  bool write(const EntryMap& diff, const KeySet& keys_to_skip);

  // The bytes appended to both files, without those of a stream that failed.
  std::size_t bytes();

 private:
  bool write_values(const EntryMap& diff, const KeySet& keys_to_skip);
  bool write_keys(const EntryMap& diff, const KeySet& keys_to_skip);

  std::ofstream& key_file_;
  std::ofstream& val_file_;
  std::streamoff key_start_;
  std::streamoff val_start_;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LAZY_APPEND_H_
