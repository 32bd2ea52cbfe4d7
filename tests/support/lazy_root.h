// A store root that may hold the two files of the lazy store "maps", and the records of the
// operations on those files.
#ifndef TESTS_SUPPORT_LAZY_ROOT_H_
#define TESTS_SUPPORT_LAZY_ROOT_H_

#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

namespace test {

class LazyRoot : public StoreRoot {
 public:
  LazyRoot() = default;
  explicit LazyRoot(const LazyFiles& files) { write_lazy_files(path(), files); }

  std::string key() const { return file("key_maps"); }
  std::string val() const { return file("val_maps"); }
  LazyFiles files() const { return read_lazy_files(path()); }
  bool has_neither() const { return !exists(key()) && !exists(val()); }

  std::string opened_key() const { return "DEBUG Opened and mmapped " + key() + " file"; }
  std::string opened_val() const { return "DEBUG Opened and mmapped " + val() + " file"; }
  std::string loaded() const {
    return "DEBUG Cachemap (" + key() + ", " + val() + ") files loaded";
  }
  std::string scanned() const { return "DEBUG Cachemap " + key() + " diff loaded"; }
  std::string stored() const { return "DEBUG Cache files (" + key() + ", " + val() + ") stored"; }
  std::string corrupted() const { return "ERROR Cachemap " + key() + " file corrupted"; }
  std::string collision(const std::string& level) const {
    return level + " Collision inside cachemap " + key() + " file ocurred";
  }
  std::string removed() const {
    return "WARN Cache files (" + key() + ", " + val() +
           ") removed as they couldn't be stored correctly";
  }
};

// The messages of a run. Only the lazy store's own checks keep their line numbers.
inline std::vector<std::string> lazy_lines(const Ran& ran) {
  return without_lines(ran.messages(), kFirstLazyLine);
}

// Cuts the error text off "WARN Error removing file PATH: ": after a removal that succeeded,
// errno is arbitrary.
inline std::vector<std::string> without_errno(std::vector<std::string> messages) {
  for (std::string& message : messages) {
    if (message.rfind("WARN Error removing file ", 0) == 0 && message.back() == '\n') {
      message.erase(message.find(": ") + 2);
    }
  }
  return messages;
}

}  // namespace test

#endif  // TESTS_SUPPORT_LAZY_ROOT_H_
