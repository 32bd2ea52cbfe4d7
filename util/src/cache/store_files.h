// What the stores do with whole files.
#ifndef QUORVANE_SRC_CACHE_STORE_FILES_H_
#define QUORVANE_SRC_CACHE_STORE_FILES_H_

#include <ostream>
#include <string>

#include <quorvane/buffer.h>
#include <quorvane/mmapped_file.h>

namespace quorvane {
namespace cache {

bool file_exists(const std::string& path);

// The lock file of a lock of this name.
inline std::string lock_file_name(const std::string& name) {
  return name.empty() ? "lock" : "lock_" + name;
}

// Maps all of a file for reading; `file` stays closed when that fails. A pipe in
// the file's place fails too, and is not waited for.
void map_whole(util::MMappedFile& file, const std::string& path);

// Writes all of `buffer` with one call. Ask the stream for the result.
void write_buffer(std::ostream& file, const util::RwBuffer& buffer);

// Deletes a file that an append left half-written. Its record tells of the
// deletion, not, as its words have it, of a failure: readers of logs know it so.
void remove_unstored(const std::string& path);

// Logs why nothing is appended: the lock file holds the note of an append that was cut
// short, and this process may not clear it. Always false.
bool report_standing_note(const std::string& path);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_STORE_FILES_H_
