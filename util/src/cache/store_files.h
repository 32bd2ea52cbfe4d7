// What stores do with whole files.
#ifndef QUORVANE_SRC_CACHE_STORE_FILES_H_
#define QUORVANE_SRC_CACHE_STORE_FILES_H_

#include <ostream>
#include <string>

#include <quorvane/buffer.h>
#include <quorvane/mmapped_file.h>

namespace quorvane {
namespace cache {

// QV_CACHE_STORE_ROOT, or null.
const char* root_from_environment();

bool file_exists(const std::string& path);

// The name of the file of the lock `name`.
inline std::string lock_file_name(const std::string& name) {
  return name.empty() ? "lock" : "lock_" + name;
}

// Maps a whole file for reading. On failure `file` stays closed. A pipe in the file's
// place is a failure too; the call doesn't wait for its writer.
void map_whole(util::MMappedFile& file, const std::string& path);

// Writes all of `buffer` with one call. Ask the stream for the result.
void write_buffer(std::ostream& file, const util::RwBuffer& buffer);

// Deletes a file that an append left half-written. Logs a removal that succeeds, although
// the text says otherwise. Kept: docs/compatibility.md
void remove_unstored(const std::string& path);

// Logs why nothing is appended: the lock file holds the note of an interrupted append, and
// this process can't clear it. Always returns false.
bool report_standing_note(const std::string& path);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_STORE_FILES_H_
