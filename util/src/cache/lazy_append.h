// Appends entries to a lazy store's two files.
#ifndef QUORVANE_SRC_CACHE_LAZY_APPEND_H_
#define QUORVANE_SRC_CACHE_LAZY_APPEND_H_

#include <cstddef>
#include <fstream>

#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// One append, to streams that stand at the ends of their files. All values are
// with the kernel before the first key is: whoever is killed on the way leaves
// values that no key points at, and never the reverse.
class LazyAppend {
 public:
  LazyAppend(std::ofstream& key_file, std::ofstream& val_file);

  // False when an entry does not fit its buffer; the streams tell of their own
  // failures, which end the append as well.
  bool write(const EntryMap& diff, const KeySet& keys_to_skip);

  // How many bytes both files have got; only those of a stream that is good.
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
