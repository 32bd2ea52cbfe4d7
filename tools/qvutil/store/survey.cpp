#include "qvutil/store/survey.h"

#include <optional>
#include <vector>

#include "qvutil/output/outcome.h"
#include "qvutil/store/bus_errors.h"
#include "qvutil/store/format.h"
#include "qvutil/store/indexed_scan.h"
#include "qvutil/store/lock.h"
#include "qvutil/store/opened_cache.h"
#include "qvutil/store/record_formats.h"
#include "qvutil/store/records.h"

namespace quorvane::tool {
namespace {

class DamageFinder : public Visitor {
 public:
  void entry(const Entry&) override {}
  void place(const Place& place) override { is_damaged = is_damaged || place.is_damage; }

  bool is_damaged = false;
};

void count_records(const RecordFormat& format, std::uint32_t version, Progress& progress,
                   Survey& survey) {
  const format::Start start = format::start_of(format.bytes());
  DamageFinder finder;
  if (format.bytes().size() >= format::kHeaderSize) {
    survey.entries = RecordWalk("", format, finder).run(format::kHeaderSize, progress);
  }
  if (finder.is_damaged || start.magic != format::kMagic || start.version != version) {
    survey.state = State::damaged;
  }
}

// Without an index: as far as the sizes lead.
void count_data(std::string_view data, Progress& progress, Survey& survey) {
  Entry entry;
  std::uint64_t offset = format::kDataHeaderSize;
  while (offset < data.size() && IndexedScan::read(data, offset, entry) == nullptr) {
    ++survey.entries;
    progress.at(offset);
    offset += format::padded(entry.size);
  }
  survey.state = offset < data.size() ? State::cut_short : State::whole;
}

void look_at_indexed(OpenedCache& cache, Progress& progress, Survey& survey) {
  const std::string_view data = cache.main->bytes();
  if (data.size() < format::kDataHeaderSize) {
    survey.state = State::cut_short;
    return;
  }
  const format::Start start = format::start_of(data);
  if (start.magic != format::kDataMagic || start.version != format::kIndexedVersion) {
    survey.state = State::damaged;
  } else if (!cache.index->fits()) {
    count_data(data, progress, survey);
  } else {
    survey.entries = cache.index->entries();
    survey.state = cache.ends_with_rest() ? State::cut_short : State::whole;
  }
}

void look_at(OpenedCache& cache, Progress& progress, Survey& survey) {
  const bool is_lazy = cache.kind == Kind::lazy_lookup;
  survey.bytes = cache.bytes();
  survey.changed = cache.changed();
  if (!cache.places.empty() && cache.main && cache.main->size() == 0) {
    survey.state = State::cut_short;  // the append that created the files
    return;
  }
  if (!cache.main || (is_lazy && !cache.values)) {
    survey.state = State::damaged;
  } else if (cache.kind == Kind::indexed) {
    look_at_indexed(cache, progress, survey);
  } else if (is_lazy) {
    const format::Start start = format::start_of(cache.values->bytes());
    count_records(LazyFormat(cache.main->bytes(), cache.values->bytes()), format::kLazyVersion,
                  progress, survey);
    if (start.magic != format::kMagic || start.version != format::kLazyVersion) {
      survey.state = State::damaged;
    }
  } else {
    count_records(BasicFormat(cache.main->bytes()), format::kBasicVersion, progress, survey);
  }
  if (survey.state == State::whole && !cache.places.empty()) {
    survey.state = State::cut_short;
  }
}

}  // namespace

const char* name_of(State state) {
  switch (state) {
    case State::whole:
      return "whole";
    case State::cut_short:
      return "cut short";
    case State::damaged:
      return "damaged";
    case State::busy:
      return "busy";
    case State::other_version:
      return "other version";
    case State::unreadable:
      return "unreadable";
  }
  return "";
}

Survey survey(const CacheFiles& files, Progress& progress) {
  const BusErrors guard;
  Survey survey;
  try {
    std::optional<ReadLock> lock = ReadLock::try_lock(files);
    const bool is_busy = !lock;
    OpenedCache cache(files, lock ? lock->noted() : std::vector<NotedFile>());
    if (!cache.ends_with_rest()) {
      lock.reset();
    }
    look_at(cache, progress, survey);
    if (is_busy && survey.state != State::whole) {
      survey.state = State::busy;  // what looks damaged may be half of an append
    }
  } catch (const format::OtherVersion& error) {
    survey.state = State::other_version;
    survey.reason = error.what();
  } catch (const Failure& error) {
    survey.state = State::unreadable;
    survey.reason = error.what();
  }
  return survey;
}

}  // namespace quorvane::tool
