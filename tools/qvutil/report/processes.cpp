#include "qvutil/report/processes.h"

#include <iterator>
#include <utility>

namespace quorvane::tool {

const Report* Processes::last_of(const ProcessKey& process) const {
  const auto found = by_process_.find(process);
  return found == by_process_.end() ? nullptr : &found->second->report;
}

void Processes::keep(Report report, std::size_t size) {
  if (const auto found = by_process_.find(report.process); found != by_process_.end()) {
    remove(found->second);
  }
  bytes_ += size;
  ProcessKey process = report.process;
  entries_.push_back({std::move(report), size});
  by_process_.emplace(std::move(process), std::prev(entries_.end()));
  while (entries_.size() > 1 && (entries_.size() > most_ || bytes_ > most_bytes_)) {
    remove(entries_.begin());
    ++forgotten_;
  }
}

void Processes::remove(Entries::iterator entry) {
  bytes_ -= entry->size;
  by_process_.erase(entry->report.process);
  entries_.erase(entry);
}

}  // namespace quorvane::tool
