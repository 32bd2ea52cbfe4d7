#include "src/cache/store_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "src/cache/checks.h"

namespace quorvane {
namespace cache {

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

void map_whole(util::MMappedFile& file, const std::string& path) {
  file.open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK, 0, PROT_READ, MAP_PRIVATE | MAP_POPULATE);
}

void remove_unstored(const std::string& path) {
  if (std::remove(path.c_str()) == 0) {
    QV_LOG(g_module, WARN, "Error removing file %s: %s\n", path.c_str(), std::strerror(errno));
  }
}

bool report_standing_note(const std::string& path) {
  QV_LOG(g_module, WARN, "Nothing is appended to %s: its lock file holds a note that stays",
         path.c_str());
  return false;
}

}  // namespace cache
}  // namespace quorvane
