#include "src/cache/store_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <quorvane/file_store.h>

#include "src/cache/checks.h"

namespace quorvane {
namespace cache {

const char* root_from_environment() { return secure_getenv("QV_CACHE_STORE_ROOT"); }

std::string get_store_file_path(const std::string& name) {
  const char* root = root_from_environment();
  qv_fault_expect(g_module.get(), 2, root != nullptr,
                  "Caching enabled, but QV_CACHE_STORE_ROOT not set.");
  return root == nullptr || *root == '\0' ? "" : std::string(root) + "/" + name;
}

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

void map_whole(util::MMappedFile& file, const std::string& path) {
  file.open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK, 0, PROT_READ, MAP_PRIVATE | MAP_POPULATE);
}

void write_buffer(std::ostream& file, const util::RwBuffer& buffer) {
  file.write(reinterpret_cast<const char*>(buffer.get_buffer()),
             static_cast<std::streamsize>(buffer.get_size()));
}

void remove_unstored(const std::string& path) {
  if (std::remove(path.c_str()) == 0) {  // Kept: docs/compatibility.md
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
