// Reads the entries of a cache until the caller has seen enough.
#ifndef TOOLS_QVUTIL_STORE_EACH_ENTRY_H_
#define TOOLS_QVUTIL_STORE_EACH_ENTRY_H_

#include <functional>
#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Calls `use` for each whole entry until that returns false. `verb` is for the progress:
// "reading". What is damaged is passed over and counted on standard error; the outcome then is
// `found`, else `fine`.
Outcome each_entry(Console& console, const CacheFiles& files, const std::string& verb,
                   const std::function<bool(const Entry&)>& use);

// The sum of the atoms.
std::uint64_t value_size(const Entry& entry);

// Of the file with the keys, for the progress of a scan; 0 if it is missing.
std::uint64_t bytes_to_scan(const CacheFiles& files);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_EACH_ENTRY_H_
