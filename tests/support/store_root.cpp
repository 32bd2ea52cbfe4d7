#include "support/store_root.h"

#include <cstdlib>

namespace test {

std::vector<std::string> lock_is_lost(const std::string& path) {
  return {"WARN Cache store " + path + " lock couldn't be obtained: No such file or directory.",
          expectation("store_->try_store_diff(diff_map_)")};
}

std::string root_path() { return getenv("QV_CACHE_STORE_ROOT"); }

std::string root_file(const std::string& name) { return root_path() + "/" + name; }

quorvane::cache::CleanupController& no_limit() {
  static auto& controller = *new quorvane::cache::CleanupController(0);
  return controller;
}

std::unique_ptr<quorvane::cache::Store> maps_store(quorvane::cache::StoreKind kind) {
  return quorvane::cache::make_file_store(kind, "maps", &no_limit());
}

void log_every_check() {
  module_of("util/src/cache")->fault_log_level = 3;
  module_of("util/src/mmapped_file")->fault_log_level = 3;
}

}  // namespace test
