#include "fingerprint/tree.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "fingerprint/complaint.h"

namespace fingerprint {
namespace {

namespace fs = std::filesystem;

class Walk {
 public:
  Tree from(const fs::path& top) {
    open_directories_.push_back(top);
    while (!open_directories_.empty()) {
      const fs::path directory = std::move(open_directories_.back());
      open_directories_.pop_back();
      list(directory);
    }
    std::sort(tree_.files.begin(), tree_.files.end());
    return std::move(tree_);
  }

 private:
  void list(const fs::path& directory) {
    std::error_code error;
    fs::directory_iterator entry(directory, error);
    while (!error && entry != fs::directory_iterator()) {
      take(*entry);
      entry.increment(error);
    }
    if (error) {
      complain(with_errno(directory.string(), error.value()));
      ++tree_.unreadable;
    }
  }

  // An entry that was removed since it was listed is skipped. The type of an entry in a
  // directory that may be listed but not searched is unknown.
  void take(const fs::directory_entry& entry) {
    std::error_code error;
    const fs::file_type type = entry.symlink_status(error).type();
    if (error && type != fs::file_type::not_found) {
      complain(with_errno(entry.path().string(), error.value()));
      ++tree_.unreadable;
    } else if (type == fs::file_type::directory) {
      open_directories_.push_back(entry.path());
    } else if (type == fs::file_type::regular) {
      tree_.files.push_back(entry.path().string());
    }
  }

  std::vector<fs::path> open_directories_;
  Tree tree_;
};

}  // namespace

Tree walk(const std::string& directory) {
  // Keys depend on the path, which must not depend on the current directory.
  std::error_code error;
  const fs::path top = fs::canonical(directory, error);
  if (error) {
    complain(with_errno(directory, error.value()));
    Tree nothing;
    nothing.unreadable = 1;
    return nothing;
  }
  return Walk().from(top);
}

}  // namespace fingerprint
