#include "qvutil/rewrite/mend.h"

#include "qvutil/output/text.h"
#include "qvutil/rewrite/copier.h"
#include "qvutil/rewrite/damaged_files.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/rewrite/install.h"
#include "qvutil/rewrite/mend_lazy.h"
#include "qvutil/rewrite/workspace.h"

namespace quorvane::tool {
namespace {

bool is_in(const std::set<std::string>& names, const std::string& path) {
  return names.count(path.substr(path.rfind('/') + 1)) != 0;
}

}  // namespace

std::vector<std::string> mend(Console& console, const CacheFiles& cache,
                              const DamageReport& report) {
  const Workspace workspace(cache);
  if (cache.kind == Kind::lazy_lookup) {
    return mend_lazy(console, workspace, cache);
  }
  const auto writer = make_writer(workspace.staged());
  Copier copier(*writer);
  Progress progress(console, "repairing " + shown(cache.name), bytes_of(cache));
  scan_locked(cache, copier, progress);
  writer->finish();
  std::vector<std::string> kept;
  for (const std::string& path : cache.files()) {
    if (is_in(report.places().files(), path) && size_of_file(path)) {
      kept.push_back(keep_as_damaged(path));
    }
  }
  install(workspace.staged(), cache);
  return kept;
}

}  // namespace quorvane::tool
