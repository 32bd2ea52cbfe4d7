// The root directory of the stores under test: created by a test, used by its scenarios.
#ifndef TESTS_SUPPORT_STORE_ROOT_H_
#define TESTS_SUPPORT_STORE_ROOT_H_

#include <quorvane/file_store.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace test {

// The seconds after which a scenario that hangs is killed.
constexpr unsigned kHangSeconds = 60;

// Keeps the default controller from cleaning.
inline const Environment kUnlimited{{"QV_CACHE_STORE_CLEANUP_THRESHOLD", "0"}};

// What a store holds when its content doesn't matter, in the order of the file.
inline const std::vector<Entry> kEntries{{"b", {"2", "3"}}, {"aa", {"1"}}};

// A store root in which a test runs scenarios.
class StoreRoot {
 public:
  const std::string& path() const { return dir_.path(); }
  std::string file(const std::string& name) const { return dir_.file(name); }

  // `more` overrides the root and the level.
  Ran run(const std::string& scenario, const Arguments& arguments = {},
          const std::string& level = "DEBUG", Environment more = {}) const {
    more.emplace("QV_CACHE_STORE_ROOT", path());
    more.emplace("QV_LOG_LEVEL", level);
    return run_scenario(scenario, more, arguments);
  }

  // For scenarios whose stores use the default controller.
  Ran run_unlimited(const std::string& scenario, const Arguments& arguments = {}) const {
    return run(scenario, arguments, "WARN", kUnlimited);
  }

 private:
  TempDir dir_;
};

// The records of a store that can no longer find its lock file.
std::vector<std::string> lock_is_lost(const std::string& path);

// --- inside a scenario ---

std::string root_path();
std::string root_file(const std::string& name);

// A controller that never cleans. It outlives the static destructors.
quorvane::cache::CleanupController& no_limit();

std::unique_ptr<quorvane::cache::Store> maps_store(quorvane::cache::StoreKind kind);

// Logs every failed check, however harmless.
void log_every_check();

}  // namespace test

#endif  // TESTS_SUPPORT_STORE_ROOT_H_
