// A temporary directory that is removed with its object, and functions for whole files.
#ifndef TESTS_SUPPORT_TEMP_DIR_H_
#define TESTS_SUPPORT_TEMP_DIR_H_

#include <string>
#include <vector>

namespace test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// "" if the file can't be read.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);
bool exists(const std::string& path);

// The names of a directory's files, sorted.
std::vector<std::string> names_in(const std::string& directory);

}  // namespace test

#endif  // TESTS_SUPPORT_TEMP_DIR_H_
