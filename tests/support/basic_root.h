// A store root that may hold the file of the basic store "maps", and the records of the
// operations on that file.
#ifndef TESTS_SUPPORT_BASIC_ROOT_H_
#define TESTS_SUPPORT_BASIC_ROOT_H_

#include <string>

#include "support/store_root.h"
#include "support/temp_dir.h"

namespace test {

class BasicRoot : public StoreRoot {
 public:
  BasicRoot() = default;
  explicit BasicRoot(const std::string& bytes) { write_file(maps(), bytes); }

  std::string maps() const { return file("maps"); }
  std::string bytes() const { return read_file(maps()); }

  std::string opened() const { return "DEBUG Opened and mmapped " + maps() + " file"; }
  std::string loaded() const { return "DEBUG Cachemap " + maps() + " file loaded"; }
  std::string scanned() const { return "DEBUG Cachemap " + maps() + " diff loaded"; }
  std::string stored() const { return "DEBUG Cache file " + maps() + " stored"; }
  std::string corrupted() const { return "ERROR Cachemap " + maps() + " file corrupted"; }
  std::string collision() const {
    return "WARN Collision inside cachemap " + maps() + " file ocurred";
  }
  std::string removed() const {
    return "WARN Cache file " + maps() + " removed as it couldn't be stored correctly";
  }
};

}  // namespace test

#endif  // TESTS_SUPPORT_BASIC_ROOT_H_
