#include "qvutil/rewrite/damaged_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

// A repair that was killed has given the second name already.
bool is_same_file(const std::string& one, const std::string& other) {
  struct stat a {};
  struct stat b {};
  return stat(one.c_str(), &a) == 0 && stat(other.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
         a.st_ino == b.st_ino;
}

}  // namespace

std::string keep_as_damaged(const std::string& path) {
  std::string kept = path + ".damaged";
  for (int number = 2; link(path.c_str(), kept.c_str()) != 0; ++number) {
    if (errno == ENOENT) {
      return "";
    }
    if (errno != EEXIST) {
      throw failure_of("can't keep " + shown(path) + " as " + shown(kept), errno);
    }
    if (is_same_file(path, kept)) {
      break;
    }
    kept = path + ".damaged." + std::to_string(number);
  }
  return kept.substr(kept.rfind('/') + 1);
}

}  // namespace quorvane::tool
