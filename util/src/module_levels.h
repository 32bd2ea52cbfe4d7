// The levels that the environment gives to modules by path.
#ifndef QUORVANE_SRC_MODULE_LEVELS_H_
#define QUORVANE_SRC_MODULE_LEVELS_H_

#include <quorvane/log.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane {
namespace module {

// An empty component is malformed except at the end.
// Kept: docs/compatibility.md
bool is_well_formed(std::string_view path);

// Never changes, so any thread and any child may read it.
class ModuleLevels {
 public:
  // Reads PATH=LEVEL,PATH=LEVEL..., with blanks anywhere between the words. Passes over parts
  // that are blank, and those that are malformed.
  explicit ModuleLevels(std::string_view setting);

  // The malformed parts, with commas between them.
  const std::string& malformed() const { return malformed_; }

  // The level of the longest path that one of the routes begins with, in whole components. Of
  // equally long ones, the last. Allocates nothing.
  std::optional<qv_log_level_t> find(const std::vector<std::string>& routes) const;

 private:
  struct Entry {
    std::string path;
    qv_log_level_t level;
  };

  bool add(std::string_view part);

  std::vector<Entry> entries_;
  std::string malformed_;
};

}  // namespace module
}  // namespace quorvane

#endif  // QUORVANE_SRC_MODULE_LEVELS_H_
