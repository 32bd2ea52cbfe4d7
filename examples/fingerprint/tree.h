// The regular files of a directory tree.
#ifndef FINGERPRINT_TREE_H_
#define FINGERPRINT_TREE_H_

#include <cstddef>
#include <string>
#include <vector>

namespace fingerprint {

struct Tree {
  std::vector<std::string> files;  // absolute paths, sorted
  std::size_t unreadable = 0;      // entries left out, each with a complaint
};

// Lists all regular files below `directory`. Doesn't follow symbolic links below it, so
// the walk ends and never leaves the tree.
Tree walk(const std::string& directory);

}  // namespace fingerprint

#endif  // FINGERPRINT_TREE_H_
