// A store root with, perhaps, the two files of the lazy store "maps", and the
// records that work on them logs.
#ifndef TESTS_SUPPORT_LAZY_ROOT_H_
#define TESTS_SUPPORT_LAZY_ROOT_H_

#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace test {

class LazyRoot {
 public:
  LazyRoot() = default;
  explicit LazyRoot(const LazyFiles& files) { write_lazy_files(path(), files); }

  const std::string& path() const { return dir_.path(); }
  std::string key() const { return dir_.file("key_maps"); }
  std::string val() const { return dir_.file("val_maps"); }
  LazyFiles files() const { return read_lazy_files(path()); }
  bool has_neither() const { return !exists(key()) && !exists(val()); }

  Ran run(const std::string& scenario, const Arguments& arguments = {},
          const std::string& level = "DEBUG") const {
    return run_scenario(scenario, {{"QV_CACHE_STORE_ROOT", path()}, {"QV_LOG_LEVEL", level}},
                        arguments);
  }

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

 private:
  TempDir dir_;
};

// The lines of the lazy store's own checks, but not of those that it shares.
inline std::vector<std::string> lazy_lines(const Ran& ran) {
  return without_lines(ran.messages(), kFirstLazyLine);
}

// "WARN Error removing file PATH: " with whatever the errno was left out, as the
// records of a removal that succeeded have it.
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
