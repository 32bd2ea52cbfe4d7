#include "qvutil/store/scan.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/store/bus_errors.h"
#include "qvutil/store/format.h"
#include "qvutil/store/headers.h"
#include "qvutil/store/index_check.h"
#include "qvutil/store/indexed_scan.h"
#include "qvutil/store/intact.h"
#include "qvutil/store/lock.h"
#include "qvutil/store/opened_cache.h"
#include "qvutil/store/record_formats.h"
#include "qvutil/store/records.h"
#include "qvutil/store/repeated_keys.h"
#include "qvutil/store/value_check.h"

namespace quorvane::tool {
namespace {

// Runs one pass over the entries with a visitor.
using Pass = std::function<std::uint64_t(Visitor&)>;

// Calls a function for each entry. The places are known from the first pass.
class ForEach : public Visitor {
 public:
  explicit ForEach(std::function<void(const Entry&)> function) : function_(std::move(function)) {}
  void entry(const Entry& entry) override { function_(entry); }
  void place(const Place&) override {}

 private:
  std::function<void(const Entry&)> function_;
};

// Passes on what is visited, and collects the keys.
class KeyCollector : public Visitor {
 public:
  KeyCollector(RepeatedKeys& keys, Visitor& visitor) : keys_(keys), visitor_(visitor) {}
  void entry(const Entry& entry) override {
    keys_.add(entry.key);
    visitor_.entry(entry);
  }
  void place(const Place& place) override { visitor_.place(place); }

 private:
  RepeatedKeys& keys_;
  Visitor& visitor_;
};

// False if that needs more parts.
bool tell_repeated(const std::string& name, bool is_damage, const Pass& pass, RepeatedKeys& keys,
                   Visitor& visitor) {
  keys.finish();
  if (!keys.find_suspects()) {
    return false;
  }
  ForEach check([&](const Entry& entry) {
    if (const auto earlier = keys.earlier(entry.key, entry.offset)) {
      visitor.place({name, entry.offset, entry.size,
                     "the key is that of the entry at offset " + std::to_string(*earlier),
                     is_damage, true});
    }
  });
  if (keys.has_suspects()) {
    pass(check);
  }
  return true;
}

// Visits everything, and then the places of repeated keys.
std::uint64_t scan_keys(const std::string& name, bool is_damage, const Pass& pass,
                        Visitor& visitor) {
  std::uint64_t entries = 0;
  std::uint64_t most = RepeatedKeys::kMost;
  {
    RepeatedKeys keys(0, 1);
    KeyCollector collector(keys, visitor);
    entries = pass(collector);
    if (entries <= most) {
      if (tell_repeated(name, is_damage, pass, keys, visitor)) {
        return entries;
      }
      most = 4 * RepeatedKeys::kMostSuspects;  // each is two entries at least; see below
    }
  }
  // Twice as many as would do, since they are not of the same size.
  const std::uint64_t parts = 2 * entries / most + 1;
  for (std::uint64_t part = 0; part < parts; ++part) {
    RepeatedKeys keys(part, parts);
    ForEach collect([&](const Entry& entry) { keys.add(entry.key); });
    pass(collect);
    tell_repeated(name, is_damage, pass, keys, visitor);
  }
  return entries;
}

std::uint64_t scan_basic(OpenedCache& cache, Visitor& visitor, Progress& progress) {
  MappedFile& file = *cache.main;
  if (!check_header(file, format::kMagic, format::kBasicVersion, format::kHeaderSize, visitor)) {
    return 0;
  }
  const BasicFormat format(file.bytes());
  const Pass pass = [&](Visitor& to) {
    return RecordWalk(file.name(), format, to).run(format::kHeaderSize, progress);
  };
  return scan_keys(file.name(), false, pass, visitor);
}

void tell_missing(const std::string& path, Visitor& visitor) {
  visitor.place({path.substr(path.rfind('/') + 1), 0, 0, "the file is missing"});
}

std::uint64_t scan_lazy(const CacheFiles& files, OpenedCache& cache, Visitor& visitor,
                        Progress& progress) {
  for (std::optional<MappedFile>* file : {&cache.main, &cache.values}) {
    if (!*file) {
      tell_missing(files.path(file == &cache.main ? "key_" : "val_"), visitor);
      return 0;
    }
    if (!check_header(**file, format::kMagic, format::kLazyVersion, format::kHeaderSize, visitor)) {
      return 0;
    }
  }
  const std::string name = cache.main->name();
  const LazyFormat format(cache.main->bytes(), cache.values->bytes());
  const Pass pass = [&](Visitor& to) {
    return RecordWalk(name, format, to).run(format::kHeaderSize, progress);
  };
  ValueCheck check(cache.values->name(), cache.values->bytes(), visitor);
  const std::uint64_t entries = scan_keys(name, true, pass, check);
  check.finish();
  return entries;
}

std::uint64_t scan_indexed(OpenedCache& cache, Visitor& visitor, Progress& progress) {
  MappedFile& file = *cache.main;
  if (!check_data_header(file, visitor)) {
    return 0;
  }
  IndexView& index = *cache.index;
  const std::string_view bytes = file.bytes();
  const Pass pass = [&](Visitor& to) {
    return IndexedScan(file.name(), bytes, index.fits() ? index.covered() : 0, to)
        .run(format::kDataHeaderSize, progress);
  };
  if (!index.fits()) {
    visitor.place({index.name(), 0, index.file_size(),
                   index.reason() + "; the next process makes it anew", false});
    return scan_keys(file.name(), false, pass, visitor);
  }
  index.map();
  IndexCheck check(index, file.name(), bytes, visitor);
  const std::uint64_t entries = pass(check);
  check.finish();
  return entries;
}

Scanned scan_opened(const CacheFiles& files, OpenedCache& cache, Visitor& visitor,
                    Progress& progress) {
  for (const Place& place : cache.places) {
    visitor.place(place);
  }
  Scanned scanned;
  scanned.bytes = cache.bytes();
  const bool is_undone = !cache.places.empty() && cache.main && cache.main->size() == 0;
  if (is_undone) {
    return scanned;  // the next writer deletes the files
  }
  if (cache.kind == Kind::lazy_lookup) {
    scanned.entries = scan_lazy(files, cache, visitor, progress);
  } else if (!cache.main) {
    tell_missing(files.main_file(), visitor);
  } else {
    scanned.entries = cache.kind == Kind::basic ? scan_basic(cache, visitor, progress)
                                                : scan_indexed(cache, visitor, progress);
  }
  return scanned;
}

// Holds the store's lock only while the end of the files isn't known.
template <typename Read>
Scanned open_and(Console& console, const CacheFiles& files, const Read& read) {
  const BusErrors guard;
  std::optional<ReadLock> lock(std::in_place, console, files);
  OpenedCache cache(files, lock->noted());
  if (cache.leave_out_rest()) {
    lock.reset();
  }
  return read(cache);
}

}  // namespace

Scanned scan(Console& console, const CacheFiles& files, Visitor& visitor, Progress& progress) {
  return open_and(console, files,
                  [&](OpenedCache& cache) { return scan_opened(files, cache, visitor, progress); });
}

Scanned scan_places(Console& console, const CacheFiles& files, Visitor& visitor,
                    Progress& progress) {
  return open_and(console, files, [&](OpenedCache& cache) {
    const auto entries = entries_if_intact(console, cache, progress);
    return entries ? Scanned{*entries, cache.bytes()}
                   : scan_opened(files, cache, visitor, progress);
  });
}

Scanned scan_locked(const CacheFiles& files, Visitor& visitor, Progress& progress) {
  const BusErrors guard;
  OpenedCache cache(files, {});
  return scan_opened(files, cache, visitor, progress);
}

}  // namespace quorvane::tool
