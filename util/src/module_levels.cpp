#include "src/module_levels.h"

#include <algorithm>

namespace quorvane {
namespace module {
namespace {

std::string_view without_blanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  const std::size_t last = text.find_last_not_of(" \t");
  return first == std::string_view::npos ? "" : text.substr(first, last - first + 1);
}

// "util" covers "util" and "util/x", not "utility"; "util/" covers "util/x".
bool covers(std::string_view path, std::string_view route) {
  return route.substr(0, path.size()) == path &&
         (route.size() == path.size() || path.back() == '/' || route[path.size()] == '/');
}

}  // namespace

bool is_well_formed(std::string_view path) {
  return path.find("//") == std::string_view::npos && (path.empty() || path.front() != '/');
}

ModuleLevels::ModuleLevels(std::string_view setting) {
  while (!setting.empty()) {
    const std::size_t end = std::min(setting.find(','), setting.size());
    const std::string_view part = without_blanks(setting.substr(0, end));
    setting.remove_prefix(std::min(end + 1, setting.size()));
    if (!part.empty() && !add(part)) {
      malformed_.append(malformed_.empty() ? "" : ",").append(part);
    }
  }
}

// No level has a "=" in it, but a path may.
bool ModuleLevels::add(std::string_view part) {
  const std::size_t equals = part.rfind('=');
  if (equals == std::string_view::npos) {
    return false;
  }
  const std::string path(without_blanks(part.substr(0, equals)));
  const std::string name(without_blanks(part.substr(equals + 1)));
  qv_log_level_t level = QV_LOG_LEVEL_OFF;
  if (path.empty() || !is_well_formed(path) || !logging::parse_level_string(name.c_str(), level)) {
    return false;
  }
  entries_.push_back({path, level});
  return true;
}

std::optional<qv_log_level_t> ModuleLevels::find(const std::vector<std::string>& routes) const {
  const Entry* longest = nullptr;
  for (const Entry& entry : entries_) {
    const bool is_covered =
        std::any_of(routes.begin(), routes.end(),
                    [&](const std::string& route) { return covers(entry.path, route); });
    if (is_covered && (longest == nullptr || entry.path.size() >= longest->path.size())) {
      longest = &entry;
    }
  }
  return longest == nullptr ? std::nullopt : std::optional(longest->level);
}

}  // namespace module
}  // namespace quorvane
