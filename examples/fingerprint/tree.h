// The regular files of a directory tree.
#ifndef FINGERPRINT_TREE_H_
#define FINGERPRINT_TREE_H_

#include <cstddef>
#include <string>
#include <vector>

namespace fingerprint {

struct Tree {
  std::vector<std::string> files;  // absolute paths, sorted
  std::size_t unreadable = 0;      // what had to be left out, each complained about
};

// Walks `directory` to the bottom. Symbolic links below it are not followed, so
// the walk ends and stays inside.
Tree walk(const std::string& directory);

}  // namespace fingerprint

#endif  // FINGERPRINT_TREE_H_
