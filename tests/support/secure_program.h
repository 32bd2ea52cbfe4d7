// A program that the kernel starts in secure mode.
#ifndef TESTS_SUPPORT_SECURE_PROGRAM_H_
#define TESTS_SUPPORT_SECURE_PROGRAM_H_

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

// A group other than this process's. Root may give a file to any group, others only to their own.
inline gid_t another_group() {
  if (geteuid() == 0) {
    return getegid() == 65534 ? 65533 : 65534;
  }
  std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
  getgroups(static_cast<int>(groups.size()), groups.data());
  for (const gid_t group : groups) {
    if (group != getegid()) {
      return group;
    }
  }
  throw std::runtime_error("needs root or a second group to make a set-group-id program");
}

inline bool honours_set_id(const std::string& directory) {
  struct statvfs status {};
  return statvfs(directory.c_str(), &status) == 0 && access(directory.c_str(), W_OK) == 0 &&
         (status.f_flag & (ST_NOSUID | ST_NOEXEC)) == 0;
}

// A copy of this program that the kernel starts in secure mode, as it does set-user-id
// programs. It is set-group-id and keeps its user, so that it can still read this tree.
class SecureProgram {
 public:
  SecureProgram() {
    std::filesystem::copy_file("/proc/self/exe", path_);
    if (chown(path_.c_str(), static_cast<uid_t>(-1), another_group()) != 0 ||
        chmod(path_.c_str(), 02755) != 0) {
      throw std::runtime_error("no set-group-id program at " + path_);
    }
  }
  ~SecureProgram() { unlink(path_.c_str()); }
  SecureProgram(const SecureProgram&) = delete;
  SecureProgram& operator=(const SecureProgram&) = delete;

  const std::string& path() const { return path_; }

 private:
  // Temporary directories are often mounted nosuid.
  static std::string directory() {
    for (const std::string& candidate :
         {std::filesystem::temp_directory_path().string(), std::string(QV_BINARY_DIR)}) {
      if (honours_set_id(candidate)) {
        return candidate;
      }
    }
    throw std::runtime_error("no directory in which set-group-id programs work");
  }

  std::string path_ = directory() + "/qv_secure_program." + std::to_string(getpid());
};

}  // namespace test

#endif  // TESTS_SUPPORT_SECURE_PROGRAM_H_
