// What can be told of a cache at a glance.
#ifndef TOOLS_QVUTIL_STORE_SURVEY_H_
#define TOOLS_QVUTIL_STORE_SURVEY_H_

#include <cstdint>
#include <string>

#include "qvutil/output/progress.h"
#include "qvutil/store/cache_files.h"

namespace quorvane::tool {

enum class State {
  whole,
  cut_short,  // a killed process has left the rest of an append; the next writer removes it
  damaged,
  busy,  // a process changes the files now
  other_version,
  unreadable,
};

// "whole", "cut short", "damaged", "busy", "other version", "unreadable".
const char* name_of(State state);

struct Survey {
  State state = State::whole;
  std::uint64_t entries = 0;
  std::uint64_t bytes = 0;   // of all files
  std::int64_t changed = 0;  // seconds since 1970
  std::string reason;        // for the last two states
};

// Looks at the structure only: no value is read, and of an indexed store only the index. Waits
// for no lock.
Survey survey(const CacheFiles& files, Progress& progress);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_SURVEY_H_
