// A file that a command makes.
#ifndef TOOLS_QVUTIL_OUTPUT_NEW_FILE_H_
#define TOOLS_QVUTIL_OUTPUT_NEW_FILE_H_

#include <fstream>
#include <ostream>
#include <string>

namespace quorvane::tool {

// Appears under its name only when it is whole. Until then, a file of that name stays as it is,
// and may be read. What is no regular file, like /dev/stdout, is written at once.
class NewFile {
 public:
  // Throws Failure if it can't be made.
  explicit NewFile(std::string path);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  std::ostream& out() { return out_; }

  // Throws Failure if not everything could be written; the old file stays then.
  void finish();

 private:
  std::string path_;
  std::string written_path_;
  std::ofstream out_;
  bool is_finished_ = false;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_NEW_FILE_H_
