#include "qvutil/commands/convert.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/copier.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/rewrite/install.h"
#include "qvutil/rewrite/json_lines.h"
#include "qvutil/rewrite/store_writer.h"
#include "qvutil/rewrite/target.h"
#include "qvutil/rewrite/workspace.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/lock.h"

namespace quorvane::tool {
namespace {

constexpr const char* kNeedsName = "--from jsonl needs a name for the new cache: --as CACHE";

struct Converted {
  std::uint64_t entries = 0;
  std::uint64_t repeated = 0;
  Places places;
};

// SIGPIPE ends the process as it ends other filters, but not before the writer has removed its
// keys from the disk.
class LatePipeSignal {
 public:
  LatePipeSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, &before_);
  }
  ~LatePipeSignal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  LatePipeSignal(const LatePipeSignal&) = delete;
  LatePipeSignal& operator=(const LatePipeSignal&) = delete;

 private:
  sigset_t before_;
};

// Before a lock file is made. Opens nothing: whoever writes to a pipe would hear that it is closed.
void expect_readable(const std::vector<std::string>& files) {
  for (const std::string& name : files) {
    if (name != "-" && faccessat(AT_FDCWD, name.c_str(), R_OK, AT_EACCESS) != 0) {
      throw failure_of("can't open " + shown(name), errno);
    }
  }
}

// Where entries come from.
class EntrySource {
 public:
  explicit EntrySource(const ConvertOptions& options) : options_(options) {
    if (options.from_json_lines) {
      expect_readable(options.sources);
    } else {
      cache_ = find_cache(options.sources.front(), kind_named(options.kind));
    }
  }

  // Nothing for files with JSON lines.
  const std::optional<CacheFiles>& cache() const { return cache_; }

  // `is_locked`: the caller holds the lock of the cache.
  Converted copy_to(EntryWriter& writer, Console& console, bool is_locked) const {
    return cache_ ? copy_cache(writer, console, is_locked) : copy_lines(writer);
  }

 private:
  Converted copy_cache(EntryWriter& writer, Console& console, bool is_locked) const {
    Copier copier(writer);
    Progress progress(console, "converting " + shown(cache_->name), bytes_of(*cache_));
    if (is_locked) {
      scan_locked(*cache_, copier, progress);
    } else {
      scan(console, *cache_, copier, progress);
    }
    writer.finish();
    return {copier.copied(), copier.repeated(), copier.places()};
  }

  Converted copy_lines(EntryWriter& writer) const {
    JsonLinesRead read;
    for (const std::string& name : options_.sources) {
      if (name == "-") {
        read_json_lines(std::cin, "standard input", writer, read);
        continue;
      }
      std::ifstream file(name);
      if (!file) {
        throw failure_of("can't open " + shown(name), errno);
      }
      read_json_lines(file, name, writer, read);
    }
    writer.finish();
    return {read.entries, read.repeated, {}};
  }

  const ConvertOptions& options_;
  std::optional<CacheFiles> cache_;
};

// The locks of the source and of the target: one, if they are the same, or two, always in the
// same order, so that two processes never wait for each other.
class Locks {
 public:
  Locks(Console& console, const std::optional<CacheFiles>& source, const CacheFiles& target) {
    const std::string own = canonical_lock(target);
    const std::string other = source ? canonical_lock(*source) : own;
    if (other == own) {
      target_ = std::make_unique<WriteLock>(console, target);
    } else if (other < own) {
      lock_source(console, *source);
      target_ = std::make_unique<WriteLock>(console, target);
    } else {
      target_ = std::make_unique<WriteLock>(console, target);
      lock_source(console, *source);
    }
  }

 private:
  // The source may be where this process may not write.
  void lock_source(Console& console, const CacheFiles& source) {
    source_ = std::make_unique<ReadLock>(console, source);
    if (source_->has_note()) {
      throw Failure("an append to " + shown(source.name) +
                    " was cut short; `qvutil repair` undoes it");
    }
  }

  std::unique_ptr<ReadLock> source_;
  std::unique_ptr<WriteLock> target_;
};

CacheFiles target_of(const ConvertOptions& options, const EntrySource& source, Kind kind) {
  if (options.as.empty() && !source.cache()) {
    throw Failure(kNeedsName);
  }
  CacheFiles target = options.as.empty()
                          ? CacheFiles{kind, source.cache()->root, source.cache()->name}
                          : named_cache(options.as, kind);
  expect_own_name(target);
  return target;
}

// Whoever may use the source may use a new cache, too.
std::string file_to_be_like(const EntrySource& source, const CacheFiles& target) {
  const bool is_new = source.cache() && !size_of_file(target.main_file());
  return is_new ? source.cache()->main_file() : target.main_file();
}

Converted convert_to_files(Console& console, const ConvertOptions& options,
                           const EntrySource& source, const CacheFiles& target) {
  if (source.cache() && source.cache()->kind == target.kind &&
      canonical_lock(*source.cache()) == canonical_lock(target)) {
    throw Failure(shown(target.name) + " is " + name_of(target.kind) + " already");
  }
  expect_no_links(target);
  const std::string like = file_to_be_like(source, target);
  ensure_lock_file(target, like);
  ensure_pair(target);
  const Locks locks(console, source.cache(), target);
  if (has_content(target) && !options.force) {
    throw Failure("there is " + shown(target.main_file()) + " already; --force replaces it");
  }
  const Workspace workspace(target);
  Converted done;
  {
    const auto writer = make_writer(workspace.staged());
    done = source.copy_to(*writer, console, true);
  }
  install(workspace.staged(), target, like);
  return done;
}

// The last component of a path.
std::string last_of(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string remote_name_of(const ConvertOptions& options, const EntrySource& source) {
  if (options.as.empty() && !source.cache()) {
    throw Failure(kNeedsName);
  }
  return options.as.empty() ? source.cache()->name : last_of(options.as);
}

void print(Console& console, const Converted& done, const std::string& name, const char* kind) {
  if (console.json()) {
    print_json(console, {{"cache", json_of_bytes(name)},
                         {"kind", kind},
                         {"entries", done.entries},
                         {"repeated", done.repeated},
                         {"places", done.places.count()},
                         {"bytes_lost", done.places.bytes()}});
    return;
  }
  console.out() << shown(name) << " (" << kind
                << "): " << counted(done.entries, "entry", "entries");
  if (done.repeated != 0) {
    console.out() << "; left out " << counted(done.repeated, "repeated key", "repeated keys");
  }
  console.out() << "\n";
}

void warn_of(Console& console, const Converted& done) {
  if (done.places.count() != 0) {
    console.err() << "The source has "
                  << counted(done.places.count(), "damaged place", "damaged places")
                  << "; what is whole is converted\n";
  }
}

}  // namespace

Outcome convert(Console& console, const ConvertOptions& options) {
  const EntrySource source(options);
  Converted done;
  if (options.to == "jsonl") {
    const LatePipeSignal late;
    JsonLinesWriter writer(console);
    done = source.copy_to(writer, console, false);
  } else if (const auto kind = kind_named(options.to)) {
    const CacheFiles target = target_of(options, source, *kind);
    done = convert_to_files(console, options, source, target);
    print(console, done, target.name, name_of(target.kind));
  } else {
    const std::string name = remote_name_of(options, source);
    done = source.copy_to(*StoreWriter::into_remote(name), console, false);
    print(console, done, name, "remote");
  }
  warn_of(console, done);
  return done.places.count() == 0 ? Outcome::fine : Outcome::found;
}

}  // namespace quorvane::tool
