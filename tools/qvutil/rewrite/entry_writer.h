// Where entries go: into the new files of a cache, to servers, or to standard output.
#ifndef TOOLS_QVUTIL_REWRITE_ENTRY_WRITER_H_
#define TOOLS_QVUTIL_REWRITE_ENTRY_WRITER_H_

#include <memory>
#include <string_view>
#include <vector>

#include "qvutil/store/cache_files.h"

namespace quorvane::tool {

// Entries don't stay in memory. When the library enlarges the index of a store, it needs some 50
// bytes for each of its entries.
class EntryWriter {
 public:
  using Atoms = std::vector<std::string_view>;

  virtual ~EntryWriter() = default;

  // Copies what it needs. False, and nothing is written, if an earlier entry has the key. The
  // key and the atoms aren't empty, and there is one atom or more. Throws Failure if the entry
  // can't be written.
  virtual bool add(std::string_view key, const Atoms& atoms) = 0;

  // After the last entry. Throws Failure if not all entries could be written.
  virtual void finish() = 0;
};

// Makes the files of a cache in an existing directory, where nothing has their names.
std::unique_ptr<EntryWriter> make_writer(const CacheFiles& files);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_ENTRY_WRITER_H_
