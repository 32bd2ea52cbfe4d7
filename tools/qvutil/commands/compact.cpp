#include "qvutil/commands/compact.h"

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/copier.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/rewrite/install.h"
#include "qvutil/rewrite/workspace.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/lock.h"

namespace quorvane::tool {
namespace {

struct Compacted {
  std::uint64_t entries = 0;
  std::uint64_t repeated = 0;
  std::uint64_t before = 0;  // bytes
  std::uint64_t after = 0;
};

// The size of an index says nothing of its cache.
std::uint64_t data_bytes(const CacheFiles& cache) {
  return cache.kind == Kind::indexed ? size_of_file(cache.main_file()).value_or(0)
                                     : bytes_of(cache);
}

Compacted rewrite(Console& console, const CacheFiles& cache) {
  expect_no_links(cache);
  const WriteLock lock(console, cache);
  const Workspace workspace(cache);
  const auto writer = make_writer(workspace.staged());
  Copier copier(*writer);
  Progress progress(console, "compacting " + shown(cache.name), bytes_of(cache));
  scan_locked(cache, copier, progress);
  copier.places().expect_none(cache);
  writer->finish();
  const std::uint64_t before = data_bytes(cache);
  const std::uint64_t after = data_bytes(workspace.staged());
  if (after >= before) {
    return {copier.copied(), copier.repeated(), before, before};
  }
  install(workspace.staged(), cache);
  return {copier.copied(), copier.repeated(), before, data_bytes(cache)};
}

void print(Console& console, const CacheFiles& cache, const Compacted& done) {
  if (console.json()) {
    print_json(console, {{"cache", json_of_bytes(cache.name)},
                         {"kind", name_of(cache.kind)},
                         {"entries", done.entries},
                         {"repeated", done.repeated},
                         {"bytes_before", done.before},
                         {"bytes_after", done.after}});
    return;
  }
  console.out() << shown(cache.name) << ": " << counted(done.entries, "entry", "entries") << ", "
                << size_text(done.before);
  if (done.after == done.before) {
    console.out() << ", nothing to drop\n";
    return;
  }
  console.out() << " before, " << size_text(done.after) << " after";
  if (done.repeated != 0) {
    console.out() << "; dropped " << counted(done.repeated, "repeated key", "repeated keys");
  }
  console.out() << "\n";
}

}  // namespace

Outcome compact(Console& console, const CompactOptions& options) {
  const CacheFiles cache = find_cache(options.cache, kind_named(options.kind));
  print(console, cache, rewrite(console, cache));
  return Outcome::fine;
}

}  // namespace quorvane::tool
