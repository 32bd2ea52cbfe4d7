// States of a directory: taken from the files, and put back into the same files.
#ifndef TESTS_SUPPORT_DIR_STATES_H_
#define TESTS_SUPPORT_DIR_STATES_H_

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace test {

// The files of a directory at one moment, and those that have lost their names since the
// directory was last restored: processes may still have them mapped.
struct DirState {
  using Bytes = std::shared_ptr<const std::string>;

  std::map<std::string, ino_t> names;
  std::map<ino_t, Bytes> files;

  bool has(const std::string& name) const { return names.count(name) != 0; }
  // "" when there is no such file.
  const std::string& bytes(const std::string& name) const;
  bool operator==(const DirState& other) const;
};

// Restored files keep their inodes, so that a file that names another by its inode still fits.
class DirStates {
 public:
  explicit DirStates(std::string directory) : directory_(std::move(directory)) {}

  DirState take();
  void restore(const DirState& state);

 private:
  std::string kept(ino_t inode) const { return kept_.file(std::to_string(inode)); }

  const std::string directory_;
  TempDir kept_;      // has a second link to each file, named after its inode
  DirState last_;     // as taken or restored
  std::string read_;  // kept, since few files change between two moments
};

// The states between `before` and `after` that a kill in the middle of a write leaves, which
// ends at a page. Of a long write, some of them. Adds a write that stops behind its first
// byte, and one that lacks its last.
std::vector<DirState> torn_writes(const DirState& before, const DirState& after);

}  // namespace test

#endif  // TESTS_SUPPORT_DIR_STATES_H_
