#include "fingerprint/run.h"

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <exception>

#include "fingerprint/complaint.h"
#include "fingerprint/fingerprinter.h"
#include "fingerprint/interruption.h"
#include "fingerprint/store_access.h"
#include "fingerprint/tree.h"
#include "fingerprint/worker_pool.h"

namespace fingerprint {
namespace {

using Clock = std::chrono::steady_clock;

// Worker `number` takes every jobs-th file: an even share, and the same one in every run.
// The parent opens the cache once. Each worker has its own copy, and stores what it has added.
void do_share(const Tree& tree, unsigned number, const Options& options, OpenedCache& opened,
              Counts& counts) {
  Fingerprinter fingerprinter(*opened.cache, counts);
  for (std::size_t i = number; i < tree.files.size() && interruption() == 0; i += options.jobs) {
    fingerprinter.process(tree.files[i]);
  }
  if (opened.persistent && !opened.cache->flush()) {
    ++counts.unstored;
  }
  opened.cache.reset();  // stores in the files what servers gave; the worker's end doesn't
}

bool do_all(const Tree& tree, const Options& options, OpenedCache& opened, WorkerPool& pool) {
  const auto progress = [&] {
    if (interruption() != 0) {
      pool.interrupt();
    }
    show_progress(std::to_string(pool.counts().files()) + " of " +
                  std::to_string(tree.files.size()) + " files");
  };
  progress();
  catch_interruptions();
  const bool all_started = pool.start(options.jobs, [&](unsigned number) {
    do_share(tree, number, options, opened, pool.counts());
  });
  const bool all_well = pool.wait(progress);
  show_progress("");
  if (!all_started || !all_well) {
    complain("a worker failed; its share of the files is not complete");
  }
  return all_started && all_well;
}

// The exit status of a run that went `as_planned`, or didn't.
int status_after(bool as_planned) {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    complain(with_errno("standard output", errno));
    as_planned = false;
  }
  if (const int signal = interruption()) {
    complain("interrupted");
    return INTERRUPTED + signal;
  }
  return as_planned ? ALL_DONE : DONE_WITH_COMPLAINTS;
}

void print_row(const char* name, std::uint64_t value) {
  std::printf("%-12s %12" PRIu64 "\n", name, value);
}

void print_table(const Counts& counts, std::size_t unreadable, double seconds,
                 std::uint64_t store_bytes) {
  print_row("files", counts.hits + counts.misses);
  print_row("bytes read", counts.bytes_read);
  print_row("hits", counts.hits);
  print_row("misses", counts.misses);
  print_row("unreadable", unreadable);
  std::printf("%-12s %12.3f\n", "seconds", seconds);
  print_row("store bytes", store_bytes);
}

int run_or_throw(const Options& options) {
  const auto start = Clock::now();
  const Tree tree = walk(options.tree);
  OpenedCache opened = open_cache(options);
  WorkerPool pool;
  const bool complete = do_all(tree, options, opened, pool);
  const bool stored = opened.persistent && pool.counts().unstored == 0;
  if (opened.persistent && !stored) {
    complain(store_files(options) + ": not all new digests could be stored");
  }
  const std::size_t unreadable = tree.unreadable + pool.counts().unreadable;
  print_table(pool.counts(), unreadable,
              std::chrono::duration<double>(Clock::now() - start).count(),
              opened.persistent ? store_size(options) : 0);
  return status_after(complete && stored && unreadable == 0);
}

}  // namespace

int run(const Options& options) {
  try {
    return run_or_throw(options);
  } catch (const std::exception& error) {
    complain(error.what());
    return DONE_WITH_COMPLAINTS;
  }
}

}  // namespace fingerprint
