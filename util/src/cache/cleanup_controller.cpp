#include <quorvane/store.h>

#include <algorithm>
#include <limits>

#include "src/cache/checks.h"
#include "src/fork_guard.h"

namespace quorvane {
namespace cache {

CleanupController::CleanupController(std::uint64_t threshold) : threshold_(threshold) {
  fork_guard::add(usages_mutex_);
}

CleanupController::~CleanupController() { fork_guard::remove(usages_mutex_); }

std::uint64_t CleanupController::get_ticket() {
  const fork_guard::Lock lock(usages_mutex_);
  usages_.push_back(0);
  return usages_.size() - 1;
}

bool CleanupController::update_and_check_usage(std::uint64_t ticket, CleanableResource& res) {
  const std::uint64_t usage = res.get_usage();
  const std::uint64_t total = update_usage(ticket, usage);
  // Not under the mutex: the log may block, and a fork would wait for it.
  QV_LOG(g_module, TRACE, "Cache store usage is %lu / %lu bytes.", total, threshold_);
  return total > threshold_;
}

std::uint64_t CleanupController::update_usage(std::uint64_t ticket, std::uint64_t usage) {
  const fork_guard::Lock lock(usages_mutex_);
  CACHE_ASSERT(ticket < usages_.size());
  total_usage_ = total_usage_ + usage - usages_[ticket];
  usages_[ticket] = usage;
  return total_usage_;
}

std::uint64_t CleanupController::get_room(std::uint64_t ticket) {
  const fork_guard::Lock lock(usages_mutex_);
  CACHE_ASSERT(ticket < usages_.size());
  const std::uint64_t others = total_usage_ - usages_[ticket];
  if (threshold_ == 0) {
    return std::numeric_limits<std::uint64_t>::max();
  }
  return threshold_ - std::min(threshold_, others);
}

void CleanupController::process(std::uint64_t ticket, CleanableResource& res) {
  if (threshold_ == 0 || !update_and_check_usage(ticket, res)) {
    return;
  }
  res.clean();
  update_and_check_usage(ticket, res);  // Kept: docs/compatibility.md
  QV_LOG(g_module, INFO, "Cache store cleaned.");
}

}  // namespace cache
}  // namespace quorvane
