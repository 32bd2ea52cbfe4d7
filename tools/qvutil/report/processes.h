// The last report of each process.
#ifndef TOOLS_QVUTIL_REPORT_PROCESSES_H_
#define TOOLS_QVUTIL_REPORT_PROCESSES_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>

#include "qvutil/report/report.h"

namespace quorvane::tool {

// Forgets the processes that haven't reported for the longest time if there are too many.
class Processes {
 public:
  explicit Processes(std::size_t most = 1000, std::size_t most_bytes = kLongestLine)
      : most_(most), most_bytes_(most_bytes) {}

  // The last report of this process; null if there is none.
  const Report* last_of(const ProcessKey& process) const;

  // Takes the place of the process's last report. `size` is that of its line.
  void keep(Report report, std::size_t size);

  // Calls `each` with each process's last report; the one that came last comes last.
  template <typename Each>
  void for_each(Each each) const {
    for (const Entry& entry : entries_) {
      each(entry.report);
    }
  }

  std::uint64_t forgotten() const { return forgotten_; }

 private:
  struct Entry {
    Report report;
    std::size_t size;
  };
  using Entries = std::list<Entry>;

  void remove(Entries::iterator entry);

  std::size_t most_;
  std::size_t most_bytes_;
  Entries entries_;  // the one that reported last is at the end
  std::map<ProcessKey, Entries::iterator> by_process_;
  std::size_t bytes_ = 0;
  std::uint64_t forgotten_ = 0;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_PROCESSES_H_
